"""Finds everything that can be found without running the program: layout, includes, warnings of two compilers, analysers.

    scripts/check            all checks
    scripts/check NAME...    only these
    scripts/check --list     their names

The output of each check is in build/check/NAME.log; of a check that fails its end is shown.
"""
from __future__ import annotations

import os
import sys
import threading
import time

from tools.project import PYTHON, TOP, fail, files, followed, say

LOGS = TOP / "build" / "check"
SHELL = ("bash", "-c")


def module(*arguments: str) -> list[str]:
    return [PYTHON, "-m", *arguments]


def shell_scripts() -> list[str]:
    marks = (b"#!/usr/bin/env bash", b"#!/bin/sh", b"#!/bin/bash", b"# shellcheck shell=")
    return [str(file.relative_to(TOP)) for file in files() if file.read_bytes()[:64].startswith(marks)]


def cmake_build(preset: str, more: str = "") -> str:
    return f"cmake --preset {preset} && cmake --build --preset {preset} {more}"


# What each check runs. Those that take longest come last.
ALL = {
    "layout": ["scripts/format", "--check"],
    "includes": module("tools.includes"),
    "paths": module("tools.texts", "paths"),
    "links": module("tools.texts", "links"),
    "words": module("tools.texts", "words"),
    "log": module("tools.texts", "log"),
    "proof": module("tools.proof"),
    "docs": module("tools.outcome_pages", "--check"),
    "facts": [*SHELL, f"mkdir -p build/docs && {PYTHON} -m tools.windows_facts page && {PYTHON} -m tools.windows_facts check"],
    "deploy": module("tools.deployment_check"),
    "shell": lambda: ["shellcheck", "--external-sources", "--source-path=SCRIPTDIR", *shell_scripts()],
    "gcc": [*SHELL, cmake_build("release")],
    # The files themselves, as customers get them.
    "exe": [*SHELL, cmake_build("release", "--target TavikCompatibilityTool --target TavikToolCompanion") + f" && {PYTHON} -m tools.exe_gate"],
    "tidy": module("tools.tidy"),  # the warnings of Clang too
    "reproducible": module("tools.reproducible"),
    "cppcheck": [*SHELL, "mkdir -p build/check/cppcheck && cppcheck --platform=win64 --std=c++20 --library=windows "
                 "--enable=warning,performance,portability -D__cppcheck__ -D__MINGW32__ -DUNICODE -D_WIN32_WINNT=0x0A00 "
                 "-DTAVIK_DOWNLOAD_HOST='\"\"' -DTAVIK_WEB_SITE='\"\"' "  # macros between two texts
                 "-I src -I tests -I . -I lab/standins --inline-suppr --suppressions-list=tools/cppcheck.txt "
                 "--cppcheck-build-dir=build/check/cppcheck --error-exitcode=1 --quiet -j 2 -i companion/tests "
                 "src companion tests/support windows_check lab bench"],
}


def run(names: list[str]) -> list[str]:
    """Runs checks one after the other, a line for each; returns the names of those that failed."""
    bad = []
    for number, name in enumerate(names, 1):
        command = ALL[name]
        log = LOGS / f"{name}.log"
        start = time.monotonic()
        code = followed(command() if callable(command) else command, log, limit=1800)
        lines = [line for line in log.read_text("utf-8", errors="replace").splitlines() if line.strip()]
        shown = f"check {number} of {len(names)}, {name:<12} {'FAILED' if code else 'passed'} {time.monotonic() - start:4.0f} s"
        if code:
            bad.append(name)
            say("\n".join([f"{shown}  the end of {log.relative_to(TOP)}:", *(f"    {line}" for line in lines[-40:])]))
        else:
            say(f"{shown}  {lines[-1][:90] if lines else ''}".rstrip())
    return bad


class Background:
    """Checks that run beside something else, only while a core is free."""

    def __init__(self, names: list[str]):
        self.names, self.failed = names, list[str]()
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _run(self) -> None:
        os.sched_setscheduler(0, os.SCHED_IDLE, os.sched_param(0))  # of this thread, and so of what it starts
        self.failed += run(self.names)

    def wait(self) -> list[str]:
        self.thread.join()
        return self.failed


def main(arguments: list[str]) -> int:
    if arguments == ["--list"]:
        print("\n".join(ALL))
        return 0
    if any(argument.startswith("-") for argument in arguments):
        print(__doc__)
        return 0 if arguments in (["--help"], ["-h"]) else 2
    unknown = [name for name in arguments if name not in ALL]
    if unknown:
        fail(f"There is no check {unknown[0]}. Use one of: {', '.join(ALL)}.")
    start = time.monotonic()
    names = arguments or list(ALL)
    bad = run(names)
    if bad:
        fail(f"{len(bad)} of {len(names)} checks failed: {', '.join(bad)}. The logs are in {LOGS.relative_to(TOP)}/.")
    say(f"All {len(names)} checks passed in {time.monotonic() - start:.0f} s.")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
