"""Killed at any point: the next run finds its way, and what it then says about the machine is true.

Each row kills the tool at one point, then starts it again on the machine as it was left, with nothing in its way. What
has to come of that second run follows from how far the first one came.
"""
from __future__ import annotations

from typing import Any

import pytest

from cases.support import expect
from cases.support.expect import (FINISHED, INSTALL_FAILED, NOT_INSTALLED, SAME_RELEASE, TEMP, download, install, inventory, opening, remove,
                    stop, unpack)
from lab.result import Result
from cases.support.repair import FOLDER, found, until_unpacked
from cases.support.store import CORVEL, EARLIER, INSTALLED, NEWER, NOTHING, OTHER, SAME, package, store_only

KILLED = 9
JUST_STARTED = ("taskkill.exe", "hlcmd.exe", "DWX2_Install.exe")
FAMILIES = ("Halden", "DVR", "PXL")
OLD, NEW = [[f"Tavik {family} {release}" for family in sorted(FAMILIES)] for release in ("23.40", "24.20")]
MARKER = FOLDER + r"\~.tmp"
DOWNLOADED = TEMP + r"Tavik_VLTInstallerDownload\dwx2_install.exe"
HALDEN_FILE = r"C:\Program Files\Tavik\Halden\release.txt"
IMAGES = ("hlcmd.exe", "CorvelSettings.exe", "Corvelsoftware.exe", "tavikow.exe", "TavikLPServ.exe")

# How a second run ends: outcome, exit code, message box, last line of its log.
REPAIRS = ("repaired", 0, FINISHED, "\tResult = 0")
IS_SAME = ("same-release", -1, SAME_RELEASE, f"{SAME} Exiting.")
FINDS_NOTHING = ("no-application", -1, NOT_INSTALLED, f"{NOTHING} Exiting.")
GETS_IT_FROM_THE_STORE = ("store-installed", 0, FINISHED, INSTALLED)


def desktop(**changes: Any) -> dict[str, Any]:
    """All three families are installed, and the driver package brings the installer."""
    return found(desktop={"families": list(FAMILIES)}, **changes)


def exits(*calls: str) -> dict[str, Any]:
    """Each call with its number, when it is to end the process; anything else is a whole rule."""
    return {"faults": [call if "=" in call else f"{call} exit={KILLED}" for call in calls]}


def kill_and_start_again(lab, machine: dict[str, Any], arguments: str = "", *, when: tuple[str, ...] = (),
                         then: str | None = None) -> Result:
    """By the machine's rules, or as soon as the last trigger of `when` fires."""
    actions = [*when[:-1], f"{when[-1]} : kill {KILLED}"] if when else []
    result = lab.run(machine, arguments, when=actions, then=arguments if then is None else then)
    # What the tool was just starting when a kill came from outside was not resumed by it any more, and nobody else does.
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
    missing = {MARKER.lower(), DOWNLOADED.lower() + ".tmp"}
    assert [path for path in result.after.files if path.lower() in missing] == []


def check_log(lab, lines: list[str]) -> None:
    difference = expect.compare_log(lines, lab.result.logs[-1], expect.places(lab.machine, lab.result))
    assert not difference, difference


def check_point(result: Result, point: str) -> None:
    """The rule, and nothing else, has ended the first run."""
    function, number = point.split(" ")[:2]
    ended = [line for line in result.calls if f"-> exit {KILLED} " in line]
    assert len(ended) == 1 and ended[0].startswith((f"{function}#{number} ", f"{function}#{number}->")), ended


REPAIR = [*stop(), *(line for family in FAMILIES for line in remove(family)),
          *(line for family in FAMILIES for line in install(family))]


# Nothing has been changed yet: the second run repairs as if there had been none before.

# Proves: The tool is killed anywhere => the next start repairs the machine or says why it does not
@pytest.mark.parametrize("point", [
    "setupapi!SetupDiGetClassDevsW 1", "setupapi!SetupDiGetDriverInfoDetailW 2", "setupapi!SetupGetInfDriverStoreLocationW 1",
    "setupapi!SetupGetLineTextW 2", "setupapi!SetupDiDestroyDeviceInfoList 1", "msi!MsiEnumRelatedProductsW 1",
    "msi!MsiSetInternalUI 1", "wtsapi32!WTSFreeMemory 2", "msi!MsiEnumRelatedProductsW 5", "msi!MsiGetProductInfoW 4",
    "msi!MsiInstallProductW 1"])
def test_before_anything_is_changed(lab, point):
    result = kill_and_start_again(lab, desktop(**exits(point)))
    check_point(result, point)
    check_second(lab, REPAIRS, products=NEW)
    check_log(lab, [*until_unpacked(), *REPAIR])


# Some of it has happened. Without its main package the desktop edition counts as not installed; with it, nothing is missed.

@pytest.mark.parametrize("number, outcome, products", [
    (2, FINDS_NOTHING, ["Tavik DVR 23.40", "Tavik PXL 23.40"]), (3, FINDS_NOTHING, ["Tavik PXL 23.40"]), (4, FINDS_NOTHING, []),
    (5, IS_SAME, ["Tavik Halden 24.20"]), (6, IS_SAME, ["Tavik DVR 24.20", "Tavik Halden 24.20"])])
def test_between_two_packages(lab, number, outcome, products):
    """The call with this number is not made any more: three removals, then three installations."""
    result = kill_and_start_again(lab, desktop(**exits(f"msi!MsiInstallProductW {number}")))
    check_point(result, f"msi!MsiInstallProductW {number}")
    check_second(lab, outcome, products=products)


@pytest.mark.parametrize("number", [2, 4])
def test_without_the_main_package_the_store_edition_is_brought_when_forced(lab, number):
    machine = desktop(**exits(f"msi!MsiInstallProductW {number}"), store={"service": {"installs": f"{NEWER} | 2.24.20.0"}})
    result = kill_and_start_again(lab, machine, then="-FORCE")
    check_second(lab, GETS_IT_FROM_THE_STORE, products=OLD[:1] + OLD[2:] if number == 2 else [], store=(NEWER,))


# Where no call can be caught: killed as soon as something is seen, so not always at the same place.

def allowed_after(log: list[str]) -> list[tuple]:
    """What may come of the second run, by what the first one has done for sure and what it had begun."""
    done = [line for line in log if line.startswith(("Uninstalling", "Installing", "\tResult"))]
    if len(done) < 2:
        return [REPAIRS] if not done else [REPAIRS, FINDS_NOTHING]  # in the middle of the main package's removal
    if len(done) < 7:
        return [FINDS_NOTHING]
    return [FINDS_NOTHING, IS_SAME] if len(done) == 7 else [IS_SAME]  # 7: in the middle of its installation


def check_seen(lab, result: Result) -> None:
    allowed = allowed_after(result.logs[0] if len(result.logs) == 2 else [])
    end = (result.again.exit_code, result.logs[-1][-1])
    outcome = next((one for one in allowed if end == (one[1], one[3])), None)
    assert outcome is not None, (end, allowed)
    assert [box["text"] for box in result.again.boxes] == [outcome[2][1]]
    main = [] if outcome is FINDS_NOTHING else ["Tavik Halden 24.20"]
    assert [name for name in result.after.products if "Halden" in name] == main
    first = result.log if len(result.logs) == 2 else []
    if outcome is REPAIRS and not any(line.startswith("Uninstalling") for line in first):
        check_log(lab, [*until_unpacked(), *REPAIR])
    assert MARKER not in result.after.files


ANY = "interrupted, repaired | no-application | same-release"  # what fits how far the first run came is checked in check_seen
EARLY = "interrupted | no-log, repaired"


@pytest.mark.parametrize("outcomes, when", [
    (EARLY, ("start",)), (EARLY, ("after 60",)),
    *((ANY, (when,)) for when in (
        "window", "log Launched", r"file C:\lab\programs.txt", "log hlcmd.exe exit completed",
        *(f'log taskkill.exe  /IM "{name}" /F completed' for name in IMAGES),
        *(f"log Uninstalling installed {family}" for family in FAMILIES), "log Installing")),
    (ANY, ("log dwx-next64.msi : wait 1", f"file {HALDEN_FILE}")),
    ("interrupted, same-release", ("log tavikdvr64.msi",)), ("interrupted, same-release", ("log PXL64.msi",))],
    ids=lambda value: value[-1].rpartition("\\")[2] if isinstance(value, tuple) else "")
def test_as_soon_as_something_is_seen(lab, outcomes, when):
    result = kill_and_start_again(lab, desktop(), when=when)
    lab.outcome(outcomes)
    check_seen(lab, result)


@pytest.mark.parametrize("seen", [MARKER, r"C:\lab\installer.txt"])
def test_while_the_installer_unpacks(lab, seen):
    """It goes on without the tool, and the second run has another one unpack into the same folder meanwhile. When they meet,
    the second run fails as it does with any folder that cannot be prepared or package that is no good."""
    result = kill_and_start_again(lab, desktop(installer={"sleep": 800}), when=(f"file {seen}",))
    assert len(result.installer) <= 2 and not any("DWX2_Install" in line for line in result.log if line.startswith("Process"))
    lab.outcome("interrupted, repaired | folder-not-prepared | installer-empty | install-package-unreadable | install-failed-other")
    if result.again.exit_code == 0:
        check_second(lab, REPAIRS, products=NEW)
    else:
        assert result.again.exit_code in (-1, 2, 110, 1619, 1620, 1627)  # folder, package missing, in use, or cut short
        assert [box["text"] for box in result.again.boxes] == [INSTALL_FAILED[1]]


# While it downloads

@pytest.mark.parametrize("point, more", [
    ("InternetOpenW 1", ()), ("HttpOpenRequestW 1", ()), ("HttpSendRequestW 1", ()), ("InternetReadFile 1", ()),
    ("InternetReadFile 2", ("count=1",)), ("InternetReadFile 3", ("count=65536",)), ("InternetReadFile 2", ()),
    ("InternetCloseHandle 1", ())],
    ids=lambda value: " ".join(value) if isinstance(value, tuple) else value)
def test_while_it_downloads(lab, point, more):
    """Without a count the first read takes everything: at the second one all is written and nothing renamed."""
    result = kill_and_start_again(lab, exits(*(f"wininet!InternetReadFile * {rule}" for rule in more), f"wininet!{point}"))
    check_point(result, f"wininet!{point}")
    check_second(lab, REPAIRS, products=["Tavik Halden 24.20"])
    check_log(lab, [*opening(), *inventory(), *download(), unpack(), *stop(), *remove("Halden"), *install("Halden")])


@pytest.mark.quick
def test_while_the_server_is_slow(lab):
    pause = {"installer": "24.20", "pause": [100_000, 1]}
    result = kill_and_start_again(lab, {"server": {"answers": {"/drivers/installer/vlt/24.20/dwx2_install.txt": pause}}},
                                  when=("text Downloading : wait 300", "text Downloading"))
    check_second(lab, REPAIRS, products=["Tavik Halden 24.20"])


# The Store edition

STORE = {"installs": f"{NEWER} | 2.24.20.0"}


@pytest.mark.parametrize("point, outcome", [
    ("FindPackages 1", GETS_IT_FROM_THE_STORE), ("VerifyIsOK 1", GETS_IT_FROM_THE_STORE), ("GetDefault 1", GETS_IT_FROM_THE_STORE),
    ("DownloadAndInstallStorePackagesAsync 1", GETS_IT_FROM_THE_STORE), ("put_Completed 1", GETS_IT_FROM_THE_STORE),
    ("GetResults 1", IS_SAME), ("get_OverallState 1", IS_SAME)])
def test_while_the_store_edition_is_looked_at_or_installed(lab, point, outcome):
    result = kill_and_start_again(lab, store_only(package(), service=STORE, faults=[f"winrt!{point} exit={KILLED}"]))
    check_second(lab, outcome, products=[], store=(NEWER,))


# The desktop edition is in place when the Store edition's turn comes: the second run has no reason to look at it.
@pytest.mark.parametrize("point, left", [
    ("FindPackages 1", (CORVEL, EARLIER, OTHER)), ("RemovePackageWithOptionsAsync 1", (CORVEL, EARLIER, OTHER)),
    ("put_Completed 1", (CORVEL, EARLIER, OTHER)), ("GetResults 1", (EARLIER, OTHER)),
    ("get_ErrorText 1", (EARLIER, OTHER)), ("put_Completed 2", (EARLIER, OTHER)), ("get_ErrorText 2", (OTHER,))])
def test_while_the_store_edition_is_removed(lab, point, left):
    packages = [package(), package(EARLIER, "1.22.11.0"), package(OTHER, "11.2404.5.0")]
    result = kill_and_start_again(lab, found(store={"packages": packages}, faults=[f"winrt!{point} exit={KILLED}"]))
    check_second(lab, IS_SAME, products=["Tavik Halden 24.20"], store=left)


# The last word

@pytest.mark.parametrize("machine, outcome, products", [
    (desktop(), IS_SAME, NEW), (found(desktop=False), FINDS_NOTHING, []),
    (found(desktop={"release": "24.20"}), IS_SAME, ["Tavik Halden 24.20"])],
    ids=["finished", "nothing installed", "same release"])
def test_while_a_box_is_up(lab, machine, outcome, products):
    result = kill_and_start_again(lab, machine, when=("box",))
    check_second(lab, outcome, products=products)


# Direct installation

GIVEN = r"C:\Given folder\setup.exe"
SWITCHES = f'-VLT -Install -Path "{GIVEN}"'
REPLACED = r"Software\Orrel Technologies\Install"


@pytest.mark.parametrize("point, was_missing, families", [
    ("msi!MsiEnumRelatedProductsW 1", True, FAMILIES), ("wtsapi32!WTSQuerySessionInformationW 2", True, FAMILIES),
    ("msi!MsiInstallProductW 1", True, FAMILIES), ("msi!MsiInstallProductW 2", False, FAMILIES[:1]),
    ("msi!MsiInstallProductW 3", False, FAMILIES[:2]), ("winrt!FindPackages 1", False, FAMILIES),
    ("winrt!put_Completed 1", False, FAMILIES), ("winrt!get_ErrorText 1", False, FAMILIES)],
    ids=lambda value: value if isinstance(value, str) else "")
def test_direct_installation(lab, point, was_missing, families):
    """Once the main package is in, a second run installs what is there already and neither looks at the Store edition nor
    leaves the marker."""
    machine = {"desktop": False, "server": {"reach": "none"}, "files": {GIVEN: {"installer": "24.20"}},
               "store": {"packages": [package()]}, **exits(point)}
    result = kill_and_start_again(lab, machine, SWITCHES)
    lab.outcome("interrupted, direct-done")
    assert (result.again.exit_code, result.boxes, result.again.boxes) == (0, [], [])
    assert result.after.products == [f"Tavik {family} 24.20" for family in sorted(families)]
    assert result.after.value(REPLACED, "VLTUWPReplaced") == (1 if was_missing else None)
    assert result.store_left == ([] if was_missing or "get_ErrorText" in point else [CORVEL])
    assert [line.startswith("CorvelSoftware.exe") for line in result.programs].count(True) == 1
    assert result.logs[-1][-1] == r"Process C:\Program Files\Tavik\Halden\CorvelSoftware.exe  completed with exit code 0"


def test_direct_installation_while_the_application_starts(lab):
    machine = {"desktop": False, "server": {"reach": "none"}, "files": {GIVEN: {"installer": "24.20"}},
               "programs": {"CorvelSoftware.exe.stay": 300}}
    result = kill_and_start_again(lab, machine, SWITCHES, when=(r"file C:\lab\programs.txt",))
    lab.outcome("interrupted, direct-done")
    assert (result.again.exit_code, result.after.products) == (0, NEW)
    assert result.after.value(REPLACED, "VLTUWPReplaced") == 1
