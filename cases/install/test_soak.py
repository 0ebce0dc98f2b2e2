"""Hundreds of runs on one machine, one after the other: nothing adds up."""
from __future__ import annotations

import pathlib
import re

import pytest

from cases.support import expect
from companion import outcomes
from cases.support.expect import SAME, inventory, opening
from lab import paths
from lab.machine import Machine
from lab.prefix import Prefix, processes_of, replace_file
from lab.session import Session, remove_folder

RUNS = 300
WARM = 20  # services start, caches fill


def held(prefix: Prefix) -> dict[str, int]:
    """What the Wine server holds for the machine. Each open file, with its object, shows up as a descriptor."""
    process = pathlib.Path("/proc", str(prefix.server.pid))
    memory = re.search(r"VmRSS:\s+(\d+)", (process / "status").read_text("ascii"))
    files = [item for item in prefix.drive.rglob("*") if "Temp" in item.parts or "Tavik_VLTInstallerDownload" in item.parts]
    return {"descriptors": len(list((process / "fd").iterdir())), "kilobytes": int(memory[1]), "temporary files": len(files),
            "processes": len(processes_of(prefix.path))}


def soak(prefix: Prefix, number: int) -> dict[str, str]:
    """What the program has counted inside the machine, by the first word of each line."""
    output = prefix.path / "soak.txt"
    output.unlink(missing_ok=True)
    assert prefix.wine(r"C:\lab\soak.exe", str(number), "-SILENT", output=output, timeout=500) == 0
    return dict(line.split(" ", 1) for line in output.read_text("ascii").splitlines())


def growth(before: dict[str, int], after: dict[str, int]) -> dict[str, int]:
    return {name: after[name] - count for name, count in before.items()}


def counts(line: str) -> dict[str, int]:
    return {name: int(number) for name, number in (item.split("=") for item in line.split())}


# Proves: 300 runs, one after the other => one log each; nothing is left over or grows
@pytest.mark.slow
def test_300_runs_leave_nothing_but_their_logs():
    """Mostly waiting: each run waits a tenth of a second for its window."""
    machine = Machine({"desktop": {"release": "24.20"}, "server": {"reach": "none"}})
    with Session(machine) as session:
        replace_file(session.lab / "soak.exe", paths.need(paths.PROGRAMS / "soak.exe").read_bytes())
        session.watch("-SILENT")  # one of the runs
        first = soak(session.prefix, WARM - 1)
        before = held(session.prefix)
        second = soak(session.prefix, RUNS - WARM)
        after = held(session.prefix)
        logs = session.logs()
    remove_folder(session.folder)
    assert (first["codes"], second["codes"]) == (f"-1={WARM - 1}", f"-1={RUNS - WARM}")
    outside, inside = growth(before, after), growth(counts(second["before"]), counts(second["after"]))
    # One of anything a run would be hundreds; services come and go.
    assert outside.pop("kilobytes") < 2000 and outside.pop("temporary files") == 0
    assert [name for name, number in {**outside, **inside}.items() if number > 10] == [], (outside, inside)
    known = {"store1": machine.adapters[0].packages[0].store_folder()}
    wanted = [*opening("-SILENT", "24.20"), *inventory(), f"{SAME} Exiting."]
    assert len(logs) == RUNS and all(outcomes.matching(-1, log) == ["same-release"] for log in logs)
    assert [difference for log in logs if (difference := expect.compare_log(wanted, log, known))] == []
