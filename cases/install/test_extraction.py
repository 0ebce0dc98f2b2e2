"""The installer unpacks into a folder that is new, held open and closed to the user; what cannot be prepared, and how the run ends then."""
from __future__ import annotations

import re

import pytest

from cases.support.direct import GIVEN, SWITCHES, given
from cases.support.download import FINAL
from cases.support.expect import DOWNLOADS, MAIN_PACKAGE_MISSING, REPAIR, REPAIRED, TEMP, UNTOUCHED, unpack
from cases.support.repair import FOLDER, MSI_AGREES, PACKAGES, asked_of_msi, brought, found, until_found, until_unpacked

MARKER = FOLDER + r"\~.tmp"
MAIN = FOLDER + PACKAGES["Halden"]
PRETENDED = {"faults": [MSI_AGREES]}
OLD = FOLDER + r"\HL\old.txt"
PROGRAM = r"C:\Program Files\Tavik\Halden\CorvelSoftware.exe"


def mode(lab, path: str) -> int:
    """The access rights as Wine keeps them, of a file or folder as the run has left it."""
    return lab.result.file(path).stat().st_mode & 0o777


def check(lab, log: list[str] | None = None, **states) -> None:
    """A repair that is a success."""
    lab.check(outcome="repaired", log=log or [*until_unpacked(), *REPAIR], **states)


# Proves: The folder is made
@pytest.mark.quick
def test_folder_is_made_with_all_its_parents_and_stays(lab):
    lab.run(found(**PRETENDED))
    check(lab, before={"missing": [DOWNLOADS]},
          after={"files": [MAIN, FOLDER + PACKAGES["DVR"], FOLDER + PACKAGES["PXL"]], "missing": [MARKER]})


# Proves: Something of an earlier run is there, or a file in the folder's place
def test_files_of_an_earlier_run_are_removed_before_the_installer_starts(lab):
    """Otherwise the tool would install the old main package."""
    old = [MAIN, FOLDER + r"\deep\deeper\old.txt", FOLDER + r"\~.tmp.old", FOLDER + r"\HL\empty"]
    files = {**{path: "old" for path in old[:3]}, old[3]: {"folder": True}, DOWNLOADS + r"\other.txt": "stays"}
    lab.run(found(installer={"extract": "no"}, files=files))
    lab.check(outcome="installer-empty", log=[*until_unpacked(), MAIN_PACKAGE_MISSING],
              before={"files": old}, after={**UNTOUCHED, "missing": [*old, FOLDER + r"\HL", FOLDER + r"\deep"],
                                            "files": [FOLDER, DOWNLOADS + r"\other.txt"]})


# Proves: An old file or folder is write-protected
def test_write_protected_file_of_an_earlier_run_is_removed(lab):
    lab.run(found(files={OLD: "old"}, read_only=[OLD], **PRETENDED))
    check(lab, before={"files": [OLD]}, after={"missing": [OLD], "files": [MAIN]})


def test_file_in_the_folders_place_is_replaced(lab):
    lab.run(found(files={FOLDER: "not a folder"}, **PRETENDED))
    assert lab.result.before.files[FOLDER] == 12
    check(lab, after={"files": [MAIN]})


# The marker

# Proves: The marker file
def test_marker_is_held_while_the_installer_unpacks(lab):
    lab.run(found(installer={"sleep": 400}, **PRETENDED), when=[f"file {MARKER} : delete {MARKER}"])
    check(lab, before={"missing": [MARKER]}, after={"missing": [MARKER]})
    (action,) = lab.result.actions
    assert action["done"] is False and action["at"] < lab.result.boxes[0]["since"]


def test_marker_is_held_until_the_tool_ends(lab):
    lab.run(found(**PRETENDED), when=["box : wait 1", f"file {MARKER} : delete {MARKER}"])
    check(lab, after={"missing": [MARKER]})
    wait, delete = lab.result.actions
    assert delete["done"] is False and lab.result.boxes[0]["since"] <= wait["at"] <= delete["at"] < lab.result.boxes[0]["until"]


def test_marker_goes_with_a_tool_that_is_killed(lab):
    lab.run(found(installer={"sleep": 1500}), when=[f"file {MARKER} : wait 1", r"file C:\lab\installer.txt : kill 9"])
    lab.check(outcome="interrupted", exit_code=9, boxes=[], log=until_found(), after={**UNTOUCHED, "missing": [MARKER], "files": [FOLDER]},
              running=["DWX2_Install.exe"])


# Access rights

# Proves: The rights are made
def test_rights_are_those_of_administrators_and_system_and_the_sessions_user(lab):
    """Wine keeps the rights of owner, group and others only: others have none, unlike in the folder above."""
    result = lab.run(found(standins=["wtsapi32"], **PRETENDED))
    check(lab)
    assert mode(lab, FOLDER) == 0o750 and mode(lab, DOWNLOADS) & 0o005 == 0o005
    asked = [re.search(r"session=1; class=(7|5); text=\"..*\" -> 1 ", line) for line in result.calls if "!WTSQuery" in line]
    assert sorted(match[1] for match in asked if match) == ["5", "7"]  # name and domain
    assert [line.split(" ")[1] for line in result.calls if "WTSFreeMemory" in line] == ["memory=given"] * 2


# Proves: The access list cannot be made
# Proves: The session cannot be asked
@pytest.mark.parametrize("rule, given_back", [('return=1 text="No Such User"', 2), ("error=5", 0), ("if=class:5 error=5", 1)],
                         ids=["unknown user", "no answer", "no name"])
def test_without_an_access_list_the_folder_is_used_as_it_is(lab, rule, given_back):
    """The session's user is not known: the folder is not prepared, nothing is logged, and the installer unpacks among the files there."""
    old = FOLDER + r"\old.txt"
    result = lab.run(found(files={old: "old"}, faults=[f"wtsapi32!WTSQuerySessionInformationW * {rule}", MSI_AGREES]),
                     when=["box : wait 1", f"file {MARKER} : wait 1"])
    check(lab, before={"files": [old]}, after={"files": [old, MAIN]})
    assert mode(lab, FOLDER) & 0o005 == 0o005
    assert [action["trigger"] for action in result.actions] == ["box"]  # there never was a marker
    assert len([line for line in result.calls if "WTSFreeMemory" in line]) == given_back


# What cannot be prepared

# Proves: The installation raises an exception (repair) => logged with its text, box "Error installing Tavik Software.", result -1
# Proves: The parents cannot be created
# Proves: The old folder cannot be removed
# Proves: An exception, through the guard
@pytest.mark.parametrize("old, how, arguments, error", [
    (DOWNLOADS, {}, "", f"create_directories: {{any}} [{DOWNLOADS}]"), (DOWNLOADS, {}, "-SILENT", f"create_directories: {{any}} [{DOWNLOADS}]"),
    (OLD, {"held": [OLD]}, "", f"remove_all: {{any}} [{FOLDER}] [{OLD}]")], ids=["file in the parents' place", "silent", "old file held"])
def test_folder_that_cannot_be_prepared_ends_the_installation(lab, old, how, arguments, error):
    """No program is stopped and no installer started."""
    result = lab.run(found(files={old: "old"}, running=[PROGRAM], **how), arguments)
    lab.check(outcome="folder-not-prepared", before={"files": [old]},
              after={**UNTOUCHED, "files": [old]}, running=["CorvelSoftware.exe"],
              log=[*until_found(arguments), f"\tException occured during installation. filesystem error: {error}"])
    assert result.installer == []


# How the installer is started

# Proves: A program is started
def test_installer_is_started_hidden_in_the_extraction_folder(lab):
    """A program of the lab in the installer's place records how it was started; it unpacks nothing."""
    result = lab.run(brought({"program": "CorvelSoftware.exe"}))
    lab.check(outcome="installer-empty", after=UNTOUCHED, log=[*until_unpacked(), MAIN_PACKAGE_MISSING])
    place = lab.machine.adapters[0].packages[0].store_folder()
    line = (rf'DWX2_Install.exe pid=PID; show=0; folder="{FOLDER}"; '
            rf'command="""{place}\B384125\DWX2_Install.exe"" /NCRC /S -EXTRACTONLY=YES /D={FOLDER}"')
    assert [re.sub("pid=[0-9]+", "pid=PID", one) for one in result.programs] == [line]


# Proves: The installer is started
# Proves: The packages => are taken from the extraction folder, which stays behind; the downloaded installer beside it survives
@pytest.mark.parametrize("temp, missing", [("C:\\Übung ☃ (2)", []), (r"C:\Not there\yet", [r"C:\Not there\yet"])])
def test_folder_is_not_quoted_for_any_temporary_path(lab, temp, missing):
    folder = temp + r"\Tavik_VLTInstallerDownload\LPInstaller"
    result = lab.run(found(temp=temp, remove=missing, standins=["msi"]))
    check(lab, before={**UNTOUCHED, "missing": missing},
          after={**REPAIRED, "files": [folder + PACKAGES["Halden"]], "missing": [FOLDER]})
    assert result.installer[0].endswith(rf'\DWX2_Install.exe" /NCRC /S -EXTRACTONLY=YES /D={folder}')
    assert asked_of_msi(result)[-1][0] == folder + PACKAGES["Halden"]


def test_tool_waits_for_the_installer(lab):
    result = lab.run(found(installer={"sleep": 2500}, **PRETENDED), "-SILENT")
    lab.check(outcome="repaired", boxes=[], log=[*until_unpacked("-SILENT"), *REPAIR])
    assert result.instances[0]["ended"] - result.instances[0]["started"] >= 2500


def test_downloaded_installer_is_unpacked_too(lab):
    """The download is beside the extraction folder and must stay when that folder is cleared."""
    lab.run({"files": {FOLDER + r"\old.txt": "old"}, **PRETENDED})
    lab.check(outcome="repaired", after={"files": [FINAL, MAIN], "missing": [FOLDER + r"\old.txt"]})
    assert unpack().replace("{temp}", TEMP) in lab.result.log


# The installer is held open while it runs elevated

STAYING = {"program": "CorvelSoftware.exe"}  # unlike a real installer it does not keep its own file open
ATTEMPTS = ("write", "replace", "rename", "delete")


# Proves: Another program tries to replace the installer while it unpacks => it can be neither written, renamed nor deleted until it has ended
@pytest.mark.parametrize("silent", ["", "-SILENT"], ids=["window", "silent"])
def test_installer_cannot_be_exchanged_while_it_unpacks(lab, silent):
    """The later steps go on, and the file is free again at the end."""
    attempts = [rf"file C:\lab\installer.txt : {attempt} {FINAL}" for attempt in ATTEMPTS]
    lab.run({"installer": {"sleep": 1500}, "files": {FINAL + ".new": "other"}}, silent, when=attempts, then="-FORCE -SILENT")
    lab.check(outcome="2 repaired", before=UNTOUCHED, after={**REPAIRED, "files": [FINAL]})
    assert [action["done"] for action in lab.result.actions] == [False] * 4
    assert (lab.result.again.exit_code, lab.result.again.log[-1]) == (0, "\tResult = 0"), "the next run downloads and installs anew"


def test_program_that_leaves_its_file_open_to_others_is_held_too(lab):
    attempts = [rf"file C:\lab\programs.txt : {attempt} {GIVEN}" for attempt in ATTEMPTS]
    lab.run(given(STAYING, desktop={"release": "23.40"}, files={GIVEN + ".new": "other"}, programs={"setup.exe.stay": 1500}), SWITCHES,
            when=attempts)
    lab.check(outcome="direct-installer-empty", after={"files": [GIVEN, GIVEN + ".new"], "missing": [GIVEN + ".renamed"]})
    assert [action["done"] for action in lab.result.actions] == [False] * 4


def test_installer_is_free_again_when_it_has_ended(lab):
    lab.run(PRETENDED, when=[f"box : write {FINAL}", f"box : rename {FINAL}"])
    lab.check(outcome="repaired", after={"files": [FINAL + ".renamed"], "missing": [FINAL]})
    assert [action["done"] for action in lab.result.actions] == [True, True]


# Proves: The installer cannot be held open, because another program uses it => it is started without being held
def test_installer_that_another_program_writes_is_started_all_the_same(lab):
    """The tool cannot hold it; the system decides whether it starts."""
    lab.run(given(STAYING, desktop={"release": "23.40"}, held=[GIVEN]), SWITCHES)
    lab.check(outcome="direct-installer-blocked", after={"files": [GIVEN]})
    assert any(line.startswith(f"Launching process {GIVEN} ") for line in lab.result.log)
