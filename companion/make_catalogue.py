#!/usr/bin/python3
"""Makes the C++ table of outcomes and the messages of their events from companion/outcomes.toml, during the build.

    make_catalogue.py outcomes.toml catalogue.cpp messages.bin
"""
import struct
import sys
from collections.abc import Sequence
from pathlib import Path

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parent.parent))

from companion import outcomes  # noqa: E402

# In the order of the fields in catalogue.h.
LISTS = ("exit_not", "lines", "result", "result_not", "one_of", "without", "without_after", "last")


def literal(value: str) -> str:
    """In plain ASCII."""
    plain = (chr(byte) if 0x20 <= byte < 0x7F and chr(byte) not in '"\\?' else f"\\{byte:03o}" for byte in value.encode())
    return f'"{"".join(plain)}"'


def camel(name: str) -> str:
    first, *rest = name.split("_")
    return first + "".join(part.title() for part in rest)


def source(found: list[outcomes.Outcome]) -> str:
    places = {one: place for place, one in enumerate(dict.fromkeys(
        pattern for outcome in found for name in outcomes.PATTERNS for pattern in getattr(outcome, name)))}
    arrays: list[str] = []

    def array(kind: str, values: Sequence[int]) -> str:
        arrays.extend([f"constexpr {kind} kList{len(arrays)}[] = {{{', '.join(map(str, values))}}};"] if values else [])
        return f"kList{len(arrays) - 1}" if values else "{}"

    def list_of(one: outcomes.Outcome, name: str) -> str:
        values = getattr(one, name)
        return array("std::uint16_t", [places[value] for value in values]) if name in outcomes.PATTERNS else array("long long", values)

    def row(one: outcomes.Outcome) -> str:
        listed = not isinstance(one.exit, str)
        fields = {
            "meaning": "{" + ", ".join([*(literal(getattr(one, name)) for name in outcomes.TEXTS), str(one.code), str(one.event)]) + "}",
            "mode": f"RunMode::k{one.mode.title()}",
            "exitRule": f"ExitRule::k{'Listed' if listed else one.exit.title()}",
            "exits": array("long long", one.exit if listed else ()),
            **{camel(name): list_of(one, name) for name in LISTS},
            "wantsLog": "false" if one.log == "none" else "true",
            "isFallback": "true" if one.fallback else "false",
        }
        return "    {\n" + "".join(f"        .{name} = {value},\n" for name, value in fields.items()) + "    },\n"

    rows = "".join(map(row, found))
    patterns = "".join(f"    {literal(one)},\n" for one in places)
    declared = "\n".join(arrays)
    return f"""// Made by companion/make_catalogue.py from companion/outcomes.toml; change that file instead.
#include "companion/catalogue.h"

namespace repair
{{
namespace
{{
constexpr std::string_view kPatterns[] = {{
{patterns}}};

{declared}

constexpr Outcome kOutcomes[] = {{
{rows}}};

constexpr Catalogue kCatalogue = {{kPatterns, kOutcomes}};
}}  // namespace

const Catalogue& BuiltInCatalogue()
{{
    return kCatalogue;
}}
}}  // namespace repair
"""


# The texts of an event, in the order of WriteEvent's: run_command.cpp.
DETAILS = "".join(f"\r\n{name}: %{number}" for number, name in enumerate((
    "Outcome", "Code", "Exit code of the tool", "Release of the driver", "Application before", "Application after", "Attempt", "Log", "Details"), 1))


def messages(found: list[outcomes.Outcome]) -> bytes:
    """A message table (RT_MESSAGETABLE): a block of one id for each outcome, then the texts, padded to 4 bytes."""
    offset, blocks, entries = 4 + 12 * len(found), b"", b""
    for one in sorted(found, key=lambda outcome: outcome.event):
        told = ". ".join((one.title, one.owner + " " + one.action)).replace("%", "%%").replace("`", "")
        text = (told + DETAILS).encode("utf-16-le") + b"\r\0\n\0\0\0"
        text += bytes(-len(text) % 4)
        blocks += struct.pack("<III", one.event, one.event, offset + len(entries))
        entries += struct.pack("<HH", 4 + len(text), 1) + text  # 1: UTF-16
    return struct.pack("<I", len(found)) + blocks + entries


def main(arguments: list[str]) -> int:
    if len(arguments) != 3:
        print(__doc__, file=sys.stderr)
        return 2
    try:
        found = outcomes.read(Path(arguments[0]).read_text("utf-8"))
        made = source(found)
    except ValueError as error:
        print(f"{arguments[0]}: {error}", file=sys.stderr)
        return 1
    Path(arguments[1]).write_text(made, "utf-8")
    Path(arguments[2]).write_bytes(messages(found))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
