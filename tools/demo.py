#!/usr/bin/python3
"""Shows the tool at work on a described machine: its log, its windows, the machine before and after.

    tools/demo.py desktop|store|direct
"""
from __future__ import annotations

import contextlib
import dataclasses
import itertools
import os
import pathlib
import re
import shutil
import sys
import threading
import time
from collections.abc import Iterator

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))

from lab import paths  # noqa: E402
from lab.machine import Machine  # noqa: E402
from lab.result import Result  # noqa: E402
from lab.run import run  # noqa: E402

PICTURES = paths.ROOT / "build" / "demo"
WIDTH = max(60, min(140, shutil.get_terminal_size((120, 25)).columns - 6))  # of a line of the log


@dataclasses.dataclass
class Show:
    """One run, and what it has to come to."""
    machine: str
    arguments: str
    exit_code: int
    box: str          # text of the final message box; empty: none
    texts: list[str]  # of the status window, in this order
    brief: bool = False  # only the end of the log is printed


CHECKING, DOWNLOADING, INSTALLING = "Checking System.", "Downloading compatible version of Tavik Software.", "Installing..."
COMPATIBLE = ("The version of Tavik Software installed is already a compatible version. "
              "Please check if the Tavik Display Driver is working correctly.")
FINISHED = "Finished installing Tavik Software"
SHOWS = {
    "desktop": [Show("demo", "", 0, FINISHED, [CHECKING, DOWNLOADING, INSTALLING]),
                Show("compatible", "", -1, COMPATIBLE, [CHECKING], brief=True)],
    "store": [Show("store", "", 0, FINISHED, [CHECKING, INSTALLING])],
    "direct": [Show("direct", r"-VLT -Install -Path C:\users\Public\dwx2_install.exe", 0, "", [INSTALLING])],
}


COLOURED = sys.stdout.isatty() and "NO_COLOR" not in os.environ and os.environ.get("TERM") != "dumb"


def styled(text: str, code: str) -> str:
    return f"\033[{code}m{text}\033[0m" if COLOURED else text


def bold(text: str) -> str:
    return styled(text, "1")


def faint(text: str) -> str:
    return styled(text, "2")


@contextlib.contextmanager
def sign_of_life(what: str) -> Iterator[None]:
    """On a terminal the seconds count while something runs, on a line that is gone afterwards."""
    if not COLOURED:
        yield
        return
    end, start = threading.Event(), time.monotonic()

    def count() -> None:
        while not end.wait(0.2):
            print(f"\r  {what}, {time.monotonic() - start:.0f} s ", end="", flush=True)

    counter = threading.Thread(target=count)
    counter.start()
    try:
        yield
    finally:
        end.set()
        counter.join()
        print("\r\033[K", end="", flush=True)


def keep_pictures(show: Show, result: Result) -> list[pathlib.Path]:
    """The pictures under names that say what is on them."""
    folder = PICTURES / show.machine
    kept = []
    texts = [text for text in result.status_texts if text in show.texts]
    status = [picture for picture in result.pictures if "status" in picture]
    for number, picture in enumerate(result.pictures, 1):
        at = status.index(picture) if picture in status else -1
        # A text that was gone at once has no picture: then nothing tells which picture shows which text.
        name = "box" if at < 0 else texts[at] if len(texts) == len(status) else "window"
        slug = re.sub(r"[^a-z]+", "-", name.lower()).strip("-")
        target = folder / f"{number}-{slug}.png"
        pathlib.Path(picture).rename(target)
        kept.append(target)
    return kept


def table(machine: Machine, result: Result) -> list[tuple[str, str, str]]:
    def value(state, key: str, name: str) -> str:
        found = state.value(key, name)
        return "-" if found is None else str(found)

    key = r"Software\Tavik\HL"
    rows = [("driver's release", machine.adapters[0].release_text(), machine.adapters[0].release_text()),
            ("application's version", value(result.before, key, "HLVersion"), value(result.after, key, "HLVersion")),
            ("desktop products", ", ".join(result.before.products) or "-", ", ".join(result.after.products) or "-"),
            ("Store package", ", ".join(machine.store_packages) or "-", ", ".join(result.store_left) or "-")]
    marker = value(result.after, r"Software\Orrel Technologies\Install", "VLTUWPReplaced")
    if marker != "-":
        rows.append(("VLTUWPReplaced", value(result.before, r"Software\Orrel Technologies\Install", "VLTUWPReplaced"), marker))
    return [row for row in rows if row[1:] != ("-", "-")]


def print_table(rows: list[tuple[str, str, str]]) -> None:
    """Before and after; of a machine that is as it was only that."""
    if all(before == after for _, before, after in rows):
        for name, before, _ in rows:
            print(f"  {name:<22} {before}")
        print(f"  {'the machine afterwards':<22} as before")
        return
    rows = [("", "before", "after"), *rows]
    widths = [max(len(row[column]) for row in rows) for column in range(3)]
    for number, (name, before, after) in enumerate(rows):
        line = f"  {name:<22} {before:<{widths[1]}}  "
        print(faint(line + after) if number == 0 else line + (after if before == after else styled(after, "32")))


def shorten(line: str) -> str:
    line = line.replace("\t", "    ")
    return line if len(line) <= WIDTH else line[: WIDTH // 2 - 2] + " ... " + line[-(WIDTH - WIDTH // 2 - 3):]


def without_repetition(log: list[str]) -> list[str]:
    """Calls of the same program one after the other: the first, and how many there are."""
    def program(line: str) -> str:
        return line.split("  /IM")[0] if "taskkill.exe" in line else ""

    lines: list[str] = []
    for same, group in itertools.groupby(log, key=program):
        found = list(group)
        if same and len(found) > 1:
            lines += [found[0], f"    ... and {len(found) - 1} lines like this one"]
        else:
            lines += found
    return lines


def print_log(show: Show, log: list[str]) -> None:
    file = PICTURES / show.machine / "log.txt"
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_text("\n".join(log) + "\n", encoding="utf-8")
    print(f"  log, {len(log)} lines, in {file.relative_to(paths.ROOT)}{'; it ends:' if show.brief else ''}")
    for line in log[-1:] if show.brief else without_repetition(log):
        print("    " + faint(shorten(line)))


def differences(show: Show, result: Result, pictures: list[pathlib.Path]) -> list[str]:
    """What did not come out as it has to."""
    wrong = []
    if result.exit_code != show.exit_code:
        wrong.append(f"exit code {result.exit_code} instead of {show.exit_code}")
    boxes = [box["text"] for box in result.boxes]
    if boxes != ([show.box] if show.box else []):
        wrong.append(f"message boxes {boxes}")
    if [text for text in result.status_texts if text in show.texts] != show.texts:
        wrong.append(f"window texts {result.status_texts}")
    if not pictures:
        wrong.append("no pictures were taken")
    return [f"{show.machine}: {item}" for item in wrong]


def present(show: Show) -> list[str]:
    """Runs and prints; returns what did not come out as it has to."""
    shutil.rmtree(PICTURES / show.machine, ignore_errors=True)
    machine = Machine.load(paths.ROOT / "lab" / "machines" / f"{show.machine}.toml")
    print(bold(f"{machine.data['description']}"))
    print(f"  > TavikCompatibilityTool.exe {show.arguments}".rstrip(), flush=True)
    with sign_of_life("the machine starts and the tool works"):
        result = run(machine, show.arguments, pictures=PICTURES / show.machine, hold=0.5)
    pictures = keep_pictures(show, result)
    wrong = differences(show, result, pictures)
    print_log(show, result.log)
    print_table(table(machine, result))
    print(f"  {'window':<22} {' > '.join(result.status_texts)}")
    for box in result.boxes or [{"text": "none"}]:
        print(f"  {'box':<22} {shorten(box['text'])}")
    print(f"  {'exit code':<22} {styled(str(result.exit_code), '31' if wrong else '32')}, {result.seconds:.0f} s with the machine's start")
    for number, picture in enumerate(pictures):
        print(f"  {'' if number else 'pictures':<22} {picture.relative_to(paths.ROOT)}")
    print(flush=True)
    return wrong


def main() -> int:
    if len(sys.argv) != 2 or sys.argv[1] not in SHOWS:
        print(__doc__, file=sys.stderr)
        return 2
    wrong = [item for show in SHOWS[sys.argv[1]] for item in present(show)]
    for item in wrong:
        print(f"not as it should be: {item}", file=sys.stderr)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
