"""What the tests of the deployment kit share: its places, its scripts as modules, and installers signed by a maker with certificate
authorities of its own."""
from __future__ import annotations

import pathlib
import runpy
import subprocess
import types

from lab import paths

DEPLOY = paths.ROOT / "deploy"
MIRROR = DEPLOY / "mirror"
PUBLISH = MIRROR / "publish"
SIGNER = "Tavik Systems, Inc."


def load(script: pathlib.Path) -> types.SimpleNamespace:
    """A script without an ending as a module."""
    return types.SimpleNamespace(**runpy.run_path(str(script)))


def publish(*arguments: object) -> subprocess.CompletedProcess[str]:
    return subprocess.run([str(PUBLISH), *map(str, arguments)], capture_output=True, text=True, check=False)


def _openssl(folder: pathlib.Path, *arguments: str) -> None:
    subprocess.run(["openssl", *arguments], cwd=folder, check=True, capture_output=True)


class Signers:
    """Two authorities, `ca` and `stranger`, and a signing certificate of each name below. Files end in .pem and .key."""
    NAMES = {"maker": (SIGNER, "ca", 365), "other": ("Other Maker", "ca", 365), "impostor": (SIGNER, "stranger", 365),
             "expired": (SIGNER, "ca", 0)}  # at once

    def __init__(self, folder: pathlib.Path):
        self.folder, self.ca = folder, folder / "ca.pem"
        new_key = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes")
        for authority in ("ca", "stranger"):
            _openssl(folder, "req", "-x509", *new_key, "-keyout", f"{authority}.key", "-out", f"{authority}.pem", "-days", "365",
                     "-subj", f"/CN=Root {authority}", "-addext", "basicConstraints=critical,CA:TRUE",
                     "-addext", "keyUsage=critical,keyCertSign,cRLSign")
        (folder / "signing.ext").write_text("extendedKeyUsage=codeSigning\nbasicConstraints=CA:FALSE\n", "ascii")
        for name, (person, authority, days) in self.NAMES.items():
            _openssl(folder, "req", *new_key, "-keyout", f"{name}.key", "-out", f"{name}.csr", "-subj", f"/O=Organisation/CN={person}")
            _openssl(folder, "x509", "-req", "-in", f"{name}.csr", "-CA", f"{authority}.pem", "-CAkey", f"{authority}.key",
                     "-CAcreateserial", "-days", str(days), "-extfile", "signing.ext", "-out", f"{name}.pem")

    def sign(self, program: pathlib.Path, by: str, target: pathlib.Path, along: str = "") -> pathlib.Path:
        """`along`: the certificate of that name is added to the signature, which any signer can do."""
        more = ["-ac", str(self.folder / f"{along}.pem")] if along else []
        subprocess.run(["osslsigncode", "sign", "-h", "sha256", "-certs", str(self.folder / f"{by}.pem"), *more,
                        "-key", str(self.folder / f"{by}.key"), "-in", str(program), "-out", str(target)], check=True, capture_output=True)
        return target
