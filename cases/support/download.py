"""Where a download comes from and goes to, machines that download, and the checks of downloads that fail or arrive."""
from __future__ import annotations

from cases.support.expect import (DOWNLOADS, MAIN_PACKAGE_MISSING, NOT_DOWNLOADED, UNTOUCHED, download, inventory, not_started,
                                  opening)
from lab.result import Result

SERVER_PATH = "/drivers/installer/vlt/"
PATH = f"{SERVER_PATH}24.20/dwx2_install.txt"
URL = "http://{server}" + PATH
KEY = r"HKLM\Software\Tavik"
GOOD = f"{PATH} 200"
FINAL = DOWNLOADS + "\\dwx2_install.exe"
TEMPORARY = FINAL + ".tmp"
BEFORE = {"values": UNTOUCHED["values"], "missing": [DOWNLOADS]}
START = download()[:2]
NO_PROGRAM = "no program"  # downloaded in most cases: it cannot be started, so the run ends right after the download
file_of = Result.file


def changed(folder: str) -> list[str]:
    """START with another server folder."""
    return [START[0], f"Change server to {folder}."]


def answering(answer: object = None, folder: str = "http://{server}" + SERVER_PATH, path: str = PATH) -> dict:
    return {"server": {"folder": folder, "answers": {path: {"text": NO_PROGRAM} if answer is None else answer}}}


def own(answers: dict | None = None, folder: str | None = None, **server) -> dict:
    """The maker's own host, at its default address or at the one given."""
    machine = {"server": {"reach": "default", "answers": {PATH: {"text": NO_PROGRAM}, **(answers or {})}, **server}}
    return machine if folder is None else {**machine, "registry": {KEY: {"DWXServerFolder": folder}}}


def failed(outcome: str, *lines: str, start: list[str] = START) -> dict:
    """Outcome and whole log of a run whose download fails."""
    return {"outcome": outcome, "log": [*opening(), *inventory(), *start, *lines, NOT_DOWNLOADED]}


def downloaded(size: int, start: list[str] = START) -> dict:
    """The same for a run whose download is not a program."""
    return {"outcome": "installer-blocked", "log": [
        *opening(), *inventory(), *start, "Response code from server: 200", f"Completed download. Total bytes downloaded: {size}",
        not_started(), MAIN_PACKAGE_MISSING]}


def thrown(text: str) -> str:
    return f"\tException occured during the download of dwx2_install.exe. {text}"


def not_sent(url: str, code: int) -> str:
    return f"Unable to call HttpSendRequest to {url}. Error {code}"


def not_split(url: str, code: int) -> str:
    return f"Unable to crack URL: {url}. Error = {code}"


def status_line(status: int, url: str = URL) -> list[str]:
    return [f"Response code from server: {status}", f"Error response code received from {url}"]


def check_failed(lab, outcome: str, *lines: str, requests: list[str] | None, left: int | None = 0, start: list[str] = START) -> None:
    """No installer, and nothing on the machine changed except the temporary file: `left` bytes long, or missing with None."""
    files = {"missing": [FINAL, TEMPORARY], "files": [DOWNLOADS]} if left is None else {"missing": [FINAL], "files": [TEMPORARY]}
    lab.check(**failed(outcome, *lines, start=start), before=BEFORE, requests=requests, after={**UNTOUCHED, **files})
    assert left is None or lab.result.after.files[TEMPORARY] == left


def check_arrived(lab, size: int, requests: list[str], start: list[str] = START, logged: int | None = None) -> None:
    """Any body is taken for the installer. It cannot be started, so the products stay."""
    lab.check(**downloaded(size if logged is None else logged, start), before=BEFORE, requests=requests,
              after={**UNTOUCHED, "files": [FINAL], "missing": [TEMPORARY]})
    assert lab.result.after.files[FINAL] == size
