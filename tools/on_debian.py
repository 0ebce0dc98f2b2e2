"""Runs a command of this checkout on a Debian of another version. Needs root and, the first time, the network.

    scripts/on-debian 13 scripts/test            12 or 13; any command and its arguments
    scripts/on-debian 13 --built scripts/test --quick    with what was built here, in build/release, in place of a build of its own
    scripts/on-debian 13 bash                    to look around

The first time a small Debian is made in build/debian-13/root, with what it needs to run tests (4 minutes, 1.5 GB). What builds there installs
the other packages first (10 minutes, 4 GB in all). The command sees the checkout at the same place as here, and build/debian-13/build in
the place of build/. Everything else is apart, but for network and processes. TAVIK_WINDOWS is passed on. To begin anew, remove
build/debian-13.
"""
from __future__ import annotations

import fcntl
import os
import shutil
import subprocess
import sys
from pathlib import Path

from tools.project import TOP, fail, say

NAMES = {"12": "bookworm", "13": "trixie"}
KEYS = "/usr/share/keyrings/debian-archive-keyring.gpg"  # of all versions
# $1: the root; $2: the checkout; $3: its build folder there; the rest up to "--": folders that are needed too; then the command.
# The root must be a mount of its own, or nothing in it could have private mounts.
ENTER = """
set -e; root=$1; top=$2; build=$3; shift 3
mount --bind "$root" "$root"
for folder in /proc /sys /dev; do mount --rbind "$folder" "$root$folder"; done
while folder=$1; shift; [ "$folder" != -- ]; do mkdir -p "$root$folder"; mount --bind "$folder" "$root$folder"; done
[ -z "$TAVIK_BUILT" ] || { mkdir -p "$build/release"; mount --bind "$top/build/release" "$build/release"; }
mount --rbind "$build" "$root$top/build"
cp -L /etc/resolv.conf /etc/hosts "$root/etc/"
exec chroot "$root" sh -c 'cd "$0" && exec "$@"' "$top" "$@"
"""


def sources(own: str, other: str, listed: str) -> list[str]:
    """The lines of this machine's package sources for another version. `listed`: address, suite and component of each of its sources."""
    found = []
    for address, suite, component in sorted({tuple(line.split()) for line in listed.splitlines() if len(line.split()) == 3}):
        if suite.partition("-")[0] == own and suite[len(own):] in ("", "-updates", "-security"):
            found.append(f"deb [signed-by={KEYS}] {address} {other}{suite[len(own):]} {component}")
    return found


def machine_sources(version: str) -> list[str]:
    own = [line.partition("=")[2].strip() for line in Path("/etc/os-release").read_text("utf-8").splitlines() if line.startswith("VERSION_CODENAME=")]
    listed = subprocess.run(["apt-get", "indextargets", "--format", "$(REPO_URI) $(RELEASE) $(COMPONENT)", "Identifier: Packages"],
                            capture_output=True, text=True, check=False).stdout
    found = sources(own[0] if own else "", NAMES[version], listed)
    if not found:
        fail("on-debian: this machine has no package sources of a Debian 12 or 13 (apt-get indextargets lists none). Add them to /etc/apt.")
    return found


def other() -> str:
    """The version that this machine does not have."""
    return "12" if 'VERSION_ID="13"' in Path("/etc/os-release").read_text("utf-8") else "13"


def obstacle() -> str:
    """Why no root can be entered here; empty when one can."""
    if os.geteuid() != 0:
        return "it mounts folders and changes the root folder: run it as root, or with sudo"
    tried = subprocess.run(["unshare", "--mount", "mount", "-t", "tmpfs", "tmpfs", "/tmp"], capture_output=True, text=True, check=False)
    return f"folders cannot be mounted here: {tried.stderr.strip()}" if tried.returncode else ""


def shared_folders() -> list[str]:
    """The checkout, and the folder with its history, which lies elsewhere for a second work tree."""
    told = subprocess.run(["git", "rev-parse", "--path-format=absolute", "--git-common-dir"], cwd=TOP, capture_output=True, text=True, check=False)
    folders = [Path(told.stdout.strip())] if told.returncode == 0 else []
    return [str(TOP), *(str(folder) for folder in folders if not folder.is_relative_to(TOP))]


def listed_tests() -> list[Path]:
    """ctest's lists of the tests that need processes of their own; none when a program is newer than its list."""
    folder = TOP / "build" / "release" / "tests"
    lists = sorted(folder.glob("*_tests.cmake"))
    newest = max((file.stat().st_mtime for file in folder.glob("*.exe")), default=0)
    return lists if all(file.stat().st_mtime >= newest for file in lists) else []


def enter(root: Path, build: Path, command: list[str], built: bool = False) -> list[str]:
    """The command line that runs a command in the root. The caller's variables are left out: their paths mean nothing there."""
    kept = [f"{name}={os.environ[name]}" for name in ("TERM", "CI", "http_proxy", "https_proxy", "TAVIK_WINDOWS") if name in os.environ]
    kept.append(f"TAVIK_BUILT={'1' * built}")
    clean = ["env", "-i", "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "HOME=/root", "LANG=C.UTF-8", *kept]
    return [*clean, "unshare", "--mount", "sh", "-c", ENTER, "sh", str(root), str(TOP), str(build), *shared_folders(), "--", *command]


def step(log: Path, command: list[str], what: str) -> None:
    with open(log, "ab") as output:
        code = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=output, stderr=output, check=False).returncode
    if code:
        end = "\n".join(f"    {line}" for line in log.read_text("utf-8", "replace").splitlines()[-12:])
        fail(f"{end}\non-debian: {what} failed with exit code {code}; the end of {log.relative_to(TOP)} is above. It needs the network.")


def make(version: str, folder: Path) -> Path:
    """The root of that version, made if it is not there yet. It gets its name when it is complete."""
    root, build, log = folder / "root", folder / "build", folder / "make.log"
    build.mkdir(parents=True, exist_ok=True)
    with open(folder / "lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not root.is_dir():
            part = folder / "root.part"
            shutil.rmtree(part, ignore_errors=True)
            say(f"on-debian: making a Debian {version} in {folder.relative_to(TOP)} (about 4 minutes; the log is make.log there)")
            log.unlink(missing_ok=True)
            lines = folder / "sources.list"
            lines.write_text("".join(f"{line}\n" for line in machine_sources(version)), "ascii")
            step(log, ["mmdebstrap", "--variant=minbase", "--include=ca-certificates", "--dpkgopt=force-unsafe-io", NAMES[version], str(part), str(lines)],
                 "mmdebstrap")
            step(log, enter(part, build, ["sh", "-c", "scripts/setup --run && apt-get clean"]), "scripts/setup")
            part.rename(root)
    return root


def main(arguments: list[str]) -> int:
    if len(arguments) < 2 or arguments[0] not in NAMES:
        print(__doc__)
        return 0 if arguments[:1] in (["--help"], ["-h"]) else 2
    if obstacle():
        fail(f"on-debian: {obstacle()}.")
    version, *command = arguments
    built = command[0] == "--built"
    if built:
        lists = listed_tests()
        if len(command) == 1 or not lists:
            fail("on-debian: --built needs a command, and programs whose in-process tests ran here: run scripts/test in-process first.")
        for file in lists:
            file.touch()  # or ctest lists the tests anew when CMake was called since, with modules that are not there
    folder = TOP / "build" / f"debian-{version}"
    root = make(version, folder)
    sys.stdout.flush()
    entering = enter(root, folder / "build", command[built:], built)
    os.execvp(entering[0], entering)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
