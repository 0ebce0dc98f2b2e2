"""The fault campaign's own proof: its judge sees what is wrong with a run, its plan is complete and its counts are true."""
from __future__ import annotations

import dataclasses
from typing import Any, Callable

import pytest

from lab.result import Result
from lab.run import private_hosts_obstacle, run as start
from cases.fault_injection import campaign, faults, judge, model, plan
from cases.fault_injection.machines import MACHINES

RUN = "download/wininet!HttpQueryInfoW#1=12002"
FAILED = "wininet!HttpQueryInfoW#1"


@pytest.fixture(scope="module")
def real() -> Result:
    """A disturbed run as it really was; the cases below spoil copies of it."""
    result, verdict = campaign.execute(campaign.by_id()[RUN])
    assert verdict.problems == [] and verdict.end == faults.NO_DOWNLOAD
    return result


but = dataclasses.replace


def without(lines: list[str], start_of: str, number: int = -1) -> list[str]:
    """Without the last (or another) line that begins so."""
    at = [index for index, line in enumerate(lines) if line.startswith(start_of)][number]
    return [*lines[:at], *lines[at + 1:]]


def quiet(lines: list[str]) -> list[str]:
    return [line.replace("gle=12002", "gle=0") if line.startswith(FAILED) else line for line in lines]


def swapped(lines: list[str], start_of: str) -> list[str]:
    """The last two of these lines in each other's place."""
    first, second = [index for index, line in enumerate(lines) if line.startswith(start_of)][-2:]
    lines = list(lines)
    lines[first], lines[second] = lines[second], lines[first]
    return lines


def again(result: Result, **changes: Any) -> Result:
    return but(result, again=but(result.again, **changes))


BOX = {"icon": "error", "text": "Error downloading Tavik Software", "instance": 0}
SPOILT: dict[str, tuple[Callable[[Result], Result], str]] = {
    "the rule never fired": (lambda r: but(r, calls=quiet(r.calls)), "never fired"),
    "a call that was never made": (lambda r: but(r, calls=without(r.calls, FAILED)), "never fired"),
    "a rule that is not understood": (lambda r: but(r, calls=["!bad rule in line 1", *r.calls]), "its own rules"),
    "a hang": (lambda r: but(r, timed_out=True), "not at its end"),
    "a crash": (lambda r: but(r, errors="wine: Unhandled exception"), "a crash"),
    "an exception's exit code": (lambda r: but(r, exit_code=-1073741819), "exit code of an exception"),
    "another exit code": (lambda r: but(r, exit_code=0), "no end that"),
    "another last line": (lambda r: but(r, log=[*r.log, "More."]), "no end that"),
    "nothing said about the failure": (lambda r: but(r, log=without(r.log, "Unable to create query")), "does not mention"),
    "an early line missing": (lambda r: but(r, log=without(r.log, "Found driver")), "not as expected"),
    "a line too many": (lambda r: but(r, log=[*r.log[:3], "More.", *r.log[3:]]), "not as expected"),
    "no log": (lambda r: but(r, log=[]), "the log is empty"),
    "no launch line": (lambda r: but(r, log=r.log[1:]), "does not begin"),
    "half a line": (lambda r: but(r, log=[*r.log[:-1], r.log[-1] + " (no line end)"]), "not ended"),
    "a line of nothing": (lambda r: but(r, log=[*r.log[:2], "\0", *r.log[2:]]), "not a line of text"),
    "a box in silence": (lambda r: but(r, boxes=[BOX]), "1 message boxes"),
    "a session left open": (lambda r: but(r, calls=without(r.calls, "wininet!InternetCloseHandle")), "left open"),
    "the session closed first": (lambda r: but(r, calls=swapped(r.calls, "wininet!InternetCloseHandle")), "is closed while"),
    "a call too many": (lambda r: but(r, calls=[*r.calls, r.calls[-1]]), "calls made and calls modelled"),
    "an INF left open": (lambda r: but(r, calls=without(r.calls, "setupapi!SetupCloseInfFile")), "INF: 1 left open"),
    "the list of devices kept": (lambda r: but(r, calls=without(r.calls, "setupapi!SetupDiDestroy")), "device list: 1 left"),
    "a list closed twice": (lambda r: but(r, calls=[*r.calls, *(line for line in r.calls if "DiDestroy" in line)]),
                            "device list: -1 left"),
    "a handler kept": (lambda r: but(r, store_calls=["handler released count=1"]), "handler released count=1"),
    "an object kept": (lambda r: but(r, store_calls=["still held: Package refs=1"]), "still held: Package"),
    "no second start": (lambda r: but(r, again=None), "not started again"),
    "a second start that fails": (lambda r: again(r, exit_code=-1), "the next start (-SILENT): exit code -1"),
    "a second log that differs": (lambda r: again(r, log=r.again.log[:-1]), "the next start (-SILENT): the log"),
    "a second box": (lambda r: again(r, boxes=[BOX]), "the next start (-SILENT): message boxes"),
    "a text kept in the second start": (lambda r: again(r, calls=without(r.again.calls, "wtsapi32!WTSFree")),
                                        "texts of the session left: 1"),
    "the old product left": (lambda r: but(r, after=but(r.after, products=["Tavik Halden 23.40"])),
                             "left on the machine"),
    "a Store package left": (lambda r: but(r, store_left=["Contoso"]), "left on the machine"),
    "a program left": (lambda r: but(r, still_running=["hlcmd.exe"]), "still running"),
}


@pytest.mark.parametrize("name", SPOILT)
def test_the_judge_sees(real, name):
    spoil, text = SPOILT[name]
    problems = judge.judge(campaign.by_id()[RUN], spoil(real)).problems
    assert any(text in problem for problem in problems), problems


def test_a_step_of_the_store_that_did_not_fail_is_seen():
    name = "store/find=0x80004005"
    result, verdict = campaign.execute(campaign.by_id()[name])
    assert verdict.problems == [] and verdict.end == faults.NOT_INSTALLED
    calm = [line.replace("0x80004005", "0x0") for line in result.store_calls]
    problems = judge.judge(campaign.by_id()[name], but(result, store_calls=calm)).problems
    assert problems == ["the Store's step did not fail: FindPackages"]


# The plan

RUNS = plan.planned()


@pytest.mark.quick
def test_the_plan_is_large_and_names_its_runs():
    assert len(RUNS) >= 1500 and len({run.id for run in RUNS}) == len(RUNS)
    assert {run.scenario.name for run in RUNS} == set(MACHINES)
    for name in faults.ROWS:
        codes = {run.fault.code for run in RUNS if run.fault.function == name}
        assert len(codes) >= 2, f"{name} does not fail in two ways"
    assert {step.name for step in faults.STEPS} == {run.step.name for run in RUNS if run.step}


def test_first_and_last_call_of_each_function_fail():
    for machine, counts in plan.load().items():
        for name, found in counts["calls"].items():
            assert {1, found["count"]} <= set(found["fail"]), (machine, name)


def test_slices_make_up_the_whole():
    number = plan.slices(RUNS)
    parts = [plan.take_slice(RUNS, f"{part}/{number}") for part in range(1, number + 1)]
    assert sorted(run.id for part in parts for run in part) == sorted(run.id for run in RUNS)
    assert all(80 <= len(part) <= 120 for part in parts)
    assert all({run.scenario.name for run in part} >= {"found", "download", "store", "direct", "optional"} for part in parts)


def test_a_commit_has_its_slice():
    number = plan.slices(RUNS)
    assert plan.slice_of("0" * 40, RUNS) == f"1/{number}" and plan.slice_of("00000001", RUNS) == f"2/{number}"
    assert plan.slice_of("", RUNS) == f"1/{number}"


@pytest.mark.parametrize("text", ["0/3", "4/3", "x", "1", "-1/3"])
def test_a_slice_that_is_none(text):
    with pytest.raises(ValueError, match="a slice is K/N"):
        plan.take_slice(RUNS, text)


def test_a_sample_is_the_same_for_the_same_seed():
    assert plan.take_sample(RUNS, 20, 7) == plan.take_sample(RUNS, 20, 7) != plan.take_sample(RUNS, 20, 8)


def test_nearly_every_machine_is_put_right_by_the_start_afterwards():
    """Only a lost optional package is not missed, and a direct update that took the edition for missing has done more."""
    seen: set[str] = set()
    for run in RUNS:
        call = run.id.partition("=")[0].partition("~")[0]
        if call in seen:  # one code of each call tells enough
            continue
        seen.add(call)
        machine = run.scenario.machine()
        _, may, arguments = judge.expected(run, run.machine())
        if not judge.is_right(run.scenario, model.Run(machine, may[0].world, arguments).execute().world):
            assert "MsiInstallProductW#" in run.id or run.scenario.name == "direct-update", run.id
    assert len(seen) > 700


# The counts are kept in a file; the undisturbed runs tell whether it is still true.

@pytest.mark.parametrize("name", MACHINES)
def test_the_undisturbed_run_makes_the_calls_that_were_counted(name):
    scenario = MACHINES[name]
    if scenario.needs_root and private_hosts_obstacle():
        pytest.skip(private_hosts_obstacle())
    result = start(scenario.machine(), scenario.arguments)
    assert judge.check_good(scenario, result) == []
    assert plan.count(result) == plan.load()[name], "counts.json is out of date: scripts/inject-faults --count"
