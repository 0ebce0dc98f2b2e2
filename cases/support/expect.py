"""Texts, states and groups of log lines that cases share, and the comparison of a log with the expected one.

Expected log lines are exact, except that {number} matches digits, {any} any text, and {temp}, {store1}, {store2} and {server} are
places of the machine.
"""
from __future__ import annotations

import difflib
import os
import pwd
import re

from lab.adapters import RELEASE
from lab.machine import Machine
from lab.prefix import wine_version
from lab.result import Result

CAPTION = "Tavik Software Compatibility Tool"
USER = f"C:\\users\\{pwd.getpwuid(os.getuid()).pw_name}\\"  # Wine names the user as the host does
NO_PROGRAM = "193" if wine_version() < 10 else "6"  # of a file that is no program; Windows: 193
IN_USE = "32" if wine_version() < 10 else "6"  # a program that another one holds open is started; Windows: 32
TEMP = USER + ("Temp\\" if wine_version() < 10 else "AppData\\Local\\Temp\\")

DOWNLOADS = TEMP + "Tavik_VLTInstallerDownload"
EXTRACTED = DOWNLOADS + r"\LPInstaller"

# The desktop edition of the common machine, before and after a repair.
HL_VERSION = r"Software\Tavik\HL\HLVersion"
UNTOUCHED = {"products": ["Tavik Halden 23.40"], "values": {HL_VERSION: "23.40"}}
REPAIRED = {"products": ["Tavik Halden 24.20"], "values": {HL_VERSION: "24.20"}}

# Parts of a machine.
NO_SERVER = {"server": {"folder": "http:///x"}}  # an address without a host: a repair ends before a request is sent
OTHER_ADAPTER = {"description": "Other Graphics", "packages": [],
                 "id": r"PCI\VEN_8086&DEV_46A6&SUBSYS_00000000&REV_0C\3&11583659&0&10"}

QUIET_END = 3  # exit code after an error that the tool does not catch

# Message boxes: icon and text.
ANOTHER = ("none", "Another instance is running.")
NO_ADAPTER = ("error", "Unable to detect active Tavik Display Driver.")
SAME_RELEASE = ("information", "The version of Tavik Software installed is already a compatible version. "
                               "Please check if the Tavik Display Driver is working correctly.")
NOT_INSTALLED = ("information", "There is no Tavik Software application installed.")
DOWNLOAD_FAILED = ("error", "Error downloading Tavik Software")
INSTALL_FAILED = ("error", "Error installing Tavik Software.")
FINISHED = ("information", "Finished installing Tavik Software")

# The progress dots, and the status line.
DOTS = ["◉ ○ ○", "○ ◉ ○", "○ ○ ◉"]
CHECKING, DOWNLOADING, INSTALLING = ("Checking System.", "Downloading compatible version of Tavik Software.", "Installing...")

# Single lines of the log.
SAME = "Currently installed version of VLT is from the same release as the active driver."
REFUSED = "Another instance is running. Exiting."
NO_DESKTOP = "User does not desktop VLT installed."
NOT_DOWNLOADED = "Unable to download dwx2_install.exe from web. Exiting."
DOWNLOADED_INSTALLER = r"{temp}Tavik_VLTInstallerDownload\dwx2_install.exe"
UNPACKED = r"{temp}Tavik_VLTInstallerDownload\LPInstaller"
MAIN_PACKAGE_MISSING = rf"Unable to find {UNPACKED}\HL\halden\halden64\dwx-next64.msi."
NOT_THE_MAKERS = rf"[Other Graphics] - [{OTHER_ADAPTER['id']}] is not an Tavik Display Adapter."
NO_ADAPTER_LEFT = ["Currently installed drivers on system:", "Unable to find installed Tavik display adapters. Exiting."]


def opening(arguments: str = "", version: str = "23.40", driver: str | None = None) -> list[str]:
    """The first two lines of every run of the check."""
    driver = driver if driver is not None else f"{version}.11.01" if version else ""
    command = r'"C:\lab\TavikCompatibilityTool.exe"' + (f" {arguments}" if arguments else "")
    return [f"Launched with command line: {command}",
            f"Currently installed VLT is version [{version}] from driver version [{driver}]"]


def inventory(release: str = RELEASE, description: str = "Tavik Corvel 7800") -> list[str]:
    """One adapter with one package of the same release, as on the common machine."""
    return [rf"Enumerating installed drivers for PCI\VEN_1E7D&DEV_2F11&SUBSYS_00011E7D&REV_A1\4&1A2B3C4D&0&0001 - {description}",
            f"Found driver {{store1}}\\u0400001.inf. Version [{release}]",
            "\tFound driver matching active driver",
            "Currently installed drivers on system:",
            f"\t [{description}] [{release}] [{{store1}}]"]


def download(release: str = "24.20") -> list[str]:
    """No installer in the driver package, a good download."""
    return [f"Unable to find dwx2-install.exe at [{{store1}}]. Downloading dwx2_install.exe for [{release}] from web.",
            "Change server to http://{server}/drivers/installer/vlt/.",
            "Response code from server: 200",
            "Completed download. Total bytes downloaded: {number}"]


def unpack(installer: str = DOWNLOADED_INSTALLER, code: int = 0) -> str:
    return f"Process {installer} /NCRC /S -EXTRACTONLY=YES /D={UNPACKED} completed with exit code {code}"


def stop(location: str = r"C:\Program Files\Tavik\Halden", running: tuple[str, ...] = ()) -> list[str]:
    """The polite request, then one taskkill for each program: 0 for those that run, 128 for the others."""
    names = ("hlcmd.exe", "CorvelSettings.exe", "Corvelsoftware.exe", "tavikow.exe", "TavikLPServ.exe")
    polite = [f"Process {location}\\hlcmd.exe exit completed with exit code 0"] if location else []
    return polite + [rf'Process C:\windows\system32\taskkill.exe  /IM "{name}" /F completed with exit code '
                     f"{0 if name in running else 128}" for name in names]


def remove(family: str, result: int = 0) -> list[str]:
    return [rf"Uninstalling installed {family} C:\windows\Installer\{{any}}.msi", f"\tResult = {result}"]


def install(family: str, result: int = 0) -> list[str]:
    package = {"Halden": r"halden\halden64\dwx-next64.msi", "DVR": r"tavikdvr\tavikdvr64\tavikdvr64.msi", "PXL": r"pxl64\PXL64.msi"}
    return [f"Installing {UNPACKED}\\HL\\{package[family]}", f"\tResult = {result}"]


REPAIR = [*stop(), *remove("Halden"), *install("Halden")]  # once the installer has unpacked


def not_started(installer: str = DOWNLOADED_INSTALLER, folder: str = UNPACKED, code: str = "{number}") -> str:
    """The line of an installer that cannot be started."""
    return f"Launching process {installer} /NCRC /S -EXTRACTONLY=YES /D={folder} failed. Error code = {code} {{any}}"


def without_server(folder: str = "{store1}", prefix: str = "24.20") -> list[str]:
    """No installer in the driver package, and with NO_SERVER no download."""
    return [f"Unable to find dwx2-install.exe at [{folder}]. Downloading dwx2_install.exe for [{prefix}] from web.",
            "Change server to http:///x.",
            "\tException occured during the download of dwx2_install.exe. Unable to connect to server: {any}", NOT_DOWNLOADED]


def check_refused(result: Result, arguments: str = "", box: bool = True, number: int = 1) -> None:
    """Checks that this instance found another one running, said so and ended."""
    assert result.instances[number]["exit_code"] == -1
    assert result.logs[number] == [opening(arguments)[0], REFUSED]
    shown = [(one["icon"], one["text"], one["title_icon"]) for one in result.boxes if one["instance"] == number]
    assert shown == ([(*ANOTHER, "big and small")] if box else [])


def places(machine: Machine, result: Result) -> dict[str, str]:
    found = {"server": result.server, "temp": machine.data["temp"].rstrip("\\") + "\\" if machine.data["temp"] else TEMP}
    packages = [package for adapter in machine.adapters for package in adapter.packages]
    for number, package in enumerate(packages, 1):
        found[f"store{number}"] = package.store_folder()
    return found


def pattern(line: str, known: dict[str, str]) -> str:
    def part(text: str) -> str:
        if text == "{number}":
            return "-?[0-9]+"
        if text == "{any}":
            return ".*"
        return re.escape(known.get(text[1:-1], text) if text.startswith("{") else text)
    return "".join(part(text) for text in re.split(r"(\{[a-z0-9]+\})", line))


def compare_log(expected: list[str], actual: list[str], known: dict[str, str]) -> str:
    """Returns "" if they match, otherwise a difference of both."""
    patterns = [re.compile(pattern(line, known), re.S) for line in expected]
    if len(patterns) == len(actual) and all(one.fullmatch(line) for one, line in zip(patterns, actual)):
        return ""
    shown = []
    for number, line in enumerate(expected):  # a line that matches is shown as it came, so that only the others differ
        at = next((text for text in actual if patterns[number].fullmatch(text)), line)
        shown.append(at)
    return "the log is not as expected (- expected, + found):\n" + "\n".join(difflib.ndiff(shown, actual))
