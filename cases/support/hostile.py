"""What the cases of hostile machines share: the way to their end, and the proof that nothing but the tool's own was touched."""
from __future__ import annotations

import pathlib
from typing import Any

from cases.support.expect import DOWNLOAD_FAILED, TEMP, install, inventory, opening, remove, stop, unpack
from lab.result import Result

DOWNLOADS = TEMP + "Tavik_VLTInstallerDownload"
FINAL = DOWNLOADS + "\\dwx2_install.exe"
TEMPORARY = FINAL + ".tmp"
EXTRACTED = DOWNLOADS + "\\LPInstaller"
MAIN_PACKAGE = r"\HL\halden\halden64\dwx-next64.msi"
INSTALLER = r"{store1}\B384125\DWX2_Install.exe"
LOGS = r"C:\Program Files\Tavik\MIM\Log"
PRODUCT = r"C:\Program Files\Tavik\Halden"
SYSTEMS_OWN = TEMP.removesuffix("Temp\\") + r"AppData\Local\Microsoft\Windows\INet"  # what the system notes about connections
BEFORE = {"products": ["Tavik Halden 23.40"], "values": {r"Software\Tavik\HL\HLVersion": "23.40"}}
AFTER = {"products": ["Tavik Halden 24.20"], "values": {r"Software\Tavik\HL\HLVersion": "24.20"}}
NOT_DOWNLOADED = "Unable to download dwx2_install.exe from web. Exiting."
NO_SERVER = {"server": {"folder": "http:///x"}}  # the host is missing: a repair ends before anything is asked for
REPAIR = [*stop(), *remove("Halden"), *install("Halden")]
QUIET_END = 3  # exit code after an error that nobody catches


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


def host_path(result: Result, path: str) -> pathlib.Path:
    """A file of the machine as the run has left it."""
    return pathlib.Path(result.prefix, "prefix", "drive_c", *path.split("\\")[1:])


def without_server(folder: str = "{store1}", prefix: str = "24.20") -> list[str]:
    """No installer in the driver package, and nowhere to get one."""
    return [f"Unable to find dwx2-install.exe at [{folder}]. Downloading dwx2_install.exe for [{prefix}] from web.",
            "Change server to http:///x.",
            "\tException occured during the download of dwx2_install.exe. Unable to connect to server: {any}", NOT_DOWNLOADED]


def download_thrown(text: str) -> list[str]:
    return [f"\tException occured during the download of dwx2_install.exe. {text}", NOT_DOWNLOADED]


def install_thrown(text: str) -> str:
    return f"\tException occured during installation. {text}"


def unpack_into(temp: str, installer: str = "", code: int = 0) -> str:
    """The line of an installer that unpacks below another temporary folder; the downloaded one unless told otherwise."""
    place = temp + "Tavik_VLTInstallerDownload"
    return unpack(installer or place + "\\dwx2_install.exe", code).replace("{temp}", temp)


def not_started(installer: str, folder: str, code: str = "{number}") -> str:
    """The line of an installer that cannot be started."""
    return f"Launching process {installer} /NCRC /S -EXTRACTONLY=YES /D={folder} failed. Error code = {code} {{any}}"


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
    check(lab, *own, exit_code=-1, boxes=[DOWNLOAD_FAILED], requests=[], before=BEFORE if before is None else before,
          after=BEFORE if after is None else after, log=[*lines, *without_server(folder, prefix)])
