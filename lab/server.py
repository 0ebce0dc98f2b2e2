"""The download server of one run: threads of the lab's own process that give any answer, also one that breaks the rules of HTTP."""
from __future__ import annotations

import contextlib
import dataclasses
import fcntl
import functools
import pathlib
import socket
import ssl
import struct
import termios
import threading
import time
from typing import Any, Callable

from lab import certificates, paths

HEADERS = {"host": "host", "user-agent": "user_agent", "accept": "accept", "referer": "referer", "pragma": "pragma"}
TLS_HELLO = b"\x16"  # the first byte of an encrypted connection
ZEROS = bytes(1 << 20)


@dataclasses.dataclass
class Answer:
    """One path. At most one of installer, text, hex, size and raw gives the body; without any it is empty."""
    path: str
    installer: str = ""      # release, or release-kind
    text: str = ""
    hex: str = ""
    size: int | None = None  # that many zero bytes
    raw: str | None = None   # sent instead of an HTTP answer
    status: int = 200
    redirect: str = ""       # Location; the status is then 302 unless given
    headers: dict[str, str] = dataclasses.field(default_factory=dict)  # further ones
    length: bool = True      # false: no Content-Length, the closed connection ends the body
    announce: int | None = None  # Content-Length, whatever the body is
    rate: int = 0            # bytes per second
    delay: float = 0         # seconds of silence before the answer
    pause: list[float] | None = None  # [bytes, seconds]: silence in the middle of the body
    trickle: float = 0       # head and body byte by byte, with this many seconds between two
    reset: int | None = None  # bytes of the body after which the connection is reset
    turns: int | None = None  # redirected this many times, then the body
    asked: int = 0           # how often so far

    @staticmethod
    def of(path: str, description: object) -> "Answer":
        if isinstance(description, str):
            return Answer(path, installer=description)
        if isinstance(description, int) and not isinstance(description, bool):
            return Answer(path, status=description)
        known = {field.name for field in dataclasses.fields(Answer)} - {"path", "asked"}
        if not isinstance(description, dict) or set(description) - known:
            raise ValueError(f"answer to {path}: write an installer's release, a status, or a table of {', '.join(sorted(known))}")
        return Answer(path, **{**({"status": 302} if "redirect" in description else {}), **description})

    @functools.cached_property
    def body(self) -> bytes:
        """Without the zero bytes of `size`, which may be gigabytes."""
        if self.installer:
            return paths.need(paths.PACKAGES / f"installer-{self.installer}.exe").read_bytes()
        return bytes.fromhex(self.hex) or (self.text if self.raw is None else self.raw).encode("utf-8" if self.raw is None else "latin-1")

    @property
    def body_size(self) -> int:
        return len(self.body) if self.size is None else self.size

    def head(self) -> bytes:
        lines = [f"HTTP/1.1 {self.status} Lab", "Content-Type: text/plain", "Connection: close"]
        if self.redirect:
            lines.append(f"Location: {self.redirect}")
        if self.length:
            lines.append(f"Content-Length: {self.body_size if self.announce is None else self.announce}")
        lines += [f"{name}: {value}" for name, value in self.headers.items()]
        return ("\r\n".join(lines) + "\r\n\r\n").encode("latin-1")


def _read_request(connection: socket.socket) -> dict[str, Any] | None:
    """None without a request. A client that encrypts where it should not sends nothing readable."""
    data = b""
    while b"\r\n\r\n" not in data and not data.startswith(TLS_HELLO):
        block = connection.recv(65536)
        if not block:
            return None
        data += block
    first, *lines = ("" if data.startswith(TLS_HELLO) else data.decode("latin-1")).partition("\r\n\r\n")[0].split("\r\n")
    method, path, _ = (first + "  ").split(" ", 2)
    request = {"method": method, "path": path, "status": 0, "bytes": 0, **{name: "" for name in HEADERS.values()}}
    for line in lines:
        name, _, value = line.partition(":")
        if name.lower() in HEADERS:
            request[HEADERS[name.lower()]] = value.strip()
    return request


def _wait_until(fact: Callable[[], bool]) -> None:
    for _ in range(1000):
        if fact():
            break
        time.sleep(0.01)


class WebServer:
    """Listens as soon as it exists. `requests` lists what came in, in the order of arrival."""

    def __init__(self, answers: list[Answer], *, address: str = "127.0.0.1", port: int = 0, certificate: str = "",
                 protocols: str = "", also_plain: bool = False, tool_log: pathlib.Path | None = None):
        """port 0: any free port. certificate: use TLS, with these versions (default: all). also_plain: HTTP on port 80 as well.
        tool_log: the folder of the tool's log, which tells when the tool reads a body."""
        self.answers = {answer.path: answer for answer in answers if answer.body_size >= 0}  # a missing installer is noticed here
        self.address = address
        self.tool_log = tool_log
        self.requests: list[dict[str, Any]] = []
        self._ended = threading.Event()
        self._listeners: list[socket.socket] = []
        self.port = self._listen(port, self._context(certificate, protocols.split()) if certificate else None)
        if also_plain:
            self._listen(80, None)

    @staticmethod
    def _context(certificate: str, versions: list[str]) -> ssl.SSLContext:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        file = certificates.folder() / certificate
        context.load_cert_chain(f"{file}.pem", f"{file}.key")
        if versions:
            numbers = [ssl.TLSVersion[version.replace(".", "_")] for version in versions]
            context.minimum_version, context.maximum_version = min(numbers), max(numbers)
        return context

    def _listen(self, port: int, context: ssl.SSLContext | None) -> int:
        listener = socket.create_server((self.address, port))
        self._listeners.append(listener)
        threading.Thread(target=self._accept, args=(listener, context), daemon=True).start()
        return listener.getsockname()[1]

    def _accept(self, listener: socket.socket, context: ssl.SSLContext | None) -> None:
        with contextlib.suppress(OSError):  # close() ends the wait
            while True:
                connection, _ = listener.accept()
                threading.Thread(target=self._handle, args=(connection, context), daemon=True).start()

    def _handle(self, connection: socket.socket, context: ssl.SSLContext | None) -> None:
        with contextlib.suppress(OSError), connection:  # the client may leave at any time
            is_encrypted = connection.recv(1, socket.MSG_PEEK) == TLS_HELLO
            if is_encrypted and context:
                with context.wrap_socket(connection, server_side=True) as encrypted:
                    self._converse(encrypted, encrypted.version(), False)
            else:
                self._converse(connection, "", is_encrypted or context is not None)

    def _converse(self, connection: socket.socket, tls: str, is_refused: bool) -> None:
        request = _read_request(connection)
        if request is None:
            return
        request["tls"] = tls
        self.requests.append(request)
        answer = Answer("", status=400) if is_refused else self._choose(request["path"].partition("?")[0])
        self._pause(answer.delay)
        if answer.raw is None:
            request["status"] = answer.status
            self._send(connection, answer.head(), answer)
        self._send_body(connection, answer, request)
        if answer.reset is not None:
            self._reset(connection, answer)

    def _choose(self, path: str) -> Answer:
        answer = self.answers.get(path, Answer(path, status=404, text="no such file\n"))
        answer.asked += 1
        if answer.turns is not None and answer.asked > answer.turns:
            return dataclasses.replace(answer, redirect="", status=200)
        return answer

    def _pause(self, seconds: float) -> None:
        if self._ended.wait(seconds):
            raise ConnectionAbortedError("the run is over")

    def _send(self, connection: socket.socket, data: bytes, answer: Answer) -> None:
        if not answer.trickle:
            connection.sendall(data)
            return
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for at in range(len(data)):
            connection.sendall(data[at:at + 1])
            self._pause(answer.trickle)

    def _send_body(self, connection: socket.socket, answer: Answer, request: dict[str, Any]) -> None:
        """Counts the bytes in the request."""
        end = answer.body_size if answer.reset is None else min(answer.reset, answer.body_size)
        pause_at, seconds = answer.pause or (end, 0)
        while (sent := request["bytes"]) < end:
            length = min((pause_at if sent < pause_at else end) - sent, len(ZEROS), answer.rate // 10 or end)
            data = answer.body[sent:sent + length] if answer.size is None else memoryview(ZEROS)[:length]
            self._send(connection, data, answer)
            request["bytes"] += length
            self._pause((seconds if sent + length == pause_at else 0) + (length / answer.rate if answer.rate else 0))

    def _reset(self, connection: socket.socket, answer: Answer) -> None:
        """Waits until the other side has received everything, because a reset discards the rest.

        Wine's WinINet loses a reset that arrives before its caller has the response header: a short body would look complete.
        So the reset is sent when the log shows that the tool reads the body; without a log, at once.
        """
        _wait_until(lambda: not struct.unpack("i", fcntl.ioctl(connection.fileno(), termios.TIOCOUTQ, bytes(4)))[0])
        if self.tool_log and answer.raw is None:
            said = "Response code from server".encode("utf-16-le")
            _wait_until(lambda: any(said in file.read_bytes() for file in self.tool_log.glob("*.log")))
            time.sleep(0.3)  # from that line to the read
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))

    def close(self) -> None:
        self._ended.set()
        for listener in self._listeners:
            with contextlib.suppress(OSError):
                listener.shutdown(socket.SHUT_RDWR)
            listener.close()
