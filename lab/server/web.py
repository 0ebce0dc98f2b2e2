"""The download server of one run: nginx on a loopback port, or the raw server when an answer breaks the rules of HTTP."""
from __future__ import annotations

import contextlib
import json
import pathlib
import socket
import subprocess
import sys
import time

from lab import certificates
from lab.children import end_with_parent
from lab.server.answers import Answer

HERE = pathlib.Path(__file__).parent
LOG = ('{"method":"$request_method","path":"$request_uri","host":"$http_host","user_agent":"$http_user_agent",'
       '"accept":"$http_accept","referer":"$http_referer","pragma":"$http_pragma","status":$status,"bytes":$body_bytes_sent,"tls":"$ssl_protocol"}')


def _quoted(text: str) -> str:
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"').replace("$", "${dollar}") + '"'


def _location(answer: Answer, folder: pathlib.Path) -> str:
    name = answer.path.replace("\\", "\\\\").replace('"', '\\"')  # no variables in a location's name
    lines = [f'location = "{name}" {{', f"  default_type {answer.type};"]
    if answer.redirect:
        lines.append(f"  return {answer.status} {_quoted(answer.redirect)};")
    elif answer.status != 200:
        lines.append(f"  return {answer.status} {_quoted(answer.text or '')};")
    else:
        lines.append(f"  alias {_quoted(str(answer.body_file(folder)))};")
        if answer.rate:
            lines.append(f"  limit_rate {answer.rate};")
    return "\n".join([*lines, "}"])


class WebServer:
    """Listens as soon as it exists. `requests` lists what came in, also after close()."""

    def __init__(self, folder: pathlib.Path, answers: list[Answer], address: str = "127.0.0.1", certificate: str = ""):
        folder.mkdir(parents=True, exist_ok=True)
        self.folder = folder
        self.address = address
        self.log = folder / "requests.jsonl"
        self.errors = folder / "errors.log"
        self.certificate = certificate
        raw = any(answer.needs_raw or not answer.length for answer in answers)
        for _ in range(5):  # somebody else may take the port between the look and the start
            self.port = 443 if certificate else self._free_port()
            self.process = self._start_raw(answers) if raw else self._start_nginx(answers)
            if self._listens():
                return
            self.close()
        raise RuntimeError(f"the download server does not start: {self.errors.read_text() if self.errors.exists() else ''}")

    def _free_port(self) -> int:
        with socket.socket() as probe:
            probe.bind((self.address, 0))
            return probe.getsockname()[1]

    def _listens(self) -> bool:
        for _ in range(500):
            if self.process.poll() is not None:
                return False
            with contextlib.suppress(OSError), socket.create_connection((self.address, self.port), 1):
                return True
            time.sleep(0.01)
        return False

    def _start_nginx(self, answers: list[Answer]) -> "subprocess.Popen[bytes]":
        tls = ""
        if self.certificate:
            files = certificates.folder()
            tls = f" ssl; ssl_certificate {files / self.certificate}.pem; ssl_certificate_key {files / self.certificate}.key"
        values = {"@FOLDER@": str(self.folder), "@LISTEN@": f"{self.address}:{self.port}{tls}", "@LOG@": LOG,
                  "@LOCATIONS@": "\n".join(_location(answer, self.folder) for answer in answers)}
        text = (HERE / "nginx.conf.in").read_text("utf-8")
        for name, value in values.items():
            text = text.replace(name, value)
        (self.folder / "nginx.conf").write_text(text, "utf-8")
        command = ["/usr/sbin/nginx", "-p", str(self.folder), "-e", str(self.errors), "-c", str(self.folder / "nginx.conf")]
        return subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                preexec_fn=end_with_parent)

    def _start_raw(self, answers: list[Answer]) -> "subprocess.Popen[bytes]":
        described = []
        for answer in answers:
            item = dict(vars(answer))
            if answer.raw is None:
                item["file"] = str(answer.body_file(self.folder))
            described.append(item)
        config = {"address": self.address, "port": self.port, "log": str(self.log), "answers": described}
        if self.certificate:
            config["certificate"] = str(certificates.folder() / self.certificate)
        (self.folder / "raw.json").write_text(json.dumps(config), "utf-8")
        with open(self.errors, "ab") as errors:
            return subprocess.Popen([sys.executable, str(HERE / "raw.py"), str(self.folder / "raw.json")],
                                    stdin=subprocess.DEVNULL, stdout=errors, stderr=errors, preexec_fn=end_with_parent)

    @property
    def requests(self) -> list[dict[str, object]]:
        if not self.log.exists():
            return []
        return [json.loads(line) for line in self.log.read_text("utf-8", "surrogateescape").splitlines()]

    def close(self) -> None:
        self.process.terminate()
        try:
            self.process.wait(5)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
