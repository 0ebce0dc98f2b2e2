"""What the cases of the download share: where things are, the lines of a run that fails or that fetches something, machines."""
from __future__ import annotations

import pathlib

from cases.support.expect import DOWNLOAD_FAILED, INSTALL_FAILED, TEMP, download, inventory, opening

SERVER_PATH = "/drivers/installer/vlt/"
PATH = f"{SERVER_PATH}24.20/dwx2_install.txt"
URL = "http://{server}" + PATH
FOLDER = TEMP + "Tavik_VLTInstallerDownload"
FINAL = FOLDER + "\\dwx2_install.exe"
TEMPORARY = FINAL + ".tmp"
UNTOUCHED = {"products": ["Tavik Halden 23.40"], "values": {r"Software\Tavik\HL\HLVersion": "23.40"}}
NOT_DOWNLOADED = "Unable to download dwx2_install.exe from web. Exiting."
START = download()[:2]
# What is downloaded in most cases cannot be started, so that these end right after the download.
NO_PROGRAM = "no program"
AFTERWARDS = [r"Launching process {temp}Tavik_VLTInstallerDownload\dwx2_install.exe /NCRC /S -EXTRACTONLY=YES "
              r"/D={temp}Tavik_VLTInstallerDownload\LPInstaller failed. Error code = {number} {any}",
              r"Unable to find {temp}Tavik_VLTInstallerDownload\LPInstaller\HL\halden\halden64\dwx-next64.msi."]


def failed(*lines: str, start: list[str] | None = None) -> dict:
    """The whole log of a run whose download fails, its exit code and its box."""
    log = [*opening(), *inventory(), *(START if start is None else start), *lines, NOT_DOWNLOADED]
    return {"exit_code": -1, "boxes": [DOWNLOAD_FAILED], "log": log}


def downloaded(size: int, start: list[str] | None = None) -> dict:
    log = [*opening(), *inventory(), *(START if start is None else start), "Response code from server: 200",
           f"Completed download. Total bytes downloaded: {size}", *AFTERWARDS]
    return {"exit_code": 2, "boxes": [INSTALL_FAILED], "log": log}


def thrown(text: str) -> str:
    return f"\tException occured during the download of dwx2_install.exe. {text}"


def file_of(result, path: str) -> pathlib.Path:
    return pathlib.Path(result.prefix, "prefix", "drive_c", *path.split("\\")[1:])


def answering(answer: object = None, folder: str = "http://{server}" + SERVER_PATH, path: str = PATH) -> dict:
    return {"server": {"folder": folder, "answers": {path: {"text": NO_PROGRAM} if answer is None else answer}}}


def status_line(status: int, url: str = URL) -> list[str]:
    return [f"Response code from server: {status}", f"Error response code received from {url}"]


BEFORE = {"values": UNTOUCHED["values"], "missing": [FOLDER]}


def check_failed(lab, *lines: str, requests: list[str], left: int | None = 0, start: list[str] | None = None) -> None:
    """No installer, and nothing about the machine changed but the temporary file: left bytes long; None: not there either."""
    files = {"missing": [FINAL, TEMPORARY]} if left is None else {"missing": [FINAL], "files": [TEMPORARY]}
    lab.check(**failed(*lines, start=start), before=BEFORE, requests=requests, after={**UNTOUCHED, **files})
    assert left is None or lab.result.after.files[TEMPORARY] == left


def check_arrived(lab, size: int, requests: list[str], start: list[str] | None = None, logged: int | None = None) -> None:
    """Whatever came is taken for the installer. It cannot start, so the products stay."""
    lab.check(**downloaded(size if logged is None else logged, start), before=BEFORE, requests=requests,
              after={**UNTOUCHED, "files": [FINAL], "missing": [TEMPORARY]})
    assert lab.result.after.files[FINAL] == size
