"""Recognises the outcome of a run by its exit code and log, as outcomes.toml describes it; the rules stand at its head."""
from __future__ import annotations

import dataclasses
import functools
import pathlib
import re
import tomllib
from typing import Any

FILE = pathlib.Path(__file__).with_name("outcomes.toml")
CHECK_LINES = ("Currently installed VLT is version [*", "Another instance is running. Exiting.")
TOKENS = {"*": ".*", "<result>": "(-?[0-9]+)", "<failure>": "(?!(?:0|1641|3010|3011)(?![0-9]))-?[0-9]+"}
TEXTS = ("id", "title", "mode", "owner", "cause", "action", "retry")
PATTERNS = ("lines", "one_of", "without", "without_after", "last")
NUMBERS = ("exit_not", "result", "result_not")


@functools.cache
def pattern(text: str) -> re.Pattern[str]:
    parts = re.split(r"(\*|<result>|<failure>)", text)
    return re.compile("".join(TOKENS.get(part, re.escape(part)) for part in parts), re.S)


def some(patterns: list[str], lines: list[str]) -> bool:
    """Whether one of the patterns matches one of the lines."""
    return any(pattern(one).fullmatch(line) for one in patterns for line in lines)


@dataclasses.dataclass(frozen=True)
class Outcome:
    id: str
    title: str
    mode: str
    exit: list[int] | str
    owner: str
    cause: str
    action: str
    retry: str
    code: int
    exit_not: list[int] | None = None
    lines: list[str] = dataclasses.field(default_factory=list)
    result: list[int] | None = None
    result_not: list[int] | None = None
    one_of: list[str] | None = None
    without: list[str] = dataclasses.field(default_factory=list)
    without_after: list[str] = dataclasses.field(default_factory=list)
    last: list[str] | None = None
    log: str = ""
    fallback: bool = False

    def matches(self, exit_code: int | None, lines: list[str]) -> bool:
        """exit_code None: not known."""
        if (self.log == "none") == bool(lines):
            return False
        if self.mode not in ("any", "check" if some(CHECK_LINES, lines) else "direct"):
            return False
        below, number = self._below(lines)
        return (below is not None and self._code_fits(exit_code, number)
                and (self.result is None or number in self.result)
                and (self.result_not is None or number not in self.result_not)
                and (self.one_of is None or some(self.one_of, lines))
                and not some(self.without, lines) and not some(self.without_after, below)
                and (self.last is None or some(self.last, lines[-1:])))

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
        if self.exit_not and exit_code in self.exit_not:
            return False
        named = {"any": True, "negative": exit_code < 0, "result": exit_code == number}
        return named[self.exit] if isinstance(self.exit, str) else exit_code in self.exit


def read(text: str) -> list[Outcome]:
    """Raises ValueError for whatever is not a good catalogue."""
    found = [Outcome(**table) for table in tomllib.loads(text)["outcome"]]
    for one in found:
        faults = problems(one)
        if faults:
            raise ValueError(f"{one.id}: {'; '.join(faults)}")
    if len({one.id for one in found}) != len(found):
        raise ValueError("an id stands there twice")
    return found


def problems(one: Outcome) -> list[str]:
    """What is wrong with the form of an outcome."""
    captures = "".join(one.lines).count("<result>")
    kinds: list[tuple[bool, str]] = [
        (re.fullmatch("[a-z]+(-[a-z]+)*", one.id) is not None, "the id is not in kebab-case"),
        (one.mode in ("check", "direct", "any"), "unknown mode"),
        (one.exit in ("any", "negative", "result") if isinstance(one.exit, str) else bool(one.exit), "unknown exit"),
        (one.retry in ("no", "yes", "later", "after-restart"), "unknown retry"),
        (one.code in (0, 3010, 1618, 1603), "no standard code"),
        ((one.code == 1618) == (one.retry in ("yes", "later")), "1618 and a retry now or later belong together"),
        (one.log in ("", "none"), "unknown log"),
        (captures == (1 if one.exit == "result" or one.result or one.result_not else captures), "a number is asked for but not remembered"),
        (captures <= 1, "more than one number is remembered"),
        (all(str(getattr(one, name)).strip() for name in TEXTS), "an empty text"),
        (one.title[-1] != "." and all(getattr(one, name).endswith(".") for name in ("owner", "cause", "action")), "no sentence"),
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


def to_lines(log: bytes) -> list[str]:
    """UTF-16LE with line feeds; what stands behind the last one is a line as well."""
    lines = log.decode("utf-16-le", "replace").split("\n")
    return lines if lines[-1] else lines[:-1]


def listing(value: Any) -> list[Any]:
    return value if isinstance(value, list) else [value]
