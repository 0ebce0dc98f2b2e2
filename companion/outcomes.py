"""Finds the outcome of a run by its exit code and log, as outcomes.toml describes it. The rules are at the head of that file."""
from __future__ import annotations

import dataclasses
import functools
import pathlib
import re
import tomllib
from collections.abc import Sequence

FILE = pathlib.Path(__file__).with_name("outcomes.toml")
MODES = ("check", "direct", "any", "run")
CHECK_LINES = ("Currently installed VLT is version [*", "Another instance is running. Exiting.")
TOKENS = {"*": ".*", "<result>": "(-?[0-9]+)", "<failure>": "(?!(?:0|1641|3010|3011)(?![0-9]))-?[0-9]+"}
TEXTS = ("id", "title", "owner", "cause", "action", "retry")
PATTERNS = ("lines", "one_of", "without", "without_after", "last")
NUMBERS = ("exit_not", "result", "result_not")


@functools.cache
def pattern(text: str) -> re.Pattern[str]:
    parts = re.split(r"(\*|<result>|<failure>)", text)
    return re.compile("".join(TOKENS.get(part, re.escape(part)) for part in parts), re.S)


def some(patterns: Sequence[str], lines: Sequence[str]) -> bool:
    """Whether one of the patterns matches one of the lines."""
    return any(pattern(one).fullmatch(line) for one in patterns for line in lines)


@dataclasses.dataclass(frozen=True)
class Outcome:
    id: str
    title: str
    heading: str
    mode: str
    exit: Sequence[int] | str
    owner: str
    cause: str
    action: str
    code: int
    event: int
    retry: str = "no"
    exit_not: Sequence[int] = ()
    lines: Sequence[str] = ()
    result: Sequence[int] = ()
    result_not: Sequence[int] = ()
    one_of: Sequence[str] = ()
    without: Sequence[str] = ()
    without_after: Sequence[str] = ()
    last: Sequence[str] = ()
    log: str = ""
    fallback: bool = False

    def matches(self, exit_code: int | None, lines: list[str]) -> bool:
        """exit_code None: not known."""
        if (self.log == "none") == bool(lines) or self.mode not in ("any", "check" if some(CHECK_LINES, lines) else "direct"):
            return False
        below, number = self._below(lines)
        return (below is not None and self._code_fits(exit_code, number)
                and (not self.result or number in self.result) and number not in self.result_not
                and (not self.one_of or some(self.one_of, lines))
                and not some(self.without, lines) and not some(self.without_after, below)
                and (not self.last or some(self.last, lines[-1:])))

    def _below(self, lines: list[str]) -> tuple[list[str] | None, int | None]:
        """The lines below the last one of `lines`, None without a match, and the number remembered."""
        rest, number = lines, None
        for one in self.lines:
            found = next(((at, match) for at, line in enumerate(rest) if (match := pattern(one).fullmatch(line))), None)
            if found is None:
                return None, None
            at, match = found
            rest, number = rest[at + 1:], int(match[1]) if match.groups() else number
        return rest, number

    def _code_fits(self, exit_code: int | None, number: int | None) -> bool:
        if exit_code is None:
            return True
        if exit_code in self.exit_not:
            return False
        named = {"any": True, "negative": exit_code < 0, "result": exit_code == number}
        return named[self.exit] if isinstance(self.exit, str) else exit_code in self.exit


def read(text: str) -> list[Outcome]:
    """Raises ValueError if the text is not a valid catalogue. Every user of the catalogue reads it here."""
    groups = tomllib.loads(text)
    lists = groups.pop("patterns", {})
    found = []
    for group in groups.values():
        if not isinstance(group, dict):
            raise ValueError("a key outside of a group")
        shared = {key: value for key, value in group.items() if not isinstance(value, dict)}
        for name, own in ((key, value) for key, value in group.items() if isinstance(value, dict)):
            table = shared | own
            given = {"id": name, "code": 1618 if table.get("retry") in ("yes", "later") else 1603}
            try:
                one = Outcome(**given | {key: resolved(value, lists) if key in PATTERNS else value for key, value in table.items()})
                faults = problems(one)
            except (AttributeError, KeyError, TypeError) as error:
                faults = [f"unknown or missing key, or a value of the wrong type: {error}"]
            if faults:
                raise ValueError(f"{name}: {'; '.join(faults)}")
            found.append(one)
    if len({one.id for one in found}) != len(found):
        raise ValueError("an id is used twice")
    if len({one.event for one in found}) != len(found):
        raise ValueError("an event is used twice")
    return found


def resolved(patterns: list[str], lists: dict[str, list[str]]) -> list[str]:
    return [one for item in patterns for one in (lists[item[1:]] if item.startswith("@") else [item])]


def problems(one: Outcome) -> list[str]:
    """What is wrong with the form of an outcome."""
    captures = "".join(one.lines).count("<result>")
    exits = one.exit if isinstance(one.exit, list) else []
    numbers = [number for name in NUMBERS for number in getattr(one, name)] + [*exits, one.code, one.event]
    kinds: list[tuple[bool, str]] = [
        (re.fullmatch("[a-z]+(-[a-z]+)*", one.id) is not None, "the id is not in kebab-case"),
        (one.mode in MODES, "unknown mode"),
        (bool(exits) or one.exit in ("any", "negative", "result"), "unknown exit"),
        (all(type(number) is int for number in numbers), "not a number"),
        (one.retry in ("no", "yes", "later", "after-restart"), "unknown retry"),
        (one.code in (0, 3010, 1618, 1603), "not a standard code"),
        ((one.code == 1618) == (one.retry in ("yes", "later")), "1618 and a retry now or later belong together"),
        (one.event in range(1, 1000), "no event from 1 to 999"),
        (one.log in ("", "none"), "unknown log"),
        (captures == (1 if one.exit == "result" or one.result or one.result_not else captures), "a number is required but not remembered"),
        (captures <= 1, "more than one number is remembered"),
        (all(getattr(one, name).strip() for name in TEXTS), "an empty text"),
        (one.title[-1] != "." and all(getattr(one, name).endswith(".") for name in ("owner", "cause", "action")), "not a sentence"),
    ]
    return [fault for good, fault in kinds if not good]


@functools.cache
def catalogue() -> list[Outcome]:
    return read(FILE.read_text("utf-8"))


def matching(exit_code: int | None, lines: list[str], outcomes: list[Outcome] | None = None) -> list[str]:
    """The ids of all outcomes that match; without an exit code there can be several."""
    found = [one for one in (outcomes or catalogue()) if one.matches(exit_code, lines)]
    plain = [one.id for one in found if not one.fallback]
    return plain or [one.id for one in found]
