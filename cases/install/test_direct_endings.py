"""Endings of a direct installation that no other case has: Windows Installer does nothing and returns what a rule says."""
from __future__ import annotations

from typing import Any

import pytest

from cases.support.expect import install, opening, remove, stop, unpack
from cases.support.repair import INSTALL_KEY, MSI_AGREES

GIVEN = r"C:\Given\setup.exe"
SWITCHES = f"-VLT -Install -Path {GIVEN}"
KEPT = r"C:\Kept"
STARTED = rf"Process {KEPT}\CorvelSoftware.exe  completed with exit code 0"
FAMILIES = ("Halden", "DVR", "PXL")


def machine(rule: str = "", application: tuple[str, ...] = (), **changes: Any) -> dict[str, Any]:
    """application: programs of an installed application, which has a location in the registry."""
    return {"desktop": False, "server": {"reach": "none"},
            "registry": {INSTALL_KEY: {"Location": KEPT}} if application else {},
            "files": {GIVEN: {"installer": "24.20"}, **{rf"{KEPT}\{name}": {"program": name} for name in application}},
            "faults": [MSI_AGREES, *([f"msi!MsiInstallProductW * {rule}"] if rule else [])], **changes}


def installs(*results: int) -> list[str]:
    return [line for family, code in zip(FAMILIES, results) for line in install(family, code)]


BOTH = ("hlcmd.exe", "CorvelSoftware.exe")
ENDINGS = {  # name: outcome, machine, lines after the installer has unpacked, exit code
    "location unknown": ("direct-no-location", machine(), [*stop(""), *installs(0, 0, 0)], 3),
    "application cannot be started": ("direct-not-started", machine(application=BOTH[:1]), [
        *stop(KEPT), *installs(0, 0, 0), rf"Launching process {KEPT}\CorvelSoftware.exe  failed. Error code = {{number}} {{any}}"], 0),
    "another installation is running": ("direct-busy", machine("return=1618", BOTH), [*stop(KEPT), *installs(1618, 1618, 1618), STARTED], 0),
    "another installation, no application": ("direct-busy", machine("return=1618"), [*stop(""), *installs(1618, 1618, 1618)], 3),
    "optional package fails": ("direct-optional-failed", machine("if=package~PXL64 return=1603", BOTH),
                               [*stop(KEPT), *installs(0, 0, 1603), STARTED], 0),
    "old product stays": ("direct-old-left", machine(r"if=package~windows\Installer return=1603", desktop={"release": "23.40"}), [
        *stop(), *remove("Halden", 1603), *installs(0), r"Process C:\Program Files\Tavik\Halden\CorvelSoftware.exe  completed with exit code 0"], 0),
}


@pytest.mark.parametrize("name", ENDINGS)
def test_direct_installation_ends_with(lab, name):
    outcome, described, lines, code = ENDINGS[name]
    lab.run(described, SWITCHES)
    lab.check(exit_code=code, outcome=outcome, boxes=[], log=[opening(SWITCHES)[0], unpack(GIVEN), *lines])
