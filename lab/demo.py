#!/usr/bin/python3
"""Shows the tool at work on a described machine: its log, its windows, the machine before and after.

    lab/demo.py desktop|store|direct
"""
from __future__ import annotations

import dataclasses
import pathlib
import re
import shutil
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))

from lab import paths  # noqa: E402
from lab.machine import Machine  # noqa: E402
from lab.result import Result  # noqa: E402
from lab.run import run  # noqa: E402

PICTURES = paths.ROOT / "build" / "demo"
WIDTH = 150  # of a line on the terminal


@dataclasses.dataclass
class Show:
    """One run, and what it has to come to."""
    machine: str
    arguments: str
    exit_code: int
    box: str          # text of the final message box; empty: none
    texts: list[str]  # of the status window, in this order


CHECKING, DOWNLOADING, INSTALLING = "Checking System.", "Downloading compatible version of Tavik Software.", "Installing..."
COMPATIBLE = ("The version of Tavik Software installed is already a compatible version. "
              "Please check if the Tavik Display Driver is working correctly.")
FINISHED = "Finished installing Tavik Software"
SHOWS = {
    "desktop": [Show("demo", "", 0, FINISHED, [CHECKING, DOWNLOADING, INSTALLING]),
                Show("compatible", "", -1, COMPATIBLE, [CHECKING])],
    "store": [Show("store", "", 0, FINISHED, [CHECKING, INSTALLING])],
    "direct": [Show("direct", r"-VLT -Install -Path C:\users\Public\dwx2_install.exe", 0, "", [INSTALLING])],
}


def bold(text: str) -> str:
    return f"\033[1m{text}\033[0m" if sys.stdout.isatty() else text


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
    rows = [("", "before", "after"), *rows]
    widths = [max(len(row[column]) for row in rows) for column in range(3)]
    for number, row in enumerate(rows):
        print("  " + "  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip())
        if number == 0:
            print("  " + "  ".join("-" * width for width in widths))


def shorten(line: str) -> str:
    line = line.replace("\t", "    ")
    return line if len(line) <= WIDTH else line[: WIDTH // 2 - 2] + " ... " + line[-(WIDTH - WIDTH // 2 - 3):]


def present(show: Show) -> list[str]:
    """Runs and prints; returns what did not come out as it has to."""
    shutil.rmtree(PICTURES / show.machine, ignore_errors=True)
    machine = Machine.load(paths.ROOT / "lab" / "machines" / f"{show.machine}.toml")
    print(bold(f"{machine.data['description']}"), flush=True)
    print(f"  TavikCompatibilityTool.exe {show.arguments}".rstrip(), flush=True)
    result = run(machine, show.arguments, pictures=PICTURES / show.machine, hold=0.5)
    pictures = keep_pictures(show, result)
    print("\n  Log")
    for line in result.log:
        print("    " + shorten(line))
    print("\n  Window: " + ", ".join(f'"{text}"' for text in result.status_texts))
    for box in result.boxes:
        print(f"  Box:    \"{box['text']}\"")
    print(f"  Exit code {result.exit_code}, {result.seconds:.0f} s with the machine's start\n")
    print_table(table(machine, result))
    print("\n  Pictures")
    for picture in pictures:
        print(f"    {picture.relative_to(paths.ROOT)}")
    print(flush=True)

    wrong = []
    if result.exit_code != show.exit_code:
        wrong.append(f"exit code {result.exit_code} instead of {show.exit_code}")
    boxes = [box["text"] for box in result.boxes]
    if boxes != ([show.box] if show.box else []):
        wrong.append(f"message boxes {boxes}")
    shown = [text for text in result.status_texts if text in show.texts]
    if shown != show.texts:
        wrong.append(f"window texts {result.status_texts}")
    if not pictures:
        wrong.append("no pictures were taken")
    return [f"{show.machine}: {item}" for item in wrong]


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
