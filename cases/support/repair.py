"""Machines whose driver package brings the installer, the lines of their log, and what Windows Installer was asked to do."""
from __future__ import annotations

from typing import Any

from cases.support.expect import EXTRACTED as FOLDER, install, inventory, opening, remove, unpack  # FOLDER for the cases
from lab.result import Result

INSTALLER = r"{store1}\B384125\DWX2_Install.exe"
PACKAGES = {"Halden": r"\HL\halden\halden64\dwx-next64.msi", "DVR": r"\HL\tavikdvr\tavikdvr64\tavikdvr64.msi",
            "PXL": r"\HL\pxl64\PXL64.msi"}
FAMILIES = tuple(PACKAGES)
UPGRADE_CODES = {"Halden": "{5D2C81F0-7A3E-4B19-9C64-2E8F0A1B3C47}", "DVR": "{8E41A6D2-0C9B-4F73-A215-6B7D3E9F0A58}",
                 "PXL": "{B07F3C95-4D28-4E6A-8B31-9F5A2C7E1D04}"}
INSTALL_PROPERTIES = 'REBOOT=ReallySuppress MSIFASTINSTALL=3 LAUNCHED_FROM_MIM="1"'
REMOVAL_PROPERTIES = "REMOVE=ALL REBOOT=ReallySuppress MSIFASTINSTALL=3 MSIRESTARTMANAGERCONTROL=Disable UPGRADINGPRODUCTCODE=1"
INSTALL_KEY = r"HKLM\SOFTWARE\Orrel Technologies\Install\Halden"

# Windows Installer reports success and does nothing: for cases about what it is asked to do.
MSI_AGREES = "msi!MsiInstallProductW * return=0"


def found(kind: str = "24.20", /, **changes: Any) -> dict[str, Any]:
    """A driver of release 24.20 whose package holds an installer of that release, or kind of release; no network."""
    return {"adapters": [{"packages": [{"installer": kind}]}], "server": {"reach": "none"}, **changes}


def brought(content: Any, /, **changes: Any) -> dict[str, Any]:
    """The same with another file in place of the installer."""
    return {"adapters": [{"packages": [{"files": {r"B384125\DWX2_Install.exe": content}}]}], "server": {"reach": "none"}, **changes}


def until_found(arguments: str = "", version: str = "23.40") -> list[str]:
    return [*opening(arguments, version), *inventory(), f"Found dwx2-install.exe at [{INSTALLER}]"]


def until_unpacked(arguments: str = "", version: str = "23.40", code: int = 0) -> list[str]:
    return [*until_found(arguments, version), unpack(INSTALLER, code)]


def products(release: str, *families: str) -> dict[str, Any]:
    """The state in which these families are installed."""
    return {"products": sorted(f"Tavik {family} {release}" for family in families)}


def removes(*families: str) -> list[str]:
    return [line for family in families for line in remove(family)]


def installs(*families: str) -> list[str]:
    return [line for family in families for line in install(family)]


def asked_of_msi(result: Result) -> list[tuple[str, str]]:
    """The packages given to Windows Installer with their properties, in order."""
    asked = []
    for line in result.calls:
        if line.startswith("msi!MsiInstallProductW#"):
            values = line.split(" ", 1)[1].rpartition(" -> ")[0]
            package, _, properties = values.partition("; properties=")
            asked.append((package.removeprefix('package="').removesuffix('"'), properties[1:-1].replace('""', '"')))
    return asked
