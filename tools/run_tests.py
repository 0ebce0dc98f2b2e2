"""Installs what is missing, builds, checks and tests.

    scripts/test                    everything
    scripts/test --other-debian     everything, and then the same programs on the other Debian (scripts/on-debian) as with --quick
    scripts/test --quick            build, layout, includes, in-process tests, and one case for each file of cases
    scripts/test FILE::CASE         one case, as in test_check.py::test_second_instance_is_silent_when_told; the file's folder, or
                                    the file itself, may be left out; FILE alone runs all its cases, a folder all below it
    scripts/test Suite.Name         one in-process test; wildcards too, as in 'LogName.*'
    scripts/test in-process         all in-process tests

    scripts/check-undefined [TEST...]    in-process tests and cases, or the tests named as above, with a build in which undefined
                                    behaviour (shifts, overflows, null pointers, misaligned reads) becomes an illegal instruction

Logs and results are in build/test (build/undefined/test). The last line is "N passed, N failed", with ", N skipped" when there are
any. The exit code is 0 only when every stage ran and nothing failed.
"""
from __future__ import annotations

import contextlib
import difflib
import fnmatch
import os
import re
import shutil
import signal
import subprocess
import sys
import time
from collections.abc import Callable, Iterator
from pathlib import Path

from lab.paths import WINE
from lab.prefix import Prefix, template
from lab.run import HUNG
from tools import on_debian, results, run_checks
from tools.project import BUILT, PYTHON, RUNNING, TOP, build, end, fail, files, followed, say

CASES = ["cases", "lab/tests", "tools/tests", "companion/tests", "windows_check/tests", "bench"]
IN_PROCESS = {"unit_tests": "tests", "companion_tests": "companion/tests"}  # program: folder of its sources
PROGRAMS = ["TavikCompatibilityTool", "TavikToolCompanion", "TavikWindowsCheck", "lab/all"]  # what cases run
FEW = 8  # if more cases fail, none is run again
HUNG_AT_MOST = 0.1  # of the cases: on a busy machine Wine 10 hangs in 5 of 300 runs
NO_NETWORK = re.compile("Temporary failure resolving|Could not resolve|Could not connect|Unable to connect|Network is unreachable")


class Session:
    """One call of scripts/test: its stages in order, and the result files that must exist at the end."""

    def __init__(self, preset: str):
        self.preset = preset
        self.build = TOP / "build" / preset
        self.results = self.build / "test" if preset != "release" else TOP / "build" / "test"
        shutil.rmtree(self.results, ignore_errors=True)
        self.results.mkdir(parents=True)
        self.files: list[Path] = []
        self.failed: list[str] = []
        self.left_out: list[str] = []
        self.hung = 0

    def stage(self, name: str, run: Callable[[], bool]) -> None:
        start = time.monotonic()
        say(f"== {name}")
        good = run()
        say(f"== {name} {'done' if good else 'FAILED'} after {time.monotonic() - start:.0f} s")
        if not good:
            self.failed.append(name)

    def finish(self) -> int:
        if self.failed:
            say(f"Failed stages: {', '.join(self.failed)}. Logs and results are in {self.results.relative_to(TOP)}/ and build/check/.")
        if self.hung:
            say(f"{HUNG} in {self.hung} runs, which were repeated.")
        return 0 if results.summary(self.files, self.left_out) and not self.failed else 1

    # In-process tests

    @contextlib.contextmanager
    def warm_prefix(self) -> Iterator[Prefix]:
        """For in-process tests, on one core, where Wine's server and its client hand over quickest."""
        cores = os.sched_getaffinity(0)
        os.sched_setaffinity(0, {min(cores)})
        try:
            with Prefix.copy(template(), self.results / "prefix") as prefix:
                prefix.start()
                prefix.wine("wineboot")  # starts the background services, which the first test would otherwise wait for
                yield prefix
        finally:
            os.sched_setaffinity(0, cores)

    def in_process(self, prefix: Prefix, name: str, command: list[str | Path], show: Callable[[str], str]) -> bool:
        log = self.results / f"{name}.log"
        good = followed(command, log, show, limit=900, variables=prefix.environment()) == 0
        if not good:
            say(f"in-process tests failed; their output is in {log.relative_to(TOP)}")
        return good

    def all_in_process(self) -> bool:
        # One after the other: two programs that begin their logs in the same millisecond would take the same file. What hangs is
        # tried once more (Wine itself does now and then); what fails is not.
        done = 0

        def show(line: str) -> str:
            nonlocal done
            done += " Test " in line and "#" in line
            return line if re.search(r"\*\*\*|tests passed|^CMake Error|^No tests", line) else f"  {done} done" if done % 50 == 0 and "#" in line else ""
        shared = [self.build / "tests" / f"{program}-shared.xml" for program in IN_PROCESS]
        for file in shared:
            file.unlink(missing_ok=True)
        self.files += [self.results / name for name in ("in-process.xml", *(file.name for file in shared))]
        with self.warm_prefix() as prefix:
            good = self.in_process(prefix, "in-process", ["ctest", "--preset", self.preset, "-j", "1", "--repeat", "after-timeout:2",
                                                          "--output-junit", self.results / "in-process.xml"], show)
        for file in filter(Path.exists, shared):
            shutil.move(file, self.results)  # the other Debian has the same build folder
        return good

    def some_in_process(self, patterns: dict[str, list[str]]) -> bool:
        """patterns: by program. Each test gets a process of its own, because some need one."""
        good = True
        with self.warm_prefix() as prefix:
            for program, wanted in patterns.items():
                exe, listing = self.build / "tests" / f"{program}.exe", self.results / f"{program}.txt"
                prefix.wine(str(exe), f"--gtest_filter={':'.join(f'{one}:*/{one}:{one}/*:*/{one}/*' for one in wanted)}", "--gtest_list_tests", output=listing)
                suite = ""
                for line in listing.read_text("utf-8", "replace").splitlines():
                    name = line.partition("#")[0].rstrip()
                    if not name.startswith("  "):
                        suite = name
                        continue
                    test = suite + name.strip()
                    file = self.results / f"{re.sub(r'[^A-Za-z0-9]+', '-', test)}.xml"
                    self.files.append(file)
                    good &= self.in_process(prefix, file.stem, [WINE, exe, f"--gtest_filter={test}", f"--gtest_output=xml:Z:{file}"],
                                            lambda line: "" if re.match(r"Running main|Note: |\[[-= ]+(PASSED)?[ ]*\]|\[ RUN", line) else line)
        return good

    # Cases

    def pytest(self, name: str, workers: int, *arguments: str) -> int:
        return followed([PYTHON, "-m", "pytest", "-q", "-n", str(workers), f"--junitxml={self.results / name}.xml", *arguments],
                        self.results / f"{name}.log", lambda line: "" if re.match("bringing up nodes|-+ generated xml", line) else line,
                        limit=2400, variables={"TAVIK_BUILD": str(self.build)})

    def cases(self, *arguments: str) -> bool:
        self.files.append(self.results / "cases.xml")
        # A run of the lab waits more than it computes, so there are two for each core.
        single = all("::" in argument for argument in arguments)
        good = self.pytest("cases", 1 if single else len(os.sched_getaffinity(0)) * 2, *arguments) == 0
        # Some watch a window for fractions of a second, and a busy host disturbs them. What fails is run again with the machine to
        # itself; the summary names it in any case. If more than a few fail, the host is not the cause.
        bad = [] if good else results.failed(self.results / "cases.xml")
        if bad and len(bad) <= FEW and not single:
            say(f"Once more, alone: {' '.join(bad)}")
            good = self.pytest("cases-again", 1, *bad) == 0
        if not good:
            say(f"cases failed; their output is in {(self.results / 'cases.log').relative_to(TOP)}:\n    " + "\n    ".join(bad))
        self.hung = sum(log.read_text("utf-8", "replace").count(f"UserWarning: {HUNG}") for log in self.results.glob("cases*.log"))
        if good and self.hung > max(FEW, HUNG_AT_MOST * len(results.cases(self.results / "cases.xml"))):
            say(f"{HUNG} in too many runs. Repeat the test while the machine has nothing else to do; if it happens again, the tool may hang.")
            good = False
        return good

    def other_debian(self) -> bool:
        version = on_debian.other()
        log, there = self.results / f"debian-{version}.log", TOP / "build" / f"debian-{version}" / "build" / "test"
        enter = ["scripts/on-debian", version]
        reason = on_debian.obstacle()
        if not reason and (code := followed([*enter, "true"], log, lambda line: line if line.startswith("on-debian: making") else "", limit=1200)):
            told = log.read_text("utf-8", "replace")
            if code == 124 or not NO_NETWORK.search(told):
                say(f"Debian {version} cannot be entered; the reason is in {log.relative_to(TOP)}.")
                return False
            reason = told.strip().rpartition("\n")[2]
        if reason:
            self.left_out.append(f"the slice on Debian {version}, which cannot be entered here: {reason}")
            return True
        shutil.rmtree(there, ignore_errors=True)
        self.files += [there / name for name in ("in-process.xml", *(f"{program}-shared.xml" for program in IN_PROCESS), "cases.xml")]
        # Its summary is part of the one at the end of this run.
        return followed([*enter, "--built", "scripts/test", "--quick"], log,
                        lambda line: f"  {line}" if line.startswith(("== ", "Once more", HUNG)) else "", limit=1800) == 0


def in_process_tests() -> dict[str, list[str]]:
    """Names of the in-process tests by program, parameterised ones without their parameters."""
    return {program: [f"{suite}.{name}" for file in files(f"{folder}/*.cpp")
                      for suite, name in re.findall(r"^TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\s*\)", file.read_text("utf-8"), re.M)]
            for program, folder in IN_PROCESS.items()}


def case_names() -> dict[str, list[str]]:
    """Names of the cases by file."""
    return {str(file.relative_to(TOP)): re.findall(r"^def (test_\w+)", file.read_text("utf-8"), re.M)
            for folder in CASES for file in files(f"{folder}/*test_*.py")}


def unknown(name: str, known: list[str]) -> None:
    near = difflib.get_close_matches(name, known, 3, 0.5)
    fail(f"There is no test {name}. {'Similar: ' + ', '.join(near) if near else 'scripts/test --help says how tests are named'}.")


def chosen(names: list[str]) -> tuple[dict[str, list[str]], list[str]]:
    """What the arguments mean: patterns of in-process tests by program, and arguments for pytest."""
    patterns: dict[str, list[str]] = {}
    arguments = []
    for name in names:
        place, colons, case = name.partition("::")
        known = case_names()
        if (TOP / place).exists():
            arguments.append(name)
        elif place.endswith(".py"):
            found = [file for file in known if file.endswith(f"/{place}")]
            arguments += [file + colons + case for file in found] or unknown(name, [file.rpartition("/")[2] for file in known])
        elif place.startswith("test_"):
            found = [f"{file}::{name}" for file, cases in known.items() if re.match(r"\w+", name)[0] in cases]
            arguments += found or unknown(name, [case for cases in known.values() for case in cases])
        else:
            # Results show Prefix/Suite.Name/Parameter: the sources have only the middle, and the program numbers the parameters.
            name = re.sub(r"(\.\w+)/(?!\d+$|\*).*", r"\1/*", name)
            middle = next((part for part in name.split("/") if "." in part), name)
            found = {program: [name] for program, tests in in_process_tests().items() if fnmatch.filter(tests, middle)}
            for program in found or unknown(name, [test for tests in in_process_tests().values() for test in tests]):
                patterns.setdefault(program, []).append(name)
    return patterns, arguments


def count_checks(exe: Path) -> int:
    """Illegal instructions in a program. The compiler ends other things with one too: the ordinary exe has about 15."""
    code = subprocess.run(["x86_64-w64-mingw32-objdump", "-d", exe], capture_output=True, text=True, check=True).stdout
    return len(re.findall(r"\bud2\b", code))


def main(arguments: list[str]) -> int:
    undefined, quick, other = (option in arguments for option in ("--undefined", "--quick", "--other-debian"))
    names = [argument for argument in arguments if argument not in ("--undefined", "--quick", "--other-debian")]
    if any(name.startswith("-") for name in names) or (quick or other) and (names or undefined) or quick and other:
        print(__doc__)
        return 0 if "--help" in names or "-h" in names else 2
    start = time.monotonic()
    everything_in_process = "in-process" in names
    patterns, arguments = chosen([name for name in names if name != "in-process"])
    preset = "undefined" if undefined else "release"
    targets = [*(IN_PROCESS if everything_in_process else patterns), *(PROGRAMS if arguments else [])] if names else []
    session = Session(preset)
    session.stage("build", lambda: build(preset, *targets) is None)  # ends the program when it fails
    if undefined and (arguments or not names):
        found = count_checks(session.build / "TavikCompatibilityTool.exe")
        if found < 200:
            fail(f"The exe has {found} checks for undefined behaviour instead of hundreds. Compare the preset \"undefined\" in CMakePresets.json.")

    background = None
    if BUILT:
        pass  # the sources are checked where they were built
    elif quick:
        session.stage("checks", lambda: not run_checks.run(["layout", "includes"]))
    elif not names and not undefined:
        say("== checks run beside the tests, while a core is free")
        background = run_checks.Background([name for name in run_checks.ALL if name != "gcc"])  # the build has already done it
    if everything_in_process or not names:
        session.stage("in-process tests", session.all_in_process)
    if patterns:
        session.stage("in-process tests", lambda: session.some_in_process(patterns))
    if arguments or not names:
        session.stage("cases", lambda: session.cases(*(arguments or (["-m", "quick"] if quick else []) + CASES)))
    if background:
        session.stage("the rest of the checks", lambda: not background.wait())
        session.failed += [f"check {name}" for name in background.failed]
    if other:
        session.stage(f"Debian {on_debian.other()}", session.other_debian)
    say(f"All stages took {time.monotonic() - start:.0f} s.")
    return session.finish()


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    try:
        sys.exit(main(sys.argv[1:]))
    except KeyboardInterrupt:
        sys.exit("Stopped; what did not run has no result.")
    except RuntimeError as error:  # of the lab: a command of this host failed
        sys.exit(f"scripts/test stopped: {error}")
    finally:
        for process in list(RUNNING):
            end(process)
