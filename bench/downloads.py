"""Downloads: the tool beside a bare loop of the same calls, and beside curl and wget."""
from __future__ import annotations

import contextlib
import pathlib
import subprocess
import time
from typing import Callable

from bench import turns
from bench.figures import Row
from bench.machine import FLOOR, INSTALLER, TOOL, WarmMachine, roomy_folder
from bench.settings import MIB, Settings
from bench.watch import CLOSE_WRITE, CREATE, MOVED_TO, FileWatch
from lab import certificates
from lab.machine import SERVER_PATH
from lab.sparse import SparseFile

PATH = SERVER_PATH + "24.20/dwx2_install.txt"
TEMPORARY = INSTALLER + ".tmp"
NOT_A_PROGRAM = 2  # the tool's exit code when the downloaded installer cannot be started
SMALL = 17 * 1024
FLAT_MIB = 1.0     # what counts as no growth: the kernel's own count is off by some pages


def most_memory(process: int) -> int:
    """The peak of a process's resident memory in bytes; 0 after its end."""
    with contextlib.suppress(OSError):
        for line in pathlib.Path("/proc", str(process), "status").read_text("ascii", "replace").splitlines():
            if line.startswith("VmHWM:"):
                return int(line.split()[1]) * 1024
    return 0


class Downloads:
    """A machine whose application is older than the driver, and a server with a body of any size."""

    def __init__(self, secure: bool = False):
        answers = {PATH: {"size": SMALL}}
        self.machine = WarmMachine({"server": {"answers": answers, **({"reach": "default"} if secure else {})}})
        self.secure = secure

    def __enter__(self) -> "Downloads":
        self.machine.__enter__()
        host = certificates.HOST if self.secure else self.machine.address
        self.url = f"{'https' if self.secure else 'http'}://{host}{PATH}"
        self.body = self.machine.web.answers[PATH]
        self.folder = self.machine.downloads
        return self

    def __exit__(self, *about: object) -> None:
        self.machine.__exit__(*about)

    def set_size(self, size: int) -> None:
        self.size = self.body.size = size

    def _check(self, program: str, file: pathlib.Path, code: int, good: int = 0) -> None:
        if code != good or file.stat().st_size != self.size:
            raise RuntimeError(f"{program} ended with exit code {code} and a file of {file.stat().st_size} bytes, not {self.size}")

    def tool(self) -> float:
        """Seconds from the request to the renamed file."""
        with FileWatch(self.folder, CREATE | MOVED_TO) as watch:
            code = self.machine.run(TOOL, "-SILENT").code
        self._check("the tool", self.folder / INSTALLER, code, NOT_A_PROGRAM)
        return watch.first(MOVED_TO, INSTALLER) - watch.first(CREATE, TEMPORARY)

    def loop(self) -> float:
        with FileWatch(self.folder, CREATE | MOVED_TO) as watch:
            code = self.machine.run("bare_loop.exe", self.url, *self._bare_names()).code
        self._check("the bare loop", self.folder / "bare.exe", code)
        return watch.first(MOVED_TO, "bare.exe") - watch.first(CREATE, "bare.tmp")

    def _fresh(self, name: str) -> pathlib.Path:
        (self.folder / name).unlink(missing_ok=True)
        return self.folder / name

    def curl(self) -> float:
        """Seconds by curl's own clock, which starts with the request."""
        file = self._fresh("curl.exe")
        done = subprocess.run(["curl", "--silent", "--noproxy", "*", "--output", file, "--write-out", "%{time_total}", self.url],
                              capture_output=True, text=True)
        self._check("curl", file, done.returncode)
        return float(done.stdout)

    def wget(self) -> float:
        """wget creates the file before it sends the request."""
        file = self._fresh("wget.exe")
        with FileWatch(self.folder, CREATE | CLOSE_WRITE) as watch:
            code = subprocess.run(["wget", "--no-config", "--no-proxy", "--quiet", "--output-document", file, self.url]).returncode
        self._check("wget", file, code)
        return watch.first(CLOSE_WRITE, file.name) - watch.first(CREATE, file.name)

    def _bare_names(self) -> tuple[str, str]:
        folder = self.machine.windows_folder(self.folder)
        return rf"{folder}\bare.tmp", rf"{folder}\bare.exe"

    def peak(self, program: str, *arguments: str, done: str, good: int) -> float:
        """Bytes until the file is renamed; what comes after the download does not count."""
        sparse = SparseFile(self.folder / (TEMPORARY if done == INSTALLER else "bare.tmp"))  # gigabytes do not stay
        with contextlib.closing(sparse), FileWatch(self.folder, MOVED_TO) as watch:
            process = self.machine.start(program, *arguments)
            most = 0
            while not watch.events and process.poll() is None:
                most = max(most, most_memory(process.pid))
                time.sleep(0.005)
            most = max(most, most_memory(process.pid))
            code = process.wait()
        watch.first(MOVED_TO, done)
        self._check(program, self.folder / done, code, good)
        return float(most)

    def tool_peak(self) -> float:
        return self.peak(TOOL, "-SILENT", done=INSTALLER, good=NOT_A_PROGRAM)

    def plain_peak(self) -> float:
        """The bare loop, after the same work and with the same window as the tool at that point."""
        return self.peak(FLOOR, r"C:\lab\lines.txt", self.url, *self._bare_names(), done="bare.exe", good=0)


def text_of(size: int) -> str:
    return f"{size / 1e9:g} GB" if size % 1_000_000_000 == 0 else f"{size >> 30} GiB" if size % (1 << 30) == 0 else f"{size >> 20} MiB"


def where() -> str:
    return "the files are in memory, so the flush that ends a download costs nothing" if roomy_folder() else \
        "the files are on this machine's disk; tool and loop flush them, curl and wget do not"


def http(settings: Settings, say: Callable[[str], None]) -> list[Row]:
    what = f"download of {text_of(settings.download)}, http"
    with Downloads() as downloads:
        downloads.set_size(settings.download)
        times = turns.take({"tool": downloads.tool, "loop": downloads.loop, "curl": downloads.curl, "wget": downloads.wget},
                           settings.pairs, say)
    def row(against: str, who: str, limit: float, note: str = "") -> Row:
        return Row("download", what, "s", times["tool"], against, times[who], "speed", limit, note)
    return [row("bare WinINet loop", "loop", 0.97, where()), row("curl", "curl", 0.8), row("wget", "wget", 1.0)]


def https(settings: Settings, say: Callable[[str], None]) -> list[Row]:
    with Downloads(secure=True) as downloads:
        downloads.set_size(settings.secure_download)
        times = turns.take({"tool": downloads.tool, "loop": downloads.loop}, settings.pairs, say)
    return [Row("https", f"download of {text_of(settings.secure_download)}, https", "s", times["tool"], "bare WinINet loop",
                times["loop"], "speed", 0.97)]


def small(settings: Settings, say: Callable[[str], None]) -> list[Row]:
    with Downloads() as downloads:
        downloads.set_size(SMALL)
        with downloads.machine.one_core():
            times = turns.take({"tool": downloads.tool, "loop": downloads.loop}, settings.short_pairs, say)
    milliseconds = {who: [1000 * seconds for seconds in values] for who, values in times.items()}
    return [Row("small", "file of 17 KiB, from the new file to the renamed one", "ms", milliseconds["tool"], "bare WinINet loop",
                milliseconds["loop"], "difference", 5)]


def memory(settings: Settings, say: Callable[[str], None]) -> list[Row]:
    rows = []
    peaks: list[list[float]] = []
    with Downloads() as downloads:
        downloads.machine.keep_log("lines.txt")
        for size in settings.memory:
            downloads.set_size(size)
            took = turns.take({"tool": downloads.tool_peak, "plain": downloads.plain_peak}, settings.pairs, say)
            tool, plain = ([value / MIB for value in took[who]] for who in ("tool", "plain"))
            peaks.append(tool)
            rows.append(Row("memory", f"peak memory, download of {text_of(size)}", "MiB", tool,
                            "the loop in a plain program for the same work", plain, "difference", 4))
    low, high = settings.memory[0], settings.memory[-1]
    rows.append(Row("memory", f"growth from {text_of(low)} to {text_of(high)}", "MiB", peaks[-1], f"the tool, {text_of(low)}",
                    peaks[0], "difference", FLAT_MIB, "flat, but for pages that the kernel counts late"))
    return rows
