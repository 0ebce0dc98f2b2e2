"""Runs of the campaign: one, or many at a time, with results that can be gone on with."""
from __future__ import annotations

import collections
import concurrent.futures
import contextlib
import functools
import hashlib
import json
import os
import pathlib
import subprocess
import sys
import time
from typing import Any

from companion import outcomes
from cases.support import corpus
from lab import paths
from lab.children import end_with_parent
from lab.result import Result
from lab.run import RunError, end_orphans, private_hosts_obstacle, remove_folder, run as start
from cases.fault_injection import judge, plan
from cases.fault_injection.machines import MACHINES
from cases.fault_injection.plan import Planned

FOLDER = paths.ROOT / "build" / "fault-injection"
RESULTS = FOLDER / "results.jsonl"
SUMMARY = FOLDER / "summary.json"


def obstacle(run: Planned) -> str:
    """Why this run cannot be made here; empty when it can."""
    return private_hosts_obstacle() if run.scenario.needs_root else ""


def execute(run: Planned, keep: bool = False) -> tuple[Result, judge.Verdict]:
    """One run: the disturbed start, the undisturbed one after it, and the judgement."""
    machine = run.machine()
    _, _, arguments = judge.expected(run, machine)
    result = start(machine, run.scenario.arguments, timeout=judge.LIMIT, then=arguments, keep=keep)
    verdict = judge.judge(run, result)
    if not verdict.problems:
        for code, log in ((result.exit_code, result.log), (result.again.exit_code, result.again.log)):
            corpus.add(*outcomes.matching(code, log), code, log)  # judged, so there is exactly one
    return result, verdict


def count_machine(name: str) -> tuple[str, dict[str, Any], list[str]]:
    scenario = MACHINES[name]
    if scenario.needs_root and private_hosts_obstacle():
        return name, plan.load()[name], []  # not to be measured here
    result = start(scenario.machine(), scenario.arguments)
    return name, plan.count(result), judge.check_good(scenario, result)


def count(jobs: int, write: bool) -> list[str]:
    """Measures all machines anew and compares with counts.json, or writes it. Returns what is wrong with the
    undisturbed runs."""
    counts: dict[str, Any] = {}
    problems: list[str] = []
    known = {} if write else plan.load()
    with concurrent.futures.ProcessPoolExecutor(jobs, initializer=end_with_parent) as pool:
        for name, found, wrong in pool.map(count_machine, MACHINES):
            calls = sum(item["count"] for item in found["calls"].values())
            print(f"{name}: {calls} calls, {len(found['store'])} steps", flush=True)
            counts[name] = found
            problems += [f"{name}: {item}" for item in wrong]
            if not write and not wrong and found != known.get(name):
                problems.append(f"{name}: counts.json is out of date, run scripts/inject-faults --count")
    if write and not problems:
        plan.save(counts)
    return problems


def commit() -> str:
    found = subprocess.run(["git", "-C", str(paths.ROOT), "rev-parse", "HEAD"], capture_output=True, text=True, check=False)
    return found.stdout.strip()


def slice_name() -> str:
    """Of the tests: by the commit, unless FAULT_SLICE says otherwise."""
    return os.environ.get("FAULT_SLICE") or plan.slice_of(commit(), plan.planned())


def slice_for_tests() -> list[Planned]:
    name = slice_name()
    if name == "none":
        return []
    return plan.planned() if name == "all" else plan.take_slice(plan.planned(), name)


@functools.cache
def by_id() -> dict[str, Planned]:
    return {run.id: run for run in plan.planned()}


def stamp() -> str:
    """Results of another program or another plan do not count any more."""
    digest = hashlib.sha256(paths.need(paths.TOOL).read_bytes())
    here = pathlib.Path(__file__)
    lab = paths.ROOT / "lab"
    parts = {*here.parent.glob("*.py"), *lab.glob("*.py"), paths.ROOT / "cases" / "support" / "expect.py", *lab.glob("standins/**/*.cpp"),
             *lab.glob("programs/*.cpp")}
    parts |= {outcomes.FILE, pathlib.Path(outcomes.__file__)}
    for file in sorted(parts - {here, here.with_name("__main__.py")}):
        digest.update(file.read_bytes())
    digest.update(json.dumps(plan.load()).encode())
    return digest.hexdigest()[:12]


def record(identity: str, mark: str) -> dict[str, Any]:
    """Runs and judges; what goes into the results."""
    run = by_id()[identity]
    found: dict[str, Any] = {"id": identity, "machine": run.scenario.name, "function": run.function, "stamp": mark}
    if obstacle(run):
        return {**found, "outcome": "not possible here", "problems": [], "seconds": 0}
    began = time.monotonic()
    try:
        result, verdict = execute(run)
        found |= {"outcome": verdict.end, "problems": verdict.problems, "exit_code": result.exit_code}
        if verdict.problems:
            found |= {"log": result.log, "again": result.again.log if result.again else None, "calls": result.calls,
                      "store_calls": result.store_calls, "errors": result.errors[:2000]}
    except RunError as error:  # the lab itself failed
        found |= {"outcome": "lab failure", "problems": [str(error)]}
        remove_folder(error.folder)
    except Exception as error:  # noqa: BLE001: one run must not end the campaign
        found |= {"outcome": "lab failure", "problems": [repr(error)]}
    return {**found, "seconds": round(time.monotonic() - began, 2)}


def known_results(mark: str) -> dict[str, dict[str, Any]]:
    """Good results of this program and plan; runs that failed are done again."""
    if not RESULTS.exists():
        return {}
    found = []
    for line in RESULTS.read_text("utf-8").splitlines():
        with contextlib.suppress(ValueError):  # a campaign that was killed may have left half a line
            found.append(json.loads(line))
    return {item["id"]: item for item in found if item["stamp"] == mark and not item["problems"]}


def campaign(runs: list[Planned], jobs: int, fresh: bool = False) -> int:
    """Makes the runs that have no result yet. The number of runs with something wrong."""
    FOLDER.mkdir(parents=True, exist_ok=True)
    end_orphans()
    mark = stamp()
    if fresh:
        RESULTS.unlink(missing_ok=True)
    results = {identity: item for identity, item in known_results(mark).items() if identity in {run.id for run in runs}}
    left = [run for run in runs if run.id not in results]
    left = plan.take_sample(left, len(left), 1)  # shuffled, so that a part tells of all machines
    print(f"{len(runs)} runs, {len(results)} of them done before, {jobs} at a time", flush=True)
    began = time.monotonic()
    failed = 0
    with open(RESULTS, "a", encoding="utf-8") as file, concurrent.futures.ProcessPoolExecutor(jobs, initializer=end_with_parent) as pool:
        futures = [pool.submit(record, run.id, mark) for run in left]
        try:
            for done, future in enumerate(concurrent.futures.as_completed(futures), 1):
                item = future.result()
                results[item["id"]] = item
                file.write(json.dumps(item, ensure_ascii=False) + "\n")
                file.flush()
                failed += bool(item["problems"])
                if item["problems"]:
                    print(f"\nFAILED {item['id']} ({item['outcome']})\n  " + "\n  ".join(item["problems"]), flush=True)
                _progress(done, len(left), failed, time.monotonic() - began)
        except KeyboardInterrupt:
            pool.shutdown(wait=False, cancel_futures=True)
            print("\nstopped; the same command goes on from here", flush=True)
    summarise(results, mark, time.monotonic() - began)
    return len([item for item in results.values() if item["problems"]]) + (len(runs) - len(results))


def _progress(done: int, number: int, failed: int, seconds: float) -> None:
    left = seconds / done * (number - done)
    line = f"{done} of {number}, {failed} failed, {seconds / done:.2f} s a run, {left / 60:.0f} min left"
    if sys.stdout.isatty():
        print(f"\r{line}  ", end="", flush=True)
    elif done % 25 == 0 or done == number:
        print(line, flush=True)


def summarise(results: dict[str, dict[str, Any]], mark: str, seconds: float) -> None:
    machines: dict[str, collections.Counter[str]] = {}
    outcomes: collections.Counter[str] = collections.Counter()
    for item in results.values():
        wrong = "failed" if item["problems"] else "passed" if item["outcome"] != "not possible here" else "not possible here"
        machines.setdefault(item["machine"], collections.Counter())[wrong] += 1
        outcomes[item["outcome"]] += 1
    print("\nby machine")
    for name in MACHINES:
        if name in machines:
            parts = sorted(machines[name].items(), reverse=True)
            print(f"  {name:18} " + ", ".join(f"{number} {what}" for what, number in parts))
    print("by outcome")
    for name, number in outcomes.most_common():
        print(f"  {name:26} {number:5}")
    mean = sum(item["seconds"] for item in results.values()) / max(1, len(results))
    print(f"{len(results)} runs, {mean:.1f} s each on average; results in {RESULTS.relative_to(paths.ROOT)}", flush=True)
    text = {"stamp": mark, "runs": len(results), "seconds": round(seconds), "machines": machines, "outcomes": outcomes,
            "failed": [item["id"] for item in results.values() if item["problems"]]}
    SUMMARY.write_text(json.dumps(text, indent=1) + "\n", "utf-8")


