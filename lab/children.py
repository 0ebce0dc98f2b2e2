"""Servers that a run starts end with it, also when the run itself is killed."""
from __future__ import annotations

import ctypes
import signal

_LIBC = ctypes.CDLL(None)
_PR_SET_PDEATHSIG = 1


def end_with_parent() -> None:
    """For preexec_fn of subprocess: the kernel sends SIGTERM when the process that started the child is gone."""
    _LIBC.prctl(_PR_SET_PDEATHSIG, signal.SIGTERM)
