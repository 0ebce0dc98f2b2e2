"""Tests of the fault campaign itself: its judge sees what is wrong with a run, and its plan is complete."""
from __future__ import annotations

import dataclasses
from typing import Any, Callable

import pytest

from lab.result import Result
from cases.fault_injection import campaign, faults, judge, plan
from cases.fault_injection.machines import MACHINES
from cases.fault_injection.model import Model

RUN = "download/wininet!HttpQueryInfoW#1=12002"
FAILED = "wininet!HttpQueryInfoW#1"


@pytest.fixture(scope="module")
def real() -> Result:
    """A real disturbed run; the cases below spoil copies of it."""
    result, problems = campaign.execute(campaign.by_id()[RUN])
    assert problems == []
    return result


but = dataclasses.replace


def without(lines: list[str], start_of: str, number: int = -1) -> list[str]:
    """The lines without the last (or another) one that begins with this text."""
    at = [index for index, line in enumerate(lines) if line.startswith(start_of)][number]
    return [*lines[:at], *lines[at + 1:]]


def quiet(lines: list[str]) -> list[str]:
    return [line.replace("gle=12002", "gle=0") if line.startswith(FAILED) else line for line in lines]


def swapped(lines: list[str], start_of: str) -> list[str]:
    """These lines with the last two swapped."""
    first, second = [index for index, line in enumerate(lines) if line.startswith(start_of)][-2:]
    lines = list(lines)
    lines[first], lines[second] = lines[second], lines[first]
    return lines


def again(result: Result, **changes: Any) -> Result:
    return but(result, again=but(result.again, **changes))


BOX = {"icon": "error", "text": "Error downloading Tavik Software", "instance": 0}
SPOILT: dict[str, tuple[Callable[[Result], Result], str]] = {
    "the rule never fired": (lambda r: but(r, calls=quiet(r.calls)), "never fired"),
    "a rule that is not understood": (lambda r: but(r, calls=["!bad rule in line 1", *r.calls]), "its own rules"),
    "a hang": (lambda r: but(r, timed_out=True), "not at its end"),
    "a crash": (lambda r: but(r, errors="wine: Unhandled exception"), "a crash"),
    "an exception's exit code": (lambda r: but(r, exit_code=-1073741819), "exit code of an exception"),
    "another exit code": (lambda r: but(r, exit_code=0), "exit code 0 instead of -1"),
    "nothing said about the failure": (lambda r: but(r, log=without(r.log, "Unable to create query")), "not as expected"),
    "a line too many": (lambda r: but(r, log=[*r.log[:3], "More.", *r.log[3:]]), "not as expected"),
    "no log": (lambda r: but(r, log=[]), "the log is empty"),
    "no launch line": (lambda r: but(r, log=r.log[1:]), "does not begin"),
    "half a line": (lambda r: but(r, log=[*r.log[:-1], r.log[-1] + " (no line end)"]), "(no line end)"),
    "a line of nothing": (lambda r: but(r, log=[*r.log[:2], "\0", *r.log[2:]]), "not a line of text"),
    "a box in silence": (lambda r: but(r, boxes=[BOX]), "message boxes ["),
    "a session left open": (lambda r: but(r, calls=without(r.calls, "wininet!InternetCloseHandle")), "left open"),
    "the session closed first": (lambda r: but(r, calls=swapped(r.calls, "wininet!InternetCloseHandle")), "is closed while"),
    "a call too many": (lambda r: but(r, calls=[*r.calls, *(line for line in r.calls if "HttpSend" in line)]), "calls made and calls expected"),
    "an INF left open": (lambda r: but(r, calls=without(r.calls, "setupapi!SetupCloseInfFile")), "INF: 1 left open"),
    "the list of devices kept": (lambda r: but(r, calls=without(r.calls, "setupapi!SetupDiDestroy")), "device list: 1 left"),
    "a list closed twice": (lambda r: but(r, calls=[*r.calls, *(line for line in r.calls if "DiDestroy" in line)]),
                            "is closed while []"),
    "a handler kept": (lambda r: but(r, store_calls=["handler released count=1"]), "handler released count=1"),
    "an object kept": (lambda r: but(r, store_calls=["still held: Package refs=1"]), "still held: Package"),
    "no second start": (lambda r: but(r, again=None), "not started again"),
    "a second start that fails": (lambda r: again(r, exit_code=-1), "the next start (-SILENT): exit code -1"),
    "a second log that differs": (lambda r: again(r, log=r.again.log[:-1]), "the next start (-SILENT): the log"),
    "a text kept in the second start": (lambda r: again(r, calls=without(r.again.calls, "wtsapi32!WTSFree")),
                                        "session text: 1 left open"),
    "the old product left": (lambda r: but(r, after=but(r.after, products=["Tavik Halden 23.40"])),
                             "left on the machine"),
    "a Store package left": (lambda r: but(r, store_left=["Contoso"]), "left on the machine"),
    "a program left": (lambda r: but(r, still_running=["hlcmd.exe"]), "still running"),
}


CALLS = campaign.undisturbed()


@pytest.mark.parametrize("name", SPOILT)
def test_the_judge_sees(real, name):
    spoil, text = SPOILT[name]
    problems = judge.judge(campaign.by_id()[RUN], spoil(real), CALLS["download"]["calls"])
    assert any(text in problem for problem in problems), problems


def test_a_step_of_the_store_that_did_not_fail_is_seen():
    run = campaign.by_id()["store/find=0x80004005"]
    result, problems = campaign.execute(run)
    assert problems == []
    calm = [line.replace("0x80004005", "0x0") for line in result.store_calls]
    problems = judge.judge(run, but(result, store_calls=calm), CALLS["store"]["calls"])
    assert problems == ["the Store's step did not fail: FindPackages"]


def test_a_call_without_consequence_must_not_change_the_calls_that_follow():
    """The model does not name it, so the run is compared with the undisturbed one."""
    run = next(run for run in RUNS if run.id.startswith("download/wininet!InternetSetOptionW#1~"))
    result, problems = campaign.execute(run)
    assert problems == []
    fewer = without(result.calls, "wininet!InternetSetOptionW")
    assert any("InternetSetOptionW" in problem for problem in judge.judge(run, but(result, calls=fewer), CALLS["download"]["calls"]))


# The plan

RUNS = campaign.runs()


@pytest.mark.quick
def test_the_plan_is_large_and_names_its_runs():
    assert len(RUNS) >= 1500 and {run.scenario.name for run in RUNS} == set(CALLS)
    for name in {run.fault.function for run in RUNS if run.step is None}:
        assert len({run.fault.code for run in RUNS if run.fault.function == name}) >= 2, f"{name} does not fail in two ways"
    assert {step.name for step in faults.STEPS} == {run.step.name for run in RUNS if run.step}
    assert campaign.chosen("all") == RUNS and [run.id for run in campaign.chosen(f"{RUN[:-1]}?")] == [RUN]


def test_first_and_last_call_of_each_function_fail():
    for machine, found in CALLS.items():
        for name, number in found["calls"].items():
            assert name in faults.NO_RESULT or {1, number} <= set(found["fail"][name]), (machine, name)


def test_slices_make_up_the_whole_and_each_commit_has_one():
    number = plan.slices(RUNS)
    parts = [plan.take_slice(RUNS, f"{part}/{number}") for part in range(1, number + 1)]
    assert sorted(run.id for part in parts for run in part) == sorted(run.id for run in RUNS)
    assert all(80 <= len(part) <= 120 for part in parts)
    assert all({run.scenario.name for run in part} >= {"found", "download", "store", "direct", "optional"} for part in parts)
    assert plan.slice_of("0" * 40, RUNS) == f"1/{number}" and plan.slice_of("00000001", RUNS) == f"2/{number}"
    assert plan.slice_of("", RUNS) == f"1/{number}"
    for text in ("0/3", "4/3", "1"):
        with pytest.raises(ValueError, match="a slice is K/N"):
            campaign.chosen(text)


def test_nearly_every_machine_is_repaired_by_the_next_start():
    """Except a lost optional package, and a direct update that took the edition for missing and installed more."""
    first_codes = {run.id.partition("=")[0].partition("~")[0]: run for run in reversed(RUNS)}
    for run in first_codes.values():
        may, arguments = judge.expected(run)
        if not judge.is_right(run.scenario, Model(run.scenario.machine(), may[0].world, arguments).play().world):
            assert "MsiInstallProductW#" in run.id or run.scenario.name == "direct-update", run.id
    assert len(first_codes) > 700


@pytest.mark.parametrize("name", MACHINES)
def test_the_undisturbed_run_is_as_the_model_says(name):
    if campaign.obstacle(MACHINES[name]):
        pytest.skip(campaign.obstacle(MACHINES[name]))
    assert not CALLS[name]["problems"] or campaign.measure(name)["problems"] == []
