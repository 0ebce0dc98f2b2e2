"""What the download server says to a path: read from a machine's description, served by nginx or by the raw server."""
from __future__ import annotations

import dataclasses
import pathlib

from lab import paths

RAW = ("cut", "reset", "delay", "pause", "raw")  # what a real web server never does
KEYS = {"installer", "text", "hex", "size", "status", "redirect", "rate", "type", "length", *RAW}


@dataclasses.dataclass
class Answer:
    """One path. At most one of installer, text, hex and size gives the body; without any it is empty."""
    path: str
    installer: str = ""      # release, or release-kind
    text: str | None = None
    hex: str | None = None
    size: int | None = None  # that many zero bytes
    status: int = 200
    redirect: str = ""       # Location; the status is then 302 unless given
    rate: int = 0            # bytes per second
    type: str = "text/plain"
    length: bool = True      # false: no Content-Length, the closed connection ends the body
    cut: int | None = None   # bytes of the body after which the connection is closed
    reset: int | None = None  # the same, with a TCP reset
    delay: float = 0         # seconds of silence before the answer
    pause: list[float] | None = None  # [bytes, seconds]: silence in the middle of the body
    raw: str | None = None   # the bytes sent instead of an HTTP answer

    @staticmethod
    def of(path: str, description: object) -> "Answer":
        if isinstance(description, str):
            return Answer(path, installer=description)
        if isinstance(description, int) and not isinstance(description, bool):
            return Answer(path, status=description)
        if not isinstance(description, dict) or set(description) - KEYS:
            raise ValueError(f"answer to {path}: an installer's release, a status, or a table of {', '.join(sorted(KEYS))}")
        answer = Answer(path, **description)
        if answer.redirect and "status" not in description:
            answer.status = 302
        return answer

    @property
    def needs_raw(self) -> bool:
        return self.raw is not None or self.cut is not None or self.reset is not None or bool(self.delay) or bool(self.pause)

    def body_file(self, folder: pathlib.Path) -> pathlib.Path:
        """The body as a file: an installer's own, else one made in the folder."""
        if self.installer:
            return paths.need(paths.PACKAGES / f"installer-{self.installer}.exe")
        file = folder / ("body-" + self.path.strip("/").replace("/", "_"))
        if self.size is not None:
            with open(file, "wb") as body:
                body.truncate(self.size)
        elif self.hex is not None:
            file.write_bytes(bytes.fromhex(self.hex))
        else:
            file.write_bytes((self.text or "").encode())
        return file
