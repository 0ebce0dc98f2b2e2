"""How the lab reports a mistake, how it ends a run that takes too long, and how it reads the registry. The cases show the rest, the download server too."""
from __future__ import annotations

import os
import pathlib
import re
import subprocess
import warnings

import pytest

from cases.support.expect import SAME_RELEASE
from cases.support.store import store_only
from lab import paths, session
from lab import run as lab_run
from lab.hive import Hive
from lab.machine import Machine
from tools import demo


@pytest.mark.parametrize("description", [
    {"adaptor": []}, {"adapters": [{"realease": "1"}]}, {"adapters": [{"packages": [{"bogus": 1}]}]},
    {"adapters": [{"id": "PCI"}]}, {"desktop": {"version": "1"}}, {"server": {"answers": {"/x": {"stat": 1}}}},
    {"server": {"reach": "moon"}}, {"store": {"package": []}}], ids=str)
def test_unknown_keys_are_refused(description):
    with pytest.raises(ValueError):
        Machine(description)


@pytest.mark.parametrize("file", sorted((paths.ROOT / "lab" / "machines").glob("*.toml")), ids=lambda file: file.name)
def test_example_can_be_read(file):
    assert Machine.load(file).data["description"]


BAD_RULES = {
    "setupapi!SetupDiGetClassDvsW 1 error=5": "function is not intercepted: SetupDiGetClassDvsW",
    "setupapi!SetupDiGetClassDevsW 0 error=5": "which call? <number>, <number>+ or *",
    "setupapi!SetupDiGetClassDevsW 1": "nothing to do",
    "setupapi!SetupDiGetClassDevsW 1 eror=5": "unknown key: eror",
    "setupapi!SetupDiGetClassDevsW 1 error=five": "not a number: five",
    "setupapi!SetupDiGetClassDevsW 1 error=5 error=6": "given twice: error",
    "setupapi!SetupDiGetClassDevsW 1 count=5": "unknown key: count",  # belongs to another function
    "setupapi!SetupDiGetClassDevsW 1 memory=some": "memory can only be none",
}


def test_rule_that_is_not_understood_fails_the_case(lab):
    result = lab.run({"desktop": {"release": "24.20"}, "faults": list(BAD_RULES)})
    assert [line for line in result.calls if line.startswith("!")] == [
        f"!bad rule in line {number}: {why}" for number, why in enumerate(BAD_RULES.values(), 1)]
    with pytest.raises(AssertionError, match="not understood"):
        lab.check(outcome="same-release", exit_code=-1)


def test_line_or_rule_that_the_store_does_not_understand_stops_it_and_fails_the_case(lab):
    lines = ["rubbish", "[stoer]", "colour = red", "version = 1.2.3", "fail = get_Ip:0x80004005"]
    rules = [f"winrt!FindPackages {rest}" for rest in ("1", "0 exit=9", "1 error=9", "1 exit=nine", "1 exit=9 crash=9")]
    script = "# comment\n" + "".join(f"[package]\n{line}\n" for line in lines)
    result = lab.run(store_only(files={r"C:\lab\standins\store.txt": script}, faults=rules))
    assert [re.match("!bad .*?(?=:|$)", line)[0] for line in result.store_calls if line.startswith("!")] == [
        *(f"!bad rule in line {number}" for number in range(1, 1 + len(rules))),
        *(f"!bad line {2 * number + 1} of store.txt" for number in range(1, 1 + len(lines)))]
    assert any("PackageManager -> 0x8007000D" in line for line in result.store_calls)
    with pytest.raises(AssertionError, match="not understood"):
        lab.check(outcome="no-application-store-unread")


def test_unknown_action_is_refused(lab):
    with pytest.raises(RuntimeError, match="unknown action: dance"):
        lab.run("compatible.toml", when=["start : dance"])


def test_run_has_a_time_limit_and_then_no_second_start(lab):
    result = lab.run("compatible.toml", hold=100, timeout=6, then="")
    assert result.timed_out and result.boxes[0]["text"] == SAME_RELEASE[1]
    assert result.again is None and len(result.instances) == 1
    with pytest.raises(AssertionError, match="time limit"):
        lab.check(outcome="interrupted", exit_code=-1)


def test_command_of_the_host_that_fails_is_told_in_one_sentence(tmp_path, monkeypatch):
    (tmp_path / "cp").write_text("#!/bin/sh\necho the disk is full >&2\nexit 7\n", "ascii")
    (tmp_path / "cp").chmod(0o755)
    monkeypatch.setenv("PATH", f"{tmp_path}:{os.environ['PATH']}")
    monkeypatch.setattr(demo, "build", lambda *targets: None)
    with pytest.raises(SystemExit) as told:
        demo.main([])
    said = re.fullmatch(r"The demonstration stopped: cp -al \S+ failed with exit code 7: the disk is full \(the machine is kept in (\S+)\)", str(told.value))
    assert said
    session.remove_folder(pathlib.Path(said[1]))


@pytest.mark.parametrize("text, found", [("", None), ('\n[System\\\\ControlSet001\\\\A] 1\n"B"=dword:00000007\n', 7)])
def test_registry_file_with_one_section_or_none(tmp_path, text, found):
    file = tmp_path / "system.reg"
    file.write_text(f"WINE REGISTRY Version 2\n{text}", "ascii")
    values = Hive(file).values(r"System\CurrentControlSet\A")
    assert (values and values["B"].plain()) == found


@pytest.mark.parametrize("version, program, folders", [(8, session.WATCHER, [1]), (10, session.WATCHER, [1, 2]), (10, "-w", [1])])
def test_run_in_which_wine_10_itself_hangs_is_repeated_once(monkeypatch, version, program, folders):
    tried = []

    class Hung:
        def __init__(self, *_) -> None:
            tried.append(len(tried) + 1)
            self.folder = pathlib.Path("machine")

        def execute(self, *_, **__) -> None:
            raise subprocess.TimeoutExpired(["wine", program], 120)
    monkeypatch.setattr(lab_run, "ToolRun", Hung)
    monkeypatch.setattr(lab_run, "wine_version", lambda: version)
    with pytest.raises(lab_run.RunError), warnings.catch_warnings(record=True) as told:
        warnings.simplefilter("always")
        lab_run.run(Machine({}))
    assert tried == folders and [str(one.message).startswith("Wine hung") for one in told] == [True] * (len(folders) - 1)
