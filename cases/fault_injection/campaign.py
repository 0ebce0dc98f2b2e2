"""Which runs there are on this host, and how one of them is made and judged."""
from __future__ import annotations

import concurrent.futures
import fcntl
import fnmatch
import functools
import hashlib
import json
import os
import pathlib
import subprocess
from typing import Any

from companion import outcomes
from cases.support import corpus
from lab import paths
from lab.children import end_with_parent
from lab.privileges import private_hosts_obstacle
from lab.result import Result
from lab.run import run as start
from cases.fault_injection import judge, plan
from cases.fault_injection.machines import MACHINES, Scenario
from cases.fault_injection.plan import Planned

FOLDER = paths.ROOT / "build" / "fault-injection"


def stamp() -> str:
    """Digest of the tool and of every file that affects an undisturbed run."""
    digest = hashlib.sha256(paths.need(paths.TOOL).read_bytes())
    here, lab = pathlib.Path(__file__).parent, paths.ROOT / "lab"
    parts = [*here.glob("*.py"), *here.parent.glob("support/*.py"), *lab.glob("*.py"), *lab.glob("standins/**/*.cpp"),
             *lab.glob("programs/*.cpp"), outcomes.FILE, pathlib.Path(outcomes.__file__)]
    for file in sorted(parts):
        digest.update(file.read_bytes())
    return digest.hexdigest()[:12]


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


def chosen(text: str | None) -> list[Planned]:
    """text: "all", a slice K/N, or a pattern of names; without it the slice that belongs to the commit."""
    if not text:
        commit = subprocess.run(["git", "-C", str(paths.ROOT), "rev-parse", "HEAD"], capture_output=True, text=True, check=False)
        text = plan.slice_of(commit.stdout.strip(), runs())
    if text == "all":
        return runs()
    if text[0].isdigit():
        return plan.take_slice(runs(), text)
    return [run for run in runs() if fnmatch.fnmatchcase(run.id, text)]


def execute(run: Planned) -> tuple[Result, list[str]]:
    """One run: the disturbed start, the undisturbed one after it, and what is wrong with them."""
    _, arguments = judge.expected(run)
    result = start(run.machine(), run.scenario.arguments, timeout=judge.LIMIT, then=arguments)
    problems = judge.judge(run, result, undisturbed()[run.scenario.name]["calls"])
    if not problems:
        for code, log in ((result.exit_code, result.log), (result.again.exit_code, result.again.log)):
            corpus.add(*outcomes.matching(code, log), code, log)  # the judge has checked that there is exactly one
    return result, problems
