"""Shows the tool at work on a Windows machine in a throwaway Wine prefix. Installs what is missing, builds, runs.

    scripts/demo             an outdated desktop edition is repaired; a machine that is compatible already
    scripts/demo --store     the Store edition is repaired through the Store
    scripts/demo --direct    a given installer is installed without checks and replaces the Store edition
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
import textwrap
import threading
import time
from collections.abc import Iterator

from lab import paths
from lab.machine import Machine
from lab.prefix import Prefix, replace_file, template
from lab.result import Result
from lab.run import run
from tools.project import build, say

PICTURES = paths.ROOT / "build" / "demo"
WIDTH = max(60, min(140, shutil.get_terminal_size((120, 25)).columns - 6))  # of a line of the log
COLOURED = sys.stdout.isatty() and "NO_COLOR" not in os.environ and os.environ.get("TERM") != "dumb"


@dataclasses.dataclass
class Show:
    """One run, and how it has to end."""
    machine: str
    arguments: str
    exit_code: int
    outcome: str
    box: str          # text of the final message box; empty: none
    texts: list[str]  # of the status window, in this order
    brief: bool = False  # only the end of the log is printed


CHECKING, DOWNLOADING, INSTALLING = "Checking System.", "Downloading compatible version of Tavik Software.", "Installing..."
COMPATIBLE = ("The version of Tavik Software installed is already a compatible version. "
              "Please check if the Tavik Display Driver is working correctly.")
FINISHED = "Finished installing Tavik Software"
SHOWS = {
    "": [Show("demo", "", 0, "repaired", FINISHED, [CHECKING, DOWNLOADING, INSTALLING]),
         Show("compatible", "", -1, "same-release", COMPATIBLE, [CHECKING], brief=True)],
    "--store": [Show("store", "", 0, "store-installed", FINISHED, [CHECKING, INSTALLING])],
    "--direct": [Show("direct", r"-VLT -Install -Path C:\users\Public\dwx2_install.exe", 0, "direct-done", "", [INSTALLING])],
}


def styled(text: str, code: str) -> str:
    return f"\033[{code}m{text}\033[0m" if COLOURED else text


@contextlib.contextmanager
def sign_of_life(what: str) -> Iterator[None]:
    """On a terminal, counts the seconds in a line that is removed afterwards."""
    end, start = threading.Event(), time.monotonic()

    def count() -> None:
        while COLOURED and not end.wait(0.2):
            print(f"\r  {what}, {time.monotonic() - start:.0f} s ", end="", flush=True)

    counter = threading.Thread(target=count)
    counter.start()
    try:
        yield
    finally:
        end.set()
        counter.join()
        print("\r\033[K" if COLOURED else "", end="", flush=True)


def keep_pictures(show: Show, result: Result) -> list[pathlib.Path]:
    """Renames the pictures after what they show."""
    kept = []
    texts = [text for text in result.status_texts if text in show.texts]
    status = [picture for picture in result.pictures if "status" in picture]
    for number, picture in enumerate(result.pictures, 1):
        at = status.index(picture) if picture in status else -1
        # A text that was gone at once has no picture: then nothing tells which picture shows which text.
        name = "box" if at < 0 else texts[at] if len(texts) == len(status) else "window"
        slug = re.sub(r"[^a-z]+", "-", name.lower()).strip("-")
        kept.append(pathlib.Path(picture).rename(PICTURES / show.machine / f"{number}-{slug}.png"))
    return kept


def explanation(log: pathlib.Path, exit_code: int) -> list[str]:
    """What TavikToolCompanion.exe says of the run: outcome, meaning and next step."""
    with Prefix.copy(template(), PICTURES / "companion") as prefix:
        place = prefix.drive / "lab"
        place.mkdir()
        replace_file(place / "TavikToolCompanion.exe", paths.need(paths.COMPANION).read_bytes())
        (place / log.name).write_bytes((log.read_text("utf-8")).encode("utf-16-le", "surrogatepass"))
        prefix.start()
        output = PICTURES / "explanation.txt"
        output.unlink(missing_ok=True)
        prefix.wine(r"C:\lab\TavikToolCompanion.exe", "explain", rf"C:\lab\{log.name}", "--exit", str(exit_code), output=output)
    text = output.read_text("utf-8", "replace").replace("\r", "")
    return "\n".join(re.findall(r"^(?:Outcome|Meaning|Next step) .*(?:\n {5}.*)*", text, re.M)).splitlines()


def state_rows(machine: Machine, result: Result) -> list[tuple[str, str, str]]:
    """Name, before, after."""
    def both(key: str, name: str) -> tuple[str, str]:
        found = [state.value(key, name) for state in (result.before, result.after)]
        return tuple("-" if one is None else str(one) for one in found)

    release = machine.adapters[0].release_text()
    rows = [("driver's release", release, release),
            ("application's version", *both(r"Software\Tavik\HL", "HLVersion")),
            ("desktop products", ", ".join(result.before.products) or "-", ", ".join(result.after.products) or "-"),
            ("Store package", ", ".join(machine.store_packages) or "-", ", ".join(result.store_left) or "-"),
            ("VLTUWPReplaced", *both(r"Software\Orrel Technologies\Install", "VLTUWPReplaced"))]
    return [row for row in rows if row[1:] != ("-", "-")]


def print_states(rows: list[tuple[str, str, str]]) -> None:
    if all(before == after for _, before, after in rows):
        rows = [(name, before, "") for name, before, _ in rows] + [("the machine afterwards", "as before", "")]
    else:
        rows = [("", "before", "after"), *rows]
    width = max(len(row[1]) for row in rows)
    for name, before, after in rows:
        say(f"  {name:<22} {before:<{width}}  {styled(after, '32') if name and before != after else after}".rstrip())


def shorten(line: str) -> str:
    line = line.replace("\t", "    ")
    return line if len(line) <= WIDTH else line[: WIDTH // 2 - 2] + " ... " + line[-(WIDTH - WIDTH // 2 - 3):]


def without_repetition(log: list[str]) -> list[str]:
    """Of several calls of the same program only the first, with their number."""
    lines: list[str] = []
    for same, group in itertools.groupby(log, key=lambda line: line.split("  /IM")[0] if "taskkill.exe" in line else ""):
        found = list(group)
        lines += [found[0], f"    ... and {len(found) - 1} lines like this one"] if same and len(found) > 1 else found
    return lines


def differences(show: Show, result: Result, pictures: list[pathlib.Path], explained: list[str]) -> list[str]:
    """What differs from how the run has to end."""
    boxes = [box["text"] for box in result.boxes]
    facts = {f"exit code {result.exit_code} instead of {show.exit_code}": result.exit_code == show.exit_code,
             f"message boxes {boxes}": boxes == ([show.box] if show.box else []),
             f"window texts {result.status_texts}": [text for text in result.status_texts if text in show.texts] == show.texts,
             f"the companion's explanation {explained} without {show.outcome}": any(re.match(rf"Outcome +{show.outcome} ", line) for line in explained),
             "no pictures were taken": bool(pictures)}
    return [f"{show.machine}: {fault}" for fault, good in facts.items() if not good]


def present(show: Show) -> list[str]:
    """Runs and prints; returns what differs from how it has to end."""
    folder = PICTURES / show.machine
    shutil.rmtree(folder, ignore_errors=True)
    machine = Machine.load(paths.ROOT / "lab" / "machines" / f"{show.machine}.toml")
    say(styled(machine.data["description"], "1"))
    say(f"  > TavikCompatibilityTool.exe {show.arguments}".rstrip())
    with sign_of_life("the machine starts and the tool works"):
        result = run(machine, show.arguments, pictures=folder, hold=0.5)
        pictures = keep_pictures(show, result)
        log = folder / "log.txt"
        folder.mkdir(parents=True, exist_ok=True)
        log.write_text("\n".join(result.log) + "\n", encoding="utf-8")
        explained = explanation(log, result.exit_code)
    wrong = differences(show, result, pictures, explained)
    say(f"  log, {len(result.log)} lines, in {log.relative_to(paths.ROOT)}{'; it ends:' if show.brief else ''}")
    for line in result.log[-1:] if show.brief else without_repetition(result.log):
        say("    " + styled(shorten(line), "2"))
    print_states(state_rows(machine, result))
    say(f"  {'window':<22} {' > '.join(result.status_texts)}")
    for box in result.boxes or [{"text": "none"}]:
        say(f"  {'box':<22} " + f"\n{'':25}".join(textwrap.wrap(box["text"], max(40, WIDTH - 20))))
    say(f"  {'exit code':<22} {styled(str(result.exit_code), '31' if wrong else '32')}, {result.seconds:.0f} s with the machine's start")
    for number, picture in enumerate(pictures):
        say(f"  {'' if number else 'pictures':<22} {picture.relative_to(paths.ROOT)}")
    say(f"  > TavikToolCompanion.exe explain log.txt --exit {result.exit_code}")
    for line in explained:
        say("    " + shorten(line))
    say("")
    return wrong


def main(arguments: list[str]) -> int:
    if len(arguments) > 1 or "".join(arguments) not in SHOWS:
        print(__doc__)
        return 0 if arguments in (["--help"], ["-h"]) else 2
    say("1 of 2: building the tool, its companion and the lab (some minutes the first time)")
    build("release", "TavikCompatibilityTool", "TavikToolCompanion", "lab/all")
    say("2 of 2: the machine and the run (the first time the machine is set up, which takes about half a minute)\n")
    wrong = [item for show in SHOWS["".join(arguments)] for item in present(show)]
    for item in wrong:
        print(f"The demonstration differs from what is expected: {item}. scripts/test tells more.", file=sys.stderr)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
