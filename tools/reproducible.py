"""Builds the tool again, from a copy of the sources in another folder, and compares it with build/release bit by bit.
Anyone with the sources can check that way that the exe was built from them. scripts/release --check compares the whole release."""
from __future__ import annotations

import hashlib
import os
import re
import shutil
import subprocess
import sys

from tools.project import ELSEWHERE, TOP, copy_sources, fail, say

NAME = "TavikCompatibilityTool"
FIRST = TOP / "build" / "release"
AGAIN = TOP / "build" / "check" / "reproducible"


def main() -> int:
    shutil.rmtree(AGAIN, ignore_errors=True)
    copy = AGAIN / "a-folder-of-another-length" / "sources"
    copy_sources(copy, "CMakeLists.txt", "CMakePresets.json", "cmake", "companion", "src", "tools")
    # The addresses that build/release was configured with, should they not be the usual ones.
    cache = (FIRST / "CMakeCache.txt").read_text("utf-8")
    addresses = re.findall(r"^(TAVIK_(?:DOWNLOAD_HOST|SUPPORT_ADDRESS|WEB_SITE):STRING=.*)$", cache, re.M)
    without = [f"-DTAVIK_BUILD_{part}=OFF" for part in ("TESTS", "WINDOWS_CHECK", "LAB", "BENCH")]
    configure, build = ["cmake", "--preset", "release"], ["cmake", "--build", "--preset", "release", "--target", NAME]
    for folder, command in ((TOP, configure), (TOP, build), (copy, [*configure, *without, *(f"-D{one}" for one in addresses)]), (copy, build)):
        subprocess.run(command, cwd=folder, env={**os.environ, **(ELSEWHERE if folder == copy else {})}, check=True)
    second = copy / "build" / "release"
    data = (FIRST / f"{NAME}.exe").read_bytes()
    if data != (second / f"{NAME}.exe").read_bytes():
        parts = sorted(part.relative_to(FIRST) for folder in ("src", "delay") for part in (FIRST / folder).rglob("*")
                       if part.suffix in (".obj", ".a") or "artwork" in part.parts and part.is_file())
        for part in parts:
            if not (second / part).is_file() or (second / part).read_bytes() != (FIRST / part).read_bytes():
                say(f"    {part} differs")
        fail(f"{NAME}.exe differs when it is built in another folder: compare {FIRST.relative_to(TOP)} and {second.relative_to(TOP)}.")
    shutil.rmtree(AGAIN)
    say(f"{NAME} {hashlib.sha256(data).hexdigest()[:16]}: the same from two folders.")
    return 0


if __name__ == "__main__":
    sys.exit(main())
