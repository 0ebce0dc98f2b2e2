"""The answers of the download server, from a machine's description; nginx or the raw server gives them."""
from __future__ import annotations

import dataclasses
import hashlib
import pathlib

from lab import paths

# Answers that a real web server never gives.
RAW = ("cut", "reset", "delay", "pause", "raw", "announce", "trickle", "turns")
KEYS = {"installer", "text", "hex", "size", "status", "redirect", "rate", "type", "length", "headers", *RAW}


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
    headers: dict[str, str] = dataclasses.field(default_factory=dict)  # further ones
    announce: int | None = None  # Content-Length, whatever the body is
    trickle: float = 0       # head and body byte by byte, with this many seconds between two
    turns: int | None = None  # redirected this many times, then the body

    @staticmethod
    def of(path: str, description: object) -> "Answer":
        if isinstance(description, str):
            return Answer(path, installer=description)
        if isinstance(description, int) and not isinstance(description, bool):
            return Answer(path, status=description)
        if not isinstance(description, dict) or set(description) - KEYS:
            raise ValueError(f"answer to {path}: write an installer's release, a status, or a table of {', '.join(sorted(KEYS))}")
        answer = Answer(path, **description)
        if answer.redirect and "status" not in description:
            answer.status = 302
        return answer

    @property
    def needs_raw(self) -> bool:
        return not self.length or any(getattr(self, key) != Answer.__dataclass_fields__[key].default for key in RAW)

    @property
    def has_file(self) -> bool:
        return bool(self.installer) or self.hex is not None or self.size is not None

    def body_file(self, folder: pathlib.Path) -> pathlib.Path:
        """The body as a file: an installer's own, else one made in the folder."""
        if self.installer:
            return paths.need(paths.PACKAGES / f"installer-{self.installer}.exe")
        file = folder / f"body-{hashlib.sha1(self.path.encode()).hexdigest()[:10]}"  # a path may be too long for a name
        if self.size is not None:
            with open(file, "wb") as body:
                body.truncate(self.size)
        elif self.hex is not None:
            file.write_bytes(bytes.fromhex(self.hex))
        else:
            file.write_bytes((self.text or "").encode())
        return file
