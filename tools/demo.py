"""Shows the tool at work on a Windows machine in a throwaway Wine prefix. Installs what is missing, builds, runs.

    scripts/demo             an outdated desktop edition is repaired; a machine that is compatible already
    scripts/demo --store     the Store edition is repaired through the Store
    scripts/demo --direct    a given installer is installed without checks and replaces the Store edition
    scripts/demo --pictures  makes the pictures in docs/images again
"""
from __future__ import annotations

import dataclasses
import re
import shutil
import subprocess
import sys
import tempfile
from typing import Any

from lab import paths, session
from lab.machine import Machine
from lab.result import Result
from lab.run import run
from tools.project import build, fail, say

PICTURES = paths.ROOT / "build" / "demo"
COMPANION = paths.COMPANION.name


@dataclasses.dataclass
class Show:
    """One run and its expected end."""
    machine: str
    arguments: str
    exit_code: int
    outcome: str
    box: str          # text of the final message box; empty: none
    texts: list[str]  # of the status window, in this order


CHECKING, DOWNLOADING, INSTALLING = "Checking System.", "Downloading compatible version of Tavik Software.", "Installing..."
COMPATIBLE = ("The version of Tavik Software installed is already a compatible version. "
              "Please check if the Tavik Display Driver is working correctly.")
FINISHED = "Finished installing Tavik Software"
SHOWS = {
    "": [Show("demo", "", 0, "repaired", FINISHED, [CHECKING, DOWNLOADING, INSTALLING]),
         Show("compatible", "", -1, "same-release", COMPATIBLE, [CHECKING])],
    "--store": [Show("store", "", 0, "store-installed", FINISHED, [CHECKING, INSTALLING])],
    "--direct": [Show("direct", r"-VLT -Install -Path C:\users\Public\dwx2_install.exe", 0, "direct-done", "", [INSTALLING])],
}

# For docs/images: the machine, the switches, what happens meanwhile, and the number of the run's picture that gets the name.
PICTURED = [
    ("demo", "", [], {"window": 1, "box-finished": -1}),
    ("compatible", "", [], {"box-compatible": -1}),
    ({"desktop": False}, "", [], {"box-no-application": -1}),
    ({"adapters": []}, "", [], {"box-no-driver": -1}),
    ({"server": {"folder": "http:///x"}}, "", [], {"box-download": -1}),
    ({"installer": {"extract": "no"}}, "", [], {"box-install": -1}),
    ({"installer": {"sleep": 1500}}, "-SILENT", ["log Currently installed : second"], {"box-another": -1}),
    ({"temp": r"C:\temp", "files": {r"C:\temp\Tavik_VLTInstallerDownload": "", r"C:\setup.exe": {"installer": "24.20"}}},
     r"-VLT -Install -Path C:\setup.exe", [], {"box-update": -1}),
]


def described(machine: str | dict[str, Any]) -> Machine:
    return Machine(machine) if isinstance(machine, dict) else Machine.load(paths.ROOT / "lab" / "machines" / f"{machine}.toml")


def make_pictures() -> None:
    """Cut to the window or the box."""
    for machine, arguments, when, wanted in PICTURED:
        with tempfile.TemporaryDirectory() as folder:
            result = run(described(machine), arguments, when=when, pictures=folder, hold=0.5)
            for name, number in wanted.items():
                target = paths.ROOT / "docs" / "images" / f"{name}.png"
                subprocess.run(["convert", result.pictures[number], "-trim", "+repage", "-strip", target], check=True)
                say(f"  {target.relative_to(paths.ROOT)}: {result.status_texts if number > 0 else result.boxes[-1]['text']}")


def explanation(result: Result) -> str:
    """What the companion says of the run: outcome, meaning and next step."""
    with session.bare(paths.COMPANION) as prefix:
        (prefix.drive / "lab" / "run.log").write_bytes("\n".join([*result.log, ""]).encode("utf-16-le", "surrogatepass"))
        prefix.start()
        output = prefix.path / "said.txt"
        prefix.wine(rf"C:\lab\{COMPANION}", "explain", r"C:\lab\run.log", "--exit", str(result.exit_code), output=output)
        text = output.read_text("utf-8", "replace").replace("\r", "")
    return "\n".join(re.findall(r"^(?:Outcome|Meaning|Next step) .*(?:\n {5}.*)*", text, re.M))


def states(machine: Machine, result: Result) -> list[str]:
    """What the machine has, before and after."""
    def both(key: str, name: str) -> list[str]:
        found = [state.value(key, name) for state in (result.before, result.after)]
        return ["-" if one is None else str(one) for one in found]

    release = machine.adapters[0].release_text()
    rows = [("", "before", "after"), ("driver's release", release, release),
            ("application's version", *both(r"Software\Tavik\HL", "HLVersion")),
            ("desktop products", ", ".join(result.before.products) or "-", ", ".join(result.after.products) or "-"),
            ("Store package", ", ".join(machine.store_packages) or "-", ", ".join(result.store_left) or "-"),
            ("VLTUWPReplaced", *both(r"Software\Orrel Technologies\Install", "VLTUWPReplaced"))]
    rows = [row for row in rows if row[1:] != ("-", "-")]
    width = max(len(row[1]) for row in rows)
    return [f"{name:<22} {before:<{width}}  {after}".rstrip() for name, before, after in rows]


def differences(show: Show, result: Result, explained: str) -> list[str]:
    """Differences from the expected end."""
    boxes = [box["text"] for box in result.boxes]
    facts = {f"exit code {result.exit_code} instead of {show.exit_code}": result.exit_code == show.exit_code,
             f"message boxes {boxes}": boxes == ([show.box] if show.box else []),
             f"window texts {result.status_texts}": [text for text in result.status_texts if text in show.texts] == show.texts,
             f"the companion's explanation without {show.outcome}": bool(re.match(rf"Outcome +{show.outcome} ", explained)),
             "no pictures were taken": bool(result.pictures)}
    return [f"{show.machine}: {fault}" for fault, good in facts.items() if not good]


def present(show: Show) -> list[str]:
    """Runs the tool and prints the result. Returns the differences from the expected end."""
    folder = PICTURES / show.machine
    shutil.rmtree(folder, ignore_errors=True)
    machine = described(show.machine)
    say(f"{machine.data['description']}\n  > {paths.TOOL.name} {show.arguments}".rstrip())
    result = run(machine, show.arguments, pictures=folder, hold=0.5)
    explained = explanation(result)
    say("\n".join(["  log", *(f"    {line}" for line in result.log), *(f"  {line}" for line in states(machine, result))]))
    for name, texts in (("window", result.status_texts), ("box", [box["text"] for box in result.boxes] or ["none"]),
                        ("exit code", [result.exit_code]), ("pictures", result.pictures)):
        say(f"  {name:<22} " + f"\n{'':25}".join(map(str, texts)))
    say(f"  > {COMPANION} explain LOG --exit {result.exit_code}\n    " + explained.replace("\n", "\n    ") + "\n")
    return differences(show, result, explained)


def main(arguments: list[str]) -> int:
    if len(arguments) > 1 or "".join(arguments) not in (*SHOWS, "--pictures"):
        print(__doc__)
        return 0 if arguments in (["--help"], ["-h"]) else 2
    say("1 of 2: building the tool, its companion and the lab (some minutes the first time)")
    build("release", "TavikCompatibilityTool", "TavikToolCompanion", "lab/all")
    say("2 of 2: the machine and the run (the first time the machine is set up, which takes about half a minute)\n")
    try:
        if arguments == ["--pictures"]:
            make_pictures()
            return 0
        wrong = [item for show in SHOWS["".join(arguments)] for item in present(show)]
    except (OSError, RuntimeError) as error:
        fail(f"The demonstration stopped: {error}")
    for item in wrong:
        print(f"The demonstration differs from what is expected: {item}. scripts/test tells more.", file=sys.stderr)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
