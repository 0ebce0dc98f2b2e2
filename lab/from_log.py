"""A machine like the one that a log tells about, and the comparison of its log with that one.

Story goes through the lines of a log once. What a line tells becomes part of the machine: an adapter, a product, an answer of the
server, a call that fails. `assumed` names what is made up beyond the lines; all else is the common machine's.
"""
from __future__ import annotations

import dataclasses
import difflib
import json
import pathlib
import re
import shlex
import zipfile
import zlib
from collections.abc import Callable
from typing import Any

from lab.machine import RELEASES, SERVER_PATH
from lab.privileges import private_hosts_obstacle
from lab.session import NO_LINE_END, read_log

TEMP = r"C:\temp"
DOWNLOADS = TEMP + r"\Tavik_VLTInstallerDownload"
HOME = r"C:\Program Files\Tavik"  # with a folder for each family
APPLICATION = r"HKLM\Software\Tavik\HL"
PROGRAMS = {"hlcmd.exe": "Halden", "CorvelSettings.exe": "Halden", "CorvelSoftware.exe": "Halden", "tavikow.exe": "DVR", "TavikLPServ.exe": "PXL"}
RESTART = (1641, 3010, 3011)
ORREL = r"HKLM\Software\Orrel Technologies\Install\Halden"
NO_DESKTOP = "User does not desktop VLT installed."
FAILURE, NO_MEMORY = "0x80004005", "0x8007000E"  # where a line has a text but no code, or not even a text

# What differs from machine to machine, in the order of the replacements.
PLACES = [(re.compile(found, re.I), put) for found, put in (
    (r'^(Launched with command line: )("[^"]*"|\S+)', r"\1<tool>"),
    (r'[a-z]:\\[^:*?"|]*?Tavik_VLTInstallerDownload', "<downloads>"),
    (r"[a-z]:\\windows\\system32\\DriverStore\\FileRepository\\([^\\\]]*?)\.inf_amd64_[0-9a-f]+", r"<driver store>\\\1"),
    (r"[a-z]:\\windows\\installer\\[^\\]+\.msi", "<cached package>"),
    (r"[a-z]:\\windows\\system32\\", r"<system>\\"),
    (r"https?://[^/ ]*", "<server>"),
    (r"(Total bytes downloaded: )-?\d+", r"\1<n>"),
    # Texts of Windows, in its language.
    (r"^(.*(?:Error(?: code)?(?::| =)|Result =|property:|SPDRP_DRIVER for .*:|SetupDi\w+) +-?\d+) .*", r"\1"),
    (r"^(Unable to find ReleaseVersion regkey for .*\]\. ).*", r"\1<text>"),
    (r"(filesystem error: [\w:]+: ).*", r"\1<text>"),
    (r"(Unable to connect to server: ).*", r"\1<text>"))]


@dataclasses.dataclass
class Told:
    """A log, and what else is known of its run."""
    name: str
    lines: list[str]
    exit_code: int | None = None
    facts: dict[str, Any] = dataclasses.field(default_factory=dict)
    others: list[str] = dataclasses.field(default_factory=list)  # more logs of the archive

    def checksum(self) -> str:
        return format(zlib.crc32("\n".join(self.lines).encode("utf-8", "replace")), "08x")


def decoded(data: bytes) -> list[str]:
    """The lines of a log as the tool writes it, or of one that became UTF-8, as `collect` does."""
    data = data.removeprefix(b"\xff\xfe")
    if b"\0" not in data[:200]:
        text = data.decode("utf-8-sig", "replace").replace("\r\n", "\n")
        data = text.encode("utf-16-le")
    return [line.rstrip("\r").removesuffix(NO_LINE_END) for line in read_log(data, "replace")]


def read(path: pathlib.Path, exit_code: int | None = None, name: str = "") -> Told:
    """path: a log, or an archive of `collect`, of which the newest log counts, or the one whose name contains `name`."""
    if not zipfile.is_zipfile(path):
        told = Told(path.name, decoded(path.read_bytes()), exit_code)
    else:
        with zipfile.ZipFile(path) as archive:
            logs = sorted((one for one in archive.namelist() if one.endswith(".log")), key=lambda one: [int(n) for n in re.findall(r"\d+", one)])
            wanted = [one for one in logs if name in one]
            if not wanted:
                raise ValueError(f"{path}: there is no log" + (f" whose name contains {name}; it has {', '.join(logs)}" if logs else " in it"))
            facts = json.loads(archive.read("facts.json")) if "facts.json" in archive.namelist() else {}
            told = Told(wanted[-1], decoded(archive.read(wanted[-1])), exit_code, facts, [one for one in logs if one != wanted[-1]])
        last = facts.get("last_run") or {}
        if told.exit_code is None and str(last.get("log", "")).endswith(told.name):
            told.exit_code = last.get("tool_code")
    if not told.lines or not told.lines[0].startswith("Launched with command line: "):
        raise ValueError(f"{path}: this is no log of the tool: its first line is not \"Launched with command line: ...\"")
    return told


MADE = "# Made by lab/run --from from"
# Lines that tell the code of one call.
FAILED_CALLS = {r"Unable to crack URL: .* Error = (\d+)": "InternetCrackUrlW 1", r"Unable to call HttpOpenRequest to .* Error (\d+)": "HttpOpenRequestW 1",
                r"Unable to call HttpSendRequest to .* Error (\d+)": "HttpSendRequestW 1",
                r"Unable to create query response code from .* Error code: (\d+).*": "HttpQueryInfoW 1",
                r"Download failed with error code: (\d+).*": "InternetReadFile 2+"}
RULES: list[tuple[re.Pattern[str], Callable[..., None]]] = []


def on(pattern: str) -> Callable[[Callable[..., None]], Callable[..., None]]:
    def add(rule: Callable[..., None]) -> Callable[..., None]:
        RULES.append((re.compile(pattern, re.S), rule))
        return rule
    return add


class Story:
    def __init__(self, told: Told, is_unfinished: bool):
        self.told = told
        self.assumed: list[str] = []
        self.arguments = ""
        self.when: list[str] = []
        self.instance = 0  # the start whose log is compared
        self.moved: dict[str, str] = {}  # the customer's path -> the lab's
        self.adapters: list[dict[str, Any]] = []
        self.device: dict[str, Any] = {}  # what was told about the next adapter
        self.families: list[str] = []
        self.desktop = self.is_check = False
        self.version = self.driver = self.folder = self.location = self.release = ""
        self.store: dict[str, Any] = {"packages": [], "manager": {}, "service": {}}
        self.server: dict[str, Any] = {}
        self.content: Any = None  # of the installer
        self.answer: dict[str, Any] | None = None
        self.installer: dict[str, Any] = {}
        self.given = ""
        self.files: dict[str, Any] = {}
        self.values: dict[str, Any] = {}
        self.lists: dict[str, list[str]] = {"running": [], "remove": [], "held": [], "read_only": [], "faults": []}
        self.programs: dict[str, Any] = {}
        self.environment: dict[str, str] = {}
        self.largest_file = self.calls = 0
        self.has_stopped = False  # the programs
        self.is_main = self.is_installed = False  # the package of the last line is the main one; that one was installed
        self.has_started: bool | None = None  # the application, at the end of a direct installation
        self.next = "setupapi!SetupDiGetClassDevsW 1"  # the call that follows the last line
        self._go_through(told.lines)
        if self.is_check and "Currently installed drivers on system:" not in told.lines and not self.adapters:
            end = self.next
            self._go_through(told.facts.get("inventory", []))
            self.next = end
            if self.adapters:
                self.assume("the adapters are those of the facts")
        default = 1
        if not self.is_check and self.is_installed and self.has_started is None and told.lines[-1].startswith(("\tResult = ", "Remvoing ")):
            # Where nothing was installed before, the Store packages come next.
            self.next = self.next if told.lines[-1].startswith("Remvoing ") else "winrt!FindPackages 1"
            is_unfinished, default = True, 3
        if is_unfinished:
            code = default if told.exit_code is None else told.exit_code
            self.lists["faults"].append(f"{self.next} exit={code & 0xFFFFFFFF}")
            self.assume(f"the log ends early: the tool is ended with code {code} at the next call that the lab can see")
        self.machine = self._machine()

    def _go_through(self, lines: list[str]) -> None:
        for line in lines:
            for pattern, rule in RULES:
                if found := pattern.fullmatch(line):
                    rule(self, *found.groups())
                    break
            for pattern, call in FAILED_CALLS.items():
                if found := re.fullmatch(pattern, line):
                    self.fail(f"wininet!{call}", found[1])

    def assume(self, text: str) -> None:
        if text not in self.assumed:
            self.assumed.append(text)

    def fail(self, call: str, error: str | int) -> None:
        self.lists["faults"].append(f"{call} error={int(error) & 0xFFFFFFFF}")

    def place(self, path: str) -> str:
        """The path on the lab's only drive."""
        there = path and "C:\\" + re.sub(r'^([A-Za-z]:)?\\*|[<>|"*?:%]', "", path)
        if there.lower() != path.lower():
            self.moved[path] = there
            self.assume(f"{path} is {there} here")
        return there

    # The lines, in the order of a run.

    @on(r"Launched with command line: (.*)")
    def _launched(self, line: str) -> None:
        self.arguments = re.sub(r'^("[^"]*"|\S+) ?', "", line)
        path = re.search(r'(?i)-Path +("[^"]*"|\S+)', self.arguments)
        others = self.arguments.replace(path[0], "") if path else self.arguments
        if {"-vlt", "-install"} <= set(others.lower().split()):
            self.next = "msi!MsiEnumRelatedProductsW 1"
            if path:
                told = path[1].strip('"')
                self.given = self.place(told)
                self.arguments = self.arguments[:path.start(1)] + path[1].replace(told, self.given) + self.arguments[path.end(1):]

    @on(r"Currently installed VLT is version \[(.*)\] from driver version \[(.*)\]")
    def _installed(self, version: str, driver: str) -> None:
        self.version, self.driver, self.desktop, self.is_check = version, driver, True, True

    @on(r"Another instance is running\. Exiting\.")
    def _another(self) -> None:
        self.is_check, self.desktop, self.version, self.driver = True, True, "23.40", "23.40.11.01"
        self.when, self.arguments, self.instance = [f"window : second {self.arguments}"], "", 1
        self.assume("the first start, without switches, is the other instance; the log of the second one is compared")
        self.assume("the installed version is 23.40")

    @on(r"Failed to call SetupDi(GetClassDevs|GetDeviceInstanceId) (-?\d+)  .*")
    def _setup_failed(self, call: str, code: str) -> None:
        number = int(code) & 0xFFFFFFFF
        self.fail(f"setupapi!SetupDi{call}W {len(self.adapters) + 1 if 'Id' in call else 1}", number & 0xFFFF if number >> 16 == 0x8007 else number)

    @on(r"\[(.*)\] - \[(.*)\] is not an Tavik Display Adapter\.")
    def _foreign(self, description: str, device: str) -> None:
        self.adapters.append({"id": device, "description": description, "packages": []})

    @on(r"Failed to get SPDRP_DRIVER for (.*): -?\d+  .*")
    def _without_driver(self, device: str) -> None:
        self.adapters.append({"id": device, "driver_key": False, "packages": []})

    @on(r"Unable to find ReleaseVersion regkey for \[(.*)\] - \[(.*?)\]\. .*")
    def _without_release(self, description: str, device: str) -> None:
        self.adapters.append({"id": device, "description": description, "release": False, "packages": []})

    @on(r"Unable to get DEVPKEY_Device_ProblemCode property: .*")
    def _without_problem(self) -> None:
        self.device = {"problem": False}

    @on(r"Device has CM_PROB_Xxx code (\d+)")
    def _problem(self, code: str) -> None:
        self.device = {"problem": int(code)}

    @on(r"Enumerating installed drivers for (.*?) - (.*)")
    def _adapter(self, device: str, description: str) -> None:
        self.adapters.append({"id": device, "description": description, **self.device, "packages": []})
        self.device = {}
        self.next = f"setupapi!SetupDiBuildDriverInfoList {sum('release' not in one and 'driver_key' not in one for one in self.adapters)}"

    @on(r"Found driver (.*)\. Version \[(.*)\]")
    def _package(self, inf: str, release: str) -> None:
        package = {"release": release, "name": re.sub(r"(?i)\.inf$", "", inf.rpartition("\\")[2])} if inf else {"release": release, "store": False}
        self.adapters[-1]["packages"].append(package)
        self.next = "setupapi!SetupDiDestroyDeviceInfoList 1"

    @on("\tFound driver matching active driver")
    def _matching(self) -> None:
        self.adapters[-1]["release"] = self.adapters[-1]["packages"][-1]["release"]

    @on(r"\t \[(.*)\] \[(.*)\] \[(.*)\]")
    def _summary(self, description: str, release: str, folder: str) -> None:
        self.release = self.release or release.partition("-")[0][:5]
        unknown = [one for one in self.adapters if one.get("description") == description and "release" not in one]
        if unknown and not folder:
            unknown[0]["release"] = release
        self.next = "msi!MsiEnumRelatedProductsW 1"

    @on(re.escape(NO_DESKTOP))
    def _without_desktop(self) -> None:
        self.desktop = False
        self.next = "winrt!FindPackages 1"

    @on(r"(?:User has|Remvoing) (.*) - version ([\d.]+)")
    def _store_package(self, name: str, version: str) -> None:
        if all(one["name"] != name for one in self.store["packages"]):
            self.store["packages"].append({"name": name, "version": version})
        self.next = "winrt!RemovePackageWithOptionsAsync 1"

    @on("\tThis version is disabled")
    def _disabled(self) -> None:
        self.store["packages"][-1]["ok"] = False

    def _failure(self, text: str | None, code: str = FAILURE) -> str:
        """text None: an error without a text."""
        self.assume(f"the code of \"{text}\" is {code}" if text is not None else "an unknown exception is one of memory")
        return NO_MEMORY if text is None else f"{code}:{text}"

    @on(r"(?:Exception (.*)|Unknown expection occured) when enumerating info for (.*)")
    def _package_unread(self, text: str | None, name: str) -> None:
        self.assume(f"the package that cannot be read is {name or 'Unknown_1.0.0.0_x64__0'}, version 1.0.0.0")
        self.store["packages"].append({"name": name or "Unknown_1.0.0.0_x64__0", "version": "1.0.0.0",
                                       "fail": f"{'get_Version' if name else 'get_FullName'}:{self._failure(text)}"})

    @on(r"(?:Exception \[?(.*?)\]?|Unknown expection occured) when searching for UWP version of VLT")
    def _store_failed(self, text: str | None) -> None:
        if "end" in self.store["service"]:
            known = FAILURE if self.told.exit_code is None else f"0x{self.told.exit_code & 0xFFFFFFFF:08X}"
            self.store["service"] = {"end": f"error:{self._failure(text, known)}"}
        else:
            self.store["manager"]["find"] = self._failure(text)

    @on(r"Attempting to download and install the UWP version of VLT\.")
    def _store(self) -> None:
        self.store["service"] = {"end": "completed", "state": 1}  # until the log says more
        self.next = "winrt!DownloadAndInstallStorePackagesAsync 1"

    @on(r"Successfully installed the UWP version of VLT")
    def _store_done(self) -> None:
        self.store["service"]["state"] = 3

    @on(r"Error: (Store context does not implement|Unable to initialize).*")
    def _store_window(self, what: str) -> None:
        self.store["service"] = {"window": "missing" if what.startswith("Store") else FAILURE}
        if what.startswith("Unable"):
            self.assume(f"the code of the Store's window is {FAILURE}")

    @on(r"Found dwx2-install\.exe at \[(.*)\]")
    def _found(self, path: str) -> None:
        *_, inf_folder, folder, _ = ["", "", "", *path.split("\\")]
        name = inf_folder.partition(".inf_")[0]
        package = next((package for adapter in self.adapters for package in adapter["packages"] if package.get("name") == name), None)
        if package is not None:
            self.content = package
            package.update(installer=self._installer(self.release), folder=folder)
        self.next = "msi!MsiSetInternalUI 1"

    @on(r"Unable to find dwx2-install\.exe at \[.*\]\. Downloading dwx2_install\.exe for \[(.*)\] from web\.")
    def _download(self, release: str) -> None:
        self.answer = {"installer": self._installer(release)}
        self.content = self.answer
        self.server = {"reach": "default", "answers": {f"{SERVER_PATH}{release}/dwx2_install.txt": self.answer}}
        if private_hosts_obstacle():
            self.server["reach"] = "override"
            self.assume("the maker's server is one that the registry names, because this run is not root's")
        self.next = "wininet!HttpSendRequestW 1"

    @on(r"Change server to (.*)\.")
    def _server(self, folder: str) -> None:
        self.server["reach"] = "override"
        parts = re.fullmatch(r"https?://([^/]+)(/.*)?", folder)
        self.server["folder"] = "http://{server}" + (parts[2] or "") if parts else folder
        if parts:
            path = next(iter(self.server["answers"])).removeprefix(SERVER_PATH)
            self.server["answers"] = {(parts[2] or "") + path: self.answer}
            if folder.startswith("https"):
                self.assume("the server of the registry speaks HTTP, not HTTPS")

    @on(r"Response code from server: (-?\d+)")
    def _status(self, status: str) -> None:
        if not 100 <= int(status) < 600:
            self.lists["faults"].append(f"wininet!HttpQueryInfoW 1 status={status}")
        elif status != "200":
            self.answer.clear()
            self.answer["status"] = int(status)
        self.next = "wininet!InternetReadFile 1"

    @on(r"Completed download\. Total bytes downloaded: .*")
    def _downloaded(self) -> None:
        self.next = "msi!MsiSetInternalUI 1"

    @on(r"Unable to read file from internet\. Extended error code: (\d+) (.*)")
    def _extended(self, code: str, text: str) -> None:
        self.fail("wininet!InternetReadFile 2+", 12003)
        quoted = text.replace("\\", r"\\").replace('"', r'\"')
        self.lists["faults"].append(f'wininet!InternetGetLastResponseInfoW * code={code} text="{quoted}"')

    @on(r"Failed writing to file: .*")
    def _disk_full(self) -> None:
        self.largest_file = 65536
        self.assume("no file can be longer than 65536 bytes, as if the disk were full")

    @on(r"Unable to create file to download data into\. Target path: .* Error: (\d+)")
    def _in_use(self, code: str) -> None:
        self.files[DOWNLOADS + r"\dwx2_install.exe.tmp"] = "in use"
        self.lists["read_only" if code == "5" else "held"].append(DOWNLOADS + r"\dwx2_install.exe.tmp")
        self.assume(f"the temporary download is {'write-protected' if code == '5' else 'held open by another program'}")

    @on("\tException occured during the download of dwx2_install\\.exe\\. filesystem error: (\\w+): .*")
    def _in_the_way(self, operation: str) -> None:
        if operation.startswith("create"):
            self._no_folder()
        else:
            self.files[DOWNLOADS + r"\dwx2_install.exe"] = "in the way"
            self.lists["held"].append(DOWNLOADS + r"\dwx2_install.exe")
            self.assume("the old download is held open by another program")

    def _no_folder(self) -> None:
        self.files[DOWNLOADS] = "in the way"
        self.assume("a file has the name of the download folder")

    @on("\tException occured during the download of dwx2_install\\.exe\\. "
        "(Unable to open internet connection|Unable to connect to server|std::bad_alloc).*")
    def _not_begun(self, what: str) -> None:
        if what.startswith("std"):
            self.lists["faults"].append("wininet!HttpQueryInfoW 1 memory=none")
            self.environment["LD_PRELOAD"] = "libgcc_s.so.1"  # without it Wine cannot end a thread when there is no memory
            self.assume("there is no memory left when the status of the answer is read")
        elif "open" in what or "{server}" in self.server.get("folder", "{server}"):
            self.fail(f"wininet!Internet{'Open' if 'open' in what else 'Connect'}W 1", 8)
            self.assume("the code of the connection's failure is 8")

    @on(r"Process (.*) /NCRC /S .* completed with exit code (-?\d+)")
    def _unpacked(self, _: str, code: str) -> None:
        if code != "0":
            self.installer["exit"] = int(code) & 0xFFFFFFFF
        self.next = "msi!MsiInstallProductW 1"

    @on(r"Launching process (.*) /NCRC /S .* failed\. Error code = (\d+) .*")
    def _blocked(self, _: str, code: str) -> None:
        self.installer["blocked"] = code

    @on(r"Unable to find .*dwx-next64\.msi\.")
    def _empty(self) -> None:
        self.installer["extract"] = "no"

    @on("\tException occured during installation\\. (?:filesystem error: (\\w+))?.*")
    def _exception(self, operation: str | None) -> None:
        if operation == "create_directories":
            self._no_folder()
        elif operation is not None:
            held = DOWNLOADS + r"\LPInstaller\old.txt"
            self.files[held] = "left"
            self.lists["held"].append(held)
            self.assume("a file in the old extraction folder is held open by another program")
        else:
            self.assume("the lab cannot bring about this exception")

    @on(r"(Process|Launching process) (.*)\\hlcmd\.exe exit (?:completed with exit code (-?\d+)|failed\..*)")
    def _polite(self, how: str, location: str, code: str | None) -> None:
        self.location = location
        if how != "Process":
            self.lists["remove"].append(rf"{HOME}\Halden\hlcmd.exe")
            self.assume("hlcmd.exe is missing")
        elif code != "0":
            self.programs["hlcmd.exe.exit"] = int(code) & 0xFFFFFFFF

    @on(r'Process .*taskkill\.exe  /IM "(.*)" /F completed with exit code (-?\d+)')
    def _killed(self, name: str, code: str) -> None:
        self.has_stopped = True
        if code != "0":
            return
        name = next((one for one in PROGRAMS if one.lower() == name.lower()), name)
        self.lists["running"].append(rf"{HOME}\{PROGRAMS[name]}\{name}")
        self.programs[name + ".deaf"] = True

    @on(r"Uninstalling installed (\w+) .*")
    def _uninstalling(self, family: str) -> None:
        self.desktop = True
        self.families.append(family)
        self.is_main = False
        self._msi()

    @on(r"Using custom install directory (.*)")
    def _custom(self, folder: str) -> None:
        self.folder = folder

    @on(r"Installing .*?(dwx-next64)?\.msi")
    def _installing(self, main: str | None) -> None:
        self.is_main = main is not None
        self._msi()

    def _msi(self) -> None:
        self.calls += 1
        self.next = f"msi!MsiInstallProductW {self.calls}"

    @on(r"System reboot may be required for .*")
    def _restart(self) -> None:
        self.lists["faults"].append(f"msi!MsiInstallProductW {self.calls} after=3010")

    @on("\tResult = (-?\\d+)")
    def _result(self, result: str) -> None:
        self.is_installed = result == "0" if self.is_main else self.is_installed
        if int(result) in RESTART:
            self.lists["faults"].append(f"msi!MsiInstallProductW {self.calls} after={result}")
        elif result != "0":
            self.fail(f"msi!MsiInstallProductW {self.calls}", result)
        self.next = f"msi!MsiInstallProductW {self.calls + 1}"

    @on("\t Result = (-?\\d+) (.*)")
    def _store_result(self, result: str, text: str) -> None:
        if result != "0":
            self.store["packages"][-1]["removal"] = f"0x{int(result) & 0xFFFFFFFF:08X}:{text}"

    @on(r"Unable to create VLTUWPReplaced registry key .*")
    def _not_marked(self) -> None:
        self.when.append(rf"file {HOME}\DVR\release.txt : deny Software\Orrel Technologies\Install")
        self.assume("the marker cannot be written from the installation of DVR on")
        if self.store["packages"]:
            self.store["packages"][-1]["completion"] = "later:1500"  # time to deny it
            self.assume("the removal of the Store package takes 1.5 seconds")

    @on(r"(Process|Launching process) (.*)\\CorvelSoftware\.exe  (?:completed with exit code (-?\d+)|failed\..*)")
    def _application(self, how: str, location: str, code: str | None) -> None:
        self.has_started = how == "Process"
        if how != "Process" or not self.calls:
            self.location = self.location or location
        if how != "Process":
            self.lists["faults"].append("msi!MsiInstallProductW * return=0")
            self.assume("Windows Installer agrees to everything and installs nothing, so that the application is missing")
        elif code != "0":
            self.programs["CorvelSoftware.exe.exit"] = int(code) & 0xFFFFFFFF

    @on(r"Unable to find file at : .*")
    def _given_missing(self) -> None:
        self.given = ""

    # The machine.

    def _installer(self, release: str) -> str:
        if release in RELEASES:
            return release
        self.assume(f"the lab has no installer of release {release or 'unknown'}; it takes the one of {RELEASES[-1]}")
        return RELEASES[-1]

    def _desktop(self) -> Any:
        if not self.desktop:
            if not self.is_check and not self.calls:
                self.assume("no desktop edition is installed")
            self._record(("HLVersion", self.version, ""), ("DriverVersion", self.driver, ""))
            self._keep_location()
            return False
        families = self.families
        if self.is_check and self.calls and "Halden" not in families and NO_DESKTOP not in self.told.lines:
            families = ["Halden", *families]
            self.lists["faults"].append("msi!MsiEnumRelatedProductsW 3 error=259")  # the check makes the first two calls
            self.assume("Windows Installer names Halden to the check, but no longer to the removal")
        elif not families:
            known = self.told.facts.get("desktop", {}).get("families")
            families = known or ["Halden"]
            self.assume("the products are those of the facts" if known else "of the desktop edition, only Halden is installed")
        release = self.version if self.version in RELEASES else RELEASES[0]
        others = [one for one in RELEASES if one != release]
        packages: list[str] = []
        for family in families:
            number = sum(one.startswith(family) for one in packages)
            packages.append(f"{family}-{[release, *others][min(number, len(others))]}")
        if untold := [one for one in packages if one != f"Halden-{self.version}"]:
            self.assume(f"the releases of the installed products: {', '.join(untold)}")
        if self.is_check:
            written = [one for one in packages if one.startswith("Halden")][-1:] or [""]
            release = written[0].removeprefix("Halden-")
            self._record(("HLVersion", self.version, release), ("DriverVersion", self.driver, release and f"{release}.11.01"))
        if self.has_stopped and not self.location:
            self.lists["remove"].append(f"{ORREL}@Location")
        folder = self.place((self.folder or self.location.rpartition("\\")[0]).rstrip("\\"))
        if folder and folder.lower() != HOME.lower():
            move = lambda paths: [path.replace(HOME, folder) for path in paths]  # noqa: E731
            self.lists["running"], self.lists["remove"] = move(self.lists["running"]), move(self.lists["remove"])
            return {"packages": packages, "folder": folder}
        return {"packages": packages}

    def _keep_location(self) -> None:
        """Of an application that Windows Installer does not know."""
        if self.location:
            location = self.place(self.location)
            self.values[ORREL] = {"Location": location}
            names = ["CorvelSoftware.exe"] * bool(self.has_started) + ["hlcmd.exe"] * (not self.lists["remove"])
            self.files |= {rf"{location}\{name}": {"program": name} for name in names}
            self.lists["remove"].clear()

    def _record(self, *values: tuple[str, str, str]) -> None:
        """Name, what is wanted, and what the packages write."""
        for name, wanted, written in values:
            if wanted and wanted != written:
                self.values.setdefault(APPLICATION, {})[name] = wanted
            elif not wanted and written:
                self.lists["remove"].append(f"{APPLICATION}@{name}")

    def _fill_installer(self) -> None:
        if self.given:
            self.content = self.files[self.given] = {"installer": self._installer(self.release or RELEASES[-1])}
            self.assume(f"the installer after -Path is the lab's of {self.content['installer']}")
        blocked = self.installer.pop("blocked", "")
        if not blocked or self.content is None:
            return
        self.installer.pop("extract", None)
        self.assume(f"the installer is no program (error 193 on Windows; the log has {blocked})")
        if self.content is self.answer:
            self.answer.clear()
            self.answer["text"] = "This is no program."
        elif self.given:
            self.files[self.given] = "This is no program."
        else:
            self.content.pop("installer")
            self.content["files"] = {self.content.pop("folder") + r"\DWX2_Install.exe": "This is no program."}

    def _adapters(self) -> list[dict[str, Any]]:
        if not self.adapters and "Currently installed drivers on system:" not in self.told.lines:
            self.assume("the adapter is the common machine's")
            return [{}]
        for one in self.adapters:
            if "release" not in one and one["packages"]:
                one["release"] = one["packages"][-1]["release"] + " (other)"
                self.assume(f"the release of {one['description']} is none of its packages'")
        return self.adapters

    def _machine(self) -> dict[str, Any]:
        self._fill_installer()
        self.assume(f"the temporary folder is {TEMP}")
        if self.store["service"] == {"end": "completed", "state": 1}:
            self.assume("the Store's installation ends without an error, in state 1 (3 is completed)")
        machine = {"description": f"As in {self.told.name}", "temp": TEMP, "adapters": self._adapters(), "desktop": self._desktop(),
                   "store": {key: value for key, value in self.store.items() if value}, "server": self.server, "files": self.files,
                   "registry": self.values, "programs": self.programs, "environment": self.environment, "installer": self.installer,
                   "largest_file": self.largest_file, **self.lists}
        return {key: value for key, value in machine.items() if value or key in ("adapters", "desktop")}

    def toml(self) -> str:
        # lab/run puts quotes around what has a space.
        switches = [one.replace('"', "") if " " in one else one for one in re.findall(r'(?:"[^"]*"|\S)+', self.arguments)]
        again = shlex.join(["lab/run", "THIS_FILE", *(f"--when={one}" for one in self.when), *(["--"] * bool(switches)), *switches])
        head = [f"{MADE} {self.told.name}, checksum {self.told.checksum()}. What the log does not say is assumed:", *(f"#   {one}" for one in self.assumed),
                "# Run it again, without and with the comparison:", f"#   {again}", "#   lab/run --from LOG THIS_FILE", ""]
        adapters = self.machine["adapters"]  # an empty list is written as one
        lines = [f"{key} = {_toml(value)}" for key, value in self.machine.items() if key != "adapters" or not value]
        for one in adapters:
            lines += ["", "[[adapters]]", *(f"{key} = {_toml(value)}" for key, value in one.items())]
        return "\n".join([*head, *lines, ""])


def _toml(value: Any) -> str:
    if isinstance(value, dict):
        return "{ " + ", ".join(f"{json.dumps(key)} = {_toml(one)}" for key, one in value.items()) + " }"
    if isinstance(value, list):
        between = ",\n  " if any(isinstance(one, dict) for one in value) and len(value) > 1 else ", "
        return "[" + between.join(map(_toml, value)) + "]"
    return json.dumps(value, ensure_ascii=False)


def plain(line: str, moved: dict[str, str]) -> str:
    """A line without what must differ between two machines."""
    for there, here in moved.items():
        line = line.replace(there, here)
    for found, put in PLACES:
        line = found.sub(put, line)
    return line.lower()


def compare(story: Story, log: list[str]) -> list[str]:
    """Lines of both logs: "- " only the customer's has it, "+ " only the new one, "  " both."""
    log = [line.removesuffix(NO_LINE_END) for line in log]
    if not any(line.startswith("Change server to ") for line in story.told.lines):
        log = [line for line in log if not line.startswith("Change server to ")]
    theirs, ours = ([plain(line, story.moved) for line in lines] for lines in (story.told.lines, log))
    shown: list[str] = []
    for kind, a, b, c, d in difflib.SequenceMatcher(None, theirs, ours, autojunk=False).get_opcodes():
        if kind == "equal":
            shown += [f"  {line}" for line in log[c:d]]
        else:
            shown += [f"- {line}" for line in story.told.lines[a:b]] + [f"+ {line}" for line in log[c:d]]
    return shown
