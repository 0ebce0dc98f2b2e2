"""Machines on which the tool cannot work as usual: blocked log folder, odd temporary folder, full disk, hundreds of adapters, odd names."""
from __future__ import annotations

import pytest

from cases.support.direct import GIVEN, SWITCHES
from cases.support.download import FINAL, GOOD, NO_PROGRAM, PATH, TEMPORARY
from cases.support.expect import (DOWNLOADS, FINISHED, INSTALL_FAILED, NO_SERVER, NOT_DOWNLOADED, QUIET_END, REPAIR, REPAIRED,
                                  SAME, TEMP, download, install, inventory, not_started, opening, remove, stop, unpack)
from cases.support.repair import INSTALLER, PACKAGES, found, until_found
from cases.support.unusual import (DEVICE, LIST, MATCHING, NOTHING_INSTALLED, card, check, check_ends_without_server,
                                   check_repaired, elsewhere, not_downloaded)
from lab import inf
from lab.adapters import RELEASE

LOGS = r"C:\Program Files\Tavik\MIM\Log"
MAIN_PACKAGE = PACKAGES["Halden"]
PAGE = 4096  # the size of a disk is a multiple of this


# The log

BLOCKED = [r"C:\Program Files", r"C:\Program Files\Tavik", LOGS]


@pytest.mark.parametrize("path, arguments", [*((path, "") for path in BLOCKED), *((path, SWITCHES) for path in BLOCKED[1:])])
def test_log_folder_blocked_by_a_file(lab, path, arguments):
    """The first line cannot be written, and the tool does not catch that error: the run ends before it has done anything."""
    lab.run({"desktop": False, "remove": [path] if path == BLOCKED[0] else [],
             "files": {path: "in the way", GIVEN: {"installer": "24.20"}}}, arguments)
    check(lab, outcome="no-log-folder", exit_code=QUIET_END, log=[], boxes=[], requests=[], crash=True,
          before={**NOTHING_INSTALLED, "files": [path]}, after={**NOTHING_INSTALLED, "files": [path, GIVEN], "missing": [DOWNLOADS]})
    assert lab.result.file(path).read_text() == "in the way"
    assert not any(sample["exists"] for sample in lab.result.status) and lab.result.installer == []


# Proves: The file cannot be created
@pytest.mark.quick
def test_log_file_that_cannot_be_made(lab):
    """In /proc/sys not even root can make a file. The run goes on without a log."""
    lab.run({"files": {LOGS: {"link": "/proc/sys"}}})
    check(lab, outcome="no-log", exit_code=0, log=[], boxes=[FINISHED], requests=[GOOD], after=REPAIRED)


# Proves: A line cannot be written (disk full)
def test_log_on_a_full_disk(lab):
    """What does not fit is lost, and nothing else."""
    lab.run({"disks": {LOGS: PAGE}}, "x" * 900)  # a long first line
    check(lab, outcome="log-cut", exit_code=0, boxes=[FINISHED], requests=[GOOD], after=REPAIRED)
    sizes = [size for path, size in lab.result.after.files.items() if path.startswith(LOGS + "\\")]
    assert sizes == [PAGE] and lab.result.log[0].endswith("x" * 900)


# The temporary folder

def moved(temp: str, **changes) -> dict:
    """Unlike the description's own `temp`, the folder is not made."""
    return {"registry": {r"HKCU\Environment": {"TMP": temp, "TEMP": temp}}, **changes}


# Proves: The temporary folder has blanks, other letters, more than 260 characters, or is none => the run works there, or says what it cannot make
@pytest.mark.parametrize("value, temp", [
    *((temp, temp + "\\") for temp in ("C:\\Übung ☃ 中文", "C:\\ two  blanks, ' and % (x86)\\end", "C:\\not\\there\\yet\\at\\all")),
    ("some where", "C:\\windows\\system32\\some where\\")], ids=["other letters", "blanks and signs", "missing", "relative"])
def test_repair_in_an_odd_temporary_folder(lab, value, temp):
    """A relative one counts from the folder that the tool was started in."""
    lab.run(moved(value))
    own = temp + "Tavik_VLTInstallerDownload"
    check_repaired(lab, own, requests=[GOOD], before={"missing": [temp.rstrip("\\")]}, after={"missing": [DOWNLOADS]},
                   log=[*opening(), *inventory(), *download(), *elsewhere(temp, unpack(), *REPAIR)])
    assert lab.result.file(own + r"\dwx2_install.exe").exists() and lab.result.file(own + r"\LPInstaller" + MAIN_PACKAGE).exists()


LONG = "C:\\" + "\\".join(["t" * 57] * 4)
NAME = "Tavik_VLTInstallerDownload"


@pytest.mark.parametrize("temp, answers, own, place", [
    ("C:\\" + "\\".join(["t" * 60] * 5), {PATH: {"text": NO_PROGRAM}}, NAME, rf"C:\windows\system32\{NAME}"),
    (LONG, {}, rf"{LONG}\{NAME}", rf"{LONG}\{NAME}")], ids=["temporary folder", "download folder"])
def test_folder_of_more_than_260_characters(lab, temp, answers, own, place):
    """The system does not return a temporary folder of that length; the tool then uses the folder that it was started in. In both
    cases the file is downloaded but cannot be started, and the product stays."""
    lab.run(moved(temp, server={"answers": answers}))
    check(lab, own, outcome="installer-blocked", requests=[GOOD],
          after={"missing": [own + r"\dwx2_install.exe.tmp", DOWNLOADS]},
          log=[*opening(), *inventory(), *download(), not_started(rf"{own}\dwx2_install.exe", rf"{own}\LPInstaller"),
               rf"Unable to find {own}\LPInstaller{MAIN_PACKAGE}."])
    assert lab.result.file(place + r"\dwx2_install.exe").exists() and lab.result.file(place + r"\LPInstaller").is_dir()


NO_FOLDERS = [("Q:\\Temp", {}), ("C:\\blocked", {r"C:\blocked": "a file"}), ("C:\\blocked\\deep\\er", {r"C:\blocked": "a file"}),
              ("C:\\Jürgen ☃", {"C:\\Jürgen ☃": "a file"})]  # the log shows the name as it is


# Proves: A line shows the text of an exception, with paths and system texts in any language
@pytest.mark.parametrize("temp, files", NO_FOLDERS, ids=["no such drive", "a file", "below a file", "other letters"])
def test_no_folder_to_download_to(lab, temp, files):
    lab.run(moved(temp, files=files))
    check(lab, outcome="download-file-in-the-way", requests=[], after={"files": list(files)},
          log=[*opening(), *inventory(), *download()[:2], not_downloaded(f"{temp}\\{NAME}\\", "create_directories"),
               NOT_DOWNLOADED])


@pytest.mark.parametrize("temp, files", [NO_FOLDERS[0], *NO_FOLDERS[2:]], ids=["no such drive", "below a file", "other letters"])
def test_no_folder_to_unpack_to(lab, temp, files):
    lab.run(moved(temp, **found(files=files)))
    check(lab, outcome="folder-not-prepared", after={"files": list(files)}, log=[
        *until_found(), f"\tException occured during installation. filesystem error: create_directories: {{any}} [{temp}\\{NAME}]"])
    assert lab.result.installer == []


# Full disks

SIZE = 3_000_000
DAMAGED = 1627  # Windows Installer's code for a truncated package
BIG = {"server": {"answers": {PATH: {"size": SIZE}}}}
SMALL = r"C:\small disk"
FULL = [*inventory(), *download()[:3], r"Failed writing to file: {temp}Tavik_VLTInstallerDownload\dwx2_install.exe.tmp", NOT_DOWNLOADED]


# Proves: The disk is full during download or extraction, or under the log => a documented end; without a log the run goes on
@pytest.mark.parametrize("room", [2 * PAGE, SIZE // PAGE * PAGE], ids=["at once", "at the end"])
def test_disk_is_full_during_the_download(lab, room):
    lab.run({**BIG, "temp": SMALL, "disks": {SMALL: room}})
    temporary = SMALL + r"\Tavik_VLTInstallerDownload\dwx2_install.exe.tmp"
    check(lab, SMALL, outcome="download-disk-full", requests=[GOOD], log=[*opening(), *FULL],
          after={"files": [temporary], "missing": [temporary.removesuffix(".tmp")]})
    assert 0 <= lab.result.after.files[temporary] <= room


def test_file_cannot_grow_during_the_download(lab):
    """Needs no disk of its own. The old installer has been removed before."""
    lab.run({**BIG, "largest_file": 1_500_000, "files": {FINAL: "old", TEMPORARY: "older"}})
    check(lab, outcome="download-disk-full", before={"files": [FINAL, TEMPORARY]}, after={"missing": [FINAL], "files": [TEMPORARY]},
          log=[*opening(), *FULL])
    assert lab.result.after.files[TEMPORARY] <= 1_500_000


@pytest.mark.parametrize("temp, limit, most", [
    (SMALL + "\\", {"temp": SMALL, "disks": {SMALL: 24 * PAGE}}, 24 * PAGE), (TEMP, {"largest_file": 200_000}, 200_000)],
    ids=["disk is full", "file cannot grow"])
def test_no_room_to_unpack(lab, temp, limit, most):
    """The main package is there, but not all of it: its existence counts, so the old product is removed first."""
    main = temp + r"Tavik_VLTInstallerDownload\LPInstaller" + MAIN_PACKAGE
    lab.run(found(**limit))
    check(lab, SMALL, outcome="install-failed-other", exit_code=DAMAGED, boxes=[INSTALL_FAILED], after={**NOTHING_INSTALLED, "files": [main]},
          log=[*until_found(), *elsewhere(temp, unpack(INSTALLER, 2), *REPAIR[:-1]), f"\tResult = {DAMAGED}"])
    assert 0 < lab.result.after.files[main] <= most


# Many adapters, many packages

# Proves: 200 adapters, or 100 driver packages of one => all of them are read
def test_two_hundred_adapters(lab):
    """The last one is the newest, and the only one with a driver package."""
    ids = [rf"PCI\VEN_1E7D&DEV_{number:04X}&SUBSYS_00011E7D&REV_A1\4&1A2B3C4D&0&{number:04X}" for number in range(1, 201)]
    adapters = [{"id": device, "description": f"Card {number}", "release": f"22.{number:03}.1", "packages": []}
                for number, device in enumerate(ids)]
    adapters[-1] |= {"release": RELEASE, "packages": [{"inf": "oem1.inf"}]}
    lab.run({"adapters": adapters, **NO_SERVER})
    check_ends_without_server(
        lab, *(f"Enumerating installed drivers for {device} - Card {number}" for number, device in enumerate(ids)), inventory()[1], MATCHING,
        LIST, f"\t [Card 199] [{RELEASE}] [{{store1}}]", *(f"\t [Card {number}] [22.{number:03}.1] []" for number in range(198, -1, -1)))


def test_a_hundred_packages_of_one_adapter(lab):
    """All are read, and of the two that match the later one counts."""
    packages = [{"release": RELEASE if number in (40, 60) else f"22.{number:03}", "inf": f"oem{number:03}.inf"} for number in range(1, 101)]
    lab.run({"adapters": [{"packages": packages}], **NO_SERVER})
    lines = []
    for number, package in enumerate(packages, 1):
        lines += [rf"Found driver {{store{number}}}\u04{number:05}.inf. Version [{package['release']}]",
                  *([MATCHING] if number in (40, 60) else [])]
    check_ends_without_server(lab, inventory()[0], *lines, LIST, f"\t [Tavik Corvel 7800] [{RELEASE}] [{{store60}}]", folder="{store60}")


def test_no_package_at_all(lab):
    """An installer in the folder that the tool was started in is not one of a driver package."""
    lab.run({"files": {r"C:\windows\system32\B1\DWX2_Install.exe": "planted"},
             "adapters": [{"packages": []}, {"packages": [], "release": "24.10.1", "description": "Second"}],
             "desktop": {"families": ["Halden", "DVR"]}})
    check_repaired(lab, r"C:\Program Files\Tavik", requests=[GOOD], before={"products": ["Tavik DVR 23.40", "Tavik Halden 23.40"]},
                   after={"products": ["Tavik DVR 24.20", "Tavik Halden 24.20"]}, log=[
        *opening(), inventory()[0], f"Enumerating installed drivers for {card(2)} - Second", LIST, f"\t [Tavik Corvel 7800] [{RELEASE}] []",
        "\t [Second] [24.10.1] []", download()[0].replace("{store1}", ""), *download()[1:], unpack(), *stop(), *remove("Halden"),
        *remove("DVR"), *install("Halden"), *install("DVR")])


# Names of adapters

COMPATIBLE = {"products": ["Tavik Halden 24.20"], "values": {}}
PLAIN_INF = [{"text": inf.text("u", "Adapter", "{hardware}", "{release}")}]


def check_same_release(lab, *lines: str) -> None:
    log = "\n".join([*opening("", "24.20"), *lines, f"{SAME} Exiting."]).split("\n")
    check(lab, outcome="same-release", requests=[], log=log, before=COMPATIBLE, after=COMPATIBLE)


# Proves: An adapter's name has percent signs, quotes or 4,000 characters => it is only text; the log line is cut at 1,023 characters
def test_names_of_adapters_are_only_text(lab):
    """Line feeds in a name break the line; nothing in it is replaced or left out."""
    names = ['The "best" card\'s \'quote', "%s %n %d %hs %1!x! %% %5000d", "{0} $(calc) `id` & | > < ^", "Grüße ☃ \U0001f600 \u202e",
             "\ttab\\back/slash [x] ]", "first\nsecond", "a\r\nb"]
    lab.run({"desktop": {"release": "24.20"}, "adapters": [{"description": name, "packages": PLAIN_INF} for name in names]})
    lines = []
    for number, name in enumerate(names, 1):
        lines += [f"Enumerating installed drivers for {card(number)} - {name}",
                  rf"Found driver {{store{number}}}\u04{number:05}.inf. Version [{RELEASE}]", MATCHING]
    check_same_release(lab, *lines, LIST, *(f"\t [{name}] [{RELEASE}] [{{store{number}}}]" for number, name in enumerate(names, 1)))


def test_name_of_4000_characters_is_cut_in_the_log_only(lab):
    """The word at its end still makes the second adapter's driver a generic one."""
    name = "".join(f"{number:05}" for number in range(800))
    lab.run({"desktop": {"release": "24.20"}, "adapters": [
        {"description": name, "packages": PLAIN_INF}, {"release": "24.10.1", "description": name[::-1] + " Microsoft", "packages": []}]})
    check_same_release(lab, f"Enumerating installed drivers for {DEVICE} - {name}"[:1023], *inventory()[1:3],
                       f"Enumerating installed drivers for {card(2)} - {name[::-1]}"[:1023], LIST, f"\t [{name}"[:1023])
    assert max(map(len, lab.result.log)) == 1023
