"""Takes measurements in turn, so that other load affects all of them alike."""
from __future__ import annotations

from typing import Callable


def take(contestants: dict[str, Callable[[], float]], rounds: int, say: Callable[[str], None],
         warm: bool = True) -> dict[str, list[float]]:
    """Each round measures every contestant once. The first one changes each round, and every other round runs backwards, so
    that none always follows the same one. The first round warms up and does not count."""
    names = list(contestants)
    values: dict[str, list[float]] = {name: [] for name in names}
    if warm:
        for name in names:
            contestants[name]()
    for number in range(rounds):
        begin = number % len(names)
        order = names[begin:] + names[:begin]
        for name in order if number % 2 == 0 else reversed(order):
            values[name].append(contestants[name]())
        say(f"{number + 1} of {rounds}: " + ", ".join(f"{name} {values[name][-1]:.4g}" for name in names))
    return values
