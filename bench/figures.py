"""A measured figure, what it is compared with, and whether its goal is met."""
from __future__ import annotations

import dataclasses
import statistics

MEASURES = {
    # name: (figure of one pair, how a goal reads, True when more is better)
    "speed": (lambda ours, theirs: theirs / ours, "at least {limit:g} of its speed", True),
    "ratio": (lambda ours, theirs: ours / theirs, "at most {limit:g} times", False),
    "difference": (lambda ours, theirs: ours - theirs, "at most {limit:g} {unit} more", False),
    "value": (lambda ours, _: ours, "at most {limit:g} {unit}", False),
}


def quartiles(values: list[float]) -> tuple[float, float, float]:
    """First quartile, median, third quartile."""
    if len(values) == 1:
        return values[0], values[0], values[0]
    low, middle, high = statistics.quantiles(values, n=4, method="inclusive")
    return low, middle, high


@dataclasses.dataclass
class Row:
    """One line of the table. ours[i] and theirs[i] were measured one right after the other; the figure is that of each
    pair, judged by its median. Without a limit the row is for information only."""
    name: str
    what: str
    unit: str
    ours: list[float]
    against: str = "-"
    theirs: list[float] = dataclasses.field(default_factory=list)
    measure: str = "value"
    limit: float | None = None
    note: str = ""

    def __post_init__(self) -> None:
        if self.measure not in MEASURES:
            raise ValueError(f"{self.name}: unknown measure {self.measure}")
        if not self.ours:
            raise ValueError(f"{self.name}: nothing was measured")
        if self.measure != "value" and len(self.ours) != len(self.theirs):
            raise ValueError(f"{self.name}: {len(self.ours)} measurements against {len(self.theirs)}")

    @property
    def figures(self) -> list[float]:
        figure = MEASURES[self.measure][0]
        if self.measure == "value":
            return [figure(value, 0) for value in self.ours]
        return [figure(ours, theirs) for ours, theirs in zip(self.ours, self.theirs)]

    @property
    def figure(self) -> float:
        return quartiles(self.figures)[1]

    @property
    def goal(self) -> str:
        if self.limit is None:
            return "-"
        return MEASURES[self.measure][1].format(limit=self.limit, unit=self.unit)

    @property
    def met(self) -> bool | None:
        """None without a goal."""
        if self.limit is None:
            return None
        more_is_better = MEASURES[self.measure][2]
        return self.figure >= self.limit if more_is_better else self.figure <= self.limit

    @property
    def verdict(self) -> str:
        return {None: "-", True: "met", False: "MISSED"}[self.met]


@dataclasses.dataclass
class Missing:
    """A figure that could not be measured here. It counts like a missed goal."""
    name: str
    what: str
    reason: str


def exit_code(rows: list[Row], missing: list[Missing]) -> int:
    """0 only when something was measured, everything could be, and no goal was missed."""
    return 0 if rows and not missing and all(row.met is not False for row in rows) else 1
