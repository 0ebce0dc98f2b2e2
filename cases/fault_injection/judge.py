"""Says what is wrong with a run in which one call failed. Nothing wrong: an empty list.

A run must end in time and without a crash, say and do what the table and the model of the tool allow for that failure,
give back what it opened, and leave a machine that the next undisturbed run can handle.
"""
from __future__ import annotations

import dataclasses
import re
from typing import Any

from cases.support import expect
from companion import outcomes
from lab.machine import Machine
from lab.result import Result
from cases.fault_injection import faults, model
from cases.fault_injection.installation import REBOOT
from cases.fault_injection.machines import DIRECT, Scenario
from cases.fault_injection.plan import Planned
from cases.fault_injection.world import Outcome, World, setup_result, signed

SAME = "Currently installed version of VLT is from the same release as the active driver. Exiting."
# How runs end: exit code and last line; "code" is the one that was injected. GOOD is as the undisturbed run.
ENDS: dict[str, tuple[Any, str]] = {
    faults.NO_ADAPTER: (-1, "Unable to find installed Tavik display adapters. Exiting."),
    faults.NOT_INSTALLED: (-1, "User does not have VLT installed. Exiting."),
    faults.SAME: (-1, SAME),
    faults.NO_DOWNLOAD: (-1, "Unable to download dwx2_install.exe from web. Exiting."),
    faults.NO_MAIN: (2, r"Unable to find {temp}Tavik_VLTInstallerDownload\LPInstaller\HL\halden\halden64\dwx-next64.msi."),
    faults.CODE: ("code", "\tResult = {number}"),
    faults.STORE_DONE: (0, "Successfully installed the UWP version of VLT"),
    faults.STORE_CODE: ("code", "failed to install the UWP version of VLT"),
    faults.STORE_FAILED: (-1, "failed to install the UWP version of VLT"),
    faults.QUIET: (model.QUIET_EXIT, "{any}"),
}
# What closes what, for each kind of handle.
PAIRS = {"device list": ("setupapi!SetupDiGetClassDevsW", "setupapi!SetupDiDestroyDeviceInfoList"),
         "INF": ("setupapi!SetupOpenInfFileW", "setupapi!SetupCloseInfFile")}
INTERNET = ("wininet!InternetOpenW", "wininet!InternetConnectW", "wininet!HttpOpenRequestW")
RECORD = re.compile(r"(?P<function>\w+!\w+)#(?P<number>\d+) ?(?P<rest>.*) -> (?P<result>\S+) gle=(?P<error>\d+)$")
LIMIT = 120  # seconds for both starts together; they take two when nothing else is going on


@dataclasses.dataclass
class Verdict:
    """end: which of the ends of the table it was."""
    problems: list[str]
    end: str


def fired(run: Planned, result: Result) -> list[str]:
    """A run in which nothing failed proves nothing."""
    bad = [line for line in [*result.calls, *result.store_calls] if line.startswith("!")]
    if bad:
        return [f"the lab does not understand its own rules: {bad}"]
    if run.step is None:
        mark = f"{run.fault.function}#{run.fault.number}"
        lines = [match for line in result.calls if line.startswith(mark + " ") and (match := RECORD.match(line))]
        if [match["error"] for match in lines] != [str(run.fault.code & 0xFFFFFFFF)]:
            return [f"the fault rule never fired: {[match.group() for match in lines]}"]
        return []
    if any(_shows(run, line) for line in result.store_calls):
        return []
    return [f"the Store's step did not fail: {run.step.recorded}"]


def _shows(run: Planned, line: str) -> bool:
    """The component's record of the failure. A method of an operation does not say whose; only one package's fails."""
    step, code = run.step, f" -> 0x{run.fault.code:08X} "
    if step.key in ("removal", "state") or run.value == "canceled":  # told by a call that succeeds
        return line.startswith(step.recorded.replace("{code}", str(run.fault.code)))
    return line.startswith(step.recorded) and code in line


def handles(calls: list[str]) -> list[str]:
    """What was opened and not closed, or closed out of order, by the record of the calls."""
    problems = []
    open_now: dict[str, int] = dict.fromkeys(PAIRS, 0)
    internet: list[str] = []
    texts = 0
    for line in calls:
        match = RECORD.match(line)
        if not match:
            continue
        function, result = match["function"], match["result"]
        for kind, (opens, closes) in PAIRS.items():
            if function == opens and result != "invalid":
                open_now[kind] += 1
                if open_now[kind] > 1:
                    problems.append(f"a second {kind} is opened before the first is closed")
            if function == closes:
                open_now[kind] -= 1
        if function in INTERNET and result not in ("0x0", "0"):
            internet.append(result)
        if function == "wininet!InternetCloseHandle":
            handle = re.search(r"handle=(\w+)", match["rest"])[1]
            if internet[-1:] != [handle]:
                problems.append(f"internet handle {handle} is closed while {internet} are open")
            if handle in internet:
                internet.remove(handle)
        if function == "wtsapi32!WTSQuerySessionInformationW":
            texts += result != "0"
        if function == "wtsapi32!WTSFreeMemory" and "memory=given" in match["rest"]:
            texts -= 1
    problems += [f"{kind}: {number} left open" for kind, number in open_now.items() if number]
    problems += [f"internet handles left open: {internet}"] if internet else []
    return problems + ([f"texts of the session left: {texts}"] if texts else [])


def store_leaks(calls: list[str], unread: bool) -> list[str]:
    """Only the factories are kept, on purpose. unread: nobody asks for the text of this failure, so its object stays."""
    ends = [line for line in calls if line.startswith(("handler released", "list released", "still held", "unused slot"))]
    allowed = {"handler released count=0", "list released count=0", "still held: PackageManagerFactory refs=1",
               "still held: StoreContextFactory refs=1", *(["still held: ErrorInfo refs=1"] if unread else [])}
    return [line for line in ends if line not in allowed]


def well_formed(arguments: str, log: list[str]) -> list[str]:
    """read_log has made sure of whole lines in UTF-16LE: a broken end is marked."""
    problems = ["the log is empty"] if not log else []
    if log and log[0] != expect.opening(arguments)[0]:
        problems.append(f"the log does not begin with the command line: {log[0]}")
    if any(line.endswith("(no line end)") for line in log):
        problems.append("the last line of the log is not ended")
    return problems + [f"not a line of text: {line!r}" for line in log if "\0" in line or "\ufffd" in line]


def matches(pattern: str, line: str, known: dict[str, str]) -> bool:
    return re.fullmatch(expect.pattern(pattern, known), line, re.S) is not None


def ended(run: Planned, machine: Machine, result: Result, good: Outcome) -> str:
    """Which end of the table this is, among those that the table allows; nothing when it is none of them."""
    known = expect.places(machine, result)
    last = result.log[-1] if result.log else ""
    for end in run.ends:
        code, line = ENDS[end] if end != faults.GOOD else (good.exit_code, good.log[-1])
        wanted = (signed(run.fault.code),) if code == "code" else (code,)
        if result.exit_code in wanted and (matches(line, last, known) or end == faults.GOOD and good.exit_code == 0):
            return end
    return ""


def mentioned(run: Planned, machine: Machine, result: Result) -> bool:
    """Whether the log has the line of the table."""
    line = run.line
    if not line:
        return True
    code = run.fault.code
    number = signed(code)
    for key, text in (("code", "0" if code in REBOOT else str(number)), ("hresult", str(setup_result(code))),
                      ("signed", str(number) if number < 0 else f" {number}"), ("url", "{any}")):
        line = line.replace("{%s}" % key, text)
    also = line.replace("\tResult = 0", f"\tResult = {code}")  # a removal's result is not turned into a success
    known = expect.places(machine, result)
    return any(matches(one, text, known) for one in (line, also) for text in result.log)


def mend(scenario: Scenario, machine: Machine, world: World) -> str:
    """The arguments with which the tool puts the machine right: the same ones if that does, else by force, else as a direct
    installation (which may bring more than there was). When nothing does the same ones: an optional package that is lost is
    not missed by anybody."""
    same = scenario.arguments
    for arguments in (same, f"{same} -FORCE".strip(), "-FORCE -SILENT", DIRECT):
        if is_right(scenario, model.Run(machine, world, arguments).execute().world):
            return arguments
    return same


def is_right(scenario: Scenario, world: World) -> bool:
    """All that the undisturbed run leaves is there, nothing twice, and the Store packages are the same."""
    products, store = world.end()
    families = [product.family for product in world.products]
    return set(scenario.products) <= set(products) and len(set(families)) == len(families) and store == sorted(scenario.store)


def expected(run: Planned, machine: Machine) -> tuple[Outcome, list[Outcome], str]:
    """The undisturbed run, what the disturbed one may come to, and the arguments of the start after it."""
    world = World.of(machine)
    good = model.Run(run.scenario.machine(), World.of(run.scenario.machine()), run.scenario.arguments).execute()
    may = model.outcomes(machine, world, run.scenario.arguments, run.fault)
    return good, may, mend(run.scenario, run.scenario.machine(), may[0].world)


def made(calls: list[str]) -> dict[str, int]:
    """How often each function was called."""
    found: dict[str, int] = {}
    for line in calls:
        match = RECORD.match(line)
        if match:
            found[match["function"]] = found.get(match["function"], 0) + 1
    return found


def _calls(outcome: Outcome, calls: list[str]) -> list[str]:
    found = made(calls)
    differ = {name: (found.get(name, 0), outcome.calls.get(name, 0)) for name in sorted({*found, *outcome.calls})
              if found.get(name) != outcome.calls.get(name)}
    return [f"calls made and calls modelled: {differ}"] if differ else []


def _start(machine: Machine, result: Result, outcome: Outcome, exit_code: int, log: list[str],
           boxes: list[dict[str, Any]]) -> list[str]:
    problems = []
    if exit_code != outcome.exit_code:
        problems.append(f"exit code {exit_code} instead of {outcome.exit_code}")
    difference = expect.compare_log(outcome.log, log, expect.places(machine, result))
    if difference:
        problems.append(difference)
    named = outcomes.matching(exit_code, log)
    if named != [outcome.id]:
        problems.append(f"by the catalogue it is {' and '.join(named) or 'no outcome'}, by the model {outcome.id}")
    shown = [(box["icon"], box["text"]) for box in boxes]
    if shown != outcome.boxes:
        problems.append(f"message boxes {shown} instead of {outcome.boxes}")
    return problems


def _both(run: Planned, machine: Machine, result: Result, may: list[Outcome], arguments: str) -> list[str]:
    """The two starts against the model; of several possible courses the nearest is reported."""
    best: list[str] | None = None
    for outcome in may:
        problems = _start(machine, result, outcome, result.exit_code, result.log, result.boxes)
        problems += _calls(outcome, result.calls) if run.step is None else []
        if result.again is None:
            problems.append("the tool was not started again")
        else:
            second = model.Run(run.scenario.machine(), outcome.world, arguments).execute()
            again = _start(machine, result, second, result.again.exit_code, result.again.log, result.again.boxes)
            left = (result.after.products, sorted(result.store_left))
            if left != second.world.end():
                again.append(f"left on the machine: {left} instead of {second.world.end()}")
            if sorted(result.still_running) != sorted(second.world.running):
                again.append(f"still running: {result.still_running}")
            problems += [f"the next start ({arguments or 'no arguments'}): {problem}" for problem in again]
        if best is None or len(problems) < len(best):
            best = problems
    return best or []


def judge(run: Planned, result: Result) -> Verdict:
    machine = run.machine()
    good, may, arguments = expected(run, machine)
    problems = []
    if result.timed_out:
        problems.append(f"not at its end after {LIMIT} s")
    if "Unhandled exception" in result.errors:
        problems.append(f"a crash: {result.errors[:500]}")
    if result.exit_code & 0xF0000000 == 0xC0000000:
        problems.append(f"exit code of an exception: {result.exit_code & 0xFFFFFFFF:#x}")
    problems += fired(run, result)
    problems += well_formed(run.scenario.arguments, result.log)
    end = ended(run, machine, result, good)
    if not end:
        problems.append(f"no end that {run.function} may lead to ({', '.join(run.ends)}): exit code {result.exit_code}, "
                        f"last line {result.log[-1:]}")
    if not mentioned(run, machine, result):
        problems.append(f"the log does not mention the failure: {run.line!r}")
    silent = "-silent" in run.scenario.arguments.lower()
    if len(result.boxes) > (0 if silent else 1):
        problems.append(f"{len(result.boxes)} message boxes")
    unread = run.step is not None and run.step.name == "window"
    problems += handles(result.calls) + store_leaks(result.store_calls, unread)
    if result.again:
        again = [*handles(result.again.calls), *store_leaks(result.again.store_calls, False),
                 *well_formed(arguments, result.again.log)]
        problems += [f"the next start: {problem}" for problem in again]
    problems += _both(run, machine, result, may, arguments)
    return Verdict(problems, end or "none that is allowed")


def check_good(scenario: Scenario, result: Result) -> list[str]:
    """Of an undisturbed run: does it end as the machine's description says, and does the model make the same calls?"""
    machine = scenario.machine()
    outcome = model.Run(machine, World.of(machine), scenario.arguments).execute()
    problems = _start(machine, result, outcome, result.exit_code, result.log, result.boxes)
    given = (scenario.exit_code, list(scenario.boxes), (sorted(scenario.products), sorted(scenario.store)))
    modelled = (outcome.exit_code, outcome.boxes, outcome.world.end())
    if given != modelled:
        problems.append(f"{scenario.name}: the model ends with {modelled}, the table says {given}")
    if (result.after.products, sorted(result.store_left)) != outcome.world.end():
        problems.append(f"left on the machine: {result.after.products} {result.store_left}")
    return problems + _calls(outcome, result.calls) + handles(result.calls) + store_leaks(result.store_calls, False)


