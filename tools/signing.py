"""Signs programs (Authenticode) and the list of checksums (CMS), with a key in a file, with one in a token, or with one made for trials."""
from __future__ import annotations

import subprocess
from dataclasses import dataclass
from pathlib import Path

from cryptography import x509
from cryptography.x509.oid import NameOID

from tools.project import fail

SYSTEM_CAS = Path("/etc/ssl/certs/ca-certificates.crt")
ENGINE = Path("/usr/lib/x86_64-linux-gnu/engines-3/pkcs11.so")  # of libengine-pkcs11-openssl


@dataclass(frozen=True)
class Choice:
    """How to sign. Without a certificate one is made for trials, which no other machine trusts."""
    certificate: Path | None = None    # certificate and chain, and the key if there is no token: PEM or PKCS #12
    password_file: Path | None = None  # password of the key, or PIN of the token
    token: str | None = None           # the key's name, "pkcs11:..." (RFC 7512)
    module: Path | None = None         # the token's library
    time_stamps: str | None = None     # address of a server (RFC 3161)
    trusted: Path | None = None        # authorities to verify with; the system's if there are none


def run(*command: str | Path) -> str:
    """The output of a command; when it fails, the program ends with it."""
    done = subprocess.run([str(part) for part in command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    if done.returncode:
        fail(f"{done.stdout[-4000:]}\n{Path(command[0]).name} {command[1]} failed, see its output above.")
    return done.stdout


def succeeds(*command: str | Path) -> bool:
    return subprocess.run([str(part) for part in command], stdin=subprocess.DEVNULL, capture_output=True, check=False).returncode == 0


class Signer:
    """Signs, and checks each signature: that it verifies, that it does not verify with one byte changed, and that only it is new."""

    def __init__(self, choice: Choice, work: Path):
        """Work is a private folder, for keys too."""
        self.work = work
        self.is_trial = choice.certificate is None
        certificate = choice.certificate or self._trial_certificate()
        if not certificate.is_file():
            fail(f"There is no certificate {certificate}. Name a file with --certificate.")
        self.trusted = choice.trusted or (certificate if self.is_trial else SYSTEM_CAS)
        password = ["-readpass", choice.password_file] if choice.password_file else []
        openssl_password = ["-passin", f"file:{choice.password_file}"] if choice.password_file else []
        if choice.token:
            if not choice.module or not choice.module.is_file() or not ENGINE.is_file():
                fail(f"A key in a token needs --module with the token's library, and {ENGINE} (run scripts/setup).")
            self.programs = ["-pkcs11engine", ENGINE, "-pkcs11module", choice.module, "-certs", certificate, "-key", choice.token, *password]
            # The engine takes the library from the configuration, and the PIN from the key's name.
            pin = f"{'&' if '?' in choice.token else '?'}pin-source=file:{choice.password_file}" if choice.password_file else ""
            settings = work / "openssl.cnf"
            settings.write_text(f"openssl_conf = all\n[all]\nengines = engines\n[engines]\npkcs11 = pkcs11\n[pkcs11]\nengine_id = pkcs11\n"
                                f"dynamic_path = {ENGINE}\nMODULE_PATH = {choice.module}\ninit = 0\n", "utf-8")
            self.openssl = ["env", f"OPENSSL_CONF={settings}", "openssl"]
            self.lists = ["-signer", certificate, "-engine", "pkcs11", "-keyform", "engine", "-inkey", choice.token + pin]
        elif certificate.suffix.lower() in (".p12", ".pfx"):
            self.programs = ["-pkcs12", certificate, *(password or ["-pass", ""])]
            plain = work / "plain.pem"
            run("openssl", "pkcs12", "-in", certificate, "-nodes", "-out", plain, *(openssl_password or ["-passin", "pass:"]))
            self.openssl, self.lists = ["openssl"], ["-signer", plain]
        else:
            self.programs = ["-certs", certificate, "-key", certificate if not self.is_trial else work / "key.pem", *password]
            self.openssl = ["openssl"]
            self.lists = ["-signer", certificate, "-inkey", self.programs[3], *openssl_password]
        if choice.time_stamps:
            self.programs += ["-ts", choice.time_stamps]

    def _trial_certificate(self) -> Path:
        certificate = self.work / "certificate.pem"
        run("openssl", "req", "-x509", "-newkey", "rsa:3072", "-nodes", "-sha256", "-days", "30", "-subj", "/CN=Tavik test certificate",
            "-addext", "keyUsage=critical,digitalSignature", "-addext", "extendedKeyUsage=codeSigning",
            "-keyout", self.work / "key.pem", "-out", certificate)
        return certificate

    @property
    def name(self) -> str:
        """The signer's name, as Windows shows it."""
        certificate = x509.load_pem_x509_certificate(Path(self.lists[1]).read_bytes())
        return str(certificate.subject.get_attributes_for_oid(NameOID.COMMON_NAME)[0].value)

    def _verifies(self, exe: Path) -> bool:
        return succeeds("osslsigncode", "verify", "-CAfile", self.trusted, "-TSA-CAfile", self.trusted, "-in", exe)

    def sign_program(self, source: Path, target: Path, title: str) -> None:
        target.unlink(missing_ok=True)
        run("osslsigncode", "sign", *self.programs, "-h", "sha256", "-n", title, "-in", source, "-out", target)
        if not self._verifies(target):
            fail(f"The signature of {target.name} does not verify with {self.trusted}. Give the list with its authority: --ca FILE.")
        changed = bytearray(target.read_bytes())
        changed[len(source.read_bytes()) // 2] ^= 1
        damaged, bare = self.work / "damaged.exe", self.work / "bare.exe"
        damaged.write_bytes(changed)
        if self._verifies(damaged):
            fail(f"{target.name} with a changed byte verifies as well: do not trust this verification.")
        bare.unlink(missing_ok=True)
        run("osslsigncode", "remove-signature", "-in", target, "-out", bare)
        if bare.read_bytes() != source.read_bytes():
            fail(f"{target.name} without its signature differs from what was built.")

    def sign_list(self, file: Path) -> None:
        """Writes FILE.p7s beside it, a detached signature in PEM."""
        signature = file.with_name(f"{file.name}.p7s")
        run(*self.openssl, "cms", "-sign", "-binary", "-md", "sha256", "-in", file, "-outform", "PEM", "-out", signature, *self.lists)
        damaged = self.work / "damaged.txt"
        damaged.write_bytes(file.read_bytes() + b"\n")
        verify = ["openssl", "cms", "-verify", "-binary", "-inform", "PEM", "-in", signature, "-purpose", "any", "-CAfile", self.trusted, "-content"]
        if not succeeds(*verify, file) or succeeds(*verify, damaged):
            fail(f"The signature of {file.name} does not verify with {self.trusted}, or verifies for another file. Give the list with its authority: --ca FILE.")
