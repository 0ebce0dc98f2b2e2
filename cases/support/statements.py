"""What a case states about the outcomes of its starts, and the comparison with the outcomes that they had."""
from __future__ import annotations

import functools
import re

from companion import outcomes
from lab.session import NO_LINE_END

Stated = list[frozenset[str]]  # for each start the outcomes that it may have


def starts(statement: str) -> Stated:
    """Reads "repaired | no-log, 9 another-instance". Raises ValueError for a part that is no outcome of the catalogue."""
    known = {one.id for one in outcomes.catalogue()}
    found: Stated = []
    for part in statement.split(","):
        match = re.fullmatch(r"(?:(\d+) )?([a-z-]+(?: \| [a-z-]+)*)", part.strip())
        names = frozenset(match[2].split(" | ")) if match else frozenset()
        if not match or names - known:
            raise ValueError(f"{part.strip()!r} is no outcome of the catalogue")
        found += [names] * int(match[1] or 1)
    return found


def recognised(exit_code: int | None, log: list[str]) -> list[str]:
    """The outcomes that match. log: as run.read_log gives it; its mark of a line without an end is ignored."""
    return outcomes.matching(exit_code, [line.removesuffix(NO_LINE_END) for line in log])


def found(codes: list[int], logs: list[list[str]]) -> str:
    """The outcomes of these starts, for a message."""
    return ", ".join(" and ".join(recognised(code, log)) for code, log in zip(codes, logs))


def compare(starts: Stated, codes: list[int], logs: list[list[str]], at_once: bool = False) -> str:
    """Returns "" if the starts can have the stated outcomes, otherwise what they have. codes: exit codes in the order of the starts;
    logs: in the order of their beginning; a start may have none if that is stated. at_once: both orders are left to chance."""
    if len(starts) != len(codes):
        return f"{len(codes)} starts, {len(starts)} outcomes stated"
    without = len(codes) - len(logs)
    kept = [*logs, *([[]] * without)]

    @functools.cache
    def classes(code: int, log: int) -> frozenset[str]:
        return frozenset(recognised(code, kept[log] if log >= 0 else []))

    def assign(start: int, log: int, missing: int, codes_left: tuple[int, ...], stated_left: tuple[frozenset[str], ...]) -> bool:
        """Each start takes the next log or none; with at_once each log takes any start."""
        if start == len(codes):
            return True
        choices = range(len(codes_left)) if at_once else range(1)
        for which in dict.fromkeys(codes_left.index(codes_left[one]) for one in choices):
            for one in dict.fromkeys(stated_left if at_once else stated_left[:1]):
                at = stated_left.index(one)
                rest = (codes_left[:which] + codes_left[which + 1:], stated_left[:at] + stated_left[at + 1:])
                for number, left in ((log, missing), (-1, missing - 1)):
                    if left < 0 or number >= len(logs):
                        continue
                    found = classes(codes_left[which], number)
                    if len(found) == 1 and found <= one and assign(start + 1, log + (number >= 0), left, *rest):
                        return True
        return False

    if assign(0, 0, without, tuple(codes), tuple(starts)):
        return ""
    if without == 0 and not at_once:
        return "; ".join(f"start {number}: exit code {code}, {' and '.join(sorted(classes(code, number - 1))) or 'no outcome'} instead of "
                         f"{' or '.join(sorted(starts[number - 1]))}" for number, code in enumerate(codes, 1)
                         if not (len(classes(code, number - 1)) == 1 and classes(code, number - 1) <= starts[number - 1]))
    return (f"exit codes {codes} with {len(logs)} logs do not come to {[' | '.join(sorted(one)) for one in starts]}: "
            f"{[outcomes.matching(None, log) for log in logs]}")
