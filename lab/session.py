"""A described machine that is up, with its prefix, download server, screen and disks, for any number of programs."""
from __future__ import annotations

import contextlib
import itertools
import json
import os
import pathlib
import re
import subprocess

from lab import certificates, paths, state
from lab.display import Display
from lab.hive import Hive
from lab.machine import Machine
from lab.prefix import Prefix, replace_file, template
from lab.privileges import Disks, limit_files, name_hosts
from lab.server import WebServer

TOOL = rf"C:\lab\{paths.TOOL.name}"
WATCHER = r"C:\lab\watcher.exe"
SYSTEM = r"C:\windows\system32"
LOGS = pathlib.Path("Program Files", "Tavik", "MIM", "Log")
LOG_NAMES = "InstallVLTForWUDriver_*.log"
NO_LINE_END = " (no line end)"
_numbers = itertools.count(1)


class StartError(RuntimeError):
    """Wine itself did not come up; the tool has not been started."""


def fresh_folder() -> pathlib.Path:
    folder = paths.RUNS / f"{os.getpid()}-{next(_numbers)}"
    folder.mkdir(parents=True)
    return folder


def remove_folder(folder: pathlib.Path) -> None:
    subprocess.run(["rm", "-rf", str(folder)], check=False)


def end_orphans() -> None:
    """Ends the processes of machines whose owner was killed."""
    for folder in paths.RUNS.iterdir() if paths.RUNS.exists() else ():
        owner = folder.name.split("-")[0]
        if owner.isdigit() and not pathlib.Path("/proc", owner).exists():
            Prefix(folder / "prefix").stop()


def default_address() -> str:
    """An address of this run's own, so that several can have port 443."""
    return f"127.{1 + os.getpid() % 250}.{1 + os.getpid() // 250 % 250}.{1 + next(_numbers) % 250}"


def read_log(log: pathlib.Path | bytes, errors: str = "surrogatepass") -> list[str]:
    """Every line ends in one line feed. A last one that does not is marked, so that it is not mistaken for a whole one."""
    data = log if isinstance(log, bytes) else log.read_bytes()
    *lines, rest = data.decode("utf-16-le", errors).split("\n")
    return lines + [rest + NO_LINE_END] if rest else lines


def _log_order(file: pathlib.Path) -> list[int]:
    return [int(number) for number in re.findall(r"\d+", file.name)]  # date and time without leading zeros


@contextlib.contextmanager
def bare(*programs: pathlib.Path):
    """A prefix with nothing but these programs in C:\\lab, for programs that need no machine. It is not started yet."""
    folder = fresh_folder()
    try:
        with Prefix.copy(template(), folder / "prefix") as prefix:
            (prefix.drive / "lab").mkdir()
            for program in programs:
                replace_file(prefix.drive / "lab" / program.name, paths.need(program).read_bytes())
            yield prefix
    finally:
        remove_folder(folder)


class Session:
    """Use it with `with`: everything is up inside, and ended afterwards. The folder stays until the caller removes it."""

    def __init__(self, machine: Machine, screen: bool = False):
        self.machine = machine
        self.screen = screen
        self.folder = fresh_folder()
        self.stack = contextlib.ExitStack()
        self.launcher: tuple[str, ...] = ()
        self.disks: Disks | None = None
        self.web: WebServer | None = None

    def __enter__(self) -> "Session":
        try:
            self._start_server()
            self.prefix = Prefix.copy(self.machine.template(), self.folder / "prefix")
            self.stack.callback(self.prefix.stop)
            self.lab = self.prefix.drive / "lab"
            self.late, system = self.machine.install(self.prefix, self.address)
            self.before = state.read(self.prefix.drive, system)
            self._limit_disks()
            if self.screen:
                self._give_screen()
            self.prepare()
            self.prefix.start()
        except BaseException:
            self.stack.close()
            raise
        return self

    def __exit__(self, *_: object) -> None:
        self.stack.close()

    def prepare(self) -> None:
        """Override it for work that must be done before Wine starts."""

    @property
    def address(self) -> str:
        """Host and port of the download server."""
        return f"{self.web.address}:{self.web.port}" if self.web else ""

    def _start_server(self) -> None:
        server, hosts = self.machine.server, dict(self.machine.data["hosts"])
        if server.reach != "none":
            default = server.reach == "default"
            secure = server.tls != "none" and (default or bool(server.tls))
            place = {}
            if default:
                place = {"address": default_address(), "port": 443}
                hosts[certificates.HOST] = place["address"]
                self.launcher = name_hosts(self.folder / "hosts", hosts)
            self.web = WebServer(server.answers, certificate=server.certificate if secure else "",
                                 protocols=server.tls if secure else "", also_plain=server.also_plain,
                                 tool_log=self.folder / "prefix" / "drive_c" / LOGS, **place)
            self.stack.callback(self.web.close)
        elif hosts:
            self.launcher = name_hosts(self.folder / "hosts", hosts)

    def _limit_disks(self) -> None:
        """Wine's server opens files and its clients write them, so both are started with the disks."""
        if self.machine.data["disks"]:
            self.disks = Disks({self.prefix.windows_path(path): size for path, size in self.machine.data["disks"].items()})
            self.stack.callback(self.disks.close)
            self.prefix.launcher = self.disks.launcher
            self.launcher = (*self.disks.launcher, *self.launcher)
        if self.machine.data["largest_file"]:
            self.launcher = (*self.launcher, *limit_files(self.machine.data["largest_file"]))

    def _give_screen(self) -> None:
        self.display = Display()
        self.stack.callback(self.display.close)
        self.prefix.variables["DISPLAY"] = self.display.name
        user = Hive(self.prefix.path / "user.reg")
        user.remove(r"Software\Wine\Drivers", "Graphics")
        user.save()

    @property
    def drive(self) -> pathlib.Path:
        """Drive C: as the machine sees it."""
        return self.disks.seen(self.prefix.drive) if self.disks else self.prefix.drive

    def logs(self) -> list[list[str]]:
        """The lines of all logs of the tool, in the order of its starts."""
        return [read_log(file) for file in sorted((self.drive / LOGS).glob(LOG_NAMES), key=_log_order)]

    def watch(self, arguments: str = "", *, timeout: float = 60, hold: float = 0, when: tuple[str, ...] = (),
              then: str | None = None, at_once: int = 1, directory: str = SYSTEM, program: str = TOOL) -> str:
        """Lets the watcher finish the machine (Wine drops its adapters before the first window), start the tool and watch it.
        Returns what Wine wrote meanwhile; the watcher's report is C:\\lab\\report.json."""
        data = self.machine.data
        pictures = r"C:\lab\pictures" if (self.lab / "pictures").is_dir() else ""
        split = [one.partition(" : ") for one in when]
        orders = {"program": program, "directory": directory, "arguments": arguments, "report": r"C:\lab\report.json",
                  "timeout": int(timeout * 1000), "hold": int(hold * 1000), "crowd": at_once, "start": data["running"],
                  "held": data["held"], "shared": data["shared"], "registry": self.late, "then": then, "pictures": pictures,
                  "when": [{"trigger": trigger.strip(), "action": action.strip()} for trigger, _, action in split]}
        (self.lab / "watcher.json").write_text(json.dumps(orders), "utf-8")
        output = self.folder / "errors.txt"
        code = self.prefix.wine(WATCHER, output=output, timeout=timeout + 60, launcher=self.launcher)
        text = output.read_text("utf-8", "replace")
        if code == 1 and not text:  # the watcher itself gives other codes, or a reason
            raise StartError("the watcher was not started")
        if code != 0:
            raise RuntimeError(f"the watcher ended with exit code {code}: {text[:2000].strip() or 'it gave no reason'}")
        return text
