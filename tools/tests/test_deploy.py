"""Commands of the deployment kit that Wine can run. PowerShell is not there: its scripts only start such commands."""
from __future__ import annotations

import contextlib
import json
import pathlib
import re
from collections.abc import Iterator

import pytest

from lab import paths
from lab.hive import Hive
from lab.machine import Machine
from lab.prefix import Prefix
from lab.run import run
from lab.session import bare
from tools.tests.deploy_kit import DEPLOY


def command(prefix: Prefix, line: str) -> tuple[int, str]:
    """Runs a line of a console, and returns its exit code and what it said."""
    (prefix.drive / "lab" / "line.cmd").write_text(f"@{line}\n", "ascii")
    said = prefix.path / "said.txt"
    said.write_bytes(b"")
    return prefix.wine("cmd.exe", "/c", r"C:\lab\line.cmd", output=said), said.read_text("utf-8", "replace")


def files_below(folder: pathlib.Path) -> list[str]:
    return sorted(file.name for file in folder.rglob("*") if file.is_file())


@contextlib.contextmanager
def ready_for_the_task(*programs: pathlib.Path) -> Iterator[Prefix]:
    """A prefix in which Wine's Task Scheduler runs."""
    with bare(*programs, DEPLOY / "task/Install-TavikRepair.cmd", DEPLOY / "task/TavikRepairAfterDriverUpdate.xml") as prefix:
        system = Hive(prefix.path / "system.reg")
        system.set(r"System\CurrentControlSet\Services\Schedule", "Start", 3)
        system.save()
        prefix.start()
        yield prefix


# Proves: The scheduled task is installed, and removed again => programs in Program Files and a task of that name; afterwards neither
def test_the_task_is_installed_and_removed():
    with ready_for_the_task(paths.TOOL, paths.COMPANION) as prefix:
        programs, tasks = prefix.drive / "Program Files/Tavik/Repair", prefix.drive / "windows/system32/tasks"
        for _ in range(2):  # again: an update
            code, said = command(prefix, r"call C:\lab\Install-TavikRepair.cmd")
            assert code == 0, said
        assert files_below(programs) == ["TavikCompatibilityTool.exe", "TavikToolCompanion.exe"]
        assert files_below(tasks) == ["RepairAfterDriverUpdate"]
        code, said = command(prefix, r"call C:\lab\Install-TavikRepair.cmd remove")
        assert (code, programs.exists(), files_below(tasks)) == (0, False, []), said


# Proves: The scheduled task is installed, and removed again
def test_the_task_is_not_installed_without_its_programs():
    with ready_for_the_task(paths.COMPANION) as prefix:
        assert command(prefix, r"call C:\lab\Install-TavikRepair.cmd")[0] == 1
        assert files_below(prefix.drive / "windows/system32/tasks") == []


# Proves: Intune uninstalls => the kept programs are removed, nothing else
def test_intune_uninstalls_the_kept_programs():
    line = json.loads((DEPLOY / "intune/app.json").read_text("utf-8"))["uninstallCommandLine"]
    with bare() as prefix:
        prefix.start()
        repair = prefix.drive / "Program Files/Tavik/MIM/Repair"
        for folder in ("Programs", "Kept"):
            (repair / folder).mkdir(parents=True)
            (repair / folder / "file.exe").write_bytes(b"MZ")
        for _ in range(2):  # again: there is nothing to do
            code, said = command(prefix, line)
            assert (code, (repair / "Programs").exists(), files_below(repair)) == (0, False, ["file.exe"]), said


# Proves: Intune asks whether its app is applicable => on a PC with an adapter of the maker, not on another
@pytest.mark.parametrize("adapters, applicable", [([{}], True), ([{"id": r"PCI\VEN_1E7E&DEV_0001\1"}], False), ([], False)])
def test_the_requirement_rule(adapters, applicable):
    query, pattern = re.search(r"\(reg\.exe (.*?)\) -match '([^']*)'", (DEPLOY / "intune/Require-TavikAdapter.ps1").read_text("ascii")).groups()
    result = run(Machine({"adapters": adapters}), query, program=r"C:\windows\system32\reg.exe")
    assert [bool(re.search(pattern, line, re.I)) for line in result.output].count(True) == applicable, result.output
