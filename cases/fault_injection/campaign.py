"""Makes the runs of the campaign: one, or many at a time, with results from which a later call goes on."""
from __future__ import annotations

import collections
import concurrent.futures
import contextlib
import fcntl
import functools
import hashlib
import json
import os
import pathlib
import random
import subprocess
import sys
import time
from typing import Any

from companion import outcomes
from cases.support import corpus
from lab import paths
from lab.children import end_with_parent
from lab.result import Result
from lab.privileges import private_hosts_obstacle
from lab.run import RunError, run as start
from lab.session import end_orphans, remove_folder
from cases.fault_injection import judge, plan
from cases.fault_injection.machines import MACHINES, Scenario
from cases.fault_injection.plan import Planned

FOLDER = paths.ROOT / "build" / "fault-injection"
RESULTS = FOLDER / "results.jsonl"
SUMMARY = FOLDER / "summary.json"


@functools.cache
def stamp() -> str:
    """Of the tool and of everything that decides about a run. What was found with another stamp does not count."""
    digest = hashlib.sha256(paths.need(paths.TOOL).read_bytes())
    here, lab = pathlib.Path(__file__).parent, paths.ROOT / "lab"
    parts = {*here.glob("*.py"), *here.parent.glob("support/expect.py"), *lab.glob("*.py"), *lab.glob("standins/**/*.cpp"),
             *lab.glob("programs/*.cpp"), outcomes.FILE, pathlib.Path(outcomes.__file__)}
    for file in sorted(parts - {*here.glob("test_*.py"), here / "__main__.py"}):
        digest.update(file.read_bytes())
    return digest.hexdigest()[:12]


# The undisturbed runs

def obstacle(scenario: Scenario) -> str:
    """Why this machine cannot be built here; empty when it can."""
    return private_hosts_obstacle() if scenario.needs_root else ""


def measure(name: str) -> dict[str, Any]:
    """One undisturbed run: its calls, and what is wrong with it."""
    result = start(MACHINES[name].machine(), MACHINES[name].arguments)
    return {**plan.count(result), "problems": judge.judge_undisturbed(MACHINES[name], result)}


@functools.cache
def undisturbed() -> dict[str, Any]:
    """By machine, measured once for each stamp and kept below build/. Machines that cannot be built here are left out."""
    FOLDER.mkdir(parents=True, exist_ok=True)
    file = FOLDER / f"undisturbed-{stamp()}.json"
    with open(FOLDER / "lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)  # the other workers of a test run wait for the first one
        if not file.exists():
            names = [name for name, scenario in MACHINES.items() if not obstacle(scenario)]
            print(f"counting the calls of {len(names)} undisturbed runs", file=sys.stderr, flush=True)
            with concurrent.futures.ProcessPoolExecutor(2 * (os.cpu_count() or 1), initializer=end_with_parent) as pool:
                found = dict(zip(names, pool.map(measure, names)))
            for old in FOLDER.glob("undisturbed-*.json"):
                old.unlink()
            file.write_text(json.dumps(found), "utf-8")
    return json.loads(file.read_text("utf-8"))


@functools.cache
def by_id() -> dict[str, Planned]:
    return {run.id: run for run in plan.planned(undisturbed())}


def runs() -> list[Planned]:
    return list(by_id().values())


def slice_name() -> str:
    """Of the tests: by the commit, unless FAULT_SLICE says otherwise."""
    found = subprocess.run(["git", "-C", str(paths.ROOT), "rev-parse", "HEAD"], capture_output=True, text=True, check=False)
    return os.environ.get("FAULT_SLICE") or plan.slice_of(found.stdout.strip(), runs())


def slice_for_tests() -> list[Planned]:
    name = slice_name()
    return {"none": [], "all": runs()}.get(name) if name in ("none", "all") else plan.take_slice(runs(), name)


# The runs

def execute(run: Planned, keep: bool = False) -> tuple[Result, list[str]]:
    """One run: the disturbed start, the undisturbed one after it, and what is wrong with them."""
    _, arguments = judge.expected(run)
    result = start(run.machine(), run.scenario.arguments, timeout=judge.LIMIT, then=arguments, keep=keep)
    problems = judge.judge(run, result, undisturbed()[run.scenario.name]["calls"])
    if not problems:
        for code, log in ((result.exit_code, result.log), (result.again.exit_code, result.again.log)):
            corpus.add(*outcomes.matching(code, log), code, log)  # judged, so there is exactly one
    return result, problems


def record(identity: str) -> dict[str, Any]:
    """Runs and judges; returns what goes into the results."""
    run = by_id()[identity]
    found: dict[str, Any] = {"id": identity, "machine": run.scenario.name, "stamp": stamp()}
    began = time.monotonic()
    try:
        result, problems = execute(run)
        found |= {"outcome": " or ".join(outcomes.matching(result.exit_code, result.log)), "problems": problems}
        if problems:
            found |= {"exit_code": result.exit_code, "log": result.log, "again": result.again.log if result.again else None,
                      "calls": result.calls, "store_calls": result.store_calls, "errors": result.errors[:2000]}
    except RunError as error:  # the lab itself failed
        found |= {"outcome": "lab failure", "problems": [str(error)]}
        remove_folder(error.folder)
    except Exception as error:  # noqa: BLE001: one run must not end the campaign
        found |= {"outcome": "lab failure", "problems": [repr(error)]}
    return {**found, "seconds": round(time.monotonic() - began, 2)}


def known_results() -> dict[str, dict[str, Any]]:
    """Good results with this stamp; runs that failed are made again."""
    found = []
    for line in RESULTS.read_text("utf-8").splitlines() if RESULTS.exists() else ():
        with contextlib.suppress(ValueError):  # a campaign that was killed may have left half a line
            found.append(json.loads(line))
    return {item["id"]: item for item in found if item["stamp"] == stamp() and not item["problems"]}


def campaign(chosen: list[Planned], jobs: int, fresh: bool = False) -> int:
    """Makes the runs that have no good result yet. Returns the number of runs that failed or were not made."""
    FOLDER.mkdir(parents=True, exist_ok=True)
    end_orphans()
    if fresh:
        RESULTS.unlink(missing_ok=True)
    names = [run.id for run in chosen]
    results = {identity: item for identity, item in known_results().items() if identity in names}
    left = [name for name in names if name not in results]
    random.Random(1).shuffle(left)  # so that a part of the runs covers all machines
    print(f"{len(names)} runs, {len(results)} of them done before, {jobs} at a time", flush=True)
    began = time.monotonic()
    with (open(RESULTS, "a", encoding="utf-8") as file,
          concurrent.futures.ProcessPoolExecutor(jobs, initializer=end_with_parent) as pool):
        futures = [pool.submit(record, name) for name in left]
        try:
            for done, future in enumerate(concurrent.futures.as_completed(futures), 1):
                item = future.result()
                results[item["id"]] = item
                file.write(json.dumps(item, ensure_ascii=False) + "\n")
                file.flush()
                if item["problems"]:
                    print(f"\nFAILED {item['id']} ({item['outcome']})\n  " + "\n  ".join(item["problems"]), flush=True)
                if done % 25 == 0 or done == len(left):
                    each = (time.monotonic() - began) / done
                    print(f"{done} of {len(left)}, {each:.2f} s a run, {each * (len(left) - done) / 60:.0f} min left", flush=True)
        except KeyboardInterrupt:
            pool.shutdown(wait=False, cancel_futures=True)
            print("\nstopped; the same command goes on from here", flush=True)
    return summarise(results) + len(names) - len(results)


def summarise(results: dict[str, dict[str, Any]]) -> int:
    """Returns how many runs failed."""
    failed = [item["id"] for item in results.values() if item["problems"]]
    machines = collections.Counter(item["machine"] for item in results.values())
    ends = collections.Counter(item["outcome"] for item in results.values())
    for title, table in (("by machine", machines), ("by outcome", ends)):
        print(title, *(f"  {name:26} {number:5}" for name, number in table.most_common()), sep="\n")
    print(f"{len(results)} runs, {len(failed)} failed; results in {RESULTS.relative_to(paths.ROOT)}", flush=True)
    text = {"stamp": stamp(), "runs": len(results), "machines": machines, "outcomes": ends, "failed": failed}
    SUMMARY.write_text(json.dumps(text, indent=1) + "\n", "utf-8")
    return len(failed)
