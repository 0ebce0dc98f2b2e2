"""The check: log file, switches, early exits, one instance at a time, and when two releases are the same."""
from __future__ import annotations

import datetime
import pathlib
import re
import zoneinfo

import pytest

from cases.support.expect import (ANOTHER, DOWNLOAD_FAILED, FINISHED, INSTALL_FAILED, NO_ADAPTER, NOT_INSTALLED, SAME_RELEASE, download,
                    install, inventory, opening, remove, stop, unpack)
from lab import paths

SAME = "Currently installed version of VLT is from the same release as the active driver."
HL = r"HKLM\Software\Tavik\HL"
COMPATIBLE = {"desktop": {"release": "24.20"}}
OTHER = r"PCI\VEN_8086&DEV_46A6&SUBSYS_00000000&REV_0C\3&11583659&0&10"
# The host is missing, so that a repair ends at once, before anything is asked for.
NOWHERE = {"server": {"folder": "http:///x"}}
HALDEN_24 = {"products": ["Tavik Halden 24.20"], "values": {r"Software\Tavik\HL\HLVersion": "24.20"}}


def ends_without_server(prefix: str = "24.20", folder: str = "{store1}") -> list[str]:
    return [f"Unable to find dwx2-install.exe at [{folder}]. Downloading dwx2_install.exe for [{prefix}] from web.",
            "Change server to http:///x.",
            "\tException occured during the download of dwx2_install.exe. Unable to connect to server: {any}",
            "Unable to download dwx2_install.exe from web. Exiting."]


def log_files(result) -> list[pathlib.Path]:
    return sorted(pathlib.Path(result.prefix, "prefix", "drive_c", "Program Files", "Tavik", "MIM", "Log").iterdir())


# The log file

# Proves: The file gets its name
# Proves: Lines are written
@pytest.mark.quick
def test_log_is_one_utf16_file_named_after_local_time(lab):
    zone = zoneinfo.ZoneInfo("America/New_York")
    start = datetime.datetime.now(zone)
    result = lab.run({**COMPATIBLE, "environment": {"TZ": "America/New_York"}})
    end = datetime.datetime.now(zone)
    lab.check(exit_code=-1, boxes=[SAME_RELEASE])
    file, = log_files(result)
    fields = re.fullmatch(r"InstallVLTForWUDriver_(\d+)-(\d+)-(\d+)_(\d+)_(\d+)_(\d+)_(\d+)\.log", file.name)
    assert fields, file.name
    assert not any(field.startswith("0") and field != "0" for field in fields.groups()), "no leading zeros"
    *moment, milliseconds = map(int, fields.groups())
    named = datetime.datetime(*moment, milliseconds * 1000, tzinfo=zone)
    assert start - datetime.timedelta(milliseconds=1) <= named <= end
    data = file.read_bytes()
    assert data.startswith("Launched with command line: ".encode("utf-16-le")), "no byte-order mark"
    text = data.decode("utf-16-le")
    assert text.endswith("active driver. Exiting.\n") and "\r" not in text and "\ufeff" not in text and "\0" not in text


# Proves: The command line is very long
# Proves: A line is longer than 1,023 characters, or has a NUL inside
def test_log_line_is_cut_at_1023_characters(lab):
    argument = "".join(f"{number:05}" for number in range(300))
    result = lab.run(COMPATIBLE, argument)
    lab.check(exit_code=-1, boxes=[SAME_RELEASE])
    whole = rf'Launched with command line: "C:\lab\TavikCompatibilityTool.exe" {argument}'
    assert len(whole) > 1100
    assert result.log[0] == whole[:1023]
    assert result.log[1] == opening(version="24.20")[1]


def test_log_keeps_characters_of_every_language(lab):
    argument = "\u00e9\u4e2d\u0416\U0001f600"
    result = lab.run(COMPATIBLE, argument)
    lab.check(exit_code=-1, boxes=[SAME_RELEASE])
    assert result.log[0] == rf'Launched with command line: "C:\lab\TavikCompatibilityTool.exe" {argument}'


# Proves: Two lines, two runs
def test_log_folder_that_is_there_already_is_used(lab):
    old = r"C:\Program Files\Tavik\MIM\Log\old.log"
    result = lab.run({**COMPATIBLE, "files": {old: "kept"}})
    lab.check(exit_code=-1, boxes=[SAME_RELEASE], before={"files": [old]}, after={"files": [old]})
    assert len(log_files(result)) == 2


# Proves: An error that nobody catches
# Proves: The folder cannot be created (log file)
@pytest.mark.parametrize("arguments", ["", "-SILENT"])
def test_log_folder_blocked_by_a_file_ends_the_tool(lab, arguments):
    """The first line cannot be written, nobody catches that: no window, no box, nothing else is done."""
    result = lab.run({**COMPATIBLE, "files": {r"C:\Program Files\Tavik\MIM": "in the way"}}, arguments)
    lab.check(exit_code=3, log=[], boxes=[], requests=[], crash=True, after={"files": [r"C:\Program Files\Tavik\MIM"], **HALDEN_24})
    assert [sample for sample in result.status if sample["exists"]] == []
    assert [line for line in result.calls if "SetupDiGetClassDevsW" in line] == []


# Early exits without a word to the user

# Proves: `-SILENT` on any of these ways out
@pytest.mark.parametrize("machine, last", [
    ({"adapters": [{"id": OTHER, "description": "Other Graphics"}]}, "Unable to find installed Tavik display adapters. Exiting."),
    ({"adapters": []}, "Unable to find installed Tavik display adapters. Exiting."),
    ({"desktop": False}, "User does not have VLT installed. Exiting."),
    (COMPATIBLE, f"{SAME} Exiting."),
    (NOWHERE, "Unable to download dwx2_install.exe from web. Exiting."),
], ids=["other adapter", "no adapter", "nothing installed", "same release", "no download"])
def test_silent_early_exit_shows_nothing(lab, machine, last):
    result = lab.run(machine, "-SILENT")
    products = [f"Tavik {name.replace('-', ' ')}" for name in lab.machine.products]
    lab.check(exit_code=-1, boxes=[], requests=[], after={"products": products})
    assert result.log[0] == opening("-SILENT")[0]
    assert result.log[-1] == last
    assert not any(sample["visible"] for sample in result.status)


# Proves: No device at all
def test_no_display_adapter_at_all(lab):
    lab.run({"adapters": []})
    lab.check(exit_code=-1, boxes=[NO_ADAPTER], requests=[], log=[
        *opening(), "Currently installed drivers on system:", "Unable to find installed Tavik display adapters. Exiting."])


def test_nothing_is_installed_and_no_package_manager(lab):
    result = lab.run({"desktop": False, "store": False})
    lab.check(exit_code=-1, boxes=[NOT_INSTALLED], requests=[], after={"products": []}, log=[
        *opening(version=""), *inventory(), "User does not desktop VLT installed.", "Exception {any} when searching for UWP version of VLT",
        "User does not have VLT installed. Exiting."])
    assert not result.store_calls


def test_no_adapter_is_told_before_nothing_is_installed(lab):
    lab.run({"adapters": [], "desktop": False}, "-FORCE")
    lab.check(exit_code=-1, boxes=[NO_ADAPTER], requests=[], log=[
        *opening("-FORCE", ""), "Currently installed drivers on system:", "Unable to find installed Tavik display adapters. Exiting."])


# One instance at a time

def of_second(result) -> list[tuple[str, str]]:
    return [(box["icon"], box["text"]) for box in result.boxes if box["instance"] == 1]


def test_second_instance_is_silent_when_told(lab):
    result = lab.run(COMPATIBLE, when=["box : second -SILENT"])
    lab.check(exit_code=-1, boxes=[SAME_RELEASE])
    assert of_second(result) == []
    assert result.instances[1]["exit_code"] == -1
    assert result.logs[1] == [opening("-SILENT")[0], "Another instance is running. Exiting."]


def test_second_instance_while_the_first_installs(lab):
    result = lab.run({"installer": {"sleep": 2500}}, when=["text Installing : second -FORCE"])
    lab.check(exit_code=0, boxes=[FINISHED], requests=["/drivers/installer/vlt/24.20/dwx2_install.txt 200"], after=HALDEN_24,
              log=[*opening(), *inventory(), *download(), unpack(), *stop(), *remove("Halden"), *install("Halden")])
    assert of_second(result) == [ANOTHER]
    assert result.instances[1]["exit_code"] == -1
    assert result.logs[1] == [opening("-FORCE")[0], "Another instance is running. Exiting."]


# Proves: The refused instance ends
def test_two_instances_after_each_other_are_both_refused(lab):
    """A refused instance must not take the place of the first one, nor free it."""
    result = lab.run(COMPATIBLE, when=["box : second -SILENT", "box : second -SILENT"])
    lab.check(exit_code=-1, boxes=[SAME_RELEASE])
    assert [instance["exit_code"] for instance in result.instances] == [-1, -1, -1]
    assert [log[-1] for log in result.logs[1:]] == ["Another instance is running. Exiting."] * 2


# Switches

# Proves: Switches in other letter case, in any order, more than once
@pytest.mark.parametrize("arguments", ["-force", "other -FoRcE /x -FORCE", '"-FORCE"', "-Path -x -FORCE"])
def test_forced(lab, arguments):
    lab.run({**COMPATIBLE, **NOWHERE}, arguments)
    lab.check(exit_code=-1, boxes=[DOWNLOAD_FAILED], requests=[], after=HALDEN_24,
              log=[*opening(arguments, "24.20"), *inventory(), SAME, *ends_without_server()])


# Proves: Unknown arguments, and such that only look like a switch
# Proves: What follows `-Path` looks like a switch
@pytest.mark.parametrize("arguments", ["FORCE /FORCE --FORCE", '-FORCED -FORC "-FORCE "', "-Path -FORCE", "-path", "-Install -Path -VLT"])
def test_not_forced(lab, arguments):
    """Unknown arguments count for nothing, and what follows -Path is a path."""
    lab.run(COMPATIBLE, arguments)
    lab.check(exit_code=-1, boxes=[SAME_RELEASE], requests=[], log=[*opening(arguments, "24.20"), *inventory(), f"{SAME} Exiting."])


@pytest.mark.parametrize("arguments", ["-silent", "-FORCE -Silent"])
def test_silent_in_any_spelling(lab, arguments):
    result = lab.run({**COMPATIBLE, **NOWHERE}, arguments)
    lab.check(exit_code=-1, boxes=[], requests=[])
    assert not any(sample["visible"] for sample in result.status)


def test_forced_repair_without_a_version(lab):
    """The version is not known but the product is there: a repair like any other."""
    lab.run({"remove": [HL], "server": {"answers": {"/drivers/installer/vlt/24.20/dwx2_install.txt": {"text": "no program"}}}}, "-force")
    lab.check(exit_code=2, boxes=[INSTALL_FAILED], log=[
        *opening("-force", ""), *inventory(), *download(), launch_failed(), MAIN_PACKAGE_MISSING])


MAIN_PACKAGE_MISSING = r"Unable to find {temp}Tavik_VLTInstallerDownload\LPInstaller\HL\halden\halden64\dwx-next64.msi."


def launch_failed(installer: str = "{temp}Tavik_VLTInstallerDownload\\dwx2_install.exe") -> str:
    return (rf"Launching process {installer} /NCRC /S -EXTRACTONLY=YES /D={{temp}}Tavik_VLTInstallerDownload\LPInstaller "
            "failed. Error code = {number} {any}")


# Versions of the installed application

# Proves: Empty text, no bytes, half a character
# Proves: Only one of the values is there
# Proves: A value is no text
# Proves: The values stand in the 32-bit view only => they do not count
@pytest.mark.parametrize("changes, version, driver", [
    ({"remove": [rf"{HL}@DriverVersion"]}, "23.40", ""),
    ({"remove": [rf"{HL}@HLVersion"]}, "", "23.40.11.01"),
    ({"remove": [HL]}, "", ""),
    ({"registry": {HL: {"HLVersion": 2340, "DriverVersion": ["23.40"]}}}, "", ""),
    ({"registry": {HL: {"HLVersion": {"type": "REG_BINARY", "hex": "32003400000000"}}}}, "", "23.40.11.01"),
    ({"registry": {HL: {"HLVersion": "", "DriverVersion": " "}}}, "", " "),
    ({"registry": {HL: {"HLVersion": {"type": "REG_SZ", "hex": ""}}}}, "", "23.40.11.01"),
    ({"registry": {HL: {"HLVersion": {"type": "REG_SZ", "hex": "320034002e00"}}}}, "24.", "23.40.11.01"),
    ({"registry": {HL: {"HLVersion": {"type": "REG_SZ", "hex": "3200340000003900"}}}}, "24", "23.40.11.01"),
    ({"remove": [HL], "registry": {r"HKLM\Software\Wow6432Node\Tavik\HL": {"HLVersion": "24.20", "DriverVersion": "24.20"}}}, "", ""),
], ids=["no driver version", "no version", "no key", "number and list", "binary", "empty and blank", "no bytes", "not terminated",
        "null inside", "32-bit view only"])
def test_installed_version(lab, changes, version, driver):
    lab.run({**changes, **NOWHERE})
    lab.check(exit_code=-1, boxes=[DOWNLOAD_FAILED], log=[*opening("", version, driver), *inventory(), *ends_without_server()])


# Same release: the whole release, or its first five characters against the version or against its first five

# Proves: The whole release equals the installed version
# Proves: The release's first five characters equal the installed version, or its first five characters (24.20 and 24.20.11.01)
# Proves: Only the letter case differs
@pytest.mark.parametrize("release, version", [
    ("24.20.11.01-240619a", "24.20.11.01"),
    ("24.20.11.01-240619a", "24.20.99"),
    ("24.2-240619a", "24.2"),
    ("24.20B-1", "24.20b"),
    ("v24.2.1-1", "V24.2"),
    ("123.45.6", "123.46"),
    ("-240619a", ""),
], ids=str)
def test_same_release(lab, release, version):
    lab.run({"adapters": [{"release": release}], "registry": {HL: {"HLVersion": version}}})
    lab.check(exit_code=-1, boxes=[SAME_RELEASE], requests=[], after={"products": ["Tavik Halden 23.40"]},
              before={"values": {r"Software\Tavik\HL\HLVersion": version}},
              log=[*opening("", version, "23.40.11.01"), *inventory(release), f"{SAME} Exiting."])


# Proves: None of these
# Proves: The desktop edition has recorded no version => another release, which is repaired
@pytest.mark.parametrize("release, version, prefix", [
    ("24.20.11.01-240619a", "24.2", "24.20"),
    ("24.20.11.01-240619a", "24.21", "24.20"),
    ("24.20.11.01-240619a", " 24.20", "24.20"),
    ("24.2-240619a", "24.20", "24.2"),
    ("24.2.0-240619a", "24.20", "24.2."),
    ("-240619a", "23.40", ""),
    ("24.20.11.01-240619a", "", "24.20"),
], ids=str)
def test_another_release(lab, release, version, prefix):
    lab.run({"adapters": [{"release": release}], "registry": {HL: {"HLVersion": version}}, **NOWHERE})
    lab.check(exit_code=-1, boxes=[DOWNLOAD_FAILED], requests=[], after={"products": ["Tavik Halden 23.40"]},
              log=[*opening("", version, "23.40.11.01"), *inventory(release), *ends_without_server(prefix)])


# Libraries

# Proves: A library of a system name lies beside the tool => it is not loaded
@pytest.mark.parametrize("name", ["setupapi", "wininet", "msi"])
def test_library_beside_the_tool_is_not_loaded(lab, name):
    """Whoever can write into the folder that the tool lies in must not get its rights."""
    planted = rf"C:\lab\{name}.dll"
    result = lab.run({**NOWHERE, "standins": [name], "files": {planted: {"copy": str(paths.PROGRAMS / "watcher_hook.dll")}}})
    lab.check(exit_code=-1, boxes=[DOWNLOAD_FAILED], log=[*opening(), *inventory(), *ends_without_server()])
    assert pathlib.Path(result.prefix, "prefix", "drive_c", "lab", f"{name}.dll").exists()
