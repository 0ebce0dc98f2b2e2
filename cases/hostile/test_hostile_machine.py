"""Machines on which the ground gives way: blocked log folder, odd temporary folders, full disks, crowds of adapters."""
from __future__ import annotations

import pytest

from cases.support.expect import (DOWNLOAD_FAILED, FINISHED, INSTALL_FAILED, SAME_RELEASE, download, install, inventory, opening, remove,
                    stop, unpack)
from cases.support.hostile import (AFTER, BEFORE, DOWNLOADS, EXTRACTED, FINAL, INSTALLER, LOGS, MAIN_PACKAGE, NO_SERVER,
                             NOT_DOWNLOADED, QUIET_END, REPAIR, TEMPORARY, check, check_ends_without_server, download_thrown,
                             found_there, host_path, install_thrown, not_started, repair_in, unpack_into, until_found)
from lab import inf
from lab.adapters import RELEASE

SAME_EXIT = "Currently installed version of VLT is from the same release as the active driver. Exiting."
MATCHING = "\tFound driver matching active driver"
PAGE = 4096  # disks are as big as so many bytes or a multiple
LIST = "Currently installed drivers on system:"
NO_PROGRAM = {"text": "no program"}
PATH = "/drivers/installer/vlt/24.20/dwx2_install.txt"


# The log

BLOCKED = [r"C:\Program Files", r"C:\Program Files\Tavik", LOGS]


@pytest.mark.parametrize("path", BLOCKED)
def test_log_folder_blocked_by_a_file(lab, path):
    """The first line cannot be written and nobody catches that: the run ends before it has done anything."""
    lab.run({"desktop": False, "remove": [path] if path == BLOCKED[0] else [], "files": {path: "in the way"}})
    check(lab, outcome="no-log-folder", exit_code=QUIET_END, log=[], boxes=[], requests=[], crash=True, before={"products": [], "files": [path]},
          after={"products": [], "files": [path], "missing": [DOWNLOADS]})
    assert host_path(lab.result, path).read_text() == "in the way"
    assert not any(sample["exists"] for sample in lab.result.status)


@pytest.mark.parametrize("path", BLOCKED[1:])
def test_log_folder_blocked_in_direct_installation(lab, path):
    given = r"C:\Given\setup.exe"
    lab.run({"desktop": False, "server": {"reach": "none"}, "files": {path: "in the way", given: {"installer": "24.20"}}},
            f"-VLT -Install -Path {given}")
    check(lab, outcome="no-log-folder", exit_code=QUIET_END, log=[], boxes=[], crash=True, before={"products": []},
          after={"products": [], "files": [path, given], "missing": [DOWNLOADS]})
    assert lab.result.installer == []


# Proves: The file cannot be created
def test_log_file_that_cannot_be_made(lab):
    """Not even root can make a file there. The run goes on without a log."""
    lab.run({"files": {LOGS: {"link": "/proc/sys"}}})
    check(lab, outcome="no-log", exit_code=0, log=[], boxes=[FINISHED], requests=[f"{PATH} 200"], before=BEFORE, after=AFTER)


# Proves: A line cannot be written (disk full)
def test_log_on_a_full_disk(lab):
    """What does not fit is lost, and nothing else."""
    lab.run({"disks": {LOGS: PAGE}}, "x" * 900)  # a long first line
    check(lab, outcome="log-cut", exit_code=0, boxes=[FINISHED], requests=[f"{PATH} 200"], before=BEFORE, after=AFTER)
    sizes = [size for path, size in lab.result.after.files.items() if path.startswith(LOGS + "\\")]
    assert sizes == [PAGE] and lab.result.log[0].endswith("x" * 900)


# The temporary folder

def moved(temp: str, **changes) -> dict:
    """Unlike the description's own `temp`, the folder is not made."""
    return {"registry": {r"HKCU\Environment": {"TMP": temp, "TEMP": temp}}, **changes}


# Proves: The temporary folder has blanks, other letters, more than 260 characters, or is none => the run works there, or says what it cannot make
@pytest.mark.parametrize("temp", ["C:\\Übung ☃ 中文\\", "C:\\ two  blanks, ' and % (x86)\\end\\",
                                  "C:\\not\\there\\yet\\at\\all\\"])
def test_repair_in_an_odd_temporary_folder(lab, temp):
    lab.run(moved(temp.rstrip("\\")))
    own = temp + "Tavik_VLTInstallerDownload"
    check(lab, own, outcome="repaired", exit_code=0, boxes=[FINISHED], requests=[f"{PATH} 200"], before={**BEFORE, "missing": [temp.rstrip("\\")]},
          after={**AFTER, "files": [own + "\\dwx2_install.exe", own + r"\LPInstaller" + MAIN_PACKAGE], "missing": [DOWNLOADS]},
          log=[*opening(), *inventory(), *download(), unpack_into(temp), *repair_in(temp)])


@pytest.mark.quick
def test_relative_temporary_folder(lab):
    """It counts from the folder that the tool was started in."""
    temp = "C:\\windows\\system32\\some where\\"
    lab.run(moved("some where"))
    check(lab, outcome="repaired", exit_code=0, boxes=[FINISHED], requests=[f"{PATH} 200"], before=BEFORE, after={**AFTER, "missing": [DOWNLOADS]},
          log=[*opening(), *inventory(), *download(), unpack_into(temp), *repair_in(temp)])
    assert host_path(lab.result, temp + r"Tavik_VLTInstallerDownload\LPInstaller" + MAIN_PACKAGE).exists()


def test_temporary_folder_of_more_than_260_characters(lab):
    """The system does not tell it then: the names are all there is, from the folder that the tool was started in."""
    temp = "C:\\" + "\\".join(["t" * 60] * 5)
    lab.run(moved(temp, server={"answers": {PATH: NO_PROGRAM}}))
    place = "Tavik_VLTInstallerDownload"
    check(lab, outcome="installer-blocked", exit_code=2, boxes=[INSTALL_FAILED], requests=[f"{PATH} 200"], before=BEFORE,
          after={**BEFORE, "missing": [temp, DOWNLOADS]},
          log=[*opening(), *inventory(), *download(),
               not_started(rf"{place}\dwx2_install.exe", rf"{place}\LPInstaller"),
               rf"Unable to find {place}\LPInstaller{MAIN_PACKAGE}."])
    assert host_path(lab.result, rf"C:\windows\system32\{place}\dwx2_install.exe").read_text() == NO_PROGRAM["text"]


def test_download_folder_of_more_than_260_characters(lab):
    """The file is fetched; whatever the start of such a path comes to, the run ends in order and the product stays."""
    temp = "C:\\" + "\\".join(["t" * 57] * 4) + "\\"
    lab.run(moved(temp.rstrip("\\")))
    own = temp + "Tavik_VLTInstallerDownload"
    check(lab, own, outcome="installer-blocked", exit_code=2, boxes=[INSTALL_FAILED], requests=[f"{PATH} 200"], before=BEFORE,
          after={**BEFORE, "files": [own + "\\dwx2_install.exe", own + r"\LPInstaller"],
                 "missing": [own + "\\dwx2_install.exe.tmp"]},
          log=[*opening(), *inventory(), *download(),
               not_started(rf"{own}\dwx2_install.exe", rf"{own}\LPInstaller"),
               rf"Unable to find {own}\LPInstaller{MAIN_PACKAGE}."])


@pytest.mark.parametrize("temp, files", [
    ("Q:\\Temp\\", {}), ("C:\\blocked\\", {r"C:\blocked": "a file"}), ("C:\\blocked\\deep\\er\\", {r"C:\blocked": "a file"}),
], ids=["no such drive", "a file", "below a file"])
def test_temporary_folder_that_cannot_be_made(lab, temp, files):
    own = temp + "Tavik_VLTInstallerDownload"
    lab.run(moved(temp.rstrip("\\"), files=files))
    check(lab, outcome="download-file-in-the-way", exit_code=-1, boxes=[DOWNLOAD_FAILED], requests=[], before=BEFORE, after={**BEFORE, "files": list(files)},
          log=[*opening(), *inventory(), *download()[:2],
               *download_thrown(rf"filesystem error: create_directories: {{any}} [{own}\]")])


@pytest.mark.parametrize("temp, files", [("Q:\\Temp\\", {}), ("C:\\blocked\\deep\\", {r"C:\blocked": "a file"})],
                         ids=["no such drive", "below a file"])
def test_no_place_to_unpack_to(lab, temp, files):
    own = temp + "Tavik_VLTInstallerDownload"
    lab.run(moved(temp.rstrip("\\"), **found_there(files=files)))
    check(lab, outcome="folder-not-prepared", exit_code=-1, boxes=[INSTALL_FAILED], before=BEFORE, after={**BEFORE, "files": list(files)},
          log=[*until_found(), install_thrown(f"filesystem error: create_directories: {{any}} [{own}]")])
    assert lab.result.installer == []


# Full disks

SIZE = 3_000_000
DAMAGED = 1627  # what Windows Installer says to a package that is cut off
BIG = {"server": {"answers": {PATH: {"size": SIZE}}}}
SMALL = r"C:\small disk"
FULL = [*opening(), *inventory(), *download()[:3],
        r"Failed writing to file: {temp}Tavik_VLTInstallerDownload\dwx2_install.exe.tmp", NOT_DOWNLOADED]


# Proves: The disk is full during download or extraction, or under the log => a documented end; without a log the run goes on
@pytest.mark.parametrize("room", [2 * PAGE, 300 * PAGE, SIZE // PAGE * PAGE],
                         ids=["at once", "in the second block", "at the end"])
def test_disk_is_full_during_the_download(lab, room):
    lab.run({**BIG, "temp": SMALL, "disks": {SMALL: room}})
    temporary = SMALL + r"\Tavik_VLTInstallerDownload\dwx2_install.exe.tmp"
    check(lab, SMALL, outcome="download-disk-full", exit_code=-1, boxes=[DOWNLOAD_FAILED], requests=[f"{PATH} 200"], before=BEFORE, log=FULL,
          after={**BEFORE, "files": [temporary], "missing": [temporary.removesuffix(".tmp")]})
    assert 0 <= lab.result.after.files[temporary] <= room


@pytest.mark.parametrize("arguments", ["", "-SILENT"])
def test_file_cannot_grow_during_the_download(lab, arguments):
    """Works without a disk of its own. The old installer is gone all the same: it was removed before."""
    lab.run({**BIG, "largest_file": 1_500_000, "files": {FINAL: "old", TEMPORARY: "older"}}, arguments)
    check(lab, outcome="download-disk-full", exit_code=-1, boxes=[] if arguments else [DOWNLOAD_FAILED], before={**BEFORE, "files": [FINAL, TEMPORARY]},
          after={**BEFORE, "missing": [FINAL], "files": [TEMPORARY]}, log=[*opening(arguments), *FULL[2:]])
    assert lab.result.after.files[TEMPORARY] <= 1_500_000


def test_disk_is_full_during_extraction(lab):
    """The main package is there, but not all of it: its existence counts, so the old product goes first."""
    temp = SMALL + "\\"
    main = temp + r"Tavik_VLTInstallerDownload\LPInstaller" + MAIN_PACKAGE
    lab.run(found_there(temp=SMALL, disks={SMALL: 24 * PAGE}))
    check(lab, SMALL, outcome="install-failed-other", exit_code=DAMAGED, boxes=[INSTALL_FAILED], before=BEFORE,
          after={"products": [], "files": [main], "missing": [DOWNLOADS]},
          log=[*until_found(), unpack_into(temp, INSTALLER, 2), *repair_in(temp)[:-1], f"\tResult = {DAMAGED}"])
    assert 0 < lab.result.after.files[main] <= 24 * PAGE


def test_file_cannot_grow_during_extraction(lab):
    """The same without a disk of its own."""
    lab.run(found_there(largest_file=200_000))
    check(lab, outcome="install-failed-other", exit_code=DAMAGED, boxes=[INSTALL_FAILED], before=BEFORE,
          after={"products": [], "files": [EXTRACTED + MAIN_PACKAGE]},
          log=[*until_found(), unpack(INSTALLER, 2), *REPAIR[:-1], f"\tResult = {DAMAGED}"])
    assert lab.result.after.files[EXTRACTED + MAIN_PACKAGE] == 200_000


# Crowds

# Proves: 200 adapters, or 100 driver packages of one => all of them are read
def test_two_hundred_adapters(lab):
    """The last one is the newest, and the only one with a driver package."""
    ids = [rf"PCI\VEN_1E7D&DEV_{number:04X}&SUBSYS_00011E7D&REV_A1\4&1A2B3C4D&0&{number:04X}" for number in range(1, 201)]
    adapters = [{"id": device, "description": f"Card {number}", "release": f"22.{number:03}.1", "packages": []}
                for number, device in enumerate(ids)]
    adapters[-1] |= {"release": RELEASE, "packages": [{"inf": "oem1.inf"}]}
    lab.run({"adapters": adapters, **NO_SERVER})
    lines = [f"Enumerating installed drivers for {device} - Card {number}" for number, device in enumerate(ids)]
    listed = [f"\t [Card {number}] [22.{number:03}.1] []" for number in range(198, -1, -1)]
    check_ends_without_server(lab, [*opening(), *lines, rf"Found driver {{store1}}\u0400001.inf. Version [{RELEASE}]", MATCHING,
                                    LIST,
                                    f"\t [Card 199] [{RELEASE}] [{{store1}}]", *listed])


def test_a_hundred_packages_of_one_adapter(lab):
    """All are read, and of the two that match the later one counts."""
    packages = [{"release": RELEASE if number in (40, 60) else f"22.{number:03}", "inf": f"oem{number:03}.inf"}
                for number in range(1, 101)]
    lab.run({"adapters": [{"packages": packages}], **NO_SERVER})
    lines = []
    for number, package in enumerate(packages, 1):
        lines += [rf"Found driver {{store{number}}}\u04{number:05}.inf. Version [{package['release']}]",
                  *([MATCHING] if number in (40, 60) else [])]
    check_ends_without_server(lab, [*opening(), inventory()[0], *lines, LIST,
                                    f"\t [Tavik Corvel 7800] [{RELEASE}] [{{store60}}]"], folder="{store60}")


def test_no_package_at_all(lab):
    """An installer in the folder that the tool was started in is none of a driver package."""
    lab.run({"files": {r"C:\windows\system32\B1\DWX2_Install.exe": "planted"},
             "adapters": [{"packages": []}, {"packages": [], "release": "24.10.1", "description": "Second"}],
             "desktop": {"families": ["Halden", "DVR"]}})
    second = inventory(description="Second")[0].replace("DEV_2F11", "DEV_2F12").replace("0&0001", "0&0002")
    check(lab, r"C:\Program Files\Tavik", outcome="repaired", exit_code=0, boxes=[FINISHED], requests=[f"{PATH} 200"],
          before={"products": ["Tavik DVR 23.40", "Tavik Halden 23.40"]},
          after={"products": ["Tavik DVR 24.20", "Tavik Halden 24.20"]}, log=[
        *opening(), inventory()[0], second, LIST, f"\t [Tavik Corvel 7800] [{RELEASE}] []", "\t [Second] [24.10.1] []",
        download()[0].replace("{store1}", ""), *download()[1:], unpack(), *stop(), *remove("Halden"), *remove("DVR"),
        *install("Halden"), *install("DVR")])


# Names of adapters

DEVICE = r"PCI\VEN_1E7D&DEV_2F11&SUBSYS_00011E7D&REV_A1\4&1A2B3C4D&0&0001"
PLAIN_INF = inf.text("u", "Adapter", "{hardware}", "{release}")


# Proves: An adapter's name has percent signs, quotes or 4,000 characters => it is only text; the log line is cut at 1,023 characters
def test_names_of_adapters_are_only_text(lab):
    """Line feeds in a name break the line; nothing in it is filled in or left out."""
    names = ['The "best" card\'s \'quote', "%s %n %d %hs %1!x! %% %5000d", "{0} $(calc) `id` & | > < ^",
             "Grüße ☃ \U0001f600 \u202e",
             "\ttab\\back/slash [x] ]", "first\nsecond", "a\r\nb"]
    lab.run({"desktop": {"release": "24.20"}, "adapters": [{"description": name, "packages": [{"text": PLAIN_INF}]}
                                                           for name in names]})
    lines = []
    for number, name in enumerate(names, 1):
        device = DEVICE.replace("DEV_2F11", f"DEV_2F1{number}").replace("0&0001", f"0&000{number}")
        lines += [f"Enumerating installed drivers for {device} - {name}",
                  rf"Found driver {{store{number}}}\u04{number:05}.inf. Version [{RELEASE}]", MATCHING]
    listed = [f"\t [{name}] [{RELEASE}] [{{store{number}}}]" for number, name in enumerate(names, 1)]
    log = "\n".join([*opening("", "24.20"), *lines, LIST, *listed, SAME_EXIT]).split("\n")
    check(lab, outcome="same-release", exit_code=-1, boxes=[SAME_RELEASE], requests=[], log=log, after={"products": ["Tavik Halden 24.20"]})


def test_name_of_4000_characters_is_cut_in_the_log_and_nowhere_else(lab):
    name = "".join(f"{number:05}" for number in range(800))
    lab.run({"desktop": {"release": "24.20"}, "adapters": [{"description": name, "packages": [{"text": PLAIN_INF}]},
                                                           {"release": "24.10.1", "description": name[::-1] + " Microsoft",
                                                            "packages": []}]})
    one, _, other = inventory(description=name)[0].partition(DEVICE)
    second = DEVICE.replace("DEV_2F11", "DEV_2F12").replace("0&0001", "0&0002")
    lines = [f"{one}{DEVICE}{other}"[:1023], *inventory()[1:3], f"{one}{second} - {name[::-1]}"[:1023], LIST,
             f"\t [{name}"[:1023], SAME_EXIT]
    check(lab, outcome="same-release", exit_code=-1, boxes=[SAME_RELEASE], requests=[], log=[*opening("", "24.20"), *lines])
    assert max(map(len, lab.result.log)) == 1023


def test_name_of_4000_characters_of_another_maker(lab):
    name = "n" * 4000
    other = r"PCI\VEN_8086&DEV_46A6&SUBSYS_00000000&REV_0C\3&11583659&0&10"
    lab.run({"adapters": [{"id": other, "description": name, "packages": []}, {}], **NO_SERVER})
    device = inventory()
    check_ends_without_server(lab, [*opening(), *(line.replace("DEV_2F11", "DEV_2F12").replace("0&0001", "0&0002")
                                                  for line in device[:3]),
                                    f"[{name}"[:1023], *device[3:]])
