"""Files that are not what they should be: driver packages full of rubbish, links where the tool cleans up, files in use."""
from __future__ import annotations

import random
from typing import Any

import pytest

from cases.support.expect import DOWNLOAD_FAILED, FINISHED, INSTALL_FAILED, download, inventory, opening, unpack
from cases.support.hostile import (AFTER, BEFORE, DOWNLOADS, EXTRACTED, FINAL, INSTALLER, MAIN_PACKAGE, NO_SERVER, REPAIR,
                             TEMPORARY, check, check_ends_without_server, download_thrown, found_there, host_path,
                             install_thrown, not_started, until_found)
from lab import inf
from lab.adapters import RELEASE, Package

NAME = "u0400001.inf"
STORE = Package(name="u0400001").store_folder()
GOOD = inf.text("u", "Adapter", r"PCI\VEN_1E7D&DEV_2F11", RELEASE)
HEAD = '[Version]\r\nSignature="$Windows NT$"\r\n'
LINE = f"HKR,,ReleaseVersion,,{RELEASE}\r\n"
LIST = "Currently installed drivers on system:"
PATH = "/drivers/installer/vlt/24.20/dwx2_install.txt"
UPDATE_FAILED = ("error", "Update failed. Please visit www.tavik.example to install the appropriate driver.")
MEBIBYTE = 1 << 20
PATIENCE = 30_000  # ms; a fifth of that without other work on the computer


def noise(size: int, *avoid: int) -> str:
    return bytes(byte for byte in random.Random(20241106).randbytes(size) if byte not in avoid).hex()


# Driver packages. Windows itself has read the package when it was published, so only the copy in the driver store is spoilt.

def spoilt(content: Any) -> dict[str, Any]:
    return {"adapters": [{"packages": [{"files": {NAME: content}}]}], **NO_SERVER}


def seen(version: str) -> list[str]:
    """The lines of an adapter whose one package tells this release."""
    device = inventory()
    if version == RELEASE:
        return device
    return [device[0], rf"Found driver {{store1}}\{NAME}. Version [{version}]", device[3],
            f"\t [Tavik Corvel 7800] [{RELEASE}] []"]


def check_cost(lab, megabytes: int = 64) -> None:
    tool = lab.result.instances[0]
    assert tool["ended"] - tool["started"] < PATIENCE
    assert 0 < tool["peak_memory"] < megabytes * MEBIBYTE, "memory of the tool"


def check_read(lab, version: str, megabytes: int = 64) -> None:
    """The rest of the run goes its way, in little time and memory."""
    check_ends_without_server(lab, [*opening(), *seen(version)], folder="{store1}" if version == RELEASE else "")
    check_cost(lab, megabytes)


def sections(count: int) -> str:
    return "".join(f"[Section{number}]\r\nValue={number}\r\n" for number in range(count))


LONG = 64 * MEBIBYTE
UNREADABLE = {
    "empty": {"size": 0},
    "one bracket": "[",
    "brackets": "[" * 5000 + "]" * 5000,
    "no sections": "; nothing but a comment\r\n" * 100,
    "noise": {"hex": noise(300_000)},
    "noise behind a good header": {"hex": HEAD.encode().hex() + noise(300_000)},
    "noise without line ends": {"hex": noise(300_000, 10, 13)},
    "nulls": {"size": 300_000},
    "UTF-16, other byte order": {"hex": ("\ufeff" + GOOD).encode("utf-16-be").hex()},
    "UTF-16 without a mark": {"hex": GOOD.encode("utf-16-le").hex()},
    "half a character": {"hex": ("\ufeff" + GOOD).encode("utf-16-le").hex() + "5b"},
    "end mark at once": {"hex": "1a" + GOOD.encode().hex()},
    "carriage returns only": GOOD.replace("\r\n", "\r"),
    "a folder": {"folder": True},
    "a link to nothing": {"link": "/nowhere"},
}


def spoilt_ones(contents: dict[str, Any]) -> dict[str, Any]:
    """Packages of one adapter, in the order given: the system takes them in the order of their names."""
    packages = [{"inf": f"oem{number:02}.inf", "files": {f"u04{number:05}.inf": content}}
                for number, content in enumerate(contents.values(), 1)]
    return {"adapters": [{"packages": packages}], **NO_SERVER}


# Proves: A driver package is huge, empty, noise, UTF-16, has 20,000 sections, or is in use => it tells a release or none; the run goes on
def test_packages_that_tell_no_release(lab):
    lab.run(spoilt_ones(UNREADABLE))
    device = inventory()
    lines = [rf"Found driver {{store{number}}}\u04{number:05}.inf. Version []" for number in range(1, len(UNREADABLE) + 1)]
    check_ends_without_server(lab, [*opening(), device[0], *lines, device[3], f"\t [Tavik Corvel 7800] [{RELEASE}] []"],
                              folder="")
    check_cost(lab)


READABLE = {
    "line feeds only": GOOD.replace("\r\n", "\n"),
    "last line without an end": HEAD + "[A]\r\n" + LINE.rstrip(),
    "end mark behind it": {"hex": (GOOD.encode() + b"\x1a" + b"[B]\r\nHKR,,ReleaseVersion,,1.0\r\n").hex()},
    "noise in a comment": {"hex": (GOOD.encode() + b";").hex() + noise(100_000, 0, 10, 13, 26)},
    "1,500 sections before it": HEAD + sections(1500) + "[Last]\r\n" + LINE,
    "one section 150 times": HEAD + ("[Same]\r\n" + LINE) * 150,
    "20,000 lines in one section": HEAD + "[Many]\r\n" + "HKR,,Other,,1\r\n" * 20_000 + LINE,
}


def test_packages_that_tell_their_release(lab):
    lab.run(spoilt_ones(READABLE))
    device = inventory()
    lines = []
    for number in range(1, len(READABLE) + 1):
        lines += [rf"Found driver {{store{number}}}\u04{number:05}.inf. Version [{RELEASE}]", device[2]]
    last = f"{{store{len(READABLE)}}}"
    check_ends_without_server(lab, [*opening(), device[0], *lines, device[3], f"\t [Tavik Corvel 7800] [{RELEASE}] [{last}]"],
                              folder=last)
    check_cost(lab, 128)


@pytest.mark.parametrize("parts, version, megabytes", [
    ([HEAD, 200 * MEBIBYTE], "", 700),
    ([HEAD, "[A]\r\n", LINE, [";" + "x" * 1023 + "\r\n", 200 * 1024]], RELEASE, 700),
    ([HEAD, "[A]\r\n", LINE, "[", ["x", LONG], "\r\n"], "", 300),
    (["[", ["[", LONG], "]\r\n", GOOD], "", 420),
    ([["x", LONG]], "", 300),
], ids=["200 MB of nulls", "200 MB of comments", "64 MiB behind a bracket", "64 MiB of brackets", "64 MiB without an end"])
def test_package_is_huge(lab, parts, version, megabytes):
    lab.run(spoilt({"parts": parts}))
    check_read(lab, version, megabytes)


def test_package_with_20000_sections(lab):
    """The system at hand takes a minute to open such a file, and longer to look into it. So it is not asked."""
    rules = ["setupapi!SetupOpenInfFileW * return=77", "setupapi!SetupFindFirstLineW * error=3758096642",
             "setupapi!SetupCloseInfFile * return=0"]
    lab.run({**spoilt(HEAD + sections(20_000)), "faults": rules})
    check_read(lab, "")
    asked = [line.partition('section="')[2].partition('"')[0] for line in lab.result.calls
             if line.startswith("setupapi!SetupFindFirstLineW")]
    assert asked == ["Version", *(f"Section{number}" for number in range(20_000))]


def test_package_is_in_use(lab):
    lab.run({**spoilt(GOOD), "held": [rf"{STORE}\{NAME}"]})
    check_read(lab, "")


@pytest.mark.quick
def test_driver_folder_is_missing(lab):
    lab.run({**spoilt(GOOD), "remove": [STORE]})
    check_read(lab, "")


def test_installer_of_the_package_is_in_use(lab):
    """It is there, so it is not downloaded, whatever comes of it."""
    lab.run(found_there(held=[rf"{STORE}\B384125\DWX2_Install.exe"]))
    check(lab, outcome="installer-blocked", exit_code=2, boxes=[INSTALL_FAILED], before=BEFORE, after=BEFORE, log=[
        *until_found(), not_started(INSTALLER, EXTRACTED, "32"),
        f"Unable to find {EXTRACTED}{MAIN_PACKAGE}."])


def test_installer_of_the_package_is_a_link_to_nothing(lab):
    lab.run({"adapters": [{"packages": [{"files": {r"B384125\DWX2_Install.exe": {"link": "/nowhere"}}}]}], **NO_SERVER})
    check_ends_without_server(lab, [*opening(), *inventory()])


# The download folder

@pytest.mark.parametrize("target", [FINAL, TEMPORARY], ids=["final", "temporary"])
def test_folder_appears_in_the_files_place_during_the_download(lab, target):
    """The old file was removed before; what stands there now, and is no empty folder, cannot be."""
    body = {"size": 3_000_000, "pause": [1_000_000, 1.5]}
    if target == TEMPORARY:
        lab.run({"server": {"answers": {PATH: body}}, "files": {TEMPORARY + r"\mine.txt": "mine"}})
        lines = download()[:2]
    else:
        lab.run({"server": {"answers": {PATH: body}}}, when=[f"file {TEMPORARY} : run cmd /c md {FINAL}\\mine"])
        lines = [*download()[:3], "Completed download. Total bytes downloaded: 3000000"]
    check(lab, outcome="download-file-in-the-way", exit_code=-1, boxes=[DOWNLOAD_FAILED], before=BEFORE, after={**BEFORE, "files": [target, TEMPORARY]},
          log=[*opening(), *inventory(), *lines, *download_thrown(f"filesystem error: remove: {{any}} [{target}]")])


@pytest.mark.parametrize("target", [FINAL, TEMPORARY], ids=["final", "temporary"])
def test_empty_folder_in_the_files_place_is_removed(lab, target):
    lab.run({"files": {target: {"folder": True}}})
    check(lab, outcome="repaired", exit_code=0, boxes=[FINISHED], requests=[f"{PATH} 200"], before={**BEFORE, "files": [target]},
          after={**AFTER, "files": [FINAL], "missing": [TEMPORARY]},
          log=[*opening(), *inventory(), *download(), unpack(), *REPAIR])
    assert lab.result.after.files[FINAL] > 100_000


@pytest.mark.parametrize("key", ["held", "read_only"])
def test_both_old_files_cannot_be_removed(lab, key):
    """The final one is tried first, so the temporary one stays even when it could go."""
    lab.run({"files": {FINAL: "old", TEMPORARY: "older"}, key: [FINAL]}, "-SILENT")
    check(lab, outcome="download-file-in-the-way", exit_code=-1, boxes=[], requests=[], before={**BEFORE, "files": [FINAL, TEMPORARY]},
          after={**BEFORE, "files": [FINAL, TEMPORARY]},
          log=[*opening("-SILENT"), *inventory(), *download()[:2],
               *download_thrown(f"filesystem error: remove: {{any}} [{FINAL}]")])
    assert (lab.result.after.files[FINAL], lab.result.after.files[TEMPORARY]) == (3, 5)


def test_second_name_of_an_old_file_is_left_alone(lab):
    """The old download is a second name of somebody else's file: only the name goes, the file is not written into."""
    lab.run({"files": {r"C:\Victim\file.txt": "precious", FINAL: {"same": r"C:\Victim\file.txt"},
                       TEMPORARY: {"same": r"C:\Victim\file.txt"}}})
    check(lab, outcome="repaired", exit_code=0, boxes=[FINISHED], requests=[f"{PATH} 200"], before={**BEFORE, "files": [FINAL, TEMPORARY]},
          after=AFTER)
    assert host_path(lab.result, r"C:\Victim\file.txt").read_text() == "precious"


# Links in the extraction folder. A link to a folder is not entered. The system at hand cannot remove such a link, as it
# takes it for the folder behind it: so the run ends with the link, and everything behind it is as before.

VICTIM = r"C:\Victim"
TREE = {VICTIM + r"\a.txt": "precious", VICTIM + r"\sub\b.txt": "too", VICTIM + r"\sub\deep\c.txt": "three"}


def check_victim(lab) -> None:
    for path, text in TREE.items():
        assert host_path(lab.result, path).read_text() == text
    assert {path: size for path, size in lab.result.after.files.items() if path.startswith(VICTIM)} == {
        path: size for path, size in lab.result.before.files.items() if path.startswith(VICTIM)}


# Proves: The extraction or download folder holds links, or is one => what they lead to survives
@pytest.mark.parametrize("place", [EXTRACTED, EXTRACTED + r"\link", EXTRACTED + r"\HL\halden\link",
                                   EXTRACTED + "\\" + "\\".join("abcdefgh") + r"\link"],
                         ids=["the folder itself", "in it", "deeper", "very deep"])
def test_link_to_a_folder_is_not_followed(lab, place):
    lab.run(found_there(files={**TREE, place: {"link": VICTIM}}))
    check(lab, outcome="folder-not-prepared", exit_code=-1, boxes=[INSTALL_FAILED], before={**BEFORE, "files": [*TREE, place]},
          after={**BEFORE, "files": list(TREE)},
          log=[*until_found(), install_thrown(f"filesystem error: remove_all: {{any}} [{EXTRACTED}] [{place}]")])
    check_victim(lab)
    assert lab.result.installer == []


def test_link_to_the_folder_above_is_no_endless_loop(lab):
    place = EXTRACTED + r"\loop"
    lab.run(found_there(files={EXTRACTED + r"\old.txt": "old", place: {"link": DOWNLOADS}, DOWNLOADS + r"\other.txt": "other"}))
    check(lab, outcome="folder-not-prepared", exit_code=-1, boxes=[INSTALL_FAILED], before=BEFORE, after={**BEFORE, "files": [DOWNLOADS + r"\other.txt"]},
          log=[*until_found(), install_thrown(f"filesystem error: remove_all: {{any}} [{EXTRACTED}] [{place}]")])


def test_link_to_nothing_is_no_victim(lab):
    """The system at hand does not show such a link at all; the folder around it is not empty then."""
    place = EXTRACTED + r"\HL\gone"
    lab.run(found_there(files={**TREE, place: {"link": VICTIM + r"\not there"}}))
    check(lab, outcome="folder-not-prepared", exit_code=-1, boxes=[INSTALL_FAILED], before=BEFORE, after=BEFORE,
          log=[*until_found(), install_thrown(rf"filesystem error: remove_all: {{any}} [{EXTRACTED}] [{EXTRACTED}\HL]")])
    check_victim(lab)


def test_download_folder_is_a_link(lab):
    """Parents are followed: the tool works in the folder behind the link, and touches just its own there."""
    lab.run(found_there(files={**TREE, VICTIM + r"\LPInstaller\old.txt": "an older run's", DOWNLOADS: {"link": VICTIM}}))
    check(lab, VICTIM, outcome="repaired", exit_code=0, boxes=[FINISHED], before=BEFORE, after={
        **AFTER, "files": [*TREE, VICTIM + r"\LPInstaller" + MAIN_PACKAGE], "missing": [VICTIM + r"\LPInstaller\old.txt"]},
        log=[*until_found(), unpack(INSTALLER), *REPAIR])
    for path, text in TREE.items():
        assert host_path(lab.result, path).read_text() == text


@pytest.mark.parametrize("depth", [0, 1, 6])
def test_second_names_of_files_go_and_the_files_stay(lab, depth):
    folder = EXTRACTED + "".join(rf"\d{number}" for number in range(depth))
    lab.run(found_there(files={**TREE, **{rf"{folder}\link{number}": {"same": path} for number, path in enumerate(TREE)}}))
    check(lab, outcome="repaired", exit_code=0, boxes=[FINISHED], before={**BEFORE, "files": [rf"{folder}\link0"]},
          after={**AFTER, "missing": [rf"{EXTRACTED}\d0", rf"{folder}\link0"]},
          log=[*until_found(), unpack(INSTALLER), *REPAIR])
    check_victim(lab)


def test_another_disk_in_the_extraction_folder_is_not_entered(lab):
    place = EXTRACTED + r"\mounted"
    lab.run(found_there(disks={place: 65536}))
    check(lab, outcome="folder-not-prepared", exit_code=-1, boxes=[INSTALL_FAILED], before=BEFORE, after={**BEFORE, "files": [place]},
          log=[*until_found(), install_thrown(f"filesystem error: remove_all: {{any}} [{EXTRACTED}] [{{any}}]")])


# Files in use

def check_quick(lab) -> None:
    tool = lab.result.instances[0]
    assert tool["ended"] - tool["started"] < 10_000  # two seconds, on a computer with nothing else to do


# Proves: An old file there is in use => the run ends at once with the "remove_all" error
@pytest.mark.parametrize("place", [r"\old.txt", r"\HL\halden\halden64\dwx-next64.msi"], ids=["in it", "deeper"])
@pytest.mark.parametrize("how", ["held", "shared"])
def test_file_in_use_ends_the_run_at_once(lab, how, place):
    """One that others may delete is only marked: it goes when it is closed, and until then its folder is not empty."""
    path = EXTRACTED + place
    lab.run(found_there(files={path: "old"}, **{how: [path]}))
    blocked = path if how == "held" else path.rpartition("\\")[0]
    check(lab, outcome="folder-not-prepared", exit_code=-1, boxes=[INSTALL_FAILED], before={**BEFORE, "files": [path]},
          after={**BEFORE, "files": [path] if how == "held" else []},
          log=[*until_found(), install_thrown(f"filesystem error: remove_all: {{any}} [{EXTRACTED}] [{blocked}]")])
    check_quick(lab)
    assert lab.result.installer == []


@pytest.mark.parametrize("how", ["held", "shared"])
def test_file_in_use_ends_direct_installation_at_once(lab, how):
    given, path = r"C:\Given\setup.exe", EXTRACTED + r"\old.txt"
    arguments = f"-VLT -Install -Path {given}"
    lab.run({"desktop": False, "server": {"reach": "none"}, "files": {given: {"installer": "24.20"}, path: "old"}, how: [path]},
            arguments)
    blocked = path if how == "held" else EXTRACTED
    check(lab, outcome="folder-not-prepared", exit_code=-1, boxes=[UPDATE_FAILED],
          before={"products": []}, after={"products": [], "files": [given]},
          log=[opening(arguments)[0], install_thrown(f"filesystem error: remove_all: {{any}} [{EXTRACTED}] [{blocked}]")])
    check_quick(lab)


# Much to clean up

@pytest.mark.parametrize("names", [
    [rf"\many\file {number}" for number in range(1500)],
    ["".join(rf"\{'d' * 40}" for _ in range(depth)) + r"\file" for depth in (1, 10, 60)],
    ["".join(r"\d" for _ in range(200)) + r"\file"],
    [r"\☃\Übung", r"\ leading", r"\.hidden", r"\a;b,c=d %TEMP% 'q'", r"\~.tmp"],
], ids=["1,500 files", "paths of 2,500 characters", "200 folders deep", "odd names"])
def test_whatever_an_earlier_run_left_is_gone(lab, names):
    old = [EXTRACTED + name for name in names]
    lab.run(found_there(files={path: "old" for path in old}))
    check(lab, outcome="repaired", exit_code=0, boxes=[FINISHED], before={**BEFORE, "files": old}, after={**AFTER, "missing": old},
          log=[*until_found(), unpack(INSTALLER), *REPAIR])


def test_file_that_has_a_devices_name_cannot_be_removed(lab):
    """Some other system has put it there; Windows takes the name for the device."""
    path = EXTRACTED + r"\NUL"
    lab.run(found_there(files={path: "odd"}))
    check(lab, outcome="folder-not-prepared", exit_code=-1, boxes=[INSTALL_FAILED], before={**BEFORE, "files": [path]}, after={**BEFORE, "files": [path]},
          log=[*until_found(), install_thrown(f"filesystem error: remove_all: {{any}} [{EXTRACTED}] [{path}]")])
