"""What a run may only have as root: disks of its own, a hosts file of its own, port 443."""
from __future__ import annotations

import functools
import os
import pathlib
import subprocess

from lab.children import end_with_parent


def _unshared(*command: str) -> str:
    """Why the command fails in a mount namespace of its own; empty if it works."""
    tried = subprocess.run(["unshare", "--mount", *command], capture_output=True, text=True)
    return tried.stderr.strip() if tried.returncode else ""


@functools.cache
def private_hosts_obstacle() -> str:
    """Why no run here can have a hosts file of its own and port 443; empty when it can. Root in a container may not."""
    if os.geteuid() != 0:
        return "the maker's own server address needs port 443 and a private hosts file: run as root"
    reason = _unshared("mount", "--bind", "/etc/hosts", "/etc/hosts")
    return f"the maker's own server address needs a private hosts file, which cannot be mounted here: {reason}" if reason else ""


@functools.cache
def mounting_obstacle() -> str:
    """Why no run here can have disks of its own; empty when it can."""
    reason = _unshared("mount", "-t", "tmpfs", "tmpfs", "/tmp")
    return f"a machine with its own disks needs tmpfs, which cannot be mounted here: {reason}" if reason else ""


def name_hosts(file: pathlib.Path, addresses: dict[str, str]) -> tuple[str, ...]:
    """Returns the command line through which a program finds these names at these addresses; no other program does."""
    if private_hosts_obstacle():
        raise PermissionError(private_hosts_obstacle())
    file.write_text("127.0.0.1 localhost\n" + "".join(f"{address} {name}\n" for name, address in addresses.items()), "ascii")
    return "unshare", "--mount", "sh", "-c", 'mount --bind "$0" /etc/hosts && exec "$@"', str(file)


def limit_files(size: int) -> tuple[str, ...]:
    """Returns a command line that keeps the program started through it from writing files longer than this many bytes."""
    script = 'trap "" XFSZ && exec prlimit "--fsize=$0" "$@"'  # ignore SIGXFSZ, which would end the program
    return "sh", "-c", script, str(size)


class Disks:
    """File systems of a given size that only one run sees. A process that does nothing else keeps them mounted."""

    SCRIPT = 'while [ $# -gt 0 ]; do mount -t tmpfs -o "size=$1" tmpfs "$2" || exit 1; shift 2; done; echo mounted; exec cat'

    def __init__(self, folders: dict[pathlib.Path, int]):
        arguments = [text for folder, size in folders.items() for text in (str(size), str(folder))]
        self.keeper = subprocess.Popen(["unshare", "--mount", "sh", "-c", self.SCRIPT, "sh", *arguments], stdin=subprocess.PIPE,
                                       stdout=subprocess.PIPE, stderr=subprocess.PIPE, preexec_fn=end_with_parent)
        if self.keeper.stdout.readline() != b"mounted\n":
            self.keeper.kill()
            raise PermissionError(f"the machine's disks cannot be mounted: {self.keeper.communicate()[1].decode().strip()}")
        process = f"/proc/{self.keeper.pid}"  # its root, as this may be another Debian inside a machine (scripts/on-debian)
        self.launcher = ("nsenter", f"--mount={process}/ns/mnt", f"--root={process}/root", "--")

    def seen(self, folder: pathlib.Path) -> pathlib.Path:
        """The folder as it looks with the disks."""
        return pathlib.Path(f"/proc/{self.keeper.pid}/root") / folder.relative_to("/")

    def close(self) -> None:
        self.keeper.communicate(b"")
