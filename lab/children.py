"""Starts programs of the host for the lab: tools that do one thing, and servers that end with the run that started them."""
from __future__ import annotations

import ctypes
import signal
import subprocess
from typing import Any

_LIBC = ctypes.CDLL(None)
_PR_SET_PDEATHSIG = 1


def end_with_parent() -> None:
    """For preexec_fn of subprocess: the kernel sends SIGTERM to the child when its parent ends."""
    _LIBC.prctl(_PR_SET_PDEATHSIG, signal.SIGTERM)


def command(*arguments: str, **options: Any) -> str:
    """Runs a program and returns its output. If it fails, the error is the program's own message."""
    try:
        done = subprocess.run(arguments, stdin=subprocess.DEVNULL, capture_output=True, text=True, **options)
    except FileNotFoundError:
        raise RuntimeError(f"{arguments[0]} is not installed: run scripts/setup") from None
    if done.returncode != 0:
        said = (done.stderr or done.stdout).strip()
        raise RuntimeError(f"{' '.join(arguments[:3])} failed with exit code {done.returncode}: {said}")
    return done.stdout
