"""The installer unpacks into a folder that is fresh, held and out of the user's reach; what cannot be prepared, and what then."""
from __future__ import annotations

import pathlib
import re

import pytest

from cases.support.expect import FINISHED, INSTALL_FAILED, TEMP, install, remove, stop, unpack
from cases.support.repair import (FOLDER, MAIN_PACKAGE_MISSING, MSI_AGREES, PACKAGES, REPAIRED, UNTOUCHED, asked_of_msi, brought,
                            found, until_found, until_unpacked)

PARENT = TEMP + "Tavik_VLTInstallerDownload"
MARKER = FOLDER + r"\~.tmp"
MAIN = FOLDER + PACKAGES["Halden"]
DONE = [*stop(), *remove("Halden"), *install("Halden")]
PRETENDED = {"faults": [MSI_AGREES]}
EXCEPTION = "\tException occured during installation. filesystem error: "


def mode(lab, path: str) -> int:
    """The access rights as Wine keeps them, of something on the machine as the run has left it."""
    drive = pathlib.Path(lab.result.prefix) / "prefix" / "drive_c"
    return drive.joinpath(*path.split("\\")[1:]).stat().st_mode & 0o777


# Proves: The folder is made
@pytest.mark.quick
def test_folder_is_made_with_all_its_parents_and_stays(lab):
    lab.run(found(**PRETENDED))
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], log=[*until_unpacked(), *DONE], before={"missing": [PARENT]},
              after={"files": [MAIN, FOLDER + PACKAGES["DVR"], FOLDER + PACKAGES["PXL"]], "missing": [MARKER]})


# Proves: Something of an earlier run is there, or a file in the folder's place
def test_what_an_earlier_run_left_is_gone_before_the_installer_starts(lab):
    """The old main package would be installed otherwise."""
    old = [MAIN, FOLDER + r"\deep\deeper\old.txt", FOLDER + r"\~.tmp.old", FOLDER + r"\HL\empty"]
    files = {**{path: "old" for path in old[:3]}, old[3]: {"folder": True}, PARENT + r"\other.txt": "stays"}
    lab.run(found(installer={"extract": "no"}, files=files))
    lab.check(outcome="installer-empty", exit_code=2, boxes=[INSTALL_FAILED], log=[*until_unpacked(), MAIN_PACKAGE_MISSING], before={"files": old},
              after={**UNTOUCHED, "missing": [*old, FOLDER + r"\HL", FOLDER + r"\deep"], "files": [FOLDER, PARENT + r"\other.txt"]})


def test_a_file_in_the_folders_place_is_replaced(lab):
    lab.run(found(files={FOLDER: "not a folder"}, **PRETENDED))
    assert lab.result.before.files[FOLDER] == 12
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], log=[*until_unpacked(), *DONE], after={"files": [MAIN]})


# The marker

# Proves: The marker file
def test_marker_is_held_while_the_installer_unpacks(lab):
    lab.run(found(installer={"sleep": 400}, **PRETENDED), when=[f"file {MARKER} : delete {MARKER}"])
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], log=[*until_unpacked(), *DONE], before={"missing": [MARKER]}, after={"missing": [MARKER]})
    (action,) = lab.result.actions
    assert action["done"] is False and action["at"] < lab.result.boxes[0]["since"]


def test_marker_is_held_until_the_tool_ends(lab):
    lab.run(found(**PRETENDED), when=["box : wait 1", f"file {MARKER} : delete {MARKER}"])
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], after={"missing": [MARKER]})
    wait, delete = lab.result.actions
    assert delete["done"] is False and lab.result.boxes[0]["since"] <= wait["at"] <= delete["at"] < lab.result.boxes[0]["until"]


def test_marker_goes_with_a_tool_that_is_killed(lab):
    lab.run(found(installer={"sleep": 1500}), when=[f"file {MARKER} : wait 1", r"file C:\lab\installer.txt : kill 9"])
    lab.check(outcome="interrupted", exit_code=9, boxes=[], log=until_found(), after={**UNTOUCHED, "missing": [MARKER], "files": [FOLDER]},
              running=["DWX2_Install.exe"])


# Access rights

# Proves: The rights are made
def test_rights_are_those_of_administrators_and_system_and_the_sessions_user(lab):
    """Wine keeps the rights of owner, group and others only: nothing is left for others, unlike in the folder above."""
    result = lab.run(found(standins=["wtsapi32"], **PRETENDED))
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], log=[*until_unpacked(), *DONE])
    assert mode(lab, FOLDER) == 0o750 and mode(lab, PARENT) & 0o005 == 0o005
    asked = [re.search(r"session=1; class=(7|5); text=\"..*\" -> 1 ", line) for line in result.calls if "!WTSQuery" in line]
    assert sorted(match[1] for match in asked if match) == ["5", "7"]  # name and domain
    assert [line.split(" ")[1] for line in result.calls if "WTSFreeMemory" in line] == ["memory=given"] * 2


# Proves: The access list cannot be made
def test_without_an_access_list_the_folder_is_used_as_it_is(lab):
    """The session's user is not known: nothing is prepared, nothing said, and the installer unpacks into what is there."""
    nobody = 'wtsapi32!WTSQuerySessionInformationW * return=1 text="No Such User"'
    old = FOLDER + r"\old.txt"
    lab.run(found(files={old: "old"}, faults=[nobody, MSI_AGREES]), when=["box : wait 1", f"file {MARKER} : wait 1"])
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], log=[*until_unpacked(), *DONE], before={"files": [old]}, after={"files": [old, MAIN]})
    assert mode(lab, FOLDER) & 0o005 == 0o005
    assert [action["trigger"] for action in lab.result.actions] == ["box"]  # there never was a marker


# What cannot be prepared

# Proves: The installation raises an exception (repair)
# Proves: The parents cannot be created
def test_a_file_in_the_parents_place_ends_the_installation(lab):
    lab.run(found(files={PARENT: "not a folder"}))
    lab.check(outcome="folder-not-prepared", exit_code=-1, boxes=[INSTALL_FAILED], before={"files": [PARENT]},
              after={**UNTOUCHED, "files": [PARENT], "missing": [FOLDER]}, log=[*until_found(), f"{EXCEPTION}create_directories: {{any}} [{PARENT}]"])


def test_a_file_in_the_parents_place_with_silent(lab):
    lab.run(found(files={PARENT: "not a folder"}), "-SILENT")
    lab.check(outcome="folder-not-prepared", exit_code=-1, boxes=[], after=UNTOUCHED,
              log=[*until_found("-SILENT"), f"{EXCEPTION}create_directories: {{any}} [{PARENT}]"])


# Proves: The old folder cannot be removed
# Proves: An exception, through the guard
@pytest.mark.parametrize("key", ["held", "read_only"])
def test_an_old_file_that_cannot_be_removed_ends_the_installation(lab, key):
    old = FOLDER + r"\HL\old.txt"
    program = r"C:\Program Files\Tavik\Halden\CorvelSoftware.exe"
    result = lab.run(found(files={old: "old"}, running=[program], **{key: [old]}))
    lab.check(outcome="folder-not-prepared", exit_code=-1, boxes=[INSTALL_FAILED], before={"files": [old]}, after={**UNTOUCHED, "files": [old]},
              running=["CorvelSoftware.exe"], log=[*until_found(), f"{EXCEPTION}remove_all: {{any}} [{FOLDER}] [{old}]"])
    assert result.installer == []


# How the installer is started

# Proves: A program is started
def test_installer_is_started_hidden_in_the_extraction_folder(lab):
    """A program of the lab in the installer's place tells how it was started; it unpacks nothing."""
    result = lab.run(brought({"program": "CorvelSoftware.exe"}))
    lab.check(outcome="installer-empty", exit_code=2, boxes=[INSTALL_FAILED], after=UNTOUCHED, log=[*until_unpacked(), MAIN_PACKAGE_MISSING])
    place = lab.machine.adapters[0].packages[0].store_folder()
    line = (rf'DWX2_Install.exe pid=PID; show=0; folder="{FOLDER}"; '
            rf'command="""{place}\B384125\DWX2_Install.exe"" /NCRC /S -EXTRACTONLY=YES /D={FOLDER}"')
    assert [re.sub("pid=[0-9]+", "pid=PID", one) for one in result.programs] == [line]


# Proves: The installer is started
@pytest.mark.parametrize("temp", [r"C:\My Temp", "C:\\Übung ☃ (2)", r"C:\T"])
def test_folder_is_not_quoted_whatever_the_temporary_path(lab, temp):
    folder = temp + r"\Tavik_VLTInstallerDownload\LPInstaller"
    result = lab.run(found(temp=temp))
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], log=[*until_unpacked(), *DONE], before=UNTOUCHED,
              after={**REPAIRED, "files": [folder + PACKAGES["Halden"]], "missing": [FOLDER]})
    assert result.installer[0].endswith(rf'\DWX2_Install.exe" /NCRC /S -EXTRACTONLY=YES /D={folder}')


def test_temporary_folder_that_does_not_exist_yet(lab):
    temp = r"C:\Not there\yet"
    lab.run(found(temp=temp, remove=[temp], **PRETENDED))
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], log=[*until_unpacked(), *DONE], before={"missing": [temp]},
              after={"files": [temp + r"\Tavik_VLTInstallerDownload\LPInstaller" + PACKAGES["Halden"]]})


# Proves: The packages => are taken from the extraction folder, which stays behind; the downloaded installer beside it survives
def test_packages_are_taken_from_the_extraction_folder(lab):
    result = lab.run(found(temp=r"C:\My Temp", **PRETENDED))
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED])
    assert asked_of_msi(result)[-1][0] == r"C:\My Temp\Tavik_VLTInstallerDownload\LPInstaller" + PACKAGES["Halden"]


def test_the_tool_waits_as_long_as_the_installer_takes(lab):
    result = lab.run(found(installer={"sleep": 2500}, **PRETENDED), "-SILENT")
    lab.check(outcome="repaired", exit_code=0, boxes=[], log=[*until_unpacked("-SILENT"), *DONE])
    assert result.instances[0]["ended"] - result.instances[0]["started"] >= 2500


def test_downloaded_installer_is_unpacked_too(lab):
    """It lies beside the extraction folder and must outlive its clearing."""
    downloaded = PARENT + r"\dwx2_install.exe"
    lab.run({"files": {FOLDER + r"\old.txt": "old"}, **PRETENDED})
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], after={"files": [downloaded, MAIN], "missing": [FOLDER + r"\old.txt"]})
    assert unpack().replace("{temp}", TEMP) in lab.result.log


# The installer is held while it runs elevated

STAYING = {"program": "CorvelSoftware.exe"}  # unlike a real installer it does not keep its own file open
ATTEMPTS = ("write", "replace", "rename", "delete")


# Proves: Another program tries to replace the installer while it unpacks => it can be neither written, renamed nor deleted until it has ended
@pytest.mark.parametrize("silent", ["", "-SILENT"], ids=["window", "silent"])
def test_installer_cannot_be_exchanged_while_it_unpacks(lab, silent):
    """Neither written, renamed nor removed; the later steps go on, and the file is free again at the end."""
    downloaded = PARENT + r"\dwx2_install.exe"
    started = r"file C:\lab\installer.txt"
    attempts = [f"{started} : {attempt} {downloaded}" for attempt in ATTEMPTS]
    lab.run({"installer": {"sleep": 1500}, "files": {downloaded + ".new": "other"}}, silent, when=attempts, then="-FORCE -SILENT")
    lab.check(outcome="2 repaired", exit_code=0, boxes=[] if silent else [FINISHED], before=UNTOUCHED, after={**REPAIRED, "files": [downloaded]})
    assert [action["done"] for action in lab.result.actions] == [False] * 4
    assert (lab.result.again.exit_code, lab.result.again.log[-1]) == (0, "\tResult = 0"), "the next run downloads and installs anew"


def test_a_program_that_leaves_its_file_open_to_others_is_held_too(lab):
    given = r"C:\Given folder\setup.exe"
    attempts = [rf"file C:\lab\programs.txt : {attempt} {given}" for attempt in ATTEMPTS]
    lab.run({"server": {"reach": "none"}, "files": {given: STAYING, given + ".new": "other"}, "programs": {"setup.exe.stay": 1500}},
            f'-VLT -Install -Path "{given}"', when=attempts)
    lab.check(outcome="direct-installer-empty", exit_code=0, after={"files": [given, given + ".new"], "missing": [given + ".renamed"]})
    assert [action["done"] for action in lab.result.actions] == [False] * 4


def test_installer_is_free_again_when_it_has_ended(lab):
    downloaded = PARENT + r"\dwx2_install.exe"
    lab.run(PRETENDED, when=[f"box : write {downloaded}", f"box : rename {downloaded}"])
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], after={"files": [downloaded + ".renamed"], "missing": [downloaded]})
    assert [action["done"] for action in lab.result.actions] == [True, True]


# Proves: The installer cannot be held open, because another program uses it => it is started without being held
def test_an_installer_that_somebody_else_holds_for_writing_is_started_all_the_same(lab):
    """It cannot be held then; whether it starts is the system's answer."""
    given = r"C:\Given folder\setup.exe"
    lab.run({"server": {"reach": "none"}, "files": {given: STAYING}, "held": [given]},
            f'-VLT -Install -Path "{given}"')
    lab.check(outcome="direct-installer-blocked", exit_code=0, after={"files": [given]})
    assert any(line.startswith(f"Launching process {given} ") for line in lab.result.log)
