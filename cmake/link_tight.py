#!/usr/bin/python3
"""Links a program without unreferenced functions. Called in front of the compiler's link command:

    link_tight.py COMPILER ARGUMENTS... -o PROGRAM ...

The linker's --gc-sections alone does not remove them: its script for Windows keeps every entry of the unwind tables (.pdata, .xdata),
and each entry refers to its function. So every function of every object that is linked counts as used; the standard library's exception
for files alone brings in all locales and number formats, 600 KB.

So here the functions decide which entries are kept. The program is linked without any entry; what the linker keeps then is reachable.
These functions get their entries back, which makes more functions reachable (clean-up, handlers), and so on, until a link keeps no
function whose entries are missing. That link is the program; only the two tables differ from the linker's own script. It takes three or
four rounds of a fraction of a second.

When a link fails it ends with the linker's message and code, and the program is unchanged. It leaves PROGRAM.map and PROGRAM.ld beside
the program.
"""
import re
import subprocess
import sys
from collections import defaultdict
from pathlib import Path

TABLES = (".pdata", ".xdata")
ROUNDS = 20  # 3 are needed; more than these mean that something is wrong
PLACED = re.compile(r"^ \.text(\S*)\s+0x([0-9a-f]+)\s+0x([0-9a-f]+) (\S.*)$", re.MULTILINE)

Function = tuple[str, str]  # object file as the map names it, what follows ".text" in the section's name


def call(command: list[str], *options: str) -> str:
    """Returns what the linker prints. Ends the program when it fails."""
    done = subprocess.run([*command, *(f"-Wl,{option}" for option in options)], capture_output=True, text=True, check=False)
    if done.returncode != 0:
        sys.stderr.write(done.stdout + done.stderr)
        sys.exit(done.returncode)
    return done.stdout + done.stderr


def usual_script(command: list[str]) -> str:
    """The script that the linker would use for this command."""
    said = call(command, "--verbose")
    parts = re.split(r"^={20,}\n", said, flags=re.MULTILINE)
    if len(parts) < 3 or any(f"KEEP(*({table}*))" not in parts[1] for table in TABLES):
        sys.exit("link_tight.py: this linker's script has no KEEP lines for the unwind tables. Compare it (ld --verbose) with usual_script.")
    return parts[1]


def as_pattern(file: str) -> str:
    """How a script names an object: without its folder. A pattern that matches one object too many keeps an entry too many, never one
    too few."""
    member = re.fullmatch(r"(.*)\((.*)\)", file)
    return f"*{Path(member[1]).name}:{member[2]}" if member else f"*{Path(file).name}"


def with_tables(script: str, functions: set[Function]) -> str:
    """The script that keeps the table entries of these functions and drops all others."""
    by_object = defaultdict(set)
    for file, name in functions:
        by_object[as_pattern(file)].add(name)
    for table in TABLES:
        kept = "".join(f"    KEEP({pattern}({' '.join(f'{table}{name}' for name in sorted(names))}))\n"
                       for pattern, names in sorted(by_object.items()))
        script = script.replace(f"    KEEP(*({table}*))\n", kept)
    others = f"  /DISCARD/ :\n  {{\n    {' '.join(f'*({table}*)' for table in TABLES)}\n  }}\n"
    return re.sub(r"^  \.bss ", lambda found: others + found[0], script, count=1, flags=re.MULTILINE)


def reachable(linker_map: str) -> set[Function]:
    """The functions that are in the program: those that the linker gave an address."""
    placed = linker_map[linker_map.index("Linker script and memory map"):]
    return {(found[4], found[1]) for found in PLACED.finditer(placed) if int(found[2], 16) and int(found[3], 16)}


def main() -> None:
    command = sys.argv[1:]
    place = command.index("-o") + 1
    program = Path(command[place])
    # Under another name until it is complete: a link that is killed must not leave half a program.
    unfinished = program.with_name(program.name + ".unfinished")
    command[place] = str(unfinished)
    script_file, map_file = program.with_name(program.name + ".ld"), program.with_name(program.name + ".map")
    try:
        script = usual_script(command)
        kept: set[Function] = set()
        for _ in range(ROUNDS):
            script_file.write_text(with_tables(script, kept), encoding="utf-8")
            said = call(command, f"-T,{script_file}", f"-Map={map_file}")
            there = reachable(map_file.read_text(encoding="utf-8", errors="replace"))
            if there <= kept:
                sys.stderr.write(said)
                unfinished.replace(program)
                return
            kept |= there
    finally:
        unfinished.unlink(missing_ok=True)
    sys.exit(f"link_tight.py: after {ROUNDS} rounds there are still functions without unwind entries. Check {map_file.name} against PLACED.")


if __name__ == "__main__":
    main()
