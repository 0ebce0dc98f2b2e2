"""The idle status window: the server does not answer."""
from __future__ import annotations

import pathlib
import time
from typing import Callable

from bench.downloads import PATH
from bench.figures import Row
from bench.machine import TOOL, WarmMachine
from bench.settings import Settings
from bench.watch import LogWatch, now

SILENCE = 85  # seconds; the tool gives up after 90
WARM = 3      # seconds until everything is drawn


def cpu_seconds(process: int) -> float:
    """Returns the time of all threads, by the scheduler's own count of nanoseconds."""
    total = 0
    for thread in pathlib.Path("/proc", str(process), "task").iterdir():
        total += int((thread / "schedstat").read_text("ascii").split()[0])
    return total / 1e9


def idle(settings: Settings, say: Callable[[str], None]) -> list[Row]:
    seconds = settings.idle_seconds
    description = {"server": {"answers": {PATH: {"delay": SILENCE}}}}
    with WarmMachine(description, shown=True, when=("log Change server to : kill 0",)) as machine:
        with LogWatch(machine.log_folder) as log:
            process = machine.start(TOOL)
            try:
                while not any("Change server to" in line for _, line in log.lines):
                    if process.poll() is not None:
                        raise RuntimeError(f"the tool ended with exit code {process.returncode}: {log.lines}")
                    time.sleep(0.05)
                time.sleep(WARM)
                before, = machine.numbers("objects.exe", TOOL)
                start, cpu = now(), cpu_seconds(process.pid)
                time.sleep(seconds)
                share = 100 * (cpu_seconds(process.pid) - cpu) / (now() - start)
                after, = machine.numbers("objects.exe", TOOL)
                if process.poll() is not None:
                    raise RuntimeError(f"the tool ended too early, with exit code {process.returncode}")
            finally:
                process.kill()
                process.wait()
    say(f"objects before {before}, after {after}")
    if 0 in before:
        raise RuntimeError("the objects cannot be counted here")
    what = f"status window, {seconds} s idle"
    return [Row("window", what, "% of a core", [share], limit=0.5, note="on a screen, with its dots moving twice a second"),
            Row("window", f"{what}: GDI objects", "objects", [after[0]], "at the beginning", [before[0]], "difference", 0),
            Row("window", f"{what}: user objects", "objects", [after[1]], "at the beginning", [before[1]], "difference", 0,
                "of all programs on the machine together")]
