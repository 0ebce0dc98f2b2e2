"""The logs that runs of the lab have left, each kind once, with exit code and outcome: for whoever has to recognise them, too.

A file is named <outcome>.<exit code>.<kind>.log and holds the bytes of the log. Cases of one session add to it side by side.
Runs without a log are not here.
"""
from __future__ import annotations

import hashlib
import os
import pathlib
import re
import shutil

from companion import outcomes
from lab import paths
from lab.run import NO_LINE_END

ROOT = paths.ROOT / "build" / "lab-corpus"


def folder() -> pathlib.Path:
    """Of this catalogue: with another one the same logs may mean something else."""
    return ROOT / hashlib.sha256(outcomes.FILE.read_bytes()).hexdigest()[:8]


FOLDER = folder()


def kind(lines: list[str]) -> str:
    """Logs that differ in numbers only are of one kind, but a result is not any number."""
    parts = [line if "Result = " in line else re.sub(r"\d+", "0", line) for line in lines]
    return hashlib.sha256("\n".join(parts).encode("utf-8", "surrogatepass")).hexdigest()[:12]


def add(outcome: str, exit_code: int, lines: list[str]) -> None:
    """lines: as run.read_log gives them."""
    if not lines:
        return
    file = FOLDER / f"{outcome}.{exit_code}.{kind(lines)}.log"
    if file.exists():
        return
    FOLDER.mkdir(parents=True, exist_ok=True)
    part = file.with_name(f"{file.name}.{os.getpid()}")
    part.write_bytes(to_bytes(lines))
    part.replace(file)


def forget_others() -> None:
    """Removes what was kept for other catalogues."""
    for one in ROOT.glob("*"):
        if one != FOLDER:
            shutil.rmtree(one, ignore_errors=True)


def to_bytes(lines: list[str]) -> bytes:
    text = "\n".join(lines) + "\n"
    return text.removesuffix(f"{NO_LINE_END}\n").encode("utf-16-le", "surrogatepass")


def entries() -> list[tuple[pathlib.Path, int, str]]:
    """Log, exit code and outcome of all that is there for this catalogue."""
    found = []
    for file in sorted(FOLDER.glob("*.log")):
        outcome, code, _, _ = file.name.split(".")
        found.append((file, int(code), outcome))
    return found
