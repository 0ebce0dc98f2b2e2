"""Files that are not what they should be: damaged driver packages, links where the tool cleans up, files in use."""
from __future__ import annotations

import random
from typing import Any

import pytest

from cases.support.download import FINAL, PATH, TEMPORARY
from cases.support.expect import (DOWNLOADS, EXTRACTED, IN_USE, MAIN_PACKAGE_MISSING, NO_SERVER, NOT_DOWNLOADED, download, inventory,
                                  not_started, opening)
from cases.support.repair import INSTALLER, PACKAGES, found, until_found
from cases.support.unusual import (DOWNLOADED, MEBIBYTE, check, check_ends_without_server, check_not_prepared, check_repaired,
                                   not_downloaded)
from lab import inf
from lab.adapters import RELEASE, Package
from lab.prefix import wine_version

NAME = "u0400001.inf"
STORE = Package(name="u0400001").store_folder()
GOOD_INF = inf.text("u", "Adapter", r"PCI\VEN_1E7D&DEV_2F11", RELEASE)
HEAD = '[Version]\r\nSignature="$Windows NT$"\r\n'
LINE = f"HKR,,ReleaseVersion,,{RELEASE}\r\n"
LONG = 64 * MEBIBYTE
PATIENCE = 30_000  # ms; five times what an idle computer needs


def noise(size: int, *avoid: int) -> str:
    return bytes(byte for byte in random.Random(20241106).randbytes(size) if byte not in avoid).hex()


def sections(count: int) -> str:
    return "".join(f"[Section{number}]\r\nValue={number}\r\n" for number in range(count))


# Driver packages. Windows itself has read the package when it was published, so only the copy in the driver store is damaged.

def damaged(*contents: Any, **changes: Any) -> dict[str, Any]:
    """Packages of one adapter, in the order given: the system takes them in the order of their names."""
    packages = [{"inf": f"oem{number:02}.inf", "files": {f"u04{number:05}.inf": content}} for number, content in enumerate(contents, 1)]
    return {"adapters": [{"packages": packages}], **NO_SERVER, **changes}


def check_packages(lab, *releases: str, megabytes: int = 64) -> None:
    """These releases are read from the packages; the run goes on, and needs little time and memory."""
    device = inventory()
    lines, active = [], ""
    for number, release in enumerate(releases, 1):
        lines.append(rf"Found driver {{store{number}}}\u04{number:05}.inf. Version [{release}]")
        if release == RELEASE:
            lines.append(device[2])
            active = f"{{store{number}}}"
    check_ends_without_server(lab, device[0], *lines, device[3], f"\t [Tavik Corvel 7800] [{RELEASE}] [{active}]", folder=active)
    tool = lab.result.instances[0]
    assert tool["ended"] - tool["started"] < PATIENCE
    assert 0 < tool["peak_memory"] < megabytes * MEBIBYTE, "memory of the tool"


UNREADABLE = {
    "empty": {"size": 0},
    "one bracket": "[",
    "brackets": "[" * 5000 + "]" * 5000,
    "no sections": "; nothing but a comment\r\n" * 100,
    "noise": {"hex": noise(300_000)},
    "noise behind a good header": {"hex": HEAD.encode().hex() + noise(300_000)},
    "noise without line ends": {"hex": noise(300_000, 10, 13)},
    "nulls": {"size": 300_000},
    "UTF-16, other byte order": {"hex": ("\ufeff" + GOOD_INF).encode("utf-16-be").hex()},
    "UTF-16 without a mark": {"hex": GOOD_INF.encode("utf-16-le").hex()},
    "half a character": {"hex": ("\ufeff" + GOOD_INF).encode("utf-16-le").hex() + "5b"},
    "end mark at once": {"hex": "1a" + GOOD_INF.encode().hex()},
    "carriage returns only": GOOD_INF.replace("\r\n", "\r"),
    "a folder": {"folder": True},
    "a link to nothing": {"link": "/nowhere"},
}
READABLE = {
    "line feeds only": GOOD_INF.replace("\r\n", "\n"),
    "last line without an end": HEAD + "[A]\r\n" + LINE.rstrip(),
    "end mark behind it": {"hex": (GOOD_INF.encode() + b"\x1a" + b"[B]\r\nHKR,,ReleaseVersion,,1.0\r\n").hex()},
    "noise in a comment": {"hex": (GOOD_INF.encode() + b";").hex() + noise(100_000, 0, 10, 13, 26)},
    "1,500 sections before it": HEAD + sections(1500) + "[Last]\r\n" + LINE,
    "one section 150 times": HEAD + ("[Same]\r\n" + LINE) * 150,
    "20,000 lines in one section": HEAD + "[Many]\r\n" + "HKR,,Other,,1\r\n" * 20_000 + LINE,
}


# Proves: A driver package is huge, empty, noise, UTF-16, has 20,000 sections, or is in use => it tells a release or none; the run goes on
@pytest.mark.parametrize("contents, release, megabytes", [(UNREADABLE, "", 64), (READABLE, RELEASE, 128)], ids=["unreadable", "readable"])
def test_damaged_packages_tell_their_release_or_none(lab, contents, release, megabytes):
    lab.run(damaged(*contents.values()))
    check_packages(lab, *[release] * len(contents), megabytes=megabytes)


@pytest.mark.parametrize("parts, release, megabytes", [
    ([HEAD, 200 * MEBIBYTE], "", 700),
    ([HEAD, "[A]\r\n", LINE, [";" + "x" * 1023 + "\r\n", 200 * 1024]], RELEASE, 700),
    ([HEAD, "[A]\r\n", LINE, "[", ["x", LONG], "\r\n"], "", 300),
    ([["x", LONG]], "", 300),
], ids=["200 MB of nulls", "200 MB of comments", "64 MiB behind a bracket", "64 MiB without an end"])
def test_package_is_huge(lab, parts, release, megabytes):
    lab.run(damaged({"parts": parts}))
    check_packages(lab, release, megabytes=megabytes)


def test_package_with_20000_sections(lab):
    """Wine would take a minute to open such a file, and longer to search it, so the call is not forwarded to it."""
    rules = ["setupapi!SetupOpenInfFileW * return=77", "setupapi!SetupFindFirstLineW * error=3758096642",
             "setupapi!SetupCloseInfFile * return=0"]
    lab.run(damaged(HEAD + sections(20_000), faults=rules))
    check_packages(lab, "")
    asked = [line.partition('section="')[2].partition('"')[0] for line in lab.result.calls
             if line.startswith("setupapi!SetupFindFirstLineW")]
    assert asked == ["Version", *(f"Section{number}" for number in range(20_000))]


@pytest.mark.parametrize("change", [{"held": [rf"{STORE}\{NAME}"]}, {"remove": [STORE]}], ids=["in use", "folder missing"])
def test_package_cannot_be_opened(lab, change):
    lab.run(damaged(GOOD_INF, **change))
    check_packages(lab, "")


@pytest.mark.quick
def test_installer_of_the_package_is_in_use(lab):
    """It is there, so none is downloaded, although it cannot be started."""
    lab.run(found(held=[rf"{STORE}\B384125\DWX2_Install.exe"]))
    check(lab, outcome="installer-blocked",
          log=[*until_found(), not_started(INSTALLER, code=IN_USE), MAIN_PACKAGE_MISSING])


# The download folder

def test_folder_appears_in_the_files_place_during_the_download(lab):
    """The old file was removed before; the folder there now is not empty, so it cannot be removed."""
    lab.run({"server": {"answers": {PATH: {"size": 3_000_000, "pause": [1_000_000, 1.5]}}}},
            when=[f"file {TEMPORARY} : run cmd /c md {FINAL}\\mine"])
    check(lab, outcome="download-file-in-the-way", after={"files": [FINAL, TEMPORARY]},
          log=[*opening(), *inventory(), *download()[:3], "Completed download. Total bytes downloaded: 3000000", not_downloaded(FINAL),
               NOT_DOWNLOADED])


@pytest.mark.parametrize("target", [FINAL, TEMPORARY], ids=["final", "temporary"])
def test_empty_folder_in_the_files_place_is_removed(lab, target):
    lab.run({"files": {target: {"folder": True}}})
    check_repaired(lab, **DOWNLOADED, before={"files": [target]}, after={"files": [FINAL], "missing": [TEMPORARY]})
    assert lab.result.after.files[FINAL] > 100_000


def test_second_name_of_an_old_file_is_left_alone(lab):
    """The old download is a second name of another file: only the name goes, the file is not written into."""
    other = r"C:\Victim\file.txt"
    lab.run({"files": {other: "precious", FINAL: {"same": other}, TEMPORARY: {"same": other}}})
    check_repaired(lab, **DOWNLOADED, before={"files": [FINAL, TEMPORARY]})
    assert lab.result.file(other).read_text() == "precious"


# The extraction folder. A link to a folder is not entered. Wine cannot remove such a link, as it takes it for the folder behind it:
# so the run ends with the link, and everything behind it is as before. A link to nothing is not shown at all. Of the extraction folder
# itself and of the folder with a link to nothing Wine 10 says that they are removed, although they stay: so the run goes on.

VICTIM = r"C:\Victim"
TREE = {VICTIM + r"\a.txt": "precious", VICTIM + r"\sub\b.txt": "too", VICTIM + r"\sub\deep\c.txt": "three"}
DEEP = r"\HL\halden\halden64\dwx-next64.msi"


def check_victim(lab) -> None:
    for path, text in TREE.items():
        assert lab.result.file(path).read_text() == text


def link(place: str, target: str = VICTIM, **more: Any) -> dict[str, Any]:
    return {"files": {**TREE, EXTRACTED + place: {"link": target}, **more}}


# Proves: The extraction or download folder holds links, or is one => what they lead to survives
@pytest.mark.parametrize("machine, place", [
    *((link(place), place) for place in ("", r"\link", r"\HL\halden\link", r"\a\b\c\d\e\f\g\h\link")),
    (link(r"\loop", DOWNLOADS, **{EXTRACTED + r"\old.txt": "old", DOWNLOADS + r"\other.txt": "other"}), r"\loop"),
    (link(r"\HL\gone", VICTIM + r"\not there"), r"\HL"),
], ids=["the folder itself", "in it", "deeper", "very deep", "to the folder above", "to nothing"])
def test_link_in_the_extraction_folder_is_not_followed(lab, machine, place):
    lab.run(found(**machine))
    kept = [path for path in machine["files"] if not path.startswith(EXTRACTED)]
    states = {"before": {"files": [*kept, EXTRACTED + place]}, "after": {"files": kept}}
    if wine_version() >= 10 and place in ("", r"\HL"):
        check_repaired(lab, *([] if place else [VICTIM + r"\HL"]), **states)
    else:
        check_not_prepared(lab, EXTRACTED + place, **states)
    check_victim(lab)


def test_download_folder_is_a_link(lab):
    """Parents are followed: the tool works in the folder that the link leads to, and touches only its own files there."""
    lab.run(found(files={**TREE, VICTIM + r"\LPInstaller\old.txt": "from an older run", DOWNLOADS: {"link": VICTIM}}))
    check_repaired(lab, VICTIM, after={"files": [*TREE, VICTIM + r"\LPInstaller" + PACKAGES["Halden"]],
                                       "missing": [VICTIM + r"\LPInstaller\old.txt"]})
    check_victim(lab)


@pytest.mark.parametrize("depth", [0, 6])
def test_second_names_of_files_go_and_the_files_stay(lab, depth):
    folder = EXTRACTED + "".join(rf"\d{number}" for number in range(depth))
    lab.run(found(files={**TREE, **{rf"{folder}\link{number}": {"same": path} for number, path in enumerate(TREE)}}))
    check_repaired(lab, before={"files": [rf"{folder}\link0"]}, after={"missing": [rf"{EXTRACTED}\d0", rf"{folder}\link0"]})
    check_victim(lab)


def test_another_disk_in_the_extraction_folder_is_not_entered(lab):
    place = EXTRACTED + r"\mounted"
    lab.run(found(disks={place: 65536}))
    check_not_prepared(lab, "{any}", after={"files": [place]})


# Files in use

# Proves: An old file there is in use => the run ends at once with the "remove_all" error
@pytest.mark.parametrize("place", [r"\old.txt", DEEP], ids=["in it", "deeper"])
@pytest.mark.parametrize("how", ["held", "shared"])
def test_file_in_use_ends_the_run_at_once(lab, how, place):
    """Wine 8 only marks a file that others may delete: until it is closed its folder is not empty. Wine 10 removes it at once, as Windows."""
    path = EXTRACTED + place
    lab.run(found(files={path: "old"}, **{how: [path]}))
    if how == "shared" and wine_version() >= 10:
        check_repaired(lab, before={"files": [path]}, after={"missing" if path.endswith("txt") else "files": [path]})
    else:
        check_not_prepared(lab, path if how == "held" else path.rpartition("\\")[0], before={"files": [path]},
                           after={"files": [path] if how == "held" else []})
    tool = lab.result.instances[0]
    assert tool["ended"] - tool["started"] < 10_000  # two seconds on an idle computer


# Much to clean up

@pytest.mark.parametrize("names", [
    [rf"\many\file {number}" for number in range(500)],
    ["".join(rf"\{'d' * 40}" for _ in range(depth)) + r"\file" for depth in (1, 10, 60)],
    ["".join(r"\d" for _ in range(200)) + r"\file"],
    [r"\☃\Übung", r"\ leading", r"\.hidden", r"\a;b,c=d %TEMP% 'q'", r"\~.tmp"],
], ids=["500 files", "paths of 2,500 characters", "200 folders deep", "odd names"])
def test_files_of_an_earlier_run_are_removed(lab, names):
    old = [EXTRACTED + name for name in names]
    lab.run(found(files={path: "old" for path in old}))
    check_repaired(lab, before={"files": old}, after={"missing": old})


def test_file_with_the_name_of_a_device_cannot_be_removed(lab):
    """Another system has put it there; Windows takes the name for the device."""
    path = EXTRACTED + r"\NUL"
    lab.run(found(files={path: "odd"}))
    check_not_prepared(lab, path, before={"files": [path]}, after={"files": [path]})
