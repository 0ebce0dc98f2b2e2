#!/usr/bin/python3
"""Makes the C++ table of outcomes from companion/outcomes.toml, during the build.

    make_catalogue.py outcomes.toml catalogue.cpp

A key or a value that the table cannot express ends the build: a rule that is passed over would classify wrongly.
"""
import sys
import tomllib
from pathlib import Path

TEXTS = ("id", "title", "owner", "cause", "action", "retry")
PATTERNS = ("lines", "one_of", "without", "without_after", "last")
NUMBERS = ("exit_not", "result", "result_not")
OTHERS = ("mode", "exit", "code", "log", "fallback")
MODES = {"any": "Any", "check": "Check", "direct": "Direct"}
EXITS = {"any": "Any", "negative": "Negative", "result": "Result"}


def text(value: str) -> str:
    """A C++ literal in plain ASCII; each line of source stays short."""
    if not isinstance(value, str):
        raise ValueError(f"{value!r} is no text")
    escaped = [chr(byte) if 0x20 <= byte < 0x7F and chr(byte) not in '"\\?' else f"\\{byte:03o}" for byte in value.encode()]
    pieces = ["".join(escaped[at:at + 90]) for at in range(0, len(escaped), 90)] or [""]
    return " ".join(f'"{piece}"' for piece in pieces)


class Table:
    def __init__(self) -> None:
        self.patterns: list[str] = []
        self.arrays: list[str] = []

    def array(self, kind: str, values: list[int]) -> str:
        if not all(isinstance(value, int) and not isinstance(value, bool) for value in values):
            raise ValueError(f"{values} are no numbers")
        if not values:
            return "{}"
        name = f"kList{len(self.arrays)}"
        self.arrays.append(f"constexpr {kind} {name}[] = {{{', '.join(map(str, values))}}};")
        return name

    def pattern_list(self, patterns: list[str]) -> str:
        for one in patterns:
            text(one)
            if one not in self.patterns:
                self.patterns.append(one)
        return self.array("std::uint16_t", [self.patterns.index(one) for one in patterns])

    def number_list(self, numbers: list[int]) -> str:
        return self.array("long long", numbers)

    def optional(self, kind: str, made: str) -> str:
        return f"{kind}({made})" if made != "{}" else f"{kind}()"

    def outcome(self, one: dict) -> str:
        unknown = set(one) - {*TEXTS, *PATTERNS, *NUMBERS, *OTHERS}
        missing = {*TEXTS, "mode", "exit", "code"} - set(one)
        if unknown or missing:
            raise ValueError(f"{one.get('id')}: unknown {sorted(unknown)}, missing {sorted(missing)}")
        listed = isinstance(one["exit"], list)
        if one.get("log", "") not in ("", "none") or not isinstance(one["code"], int):
            raise ValueError(f"{one['id']}: log or code")
        fields = {
            "meaning": "{" + ", ".join([*(text(one[name]) for name in TEXTS), str(one["code"])]) + "}",
            "mode": f"RunMode::{MODES[one['mode']]}",
            "exitRule": "ExitRule::Listed" if listed else f"ExitRule::{EXITS[one['exit']]}",
            "exits": self.number_list(one["exit"] if listed else []),
            "exitNot": self.number_list(one.get("exit_not", [])),
            "lines": self.pattern_list(one.get("lines", [])),
            "result": self.optional("NumberList", self.number_list(one["result"])) if "result" in one else "std::nullopt",
            "resultNot": self.number_list(one.get("result_not", [])),
            "oneOf": self.optional("PatternList", self.pattern_list(one["one_of"])) if "one_of" in one else "std::nullopt",
            "without": self.pattern_list(one.get("without", [])),
            "withoutAfter": self.pattern_list(one.get("without_after", [])),
            "last": self.optional("PatternList", self.pattern_list(one["last"])) if "last" in one else "std::nullopt",
            "wantsLog": "false" if one.get("log") == "none" else "true",
            "isFallback": "true" if one.get("fallback", False) else "false",
        }
        return "    {\n" + "".join(f"        .{name} = {value},\n" for name, value in fields.items()) + "    },\n"


def source(outcomes: list[dict]) -> str:
    table = Table()
    rows = "".join(table.outcome(one) for one in outcomes)
    patterns = "".join(f"    {text(one)},\n" for one in table.patterns)
    arrays = "\n".join(table.arrays)
    return f"""// Made by companion/make_catalogue.py from companion/outcomes.toml; changes belong there.
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
        made = source(tomllib.loads(Path(arguments[0]).read_text("utf-8"))["outcome"])
    except (KeyError, ValueError) as error:
        print(f"{arguments[0]}: {error}", file=sys.stderr)
        return 1
    Path(arguments[1]).write_text(made, "utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
