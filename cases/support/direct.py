"""Direct installations: a machine with an installer in a folder, the switches that hand it to the tool, and the lines of the log."""
from __future__ import annotations

from typing import Any

from cases.support.expect import opening

GIVEN = r"C:\Given folder\setup.exe"
SWITCHES = f'-VLT -Install -Path "{GIVEN}"'
HOME = r"C:\Program Files\Tavik\Halden"
INSTALL_KEY = r"Software\Orrel Technologies\Install"
HALDEN = rf"HKLM\{INSTALL_KEY}\Halden"
MARKER = rf"{INSTALL_KEY}\VLTUWPReplaced"
UPDATE_FAILED = ("error", "Update failed. Please visit www.tavik.example to install the appropriate driver.")


def given(installer: str | dict[str, Any] = "24.20", /, desktop: Any = False, **changes: Any) -> dict[str, Any]:
    """The installer of a release, or another file, in a folder; nothing is installed unless `desktop` says so, and there is no network."""
    content = {"installer": installer} if isinstance(installer, str) else installer
    return {"desktop": desktop, "server": {"reach": "none"}, **changes, "files": {GIVEN: content, **changes.get("files", {})}}


def started(arguments: str = SWITCHES) -> list[str]:
    """The first line; a direct installation does not log the versions."""
    return opening(arguments)[:1]


def application(code: int = 0, folder: str = HOME) -> str:
    """The start of the application at the end."""
    return rf"Process {folder}\CorvelSoftware.exe  completed with exit code {code}"
