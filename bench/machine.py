"""A machine of the lab that stays up while programs are run on it many times and measured."""
from __future__ import annotations

import contextlib
import dataclasses
import os
import pathlib
import resource
import shutil
import subprocess
import time
from typing import Any, Callable, Iterator

from bench.watch import now
from lab import certificates, paths, run as lab_run
from lab.children import end_with_parent
from lab.display import Display
from lab.hive import Hive
from lab.machine import Machine
from lab.prefix import Prefix, processes_of, replace_file
from lab.server.web import WebServer

PROGRAMS = paths.BUILD / "bench" / "programs"
FLOORS = ("same_calls.exe", "setup_floor.exe")  # these need the driver store as the tool does
TOOL = "TavikCompatibilityTool.exe"
DOWNLOADS = "Tavik_VLTInstallerDownload"
INSTALLER = "dwx2_install.exe"
MEMORY_NAME = "tavik-bench-"  # folders in memory; the number of the process follows
LIMIT = 600    # seconds for any run
SETTLE = 0.05  # seconds that the system needs after a program's end; it would be time of the next one


@dataclasses.dataclass
class Ran:
    """One run of a program: seconds of the shared clock, and what the kernel counted for its process."""
    start: float
    end: float
    code: int
    cpu: float          # seconds, user and system
    peak_memory: float  # bytes

    @property
    def wall(self) -> float:
        return self.end - self.start


def roomy_folder(need: int = 7 << 30) -> pathlib.Path | None:
    """Memory that looks like a disk, so that no real disk is measured; None when there is too little."""
    place = pathlib.Path("/dev/shm")
    with contextlib.suppress(OSError):
        if shutil.disk_usage(place).free > need and os.access(place, os.W_OK):
            return place
    return None


def remove_leftovers() -> None:
    """What measurements that were killed have left running, and in memory."""
    lab_run.end_orphans()
    place = roomy_folder(0)
    for folder in place.glob(f"{MEMORY_NAME}*") if place else ():
        owner = folder.name.removeprefix(MEMORY_NAME).split("-")[0]
        if owner.isdigit() and not pathlib.Path("/proc", owner).exists():
            shutil.rmtree(folder, ignore_errors=True)


class WarmMachine:
    """Set up like every machine of the lab, then the tool has run on it once. Use it with `with`."""

    def __init__(self, description: dict[str, Any], first: str = "-SILENT", shown: bool = False, recorded: bool = False,
                 when: tuple[str, ...] = (), prepare: Callable[["WarmMachine"], None] = lambda machine: None):
        """prepare: what else is to be done before the system starts. first: the switches of the first run; when: what is done meanwhile (lab/README.md). shown: it has a screen. recorded: calls into SetupAPI and Windows Installer are written down, which takes time."""
        self.machine = Machine({**description, **({"standins": ["setupapi", "msi"]} if recorded else {})})
        self.folder = lab_run.fresh_folder()
        self.first = first
        self.when = when
        self.prepare = prepare
        self.shown = shown
        self.recorded = recorded
        self.stack = contextlib.ExitStack()
        self.launcher: tuple[str, ...] = ()
        self.web: WebServer | None = None
        self.downloads = self.folder / "none"

    def __enter__(self) -> "WarmMachine":
        try:
            self._set_up()
        except BaseException:
            self.stack.close()
            raise
        return self

    def __exit__(self, kind: object, *_: object) -> None:
        self.stack.close()

    def _set_up(self) -> None:
        self.stack.callback(lab_run.remove_folder, self.folder)
        self._start_server()
        self.prefix = Prefix.copy(self.machine.template(), self.folder / "prefix")
        late, _ = self.machine.install(self.prefix, f"{self.web.address}:{self.web.port}" if self.web else "")
        self.lab = self.prefix.drive / "lab"
        self.logs = self.prefix.drive / lab_run.LOGS
        self._install_programs()
        self._put_downloads_into_memory()
        self.prepare(self)
        orders = lab_run.orders(self.machine, self.first, late, timeout=LIMIT, when=self.when)
        (self.lab / "watcher.txt").write_text(orders, "utf-8")
        self.stack.callback(self.prefix.stop)
        self.prefix.start()
        self._keep_desktop()
        code = self.prefix.wine(r"C:\lab\watcher.exe", timeout=LIMIT, launcher=self.launcher)
        if code != 0 or not any(self.logs.glob("*.log")):
            raise RuntimeError(f"the first run of the tool did not come to an end (the watcher gave {code})")

    def _start_server(self) -> None:
        server = self.machine.server
        if server.reach == "none":
            return
        options: dict[str, Any] = {"tool_log": self.folder / "prefix" / "drive_c" / lab_run.LOGS}
        if server.reach == "default":
            obstacle = lab_run.private_hosts_obstacle()
            if obstacle:
                raise PermissionError(obstacle)
            address = lab_run.default_address()
            options |= {"address": address, "port": 443, "certificate": server.certificate}
            hosts = self.folder / "hosts"
            hosts.write_text(f"127.0.0.1 localhost\n{address} {certificates.HOST}\n", "ascii")
            self.launcher = ("unshare", "--mount", "sh", "-c", 'mount --bind "$0" /etc/hosts && exec "$@"', str(hosts))
        self.web = WebServer(self.folder / "server", server.answers, **options)
        self.stack.callback(self.web.close)

    def _install_programs(self) -> None:
        for program in PROGRAMS.glob("*.exe"):
            replace_file(self.lab / program.name, program.read_bytes())
        user = Hive(self.prefix.path / "user.reg")
        for program in FLOORS:
            for standin in ("setupapi", *(["msi"] if self.recorded else [])):
                user.set(rf"Software\Wine\AppDefaults\{program}\DllOverrides", standin, "native,builtin")
        if self.shown:
            display = Display()
            self.stack.callback(display.close)
            self.prefix.variables["DISPLAY"] = display.name
            user.remove(r"Software\Wine\Drivers", "Graphics")
        user.save()
        if not self.recorded:
            system = self.prefix.drive / "windows" / "system32"
            replace_file(system / "setupapi.dll", (PROGRAMS / "setupapi.dll").read_bytes())

    def _put_downloads_into_memory(self) -> None:
        """Below the user's temporary folder, as the tool wants it."""
        temporary = next((self.prefix.drive / "users").glob("*/Temp"), None)
        if temporary is None:
            temporary = next(self.prefix.drive.glob("users/*/AppData/Local/Temp"))
        self.downloads = temporary / DOWNLOADS
        place = roomy_folder()
        if place is None:
            self.downloads.mkdir(exist_ok=True)
            return
        memory = place / f"{MEMORY_NAME}{self.folder.name}"
        memory.mkdir()
        self.stack.callback(shutil.rmtree, memory, ignore_errors=True)
        self.downloads.symlink_to(memory)

    def _keep_desktop(self) -> None:
        process = subprocess.Popen([paths.WINE, r"C:\lab\desktop.exe"], env=self.prefix.environment(), stdin=subprocess.DEVNULL,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, preexec_fn=end_with_parent)
        self.stack.callback(process.wait)
        self.stack.callback(process.kill)

    def windows_folder(self, folder: pathlib.Path) -> str:
        return "C:\\" + "\\".join(folder.relative_to(self.prefix.drive).parts)

    def command(self, program: str, *arguments: str) -> list[str]:
        return [*self.launcher, paths.WINE, rf"C:\lab\{program}", *arguments]

    def start(self, program: str, *arguments: str, output: int = subprocess.DEVNULL) -> "subprocess.Popen[bytes]":
        return subprocess.Popen(self.command(program, *arguments), env=self.prefix.environment(), stdin=subprocess.DEVNULL,
                                stdout=output, stderr=subprocess.DEVNULL)

    def run(self, program: str, *arguments: str, output: pathlib.Path | None = None) -> Ran:
        with open(output or os.devnull, "wb") as file:
            time.sleep(SETTLE)
            start = now()
            process = self.start(program, *arguments, output=file.fileno())
            _, status, usage = os.wait4(process.pid, 0)
            end = now()
        process.returncode = os.waitstatus_to_exitcode(status)  # Popen must not wait for it again
        return ran(start, end, process.returncode, usage)

    def texts(self, program: str, *arguments: str) -> list[list[float]]:
        """What a program prints: lines of numbers."""
        output = self.folder / "output.txt"
        code = self.run(program, *arguments, output=output).code
        lines = [[float(word) for word in line.split()] for line in output.read_text("ascii").splitlines()]
        if code != 0 or not lines:
            raise RuntimeError(f"{program} ended with {code} and printed {len(lines)} lines")
        return lines

    def keep_log(self, name: str) -> None:
        """The log of the first run, as C:\\lab\\name: what same_calls.exe writes again."""
        log, *_ = self.logs.glob("InstallVLT*.log")
        shutil.copy(log, self.lab / name)

    @contextlib.contextmanager
    def one_core(self) -> Iterator[None]:
        """The system's server and what is started from here on share one core. Threads of this program that exist already
        keep theirs. Otherwise a third of such a short time is what the scheduler makes of it."""
        servers = processes_of(self.prefix.path)
        cores = os.sched_getaffinity(0)
        for process in [0, *servers]:
            with contextlib.suppress(ProcessLookupError):
                os.sched_setaffinity(process, {min(cores)})
        try:
            yield
        finally:
            for process in [0, *servers]:
                with contextlib.suppress(ProcessLookupError):
                    os.sched_setaffinity(process, cores)


def ran(start: float, end: float, code: int, usage: resource.struct_rusage) -> Ran:
    return Ran(start, end, code, usage.ru_utime + usage.ru_stime, usage.ru_maxrss * 1024.0)
