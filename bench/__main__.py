"""Measures the tool against its floors, and against curl and wget.

    scripts/bench                 everything, each figure in at least 11 interleaved pairs; takes about half an hour
    scripts/bench --quick         a quick run in less than three minutes: fewer pairs, smaller files
    scripts/bench --only start log    some figures only; --list names them
    scripts/bench --size          where the bytes of the exe are
    scripts/bench --write-docs    everything, and then the table and the sizes of docs/performance.md

Prints a table and writes it to build/bench, with every single measurement as CSV. The exit code is 1 when
a goal is missed or something could not be measured.

Each figure is a function that returns rows of the table, each beside its floor. It is in the module of what it measures:
check.py, downloads.py, log_and_inf.py, size.py or window.py. FIGURES below has its name.
"""
from __future__ import annotations

import argparse
import datetime
import os
import pathlib
import platform
import re
import subprocess
import sys
import time
from typing import Callable

from bench import check, downloads, log_and_inf, report, size, window
from bench.figures import Missing, Row, exit_code
from bench.machine import remove_leftovers
from bench.settings import FULL, QUICK, Settings
from lab import paths

FIGURES: dict[str, tuple[str, Callable[[Settings, Callable[[str], None]], list[Row]]]] = {
    "size": ("size of the exe", size.figure),
    "start": ("process start to first log line", check.start),
    "early-exit": ("a run that finds nothing to do", check.early_exit),
    "small": ("download of a small file", downloads.small),
    "download": ("download over http, with curl and wget", downloads.http),
    "https": ("download over https", downloads.https),
    "memory": ("peak memory of a download", downloads.memory),
    "inf": ("section names of a large INF", log_and_inf.inf_names),
    "log": ("10,000 log lines", log_and_inf.log),
    "window": ("status window while nothing happens", window.idle),
    "enumeration": ("many driver packages", check.enumeration),
}
RESULTS = paths.ROOT / "build" / "bench"
PAGE = paths.ROOT / "docs" / "performance.md"
SIZE_BEGIN, SIZE_END = "<!-- size: begin -->", "<!-- size: end -->"


def say(text: str) -> None:
    print(f"bench: {text}", flush=True)


def measure(names: list[str], settings: Settings) -> tuple[list[Row], list[Missing]]:
    rows: list[Row] = []
    missing: list[Missing] = []
    for number, name in enumerate(names, 1):
        what, take = FIGURES[name]
        say(f"{number} of {len(names)}: {what}")
        start = time.monotonic()
        try:
            rows += take(settings, lambda text: print(f"    {text}", flush=True))
        except (OSError, RuntimeError) as error:
            missing.append(Missing(name, what, f"{error}"))
            say(f"could not be measured: {error}")
        print(f"    {time.monotonic() - start:.0f} s", flush=True)
    return rows, missing


def machine_line() -> str:
    """When and where the figures were measured."""
    cpu = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text("utf-8", "replace"))
    wine = subprocess.run([paths.WINE, "--version"], capture_output=True, text=True).stdout.split()[0]
    commit = subprocess.run(["git", "rev-parse", "--short", "HEAD"], cwd=paths.ROOT, capture_output=True, text=True).stdout.strip()
    changed = subprocess.run(["git", "status", "--porcelain", "--", "src", "cmake", "bench"], cwd=paths.ROOT, capture_output=True,
                             text=True).stdout.strip()
    date = datetime.date.today().isoformat()
    return (f"Measured on {date} at commit {commit}{' with changes' if changed else ''}: {os.cpu_count()} cores "
            f"({cpu[1] if cpu else 'unknown'}), {wine}, Linux {platform.release().split('-')[0]}. This is not Windows.")


def write_docs(rows: list[Row], missing: list[Missing], quick: bool) -> None:
    fresh = [machine_line() + (" A quick run (--quick)." if quick else ""), "", *report.markdown(rows, missing)]
    text = report.replace_between_marks(PAGE.read_text("utf-8"), fresh)
    text = report.replace_between_marks(text, size.markdown(), SIZE_BEGIN, SIZE_END)
    PAGE.write_text(text, "utf-8")
    say(f"{PAGE.relative_to(paths.ROOT)} is up to date.")


def main(arguments: list[str]) -> int:
    parser = argparse.ArgumentParser(prog="scripts/bench", description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--quick", action="store_true", help="a quick run in less than three minutes")
    parser.add_argument("--only", nargs="+", choices=FIGURES, metavar="NAME", help="some figures only")
    parser.add_argument("--list", action="store_true", help="the names of the figures")
    parser.add_argument("--size", action="store_true", help="where the bytes of the exe are")
    parser.add_argument("--write-docs", action="store_true", help="bring docs/performance.md up to date")
    options = parser.parse_args(arguments)
    if options.list:
        print("\n".join(f"{name:12} {what}" for name, (what, _) in FIGURES.items()))
        return 0
    if options.size:
        print("\n".join(size.markdown()))
        return 0
    if options.write_docs and options.only:
        parser.error("--write-docs needs all figures")

    remove_leftovers()
    load = os.getloadavg()[0]
    if load > 0.5:
        say(f"other programs run on this machine (load {load:.1f}): check the quartiles before you trust a figure.")
    start = time.monotonic()
    rows, missing = measure(options.only or list(FIGURES), QUICK if options.quick else FULL)
    RESULTS.mkdir(parents=True, exist_ok=True)
    report.write_csv(RESULTS / "measurements.csv", rows)
    table = report.lines(rows, missing)
    (RESULTS / "table.txt").write_text("\n".join(table) + "\n", "utf-8")
    print("\n" + "\n".join(table) + "\n")
    if options.write_docs:
        write_docs(rows, missing, options.quick)
    missed = [row for row in rows if row.met is False]
    judged = [row for row in rows if row.met is not None]
    say(f"{len(judged) - len(missed)} of {len(judged)} goals met, {len(missing)} figures not measured, in "
        f"{time.monotonic() - start:.0f} s; table and measurements are in build/bench.")
    return exit_code(rows, missing)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
