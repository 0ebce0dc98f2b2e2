"""Which runs there are: counted on undisturbed runs, kept in counts.json, and made into runs with stable names.

Of each function on each machine fail the first and the last call, and the first and the last one of each kind of arguments as
long as there are not too many; each with at least two codes. Of the Store each step fails.
"""
from __future__ import annotations

import dataclasses
import json
import pathlib
import random
import re
from typing import Any

from lab.machine import Machine, merge
from lab.result import Result
from cases.fault_injection import faults
from cases.fault_injection.machines import MACHINES, Scenario
from cases.fault_injection.world import Fault

COUNTS = pathlib.Path(__file__).with_name("counts.json")
MOST = 6   # calls of one function on one machine
SLICE = 100  # runs
# The arguments by which calls differ; all others hold addresses, or say the same in another way.
ARGUMENTS = ("property", "upgrade", "index", "class", "section", "option", "package", "properties", "detail")
CALL = re.compile(r"(?P<function>\w+!\w+)#(?P<number>\d+) ?(?P<rest>.*) -> ")


@dataclasses.dataclass(frozen=True)
class Planned:
    """One run. place, key and value: what is written in the Store's description."""
    id: str
    scenario: Scenario
    fault: Fault
    function: str = ""
    ends: tuple[str, ...] = ()
    step: faults.Step | None = None
    package: str = ""
    value: str = ""

    @property
    def line(self) -> str:
        """What the log has to say; empty when it need not say anything."""
        if self.step:
            return self.step.line
        row = faults.EXTENDED_ROW if self.fault.code == faults.EXTENDED else faults.ROWS[self.fault.function]
        return row.line if row.always else ""

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

def shape(rest: str) -> str:
    """What tells a call from others of its function."""
    found = dict(re.findall(r'(\w+)=("(?:[^"]|"")*"|[^;]*)', rest))
    known = [f"{key}={found[key]}" for key in ARGUMENTS if key in found]
    known = [re.sub(r"Installer\\\w+\.msi", "Installer", text) for text in known]  # its name is made up
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
    """Of an undisturbed run."""
    shapes: dict[str, list[str]] = {}
    for line in result.calls:
        match = CALL.match(line)
        if match:
            shapes.setdefault(match["function"], []).append(shape(match["rest"]))
    calls = {name: {"count": len(found), "fail": pick(found)} for name, found in sorted(shapes.items())
             if name not in faults.CANNOT_FAIL}
    return {"calls": calls, "store": store_steps(result.store_calls)}


def store_steps(calls: list[str]) -> list[str]:
    """The steps taken, as "name", "name#number" or "name@package"."""
    main = [line for line in calls if line.endswith("thread=1")]

    def named(method: str) -> list[str]:
        pattern = re.compile(rf'{method} (?:name=)?"([^"]*)"')
        return list(dict.fromkeys(match[1] for line in main if (match := pattern.match(line))))

    steps = []
    removed = named("RemovePackageWithOptionsAsync")
    looked = {"get_Id": named("get_Id"), "get_FullName": named("get_FullName"), "get_Version": named("get_Version"),
              "IPackage3": named("get_Status"), "get_Status": named("get_Status"), "VerifyIsOK": named("VerifyIsOK")}
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


def load() -> dict[str, Any]:
    return json.loads(COUNTS.read_text("utf-8"))


def save(counts: dict[str, Any]) -> None:
    """One line for each function and for each machine's steps, so that a difference is easy to read."""
    parts = []
    for name, found in counts.items():
        calls = ",\n".join(f"   {json.dumps(function)}: {json.dumps(item)}" for function, item in found["calls"].items())
        parts.append(f' {json.dumps(name)}: {{\n  "calls": {{\n{calls}\n  }},\n  "store": {json.dumps(found["store"])}\n }}')
    COUNTS.write_text("{\n" + ",\n".join(parts) + "\n}\n", "utf-8")


# The runs

def written(code: int) -> str:
    return str(code) if code < 0x10000 else f"0x{code:08X}"


def _calls(scenario: Scenario, calls: dict[str, Any]) -> list[Planned]:
    runs = []
    for name, found in calls.items():
        row = faults.ROWS[name]
        codes = [(code, row.how == "after") for code in row.codes]
        if name == "wininet!InternetReadFile":
            codes.append((faults.EXTENDED, False))
        if name == "msi!MsiInstallProductW":
            codes += [(3010, True), (1641, True)]  # it succeeds and wants a restart
        for number in found["fail"]:
            for code, after in codes:
                identity = f"{scenario.name}/{name}#{number}{'~' if after else '='}{written(code)}"
                runs.append(Planned(identity, scenario, Fault(name, number, code, after), name, row.ends))
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
            identity = f"{scenario.name}/{text}={written(code)}"
            runs.append(Planned(identity, scenario, Fault(code=code), name, step.ends, step, package or "", value))
    return runs


def planned(counts: dict[str, Any] | None = None) -> list[Planned]:
    counts = counts if counts is not None else load()
    return [run for name, scenario in MACHINES.items() if name in counts
            for run in (*_calls(scenario, counts[name]["calls"]), *_steps(scenario, counts[name]["store"]))]


def slices(runs: list[Planned]) -> int:
    """How many slices of about SLICE runs there are."""
    return max(1, round(len(runs) / SLICE))


def take_slice(runs: list[Planned], text: str) -> list[Planned]:
    """Slice "K/N", K from 1: every N-th run, so that each machine and function has its part in it."""
    match = re.fullmatch(r"(\d+)/(\d+)", text)
    if not match or not 1 <= int(match[1]) <= int(match[2]):
        raise ValueError(f"a slice is K/N with K from 1 to N, not {text}")
    return runs[int(match[1]) - 1::int(match[2])]


def slice_of(commit: str, runs: list[Planned]) -> str:
    """The slice that belongs to a commit: another one nearly every time, and the same one whenever it is run again."""
    number = slices(runs)
    return f"{int(commit[:8] or '0', 16) % number + 1}/{number}"


def take_sample(runs: list[Planned], number: int, seed: int) -> list[Planned]:
    return random.Random(seed).sample(runs, min(number, len(runs)))
