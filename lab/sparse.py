"""Lets files grow by gigabytes on a small disk: what has been written becomes a hole while the program writes on.

The size stays, the bytes read as zeros.
"""
from __future__ import annotations

import contextlib
import ctypes
import os
import pathlib
import threading

_LIBC = ctypes.CDLL(None, use_errno=True)
_PUNCH_HOLE = 1 | 2  # FALLOC_FL_KEEP_SIZE, FALLOC_FL_PUNCH_HOLE
_KEPT = 1 << 20      # at the end of the file, where the next write goes
_SECONDS = 0.02


def _punch(file: int, start: int, length: int) -> None:
    if _LIBC.fallocate(file, _PUNCH_HOLE, ctypes.c_long(start), ctypes.c_long(length)) != 0:
        error = ctypes.get_errno()
        raise OSError(error, f"this file system has no sparse files: {os.strerror(error)}")


class _File:
    """One path. A renamed file is followed until there is another one of this name."""

    def __init__(self, path: pathlib.Path):
        self.path = path
        self.descriptor = -1
        self.empty_until = 0

    def _open(self) -> None:
        with contextlib.suppress(FileNotFoundError):
            if self.descriptor < 0 or not os.path.samestat(os.stat(self.path), os.fstat(self.descriptor)):
                self.close()
                self.descriptor = os.open(self.path, os.O_WRONLY)
                self.empty_until = 0

    def step(self) -> int:
        """Returns the disk space used before."""
        self._open()
        if self.descriptor < 0:
            return 0
        state = os.fstat(self.descriptor)
        end = state.st_size - _KEPT
        if end > self.empty_until:
            _punch(self.descriptor, self.empty_until, end - self.empty_until)
            self.empty_until = end // 4096 * 4096
        return state.st_blocks * 512

    def close(self) -> None:
        if self.descriptor >= 0:
            os.close(self.descriptor)
            self.descriptor = -1


class SparseFiles:
    """Works until close(). `most`: the most disk space that all files used together."""

    def __init__(self, paths: list[pathlib.Path]):
        self.most = 0
        self._files = [_File(path) for path in paths]
        self._error: OSError | None = None
        self._ended = threading.Event()
        self._thread = threading.Thread(target=self._work, daemon=True)
        if paths:
            self._thread.start()

    def _work(self) -> None:
        try:
            while not self._ended.wait(_SECONDS):
                self._step()
        except OSError as error:
            self._error = error

    def _step(self) -> None:
        self.most = max(self.most, sum(file.step() for file in self._files))

    def close(self) -> None:
        if self._ended.is_set():
            return
        self._ended.set()
        if self._files:
            self._thread.join()
            for file in self._files:
                file.close()
        if self._error:
            raise self._error
