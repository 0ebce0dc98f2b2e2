"""The Windows check under Wine: every difference is known, and a known difference that is gone is an error too.

Once in a bare prefix, and once on a machine of the lab under the tool's name: there it meets the stand-ins, display adapters,
products of Windows Installer and the Windows Runtime classes.
"""
from __future__ import annotations

import getpass
import json
import os
import re
import subprocess
from typing import Any

import pytest

from lab import paths, session
from lab.machine import Machine
from lab.prefix import Prefix, replace_file, wine_version
from tools import windows_facts
from cases.support.store import CORVEL, OTHER, package

PROGRAM = paths.BUILD / "TavikWindowsCheck.exe"
UNIT_TESTS = paths.BUILD / "tests" / "unit_tests.exe"
# Made by the compiler, arithmetic on memory, or of a library that is linked in.
NO_CALLS = {"IID_IUnknown", "abort", "atexit", "memchr", "memcmp", "memcpy", "memmove", "memset", "strlen", "wcslen"}
GROUPS = ("devices", "infs", "installer", "runtime", "store")  # where a machine of the lab has more to show than a bare prefix


def known(machine: str) -> dict[str, tuple[str, str]]:
    """Fact -> (result, what is seen) of those that are not as expected on "bare" or "lab"."""
    return {name: (row.result, row.seen) for name, rows in windows_facts.read_differences(wine_version()).items() for row in rows
            if machine in row.machines}


def changes(findings: list[dict[str, Any]], expected: dict[str, tuple[str, str]]) -> list[str]:
    """What is new and what is gone, one line each."""
    seen = {row["id"]: (row["result"], row["seen"]) for row in findings}
    found = {name: what for name, what in seen.items() if what[0] != "ok"}
    return ([f"new: {name}: {what}" for name, what in found.items() if name not in expected]
            + [f"gone: {name}: {seen.get(name)}" for name in expected if name not in found]
            + [f"other: {name}: {what} instead of {expected[name]}" for name, what in found.items()
               if name in expected and what != expected[name]])


def check(prefix: Prefix, name: str, *arguments: str) -> tuple[int, list[dict[str, Any]], str]:
    """Runs the program in C:\\lab; low 8 bits of the exit code, the findings, what it printed."""
    output, result = prefix.path / "printed.txt", prefix.drive / "lab" / "found.json"
    for file in (output, result):
        file.unlink(missing_ok=True)
    code = prefix.wine(rf"C:\lab\{name}", "--json", r"C:\lab\found.json", *arguments, output=output, timeout=240)
    findings = json.loads(result.read_text("utf-8"))["facts"] if result.exists() else []
    assert [str(item) for item in (prefix.drive / "users").rglob("TavikWindowsCheck-*")] == [], "the temporary folder was left behind"
    return code, findings, output.read_text("utf-8", "replace")


@pytest.fixture(scope="module")
def bare():
    with session.bare(PROGRAM) as prefix:
        # Without a mask everything that the program makes is open to all, unless it restricts the access itself. It starts nothing
        # from an open folder, so a folder left open shows as a new difference.
        before = os.umask(0)
        try:
            prefix.start()
        finally:
            os.umask(before)
        prefix.wine("wineboot")
        yield prefix


@pytest.mark.quick
def test_every_difference_of_a_bare_prefix_is_known(bare: Prefix):
    code, findings, printed = check(bare, PROGRAM.name)
    assert len(findings) > 100
    assert changes(findings, known("bare")) == []
    assert code == 1
    last = re.search(r"(\d+) ok, (\d+) differ, (\d+) not applicable$", printed.strip())
    assert last and sum(map(int, last.groups())) == len(findings)
    assert not re.search(r"TavikWindowsCheck-\d+", (bare.path / "user.reg").read_text("utf-8")), "the key was left behind"
    told = json.dumps(findings).lower()
    assert getpass.getuser().lower() not in told.replace("<user", "") and not re.search(r"s-1-5-21-\d", told), "the user is in the report"
    assert ("s-1-5-21-<numbers>" in told) == (wine_version() < 10), "Wine 10 gives this program no rights to make a folder that names the user"
    names = {row["id"] for row in findings}
    assert all(f"\n{name}" in printed for name in names)


def test_every_difference_of_a_machine_of_the_lab_is_known():
    machine = Machine({"desktop": {"release": "24.20"}, "server": {"reach": "none"},
                       "store": {"packages": [package(CORVEL), package(OTHER, "11.2404.5.0")]}})
    with session.Session(machine) as one:
        one.watch("-SILENT")
        replace_file(one.lab / paths.TOOL.name, paths.need(PROGRAM).read_bytes())
        code, findings, _ = check(one.prefix, paths.TOOL.name, *(word for group in GROUPS for word in ("--only", group)))

        # A check that crashes or hangs is a difference, and the others go on.
        faults = one.lab / "standins" / "faults.txt"
        faults.write_text("setupapi!SetupDiGetClassDevsW 1 crash=0xC0000005\nsetupapi!SetupDiGetClassDevsW 2 sleep=9000\n", "utf-8")
        hurt_code, hurt, _ = check(one.prefix, paths.TOOL.name, "--only", "devices", "--limit", "2")
    session.remove_folder(one.folder)
    assert {row["group"] for row in findings} == set(GROUPS)
    assert changes(findings, {name: what for name, what in known("lab").items() if name.split(".")[0] in GROUPS}) == []
    assert (code, hurt_code) == (1, 1)
    assert [row["seen"] for row in hurt[:3]] == ["the check crashed: 0xC0000005", "no answer in 2 s", "122, then ok, bytes with the terminator"]


@pytest.mark.parametrize("only, code, count", [("text", 0, 5), ("events.fresh", 0, 1), ("libraries.imports_are_known", 1, 1),
                                               ("unknown", 2, 0)])
def test_exit_code(bare: Prefix, only: str, code: int, count: int):
    found, findings, _ = check(bare, PROGRAM.name, "--only", only)
    assert (found, len(findings)) == (code, count)


def test_a_difference_that_comes_or_goes_is_an_error():
    findings = [{"id": "a.b", "result": "differs", "seen": "x"}, {"id": "a.c", "result": "ok", "seen": "y"}]
    assert changes(findings, {"a.b": ("differs", "x")}) == []
    assert changes(findings, {}) == ["new: a.b: ('differs', 'x')"]
    assert changes(findings, {"a.b": ("differs", "z")}) == ["other: a.b: ('differs', 'x') instead of ('differs', 'z')"]
    assert changes(findings, {"a.b": ("differs", "x"), "a.c": ("differs", "y")}) == ["gone: a.c: ('ok', 'y')"]


def test_wine_without_a_list_of_differences_is_named():
    with pytest.raises(windows_facts.Wrong, match=r"windows_check/wine-7\.toml is missing"):
        windows_facts.read_differences(7)


def test_every_function_that_the_product_calls_is_covered_by_a_fact():
    """A new call needs a fact, or a place among those without one at the end of facts.toml."""
    folder = paths.BUILD
    objects = [*folder.rglob("libbase.a"), *folder.rglob("librepair.a"), *folder.rglob("libcompanion.a"), *folder.rglob("stack_guard.cpp.obj"),
               *(file for file in folder.rglob("main.cpp.obj") if "windows_check" not in str(file))]
    assert len(objects) == 6
    listed = subprocess.run(["x86_64-w64-mingw32-nm", "--undefined-only", *map(str, objects)], stdout=subprocess.PIPE, text=True, check=True).stdout
    linked = {name.removeprefix("__imp_") for name in re.findall(r" U (\S+)$", listed, re.MULTILINE)}
    linked = {name for name in linked if not re.match("_Z|_Unwind|__|deflate|crc32", name)} - NO_CALLS
    assert len(linked) > 100
    assert windows_facts.without_fact(linked) == []
    assert windows_facts.without_fact({"ReadConsoleW"}) == ["ReadConsoleW"]


def test_what_only_wine_shows_is_skipped_on_windows_with_the_reason(bare: Prefix):
    """Runs in-process tests under Wine as if they had been copied to a real Windows."""
    replace_file(bare.drive / "lab" / UNIT_TESTS.name, paths.need(UNIT_TESTS).read_bytes())
    output = bare.path / "tests.txt"
    bare.variables["TAVIK_TESTS_AS_ON_WINDOWS"] = "1"
    try:
        code = bare.wine(rf"C:\lab\{UNIT_TESTS.name}", "--gtest_filter=File*:RemoveAll.*",
                         output=output, timeout=100)
    finally:
        del bare.variables["TAVIK_TESTS_AS_ON_WINDOWS"]
    printed = output.read_text("utf-8", "replace")
    assert code == 0, printed
    marked = sum(file.read_text("utf-8").count("ONLY_ON_WINE(") for file in (paths.ROOT / "tests" / "base").glob("files_*.cpp"))
    assert marked > 1 and f"[  SKIPPED ] {marked} tests" in printed
    assert len(re.findall("shows nothing on Windows: .{20,}", printed)) == marked
