"""The download server of one run: nginx on a loopback port, or the raw server when an answer breaks the rules of HTTP."""
from __future__ import annotations

import contextlib
import json
import pathlib
import re
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
    # nginx compares only 255 characters of a name, so a longer one is a pattern.
    where = f'= "{name}"' if len(name) <= 255 else f'~ "^{re.escape(name)}$"'
    lines = [f"location {where} {{", f"  default_type {answer.type};"]
    lines += [f"  add_header {_quoted(header)} {_quoted(value)} always;" for header, value in answer.headers.items()]
    body: list[str] = []
    if answer.redirect:
        lines.append(f"  return {answer.status} {_quoted(answer.redirect)};")
    elif answer.status == 200:
        body = [f"  alias {_quoted(str(answer.body_file(folder)))};"]
    elif answer.has_file:
        lines += [f'  error_page {answer.status} "/page-of{name}";', f"  return {answer.status};", "}",
                  f'location = "/page-of{name}" {{', "  internal;", f"  default_type {answer.type};"]
        body = [f"  alias {_quoted(str(answer.body_file(folder)))};"]
    else:
        lines.append(f"  return {answer.status} {_quoted(answer.text or '')};")
    if body and answer.rate:
        body.append(f"  limit_rate {answer.rate};")
    return "\n".join([*lines, *body, "}"])


class WebServer:
    """Listens as soon as it exists. `requests` lists what came in, also after close()."""

    def __init__(self, folder: pathlib.Path, answers: list[Answer], *, address: str = "127.0.0.1", port: int = 0,
                 certificate: str = "", protocols: str = "", also_plain: bool = False,
                 tool_log: pathlib.Path | None = None):
        """port 0: a free one. certificate: TLS is spoken, in these versions (nginx's names). also_plain: and HTTP on port 80.
        tool_log: the folder of the tool's log, which tells the raw server how far the tool has come."""
        folder.mkdir(parents=True, exist_ok=True)
        self.folder = folder
        self.address = address
        self.log = folder / "requests.jsonl"
        self.errors = folder / "errors.log"
        self.certificate = certificate
        self.protocols = protocols
        self.also_plain = also_plain
        self.tool_log = tool_log
        raw = any(answer.needs_raw for answer in answers)
        if raw and (protocols or also_plain):
            raise ValueError("server: tls and also_plain do not go with an answer that breaks the rules of HTTP: leave one of them out")
        for _ in range(5):  # another program may take the port before the server starts
            self.port = port or self._free_port()
            self.process = self._start_raw(answers) if raw else self._start_nginx(answers)
            if self._listens():
                return
            self.close()
        raise RuntimeError(f"the download server does not start on {self.address}: {self.errors.read_text() if self.errors.exists() else 'it gave no reason'}")

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
        listen = f"listen {self.address}:{self.port}"
        if self.certificate:
            files = certificates.folder()
            listen += f" ssl; ssl_certificate {files / self.certificate}.pem"
            listen += f"; ssl_certificate_key {files / self.certificate}.key"
        if self.protocols:
            listen += f"; ssl_protocols {self.protocols}"
        if self.also_plain:
            listen += f"; listen {self.address}:80"
        values = {"@FOLDER@": str(self.folder), "@LISTEN@": listen, "@LOG@": LOG,
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
        config = {"address": self.address, "port": self.port, "log": str(self.log), "answers": described,
                  "tool_log": str(self.tool_log or "")}
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
