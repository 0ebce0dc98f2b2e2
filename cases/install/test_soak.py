"""Hundreds of runs on one machine, one after the other: nothing adds up."""
from __future__ import annotations

import collections
import pathlib
import re

import pytest

from cases.support import expect
from companion import outcomes
from cases.support.expect import SAME, inventory, opening
from lab.machine import Machine
from lab.prefix import Prefix, processes_of
from lab.session import Session, remove_folder

RUNS = 300
WARM = 20  # runs before measuring: services start, caches fill


def held(prefix: Prefix) -> dict[str, int]:
    """What the Wine server holds for the machine. Each open file of a program is a descriptor of the server."""
    process = pathlib.Path("/proc", str(prefix.server.pid))
    memory = re.search(r"VmRSS:\s+(\d+)", (process / "status").read_text("ascii"))
    files = [item for item in prefix.drive.rglob("*") if "Temp" in item.parts or "Tavik_VLTInstallerDownload" in item.parts]
    return {"descriptors": len(list((process / "fd").iterdir())), "kilobytes": int(memory[1]), "temporary files": len(files),
            "processes": len(processes_of(prefix.path))}


def soak(session: Session, number: int) -> collections.Counter[str]:
    """Runs the tool this number of times inside the machine. Returns its exit codes. On a busy host Wine sometimes cannot create a process:
    then cmd reports 9009, and the run is repeated."""
    run = ':{0}\r\n"C:\\lab\\TavikCompatibilityTool.exe" -SILENT\r\nif errorlevel 9009 goto {0}\r\necho %errorlevel%\r\n'
    (session.lab / "soak.bat").write_text("@echo off\r\n" + "".join(run.format(f"run{count}") for count in range(number)), "ascii", newline="")
    output = session.lab / "soak.txt"
    output.unlink(missing_ok=True)
    session.prefix.wine("cmd", "/c", r"C:\lab\soak.bat", output=output, timeout=500)
    return collections.Counter(re.findall(r"^-?\d+", output.read_text("ascii"), re.M))


def growth(before: dict[str, int], after: dict[str, int]) -> dict[str, int]:
    return {name: after[name] - count for name, count in before.items()}


# Proves: 300 runs, one after the other => one log each; nothing is left over or grows
@pytest.mark.slow
def test_300_runs_leave_nothing_but_their_logs():
    """Mostly waiting: each run waits a tenth of a second for its window."""
    machine = Machine({"desktop": {"release": "24.20"}, "server": {"reach": "none"}})
    with Session(machine) as session:
        session.watch("-SILENT")  # one of the runs
        first = soak(session, WARM - 1)
        before = held(session.prefix)
        second = soak(session, RUNS - WARM)
        after = held(session.prefix)
        logs = session.logs()
    remove_folder(session.folder)
    assert (first, second) == ({"-1": WARM - 1}, {"-1": RUNS - WARM})
    grown = growth(before, after)
    # A leak of one object per run would add hundreds; background services may add or remove a few.
    assert grown.pop("kilobytes") < 2000 and grown.pop("temporary files") == 0
    assert [name for name, number in grown.items() if number > 10] == [], grown
    known = {"store1": machine.adapters[0].packages[0].store_folder()}
    wanted = [*opening("-SILENT", "24.20"), *inventory(), f"{SAME} Exiting."]
    assert len(logs) == RUNS and all(outcomes.matching(-1, log) == ["same-release"] for log in logs)
    assert [difference for log in logs if (difference := expect.compare_log(wanted, log, known))] == []
