"""Killed at any point: the next run repairs the machine or says why it does not, and what it says is true.

Each row kills the tool at one point, then starts it again on the machine as it was left, without a rule that disturbs it. How the
second run must end follows from how far the first one came.
"""
from __future__ import annotations

from typing import Any

import pytest

from cases.support import expect
from cases.support.direct import MARKER as REPLACED, SWITCHES, application, given
from cases.support.download import PATH, TEMPORARY
from cases.support.expect import (FINISHED, INSTALL_FAILED, NOT_INSTALLED, REPAIR, SAME, SAME_RELEASE, download, inventory, opening, stop,
                                  unpack)
from cases.support.repair import FAMILIES, FOLDER, found, installs, products, removes, until_unpacked
from cases.support.store import CORVEL, EARLIER, INSTALLED, INSTALLS, NEWER, NOTHING, OTHER, package, store_only
from lab.result import Result

KILLED = 9
JUST_STARTED = ("taskkill.exe", "hlcmd.exe", "DWX2_Install.exe")
OLD, NEW = (products(release, *FAMILIES)["products"] for release in ("23.40", "24.20"))
MAIN = ["Tavik Halden 24.20"]
MARKER = FOLDER + r"\~.tmp"
HALDEN_FILE = r"C:\Program Files\Tavik\Halden\release.txt"
REPAIR_ALL = [*stop(), *removes(*FAMILIES), *installs(*FAMILIES)]

# How a second run ends: outcome, exit code, message box, last line of its log.
REPAIRS = ("repaired", 0, FINISHED, "\tResult = 0")
IS_SAME = ("same-release", -1, SAME_RELEASE, f"{SAME} Exiting.")
FINDS_NOTHING = ("no-application", -1, NOT_INSTALLED, f"{NOTHING} Exiting.")
GETS_IT_FROM_THE_STORE = ("store-installed", 0, FINISHED, INSTALLED)


def desktop(**changes: Any) -> dict[str, Any]:
    """All three families are installed, and the driver package brings the installer."""
    return found(desktop={"families": list(FAMILIES)}, **changes)


def exits(*calls: str) -> dict[str, Any]:
    """Rules that end the process at each of these numbered calls; text with "=" is a whole rule already."""
    return {"faults": [call if "=" in call else f"{call} exit={KILLED}" for call in calls]}


def kill_and_start_again(lab, machine: dict[str, Any], arguments: str = "", *, when: tuple[str, ...] = (),
                         then: str | None = None) -> Result:
    """Kills the tool by the machine's fault rules, or when the last trigger of `when` occurs, and starts it again."""
    actions = [*when[:-1], f"{when[-1]} : kill {KILLED}"] if when else []
    result = lab.run(machine, arguments, when=actions, then=arguments if then is None else then)
    # A program that the tool was just starting when it was killed from outside stays suspended.
    lab.check(exit_code=KILLED, running=[name for name in result.still_running if when and name in JUST_STARTED])
    assert all(action["done"] for action in result.actions) and len(result.actions) == len(when)
    assert len(result.instances) == 2
    return result


def check_second(lab, end: tuple, *, products: list[str], store: tuple[str, ...] = ()) -> None:
    result = lab.result
    outcome, code, box, last = end
    lab.outcome(f"interrupted, {outcome}")
    assert (result.again.exit_code, result.logs[-1][-1]) == (code, last)
    assert [(one["icon"], one["text"]) for one in result.again.boxes] == [box]
    assert (result.after.products, tuple(result.store_left)) == (products, store)
    assert not {MARKER, TEMPORARY} & set(result.after.files)


def check_log(lab, lines: list[str]) -> None:
    difference = expect.compare_log(lines, lab.result.logs[-1], expect.places(lab.machine, lab.result))
    assert not difference, difference


def check_point(result: Result, point: str) -> None:
    """Checks that the rule, and nothing else, ended the first run."""
    function, number = point.split(" ")[:2]
    ended = [line for line in result.calls if f"-> exit {KILLED} " in line]
    assert len(ended) == 1 and ended[0].startswith((f"{function}#{number} ", f"{function}#{number}->")), ended


# Nothing has been changed yet: the second run repairs as if it were the first.

# Proves: The tool is killed anywhere => the next start repairs the machine or says why it does not
@pytest.mark.parametrize("point", [
    "setupapi!SetupDiGetClassDevsW 1", "setupapi!SetupDiGetDriverInfoDetailW 2", "setupapi!SetupGetInfDriverStoreLocationW 1",
    "setupapi!SetupGetLineTextW 2", "setupapi!SetupDiDestroyDeviceInfoList 1", "msi!MsiEnumRelatedProductsW 1",
    "wtsapi32!WTSQuerySessionInformationW 1", "wtsapi32!WTSFreeMemory 2", "msi!MsiEnumRelatedProductsW 5", "msi!MsiGetProductInfoW 4",
    "msi!MsiInstallProductW 1"])
def test_before_anything_is_changed(lab, point):
    result = kill_and_start_again(lab, desktop(**exits(point)))
    check_point(result, point)
    check_second(lab, REPAIRS, products=NEW)
    check_log(lab, [*until_unpacked(), *REPAIR_ALL])


# Some packages have been replaced. Without its main package the desktop edition counts as not installed; with it, the second run
# misses no optional package.

@pytest.mark.parametrize("number, end, products", [
    (2, FINDS_NOTHING, [OLD[0], OLD[2]]), (3, FINDS_NOTHING, [OLD[2]]), (4, FINDS_NOTHING, []), (5, IS_SAME, MAIN), (6, IS_SAME, NEW[:2])])
def test_between_two_packages(lab, number, end, products):
    """The call with this number is never made. The calls are three removals, then three installations."""
    result = kill_and_start_again(lab, desktop(**exits(f"msi!MsiInstallProductW {number}")))
    check_point(result, f"msi!MsiInstallProductW {number}")
    check_second(lab, end, products=products)


@pytest.mark.parametrize("number, left", [(2, [OLD[0], OLD[2]]), (4, [])])
def test_without_the_main_package_the_store_edition_is_installed_when_forced(lab, number, left):
    kill_and_start_again(lab, desktop(**exits(f"msi!MsiInstallProductW {number}"), store={"service": {"installs": INSTALLS}}), then="-FORCE")
    check_second(lab, GETS_IT_FROM_THE_STORE, products=left, store=(NEWER,))


# Where no call can be intercepted, the kill comes as soon as something is seen, so not always at the same place.

@pytest.mark.parametrize("when", [
    ("start",), ("window",), ("log hlcmd.exe exit completed",), ("log Uninstalling installed Halden",), ("log Uninstalling installed PXL",),
    ("log Installing",), ("log dwx-next64.msi : wait 1", f"file {HALDEN_FILE}"), ("log PXL64.msi",)],
    ids=lambda value: value[-1].rpartition("\\")[2])
def test_as_soon_as_something_is_seen(lab, when):
    """The log of the first run decides how the second may end: after a kill in the middle of a package, in two ways."""
    result = kill_and_start_again(lab, desktop(), when=when)
    lab.outcome("interrupted | no-log, repaired | no-application | same-release")
    first = "\n".join(result.logs[0] if len(result.logs) == 2 else [])
    allowed = (REPAIRS,) if "Uninstalling" not in first else (FINDS_NOTHING, IS_SAME if "Result" in first else REPAIRS)
    end = next((one for one in allowed if (result.again.exit_code, result.logs[-1][-1]) == (one[1], one[3])), None)
    assert end is not None and [box["text"] for box in result.again.boxes] == [end[2][1]]
    halden = [name for name in result.after.products if "Halden" in name]
    # What is killed while it is registered can be listed already, without being found by its upgrade code.
    assert halden in (([], MAIN) if end is FINDS_NOTHING else (MAIN,))
    assert MARKER not in result.after.files


@pytest.mark.parametrize("seen", [MARKER, r"C:\lab\installer.txt"])
def test_while_the_installer_unpacks(lab, seen):
    """The installer goes on without the tool, while the second run starts another one for the same folder. If they collide, the second
    run fails as with any folder that cannot be prepared or any damaged package."""
    result = kill_and_start_again(lab, desktop(installer={"sleep": 800}), when=(f"file {seen}",))
    assert len(result.installer) <= 2 and not any("DWX2_Install" in line for line in result.log if line.startswith("Process"))
    if result.again.exit_code == 0:
        check_second(lab, REPAIRS, products=NEW)
    else:
        lab.outcome("interrupted, folder-not-prepared | installer-empty | install-package-unreadable | install-failed-other")
        assert result.again.exit_code in (-1, 2, 110, 1619, 1620, 1627)  # folder, package missing, in use, or cut short
        assert [box["text"] for box in result.again.boxes] == [INSTALL_FAILED[1]]


# While it downloads

@pytest.mark.parametrize("point, more", [
    ("InternetOpenW 1", ()), ("HttpOpenRequestW 1", ()), ("HttpSendRequestW 1", ()), ("InternetReadFile 1", ()),
    ("InternetReadFile 2", ("count=1",)), ("InternetReadFile 3", ("count=65536",)), ("InternetReadFile 2", ()),
    ("InternetCloseHandle 1", ())],
    ids=lambda value: " ".join(value) if isinstance(value, tuple) else value)
def test_while_it_downloads(lab, point, more):
    """Without a count the first read takes everything: at the second one the file is complete but not renamed."""
    result = kill_and_start_again(lab, exits(*(f"wininet!InternetReadFile * {rule}" for rule in more), f"wininet!{point}"))
    check_point(result, f"wininet!{point}")
    check_second(lab, REPAIRS, products=MAIN)
    check_log(lab, [*opening(), *inventory(), *download(), unpack(), *REPAIR])


@pytest.mark.quick
def test_while_the_server_is_slow(lab):
    kill_and_start_again(lab, {"server": {"answers": {PATH: {"installer": "24.20", "pause": [100_000, 1]}}}},
                         when=("text Downloading : wait 300", "text Downloading"))
    check_second(lab, REPAIRS, products=MAIN)


# The Store edition

@pytest.mark.parametrize("point, end", [
    *((point, GETS_IT_FROM_THE_STORE) for point in ("FindPackages 1", "VerifyIsOK 1", "GetDefault 1", "DownloadAndInstallStorePackagesAsync 1",
                                                    "put_Completed 1")),
    ("GetResults 1", IS_SAME), ("get_OverallState 1", IS_SAME)])
def test_while_the_store_edition_is_queried_or_installed(lab, point, end):
    kill_and_start_again(lab, store_only(package(), service={"installs": INSTALLS}, faults=[f"winrt!{point} exit={KILLED}"]))
    check_second(lab, end, products=[], store=(NEWER,))


# The Store packages are removed last, with the desktop edition in place: the second run has no reason to query the Store.
@pytest.mark.parametrize("point, left", [
    *((point, (CORVEL, EARLIER, OTHER)) for point in ("FindPackages 1", "RemovePackageWithOptionsAsync 1", "put_Completed 1")),
    *((point, (EARLIER, OTHER)) for point in ("GetResults 1", "get_ErrorText 1", "put_Completed 2")), ("get_ErrorText 2", (OTHER,))])
def test_while_the_store_edition_is_removed(lab, point, left):
    packages = [package(), package(EARLIER, "1.22.11.0"), package(OTHER, "11.2404.5.0")]
    kill_and_start_again(lab, found(store={"packages": packages}, faults=[f"winrt!{point} exit={KILLED}"]))
    check_second(lab, IS_SAME, products=MAIN, store=left)


# At the end

@pytest.mark.parametrize("machine, end, products", [
    (desktop(), IS_SAME, NEW), (found(desktop=False), FINDS_NOTHING, []), (found(desktop={"release": "24.20"}), IS_SAME, MAIN)],
    ids=["finished", "nothing installed", "same release"])
def test_while_a_box_is_up(lab, machine, end, products):
    kill_and_start_again(lab, machine, when=("box",))
    check_second(lab, end, products=products)


# Direct installation

@pytest.mark.parametrize("point, was_missing, families", [
    ("msi!MsiEnumRelatedProductsW 1", True, FAMILIES), ("wtsapi32!WTSQuerySessionInformationW 2", True, FAMILIES),
    ("msi!MsiInstallProductW 1", True, FAMILIES), ("msi!MsiInstallProductW 2", False, FAMILIES[:1]),
    ("msi!MsiInstallProductW 3", False, FAMILIES[:2]), ("winrt!FindPackages 1", False, FAMILIES),
    ("winrt!put_Completed 1", False, FAMILIES), ("winrt!get_ErrorText 1", False, FAMILIES), ("", True, FAMILIES)],
    ids=lambda value: value or "the application starts" if isinstance(value, str) else "")
def test_direct_installation(lab, point, was_missing, families):
    """After the main package is installed, a second run reinstalls it, does not remove the Store edition and writes no marker,
    unless the first run has done both."""
    packages = {"packages": [package()]}
    if point:
        result = kill_and_start_again(lab, given(store=packages, **exits(point)), SWITCHES)
    else:
        result = kill_and_start_again(lab, given(store=packages, programs={"CorvelSoftware.exe.stay": 300}), SWITCHES,
                                      when=(r"file C:\lab\programs.txt",))
    lab.outcome("interrupted, direct-done")
    assert (result.again.exit_code, result.boxes, result.again.boxes) == (0, [], [])
    assert result.after.products == products("24.20", *families)["products"]
    assert result.after.value(*REPLACED.rsplit("\\", 1)) == (1 if was_missing else None)
    assert result.store_left == ([] if was_missing or "get_ErrorText" in point else [CORVEL])
    assert [line.startswith("CorvelSoftware.exe") for line in result.programs].count(True) == (1 if point else 2)
    assert result.logs[-1][-1] == application()
