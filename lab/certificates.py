"""The lab's own certificate authority, which its machines trust, and server certificates good and bad."""
from __future__ import annotations

import datetime
import fcntl
import hashlib
import pathlib
import struct

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.x509.oid import ExtendedKeyUsageOID, NameOID

from lab import paths

HOST = "download.tavik.example"
# name -> (host, days valid, signed by)
SERVERS = {"good": (HOST, 3650, "ca"), "wrong-host": ("other.example", 3650, "ca"), "expired": (HOST, -1, "ca"),
           "unknown": (HOST, 3650, "stranger"), "self-signed": (HOST, 3650, None)}
SIGNS = {name: name in ("key_cert_sign", "crl_sign") for name in
         ("digital_signature", "content_commitment", "key_encipherment", "data_encipherment", "key_agreement", "key_cert_sign", "crl_sign",
          "encipher_only", "decipher_only")}


class Identity:
    """A name with its key and certificate, signed by another one or by itself."""

    def __init__(self, name: str, days: int, signer: Identity | None, *extensions: tuple[x509.ExtensionType, bool]):
        self.name = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, name)])
        self.key = ec.generate_private_key(ec.SECP256R1())
        signer = signer or self
        now = datetime.datetime.now(datetime.timezone.utc)
        end = now + datetime.timedelta(days)
        builder = x509.CertificateBuilder(signer.name, self.name, self.key.public_key(), x509.random_serial_number(),
                                          min(end, now) - datetime.timedelta(1), end)
        for extension, critical in extensions:
            builder = builder.add_extension(extension, critical)
        self.certificate = builder.sign(signer.key, hashes.SHA256())

    def write(self, file: pathlib.Path, *chain: Identity) -> None:
        pem = serialization.Encoding.PEM
        file.with_suffix(".key").write_bytes(self.key.private_bytes(pem, serialization.PrivateFormat.PKCS8, serialization.NoEncryption()))
        file.with_suffix(".pem").write_bytes(b"".join(one.certificate.public_bytes(pem) for one in (self, *chain)))


def _make(folder: pathlib.Path) -> None:
    authorities = {name: Identity(title, 3650, None, (x509.BasicConstraints(True, None), True), (x509.KeyUsage(**SIGNS), True))
                   for name, title in (("ca", "Tavik Lab"), ("stranger", "Tavik Stranger"))}
    (folder / "ca.der").write_bytes(authorities["ca"].certificate.public_bytes(serialization.Encoding.DER))
    for name, (host, days, authority) in SERVERS.items():
        server = Identity(host, days, authorities.get(authority), (x509.SubjectAlternativeName([x509.DNSName(host)]), False),
                          (x509.ExtendedKeyUsage([ExtendedKeyUsageOID.SERVER_AUTH]), False), (x509.BasicConstraints(False, None), False))
        server.write(folder / name, *([authorities[authority]] if authority else []))  # a server sends the chain
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
