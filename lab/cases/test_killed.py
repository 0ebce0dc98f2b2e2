"""Killed at any point: the next run finds its way, and what it then says about the machine is true.

Each row kills the tool at one point, then starts it again on the machine as it was left, with nothing in its way. What
has to come of that second run follows from how far the first one came.
"""
from __future__ import annotations

from typing import Any

import pytest

import expect
from expect import FINISHED, NOT_INSTALLED, SAME_RELEASE, TEMP, download, install, inventory, opening, remove, stop, unpack
from repair_machine import FOLDER, found, until_unpacked
from store_machine import ATTEMPT, CORVEL, EARLIER, INSTALLED, OTHER, SAME, package, store_only

KILLED = 9
FAMILIES = ("Halden", "DVR", "PXL")
OLD, NEW = [[f"Tavik {family} {release}" for family in sorted(FAMILIES)] for release in ("23.40", "24.20")]
MARKER = FOLDER + r"\~.tmp"
DOWNLOADED = TEMP + r"Tavik_VLTInstallerDownload\dwx2_install.exe"
HALDEN_FILE = r"C:\Program Files\Tavik\Halden\release.txt"
NEW_STORE = "TavikSystemsInc-2.TavikCorvelSoftware_2.24.20.0_x64__0a9344xs7nr4m"

# How a second run ends: exit code, message box, last line of its log (None: the result of the last installation).
REPAIRS = (0, FINISHED, None)
IS_SAME = (-1, SAME_RELEASE, f"{SAME} Exiting.")
FINDS_NOTHING = (-1, NOT_INSTALLED, "User does not have VLT installed. Exiting.")
GETS_IT_FROM_THE_STORE = (0, FINISHED, INSTALLED)


def desktop(**changes: Any) -> dict[str, Any]:
    """All three families are installed, and the driver package brings the installer."""
    return found(desktop={"families": list(FAMILIES)}, **changes)


def exits(*calls: str) -> dict[str, Any]:
    """Each call with its number, when it is to end the process; anything else is a whole rule."""
    return {"faults": [call if "=" in call else f"{call} exit={KILLED}" for call in calls]}


def kill_and_start_again(lab, machine: dict[str, Any], arguments: str = "", *, when: tuple[str, ...] = (), then: str | None = None):
    result = lab.run(machine, arguments, when=[*when[:-1], f"{when[-1]} : kill {KILLED}"] if when else [],
                     then=arguments if then is None else then)
    lab.check(exit_code=KILLED)
    assert all(action["done"] for action in result.actions) and len(result.actions) == len(when)
    assert len(result.instances) == 2
    return result


def check_second(result, outcome: tuple, *, products: list[str], store: tuple[str, ...] = ()) -> None:
    code, box, last = outcome
    assert (result.instances[1]["exit_code"], result.logs[-1][-1]) == (code, last if last else "\tResult = 0")
    assert [(one["icon"], one["text"]) for one in result.boxes if one["instance"] == 1] == [box]
    assert (result.after.products, tuple(result.store_left)) == (products, store)
    missing = {MARKER.lower(), DOWNLOADED.lower() + ".tmp"}
    assert [path for path in result.after.files if path.lower() in missing] == []


def check_log(lab, lines: list[str]) -> None:
    difference = expect.compare_log(lines, lab.result.logs[-1], expect.places(lab.machine, lab.result))
    assert not difference, difference


REPAIR = [*stop(), *(line for family in FAMILIES for line in remove(family)), *(line for family in FAMILIES for line in install(family))]


# Nothing has been changed yet: the second run repairs as if there had been none before.

@pytest.mark.parametrize("point", [
    "setupapi!SetupDiGetClassDevsW 1", "setupapi!SetupDiEnumDeviceInfo 1", "setupapi!SetupDiGetDeviceInstanceIdW 1",
    "setupapi!SetupDiGetDeviceRegistryPropertyW 1", "setupapi!SetupDiGetDevicePropertyW 1", "setupapi!SetupDiBuildDriverInfoList 1",
    "setupapi!SetupDiEnumDriverInfoW 1", "setupapi!SetupDiGetDriverInfoDetailW 2", "setupapi!SetupGetInfDriverStoreLocationW 1",
    "setupapi!SetupOpenInfFileW 1", "setupapi!SetupGetLineTextW 2", "setupapi!SetupDiEnumDriverInfoW 2", "setupapi!SetupDiDestroyDeviceInfoList 1",
    "msi!MsiEnumRelatedProductsW 1", "msi!MsiGetProductInfoW 1", "msi!MsiSetInternalUI 1",
    "wtsapi32!WTSQuerySessionInformationW 1", "wtsapi32!WTSFreeMemory 2",
    "msi!MsiEnumRelatedProductsW 3", "msi!MsiEnumRelatedProductsW 5", "msi!MsiEnumRelatedProductsW 7", "msi!MsiGetProductInfoW 4",
    "msi!MsiInstallProductW 1"])
def test_before_anything_is_changed(lab, point):
    result = kill_and_start_again(lab, desktop(**exits(point)))
    assert f"exit {KILLED}" in [line for line in result.calls if line.startswith(point.partition(" ")[0] + "#")][-1] or "-> exit" in "".join(result.calls)
    check_second(result, REPAIRS, products=NEW)
    check_log(lab, [*until_unpacked(), *REPAIR])
