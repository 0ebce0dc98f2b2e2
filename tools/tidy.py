"""Checks the sources of the three programs with Clang's own warnings and with clang-tidy.

    tools.tidy            all files of the three programs
    tools.tidy FILE...    only these

Nine tenths of the time are spent on the headers of Windows and of the C++ library. So files with the same compiler flags are checked
together, as one source that includes them, unless their local names collide. A group that passed is checked again only after one of its
files, a header of ours, the rules or the flags have changed.
"""
from __future__ import annotations

import hashlib
import json
import os
import re
import shlex
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from tools.project import TOP, fail, files, say

BUILD = TOP / "build" / "clang"
WORK = TOP / "build" / "tidy"
RULES = TOP / ".clang-tidy"
PROGRAMS = ("src", "companion", "windows_check")
ALONE = ("tests", "fuzz")  # folders of PROGRAMS that are not part of the programs
UNANALYSED = "windows_check"  # Clang's static analyser would take longer there than all other checks together
LARGEST = 24  # files of a group: enough groups for several cores


def flags_by_file() -> dict[Path, tuple[str, ...]]:
    """The compiler's arguments for each source, without input, output and optimisation."""
    found = {}
    for call in json.loads((BUILD / "compile_commands.json").read_text("utf-8")):
        file = Path(call["file"]).resolve()
        if file.suffix == ".cpp" and file.is_relative_to(TOP) and file.relative_to(TOP).parts[0] in PROGRAMS:
            arguments = shlex.split(call["command"])[1:]
            at = arguments.index("-o")
            found[file] = tuple(one for one in arguments[:at] + arguments[at + 2:] if one not in ("-c", "-Os", "-O2", call["file"]))
    return found


def local_names(file: Path) -> set[str]:
    """Names that a source declares in unnamed namespaces; found by the project's layout."""
    names = set()
    for block in re.findall(r"^namespace\n\{\n(.*?)^\}  // namespace$", file.read_text("utf-8"), re.M | re.S):
        for line in re.findall(r"^[^\s{}/#].*", block, re.M):
            found = re.match(r"(?:struct|class|enum class|enum|union|using) (\w+)", line) or re.search(r"(\w+)\(", line) \
                or re.search(r"(\w+)(?:\[[^\]]*\])* ?(?:=|\{|;)", line)
            if found:
                names.add(line if found[1].isupper() else found[1])  # a macro declares a name made from its arguments
    return names


def groups(flags: dict[Path, tuple[str, ...]]) -> list[list[Path]]:
    found: list[tuple[tuple[str, ...], set[str], list[Path]]] = []
    for file in sorted(flags):
        names = local_names(file)
        group = next((one for one in found if one[0] == flags[file] and not one[1] & names and len(one[2]) < LARGEST), None)
        if group is None:
            group = (flags[file], set(), [])
            found.append(group)
        group[1].update(names)
        group[2].append(file)
    return [group[2] for group in found]


def check(group: list[Path], flags: dict[Path, tuple[str, ...]]) -> str:
    """What is wrong, or an empty text. A group that does not compile as one source is divided."""
    options = ["--checks=-clang-analyzer-*"] if group[0].is_relative_to(TOP / UNANALYSED) else []
    digest = hashlib.sha256(repr((options, flags[group[0]])).encode())
    for file in [RULES, *group, *files("src/*.h", "companion/*.h", "windows_check/*.h", "tests/support/*.h")]:
        digest.update(str(file).encode() + b"\0" + file.read_bytes() + b"\0")
    source = WORK / f"UnifiedSource-{digest.hexdigest()[:32]}.cpp"
    passed = source.with_suffix(".passed")
    if passed.exists():
        passed.touch()
        return ""
    # The static analyser takes such a name as a sign that the included files are sources and not headers.
    source.write_text("".join(f'#include "{file}"  // NOLINT\n' for file in group), "utf-8")
    done = subprocess.run(["clang-tidy", "--quiet", *options, source if len(group) > 1 else group[0], "--", *flags[group[0]]],
                          capture_output=True, text=True, check=False)
    if done.returncode == 0:
        passed.touch()
        return ""
    if len(group) > 1 and "[clang-diagnostic-error]" in done.stdout:
        error = re.search(r"[^/\n]+: error: .*(?=\[clang-diagnostic-error)", done.stdout)
        say(f"{len(group)} files are checked in two parts, as they do not compile as one source: {error[0] if error else ''}")
        half = len(group) // 2
        return check(group[:half], flags) + check(group[half:], flags)
    # Standard error only has the number of warnings in system headers, unless clang-tidy could not run at all.
    return done.stdout if done.stdout.strip() else done.stderr


def main(arguments: list[str]) -> int:
    if arguments and arguments[0].startswith("-"):
        print(__doc__)
        return 0 if arguments[0] in ("-h", "--help") else 2
    subprocess.run(["cmake", "--preset", "clang"], cwd=TOP, check=True, stdout=subprocess.DEVNULL)
    WORK.mkdir(parents=True, exist_ok=True)
    flags = flags_by_file()
    wanted = [[Path(name).resolve()] for name in arguments] or groups(flags)
    missing = [file for file in (sum(wanted, []) if arguments else files(*(f"{folder}/*.cpp" for folder in PROGRAMS)))
               if file not in flags and not set(ALONE) & set(file.relative_to(TOP).parts)]
    if missing:
        fail(f"Not in the Clang build: {', '.join(str(file.relative_to(TOP)) for file in missing)}. Add it to the CMakeLists.txt of its folder.")
    with ThreadPoolExecutor(max_workers=os.cpu_count() or 2) as pool:
        findings = [text for text in pool.map(lambda group: check(group, flags), wanted) if text]
    for old in WORK.iterdir() if not arguments and not findings else ():
        if old.stat().st_mtime < RULES.stat().st_mtime:
            old.unlink()
    print("\n".join([*findings, f"{sum(map(len, wanted))} files in {len(wanted)} groups, findings in {len(findings)} groups."]))
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
