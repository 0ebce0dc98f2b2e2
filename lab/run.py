"""One run of the shipping exe on one machine: what was seen, and what is on the machine afterwards."""
from __future__ import annotations

import contextlib
import json
import pathlib
import subprocess
import time
import warnings

from lab import state
from lab.display import Photographer
from lab.hive import Hive
from lab.machine import Machine
from lab.prefix import processes_of, wine_version
from lab.result import Again, Result
from lab.session import SYSTEM, TOOL, WATCHER, Session, StartError, remove_folder
from lab.sparse import SparseFile

HUNG = "Wine hung"


class RunError(RuntimeError):
    """The run could not be carried out; the machine is kept."""

    def __init__(self, error: Exception, folder: pathlib.Path):
        super().__init__(error, folder)  # as given, so that it can travel between processes
        self.folder = folder

    def __str__(self) -> str:
        return f"{self.args[0]} (the machine is kept in {self.folder})"


def _lines(file: pathlib.Path, encoding: str = "utf-8") -> list[str]:
    if not file.exists():
        return []
    return [line for line in file.read_bytes().decode(encoding, "replace").replace("\r", "").split("\n") if line]


# Wine's own programs, and the lab's.
OWN = {"watcher.exe", "services.exe", "winedevice.exe", "plugplay.exe", "svchost.exe", "rpcss.exe", "explorer.exe", "conhost.exe",
       "wineboot.exe", "start.exe"}


def _running(prefix: pathlib.Path) -> list[str]:
    """Names of the programs that run on the machine. Waits a moment for killed ones to disappear."""
    for _ in range(5):
        names = []
        for process in processes_of(prefix):
            with contextlib.suppress(OSError):
                command = pathlib.Path("/proc", str(process), "cmdline").read_bytes().partition(b"\0")[0].decode("utf-8", "replace")
                names.append(command.rpartition("\\")[2])
        names = [name for name in names if name.lower().endswith(".exe") and name.lower() not in OWN]
        if not names:
            break
        time.sleep(0.02)
    return names


class ToolRun(Session):
    def __init__(self, machine: Machine, pictures: pathlib.Path | None):
        super().__init__(machine, screen=pictures is not None)
        self.pictures = pictures
        self.photographer: Photographer | None = None
        self.sparse: SparseFile | None = None

    def prepare(self) -> None:
        if self.pictures:
            self.photographer = Photographer(self.display, self.lab / "pictures", self.pictures)
            self.stack.callback(self.photographer.close)
        if self.machine.data["sparse"]:
            self.sparse = SparseFile(self.prefix.windows_path(self.machine.data["sparse"]))
            self.stack.callback(self.sparse.close)

    def execute(self, arguments: str, then: str | None, **options: object) -> Result:
        started = time.monotonic()
        with self:
            errors = self.watch(arguments, then=then, **options)
            running = _running(self.prefix.path)
            self.prefix.stop()
            if self.web:
                self.web.close()
            if self.sparse:
                self.sparse.close()
            after = state.read(self.drive, Hive(self.prefix.path / "system.reg"))
            logs = self.logs()
        result = self._collect(after, logs, errors, time.monotonic() - started, running)
        return result if then is None else self._divide(result)

    def _collect(self, after: state.State, logs: list[list[str]], errors: str, seconds: float, running: list[str]) -> Result:
        report = json.loads((self.lab / "report.json").read_text("utf-8"))
        standins = self.lab / "standins"
        store_state = standins / "store-state.txt"  # exists only if the packages changed
        same = ("boxes", "status", "instances", "actions", "started_before", "event", "timed_out")
        return Result(
            **{name: report[name] for name in same}, exit_code=report["instances"][0]["exit_code"],
            log=logs[0] if logs else [], logs=logs, requests=self.web.requests if self.web else [],
            calls=_lines(standins / "calls.txt"), store_calls=_lines(standins / "winrt-calls.txt"),
            store_left=_lines(store_state) if store_state.exists() else self.machine.store_packages,
            programs=_lines(self.lab / "programs.txt"),
            installer=[line.strip() for line in _lines(self.lab / "installer.txt", "utf-16-le")], before=self.before, after=after, still_running=running,
            output=[file.read_bytes().decode("utf-8", "replace") for file in sorted(self.lab.glob("output-*.txt"))],
            errors=errors, server=self.address, seconds=seconds, disk_used=self.sparse.most if self.sparse else 0,
            pictures=self.photographer.taken if self.photographer else [], prefix=str(self.folder))

    def _divide(self, result: Result) -> Result:
        """Moves everything about the second start into `again`."""
        last = len(result.instances) - 1
        if last == 0:  # the time limit ended the first one
            return result
        boxes = [box for box in result.boxes if box["instance"] == last]
        result.again = Again(result.instances[last]["exit_code"], result.logs[-1] if result.logs else [], boxes, result.calls,
                             result.store_calls)
        result.boxes = [box for box in result.boxes if box["instance"] != last]
        result.calls = _lines(self.lab / "standins" / "calls-first.txt")
        result.store_calls = _lines(self.lab / "standins" / "winrt-calls-first.txt")
        return result


def run(machine: Machine, arguments: str = "", *, timeout: float = 60, hold: float = 0, when: tuple[str, ...] | list[str] = (),
        then: str | None = None, at_once: int = 1, directory: str = SYSTEM, pictures: pathlib.Path | str | None = None,
        keep: bool = False, program: str = TOOL) -> Result:
    """Runs the tool, `at_once` instances at the same moment, or a program that starts it, in that directory. The machine is
    removed afterwards unless keep is set; it is kept when something goes wrong.

    then: when the tool has ended, it is started once more with these arguments, on the machine as it is by then but without
    fault rules, failures of the Store and actions; the result's `again` is about that start."""
    options = {"timeout": timeout, "hold": hold, "when": tuple(when), "at_once": at_once, "directory": directory, "program": program}
    for last_try in (False, True):  # a busy host: if Wine does not start, try again; the tool runs only once
        one = ToolRun(machine, pathlib.Path(pictures) if pictures else None)
        try:
            result = one.execute(arguments, then, **options)
            break
        except PermissionError:
            remove_folder(one.folder)
            raise
        except (OSError, RuntimeError, ValueError) as error:
            if not isinstance(error, StartError) or last_try:
                raise RunError(error, one.folder) from None
            remove_folder(one.folder)
        except subprocess.TimeoutExpired as error:
            # The watcher ends a tool that hangs. If it does not end itself, Wine hangs: under load
            # the server of Wine 10 now and then never ends a request.
            if wine_version() < 10 or last_try or error.cmd[-1] != WATCHER:
                raise RunError(error, one.folder) from error
            warnings.warn(f"{HUNG}: the run was repeated; the machine is kept in {one.folder}", stacklevel=1)
        except Exception as error:
            raise RunError(error, one.folder) from error
    if not keep:
        remove_folder(one.folder)
        result.prefix = ""
    return result
