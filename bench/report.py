"""The table of all figures, as text, as CSV, and in the page about them."""
from __future__ import annotations

import csv
import itertools
import pathlib

from bench.figures import Missing, Row, quartiles

BEGIN, END = "<!-- measured: begin -->", "<!-- measured: end -->"
HEAD = ("What", "The tool", "Against", "It", "Figure", "Goal", "")


def number(value: float) -> str:
    """About three significant digits; a large number keeps all digits before the point."""
    if value != 0 and abs(value) < 0.995:
        return f"{value:.3f}" if abs(value) >= 0.0995 else f"{value:.2g}"
    return f"{value:.2f}" if abs(value) < 9.995 else f"{value:.1f}" if abs(value) < 99.95 else f"{value:,.0f}"


def spread(values: list[float], unit: str = "") -> str:
    """Median and, of several different values, the quartiles."""
    low, middle, high = quartiles(values)
    text = number(middle) + (f" {unit}" if unit else "")
    return text if min(values) == max(values) else f"{text} ({number(low)} to {number(high)})"


def cells(row: Row) -> tuple[str, ...]:
    unit = row.unit if row.measure in ("difference", "value") else ""
    theirs = spread(row.theirs, row.unit) if row.theirs else ""
    figure = spread(row.figures, unit) if row.measure != "value" else ""
    return row.what, spread(row.ours, row.unit), row.against, theirs, figure, row.goal, row.verdict


def lines(rows: list[Row], missing: list[Missing]) -> list[str]:
    """The table for a terminal, with the notes below."""
    table = [HEAD, *map(cells, rows)]
    widths = [max(len(line[column]) for line in table) for column in range(len(HEAD))]
    text = ["  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip() for line in table]
    text.insert(1, "  ".join("-" * width for width in widths))
    text += [f"not measured: {item.what}: {item.reason}" for item in missing]
    notes = [f"{row.what}: {row.note}" for row in rows if row.note]
    return [*text, *([""] if notes else []), *notes]


def markdown(rows: list[Row], missing: list[Missing]) -> list[str]:
    def line(items: tuple[str, ...]) -> str:
        return "| " + " | ".join(item.replace("|", "\\|") for item in items) + " |"
    text = [line(HEAD[:-1] + ("Goal is",)), "|" + "---|" * len(HEAD), *(line(cells(row)) for row in rows)]
    text += ["", *(f"Not measured: {item.what}: {item.reason}.  " for item in missing)] if missing else []
    notes = [f"- {row.what}: {row.note}." for row in rows if row.note]
    return [*text, *([""] if notes else []), *notes]


def write_csv(file: pathlib.Path, rows: list[Row]) -> None:
    """One line for each pair."""
    with open(file, "w", newline="", encoding="utf-8") as out:
        table = csv.writer(out)
        table.writerow(["name", "what", "against", "unit", "pair", "ours", "theirs"])
        for row in rows:
            for pair, (ours, theirs) in enumerate(itertools.zip_longest(row.ours, row.theirs, fillvalue=""), 1):
                table.writerow([row.name, row.what, row.against, row.unit, pair, ours, theirs])


def replace_between_marks(text: str, fresh: list[str], begin: str = BEGIN, end: str = END) -> str:
    """Raises when the marks are not there exactly once, in order."""
    if text.count(begin) != 1 or text.count(end) != 1 or text.index(begin) > text.index(end):
        raise ValueError(f"the page must have the lines {begin} and {end} once each")
    head, _, rest = text.partition(begin)
    _, _, tail = rest.partition(end)
    return "\n".join([head + begin, *fresh, end + tail])
