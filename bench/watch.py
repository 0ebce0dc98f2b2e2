"""What happens to files, with the time. The kernel reports it, so that nothing is polled."""
from __future__ import annotations

import contextlib
import ctypes
import dataclasses
import os
import pathlib
import select
import struct
import threading
import time

MODIFY, CLOSE_WRITE, MOVED_TO, CREATE = 0x2, 0x8, 0x80, 0x100

_LIBC = ctypes.CDLL(None, use_errno=True)
_HEAD = struct.Struct("iIII")


def now() -> float:
    """Seconds of the clock that all times of this package use."""
    return time.clock_gettime(time.CLOCK_MONOTONIC)


@dataclasses.dataclass
class Event:
    at: float
    kind: int
    name: str


class FileWatch:
    """Collects the events of one folder from now on until close()."""

    def __init__(self, folder: pathlib.Path, kinds: int = MODIFY | CLOSE_WRITE | MOVED_TO | CREATE):
        self.folder = folder
        self.events: list[Event] = []
        self._descriptor = _LIBC.inotify_init1(os.O_CLOEXEC | os.O_NONBLOCK)
        if self._descriptor < 0 or _LIBC.inotify_add_watch(self._descriptor, os.fsencode(folder), kinds) < 0:
            raise OSError(ctypes.get_errno(), f"{folder} cannot be watched")
        self._stop, self._stopped = os.pipe()
        self._thread = threading.Thread(target=self._work, daemon=True)
        self._thread.start()

    def _work(self) -> None:
        while True:
            ready, _, _ = select.select([self._descriptor, self._stop], [], [])
            at = now()
            with contextlib.suppress(BlockingIOError):
                self._read(os.read(self._descriptor, 65536), at)
            if self._stop in ready:
                return

    def _read(self, data: bytes, at: float) -> None:
        place = 0
        while place < len(data):
            _, kind, _, length = _HEAD.unpack_from(data, place)
            place += _HEAD.size
            name = os.fsdecode(data[place:place + length].rstrip(b"\0"))
            place += length
            self.seen(Event(at, kind, name))

    def seen(self, event: Event) -> None:
        self.events.append(event)

    def first(self, kind: int, name: str = "") -> float:
        for event in self.events:
            if event.kind & kind and name in ("", event.name):
                return event.at
        raise RuntimeError(f"{self.folder}: {name or 'no file'} was not seen")

    def close(self) -> None:
        os.write(self._stopped, b".")
        self._thread.join()
        for descriptor in (self._descriptor, self._stop, self._stopped):
            os.close(descriptor)

    def __enter__(self) -> "FileWatch":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


class LogWatch(FileWatch):
    """Follows a log while it is being written: `lines` has each line and the time at which it appeared."""

    def __init__(self, folder: pathlib.Path):
        self.lines: list[tuple[float, str]] = []
        self._read_until = 0
        self._rest = ""
        super().__init__(folder, MODIFY | CREATE)

    def seen(self, event: Event) -> None:
        super().seen(event)
        if event.kind & CREATE:
            self._read_until = 0
        with open(self.folder / event.name, "rb") as file:
            file.seek(self._read_until)
            data = file.read()
        data = data[:len(data) // 2 * 2]
        self._read_until += len(data)
        *whole, self._rest = (self._rest + data.decode("utf-16-le", "replace")).split("\n")
        self.lines += [(event.at, line) for line in whole]

    def when(self, text: str) -> float:
        for at, line in self.lines:
            if text in line:
                return at
        raise RuntimeError(f"the log has no line with \"{text}\": {[line for _, line in self.lines]}")
