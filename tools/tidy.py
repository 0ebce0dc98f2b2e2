#!/usr/bin/python3
"""Runs clang-tidy over the sources of the three programs, two files at a time.

    python3 -m tools.tidy            all files of the three programs
    python3 -m tools.tidy FILE...    only these

A file that passed is checked again only after it, one of our headers that it includes, its compiler call or the rules
have changed. Reads the compiler calls of the Clang build, so build that first: scripts/check clang.
"""
import hashlib
import json
import os
import shlex
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

TOP = Path(__file__).resolve().parent.parent
BUILD = TOP / "build" / "clang"
PASSED = TOP / "build" / "tidy"
RULES = TOP / ".clang-tidy"
PROGRAMS = [TOP / name for name in ("src", "companion", "windows_check")]
NOT_IN_THE_CLANG_BUILD = [TOP / "companion" / name for name in ("tests", "fuzz")]


def fail(text: str) -> None:
    sys.exit(f"tidy: {text}")


def is_ours(file: Path) -> bool:
    return any(file.is_relative_to(folder) for folder in PROGRAMS)


def compiler_calls() -> dict[Path, dict[str, str]]:
    listing = BUILD / "compile_commands.json"
    if not listing.is_file():
        fail(f"{listing.relative_to(TOP)} is missing. Run scripts/check clang, which makes it.")
    calls = {Path(call["file"]).resolve(): call for call in json.loads(listing.read_text())}
    return {file: call for file, call in calls.items() if is_ours(file) and file.suffix == ".cpp"}


def headers_by_object() -> dict[str, list[Path]]:
    """Our headers that each object was compiled from, as the build recorded them."""
    listing = subprocess.run(["ninja", "-C", BUILD, "-t", "deps"], check=True, capture_output=True, text=True).stdout
    headers: dict[str, list[Path]] = {}
    current = None
    for line in listing.splitlines():
        if line and not line[0].isspace():
            current = headers.setdefault(line.split(": #deps")[0], [])
        elif line.strip() and current is not None:
            path = (BUILD / line.strip()).resolve()
            if is_ours(path):
                current.append(path)
    return headers


def fingerprint(file: Path, call: dict[str, str], headers: list[Path], tool: str) -> str:
    digest = hashlib.sha256()
    for text in (tool, call["command"]):
        digest.update(text.encode() + b"\0")
    for path in (RULES, file, *sorted(set(headers))):
        digest.update(str(path).encode() + b"\0" + path.read_bytes() + b"\0")
    return digest.hexdigest()


def check(file: Path) -> tuple[bool, str]:
    result = subprocess.run(["clang-tidy", "-p", BUILD, "--quiet", file], capture_output=True, text=True, check=False)
    # On standard error it only counts the warnings of system headers, unless it could not work at all.
    return result.returncode == 0, result.stdout if result.stdout.strip() else result.stderr


def main(arguments: list[str]) -> int:
    if arguments and arguments[0].startswith("-"):
        print(__doc__)
        return 0 if arguments[0] in ("-h", "--help") else 2
    try:
        tool = subprocess.run(["clang-tidy", "--version"], check=True, capture_output=True, text=True).stdout
    except FileNotFoundError:
        fail("clang-tidy is missing; scripts/setup installs it.")
    calls = compiler_calls()
    if arguments:
        wanted = [Path(name).resolve() for name in arguments]
        unknown = [str(file) for file in wanted if file not in calls]
        if unknown:
            fail(f"not part of the Clang build: {', '.join(unknown)}")
    else:
        wanted = sorted(calls)
        in_tree = {file for folder in PROGRAMS for file in folder.rglob("*.cpp")
                   if not any(file.is_relative_to(other) for other in NOT_IN_THE_CLANG_BUILD)}
        if in_tree - set(wanted):
            fail("not part of the Clang build: "
                 f"{', '.join(str(file.relative_to(TOP)) for file in sorted(in_tree - set(wanted)))}")
    if not wanted:
        fail("there are no files to check.")

    PASSED.mkdir(parents=True, exist_ok=True)
    headers = headers_by_object()
    due: dict[Path, str] = {}
    known: set[str] = set()
    for file in wanted:
        call = calls[file]
        command = shlex.split(call["command"])
        output = command[command.index("-o") + 1]
        if output not in headers:
            fail(f"{file.relative_to(TOP)} has not been compiled yet. Run scripts/check clang first.")
        mark = fingerprint(file, call, headers[output], tool)
        known.add(mark)
        if not (PASSED / mark).exists():
            due[file] = mark
    if not arguments:
        for old in PASSED.iterdir():
            if old.name not in known:
                old.unlink()
    print(f"tidy: {len(wanted)} files, {len(due)} of them changed since they passed.", flush=True)

    bad = 0
    start = time.monotonic()
    with ThreadPoolExecutor(max_workers=os.cpu_count() or 2) as pool:
        for number, (file, (passed, text)) in enumerate(zip(due, pool.map(check, due)), 1):
            if passed:
                (PASSED / due[file]).touch()
            else:
                bad += 1
                print(text.rstrip())
            print(f"tidy: {number} of {len(due)}, {file.relative_to(TOP)}{'' if passed else ': see above'}", flush=True)
    print(f"tidy: {bad} of {len(wanted)} files have findings ({time.monotonic() - start:.0f} s).")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
