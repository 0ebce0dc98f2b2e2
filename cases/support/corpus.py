"""Logs that runs of the lab have left, each kind once, with exit code and outcome. The tests of the log reader use them.

A file is named <outcome>.<exit code>.<kind>.log and holds the bytes of the log. Cases of one session add to the folder side by
side. Runs without a log are not here.
"""
from __future__ import annotations

import hashlib
import os
import pathlib
import re
import shutil

from companion import outcomes
from lab import paths
from lab.session import NO_LINE_END

ROOT = paths.ROOT / "build" / "lab-corpus"
FOLDER = ROOT / hashlib.sha256(outcomes.FILE.read_bytes()).hexdigest()[:8]  # with another catalogue a log may mean something else


def kind(lines: list[str]) -> str:
    """Logs that differ only in numbers are of one kind, unless the number is a result."""
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
    text = "\n".join(lines) + "\n"
    part.write_bytes(text.removesuffix(f"{NO_LINE_END}\n").encode("utf-16-le", "surrogatepass"))
    part.replace(file)


def forget_others() -> None:
    """Removes the logs of other catalogues."""
    for one in ROOT.glob("*"):
        if one != FOLDER:
            shutil.rmtree(one, ignore_errors=True)


def entries() -> list[tuple[pathlib.Path, int, str]]:
    """Log, exit code and outcome of each file."""
    names = [(file, file.name.split(".")) for file in sorted(FOLDER.glob("*.log"))]
    return [(file, int(code), outcome) for file, (outcome, code, *_) in names]
