"""The size of the exe, and where its bytes are: by section, and by the object that the linker took them from."""
from __future__ import annotations

import collections
import pathlib
import re
from typing import Callable

import pefile

from bench.figures import Row
from bench.settings import Settings
from lab import paths

EXE_KB = 1000

# Beginning of the linker's name for an input section, and the name for readers. The first match counts.
_CPP = r"libstdc\+\+\.a\(.*(%s).*\)"
PARTS = (
    (r"lib(repair|base)\.a|CMakeFiles/", "the tool itself"),
    (_CPP % "locale|ctype|codecvt|collate|messages|monetary|numeric|time_members|facet", "C++ library: locales"),
    (_CPP % "ios|istream|ostream|fstream|sstream|streambuf|basic_file", "C++ library: streams"),
    (_CPP % "fs_|path", "C++ library: file system"),
    (_CPP % "string-inst", "C++ library: texts"),
    (_CPP % "cp-demangle|vterminate", "C++ library: printing of uncaught exceptions"),
    (_CPP % "eh_|unwind|guard|pure|tinfo|class_type|bad_|new_|del_", "C++ library: exceptions"),
    (r"libstdc\+\+\.a", "C++ library: the rest"),
    (r"libgcc", "compiler's library"),
    (r"libpthread|libwinpthread", "threads library"),
    (r"libdelay_", "libraries loaded on demand"),
    (r"libmingwex|libmingw32|libmsvcrt|crt2u?\.o|crtbegin|crtend", "C library below"),
    (r"lib\w+\.a|dll stuff", "imports"),
)
SECTIONS = {".text": "code", ".rdata": "constants", ".data": "data", ".pdata": "unwinding tables", ".xdata": "unwinding codes",
            ".rsrc": "banner, icon, dialog, version, manifest", ".reloc": "addresses to adjust", ".idata": "imports",
            ".CRT": "start-up list", ".tls": "thread data", ".bss": "zeros, not in the file"}
_INPUT = re.compile(r"^ (\.\S+)(?:\s+|\n\s+)0x([0-9a-f]+)\s+0x([0-9a-f]+) (\S.*)$", re.MULTILINE)
_OUTPUT = re.compile(r"^(\.[a-zA-Z]\S*)\s+0x([0-9a-f]+)\s+0x([0-9a-f]+)", re.MULTILINE)


def part_of(origin: str) -> str:
    for pattern, name in PARTS:
        if re.search(pattern, origin):
            return name
    return "other"


def by_section(exe: pathlib.Path) -> list[tuple[str, int]]:
    image = pefile.PE(str(exe), fast_load=True)
    sections = [(section.Name.rstrip(b"\0").decode("ascii"), section.SizeOfRawData) for section in image.sections]
    named = [(f"{name} ({SECTIONS[name]})" if name in SECTIONS else name, size) for name, size in sections if size]
    return [("headers", exe.stat().st_size - sum(size for _, size in sections)), *named]


def in_file(map_text: str) -> dict[tuple[str, str], int]:
    """Bytes by output section and origin. What the linker has removed is listed before the memory map and does not count."""
    _, mark, text = map_text.partition("Linker script and memory map")
    if not mark:
        raise ValueError("not a map file of the linker: it has no memory map")
    outputs = [(int(start, 16), int(start, 16) + int(size, 16), name) for name, start, size in _OUTPUT.findall(text)]
    counts: dict[tuple[str, str], int] = collections.Counter()
    for _, start, size, origin in _INPUT.findall(text):
        for begin, end, name in outputs:
            if begin <= int(start, 16) < end and not name.startswith((".debug", ".bss", "/")):
                counts[name, origin] += int(size, 16)
    return counts


def linker_map(exe: pathlib.Path) -> str:
    """The linker's list beside the exe. Raises if it is of another exe."""
    text = paths.need(exe.with_name(exe.name + ".map")).read_text("utf-8", "replace")
    code, *_ = pefile.PE(str(exe), fast_load=True).sections
    sizes = {name: int(size, 16) for name, _, size in _OUTPUT.findall(text)}
    if sizes.get(".text") != code.SizeOfRawData:
        raise ValueError(f"{exe.name}.map belongs to another {exe.name}: build again")
    return text


def tables() -> tuple[list[tuple[str, int]], list[tuple[str, int]]]:
    """By section and by part, each adding up to the size of the exe."""
    exe = paths.need(paths.TOOL)
    counts: dict[str, int] = collections.Counter()
    for (section, origin), size in in_file(linker_map(exe)).items():
        counts["resources" if section == ".rsrc" else part_of(origin)] += size
    sections = by_section(exe)
    counts["resources"] = next(size for name, size in sections if name.startswith(".rsrc"))
    rest = exe.stat().st_size - sum(counts.values())
    parts = sorted(counts.items(), key=lambda item: -item[1])
    return sections, [*parts, ("headers, addresses to adjust, gaps", rest)]


def markdown() -> list[str]:
    lines = []
    for head, table in zip(("Section", "Part"), tables()):
        lines += [f"| {head} | KB |", "|---|---:|", *(f"| {name} | {size / 1000:,.1f} |" for name, size in table),
                  f"| together | {sum(size for _, size in table) / 1000:,.1f} |", ""]
    return lines[:-1]


def figure(_: Settings, __: Callable[[str], None]) -> list[Row]:
    return [Row("size", "size of the exe", "KB", [paths.need(paths.TOOL).stat().st_size / 1000], limit=EXE_KB,
                note="KB are thousands of bytes; scripts/bench --size shows where they are")]
