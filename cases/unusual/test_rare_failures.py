"""Failures that need a machine of their own: paths whose existence cannot be tested, a missing system program, a rename that fails.

A link that leads to itself makes a file that is there and cannot be tested: neither present nor absent, and so an error wherever the
tool asks whether something exists.
"""
from __future__ import annotations

import struct
from typing import Any

import pytest

from cases.support.direct import GIVEN, HOME, SWITCHES, UPDATE_FAILED, application, given, started
from cases.support.download import FINAL, NO_PROGRAM, TEMPORARY, answering, downloaded
from cases.support.expect import (INSTALL_FAILED, MAIN_PACKAGE_MISSING, REPAIR, UNTOUCHED, install, inventory, opening, remove,
                                  stop, unpack)
from cases.support.repair import (FOLDER, INSTALL_KEY, INSTALL_PROPERTIES, MSI_AGREES, PACKAGES, asked_of_msi, brought, found,
                                  until_found, until_unpacked)
from cases.support.store import ATTEMPT, FAILED, INSTALLED, calls, check_nothing_leaks, has, package, store_only, until_query

PARENT = FOLDER.rpartition("\\")[0]
MAIN = FOLDER + PACKAGES["Halden"]
UNKNOWN_USER = 'wtsapi32!WTSQuerySessionInformationW * return=1 text="No Such User"'
SWITCHES_OF_THE_INSTALLER = f"/NCRC /S -EXTRACTONLY=YES /D={FOLDER}"
NO_DISPLAY = {"registry": {r"HKCU\Software\Wine\Drivers": {"Graphics": "x11"}}}
THERE = {"release": "23.40"}  # the desktop edition of the common machine


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


# Paths whose existence cannot be tested

# Proves: The installer's existence cannot be tested
@pytest.mark.parametrize("arguments", ["", "-SILENT"])
def test_existence_of_the_installer_cannot_be_tested(lab, arguments):
    """The tool does not catch that error: the run ends before anything is changed, and nothing is downloaded instead."""
    result = lab.run(brought({"link": "DWX2_Install.exe"}), arguments)
    lab.check(outcome="quiet-end", requests=[], after=UNTOUCHED, log=[*opening(arguments), *inventory()])
    assert result.output == [""] and result.status != []


# Proves: The place that `-Path` names cannot be examined (no medium, the share is gone or refuses)
def test_given_installer_that_cannot_be_examined_counts_as_missing(lab):
    lab.run(given(desktop=THERE, files=loop(GIVEN)), SWITCHES)
    lab.check(outcome="direct-file-missing", requests=[], after=UNTOUCHED, log=[*started(), f"Unable to find file at : {GIVEN}."])


def test_existence_of_the_old_extraction_folder_cannot_be_tested(lab):
    """The error names only the folder. For a file in it that cannot be removed, it would name that file too."""
    result = lab.run(found(files=loop(FOLDER)))
    lab.check(outcome="folder-not-prepared", after=UNTOUCHED, log=[
        *until_found(), f"\tException occured during installation. filesystem error: remove_all: {{any}} [{FOLDER}]"])
    assert result.installer == []


@pytest.mark.parametrize("arguments, box, log", [
    ("", INSTALL_FAILED, until_unpacked()), (SWITCHES, UPDATE_FAILED, [*started(), unpack(GIVEN)])], ids=["repair", "direct"])
def test_existence_of_the_main_package_cannot_be_tested(lab, arguments, box, log):
    """If the session's user is unknown, the folder is not cleared, so files of an earlier run can be there."""
    result = lab.run(found(files={**loop(MAIN), GIVEN: {"installer": "24.20"}}, installer={"extract": "no"}, faults=[UNKNOWN_USER]), arguments)
    lab.check(outcome="folder-not-prepared", boxes=[box], after=UNTOUCHED, log=[
        *log, f"\tException occured during installation. filesystem error: exists: {{any}} [{MAIN}]"])
    assert len(result.installer) == 1


@pytest.mark.parametrize("registered, place, more", [
    (r"C:\My Apps", r"C:\My Apps", {}),
    (r"C:\windows", r"C:\Programme\Tavik", {r"HKLM\Software\Microsoft\Windows\CurrentVersion": {"ProgramFilesDir": r"C:\Programme"}})],
    ids=["the user's", "the default one"])
def test_folder_whose_existence_cannot_be_tested_is_not_passed_on(lab, registered, place, more):
    """A good folder is not passed on either if the existence of the default one cannot be tested."""
    result = lab.run(found(registry={INSTALL_KEY: {"InstallDir": registered}, **more}, files=loop(place), faults=[MSI_AGREES]))
    lab.check(outcome="repaired", log=[*until_unpacked(), *REPAIR])
    assert asked_of_msi(result)[-1] == (MAIN, INSTALL_PROPERTIES)


# The extraction folder

# Proves: The folder cannot be created (extraction folder)
@pytest.mark.quick
def test_extraction_folder_cannot_be_created(lab):
    """In /proc/sys not even root can make a folder. That is not logged, the installer is started all the same, and what it could not
    unpack is missing then."""
    result = lab.run(found(files={PARENT: {"link": "/proc/sys"}}))
    lab.check(outcome="installer-empty", after=UNTOUCHED, log=[*until_unpacked(), MAIN_PACKAGE_MISSING])
    assert len(result.installer) == 1


# Programs

def test_taskkill_is_missing(lab):
    """Each of the five starts fails and is logged; the application keeps running, and the run goes on to its end."""
    lab.run(found(remove=[r"C:\windows\system32\taskkill.exe"], running=[rf"{HOME}\CorvelSettings.exe"],
                  programs={"CorvelSettings.exe.deaf": True}, faults=[MSI_AGREES]))
    polite, *kills = stop()
    failures = [line.replace("Process", "Launching process").replace("completed with exit code 128", "failed. Error code = 2 File not found. ")
                for line in kills]
    lab.check(outcome="repaired", running=["CorvelSettings.exe"], log=[
        *until_unpacked(), polite, *failures, *remove("Halden"), *install("Halden")])


# Proves: The exit code cannot be read, or no process handle came back
@pytest.mark.parametrize("name, content, outcome, line", [
    ("setup.unknown", "a document", "direct-installer-blocked", "Launching process {} failed. Error code = {{number}} {{any}}"),
    ("setup.lnk", shortcut(rf"{HOME}\hlcmd.exe"), "direct-installer-empty",
     "Unable to get exit code for process {}. Error code = 6 Invalid handle. ")], ids=["no program opens it", "a shortcut"])
def test_installer_without_a_process(lab, name, content, outcome, line):
    """No program opens the document. The shortcut starts what it leads to, with the parameters, and gives no handle to wait for; the
    application stays a while, so that the other program has time to start."""
    path = rf"C:\Given\{name}"
    arguments = f"-VLT -Install -Path {path}"
    result = lab.run({"server": {"reach": "none"}, "files": {path: content}, "programs": {"CorvelSoftware.exe.stay": 3000}}, arguments)
    lab.check(outcome=outcome, after=UNTOUCHED, log=[
        *started(arguments), line.format(f"{path} {SWITCHES_OF_THE_INSTALLER}"), MAIN_PACKAGE_MISSING, application()])
    others = [one for one in result.programs if one.startswith("hlcmd.exe")]
    assert [one.endswith(f'{SWITCHES_OF_THE_INSTALLER}"') for one in others] == [True] * (name == "setup.lnk")


# The download. Another program has an old file open and lets others delete it: its name is free only when that program closes it.

# Proves: The rename fails
def test_rename_fails_without_a_word(lab):
    """The old file has been deleted twice, but its name is not free yet. The path is returned all the same, and the tool does not start
    the download, which keeps its temporary name."""
    lab.run({**answering(), "files": {FINAL: "old"}, "shared": [FINAL]})
    lab.check(**downloaded(len(NO_PROGRAM)), before={"files": [FINAL]}, after={**UNTOUCHED, "files": [TEMPORARY], "missing": [FINAL]})
    assert lab.result.file(TEMPORARY).read_text() == NO_PROGRAM


# Without a window, without memory

@pytest.mark.parametrize("window, outcome, code, lines", [
    ("ok", "store-installed", 0, [INSTALLED]),
    ("0x80070578", "store-no-window", -2147023496, ["Error: Unable to initialize with window.", FAILED])], ids=["taken", "refused"])
def test_missing_window_is_handed_to_the_store(lab, window, outcome, code, lines):
    """The Store decides whether it accepts a null window."""
    result = lab.run({**store_only(package(), service={"window": window}), **NO_DISPLAY})
    lab.check(outcome=outcome, exit_code=code, boxes=[], log=[*until_query(), has(), ATTEMPT, *lines])
    assert any(line.startswith("Initialize hwnd=0x0; ") for line in calls(result))
    check_nothing_leaks(result)


def test_direct_installation_without_a_window(lab):
    result = lab.run(given(desktop=THERE, **NO_DISPLAY), SWITCHES)
    lab.check(outcome="direct-done", after={"products": ["Tavik Halden 24.20"]}, log=[
        *started(), unpack(GIVEN), *REPAIR, application()])
    assert not any(sample["exists"] for sample in result.status)


def test_no_memory_for_the_installation_is_caught(lab):
    """The user's folder, a mebibyte long, is copied for each package: the old product is gone by then."""
    registry = {INSTALL_KEY: {"InstallDir": "C:\\" + "x" * (1 << 20)},
                r"HKLM\Software\Microsoft\Windows\CurrentVersion": {"ProgramFilesDir": r"C:\Programme"}}
    rules = [MSI_AGREES, "msi!MsiInstallProductW 1 return=0 memory=none"]
    lab.run(found(registry=registry, faults=rules, environment={"LD_PRELOAD": "libgcc_s.so.1"}), "-SILENT")
    lab.check(outcome="installation-exception", boxes=[], log=[
        *until_unpacked("-SILENT"), *stop(), *remove("Halden"), install("Halden")[0], "\tException occured during installation. std::bad_alloc"])
    assert len(asked_of_msi(lab.result)) == 1
