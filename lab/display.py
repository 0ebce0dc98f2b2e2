"""A screen for runs that are to be photographed."""
from __future__ import annotations

import contextlib
import os
import pathlib
import subprocess
import threading

from lab.children import end_with_parent


class Display:
    """An X server on a free display number."""

    def __init__(self) -> None:
        read, write = os.pipe()
        command = ["Xvfb", "-displayfd", str(write), "-screen", "0", "1280x800x24", "-nolisten", "tcp"]
        self.process = subprocess.Popen(command, pass_fds=[write], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL, preexec_fn=end_with_parent)
        os.close(write)
        with os.fdopen(read) as pipe:
            number = pipe.readline().strip()
        if not number:
            raise RuntimeError("Xvfb does not start, so no pictures can be taken: run scripts/setup")
        self.name = f":{number}"

    def close(self) -> None:
        self.process.terminate()
        self.process.wait(10)


class Photographer:
    """Takes a picture whenever the watcher asks for one by a file; the file is removed when the picture is taken."""

    def __init__(self, display: Display, requests: pathlib.Path, target: pathlib.Path):
        self.display = display
        self.requests = requests
        self.target = target
        self.taken: list[str] = []
        self._end = threading.Event()
        requests.mkdir(parents=True, exist_ok=True)
        target.mkdir(parents=True, exist_ok=True)
        self._thread = threading.Thread(target=self._work, daemon=True)
        self._thread.start()

    def _work(self) -> None:
        while not self._end.wait(0.02):
            for request in sorted(self.requests.glob("*.ask")):
                picture = self.target / (request.stem + ".png")
                subprocess.run(["import", "-window", "root", str(picture)], env={**os.environ, "DISPLAY": self.display.name},
                               check=False, stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                self.taken.append(str(picture))
                with contextlib.suppress(FileNotFoundError):
                    request.unlink()

    def close(self) -> None:
        self._end.set()
        self._thread.join()
