"""The installer that a driver package brings along: where the tool searches for it, and what happens without it."""
from __future__ import annotations

import pytest

from cases.support.download import NO_PROGRAM
from cases.support.expect import (DOWNLOADING, INSTALLING, MAIN_PACKAGE_MISSING, NO_SERVER, REPAIR, REPAIRED, UNTOUCHED,
                                  inventory, not_started, opening, unpack, without_server)

NAME = "DWX2_Install.exe"
OLDER = r"Found driver {store1}\u0400001.inf. Version [24.10.1]"
DEVICE = inventory()
SECOND_PACKAGE = [r"Found driver {store2}\u0400002.inf. Version [24.20.11.01-240619a]", *DEVICE[2:4],
                  "\t [Tavik Corvel 7800] [24.20.11.01-240619a] [{store2}]"]
NOT_FOUND = {"outcome": "download-bad-address", "requests": [], "after": UNTOUCHED}


def machine(files: dict, **adapter) -> dict:
    """One driver package with these files. A download ends before it begins."""
    return {"adapters": [{"packages": [{"files": files}], **adapter}], **NO_SERVER}


# Proves: A subfolder begins with B or b
# Proves: The file's name in other letter case
# Proves: A link to a folder
@pytest.mark.parametrize("files, path", [
    ({rf"B384125\{NAME}": NO_PROGRAM, rf"A384125\{NAME}": NO_PROGRAM}, rf"B384125\{NAME}"),
    ({rf"bonus\{NAME}": NO_PROGRAM}, rf"bonus\{NAME}"),
    ({rf"B\{NAME}": NO_PROGRAM}, rf"B\{NAME}"),
    ({r"B384125\dwx2_INSTALL.EXE": NO_PROGRAM}, rf"B384125\{NAME}"),
    ({"B0": "a file", rf"B384125\{NAME}": NO_PROGRAM}, rf"B384125\{NAME}"),
    ({rf"b1\{NAME}": NO_PROGRAM, rf"B2\{NAME}": NO_PROGRAM}, rf"b1\{NAME}"),
    ({"B384125": {"link": "{folder}"}}, rf"B384125\{NAME}"),
], ids=["beside other folders", "small b", "only b", "name in other letters", "after a file", "first of two", "link to a folder"])
def test_installer_is_found(lab, tmp_path, files, path):
    """The installer is not a program, so the run ends when it is started."""
    (tmp_path / NAME).write_text(NO_PROGRAM)
    files = {name: {"link": str(tmp_path)} if isinstance(file, dict) else file for name, file in files.items()}
    result = lab.run(machine(files))
    lab.check(outcome="installer-blocked", requests=[], after=UNTOUCHED, log=[
        *opening(), *DEVICE, rf"Found dwx2-install.exe at [{{store1}}\{path}]", not_started(rf"{{store1}}\{path}"), MAIN_PACKAGE_MISSING])
    assert DOWNLOADING not in result.status_texts


# Proves: Two such folders (Bin64 before B384125)
# Proves: Only a file begins with B
# Proves: No such folder, or the installer lies elsewhere
@pytest.mark.parametrize("files", [
    {}, {"B384125": NO_PROGRAM}, {NAME: NO_PROGRAM}, {rf"Release\{NAME}": NO_PROGRAM, rf"8B\{NAME}": NO_PROGRAM},
    {rf"Display\B384125\{NAME}": NO_PROGRAM}, {r"B384125\DWX2_Install.ex": NO_PROGRAM, rf"B384125\deep\{NAME}": NO_PROGRAM},
    {"B384125": {"link": "/nowhere"}}, {rf"B384125\{NAME}": {"link": "/nowhere"}},
    {r"B1\readme.txt": "nothing", rf"B384125\{NAME}": NO_PROGRAM},
], ids=["no folder", "only a file", "beside the INF", "other folders", "deeper", "other name", "folder links to nothing",
        "installer links to nothing", "only the second folder"])
def test_installer_is_not_found(lab, files):
    """Of several folders only the first one by name is searched."""
    lab.run(machine(files))
    lab.check(**NOT_FOUND, log=[*opening(), *DEVICE, *without_server()])


# The active package

@pytest.mark.quick
def test_installer_of_the_active_package_repairs(lab):
    lab.run("found.toml")
    installer = r"{store2}\B384125\DWX2_Install.exe"
    older = r"Found driver {store1}\u0400001.inf. Version [24.10.05.00-240301b]"
    lab.check(outcome="repaired", requests=[], before=UNTOUCHED, after=REPAIRED, log=[
        *opening(), DEVICE[0], older, *SECOND_PACKAGE, f"Found dwx2-install.exe at [{installer}]", unpack(installer), *REPAIR])


# Proves: Packages of other releases have installers => not searched
# Proves: The driver has no matching package (empty folder)
@pytest.mark.parametrize("others, lines, folder", [
    ([{}], [DEVICE[0], OLDER, *SECOND_PACKAGE], "{store2}"),
    ([], [DEVICE[0], OLDER, DEVICE[3], "\t [Tavik Corvel 7800] [24.20.11.01-240619a] []"], ""),
], ids=["beside the active package", "alone"])
def test_installer_of_another_release_is_ignored(lab, others, lines, folder):
    packages = [{"release": "24.10.1", "files": {rf"B1\{NAME}": NO_PROGRAM}}, *others]
    lab.run({"adapters": [{"packages": packages}], **NO_SERVER})
    lab.check(**NOT_FOUND, log=[*opening(), *lines, *without_server(folder)])


def test_installer_of_the_second_adapter_is_ignored(lab):
    newer = {"release": "24.30.1-a", "description": "Tavik Corvel 7900"}
    lab.run({"adapters": [{"packages": [{"files": {rf"B1\{NAME}": NO_PROGRAM}}]}, newer], **NO_SERVER})
    lab.check(**NOT_FOUND)
    assert lab.result.log[-4] == without_server(lab.machine.adapters[1].packages[0].store_folder(), "24.30")[0]


# Proves: A folder has the installer's name
def test_folder_in_place_of_the_installer_counts_as_found(lab):
    """Only existence counts. Wine would open the folder in its file manager, so the run is ended before."""
    path = rf"B1\{NAME}"
    result = lab.run({**machine({path: {"folder": True}}), "server": {"reach": "none"}}, when=["text Installing : kill 77"])
    lab.check(exit_code=77, outcome="interrupted", boxes=[], after=UNTOUCHED,
              log=[*opening(), *DEVICE, rf"Found dwx2-install.exe at [{{store1}}\{path}]"])
    assert INSTALLING in result.status_texts and DOWNLOADING not in result.status_texts


# Proves: The driver package's folder cannot be listed => this is not caught: exit code 3
# Proves: The folder cannot be listed
@pytest.mark.parametrize("arguments", ["", "-SILENT"])
def test_missing_driver_folder_ends_the_run(lab, arguments):
    """An empty release matches the empty one of an INF that is gone. Its folder cannot be listed, which is not caught."""
    lab.run({**machine({}, release=""), "remove": [r"C:\windows\System32\DriverStore\FileRepository"]}, arguments)
    lab.check(outcome="quiet-end", requests=[], crash=True, after=UNTOUCHED,
              log=[*opening(arguments), *inventory("")])
