"""Failures that need a machine of their own: what cannot be looked at, a system program that is gone, a rename.

A link that leads to itself stands for a file that is there and that the system cannot look at: neither present nor absent,
and so an error wherever the tool asks whether something exists.
"""
from __future__ import annotations

import struct
from typing import Any

import pytest

from cases.support.download import FINAL, NO_PROGRAM, TEMPORARY, answering, downloaded, failed, file_of
from cases.support.expect import FINISHED, INSTALL_FAILED, install, inventory, opening, remove, stop, unpack
from cases.support.repair import (FOLDER, INSTALL_KEY, INSTALL_PROPERTIES, MAIN_PACKAGE_MISSING, MSI_AGREES, PACKAGES, UNTOUCHED,
                            asked_of_msi, found, until_found, until_unpacked)
from cases.support.store import ATTEMPT, FAILED, INSTALLED, calls, check_nothing_leaks, has, package, store_only, until_query

QUIET_END = 3
PARENT = FOLDER.rpartition("\\")[0]
MAIN = FOLDER + PACKAGES["Halden"]
HOME = r"C:\Program Files\Tavik\Halden"
TASKKILL = r"C:\windows\system32\taskkill.exe"
GIVEN = r"C:\Given\setup.exe"
UPDATE_FAILED = ("error", "Update failed. Please visit www.tavik.example to install the appropriate driver.")
DONE = [*stop(), *remove("Halden"), *install("Halden")]
NOBODY = 'wtsapi32!WTSQuerySessionInformationW * return=1 text="No Such User"'
COMPLETED = "completed with exit code 128"
NOT_FOUND = "failed. Error code = 2 File not found. "
UNPACK = f"/NCRC /S -EXTRACTONLY=YES /D={FOLDER}"
STARTED = rf"Process {HOME}\CorvelSoftware.exe  completed with exit code 0"
NO_DISPLAY = {"registry": {r"HKCU\Software\Wine\Drivers": {"Graphics": "x11"}}}


def loop(path: str) -> dict[str, Any]:
    """A link to itself in the place of this file."""
    return {path: {"link": path.rpartition("\\")[2]}}


def shortcut(target: str) -> dict[str, str]:
    """A .lnk file: header, then the place on a local disk."""
    volume = struct.pack("<IIII", 17, 3, 0, 16) + b"\0"
    path = target.encode("ascii") + b"\0"
    places = (0x1C, 0x1C + len(volume), 0, 0x1C + len(volume) + len(path))
    info = struct.pack("<6I", 0x1C, 1, *places) + volume + path + b"\0"
    header = struct.pack("<I", 0x4C) + bytes.fromhex("0114020000000000c000000000000046") + struct.pack("<II", 2, 0x20)
    return {"hex": (header + bytes(24) + struct.pack("<III", 0, 0, 1) + bytes(12) + struct.pack("<I", len(info) + 4) + info
                    + bytes(4)).hex()}


def direct(**changes: Any) -> dict[str, Any]:
    return {"server": {"reach": "none"}, **changes}


# What cannot be looked at

# Proves: The installer's existence cannot be tested
@pytest.mark.parametrize("arguments", ["", "-SILENT"])
def test_the_installer_of_the_driver_package_cannot_be_looked_at(lab, arguments):
    """Nobody catches that: the run ends before anything is touched, and nothing is downloaded instead."""
    lab.run({"adapters": [{"packages": [{"files": loop(r"B384125\DWX2_Install.exe")}]}]}, arguments)
    lab.check(outcome="quiet-end", exit_code=QUIET_END, boxes=[], requests=[], after=UNTOUCHED, log=[*opening(arguments), *inventory()])


def test_the_given_installer_cannot_be_looked_at(lab):
    arguments = f"-VLT -Install -Path {GIVEN}"
    result = lab.run(direct(files=loop(GIVEN)), arguments)
    lab.check(outcome="quiet-end", exit_code=QUIET_END, boxes=[], after=UNTOUCHED, log=opening(arguments)[:1])
    assert (result.output, result.status) == ([""], [])


def test_the_old_extraction_folder_cannot_be_looked_at(lab):
    """Unlike a file in it that cannot be removed, it is the only path that the error names."""
    result = lab.run(found(files=loop(FOLDER)))
    lab.check(outcome="folder-not-prepared", exit_code=-1, boxes=[INSTALL_FAILED], after=UNTOUCHED, log=[
        *until_found(), f"\tException occured during installation. filesystem error: remove_all: {{any}} [{FOLDER}]"])
    assert result.installer == []


@pytest.mark.parametrize("arguments, box", [("", INSTALL_FAILED), (f"-VLT -Install -Path {GIVEN}", UPDATE_FAILED)],
                         ids=["repair", "direct"])
def test_the_main_package_cannot_be_looked_at(lab, arguments, box):
    """The folder is used as it is when the session's user is not known, so something of an earlier run can be there."""
    machine = found(files={**loop(MAIN), GIVEN: {"installer": "24.20"}}, installer={"extract": "no"}, faults=[NOBODY])
    result = lab.run(machine, arguments)
    lab.check(outcome="folder-not-prepared", exit_code=-1, boxes=[box], after=UNTOUCHED)
    assert result.log[-1].startswith("\tException occured during installation. filesystem error: exists: ")
    assert result.log[-1].endswith(f" [{MAIN}]") and len(result.installer) == 1


@pytest.mark.parametrize("registered, changes", [
    (r"C:\My Apps", {"files": loop(r"C:\My Apps")}),
    (r"C:\windows", {"files": loop(r"C:\Programme\Tavik")})], ids=["the user's", "the default one"])
def test_a_folder_that_cannot_be_looked_at_is_not_passed_on(lab, registered, changes):
    """Neither is a good one when there is no telling whether the default one exists."""
    registry = {INSTALL_KEY: {"InstallDir": registered}}
    if "Programme" in str(changes):
        registry[r"HKLM\Software\Microsoft\Windows\CurrentVersion"] = {"ProgramFilesDir": r"C:\Programme"}
    result = lab.run(found(registry=registry, faults=[MSI_AGREES], **changes))
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], log=[*until_unpacked(), *DONE])
    assert asked_of_msi(result)[-1] == (MAIN, INSTALL_PROPERTIES)


# The extraction folder

# Proves: The folder cannot be created (extraction folder)
@pytest.mark.quick
def test_the_extraction_folder_cannot_be_created(lab):
    """A folder in which nobody may create anything, not even root. Nothing is said about it, the installer is started all the
    same, and what it could not unpack is missing then."""
    result = lab.run(found(files={PARENT: {"link": "/proc/sys"}}))
    lab.check(outcome="installer-empty", exit_code=2, boxes=[INSTALL_FAILED], after=UNTOUCHED, log=[*until_unpacked(), MAIN_PACKAGE_MISSING])
    assert len(result.installer) == 1


# Proves: The session cannot be asked
@pytest.mark.parametrize("condition, given_back", [("", 0), ("if=class:5 ", 1)], ids=["at all", "for the name"])
def test_the_session_cannot_be_asked(lab, condition, given_back):
    """Without a user there is no access list, so nothing is prepared: what is in the folder stays, and nothing is said."""
    old = FOLDER + r"\old.txt"
    rule = f"wtsapi32!WTSQuerySessionInformationW * {condition}error=5"
    result = lab.run(found(files={old: "old"}, faults=[rule, MSI_AGREES]))
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], log=[*until_unpacked(), *DONE], before={"files": [old]},
              after={"files": [old, MAIN]})
    assert len([line for line in result.calls if "WTSFreeMemory" in line]) == given_back


# Programs

def test_the_systems_own_kill_program_is_gone(lab):
    """Each of the five starts fails and is told; the application stays, and so does the way to the end."""
    program = rf"{HOME}\CorvelSettings.exe"
    machine = found(remove=[TASKKILL], running=[program], programs={"CorvelSettings.exe.deaf": True}, faults=[MSI_AGREES])
    lab.run(machine)
    polite, *kills = stop()
    told = [f"Launching process {line.removeprefix('Process ').removesuffix(COMPLETED)}{NOT_FOUND}" for line in kills]
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], running=["CorvelSettings.exe"], log=[
        *until_unpacked(), polite, *told, *remove("Halden"), *install("Halden")])


def test_an_installer_that_no_program_opens(lab):
    """The code is the system's own, another one on other systems."""
    given = r"C:\Given\setup.unknown"
    arguments = f"-VLT -Install -Path {given}"
    lab.run(direct(files={given: "a document"}), arguments)
    lab.check(outcome="direct-installer-blocked", exit_code=0, boxes=[], after=UNTOUCHED, log=[
        opening(arguments)[0], f"Launching process {given} {UNPACK} failed. Error code = {{number}} {{any}}",
        MAIN_PACKAGE_MISSING, STARTED])


# Proves: The exit code cannot be read, or no process handle came back
def test_a_start_that_gives_no_process(lab):
    """A shortcut: the system at hand starts what it leads to, with the parameters, and hands out nothing to wait for. The
    application stays a while, so that the other one has time to start."""
    given = r"C:\Given\setup.lnk"
    arguments = f"-VLT -Install -Path {given}"
    machine = direct(files={given: shortcut(rf"{HOME}\hlcmd.exe")}, programs={"CorvelSoftware.exe.stay": 3000})
    result = lab.run(machine, arguments)
    lab.check(outcome="direct-installer-empty", exit_code=0, boxes=[], after=UNTOUCHED, log=[
        opening(arguments)[0], f"Unable to get exit code for process {given} {UNPACK}. Error code = 6 Invalid handle. ",
        MAIN_PACKAGE_MISSING, STARTED])
    started = next(line for line in result.programs if line.startswith("hlcmd.exe"))
    assert started.endswith(f'{UNPACK}"')


# The download. Somebody has an old file open and lets others delete it: its name is taken until that one closes it, too.

# Proves: The rename fails
def test_the_rename_fails_and_nobody_notices(lab):
    """The old file was deleted twice by then, and its name is not free. The path is returned all the same, and what is started
    is not the download: that stays under its temporary name."""
    lab.run({**answering(), "files": {FINAL: "old"}, "shared": [FINAL]})
    lab.check(**downloaded(len(NO_PROGRAM)), before={"files": [FINAL]},
              after={**UNTOUCHED, "files": [TEMPORARY], "missing": [FINAL]})
    assert file_of(lab.result, TEMPORARY).read_text() == NO_PROGRAM


def test_the_temporary_name_is_still_taken(lab):
    lab.run({**answering(), "files": {TEMPORARY: "old"}, "shared": [TEMPORARY]})
    lab.check(**failed("download-file-in-the-way", f"Unable to create file to download data into. Target path: {TEMPORARY}. Error: {{number}}"),
              requests=[], before={"files": [TEMPORARY]}, after={**UNTOUCHED, "missing": [FINAL, TEMPORARY]})


def test_the_servers_words_cannot_be_had(lab):
    """Neither of the two calls for them: number 0 and no text."""
    rules = ["wininet!InternetReadFile 1 error=12003", "wininet!InternetGetLastResponseInfoW * error=14"]
    result = lab.run({**answering(), "faults": rules})
    lab.check(**failed("download-broken", "Response code from server: 200", "Unable to read file from internet. Extended error code: 0 "),
              after={**UNTOUCHED, "missing": [FINAL], "files": [TEMPORARY]})
    assert len([line for line in result.calls if "GetLastResponseInfoW" in line]) == 2


# Without a window, without memory

@pytest.mark.parametrize("window, outcome, code, lines", [
    ("ok", "store-installed", 0, [INSTALLED]),
    ("0x80070578", "store-no-window", -2147023496, ["Error: Unable to initialize with window.", FAILED])], ids=["taken", "refused"])
def test_a_window_that_never_was_is_handed_to_the_store(lab, window, outcome, code, lines):
    """Whether it does is for the Store to say."""
    result = lab.run({**store_only(package(), service={"window": window}), **NO_DISPLAY})
    lab.check(outcome=outcome, exit_code=code, boxes=[], log=[*until_query(), has(), ATTEMPT, *lines])
    assert any(line.startswith("Initialize hwnd=0x0; ") for line in calls(result))
    check_nothing_leaks(result)


def test_a_direct_installation_without_a_window(lab):
    arguments = f"-VLT -Install -Path {GIVEN}"
    result = lab.run(direct(files={GIVEN: {"installer": "24.20"}}, **NO_DISPLAY), arguments)
    lab.check(outcome="direct-done", exit_code=0, boxes=[], after={"products": ["Tavik Halden 24.20"]}, log=[
        opening(arguments)[0], unpack(GIVEN), *DONE, STARTED])
    assert not any(sample["exists"] for sample in result.status)


def test_no_memory_for_the_installation_is_caught(lab):
    """The user's folder, a mebibyte long, is copied for each package: the old product is gone by then."""
    registry = {INSTALL_KEY: {"InstallDir": "C:\\" + "x" * (1 << 20)},
                r"HKLM\Software\Microsoft\Windows\CurrentVersion": {"ProgramFilesDir": r"C:\Programme"}}
    rules = [MSI_AGREES, "msi!MsiInstallProductW 1 return=0 memory=none"]
    lab.run(found(registry=registry, faults=rules, environment={"LD_PRELOAD": "libgcc_s.so.1"}), "-SILENT")
    lab.check(outcome="installation-exception", exit_code=-1, boxes=[], log=[*until_unpacked("-SILENT"), *stop(), *remove("Halden"), install("Halden")[0],
                                           "\tException occured during installation. std::bad_alloc"])
    assert len(asked_of_msi(lab.result)) == 1
