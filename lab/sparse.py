"""Lets a file grow by gigabytes on a small disk: what has been written becomes a hole while the program writes on.

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


class SparseFile:
    """Works until close(). Follows a renamed file until a new one has this name. `most`: the most disk space used."""

    def __init__(self, path: pathlib.Path):
        self.path = path
        self.most = 0
        self._descriptor = -1
        self._empty_until = 0
        self._error: OSError | None = None
        self._ended = threading.Event()
        self._thread = threading.Thread(target=self._work, daemon=True)
        self._thread.start()

    def _work(self) -> None:
        try:
            while not self._ended.wait(_SECONDS):
                with contextlib.suppress(FileNotFoundError):
                    self._open()
                if self._descriptor >= 0:
                    self._step()
        except OSError as error:
            self._error = error

    def _open(self) -> None:
        if self._descriptor < 0 or not os.path.samestat(os.stat(self.path), os.fstat(self._descriptor)):
            self._forget()
            self._descriptor = os.open(self.path, os.O_WRONLY)
            self._empty_until = 0

    def _step(self) -> None:
        state = os.fstat(self._descriptor)
        self.most = max(self.most, state.st_blocks * 512)
        start, end = self._empty_until, state.st_size - _KEPT
        if end > start:
            if _LIBC.fallocate(self._descriptor, _PUNCH_HOLE, ctypes.c_long(start), ctypes.c_long(end - start)) != 0:
                raise OSError(ctypes.get_errno(), "this file system has no sparse files")
            self._empty_until = end // 4096 * 4096

    def _forget(self) -> None:
        if self._descriptor >= 0:
            os.close(self._descriptor)
            self._descriptor = -1

    def close(self) -> None:
        if not self._ended.is_set():
            self._ended.set()
            self._thread.join()
            self._forget()
            if self._error:
                raise self._error
