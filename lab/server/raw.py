"""A server for answers that break the rules: cut bodies, silence, resets, bytes that are not HTTP. raw.py CONFIG.json"""
from __future__ import annotations

import collections
import fcntl
import json
import pathlib
import signal
import socket
import socketserver
import ssl
import struct
import sys
import termios
import threading
import time
from typing import Callable

HEADERS = {"host": "host", "user-agent": "user_agent", "accept": "accept", "referer": "referer", "pragma": "pragma"}
LOCK = threading.Lock()


def read_request(connection: socket.socket) -> dict[str, str] | None:
    data = b""
    while b"\r\n\r\n" not in data:
        block = connection.recv(65536)
        if not block:
            return None
        data += block
    first, *lines = data.split(b"\r\n\r\n")[0].decode("latin-1").split("\r\n")
    method, path, _ = (first + "  ").split(" ", 2)
    request = {"method": method, "path": path, **{name: "" for name in HEADERS.values()}}
    for line in lines:
        name, _, value = line.partition(":")
        if name.lower() in HEADERS:
            request[HEADERS[name.lower()]] = value.strip()
    return request


def send(connection: socket.socket, data: bytes, answer: dict) -> None:
    if not answer["trickle"]:
        connection.sendall(data)
        return
    connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    for at in range(len(data)):
        connection.sendall(data[at:at + 1])
        time.sleep(answer["trickle"])


def send_body(connection: socket.socket, answer: dict, body: bytes) -> int:
    end = min(len(body), *[answer[key] for key in ("cut", "reset") if answer[key] is not None], len(body))
    sent = 0
    pause_at, pause = answer["pause"] or (end, 0)
    while sent < end:
        step = min(end - sent, 65536, answer["rate"] // 10 or 65536)
        if sent < pause_at:
            step = min(step, int(pause_at) - sent)
        send(connection, body[sent:sent + step], answer)
        sent += step
        if sent == pause_at and pause:
            time.sleep(pause)
        elif answer["rate"]:
            time.sleep(0.1)
    return sent


def said(folder: str, text: str) -> bool:
    return any(text.encode("utf-16-le") in file.read_bytes() for file in pathlib.Path(folder).glob("*.log"))


def wait_until(fact: Callable[[], bool]) -> None:
    for _ in range(1000):
        if fact():
            break
        time.sleep(0.01)


def abort(connection: socket.socket, tool_log: str) -> None:
    """Waits until the other side has received everything, because a reset discards the rest.

    Wine's WinINet forgets a reset that arrives before its caller has the head: a body of a few bytes would look complete.
    So the reset comes when the tool reads the body, as its log shows; without a log, at once.
    """
    wait_until(lambda: not struct.unpack("i", fcntl.ioctl(connection.fileno(), termios.TIOCOUTQ, bytes(4)))[0])
    if tool_log:
        wait_until(lambda: said(tool_log, "Response code from server"))
        time.sleep(0.3)  # from that line to the read
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def serve(connection: socket.socket, answer: dict | None, entry: dict, tool_log: str) -> None:
    """The entry gets the status and the length of what goes out."""
    if answer is None:
        entry["status"] = 404
        connection.sendall(b"HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n")
        return
    time.sleep(answer["delay"])
    if answer["raw"] is not None:
        body = answer["raw"].encode("latin-1")
    else:
        entry["status"] = answer["status"]
        with open(answer["file"], "rb") as file:
            body = file.read()
        head = [f"HTTP/1.1 {answer['status']} Lab", f"Content-Type: {answer['type']}", "Connection: close"]
        if answer["redirect"]:
            head.append(f"Location: {answer['redirect']}")
        if answer["length"]:
            head.append(f"Content-Length: {len(body) if answer['announce'] is None else answer['announce']}")
        head += [f"{name}: {value}" for name, value in answer["headers"].items()]
        send(connection, ("\r\n".join(head) + "\r\n\r\n").encode("latin-1"), answer)
    entry["bytes"] = send_body(connection, answer, body)
    if answer["reset"] is not None:
        abort(connection, tool_log if answer["raw"] is None else "")


class Log:
    """One line for each request, in the order in which the answers ended. Those still going on at the end come last."""

    def __init__(self, path: str):
        self.path = path
        self.open: list[dict] = []

    def begin(self, entry: dict) -> None:
        with LOCK:
            self.open.append(entry)

    def end(self, entry: dict) -> None:
        with LOCK:
            self.open = [other for other in self.open if other is not entry]
            with open(self.path, "a", encoding="utf-8") as log:
                log.write(json.dumps(entry) + "\n")


def main(config: dict) -> None:
    answers = {answer["path"]: answer for answer in config["answers"]}
    asked: collections.Counter[str] = collections.Counter()
    log = Log(config["log"])
    context = None
    if "certificate" in config:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(config["certificate"] + ".pem", config["certificate"] + ".key")

    def choose(path: str) -> dict | None:
        answer = answers.get(path)
        if answer is None or answer["turns"] is None:
            return answer
        with LOCK:
            asked[path] += 1
            return answer if asked[path] <= answer["turns"] else {**answer, "redirect": "", "status": 200}

    class Handler(socketserver.BaseRequestHandler):
        def handle(self) -> None:
            connection = context.wrap_socket(self.request, server_side=True) if context else self.request
            request = read_request(connection)
            if request is None:  # the start-up probe
                return
            entry = {**request, "status": 0, "bytes": 0}
            log.begin(entry)
            try:
                serve(connection, choose(request["path"].partition("?")[0]), entry, config["tool_log"])
            finally:
                log.end(entry)

    class Server(socketserver.ThreadingTCPServer):
        allow_reuse_address = True
        daemon_threads = True

    def leave(*_: object) -> None:
        raise SystemExit

    with Server((config["address"], config["port"]), Handler) as server:
        signal.signal(signal.SIGTERM, leave)
        try:
            server.serve_forever()
        finally:
            for entry in log.open:
                log.end(entry)


if __name__ == "__main__":
    with open(sys.argv[1], encoding="utf-8") as file:
        main(json.load(file))
