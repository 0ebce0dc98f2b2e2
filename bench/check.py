"""The compatibility check, in whole runs of the tool: its start, a check that finds nothing to do, many driver packages."""
from __future__ import annotations

import functools
from typing import Any, Callable

from bench import turns
from bench.figures import Row, quartiles
from bench.machine import FLOOR, TOOL, WarmMachine
from bench.settings import Settings
from bench.watch import MODIFY, FileWatch, LogWatch
from lab import inf
from lab.adapters import RELEASE
from lab.prefix import replace_file

NOTHING_TO_DO = 255  # what Unix sees of -1
POLL_MS = 100        # both check that often whether the window is ready
SAME_RELEASE = {"desktop": {"release": "24.20"}, "server": {"reach": "none"}}
ADAPTERS = 4


def run_and_watch(machine: WarmMachine, program: str, *arguments: str, code: int):
    with LogWatch(machine.log_folder) as log:
        ran = machine.run(program, *arguments)
    if ran.code != code:
        raise RuntimeError(f"{program} ended with exit code {ran.code} instead of {code}: {[line for _, line in log.lines]}")
    return ran, log


# The start

def start(settings: Settings, say: Callable[[str], None]) -> list[Row]:
    def tool() -> float:
        ran, log = run_and_watch(machine, TOOL, "-SILENT", code=NOTHING_TO_DO)
        return 1000 * (log.when("Launched with command line") - ran.start)

    def bare() -> float:
        with FileWatch(machine.lab, MODIFY) as watch:
            ran = machine.run("bare_gui.exe", r"C:\lab\bare.txt")
        return 1000 * (watch.first(MODIFY, "bare.txt") - ran.start)

    with WarmMachine(SAME_RELEASE) as machine, machine.one_core():
        times = turns.take({"tool": tool, "bare": bare}, settings.short_pairs, say)
    return [Row("start", "process start to first log line", "ms", times["tool"], "bare exe that writes one file", times["bare"],
                "difference", 25, "the bare exe needs none of the libraries of a window")]


# The check that finds nothing to do

class EarlyExit:
    """What one run of the tool, or of its floor, took. Both write the same lines."""

    def __init__(self, machine: WarmMachine, program: str, argument: str, code: int):
        ran, log = run_and_watch(machine, program, argument, code=code)
        (launched, _), (checked, _), *_ = log.lines
        self.wall = 1000 * ran.wall
        self.polls = int(1000 * (checked - launched) / POLL_MS)  # between these lines only the window is waited for
        self.cpu = 1000 * ran.cpu


def early_exit(settings: Settings, say: Callable[[str], None]) -> list[Row]:
    runs: dict[str, list[EarlyExit]] = {"tool": [], "floor": []}

    def run(who: str, *command: Any) -> float:
        runs[who].append(EarlyExit(machine, *command))
        return runs[who][-1].wall

    contestants = {"tool": functools.partial(run, "tool", TOOL, "-SILENT", NOTHING_TO_DO),
                   "floor": functools.partial(run, "floor", FLOOR, r"C:\lab\lines.txt", 0)}
    with WarmMachine(SAME_RELEASE) as machine, machine.one_core():
        machine.keep_log("lines.txt")
        turns.take(contestants, settings.short_pairs, say)
    tool, floor = runs["tool"][1:], runs["floor"][1:]  # without those that warmed up
    against = "a plain program for the same work"

    def row(what: str, pick: Callable[[EarlyExit], float], measure: str, limit: float, note: str = "") -> Row:
        return Row("early-exit", f"early exit, {what}", "ms", [pick(one) for one in tool], against, [pick(one) for one in floor],
                   measure, limit, note)
    polls = quartiles([float(one.polls) for one in tool])[1]
    return [row("without the wait for the window", lambda one: one.wall - POLL_MS * one.polls, "difference", 30,
                f"{polls:g} times {POLL_MS} ms come to it, because the tool checks that often whether the window is there"),
            row("CPU", lambda one: one.cpu, "ratio", 1.5)]


# Many driver packages

def inf_text(size: int, release: str) -> str:
    """An INF like those of display drivers, of about this size: a head, then sections with registry settings."""
    head = inf.TEMPLATE.replace("{name}", "package").replace("{release}", release).replace("\n", "\r\n")
    lines = [head]
    length = len(head)
    section = 0
    while length < size:
        section += 1
        rest = [f"[Settings_{section:05d}]", *(f"HKR,,Feature_{section:05d}_{line:02d},%REG_DWORD%,0x{section * line:08x}"
                                              for line in range(1, 40))]
        lines.append("\r\n".join(rest) + "\r\n\r\n")
        length += len(lines[-1])
    return "".join(lines)


def machine_with(packages: int, size: int) -> dict[str, Any]:
    """Four adapters with this number of driver packages together. The first one of each adapter has its release."""
    other, same = (inf_text(size, release) for release in ("23.10.01.00-230101a", RELEASE))
    adapters = []
    for number in range(ADAPTERS):
        own = packages // ADAPTERS + (number < packages % ADAPTERS)
        adapters.append({"packages": [{"text": same if index == 0 else other} for index in range(own)]})
    return {**SAME_RELEASE, "adapters": adapters}


def shorten_published(machine: WarmMachine) -> None:
    """Wine parses every published INF again for each adapter; Windows has an index. So only the heads of these files are
    kept. The copies in the driver store, which the tool reads, stay whole."""
    for file in (machine.prefix.drive / "windows" / "inf").glob("oem*.inf"):
        replace_file(file, file.read_bytes().partition(b"[Settings_")[0])


def enumerate_packages(packages: int, size: int, pairs: int, say: Callable[[str], None]) -> dict[str, list[float]]:
    def tool() -> float:
        _, log = run_and_watch(machine, TOOL, "-SILENT", code=NOTHING_TO_DO)
        found = sum(line.startswith("Found driver ") and not line.endswith("[]") for _, line in log.lines)
        if found != packages:
            raise RuntimeError(f"the tool has found {found} packages instead of {packages}")
        return log.when("Currently installed drivers on system:") - log.when("Currently installed VLT is version")

    def floor() -> float:
        (infs, microseconds), = machine.numbers(FLOOR)
        if infs != packages:
            raise RuntimeError(f"the floor has opened {infs} INFs instead of {packages}")
        return microseconds / 1e6

    with WarmMachine(machine_with(packages, size), change=shorten_published) as machine:
        return turns.take({"tool": tool, "floor": floor}, pairs, say, warm=False)  # its first run was the warm-up


def growth(counts: list[int], seconds: list[list[float]], low: int, high: int) -> float:
    """Milliseconds for each further package, by the medians of two numbers of packages."""
    middle = [quartiles(values)[1] for values in seconds]
    return 1000 * (middle[high] - middle[low]) / (counts[high] - counts[low])


def enumeration(settings: Settings, say: Callable[[str], None]) -> list[Row]:
    rows = []
    counts = list(settings.packages)
    for size, pairs in settings.inf_sizes:
        tool: list[list[float]] = []
        what = f"{size // 1000} KB" if size < 1_000_000 else f"{size // 1_000_000} MB"
        for count in counts:
            say(f"{count} packages of {what}")
            times = enumerate_packages(count, size, pairs, say)
            tool.append(times["tool"])
        rows.append(Row("enumeration", f"{counts[-1]} driver packages of {what} on {ADAPTERS} adapters", "s", times["tool"],
                        "a plain loop over SetupAPI", times["floor"], "ratio", 1.15))
        if len(counts) > 2:
            first, second = growth(counts, tool, 0, 1), growth(counts, tool, 1, 2)
            if first <= 0:
                raise RuntimeError("more packages took less time: this machine is too busy, measure again")
            rows.append(Row("enumeration", f"each further package of {what}, {counts[1]} to {counts[2]}", "ms", [second],
                            f"the tool, {counts[0]} to {counts[1]}", [first], "ratio", 1.25, "1 is a straight line"))
    return rows
