"""Parts of the tool that no whole run shows alone: its log, and its reader of section names in an INF."""
from __future__ import annotations

import pathlib
from typing import Callable

from bench.check import SAME_RELEASE
from bench.figures import Row
from bench.machine import WarmMachine
from bench.settings import Settings

INF_BYTES, INF_LINES = 8_000_000, 30_000
LOG_LINES = 10_000


def write_inf(file: pathlib.Path, size: int, lines: int) -> int:
    """Writes this number of lines, one in forty of them a section's header; returns the number of sections."""
    filler = f"HKR,,Feature_%05d,%%REG_BINARY%%,{'0x5a,' * 100}"
    sections = 0
    with open(file, "w", encoding="ascii", newline="") as out:
        for number in range(lines):
            if number % 40 == 0:
                sections += 1
                text = f"[Section_{number:05d}]"
            else:
                text = (filler % number)[:size * 40 // (lines * 39) - 2]
            out.write(text + "\r\n")
    return sections


def inf_names(settings: Settings, say: Callable[[str], None]) -> list[Row]:
    with WarmMachine(SAME_RELEASE) as machine, machine.one_core():
        sections = write_inf(machine.lab / "large.inf", INF_BYTES, INF_LINES)
        rounds = machine.numbers("inf_names.exe", str(10 * settings.short_pairs), r"C:\lab\large.inf")
    if {names for names, _, _ in rounds} != {sections}:
        raise RuntimeError(f"{rounds[0][0]:g} section names were found instead of {sections}")
    say(f"{len(rounds)} times {sections} names")
    what = f"section names of an INF of {INF_BYTES / 1e6:g} MB, {INF_LINES:,} lines"
    ours, theirs = ([values[side] / 1000 for values in rounds] for side in (1, 2))
    return [Row("inf", what, "ms", ours, "reading the file once", theirs, "speed", 0.5)]


def log(settings: Settings, say: Callable[[str], None]) -> list[Row]:
    with WarmMachine(SAME_RELEASE) as machine, machine.one_core():
        rounds = machine.numbers("log_lines.exe", str(settings.short_pairs), str(LOG_LINES))
    say(f"{len(rounds)} times {LOG_LINES} lines")
    ours, theirs = ([values[side] / 1000 for values in rounds] for side in (0, 1))
    return [Row("log", f"log, {LOG_LINES:,} lines", "ms", ours, "the same WriteFile calls", theirs, "ratio", 1.2)]
