"""A mirror as docs/mirror.md describes it: deploy/mirror/publish fills it, nginx serves it with deploy/mirror/nginx.conf, and
machines are repaired from it."""
from __future__ import annotations

import contextlib
import hashlib
import http.client
import pathlib
import re
import socket
import subprocess
import tempfile
import time
from collections.abc import Iterator

import pytest

from tools.tests.deploy_kit import MIRROR, SIGNER, Signers, publish
from cases.support.expect import NOT_DOWNLOADED, REPAIR, REPAIRED, UNTOUCHED, download, inventory, opening, unpack
from lab import certificates, paths, session
from lab.children import end_with_parent
from lab.privileges import private_hosts_obstacle

CONFIG = (MIRROR / "nginx.conf").read_text("utf-8")


def own_config(folder: pathlib.Path, *, http: str, https: str = "",
               certificate: tuple[pathlib.Path, ...] | None = None) -> str:
    """nginx.conf with its "# own" lines adapted to one folder and all others unchanged. http, https: address and port to listen on;
    https needs a certificate."""
    values = {"user": None, "pid": f"pid {folder}/nginx.pid;", "error_log": f"error_log {folder}/errors.log;",
              "listen 80": f"listen {http};", "server_name": "server_name _;", "root": f"root {folder}/site;",
              "access_log": f"access_log {folder}/access.log mirror;", "limit_rate": "limit_rate 0;",
              "listen 443 ssl": f"listen {https} ssl;" if certificate else None,
              "ssl_certificate": f"ssl_certificate {certificate[0]};" if certificate else None,
              "ssl_certificate_key": f"ssl_certificate_key {certificate[1]};" if certificate else None}
    lines = []
    for line in CONFIG.splitlines():
        if not line.rstrip().endswith("# own"):
            lines.append(line)
            if line.strip() == "http {":  # nginx's default folders belong to root
                lines += [f"{kind}_temp_path {folder}/{kind};" for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi")]
            continue
        directive = line.partition(";")[0].strip()
        key = max((name for name in values if directive == name or directive.startswith(name + " ")), key=len)
        value = values.pop(key)
        if value is not None:
            lines.append(value)
    if values:
        raise ValueError(f"nginx.conf has no line to adapt for: {', '.join(values)}")
    return "\n".join(["daemon off;", *lines]) + "\n"


def start(folder: pathlib.Path, config: str, address: tuple[str, int]) -> subprocess.Popen[bytes]:
    """Starts nginx and waits until it listens. Raises RuntimeError with nginx's output if it does not start."""
    (folder / "nginx.conf").write_text(config, "utf-8")
    with open(folder / "output.txt", "wb") as output:
        process = subprocess.Popen(["/usr/sbin/nginx", "-p", str(folder), "-e", str(folder / "errors.log"), "-c", str(folder / "nginx.conf")],
                                   stdin=subprocess.DEVNULL, stdout=output, stderr=output, preexec_fn=end_with_parent)
    for _ in range(500):
        if process.poll() is not None:
            break
        with contextlib.suppress(OSError), socket.create_connection(address, 1):
            return process
        time.sleep(0.01)
    process.kill()
    raise RuntimeError((folder / "output.txt").read_text("utf-8", "replace") or "nginx does not listen")


def stop(process: subprocess.Popen[bytes]) -> None:
    process.terminate()
    try:
        process.wait(10)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def free_port() -> int:
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Mirror:
    """nginx on addresses of its own, so that several can have port 443."""

    def __init__(self, folder: pathlib.Path, secure: bool):
        self.folder, self.releases = folder, folder / "site" / "vlt"
        folder.chmod(0o755)
        signers = Signers(folder)
        installer = signers.sign(paths.need(paths.PACKAGES / "installer-24.20.exe"), "maker", folder / "installer.exe")
        self.installer = installer.read_bytes()
        for release in ("24.20.11.01-240619a", "24.2"):
            done = publish("--root", self.releases, "--ca", signers.ca, "--signer", SIGNER, release, installer)
            assert done.returncode == 0, done.stderr
        self.address, self.port = (session.default_address() if secure else "127.0.0.1"), free_port()
        pair = tuple(certificates.folder() / f"good.{ending}" for ending in ("pem", "key")) if secure else None
        config = own_config(folder, http=f"{self.address}:{self.port}", https=f"{self.address}:443", certificate=pair)
        # A single process needs no change of user and leaves no other process when it ends.
        self.process = start(folder, config.replace("worker_processes auto;", "master_process off;"), (self.address, self.port))

    def requests(self) -> list[str]:
        return (self.folder / "access.log").read_text("utf-8").splitlines()

    def close(self) -> None:
        stop(self.process)

    def ask(self, method: str, path: str, **headers: str) -> tuple[int, dict[str, str], bytes]:
        with contextlib.closing(http.client.HTTPConnection(self.address, self.port, timeout=10)) as connection:
            connection.request(method, path, headers=headers)
            answer = connection.getresponse()
            return answer.status, {name.lower(): value for name, value in answer.getheaders()}, answer.read()


@pytest.fixture(scope="module")
def mirror(tmp_path_factory) -> Iterator[Mirror]:
    one = Mirror(tmp_path_factory.mktemp("mirror"), secure=False)
    yield one
    one.close()


@pytest.fixture
def secure_mirror(tmp_path) -> Iterator[Mirror]:
    if private_hosts_obstacle():
        pytest.skip(private_hosts_obstacle())
    one = Mirror(tmp_path, secure=True)
    yield one
    one.close()


def machine(folder: str, **more: object) -> dict:
    """A machine with DWXServerFolder, far from the lab's own server."""
    return {"server": {"reach": "none"}, "registry": {r"HKLM\Software\Tavik": {"DWXServerFolder": folder}}, **more}


def downloaded(folder: str) -> list[str]:
    first, _, *rest = download()
    return [first, f"Change server to {folder}.", *rest]


# Machines

# Proves: A machine is repaired from a mirror, over http and https => as from the maker's server; a shorter release has the shorter folder, a missing one ends the download
def test_a_machine_is_repaired_from_it(lab, mirror):
    folder = f"http://127.0.0.1:{mirror.port}/vlt/"
    lab.run(machine(folder), "-SILENT")
    lab.check(outcome="repaired", after=REPAIRED, log=[*opening("-SILENT"), *inventory(), *downloaded(folder), unpack(), *REPAIR])
    assert re.search(rf'"GET /vlt/24.20/dwx2_install.txt HTTP/1.1" 200 {len(mirror.installer)} [0-9.]+ "Tavik Marlin Install Manager" -$',
                     mirror.requests()[-1])


def test_a_machine_is_repaired_from_it_over_https(lab, secure_mirror):
    """The mirror has the name of the lab's certificate and port 443, the only one on which the tool uses TLS."""
    folder = f"https://{certificates.HOST}/vlt/"
    lab.run(machine(folder, hosts={certificates.HOST: secure_mirror.address}), "-SILENT")
    lab.check(outcome="repaired", after=REPAIRED, log=[*opening("-SILENT"), *inventory(), *downloaded(folder), unpack(), *REPAIR])
    assert re.search(r'"GET /vlt/24.20/dwx2_install.txt HTTP/1.1" 200 .* TLSv1.[23]$', secure_mirror.requests()[-1])


def test_a_release_of_fewer_characters_has_the_shorter_folder(lab, mirror):
    lab.run(machine(f"http://127.0.0.1:{mirror.port}/vlt/", adapters=[{"release": "24.2-240101"}]), "-SILENT")
    lab.check(outcome="repaired", after=REPAIRED)
    assert '"GET /vlt/24.2/dwx2_install.txt HTTP/1.1" 200 ' in mirror.requests()[-1]


def test_a_release_that_was_not_published(lab, mirror):
    lab.run(machine(f"http://127.0.0.1:{mirror.port}/vlt/", adapters=[{"release": "24.30.1"}]))
    lab.check(outcome="download-not-there", after=UNTOUCHED)
    assert lab.result.log[-3:] == ["Response code from server: 404",
                                   f"Error response code received from http://127.0.0.1:{mirror.port}/vlt/24.30/dwx2_install.txt",
                                   NOT_DOWNLOADED]
    needed = publish("--root", mirror.releases, "--needed", mirror.folder / "access.log")
    assert needed.returncode == 1 and "needed, but not published (404): 24.30\n" in needed.stderr


@pytest.mark.parametrize("release, good", [("24.20.11.01-240619a", True), ("24.30", False)], ids=["published", "not published"])
def test_the_companion_asks_it_like_the_tool(mirror, release, good):
    """TavikToolCompanion check-server, with which an administrator checks the value before it is set on ten thousand machines."""
    with session.bare(paths.COMPANION) as prefix:
        prefix.start()
        code = prefix.wine(r"C:\lab\TavikToolCompanion.exe", "check-server", f"http://127.0.0.1:{mirror.port}/vlt/", "--release", release,
                           output=prefix.path / "said.txt", timeout=60)
        said = (prefix.path / "said.txt").read_text("utf-8", "replace")
    asked = re.findall(r'"GET (\S+) HTTP/1.1" (\d+) .* "Tavik Marlin Install Manager" ', mirror.requests()[-1])
    assert (code == 0) == good, said
    assert asked == [(f"/vlt/{release[:5]}/dwx2_install.txt", "200" if good else "404")]


# What the configuration answers to other requests

def test_the_installer_comes_byte_for_byte_and_unchanged(mirror):
    status, headers, body = mirror.ask("GET", "/vlt/24.20/dwx2_install.txt", **{"Accept-Encoding": "gzip"})
    assert (status, headers["content-length"], body) == (200, str(len(mirror.installer)), mirror.installer)
    assert headers["content-type"] == "application/octet-stream" and "content-encoding" not in headers
    assert mirror.ask("HEAD", "/vlt/24.20/dwx2_install.txt")[::2] == (200, b"")


def test_the_list_can_be_read(mirror):
    digest = hashlib.sha256(mirror.installer).hexdigest()
    assert mirror.ask("GET", "/vlt/SHA256SUMS")[::2] == (
        200, "".join(f"{digest}  {folder}/dwx2_install.txt\n" for folder in ("24.2", "24.20")).encode())


# Proves: Another request is sent to the mirror => 404, never a redirect or a list; it only hands out, byte for byte
@pytest.mark.parametrize("path", [
    "/", "/vlt", "/vlt/", "/vlt/24.20", "/vlt/24.20/", "/vlt/24.30/dwx2_install.txt", "/vlt/24.20.1/dwx2_install.txt", "/vlt/.lock",
    "/vlt/24.20/../.lock", "/vlt//dwx2_install.txt", "/24.20/dwx2_install.txt", "/vlt/24.20/dwx2_install.exe", "/../installer.exe",
    "/vlt/%2e%2e/dwx2_install.txt", "/vlt/24.20/DWX2_INSTALL.TXT"])
def test_every_other_path_is_not_found(mirror, path):
    assert mirror.ask("GET", path)[0] in (400, 404)


@pytest.mark.parametrize("method", ["POST", "PUT", "DELETE"])
def test_other_methods_are_refused(mirror, method):
    assert mirror.ask(method, "/vlt/24.20/dwx2_install.txt")[0] == 405
    assert mirror.ask("GET", "/vlt/24.20/dwx2_install.txt")[2] == mirror.installer


# Many clients

# Proves: 1,000 clients ask the mirror at once => all are answered
def test_a_thousand_clients_at_once():
    """One second only, and 1 KiB for each: docs/mirror.md has the figures for real sizes. nginx's workers may run as another user."""
    with tempfile.TemporaryDirectory(prefix="mirror-") as name:
        folder, port = pathlib.Path(name), free_port()
        folder.chmod(0o755)
        installer = folder / "site" / "vlt" / "24.20" / "dwx2_install.txt"
        installer.parent.mkdir(parents=True)
        installer.write_bytes(bytes(1024))
        process = start(folder, own_config(folder, http=f"127.0.0.1:{port}"), ("127.0.0.1", port))
        try:
            clients = 'ulimit -n "$(ulimit -H -n)" && wrk -t 2 -c 1000 -d 1 --timeout 90 -H "Connection: close" '
            done = subprocess.run(["sh", "-c", clients + f"http://127.0.0.1:{port}/vlt/24.20/dwx2_install.txt"], capture_output=True, text=True,
                                  check=True)
        finally:
            stop(process)
        statuses = set(re.findall(r'" (\d{3}) \d+ [\d.]+ "', (folder / "access.log").read_text("utf-8", "replace")))
        assert "1000 connections" in done.stdout and not re.search("Socket errors|Non-2xx or 3xx responses", done.stdout), done.stdout
        assert {"200"} <= statuses <= {"200", "499"}  # 499: wrk cuts downloads off when its time ends
        assert (folder / "errors.log").read_text("utf-8", "replace") == ""
