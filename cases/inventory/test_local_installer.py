"""The installer that a driver package brings along: where it is looked for, and what is done without it."""
from __future__ import annotations

import pytest

from cases.support.expect import (DOWNLOAD_FAILED, DOWNLOADING, INSTALL_FAILED, INSTALLING, inventory, opening)

UNTOUCHED = {"products": ["Tavik Halden 23.40"], "values": {r"Software\Tavik\HL\HLVersion": "23.40"}}
NAME = "DWX2_Install.exe"
NO_PROGRAM = "no program"


def machine(files: dict, **adapter) -> dict:
    """One driver package with these files. The host of the server is missing: a download ends before it begins."""
    return {"adapters": [{"packages": [{"files": files}], **adapter}], "server": {"folder": "http:///x"}}


def check_found(lab, path: str) -> None:
    """What is found is tried. It is no program, which ends the run after one more look."""
    result = lab.result
    lab.check(exit_code=2, boxes=[INSTALL_FAILED], requests=[], after=UNTOUCHED, log=[
        *opening(), *inventory(), rf"Found dwx2-install.exe at [{{store1}}\{path}]",
        rf"Launching process {{store1}}\{path} /NCRC /S -EXTRACTONLY=YES /D={{temp}}Tavik_VLTInstallerDownload\LPInstaller failed. "
        "Error code = {number} {any}",
        r"Unable to find {temp}Tavik_VLTInstallerDownload\LPInstaller\HL\halden\halden64\dwx-next64.msi."])
    assert DOWNLOADING not in result.status_texts


def check_not_found(lab, folder: str = "{store1}", device: list[str] | None = None) -> None:
    lab.check(exit_code=-1, boxes=[DOWNLOAD_FAILED], requests=[], after=UNTOUCHED, log=[
        *opening(), *(device or inventory()),
        f"Unable to find dwx2-install.exe at [{folder}]. Downloading dwx2_install.exe for [24.20] from web.",
        "Change server to http:///x.",
        "\tException occured during the download of dwx2_install.exe. Unable to connect to server: {any}",
        "Unable to download dwx2_install.exe from web. Exiting."])


# Proves: A subfolder begins with B or b
@pytest.mark.parametrize("path", [rf"B384125\{NAME}", rf"bonus\{NAME}", rf"B\{NAME}"])
def test_folder_that_begins_with_b(lab, path):
    lab.run(machine({path: NO_PROGRAM, rf"A384125\{NAME}": NO_PROGRAM}))
    check_found(lab, path)


# Proves: The file's name in other letter case
def test_name_in_other_letters(lab):
    lab.run(machine({r"B384125\dwx2_INSTALL.EXE": NO_PROGRAM}))
    check_found(lab, rf"B384125\{NAME}")


def test_file_that_begins_with_b_is_passed_over(lab):
    lab.run(machine({"B0": "a file", rf"B384125\{NAME}": NO_PROGRAM}))
    check_found(lab, rf"B384125\{NAME}")


# Proves: Two such folders (Bin64 before B384125)
def test_first_folder_decides(lab):
    """The folders come in the order of their names here; the second one is not looked at."""
    lab.run(machine({r"B1\readme.txt": "nothing", rf"B384125\{NAME}": NO_PROGRAM}))
    check_not_found(lab)


@pytest.mark.quick
def test_first_of_two_installers(lab):
    lab.run(machine({rf"b1\{NAME}": NO_PROGRAM, rf"B2\{NAME}": NO_PROGRAM}))
    check_found(lab, rf"b1\{NAME}")


# Proves: A link to a folder
def test_link_to_a_folder_is_followed(lab, tmp_path):
    (tmp_path / NAME).write_text(NO_PROGRAM)
    lab.run(machine({"B384125": {"link": str(tmp_path)}}))
    check_found(lab, rf"B384125\{NAME}")


# Proves: Only a file begins with B
# Proves: No such folder, or the installer lies elsewhere
@pytest.mark.parametrize("files", [
    {}, {"B384125": NO_PROGRAM}, {NAME: NO_PROGRAM}, {rf"Release\{NAME}": NO_PROGRAM, rf"8B\{NAME}": NO_PROGRAM},
    {rf"Display\B384125\{NAME}": NO_PROGRAM}, {r"B384125\DWX2_Install.ex": NO_PROGRAM, rf"B384125\deep\{NAME}": NO_PROGRAM},
    {"B384125": {"link": "/nowhere"}},
], ids=["no folder", "only a file", "beside the INF", "other folders", "deeper", "other name", "link to nothing"])
def test_not_found(lab, files):
    lab.run(machine(files))
    check_not_found(lab)


# Proves: Packages of other releases have installers => not looked at
def test_only_the_active_package_is_looked_at(lab):
    packages = [{"release": "24.10.1", "files": {rf"B1\{NAME}": NO_PROGRAM}}, {}]
    lab.run({**machine({}), "adapters": [{"packages": packages}]})
    device = inventory()
    check_not_found(lab, "{store2}", [
        device[0], r"Found driver {store1}\u0400001.inf. Version [24.10.1]",
        r"Found driver {store2}\u0400002.inf. Version [24.20.11.01-240619a]", device[2], device[3],
        "\t [Tavik Corvel 7800] [24.20.11.01-240619a] [{store2}]"])


def test_only_the_first_adapters_package_is_looked_at(lab):
    newer = {"release": "24.30.1-a", "description": "Tavik Corvel 7900"}
    lab.run({**machine({}), "adapters": [{"packages": [{"files": {rf"B1\{NAME}": NO_PROGRAM}}]}, newer]})
    lab.check(exit_code=-1, boxes=[DOWNLOAD_FAILED], after=UNTOUCHED)
    assert lab.result.log[-4] == (f"Unable to find dwx2-install.exe at [{lab.machine.adapters[1].packages[0].store_folder()}]. "
                                  "Downloading dwx2_install.exe for [24.30] from web.")


# Proves: The driver has no matching package (empty folder)
def test_no_package_of_the_active_release(lab):
    lab.run({**machine({}), "adapters": [{"packages": [{"release": "24.10.1", "files": {rf"B1\{NAME}": NO_PROGRAM}}]}]})
    device = inventory()
    check_not_found(lab, "", [device[0], r"Found driver {store1}\u0400001.inf. Version [24.10.1]", device[3],
                              "\t [Tavik Corvel 7800] [24.20.11.01-240619a] []"])


# Proves: A folder has the installer's name
def test_folder_in_place_of_the_installer(lab):
    """Only existence counts. The system opens a folder in its file manager, so the run is ended when it gets there."""
    path = rf"B1\{NAME}"
    result = lab.run({**machine({path: {"folder": True}}), "server": {"reach": "none"}}, when=["text Installing : kill 77"])
    lab.check(exit_code=77, boxes=[], after=UNTOUCHED,
              log=[*opening(), *inventory(), rf"Found dwx2-install.exe at [{{store1}}\{path}]"])
    assert INSTALLING in result.status_texts and DOWNLOADING not in result.status_texts


# Proves: The driver package's folder cannot be listed => nobody catches that: exit code 3
# Proves: The folder cannot be listed
@pytest.mark.parametrize("arguments", ["", "-SILENT"])
def test_driver_folder_that_is_gone(lab, arguments):
    """An empty release matches the empty one of an INF that is gone. Its folder cannot be listed, nobody catches that."""
    one = machine({}, release="")
    folder = r"C:\windows\System32\DriverStore\FileRepository"
    lab.run({**one, "remove": [folder]}, arguments)
    lab.check(exit_code=3, boxes=[], requests=[], crash=True, after=UNTOUCHED, log=[*opening(arguments), *inventory("")])
