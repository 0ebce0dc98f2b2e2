"""A machine of the lab on which programs are run many times and measured."""
from __future__ import annotations

import contextlib
import dataclasses
import os
import pathlib
import shutil
import subprocess
import time
from typing import Any, Callable, Iterator

from bench.watch import now
from lab import paths
from lab.children import end_with_parent
from lab.hive import Hive
from lab.machine import Machine
from lab.prefix import processes_of, replace_file
from lab.session import LOGS, Session, end_orphans, remove_folder

PROGRAMS = paths.BUILD / "bench" / "programs"
FLOOR = "plain_check.exe"
TOOL = paths.TOOL.name
DOWNLOADS = "Tavik_VLTInstallerDownload"
INSTALLER = "dwx2_install.exe"
MEMORY_NAME = "tavik-bench-"  # folders in memory; the number of the process follows
LIMIT = 600    # seconds for any run
SETTLE = 0.05  # seconds that the system needs after a program's end; otherwise it would count as time of the next one


@dataclasses.dataclass
class Ran:
    """One run of a program: seconds of the shared clock, and what the kernel counted for its process."""
    start: float
    end: float
    code: int
    cpu: float  # seconds, user and system

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
    """Removes the processes and the files in memory that killed measurements left behind."""
    end_orphans()
    place = roomy_folder(0)
    for folder in place.glob(f"{MEMORY_NAME}*") if place else ():
        owner = folder.name.removeprefix(MEMORY_NAME).split("-")[0]
        if owner.isdigit() and not pathlib.Path("/proc", owner).exists():
            shutil.rmtree(folder, ignore_errors=True)


class WarmMachine(Session):
    """A lab session in which the tool has run once, with the bench's programs and without records of calls."""

    def __init__(self, description: dict[str, Any], shown: bool = False, when: tuple[str, ...] = (),
                 change: Callable[["WarmMachine"], None] = lambda machine: None):
        """change: called before the system starts. when: actions during the first run (lab/README.md)."""
        super().__init__(Machine(description), screen=shown)
        self.stack.callback(remove_folder, self.folder)
        self.when = when
        self.change = change

    def __enter__(self) -> "WarmMachine":
        super().__enter__()
        try:
            self._keep_desktop()
            self.watch("-SILENT", timeout=LIMIT, when=self.when)
            if not self.logs():
                raise RuntimeError("the first run of the tool has left no log")
        except BaseException:
            self.stack.close()
            raise
        return self

    def prepare(self) -> None:
        self.log_folder = self.prefix.drive / LOGS
        for program in PROGRAMS.glob("*.exe"):
            replace_file(self.lab / program.name, program.read_bytes())
        user = Hive(self.prefix.path / "user.reg")
        user.set(rf"Software\Wine\AppDefaults\{FLOOR}\DllOverrides", "setupapi", "native,builtin")
        user.save()
        replace_file(self.prefix.drive / "windows" / "system32" / "setupapi.dll", (paths.STANDINS / "unrecorded" / "setupapi.dll").read_bytes())
        self._put_downloads_into_memory()
        self.change(self)

    def _put_downloads_into_memory(self) -> None:
        """The tool expects the folder below the user's temporary folder."""
        temporary = next(folder for place in ("*/Temp", "*/AppData/Local/Temp") for folder in (self.prefix.drive / "users").glob(place))
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

    def start(self, program: str, *arguments: str, output: int = subprocess.DEVNULL) -> "subprocess.Popen[bytes]":
        return subprocess.Popen([*self.launcher, paths.WINE, rf"C:\lab\{program}", *arguments], env=self.prefix.environment(),
                                stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.DEVNULL)

    def run(self, program: str, *arguments: str, output: pathlib.Path | None = None) -> Ran:
        with open(output or os.devnull, "wb") as file:
            time.sleep(SETTLE)
            start = now()
            process = self.start(program, *arguments, output=file.fileno())
            _, status, usage = os.wait4(process.pid, 0)
            end = now()
        process.returncode = os.waitstatus_to_exitcode(status)  # Popen must not wait for it again
        return Ran(start, end, process.returncode, usage.ru_utime + usage.ru_stime)

    def numbers(self, program: str, *arguments: str) -> list[list[float]]:
        """Returns the lines of numbers that a program prints."""
        output = self.folder / "output.txt"
        code = self.run(program, *arguments, output=output).code
        lines = [[float(word) for word in line.split()] for line in output.read_text("ascii").splitlines()]
        if code != 0 or not lines:
            raise RuntimeError(f"{program} ended with exit code {code} and printed {len(lines)} lines")
        return lines

    def keep_log(self, name: str) -> None:
        """The log of the first run, as C:\\lab\\name: what the floor writes again."""
        log, *_ = self.log_folder.glob("InstallVLT*.log")
        shutil.copy(log, self.lab / name)

    @contextlib.contextmanager
    def one_core(self) -> Iterator[None]:
        """The system's server and what is started from here on share one core. Threads of this program that exist already
        keep theirs. On more cores, the scheduler causes a third of such a short time."""
        servers = processes_of(self.prefix.path)
        cores = os.sched_getaffinity(0)
        try:
            self._use_cores([0, *servers], {min(cores)})
            yield
        finally:
            self._use_cores([0, *servers], cores)

    @staticmethod
    def _use_cores(processes: list[int], cores: set[int]) -> None:
        for process in processes:
            with contextlib.suppress(ProcessLookupError):
                os.sched_setaffinity(process, cores)
