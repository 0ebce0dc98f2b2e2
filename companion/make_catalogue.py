#!/usr/bin/python3
"""Makes the C++ table of outcomes from companion/outcomes.toml, during the build.

    make_catalogue.py outcomes.toml catalogue.cpp
"""
import sys
from collections.abc import Sequence
from pathlib import Path

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parent.parent))

from companion import outcomes  # noqa: E402

# In the order of the fields in catalogue.h.
LISTS = ("exit_not", "lines", "result", "result_not", "one_of", "without", "without_after", "last")


def text(value: str) -> str:
    """A C++ literal in plain ASCII; each line of source stays short."""
    escaped = [chr(byte) if 0x20 <= byte < 0x7F and chr(byte) not in '"\\?' else f"\\{byte:03o}" for byte in value.encode()]
    pieces = ["".join(escaped[at:at + 90]) for at in range(0, len(escaped), 90)] or [""]
    return " ".join(f'"{piece}"' for piece in pieces)


def camel(name: str) -> str:
    first, *rest = name.split("_")
    return first + "".join(part.title() for part in rest)


class Table:
    def __init__(self) -> None:
        self.patterns: list[str] = []
        self.arrays: list[str] = []

    def array(self, kind: str, values: Sequence[int]) -> str:
        if not values:
            return "{}"
        name = f"kList{len(self.arrays)}"
        self.arrays.append(f"constexpr {kind} {name}[] = {{{', '.join(map(str, values))}}};")
        return name

    def pattern_list(self, patterns: Sequence[str]) -> str:
        self.patterns += [one for one in dict.fromkeys(patterns) if one not in self.patterns]
        return self.array("std::uint16_t", [self.patterns.index(one) for one in patterns])

    def list_of(self, name: str, values: Sequence) -> str:
        return self.pattern_list(values) if name in outcomes.PATTERNS else self.array("long long", values)

    def outcome(self, one: outcomes.Outcome) -> str:
        listed = not isinstance(one.exit, str)
        fields = {
            "meaning": "{" + ", ".join([*(text(getattr(one, name)) for name in outcomes.TEXTS), str(one.code)]) + "}",
            "mode": f"RunMode::k{one.mode.title()}",
            "exitRule": f"ExitRule::k{'Listed' if listed else one.exit.title()}",
            "exits": self.array("long long", one.exit if listed else ()),
            **{camel(name): self.list_of(name, getattr(one, name)) for name in LISTS},
            "wantsLog": "false" if one.log == "none" else "true",
            "isFallback": "true" if one.fallback else "false",
        }
        return "    {\n" + "".join(f"        .{name} = {value},\n" for name, value in fields.items()) + "    },\n"


def source(found: list[outcomes.Outcome]) -> str:
    table = Table()
    rows = "".join(table.outcome(one) for one in found)
    patterns = "".join(f"    {text(one)},\n" for one in table.patterns)
    arrays = "\n".join(table.arrays)
    return f"""// Made by companion/make_catalogue.py from companion/outcomes.toml; change that file instead.
#include "companion/catalogue.h"

namespace repair
{{
namespace
{{
constexpr std::string_view kPatterns[] = {{
{patterns}}};

{arrays}

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


def main(arguments: list[str]) -> int:
    if len(arguments) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    try:
        made = source(outcomes.read(Path(arguments[0]).read_text("utf-8")))
    except ValueError as error:
        print(f"{arguments[0]}: {error}", file=sys.stderr)
        return 1
    Path(arguments[1]).write_text(made, "utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
