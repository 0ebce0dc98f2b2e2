"""What the tests of TavikToolCompanion.exe share: a machine to run it on, and logs."""
from __future__ import annotations

import contextlib
import fcntl
import json
import os
import pty
import re
import select
import struct
import subprocess
import termios
import time
from typing import Any

from lab import paths
from lab.prefix import NOT_INSTALLED, Prefix

COMPANION = r"C:\lab\TavikToolCompanion.exe"
NAME = "InstallVLTForWUDriver_2026-11-6_4_7_31_15.log"
LATER = "InstallVLTForWUDriver_2026-11-16_4_7_31_15.log"
LAST = "InstallVLTForWUDriver_2026-11-17_4_7_31_15.log"
LAUNCHED = r'Launched with command line: "C:\Users\The Owner\TavikCompatibilityTool.exe" -SILENT'
CHECK = "Currently installed VLT is version [23.40] from driver version [23.40.11.01]"
BUSY = [LAUNCHED, CHECK, r"Installing C:\Users\The Owner\AppData\Local\Temp\dwx-next64.msi", "\tResult = 1618"]
SAME = [LAUNCHED, CHECK, "Currently installed version of VLT is from the same release as the active driver. Exiting."]


def utf16(lines: list[str]) -> bytes:
    return "".join(line + "\n" for line in lines).encode("utf-16-le", "surrogatepass")


class Desk:
    """One machine without the tool, for all commands that only read."""

    def __init__(self, prefix: Prefix) -> None:
        self.prefix = prefix
        self.folder = prefix.path.parent

    def put(self, path: str, data: bytes) -> str:
        file = self.prefix.windows_path(path)
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_bytes(data)
        return path

    def run(self, *arguments: str) -> tuple[int, str, str]:
        """Exit code (its low 8 bits), standard output and standard error."""
        out, errors = self.folder / "out.txt", self.folder / "errors.txt"
        with open(out, "wb") as to, open(errors, "wb") as beside:
            code = subprocess.run([paths.WINE, COMPANION, *arguments], env=self.prefix.environment(), stdin=subprocess.DEVNULL,
                                  stdout=to, stderr=beside, timeout=60, check=False).returncode
        return code, out.read_bytes().decode("utf-8"), errors.read_bytes().decode("utf-8")

    def in_console(self, *command: str) -> tuple[int, str, bool]:
        """Runs a command in a console of its own: exit code, what is shown, and whether it waited for a key."""
        ours, theirs = pty.openpty()
        fcntl.ioctl(theirs, termios.TIOCSWINSZ, struct.pack("HHHH", 60, 200, 0, 0))
        shown, pressed, limit = b"", False, time.monotonic() + 60
        variables = {**self.prefix.environment(), "WINEDLLOVERRIDES": NOT_INSTALLED}  # here a console is shown
        with subprocess.Popen([paths.WINE, *command], env=variables, stdin=theirs, stdout=theirs, stderr=theirs, start_new_session=True) as process:
            os.close(theirs)
            while time.monotonic() < limit:
                ended = process.poll() is not None
                if select.select([ours], [], [], 0.1)[0]:
                    try:
                        shown += os.read(ours, 65536)
                    except OSError:  # the last program of the console has ended
                        break
                elif ended:
                    break
                if b"Press a key" in shown and not pressed:
                    time.sleep(0.5)
                    pressed = process.poll() is None
                    os.write(ours, b"x")
            with contextlib.suppress(subprocess.TimeoutExpired):
                process.wait(max(0.0, limit - time.monotonic()))
            process.kill()
        os.close(ours)
        text = re.sub(r"\x1b\[[?0-9;]*[A-Za-z]", "", shown.decode("utf-8", "replace")).replace("\r", "")
        return process.returncode, text, pressed

    def explain(self, *arguments: str) -> list[dict[str, Any]]:
        _, text, _ = self.run("explain", "--json", *arguments)
        return [json.loads(line) for line in text.splitlines()]
