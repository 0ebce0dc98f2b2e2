"""tools/signing.py with each kind of key: in a file, in a token made of software, and with a time stamp of a server of ours."""
from __future__ import annotations

import http.server
import pathlib
import re
import threading
from collections.abc import Iterator

import pytest

from lab import paths
from tools.release import signed_by
from tools.signing import Choice, Signer, run

MODULE = pathlib.Path("/usr/lib/softhsm/libsofthsm2.so")


def certificate(folder: pathlib.Path, name: str, usage: str) -> pathlib.Path:
    """A certificate of its own, FOLDER/NAME.pem, with its key in NAME.key."""
    run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", f"/CN={name}", "-addext", "keyUsage=critical,digitalSignature",
        "-addext", f"extendedKeyUsage=critical,{usage}", "-keyout", folder / f"{name}.key", "-out", folder / f"{name}.pem")
    return folder / f"{name}.pem"


@pytest.fixture
def owner(tmp_path) -> pathlib.Path:
    return certificate(tmp_path, "owner", "codeSigning")


def signed(choice: Choice, tmp_path) -> str:
    """What osslsigncode prints of the signed tool, after signing it and a list."""
    work = tmp_path / "work"
    work.mkdir()
    signer = Signer(choice, work)
    signer.sign_program(paths.need(paths.TOOL), tmp_path / "signed.exe", "Title")
    (tmp_path / "SHA256SUMS").write_text("0  file\n")
    signer.sign_list(tmp_path / "SHA256SUMS")
    assert (tmp_path / "SHA256SUMS.p7s").read_text().startswith("-----BEGIN CMS-----")
    said = run("osslsigncode", "verify", "-CAfile", signer.trusted, "-TSA-CAfile", signer.trusted, "-in", tmp_path / "signed.exe")
    assert f"CN={signer.name}\n" in said
    assert signed_by(signer) == f"**{signer.name}**" + (" (this is a **test build**, which Windows does not trust: for trials only)" if choice == Choice() else "")
    return said


# Proves: A release is signed => key in a file (PEM, PKCS #12), in a token, or made for trials; with a time stamp when a server is named
def test_trial_certificate(tmp_path):
    assert "CN=Tavik test certificate" in signed(Choice(), tmp_path)


def test_pem_file(tmp_path, owner):
    both = tmp_path / "both.pem"
    both.write_bytes(owner.read_bytes() + owner.with_suffix(".key").read_bytes())
    assert "CN=owner" in signed(Choice(certificate=both, trusted=owner), tmp_path)


def test_pkcs12_file_with_a_password(tmp_path, owner):
    password = tmp_path / "password"
    password.write_text("open sesame")
    run("openssl", "pkcs12", "-export", "-in", owner, "-inkey", owner.with_suffix(".key"), "-passout", f"file:{password}", "-out", tmp_path / "owner.p12")
    assert "CN=owner" in signed(Choice(certificate=tmp_path / "owner.p12", password_file=password, trusted=owner), tmp_path)


def test_token(tmp_path, owner, monkeypatch):
    (tmp_path / "tokens").mkdir()
    (tmp_path / "softhsm2.conf").write_text(f"directories.tokendir = {tmp_path}/tokens\nobjectstore.backend = file\n")
    monkeypatch.setenv("SOFTHSM2_CONF", str(tmp_path / "softhsm2.conf"))
    run("softhsm2-util", "--init-token", "--free", "--label", "tavik", "--so-pin", "1234", "--pin", "5678")
    run("openssl", "pkcs8", "-topk8", "-nocrypt", "-in", owner.with_suffix(".key"), "-out", tmp_path / "key.p8")
    run("softhsm2-util", "--import", tmp_path / "key.p8", "--token", "tavik", "--label", "release", "--id", "01", "--pin", "5678")
    owner.with_suffix(".key").unlink()  # only the token has it now
    (tmp_path / "key.p8").unlink()
    (tmp_path / "pin").write_text("5678")
    choice = Choice(certificate=owner, password_file=tmp_path / "pin", token="pkcs11:token=tavik;object=release;type=private", module=MODULE, trusted=owner)
    assert "CN=owner" in signed(choice, tmp_path)


@pytest.fixture
def time_server(tmp_path) -> Iterator[str]:
    """A time stamp server (RFC 3161) that answers with openssl."""
    certificate(tmp_path, "clock", "timeStamping")
    (tmp_path / "serial").write_text("01\n")
    (tmp_path / "ts.cnf").write_text(f"[tsa]\ndefault_tsa = t\n[t]\nserial = {tmp_path}/serial\nsigner_cert = {tmp_path}/clock.pem\nsigner_key = {tmp_path}/clock.key\n"
                                     "signer_digest = sha256\ndefault_policy = 1.2.3.4\ndigests = sha256\naccuracy = secs:1\ness_cert_id_alg = sha256\n")

    class Handler(http.server.BaseHTTPRequestHandler):
        def do_POST(self) -> None:
            (tmp_path / "query").write_bytes(self.rfile.read(int(self.headers["Content-Length"])))
            run("openssl", "ts", "-reply", "-config", tmp_path / "ts.cnf", "-queryfile", tmp_path / "query", "-out", tmp_path / "reply")
            answer = (tmp_path / "reply").read_bytes()
            self.send_response(200)
            self.send_header("Content-Type", "application/timestamp-reply")
            self.send_header("Content-Length", str(len(answer)))
            self.end_headers()
            self.wfile.write(answer)

        def log_message(self, *_: object) -> None:
            pass
    server = http.server.HTTPServer(("127.0.0.1", 0), Handler)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    yield f"http://127.0.0.1:{server.server_port}/"
    server.shutdown()


def test_time_stamp(tmp_path, owner, time_server):
    both = tmp_path / "both.pem"
    both.write_bytes(owner.read_bytes() + owner.with_suffix(".key").read_bytes())
    trusted = tmp_path / "trusted.pem"
    trusted.write_bytes(owner.read_bytes() + (tmp_path / "clock.pem").read_bytes())
    said = signed(Choice(certificate=both, time_stamps=time_server, trusted=trusted), tmp_path)
    assert re.search(r"Timestamp Server Signature verification: ok", said), said


@pytest.mark.parametrize("choice, complaint", [
    (Choice(certificate=pathlib.Path("missing.pem")), "There is no certificate missing.pem"),
    (Choice(certificate=pathlib.Path(__file__), token="pkcs11:object=x"), "A key in a token needs --module")])
def test_what_cannot_sign_is_named(tmp_path, choice, complaint):
    with pytest.raises(SystemExit, match=complaint):
        Signer(choice, tmp_path)


def test_signature_that_does_not_verify_ends_it(tmp_path, owner):
    """The signature is checked against another authority."""
    other = certificate(tmp_path, "other", "codeSigning")
    both = tmp_path / "both.pem"
    both.write_bytes(owner.read_bytes() + owner.with_suffix(".key").read_bytes())
    with pytest.raises(SystemExit, match="does not verify with"):
        signed(Choice(certificate=both, trusted=other), tmp_path)
