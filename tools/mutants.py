"""Measures what the tests notice: changes src/ one place at a time and runs the tests on the result.

    scripts/mutants [--sample N] [--seed S] [--in-process] [--again] [FILE...]

A change (a mutant) negates a condition, swaps && and ||, < and <= and their like, drops a call or an operand of flags, sets a constant to
0, adds one to a number, or returns another value. The changed source is compiled and linked into the in-process tests; first the suites
of its own folder run, then all. What survives is linked into the tool, and the cases of its subject run (not with --in-process).

--sample takes N of all places by chance, the same ones for the same seed. FILE (below src/) takes only the places in it. Headers are not
changed, nor the two sources that tools/exe_gate.py checks in the exe (stack guard, load configuration).

The result of each mutant is a line of build/mutants/results.tsv. Mutants with a result do not run again, so a stopped run goes on where
it was; --again runs those that survived once more. tests/equal_mutants.tsv explains mutants that no test can notice. Those that do not
compile, or to the same object, do not count. The exit code is 1 when less than 95 % of the others are noticed or explained.
"""
from __future__ import annotations

import argparse
import concurrent.futures
import dataclasses
import json
import os
import queue
import random
import re
import shlex
import subprocess
import sys
from collections import Counter, defaultdict
from collections.abc import Iterator
from pathlib import Path

from lab.paths import WINE
from lab.prefix import Prefix, template
from tools.project import PYTHON, TOP, build, files, followed, say

BUILD = TOP / "build" / "release"
PLACE = TOP / "build" / "mutants"
RESULTS = PLACE / "results.tsv"
EQUAL = TOP / "tests" / "equal_mutants.tsv"
ELSEWHERE = ("stack_guard.cpp", "load_configuration.cpp")
CASES = {"acquisition": ["download", "install"], "app": ["start", "install", "inventory"], "base": ["start", "unusual"], "install": ["install"],
         "inventory": ["inventory", "unusual"], "store": ["store"], "ui": ["window", "start"]}  # folder of src: folders of cases
SWAPS = {"&&": "||", "||": "&&", "<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
UNTOUCHED = re.compile(r'//[^\n]*|/\*.*?\*/|L?"(?:\\.|[^"\\\n])*"|L?\'(?:\\.|[^\'\\\n])+\'|^\s*#[^\n]*|\bstatic_assert\([^;]*;', re.S | re.M)


@dataclasses.dataclass(frozen=True)
class Mutant:
    file: str      # below src/
    begin: int     # place of the replaced text
    end: int
    text: str      # replacement
    line: int
    key: str       # file, source line and change, separated by tabs; stays the same when other lines change

    def __str__(self) -> str:
        return f"src/{self.file}:{self.line}: {self.key.rpartition(chr(9))[2]}"


def closing(text: str, opening: int) -> int:
    """Index of the bracket that closes the one at `opening`."""
    depth = 0
    for at in range(opening, len(text)):
        depth += {"(": 1, ")": -1}.get(text[at], 0)
        if not depth:
            return at
    raise ValueError("a bracket is not closed")


def places(code: str) -> Iterator[tuple[int, int, str]]:
    """Begin, end and replacement of each change. Comments and texts are blank in the code."""
    for found in re.finditer(r"\b(?:if|while) \(", code):
        end = closing(code, found.end() - 1)
        condition = code[found.end():end]
        if not re.search(r"[^=!<>]=[^=]|;", condition):  # skip declarations
            yield found.end(), end, f"!({condition})"
    for found in re.finditer(r" (&&|\|\||<=?|>=?|==|!=) ", code):
        yield found.start(1), found.end(1), SWAPS[found[1]]
    for found in re.finditer(r"(?<=[;{})])(\s+)((?!if\b|for\b|while\b|switch\b|return\b|catch\b)[\w:.>-]+\()", code):
        end = closing(code, found.end() - 1)
        if code[end + 1:end + 2] == ";":
            yield found.start(2), end + 1, ""
    for pattern, text in ((r" \| \w+", ""), (r"\b(?!NULL\b)[A-Z][A-Z0-9]*_[A-Z0-9_]+\b", "0")):
        for found in re.finditer(pattern, code):
            yield *found.span(), text
    for found in re.finditer(r"(?<![\w.])(\d+)\b(?!\.)", code):
        yield *found.span(), str(int(found[1]) + 1)
    for found in re.finditer(r"\breturn ([^;{]+);", code):
        yield *found.span(1), {"true": "false", "false": "true"}.get(found[1], "{}")


def mutants_of(path: Path) -> list[Mutant]:
    source = path.read_text("utf-8")
    code = UNTOUCHED.sub(lambda found: re.sub(r"[^\n]", " ", found[0]), source)
    found: list[Mutant] = []
    seen: Counter[str] = Counter()
    for begin, end, text in places(code):
        before = source[begin:end]
        after = text.replace(code[begin:end], before) if text else ""
        start = source.rfind("\n", 0, begin) + 1
        file = str(path.relative_to(TOP / "src"))
        key = "\t".join(" ".join(part.split()) for part in (file, source[start:source.find("\n", begin)], f"{before} => {after or 'nothing'}"))
        seen[key] += 1
        found.append(Mutant(file, begin, end, after, source.count("\n", 0, begin) + 1, key + (f" ({seen[key]})" if seen[key] > 1 else "")))
    return found


class Linker:
    """The build's own calls with a changed object in front of the libraries: the linker then leaves out the library's own."""
    def __init__(self) -> None:
        self.compilers = {call["file"]: shlex.split(call["command"]) for call in json.loads((BUILD / "compile_commands.json").read_text("utf-8"))}
        self.originals: dict[tuple[Path, str], bytes] = {}
        self.links = {}
        for program in ("unit_tests", "TavikCompatibilityTool"):
            said = subprocess.run(["ninja", "-C", BUILD, "-t", "commands", program], capture_output=True, text=True, check=True).stdout
            command = shlex.split(next(line for line in reversed(said.splitlines()) if " -o " in line and f"{program}.exe" in line))
            compiler = next(at for at, word in enumerate(command) if "g++" in word)
            self.links[program] = command[compiler:command.index("&&", compiler)]

    def compile(self, mutant: Mutant, folder: Path) -> str:
        """Returns the verdict if there is nothing to test."""
        file = f"src/{mutant.file}"
        source = (TOP / file).read_text("utf-8")
        if (folder, file) not in self.originals:
            self.originals[folder, file] = self.object(file, source, folder)
        changed = self.object(file, source[:mutant.begin] + mutant.text + source[mutant.end:], folder)
        return "does not compile" if not changed else "does not change the program" if changed == self.originals[folder, file] else ""

    def object(self, file: str, text: str, folder: Path) -> bytes:
        """The object of a source with this text; empty if it does not compile. Leaves it in the folder too."""
        (folder / file).parent.mkdir(parents=True, exist_ok=True)
        (folder / file).write_text(text, "utf-8")
        command = [str(folder / file) if word == str(TOP / file) else word for word in self.compilers[str(TOP / file)] if word != "-Werror"]
        command[command.index("-o") + 1] = str(folder / f"{file}.obj")
        command.insert(next(at for at, word in enumerate(command) if word.startswith("-")), f"-I{folder / 'src'}")
        return (folder / f"{file}.obj").read_bytes() if self.call([*command, "-w", "-O1"]) else b""

    def link(self, program: str, mutant: Mutant, folder: Path) -> Path:
        file = f"src/{mutant.file}"
        if program == "unit_tests" and file == "src/app/main.cpp":
            file = next(one for one in self.compilers if one.endswith("unit_tests.dir/Unity/unity_app_cxx.cxx"))[len(f"{TOP}/"):]  # includes it
            self.object(file, (TOP / file).read_text("utf-8"), folder)
        command = [word for word in self.links[program] if not word.endswith(f"/{Path(file).name}.obj")]
        output = command.index("-o") + 1
        command[output] = str(folder / f"{program}.exe")
        if not self.call([*command[:output + 1], str(folder / f"{file}.obj"), *command[output + 1:]]):
            raise RuntimeError(f"{program} does not link with a changed {mutant.file}. Run the last command of ninja -t commands {program} by hand.")
        return folder / f"{program}.exe"

    @staticmethod
    def call(command: list[str]) -> bool:
        return subprocess.run(command, cwd=BUILD, capture_output=True, check=False).returncode == 0


def suites() -> tuple[dict[str, list[str]], list[str]]:
    """The suites by folder of tests/, and those that need a process for each test."""
    by_folder: dict[str, list[str]] = defaultdict(list)
    alone: list[str] = []
    for file in files("tests/*.cpp"):
        text = file.read_text("utf-8")
        for found, names in ((by_folder[file.parent.name], r"^TEST\w*\((\w+),"), (alone, r"^// Own process: .*\n(?://.*\n)*TEST\w*\((\w+),")):
            found += [f"{prefix}{suite}.*" for suite in dict.fromkeys(re.findall(names, text, re.M)) for prefix in ("", "*/")]
    return by_folder, alone


class Worker:
    """A prefix, and what runs in it one after the other."""
    def __init__(self, number: int, linker: Linker):
        self.folder = PLACE / f"worker-{number}"
        self.folder.mkdir(parents=True, exist_ok=True)
        self.linker = linker
        self.suites, self.alone = suites()
        self.fresh()

    def fresh(self) -> None:
        """Starts a fresh prefix, so that processes and changes of one mutant do not affect the next."""
        if hasattr(self, "prefix"):
            self.prefix.__exit__()
        self.prefix = Prefix.copy(template(), self.folder / "prefix").__enter__()
        self.prefix.start()
        self.prefix.wine("wineboot")

    def red(self, exe: Path, wanted: str, limit: float) -> str:
        """The first test of these that fails twice (on a busy machine, one may fail by chance), "crash" or "time"; empty when all pass."""
        while found := self.failed(exe, wanted, limit):
            if again := self.failed(exe, found if "." in found else wanted, limit):
                return again
            wanted = f"{wanted}{':' if '-' in wanted else '-'}{found if '.' in found else '*'}"
        return ""

    def failed(self, exe: Path, wanted: str, limit: float) -> str:
        log = self.folder / "tests.log"
        with open(log, "wb") as output:
            try:
                code = subprocess.run([WINE, exe, f"--gtest_filter={wanted}", "--gtest_fail_fast", "--gtest_brief=1"], cwd=self.folder,
                                      env=self.prefix.environment(), stdin=subprocess.DEVNULL, stdout=output, stderr=output, timeout=limit, check=False).returncode
            except subprocess.TimeoutExpired:
                return "time"
        said = log.read_text("utf-8", "replace")
        failed = re.search(r"\[  FAILED  \] (\S+)", said)
        return failed[1].rstrip(",") if failed else "crash" if code or "[  PASSED  ]" not in said else ""

    def in_process(self, exe: Path, folder: str) -> str:
        near = self.suites[folder]
        if found := self.red(exe, f"{':'.join(near)}-{':'.join(self.alone)}", 150):
            return found
        if mine := [one for one in near if one in self.alone]:
            listing = self.folder / "list.txt"
            self.prefix.wine(str(exe), f"--gtest_filter={':'.join(mine)}", "--gtest_list_tests", output=listing)
            for suite, tests in re.findall(r"^(\S+\.)[^\n]*\n((?:  [^\n]*\n?)+)", listing.read_text("utf-8", "replace"), re.M):
                for test in re.findall(r"^  (\S+)", tests, re.M):
                    if found := self.red(exe, suite + test, 30):
                        return found
        return self.red(exe, f"-{':'.join([*near, *self.alone])}", 500)

    def cases(self, mutant: Mutant) -> str:
        tree = self.folder / "release"
        tree.mkdir(exist_ok=True)
        for entry in BUILD.iterdir():
            if not (tree / entry.name).is_symlink() and entry.name != "TavikCompatibilityTool.exe":
                (tree / entry.name).symlink_to(entry)
        self.linker.link("TavikCompatibilityTool", mutant, self.folder).replace(tree / "TavikCompatibilityTool.exe")
        log = self.folder / "cases.log"
        code = followed([PYTHON, "-m", "pytest", "-q", "-x", "-n", "2", *(f"cases/{name}" for name in CASES[mutant.file.partition("/")[0]])], log,
                        limit=900, variables={"TAVIK_BUILD": str(tree)})
        failed = re.search(r"^FAILED (\S+)", log.read_text("utf-8", "replace"), re.M)
        return failed[1].rpartition("/")[2] if failed else "cases" if code else ""

    def judge(self, mutant: Mutant, with_cases: bool) -> str:
        if verdict := self.linker.compile(mutant, self.folder):
            return verdict
        if found := self.in_process(self.linker.link("unit_tests", mutant, self.folder), mutant.file.partition("/")[0]):
            self.fresh()
        elif with_cases:
            found = self.cases(mutant)
        return f"noticed by {found}" if found else "survived"


def read_table(path: Path) -> dict[str, str]:
    """The last column by the first three."""
    return dict(line.rsplit("\t", 1) for line in path.read_text("utf-8").splitlines() if "\t" in line) if path.is_file() else {}


def report(results: dict[str, str], wanted: list[Mutant]) -> int:
    equal = read_table(EQUAL)
    table: dict[str, Counter[str]] = defaultdict(Counter)
    for mutant in wanted:
        verdict = results[mutant.key]
        kind = "explained" if verdict == "survived" and mutant.key in equal else verdict.partition(" ")[0]
        table[mutant.file.partition("/")[0]][kind] += kind != "does"
        if kind == "survived":
            say(str(mutant))
    total = sum(table.values(), Counter())
    for name, row in [*sorted(table.items()), ("all", total)]:
        count, good = sum(row.values()), row["noticed"] + row["explained"]
        say(f"{name:12} {count:4} mutants, {row['noticed']} noticed, {row['explained']} explained, {row['survived']} survived: {good / max(count, 1):.1%}")
    return 0 if total["noticed"] + total["explained"] >= 0.95 * sum(total.values()) else 1


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--sample", type=int)
    parser.add_argument("--seed", type=int, default=1)
    for flag in ("--in-process", "--again"):
        parser.add_argument(flag, action="store_true")
    parser.add_argument("files", nargs="*", metavar="FILE")
    options = parser.parse_args()
    wanted = [mutant for path in files("src/*.cpp") if path.name not in ELSEWHERE
              and (not options.files or str(path.relative_to(TOP / "src")) in options.files) for mutant in mutants_of(path)]
    if options.sample and options.sample < len(wanted):
        wanted = sorted(random.Random(options.seed).sample(wanted, options.sample), key=lambda one: (one.file, one.begin))
    build("release", "unit_tests", "TavikCompatibilityTool", *([] if options.in_process else ["TavikToolCompanion", "lab/all"]))
    results = read_table(RESULTS)
    left = [mutant for mutant in wanted if mutant.key not in results or options.again and results[mutant.key] == "survived"]
    say(f"{len(wanted)} mutants, {len(left)} of them without a result.")
    workers: queue.Queue[Worker] = queue.Queue()
    linker, count = Linker(), len(os.sched_getaffinity(0))
    for number in range(count):
        workers.put(Worker(number, linker))

    def judge(mutant: Mutant) -> tuple[Mutant, str]:
        worker = workers.get()
        try:
            return mutant, worker.judge(mutant, not options.in_process)
        finally:
            workers.put(worker)
    with concurrent.futures.ThreadPoolExecutor(count) as pool, open(RESULTS, "a", encoding="utf-8") as output:
        for mutant, verdict in pool.map(judge, left):
            results[mutant.key] = verdict
            print(mutant.key, verdict, sep="\t", file=output, flush=True)
            say(f"{mutant}: {verdict}")
    while not workers.empty():
        workers.get().prefix.__exit__()
    return report(results, wanted)


if __name__ == "__main__":
    sys.exit(main())
