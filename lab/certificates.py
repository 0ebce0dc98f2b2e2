"""The lab's own certificate authority, which its machines trust, and server certificates good and bad."""
from __future__ import annotations

import fcntl
import hashlib
import pathlib
import struct

from lab import paths
from lab.children import command

HOST = "download.tavik.example"
# name -> (host, days valid, signed by)
SERVERS = {"good": (HOST, 3650, "ca"), "wrong-host": ("other.example", 3650, "ca"), "expired": (HOST, 1, "ca"),
           "unknown": (HOST, 3650, "stranger"), "self-signed": (HOST, 3650, None)}
NEW_KEY = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes")


def _make(folder: pathlib.Path) -> None:
    for authority, name in (("ca", "Tavik Lab"), ("stranger", "Tavik Stranger")):
        command("openssl", "req", "-x509", *NEW_KEY, "-keyout", f"{authority}.key", "-out", f"{authority}.pem", "-days", "3650",
                 "-subj", f"/CN={name}", "-addext", "basicConstraints=critical,CA:TRUE",
                 "-addext", "keyUsage=critical,keyCertSign,cRLSign", cwd=folder)
    command("openssl", "x509", "-in", "ca.pem", "-outform", "DER", "-out", "ca.der", cwd=folder)
    for name, (host, days, authority) in SERVERS.items():
        extensions = f"subjectAltName=DNS:{host}\nextendedKeyUsage=serverAuth\nbasicConstraints=CA:FALSE\n"
        (folder / f"{name}.ext").write_text(extensions, "ascii")
        command("openssl", "req", *NEW_KEY, "-keyout", f"{name}.key", "-out", f"{name}.csr", "-subj", f"/CN={host}", cwd=folder)
        signer = ["-signkey", f"{name}.key"]
        if authority:
            signer = ["-CA", f"{authority}.pem", "-CAkey", f"{authority}.key", "-CAcreateserial"]
        validity = ["-days", str(days)]
        if name == "expired":  # x509 takes no start date, but a negative number of days
            validity = ["-days", "-1"]
        command("openssl", "x509", "-req", "-in", f"{name}.csr", *signer, *validity, "-extfile", f"{name}.ext",
                 "-out", f"{name}.pem", cwd=folder)
        if authority:
            with open(folder / f"{name}.pem", "ab") as file:  # a server sends the chain
                file.write((folder / f"{authority}.pem").read_bytes())
    (folder / "done").write_text("", "ascii")


def folder() -> pathlib.Path:
    """Made once, kept with the build."""
    made = paths.CERTIFICATES
    if not (made / "done").exists():
        made.mkdir(parents=True, exist_ok=True)
        with open(made / "lock", "w", encoding="ascii") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            if not (made / "done").exists():
                _make(made)
    return made


def fingerprint() -> str:
    return hashlib.sha1((folder() / "ca.der").read_bytes()).hexdigest().upper()


def registry_value() -> tuple[str, str, dict[str, str]]:
    """Key below HKEY_CURRENT_USER, value name and value that make a machine trust the authority."""
    der = (folder() / "ca.der").read_bytes()
    blob = struct.pack("<III", 3, 1, 20) + hashlib.sha1(der).digest() + struct.pack("<III", 32, 1, len(der)) + der
    return (rf"Software\Microsoft\SystemCertificates\Root\Certificates\{fingerprint()}", "Blob",
            {"type": "REG_BINARY", "hex": blob.hex()})
