"""Answers that no proper web server gives: cut bodies, silence, resets, bytes that are not HTTP. raw.py CONFIG.json"""
from __future__ import annotations

import json
import socket
import socketserver
import ssl
import struct
import sys
import threading
import time

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


def send_body(connection: socket.socket, answer: dict, body: bytes) -> int:
    end = min(len(body), *[answer[key] for key in ("cut", "reset") if answer[key] is not None], len(body))
    sent = 0
    pause_at, pause = answer["pause"] or (end, 0)
    while sent < end:
        step = min(end - sent, 65536, answer["rate"] // 10 or 65536)
        if sent < pause_at:
            step = min(step, int(pause_at) - sent)
        connection.sendall(body[sent:sent + step])
        sent += step
        if sent == pause_at and pause:
            time.sleep(pause)
        elif answer["rate"]:
            time.sleep(0.1)
    return sent


def serve(connection: socket.socket, request: dict, answer: dict | None) -> tuple[int, int]:
    """Returns the status and the length of what went out."""
    if answer is None:
        connection.sendall(b"HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n")
        return 404, 0
    time.sleep(answer["delay"])
    if answer["raw"] is not None:
        data = answer["raw"].encode("latin-1")
        connection.sendall(data)
        return 0, len(data)
    with open(answer["file"], "rb") as file:
        body = file.read()
    head = [f"HTTP/1.1 {answer['status']} Lab", f"Content-Type: {answer['type']}", "Connection: close"]
    if answer["redirect"]:
        head.append(f"Location: {answer['redirect']}")
    if answer["length"]:
        head.append(f"Content-Length: {len(body)}")
    connection.sendall(("\r\n".join(head) + "\r\n\r\n").encode("latin-1"))
    sent = send_body(connection, answer, body)
    if answer["reset"] is not None:
        time.sleep(0.1)  # what is on its way arrives first
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    return answer["status"], sent


def main(config: dict) -> None:
    answers = {answer["path"]: answer for answer in config["answers"]}
    context = None
    if "certificate" in config:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(config["certificate"] + ".pem", config["certificate"] + ".key")

    class Handler(socketserver.BaseRequestHandler):
        def handle(self) -> None:
            connection = context.wrap_socket(self.request, server_side=True) if context else self.request
            request = read_request(connection)
            if request is None:  # the start-up probe
                return
            status, sent = 0, 0
            try:
                status, sent = serve(connection, request, answers.get(request["path"].partition("?")[0]))
            finally:
                with LOCK, open(config["log"], "a", encoding="utf-8") as log:
                    log.write(json.dumps({**request, "status": status, "bytes": sent}) + "\n")
                if answers.get(request["path"], {}).get("reset") is not None:
                    connection.close()

    class Server(socketserver.ThreadingTCPServer):
        allow_reuse_address = True
        daemon_threads = True

    with Server((config["address"], config["port"]), Handler) as server:
        server.serve_forever()


if __name__ == "__main__":
    with open(sys.argv[1], encoding="utf-8") as file:
        main(json.load(file))
