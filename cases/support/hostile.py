"""Checks for hostile machines: how their runs end, and that only the tool's own files were touched."""
from __future__ import annotations

from typing import Any

from cases.support.download import FINAL, TEMPORARY
from cases.support.expect import (DOWNLOAD_FAILED, DOWNLOADS, EXTRACTED, NO_SERVER, NOT_DOWNLOADED, QUIET_END, REPAIR, TEMP, inventory,
                                  not_started, opening, unpack, without_server)
from cases.support.expect import REPAIRED as AFTER, UNTOUCHED as BEFORE
from lab.result import Result

MAIN_PACKAGE = r"\HL\halden\halden64\dwx-next64.msi"
INSTALLER = r"{store1}\B384125\DWX2_Install.exe"
LOGS = r"C:\Program Files\Tavik\MIM\Log"
PRODUCT = r"C:\Program Files\Tavik\Halden"
SYSTEMS_OWN = TEMP.removesuffix("Temp\\") + r"AppData\Local\Microsoft\Windows\INet"  # what the system notes about connections
host_path = Result.file


def in_folder(path: str, folder: str) -> bool:
    return path.lower() == folder.lower() or path.lower().startswith(folder.lower().rstrip("\\") + "\\")


def check_only_own_touched(result: Result, *own: str) -> None:
    """No file but those of the log, of the download folder, of the replaced product and below `own` has come, gone or grown."""
    before, after = result.before.files, result.after.files
    folders = [r"C:\Program Files\Tavik\MIM", DOWNLOADS, *own,
               *([PRODUCT] if result.before.products != result.after.products else [])]
    touched = [path for path in {*before, *after} if before.get(path) != after.get(path) and not path.startswith(SYSTEMS_OWN)]
    strange = [path for path in touched if not any(in_folder(path, folder) or in_folder(folder, path) for folder in folders)]
    assert sorted(strange) == []
    above = [path for path in touched if path not in after and path not in folders]
    assert not [path for path in above if any(in_folder(folder, path) for folder in folders)], "a folder above the tool's own"


def check(lab, *own: str, **wanted: Any) -> None:
    """As Lab.check, and nothing else was touched."""
    lab.check(**wanted)
    check_only_own_touched(lab.result, *own)


def download_thrown(text: str) -> list[str]:
    return [f"\tException occured during the download of dwx2_install.exe. {text}", NOT_DOWNLOADED]


def install_thrown(text: str) -> str:
    return f"\tException occured during installation. {text}"


def unpack_into(temp: str, installer: str = "", code: int = 0) -> str:
    """The line of an installer that unpacks below another temporary folder; the downloaded one unless told otherwise."""
    place = temp + "Tavik_VLTInstallerDownload"
    return unpack(installer or place + "\\dwx2_install.exe", code).replace("{temp}", temp)


def repair_in(temp: str) -> list[str]:
    return [line.replace("{temp}", temp) for line in REPAIR]


def found_there(**changes: Any) -> dict[str, Any]:
    """The driver package brings the installer; no network."""
    return {"adapters": [{"packages": [{"installer": "24.20"}]}], "server": {"reach": "none"}, **changes}


def until_found() -> list[str]:
    return [*opening(), *inventory(), f"Found dwx2-install.exe at [{INSTALLER}]"]


def check_ends_without_server(lab, lines: list[str], *, folder: str = "{store1}", prefix: str = "24.20",
                              before: dict | None = None,
                              after: dict | None = None, own: tuple[str, ...] = ()) -> None:
    """The lines, then a repair that finds no server."""
    check(lab, *own, exit_code=-1, outcome="download-bad-address", boxes=[DOWNLOAD_FAILED], requests=[],
          before=BEFORE if before is None else before,
          after=BEFORE if after is None else after, log=[*lines, *without_server(folder, prefix)])
