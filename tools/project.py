"""What the commands of scripts/ share: the project's folder, its files, messages, and how they run other programs."""
from __future__ import annotations

import contextlib
import os
import shutil
import signal
import subprocess
import sys
import time
from collections.abc import Callable
from pathlib import Path
from typing import NoReturn

TOP = Path(__file__).resolve().parent.parent
PYTHON = "/usr/bin/python3"  # the one with Debian's modules
BUILT = bool(os.environ.get("TAVIK_BUILT"))  # set by scripts/on-debian: build/release was built on another Debian and is not built again
RUNNING: set[subprocess.Popen[bytes]] = set()  # the processes that `followed` has started, in all threads


def say(text: str) -> None:
    print(text, flush=True)


def fail(text: str) -> NoReturn:
    raise SystemExit(text)


def files(*patterns: str) -> list[Path]:
    """The files that match patterns as git knows them, also files that are not added yet. A copy without git: all files."""
    if not (TOP / ".git").exists():
        found = {file for pattern in patterns or ("*",)
                 for file in (TOP.rglob(pattern) if "*" in pattern else [TOP / pattern, *(TOP / pattern).rglob("*")])}
        return sorted(file for file in found if file.is_file() and not {"__pycache__", "build"} & set(file.relative_to(TOP).parts))
    listed = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard", "--deduplicate", "--", *patterns],
                            cwd=TOP, check=True, capture_output=True, text=True).stdout
    return [TOP / name for name in listed.split("\0") if name and (TOP / name).is_file()]


def copy_sources(target: Path, *patterns: str) -> None:
    """A copy in another folder, with another time on each file: neither may get into what is built there."""
    shutil.rmtree(target, ignore_errors=True)
    for file in files(*patterns):
        copy = target / file.relative_to(TOP)
        copy.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(file, copy)
        os.utime(copy, (981158400, 981158400))


# Another language and another time zone, for the same reason.
ELSEWHERE = {"LC_ALL": "C", "TZ": "Asia/Kathmandu"}


def followed(command: list[str | Path], log: Path, show: Callable[[str], str] = lambda line: "", *, limit: float = 3600,
             variables: dict[str, str] | None = None) -> int:
    """Runs a command with its output in a file, prints what `show` makes of each line, and returns the exit code.

    A file, because services that Wine starts in the background inherit the output and would hold a pipe open.
    """
    log.parent.mkdir(parents=True, exist_ok=True)
    with open(log, "wb") as output:
        process = subprocess.Popen(list(map(str, command)), cwd=TOP, env={**os.environ, **(variables or {})}, stdin=subprocess.DEVNULL,
                                   stdout=output, stderr=output, start_new_session=True)
    if os.sched_getscheduler(0) == os.SCHED_IDLE:  # the child inherits this, but the kernel may schedule each session by itself
        with contextlib.suppress(OSError):
            Path(f"/proc/{process.pid}/autogroup").write_text("19", "ascii")
    RUNNING.add(process)
    deadline = time.monotonic() + limit
    rest = ""
    try:
        with open(log, encoding="utf-8", errors="replace") as lines:
            code = None
            while code is None:
                code = process.poll()
                *whole, rest = (rest + lines.read()).split("\n")
                for line in filter(None, map(show, whole)):
                    say(line)
                if code is None and time.monotonic() > deadline:
                    say(f"{Path(command[0]).name} was stopped after {limit:.0f} s; its output is in {log.relative_to(TOP)}.")
                    return 124
                time.sleep(0 if code is not None else 0.2)
            return code
    finally:
        RUNNING.discard(process)
        end(process)


def end(process: subprocess.Popen[bytes]) -> None:
    """Ends a process and what it has started in its session."""
    for number in (signal.SIGINT, signal.SIGKILL):
        if process.poll() is None:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, number)
            with contextlib.suppress(subprocess.TimeoutExpired):
                process.wait(20)


def build(preset: str = "release", *targets: str) -> None:
    """Configures and builds. Ends the program when that fails, with the first error and the name of the log."""
    if BUILT:
        say("  nothing is built: these are the programs of another Debian")
        return
    log = TOP / "build" / f"build-{preset}.log"
    terminal = sys.stdout.isatty() and os.environ.get("TERM") != "dumb" and "NO_COLOR" not in os.environ

    def progress(line: str) -> str:
        """On a terminal the current step, in one line; otherwise every hundredth step."""
        if terminal:
            print(f"\r  {line[:100]}\033[K", end="", flush=True)
        return f"  {line[:100]}" if not terminal and line.startswith("[") and line.partition("/")[0].endswith("00") else ""
    steps = [["cmake", "--preset", preset], ["cmake", "--build", "--preset", preset, *(f"--target={name}" for name in targets)]]
    for step, log_of_step in zip(steps, (log.with_name(f"configure-{preset}.log"), log)):
        code = followed(step, log_of_step, progress)
        if terminal:
            print("\r\033[K", end="", flush=True)
        if code:
            lines = [line for line in log_of_step.read_text("utf-8", errors="replace").splitlines() if len(line) < 400]  # no compiler calls
            first = next((number for number, line in enumerate(lines) if "error" in line.lower() or line.startswith("FAILED")), -40)
            fail("\n".join([*lines[first:][:40], f"The build of preset \"{preset}\" failed; the whole log is {log_of_step.relative_to(TOP)}. "
                            f"Fix the first error above. After a change of the compiler or the packages remove build/{preset} first."]))


def main(arguments: list[str]) -> int:
    """scripts/build."""
    if any(argument.startswith("-") for argument in arguments):
        print("Builds the three programs, their tests and the lab.\n\n"
              "    scripts/build [PRESET [TARGET...]]    \"release\" and all targets unless told otherwise;\n"
              "                                          CMakePresets.json lists the presets")
        return 0 if arguments in (["--help"], ["-h"]) else 2
    preset = arguments[0] if arguments else "release"
    build(preset, *arguments[1:])
    exe = TOP / "build" / preset / "TavikCompatibilityTool.exe"
    say(f"Built {exe.relative_to(TOP)}, {exe.stat().st_size} bytes." if exe.is_file() else f"Built the targets in build/{preset}.")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
