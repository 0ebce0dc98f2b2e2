"""One run of the shipping exe on one machine, in a prefix, a server and a display of its own."""
from __future__ import annotations

import contextlib
import functools
import itertools
import json
import os
import pathlib
import re
import subprocess
import time

from lab import certificates, paths, prefix as prefixes, state
from lab.children import end_with_parent
from lab.display import Display, Photographer
from lab.hive import Hive
from lab.sparse import SparseFiles
from lab.machine import Machine
from lab.result import Again, Result
from lab.server.web import WebServer

TOOL = r"C:\lab\TavikCompatibilityTool.exe"
SYSTEM = r"C:\windows\system32"
LOGS = pathlib.Path("Program Files", "Tavik", "MIM", "Log")
LOG_NAMES = "InstallVLTForWUDriver_*.log"
NO_LINE_END = " (no line end)"
_numbers = itertools.count(1)


class RunError(RuntimeError):
    """The run could not be carried out; the machine is kept."""

    def __init__(self, error: Exception, folder: pathlib.Path):
        super().__init__(f"{error} (the machine is kept in {folder})")
        self.folder = folder


def fresh_folder() -> pathlib.Path:
    folder = paths.RUNS / f"{os.getpid()}-{next(_numbers)}"
    folder.mkdir(parents=True)
    return folder


def remove_folder(folder: pathlib.Path) -> None:
    subprocess.run(["rm", "-rf", str(folder)], check=False)


def end_orphans() -> None:
    """Ends what still runs on machines whose owner was killed."""
    for folder in paths.RUNS.iterdir() if paths.RUNS.exists() else ():
        owner = folder.name.split("-")[0]
        if owner.isdigit() and not pathlib.Path("/proc", owner).exists():
            prefixes.Prefix(folder / "prefix").stop()


def default_address() -> str:
    """An address of this run's own, so that several can have port 443."""
    return f"127.{1 + os.getpid() % 250}.{1 + os.getpid() // 250 % 250}.{1 + next(_numbers) % 250}"


@functools.cache
def private_hosts_obstacle() -> str:
    """Why no run here can have a hosts file of its own and port 443; empty when it can. Root in a container may not."""
    if os.geteuid() != 0:
        return "the maker's own server address needs port 443 and a private hosts file: only root has them"
    tried = subprocess.run(["unshare", "--mount", "mount", "--bind", "/etc/hosts", "/etc/hosts"], capture_output=True, text=True)
    return f"the maker's own server address needs a private hosts file: {tried.stderr.strip()}" if tried.returncode else ""


@functools.cache
def mounting_obstacle() -> str:
    """Why no run here can have disks of its own; empty when it can."""
    tried = subprocess.run(["unshare", "--mount", "mount", "-t", "tmpfs", "tmpfs", "/tmp"], capture_output=True, text=True)
    return f"a disk of a run's own cannot be mounted: {tried.stderr.strip()}" if tried.returncode else ""


class Disks:
    """File systems of a given size that only one run sees. A process that does nothing else keeps them mounted."""

    SCRIPT = 'while [ $# -gt 0 ]; do mount -t tmpfs -o "size=$1" tmpfs "$2" || exit 1; shift 2; done; echo mounted; exec cat'

    def __init__(self, folders: dict[pathlib.Path, int]):
        arguments = [text for folder, size in folders.items() for text in (str(size), str(folder))]
        self.keeper = subprocess.Popen(["unshare", "--mount", "sh", "-c", self.SCRIPT, "sh", *arguments], stdin=subprocess.PIPE,
                                       stdout=subprocess.PIPE, stderr=subprocess.PIPE, preexec_fn=end_with_parent)
        if self.keeper.stdout.readline() != b"mounted\n":
            self.keeper.kill()
            raise PermissionError(f"a disk of a run's own cannot be mounted: {self.keeper.communicate()[1].decode().strip()}")
        self.launcher = ("nsenter", f"--mount=/proc/{self.keeper.pid}/ns/mnt", "--")

    def seen(self, folder: pathlib.Path) -> pathlib.Path:
        """The folder as it looks with the disks."""
        return pathlib.Path(f"/proc/{self.keeper.pid}/root") / folder.relative_to("/")

    def close(self) -> None:
        self.keeper.communicate(b"")


def _lines(file: pathlib.Path, encoding: str = "utf-8") -> list[str]:
    if not file.exists():
        return []
    return [line for line in file.read_bytes().decode(encoding, "replace").replace("\r", "").split("\n") if line]


def read_log(log: pathlib.Path | bytes, errors: str = "surrogatepass") -> list[str]:
    """Every line ends in one line feed; one that does not is marked, so that no case takes it for a whole one."""
    data = log if isinstance(log, bytes) else log.read_bytes()
    *lines, rest = data.decode("utf-16-le", errors).split("\n")
    return lines + [rest + NO_LINE_END] if rest else lines


def _log_order(file: pathlib.Path) -> list[int]:
    return [int(number) for number in re.findall(r"\d+", file.name)]  # date and time without leading zeros


def orders(machine: Machine, arguments: str, late: list[str], timeout: float = 60, hold: float = 0, when: tuple[str, ...] = (),
           then: str | None = None, at_once: int = 1, pictures: bool = False, directory: str = SYSTEM, program: str = TOOL) -> str:
    """What the watcher is told."""
    lines = [f"program = {program}", f"directory = {directory}", f"arguments = {arguments}", r"report = C:\lab\report.json",
             f"timeout = {int(timeout * 1000)}", f"hold = {int(hold * 1000)}", f"crowd = {at_once}"]
    lines += [f"start = {program}" for program in machine.data["running"]]
    lines += [f"held = {path}" for path in machine.data["held"]]
    lines += [f"shared = {path}" for path in machine.data["shared"]]
    lines += [f"registry = {line}" for line in late]
    lines += [f"when = {line}" for line in when]
    if then is not None:
        lines.append(f"then = {then}")
    if pictures:
        lines.append(r"pictures = C:\lab\pictures")
    if machine.data["own_adapter"]:
        lines.append("own-adapter = shown")
    return "\n".join(lines) + "\n"


class StartError(RuntimeError):
    """Wine itself did not come up; the tool has not been started."""


class Run:
    """Holds what has to be taken down again."""

    def __init__(self, machine: Machine, pictures: pathlib.Path | None):
        self.machine = machine
        self.folder = fresh_folder()
        self.pictures = pictures
        self.stack = contextlib.ExitStack()
        self.launcher: tuple[str, ...] = ()
        self.disks: Disks | None = None

    def _start_server(self) -> WebServer | None:
        server = self.machine.server
        if server.reach == "none":
            if self.machine.data["hosts"]:
                self._name_hosts(self.machine.data["hosts"])
            return None
        default = server.reach == "default"
        secure = server.tls != "none" and (default or bool(server.tls))
        options = {"certificate": server.certificate if secure else "", "protocols": server.tls if secure else "",
                   "also_plain": server.also_plain, "tool_log": self.folder / "prefix" / "drive_c" / LOGS}
        if not default:
            web = WebServer(self.folder / "server", server.answers, **options)
        else:
            obstacle = private_hosts_obstacle()
            if obstacle:
                raise PermissionError(obstacle)
            address = default_address()
            web = WebServer(self.folder / "server", server.answers, address=address, port=443, **options)
            self._name_hosts({certificates.HOST: address})
        self.stack.callback(web.close)
        return web

    def _name_hosts(self, addresses: dict[str, str]) -> None:
        """The run, and nobody else, finds these names at these addresses."""
        obstacle = private_hosts_obstacle()
        if obstacle:
            raise PermissionError(obstacle)
        hosts = self.folder / "hosts"
        hosts.write_text("127.0.0.1 localhost\n" + "".join(f"{address} {name}\n" for name, address in addresses.items()), "ascii")
        self.launcher = ("unshare", "--mount", "sh", "-c", 'mount --bind "$0" /etc/hosts && exec "$@"', str(hosts))

    def _limit_disks(self, prefix: prefixes.Prefix) -> None:
        """Files are opened by Wine's server and written by its clients: both have to see the disks."""
        if self.machine.data["disks"]:
            self.disks = Disks({prefix.windows_path(path): size for path, size in self.machine.data["disks"].items()})
            self.stack.callback(self.disks.close)
            prefix.launcher = self.disks.launcher
            self.launcher = (*self.disks.launcher, *self.launcher)
        if self.machine.data["largest_file"]:
            script = 'trap "" XFSZ && exec prlimit "--fsize=$0" "$@"'  # the signal would end whoever writes too much
            self.launcher = (*self.launcher, "sh", "-c", script, str(self.machine.data["largest_file"]))

    def execute(self, arguments: str, timeout: float, hold: float, when: tuple[str, ...], then: str | None,
                at_once: int, directory: str, program: str) -> Result:
        started = time.monotonic()
        with self.stack:
            web = self._start_server()
            address = f"{web.address}:{web.port}" if web else ""
            prefix = prefixes.Prefix.copy(self.machine.template(), self.folder / "prefix")
            late, system = self.machine.install(prefix, address)
            self._limit_disks(prefix)
            if self.pictures:
                self._prepare_pictures(prefix)
            before = state.read(prefix.drive, system)
            text = orders(self.machine, arguments, late, timeout, hold, when, then, at_once, self.pictures is not None, directory, program)
            (prefix.drive / "lab" / "watcher.txt").write_text(text, "utf-8", "surrogatepass")
            sparse = SparseFiles([prefix.windows_path(path) for path in self.machine.data["sparse"]])
            self.stack.callback(sparse.close)
            self.stack.callback(prefix.stop)
            prefix.start()
            errors = self.folder / "errors.txt"
            code = prefix.wine(r"C:\lab\watcher.exe", output=errors, timeout=timeout + 60, launcher=self.launcher)
            prefix.stop()
            if code == 1 and errors.stat().st_size == 0:  # the watcher itself gives other codes, or a reason
                raise StartError("the watcher was not started")
            if code != 0:
                raise RuntimeError(f"the watcher ended with {code}: {errors.read_text('utf-8', 'replace')[:2000]}")
            if web:
                web.close()
            sparse.close()
            drive = self.disks.seen(prefix.drive) if self.disks else prefix.drive
            after = state.read(drive, Hive(prefix.path / "system.reg"))
            logs = [read_log(file) for file in sorted((drive / LOGS).glob(LOG_NAMES), key=_log_order)]
        result = self._collect(prefix, web, address, before, after, logs, errors, sparse.most, time.monotonic() - started)
        return result if then is None else self._divide(result, prefix.drive / "lab" / "standins")

    @staticmethod
    def _divide(result: Result, standins: pathlib.Path) -> Result:
        """What belongs to the start afterwards goes into `again`."""
        last = len(result.instances) - 1
        if last == 0:  # the time limit ended the first one
            return result
        boxes = [box for box in result.boxes if box["instance"] == last]
        result.again = Again(result.instances[last]["exit_code"], result.logs[-1] if result.logs else [], boxes, result.calls,
                             result.store_calls)
        result.boxes = [box for box in result.boxes if box["instance"] != last]
        result.calls = _lines(standins / "calls-first.txt")
        result.store_calls = _lines(standins / "winrt-calls-first.txt")
        return result

    def _store_left(self, state_file: pathlib.Path) -> list[str]:
        """The stand-in writes the file when something changes."""
        return _lines(state_file) if state_file.exists() else self.machine.store_packages

    def _prepare_pictures(self, prefix: prefixes.Prefix) -> None:
        display = Display()
        self.stack.callback(display.close)
        prefix.variables["DISPLAY"] = display.name
        user = Hive(prefix.path / "user.reg")
        user.remove(r"Software\Wine\Drivers", "Graphics")
        user.save()
        self.photographer = Photographer(display, prefix.drive / "lab" / "pictures", self.pictures)
        self.stack.callback(self.photographer.close)

    def _collect(self, prefix: prefixes.Prefix, web: WebServer | None, address: str, before: state.State, after: state.State,
                 logs: list[list[str]], errors: pathlib.Path, disk_used: int, seconds: float) -> Result:
        lab = prefix.drive / "lab"
        report = json.loads((lab / "report.json").read_text("utf-8"))
        installer = lab / "installer.txt"
        return Result(
            exit_code=report["instances"][0]["exit_code"], log=logs[0] if logs else [], logs=logs, boxes=report["boxes"],
            status=report["status"], requests=web.requests if web else [], calls=_lines(lab / "standins" / "calls.txt"),
            store_calls=_lines(lab / "standins" / "winrt-calls.txt"), store_left=self._store_left(lab / "standins" / "store-state.txt"),
            programs=_lines(lab / "programs.txt"), installer=[line.strip() for line in _lines(installer, "utf-16-le")],
            instances=report["instances"], actions=report["actions"], started_before=report["started_before"],
            still_running=report["still_running"], event=report["event"], timed_out=report["timed_out"], before=before,
            after=after,
            output=[file.read_bytes().decode("utf-8", "replace") for file in sorted(lab.glob("output-*.txt"))],
            errors=errors.read_text("utf-8", "replace") if errors.exists() else "", server=address, seconds=seconds,
            disk_used=disk_used,
            pictures=self.photographer.taken if self.pictures else [], prefix=str(self.folder))


def run(machine: Machine, arguments: str = "", *, timeout: float = 60, hold: float = 0, when: tuple[str, ...] | list[str] = (),
        then: str | None = None, at_once: int = 1, directory: str = SYSTEM, pictures: pathlib.Path | str | None = None,
        keep: bool = False, program: str = TOOL) -> Result:
    """Runs the tool (so many at once), or a program that starts it, in that directory. The machine is removed afterwards unless it is to be kept; it
    is kept when something goes wrong.

    then: when the tool has ended it is started once more with these arguments, on the machine as it is by then but without
    fault rules, failures of the Store and actions; the result's `again` is about that start."""
    one = Run(machine, pathlib.Path(pictures) if pictures else None)
    try:
        try:
            result = one.execute(arguments, timeout, hold, tuple(when), then, at_once, directory, program)
        except StartError:
            remove_folder(one.folder)
            one = Run(machine, one.pictures)
            result = one.execute(arguments, timeout, hold, tuple(when), then, at_once, directory, program)
    except PermissionError:
        remove_folder(one.folder)
        raise
    except Exception as error:
        raise RunError(error, one.folder) from error
    if not keep:
        remove_folder(one.folder)
        result.prefix = ""
    return result

