"""Which runs there are: the calls of an undisturbed run on each machine, made into runs with stable names.

Of each function the first and the last call fail, and the first and the last one of each kind of arguments as long as there are
not too many. Of the Store each step fails.
"""
from __future__ import annotations

import dataclasses
import re
from typing import Any

from lab.machine import Machine, merge
from lab.result import Result
from cases.fault_injection import faults
from cases.fault_injection.machines import MACHINES, Scenario
from cases.fault_injection.model import Model
from cases.fault_injection.world import Fault, World

MOST = 6     # calls of one function on one machine
SLICE = 100  # runs
# The arguments by which calls differ; all others hold addresses, or say the same in another way.
ARGUMENTS = ("property", "upgrade", "index", "class", "section", "option", "package", "properties", "detail")
RECORD = re.compile(r"(?P<function>\w+!\w+)#(?P<number>\d+) ?(?P<rest>.*) -> (?P<result>\S+) gle=(?P<error>\d+)$")


@dataclasses.dataclass(frozen=True)
class Planned:
    """One run. package and value: which package's step of the Store fails, and what is written in its description."""
    id: str
    scenario: Scenario
    fault: Fault
    step: faults.Step | None = None
    package: str = ""
    value: str = ""

    def machine(self) -> Machine:
        if self.step is None:
            how = "after" if self.fault.after else "error"
            return self.scenario.machine(faults=[f"{self.fault.function} {self.fault.number} {how}={self.fault.code}"])
        store = self.scenario.description.get("store", {})
        if self.step.place != "package":
            store = merge(store, {self.step.place: {self.step.key: self.value}})
        else:
            store = {**store, "packages": [{**item, self.step.key: self.value} if item["name"] == self.package else item
                                           for item in store["packages"]]}
        return self.scenario.machine(store=store)


# Counting

def records(calls: list[str]) -> list[re.Match[str]]:
    return [match for line in calls if (match := RECORD.match(line))]


def made(calls: list[str]) -> dict[str, int]:
    """How often each function was called."""
    found: dict[str, int] = {}
    for match in records(calls):
        found[match["function"]] = found.get(match["function"], 0) + 1
    return found


def shape(rest: str) -> str:
    """What distinguishes a call from others of the same function."""
    found = dict(re.findall(r'(\w+)=("(?:[^"]|"")*"|[^;]*)', rest))
    known = [f"{key}={found[key]}" for key in ARGUMENTS if key in found]
    known = [re.sub(r"Installer\\\w+\.msi", "Installer", text) for text in known]  # a random name
    if "HKR,,ReleaseVersion" in found.get("text", ""):
        known.append("release")
    if found.get("size") == "0":
        known.append("for the size")
    return "; ".join(known)


def pick(shapes: list[str]) -> list[int]:
    """Numbers of the calls that are to fail."""
    firsts = [shapes.index(one) + 1 for one in shapes]
    lasts = [len(shapes) - shapes[::-1].index(one) for one in shapes]
    return sorted(list(dict.fromkeys((1, len(shapes), *firsts, *lasts)))[:MOST])


def count(result: Result) -> dict[str, Any]:
    """The calls of an undisturbed run: how many, which of them are to fail, and the steps of the Store."""
    shapes: dict[str, list[str]] = {}
    for match in records(result.calls):
        shapes.setdefault(match["function"], []).append(shape(match["rest"]))
    fail = {name: pick(found) for name, found in sorted(shapes.items()) if name not in faults.NO_RESULT}
    return {"calls": made(result.calls), "fail": fail, "store": store_steps(result.store_calls)}


def store_steps(calls: list[str]) -> list[str]:
    """The steps taken, as "name", "name#number" or "name@package"."""
    main = [line for line in calls if line.endswith("thread=1")]

    def named(method: str) -> list[str]:
        pattern = re.compile(rf'{method} (?:name=)?"([^"]*)"')
        return list(dict.fromkeys(match[1] for line in main if (match := pattern.match(line))))

    steps = []
    removed = named("RemovePackageWithOptionsAsync")
    looked = {name: named(name) for name in ("get_Id", "get_FullName", "get_Version", "get_Status", "VerifyIsOK")}
    looked["IPackage3"] = looked["get_Status"]
    for step in faults.STEPS:
        if step.place == "package":
            steps += [f"{step.name}@{name}" for name in looked.get(step.name, removed)]
        elif step.place == "manager":
            times = len([line for line in main if line.startswith(step.recorded)])
            numbered = [f"{step.name}#{number}" for number in range(1, times + 1)]
            steps += numbered if "{call}" in step.value else [step.name] * (times > 0)
        elif any(line.startswith("DownloadAndInstallStorePackagesAsync") for line in main):
            steps.append(step.name)
    return steps


# The runs

def written(code: int) -> str:
    return str(code) if code < 0x10000 else f"0x{code:08X}"


def _calls(scenario: Scenario, fail: dict[str, list[int]]) -> list[Planned]:
    machine = scenario.machine()
    named = Model(machine, World.of(machine), scenario.arguments).play().calls
    runs = []
    for name, numbers in fail.items():
        for number in numbers:
            for code in faults.codes(name):
                after = code in faults.REBOOT or name not in named
                identity = f"{scenario.name}/{name}#{number}{'~' if after else '='}{written(code)}"
                runs.append(Planned(identity, scenario, Fault(name, number, code, after)))
    return runs


def _steps(scenario: Scenario, steps: list[str]) -> list[Planned]:
    known = {step.name: step for step in faults.STEPS}
    runs = []
    for text in steps:
        name, number, package = re.fullmatch(r"([^#@]*)(?:#(\d+))?(?:@(.*))?", text).groups()
        step = known[name]
        for at, code in enumerate(step.codes):
            failure = f"0x{code:08X}" + (f":{faults.TEXT}" if at % 2 == 0 else "")
            value = step.value.format(failure=failure, call=number or "", code=code)
            runs.append(Planned(f"{scenario.name}/{text}={written(code)}", scenario, Fault(code=code), step, package or "", value))
    return runs


def planned(undisturbed: dict[str, Any]) -> list[Planned]:
    """undisturbed: what `count` found, by machine."""
    return [run for name, found in undisturbed.items()
            for run in (*_calls(MACHINES[name], found["fail"]), *_steps(MACHINES[name], found["store"]))]


def slices(runs: list[Planned]) -> int:
    """How many slices of about SLICE runs there are."""
    return max(1, round(len(runs) / SLICE))


def take_slice(runs: list[Planned], text: str) -> list[Planned]:
    """Slice "K/N", K from 1: every N-th run, so that each slice covers all machines and functions."""
    match = re.fullmatch(r"(\d+)/(\d+)", text)
    if not match or not 1 <= int(match[1]) <= int(match[2]):
        raise ValueError(f"a slice is K/N with K from 1 to N, not {text}")
    return runs[int(match[1]) - 1::int(match[2])]


def slice_of(commit: str, runs: list[Planned]) -> str:
    """The slice for a commit: nearly every commit gets another one, and the same commit always gets the same one."""
    number = slices(runs)
    return f"{int(commit[:8] or '0', 16) % number + 1}/{number}"
