"""The check: log file, switches, early exits, one instance at a time, and when two releases are the same."""
from __future__ import annotations

import datetime
import re
import zoneinfo

import pytest

from cases.support.download import answering
from cases.support.expect import (HL_VERSION, MAIN_PACKAGE_MISSING, NO_ADAPTER_LEFT, NO_DESKTOP, NO_SERVER, NOT_DOWNLOADED,
                                  NOT_THE_MAKERS, OTHER_ADAPTER, REPAIR, REPAIRED, SAME, UNTOUCHED, check_refused, download,
                                  inventory, not_started, opening, unpack, without_server)
from cases.support.store import NO_STORE, NOTHING

HL = r"HKLM\Software\Tavik\HL"
COMPATIBLE = {"desktop": {"release": "24.20"}}
LOG_FOLDER = r"C:\Program Files\Tavik\MIM\Log"
FORCED = {**COMPATIBLE, **NO_SERVER}  # the download fails only with -FORCE
LEFT_ALONE = {"outcome": "same-release", "requests": []}
NOT_REPAIRED = {"outcome": "download-bad-address", "requests": []}


# The log file

# Proves: The file gets its name
# Proves: Lines are written
@pytest.mark.quick
def test_log_is_one_utf16_file_named_after_local_time(lab):
    zone = zoneinfo.ZoneInfo("America/New_York")
    start = datetime.datetime.now(zone)
    result = lab.run({**COMPATIBLE, "environment": {"TZ": "America/New_York"}})
    end = datetime.datetime.now(zone)
    lab.check(**LEFT_ALONE)
    file, = result.file(LOG_FOLDER).iterdir()
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
@pytest.mark.parametrize("argument", ["\u00e9\u4e2d\u0416\U0001f600", "".join(f"{number:05}" for number in range(300))],
                         ids=["characters of every language", "more than 1,023 characters"])
def test_log_line_keeps_its_first_1023_characters(lab, argument):
    result = lab.run(COMPATIBLE, argument)
    lab.check(**LEFT_ALONE)
    first, second = opening(argument, "24.20")
    assert result.log[:2] == [first[:1023], second]


# Proves: Two lines, two runs
def test_existing_log_folder_is_used(lab):
    old = rf"{LOG_FOLDER}\old.log"
    result = lab.run({**COMPATIBLE, "files": {old: "kept"}})
    lab.check(**LEFT_ALONE, before={"files": [old]}, after={"files": [old]})
    assert len(list(result.file(LOG_FOLDER).iterdir())) == 2


# Early exits

# Proves: No device at all
# Proves: No adapter of the maker
@pytest.mark.parametrize("machine, arguments, lines", [
    ({"adapters": []}, "", []), ({"adapters": [OTHER_ADAPTER]}, "", [NOT_THE_MAKERS]), ({"adapters": [], "desktop": False}, "-FORCE", []),
], ids=["no adapter", "another maker's", "nothing installed either"])
def test_run_ends_without_an_adapter_of_the_maker(lab, machine, arguments, lines):
    result = lab.run(machine, arguments)
    version = "23.40" if lab.machine.products else ""
    lab.check(outcome="no-adapter", requests=[], after={"products": result.before.products},
              log=[*opening(arguments, version), *lines, *NO_ADAPTER_LEFT])


# Proves: Neither edition installed, not forced => box "There is no Tavik Software application installed.", result -1
# Proves: No desktop application: the key is missing
@pytest.mark.parametrize("store, outcome, line", [
    ({}, "no-application", NO_STORE), (False, "no-application-store-unread", "Exception  when searching for UWP version of VLT"),
], ids=["", "no package manager"])
def test_run_ends_when_nothing_is_installed(lab, store, outcome, line):
    lab.run({"desktop": False, "store": store})
    lab.check(outcome=outcome, requests=[], after={"products": []},
              log=[*opening(version=""), *inventory(), NO_DESKTOP, line, f"{NOTHING} Exiting."])


# Proves: `-SILENT` on any of these ways out
@pytest.mark.parametrize("machine, arguments, outcome, last", [
    ({"adapters": []}, "-SILENT", "no-adapter", NO_ADAPTER_LEFT[1]),
    ({"desktop": False}, "-SILENT", "no-application", f"{NOTHING} Exiting."),
    (COMPATIBLE, "-silent", "same-release", f"{SAME} Exiting."),
    (NO_SERVER, "-SILENT", "download-bad-address", NOT_DOWNLOADED),
    (FORCED, "-FORCE -Silent", "download-bad-address", NOT_DOWNLOADED),
], ids=["no adapter", "nothing installed", "same release", "no download", "forced"])
def test_silent_early_exit_shows_nothing(lab, machine, arguments, outcome, last):
    result = lab.run(machine, arguments)
    lab.check(outcome=outcome, requests=[], after={"products": result.before.products})
    assert (result.log[0], result.log[-1]) == (opening(arguments)[0], last)
    assert not any(sample["visible"] for sample in result.status)


# One instance at a time

# Proves: Another instance is running
# Proves: Code 0 => no icon in the body, but one in the title bar
# Proves: The refused instance ends
def test_second_instance_says_so_and_ends(lab):
    """A refused instance must not take the place of the first one, nor free it."""
    result = lab.run(COMPATIBLE, when=["box : second -SILENT", "box : second"])
    lab.check(outcome="same-release, 2 another-instance")
    check_refused(result, "-SILENT", box=False)
    check_refused(result, number=2)


# Switches

# Proves: Same release, forced => logged without "Exiting.", and repaired
# Proves: `-FORCE` with the same release => the installation runs again
def test_same_release_is_installed_again_when_forced(lab):
    lab.run(COMPATIBLE, "-FORCE")
    lab.check(outcome="repaired", after=REPAIRED,
              log=[*opening("-FORCE", "24.20"), *inventory(), SAME, *download(), unpack(), *REPAIR])


# Proves: Switches in other letter case, in any order, more than once
@pytest.mark.parametrize("arguments", ["-force", "other -FoRcE /x -FORCE", '"-FORCE"', "-Path -x -FORCE"])
def test_force_repairs_the_same_release(lab, arguments):
    lab.run(FORCED, arguments)
    lab.check(**NOT_REPAIRED, after=REPAIRED, log=[*opening(arguments, "24.20"), *inventory(), SAME, *without_server()])


# Proves: There is at least one argument
# Proves: Same release, not forced => box that the version is compatible, result -1
# Proves: A box appears => it carries the tool's icon in both sizes and one button
# Proves: Unknown arguments, and such that only look like a switch
# Proves: What follows `-Path` looks like a switch
@pytest.mark.parametrize("arguments", ["", "FORCE /FORCE --FORCE", '-FORCED -FORC "-FORCE "', "-Path -FORCE", "-path",
                                       "-Install -Path -VLT"])
def test_unknown_arguments_are_ignored(lab, arguments):
    """Unknown arguments are ignored, and the argument after -Path is a path."""
    lab.run(COMPATIBLE, arguments)
    lab.check(**LEFT_ALONE, after=REPAIRED, log=[*opening(arguments, "24.20"), *inventory(), f"{SAME} Exiting."])


def test_repair_does_not_need_a_version(lab):
    """The version is not known but the product is there: a repair like any other."""
    lab.run({"remove": [HL], **answering()}, "-force")
    lab.check(outcome="installer-blocked",
              log=[*opening("-force", ""), *inventory(), *download(), not_started(), MAIN_PACKAGE_MISSING])


# Proves: Only one of the values is there
# Proves: The values are in the 32-bit view only => they do not count
# Proves: The value is not plain text
# Proves: The value is a text with variables => the system replaces them, and it counts
@pytest.mark.parametrize("changes, version, driver", [
    ({"remove": [rf"{HL}@DriverVersion"]}, "23.40", ""),
    ({"remove": [rf"{HL}@HLVersion"]}, "", "23.40.11.01"),
    ({"remove": [HL]}, "", ""),
    ({"registry": {HL: {"HLVersion": 2340, "DriverVersion": ["23.40"]}}}, "", ""),
    ({"registry": {HL: {"HLVersion": {"type": "REG_EXPAND_SZ", "text": "%OS%"}, "DriverVersion": "Ünï ☃"}}}, "Windows_NT", "Ünï ☃"),
    ({"registry": {HL: {"HLVersion": "", "DriverVersion": " "}}}, "", " "),
    ({"remove": [HL], "registry": {r"HKLM\Software\Wow6432Node\Tavik\HL": {"HLVersion": "24.20", "DriverVersion": "24.20"}}}, "", ""),
], ids=["no driver version", "no version", "no key", "number and list", "variable and other letters", "empty and blank",
        "32-bit view only"])
def test_unreadable_version_is_repaired(lab, changes, version, driver):
    lab.run({**changes, **NO_SERVER})
    lab.check(**NOT_REPAIRED, log=[*opening("", version, driver), *inventory(), *without_server()])


# Same release: the whole release, or its first five characters against the version or against its first five

# Proves: The whole release equals the installed version
# Proves: The release's first five characters equal the installed version, or its first five characters (24.20 and 24.20.11.01)
# Proves: Only the letter case differs
# Proves: None of these
# Proves: Another release => handed to the repair with the driver's folder and the five characters; its result is the check's
# Proves: The desktop edition has recorded no version => another release, which is repaired
@pytest.mark.parametrize("release, version, downloaded", [
    ("24.20.11.01-240619a", "24.20.11.01", None),
    ("24.20.11.01-240619a", "24.20.99", None),
    ("v24.2.1-1", "V24.2", None),
    ("-240619a", "", None),
    ("24.20.11.01-240619a", "24.2", "24.20"),
    ("24.2.0-240619a", "24.20", "24.2."),
    ("24.20.11.01-240619a", "", "24.20"),
], ids=str)
def test_releases_are_compared(lab, release, version, downloaded):
    """downloaded: the release that a repair would download; None when both are the same release. The in-process tests have more rows."""
    lab.run({"adapters": [{"release": release}], "registry": {HL: {"HLVersion": version}}, **NO_SERVER})
    wanted, lines = (LEFT_ALONE, [f"{SAME} Exiting."]) if downloaded is None else (NOT_REPAIRED, without_server(prefix=downloaded))
    lab.check(**wanted, before={"values": {HL_VERSION: version}}, after={"products": UNTOUCHED["products"]},
              log=[*opening("", version, "23.40.11.01"), *inventory(release), *lines])
