"""Checks for unusual machines: how their runs end, and that only the tool's own files were touched."""
from __future__ import annotations

from typing import Any

from cases.support.download import GOOD
from cases.support.expect import (DOWNLOADS, EXTRACTED, REPAIR, REPAIRED, UNTOUCHED, USER, download, inventory, opening, unpack,
                                  without_server)
from cases.support.repair import until_found, until_unpacked
from lab.result import Result

PRODUCT = r"C:\Program Files\Tavik\Halden"
SYSTEMS_OWN = USER + r"AppData\Local\Microsoft\Windows\INet"  # the system's own files about connections
DEVICE = r"PCI\VEN_1E7D&DEV_2F11&SUBSYS_00011E7D&REV_A1\4&1A2B3C4D&0&0001"
LIST = "Currently installed drivers on system:"
MATCHING = "\tFound driver matching active driver"
MEBIBYTE = 1 << 20
NOTHING_INSTALLED = {"products": [], "values": {}}
ANY_VERSION = {"values": {}}  # for machines that have another registered version
DOWNLOADED = {"requests": [GOOD], "log": [*opening(), *inventory(), *download(), unpack(), *REPAIR]}


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


def check(lab, *own: str, before: dict[str, Any] | None = None, after: dict[str, Any] | None = None, **wanted: Any) -> None:
    """As Lab.check, and no other files were touched. Products and version are those of the common machine, before and after the
    run, unless told otherwise."""
    lab.check(before={**UNTOUCHED, **(before or {})}, after={**UNTOUCHED, **(after or {})}, **wanted)
    check_only_own_touched(lab.result, *own)


def check_repaired(lab, *own: str, after: dict[str, Any] | None = None, log: list[str] | None = None, **wanted: Any) -> None:
    """A repair, with the installer of the driver package unless the log says otherwise."""
    check(lab, *own, outcome="repaired", log=log or [*until_unpacked(), *REPAIR],
          after={**REPAIRED, **(after or {})}, **wanted)


def check_not_prepared(lab, place: str, **states: Any) -> None:
    """The extraction folder cannot be cleared because of this place: the run ends before the installer is started."""
    check(lab, outcome="folder-not-prepared", log=[
        *until_found(), f"\tException occured during installation. filesystem error: remove_all: {{any}} [{EXTRACTED}] [{place}]"], **states)
    assert lab.result.installer == []


def check_ends_without_server(lab, *lines: str, folder: str = "{store1}", prefix: str = "24.20", **states: Any) -> None:
    """The opening and these lines, then a repair that finds no server."""
    check(lab, outcome="download-bad-address", requests=[],
          log=[*opening(), *lines, *without_server(folder, prefix)], **states)


def not_downloaded(path: str, call: str = "remove") -> str:
    """The line of a download that fails because this file or folder is in the way."""
    return f"\tException occured during the download of dwx2_install.exe. filesystem error: {call}: {{any}} [{path}]"


def elsewhere(temp: str, *lines: str) -> list[str]:
    """The lines, with this temporary folder in place of the one in the machine's description."""
    return [line.replace("{temp}", temp) for line in lines]


def card(number: int) -> str:
    """The id of this adapter of the common kind."""
    return DEVICE.replace("DEV_2F11", f"DEV_2F1{number:X}").replace("0&0001", f"0&{number:04X}")
