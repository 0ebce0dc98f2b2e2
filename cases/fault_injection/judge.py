"""Says what is wrong with a run in which one call failed. Nothing wrong: an empty list.

A run must end in time and without a crash, do and log exactly what the model says, release what it opened, and leave a
machine that the next undisturbed run can handle.
"""
from __future__ import annotations

import functools
import re
from typing import Any

from cases.support import expect
from cases.support.store import leaks
from companion import outcomes
from lab.machine import Machine
from lab.result import Result
from cases.fault_injection import model, plan
from cases.fault_injection.machines import DIRECT, MACHINES, Scenario
from cases.fault_injection.plan import Planned
from cases.fault_injection.world import Ending, World

# What must be released: the calls that open a kind of thing, the call that closes it, and how many may be open at once.
GIVEN_BACK = (
    ("device list", ("setupapi!SetupDiGetClassDevsW",), "setupapi!SetupDiDestroyDeviceInfoList", 1),
    ("INF", ("setupapi!SetupOpenInfFileW",), "setupapi!SetupCloseInfFile", 1),
    ("session text", ("wtsapi32!WTSQuerySessionInformationW",), "wtsapi32!WTSFreeMemory", 2),
    ("internet handle", ("wininet!InternetOpenW", "wininet!InternetConnectW", "wininet!HttpOpenRequestW"),
     "wininet!InternetCloseHandle", 3),
)
LIMIT = 120  # seconds for both starts together; they take two when the machine is idle


def fired(run: Planned, result: Result) -> list[str]:
    """Whether the planned failure happened; without it the run proves nothing."""
    bad = [line for line in [*result.calls, *result.store_calls] if line.startswith("!")]
    if bad:
        return [f"the lab does not understand its own rules: {bad}"]
    if run.step is None:
        lines = [match for match in plan.records(result.calls)
                 if (match["function"], int(match["number"])) == (run.fault.function, run.fault.number)]
        if [match["error"] for match in lines] != [str(run.fault.code & 0xFFFFFFFF)]:
            return [f"the fault rule never fired: {[match.group() for match in lines]}"]
        return []
    if any(_shows(run, line) for line in result.store_calls):
        return []
    return [f"the Store's step did not fail: {run.step.recorded}"]


def _shows(run: Planned, line: str) -> bool:
    """Whether a line of the stand-in records the failure."""
    step, code = run.step, f" -> 0x{run.fault.code:08X} "
    if step.key in ("removal", "state") or run.value == "canceled":  # a successful call reports this failure
        return line.startswith(step.recorded.replace("{code}", str(run.fault.code)))
    return line.startswith(step.recorded) and code in line


def handles(calls: list[str]) -> list[str]:
    """What was opened and not closed, or closed out of order, by the record of the calls."""
    problems = []
    for kind, openers, closer, most in GIVEN_BACK:
        open_now: list[str] = []
        for match in plan.records(calls):
            named = re.search(r"handle=(\w+)", match["rest"])
            if match["function"] in openers and match["result"] not in ("0", "0x0", "invalid"):
                open_now.append(match["result"] if match["result"].startswith("0x") and most == 3 else kind)
                if len(open_now) > most:
                    problems.append(f"{kind}: another one is opened before the first is closed")
            elif match["function"] == closer and "memory=(null)" not in match["rest"]:
                handle = named[1] if named else kind
                if open_now[-1:] != [handle]:
                    problems.append(f"{kind} {handle} is closed while {open_now} are open")
                if handle in open_now:
                    open_now.remove(handle)
        problems += [f"{kind}: {len(open_now)} left open"] if open_now else []
    return problems


def well_formed(arguments: str, log: list[str]) -> list[str]:
    problems = ["the log is empty"] if not log else []
    if log and log[0] != expect.opening(arguments)[0]:
        problems.append(f"the log does not begin with the command line: {log[0]}")
    return problems + [f"not a line of text: {line!r}" for line in log if "\0" in line or "\ufffd" in line]


def repairing_arguments(scenario: Scenario, world: World) -> str:
    """The arguments with which the tool repairs the machine: the same ones if they work, then with force, then a direct installation
    (which may install more than before). If none works, the same ones: the tool does not notice a lost optional package."""
    machine, same = scenario.machine(), scenario.arguments
    for arguments in (same, f"{same} -FORCE".strip(), "-FORCE -SILENT", DIRECT):
        if is_right(scenario, model.Model(machine, world, arguments).play().world):
            return arguments
    return same


@functools.cache
def undisturbed_end(name: str) -> Ending:
    machine = MACHINES[name].machine()
    return model.Model(machine, World.of(machine), MACHINES[name].arguments).play()


def is_right(scenario: Scenario, world: World) -> bool:
    """Everything that an undisturbed run leaves is there, nothing twice, and the Store packages are the same."""
    (products, store), (good, good_store) = world.end(), undisturbed_end(scenario.name).world.end()
    families = [product.family for product in world.products]
    return set(good) <= set(products) and len(set(families)) == len(families) and store == good_store


def expected(run: Planned) -> tuple[list[Ending], str]:
    """How the disturbed run may end, and the arguments of the start after it."""
    machine = run.machine()
    may = model.endings(machine, World.of(machine), run.scenario.arguments, run.fault)
    return may, repairing_arguments(run.scenario, may[0].world)


def compare_calls(wanted: dict[str, int], calls: list[str]) -> list[str]:
    """Compares only the functions in `wanted`; the model does not name the others."""
    found = plan.made(calls)
    differ = {name: (found.get(name, 0), number) for name, number in wanted.items() if found.get(name, 0) != number}
    return [f"calls made and calls expected: {differ}"] if differ else []


def _start(machine: Machine, result: Result, ending: Ending, exit_code: int, log: list[str],
           boxes: list[dict[str, Any]]) -> list[str]:
    problems = []
    if exit_code != ending.exit_code:
        problems.append(f"exit code {exit_code} instead of {ending.exit_code}")
    problems.append(expect.compare_log(ending.log, log, expect.places(machine, result)))
    named = outcomes.matching(exit_code, log)
    if named != [ending.outcome]:
        problems.append(f"by the catalogue it is {' and '.join(named) or 'no outcome'}, by the model {ending.outcome}")
    shown = [(box["icon"], box["text"]) for box in boxes]
    if shown != ending.boxes:
        problems.append(f"message boxes {shown} instead of {ending.boxes}")
    return [problem for problem in problems if problem]


def _second_start(run: Planned, result: Result, world: World, arguments: str) -> list[str]:
    if result.again is None:
        return ["the tool was not started again"]
    ending = model.Model(run.scenario.machine(), world, arguments).play()
    problems = _start(run.machine(), result, ending, result.again.exit_code, result.again.log, result.again.boxes)
    left = (result.after.products, sorted(result.store_left))
    if left != ending.world.end():
        problems.append(f"left on the machine: {left} instead of {ending.world.end()}")
    if sorted(result.still_running) != sorted(ending.world.running):
        problems.append(f"still running: {result.still_running}")
    problems += [*handles(result.again.calls), *leaks(result.again.store_calls),
                 *well_formed(arguments, result.again.log)]
    return [f"the next start ({arguments or 'no arguments'}): {problem}" for problem in problems]


def judge(run: Planned, result: Result, undisturbed: dict[str, int]) -> list[str]:
    """undisturbed: how often the undisturbed run on this machine calls each function."""
    problems = []
    if result.timed_out:
        problems.append(f"not at its end after {LIMIT} s")
    if "Unhandled exception" in result.errors:
        problems.append(f"a crash: {result.errors[:500]}")
    if result.exit_code & 0xF0000000 == 0xC0000000:
        problems.append(f"exit code of an exception: {result.exit_code & 0xFFFFFFFF:#x}")
    # The tool does not ask for the text of this failure, so its object stays.
    unread = ["still held: ErrorInfo refs=1"] if run.step is not None and run.step.name == "window" else []
    problems += fired(run, result) + well_formed(run.scenario.arguments, result.log)
    problems += handles(result.calls) + leaks(result.store_calls, *unread)
    may, arguments = expected(run)
    courses = []  # where several endings are possible, the nearest is reported
    for ending in may:
        calls = ending.calls
        if run.step is None and run.fault.function not in calls:  # a call that the model does not name: its failure changes nothing
            calls = undisturbed | calls
        courses.append(_start(run.machine(), result, ending, result.exit_code, result.log, result.boxes)
                       + (compare_calls(calls, result.calls) if run.step is None else [])
                       + _second_start(run, result, ending.world, arguments))
    return problems + min(courses, key=len)


def judge_undisturbed(scenario: Scenario, result: Result) -> list[str]:
    """Does the run end as the model says, and does the model make the same calls?"""
    ending = undisturbed_end(scenario.name)
    problems = _start(scenario.machine(), result, ending, result.exit_code, result.log, result.boxes)
    if (result.after.products, sorted(result.store_left)) != ending.world.end():
        problems.append(f"left on the machine: {result.after.products} {result.store_left}")
    return problems + compare_calls(ending.calls, result.calls) + handles(result.calls) + leaks(result.store_calls)
