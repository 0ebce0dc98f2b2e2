"""Compares tests/behaviours.md with the tests, and makes the table of proofs, build/docs/proof.md.

tests/behaviours.md lists every situation that a test has to show, "- SITUATION", or says why none can:
"- SITUATION => WHAT HAPPENS [not shown: REASON]". A test names what it shows in a comment line directly above it:

    // Proves: SITUATION => WHAT HAPPENS        (# in Python)

Where several tests show one situation, one of them says what happens; the others name the situation only.
"""
import re
import sys
from dataclasses import dataclass, field
from pathlib import Path

from tools.project import TOP

LIST = TOP / "tests" / "behaviours.md"
TABLE = TOP / "build" / "docs" / "proof.md"
TESTS = {"tests": "*.cpp", "companion/tests": "*.cpp", ".": "test_*.py"}
LINE = re.compile(r"^(?://|#) Proves: (?P<proves>.+)$|^TEST(?:_F|_P)?\(\s*(?P<suite>\w+),\s*(?P<name>\w+)\s*\)|^def (?P<case>test_\w+)\(",
                  re.MULTILINE)
NOT_SHOWN = re.compile(r"(.+) => (.+) \[not shown: (.{20,})\]")


@dataclass
class Row:
    section: str
    happens: str = ""
    shown_by: list[str] = field(default_factory=list)
    reason: str = ""


def behaviours(text: str) -> dict[str, Row]:
    """The rows by situation. Raises ValueError for a situation that is listed twice."""
    rows: dict[str, Row] = {}
    section = ""
    for line in text.splitlines():
        if line.startswith("## "):
            section = line[3:]
        elif line.startswith("- "):
            excused = NOT_SHOWN.fullmatch(line[2:])
            situation = excused[1] if excused else line[2:]
            if situation in rows:
                raise ValueError(f"{LIST.name}: listed twice: {situation}")
            rows[situation] = Row(section, excused[2], reason=excused[3]) if excused else Row(section)
    return rows


def proofs(file: Path) -> list[tuple[str, str]]:
    """Pairs of a test's name and the text after "Proves:". A line that is not above a test gives the name "". """
    found: list[tuple[str, str]] = []
    waiting: list[str] = []
    for match in LINE.finditer(file.read_text("utf-8")):
        if match["proves"]:
            waiting.append(match["proves"])
            continue
        name = f"{match['suite']}.{match['name']}" if match["suite"] else f"{file.name}::{match['case']}"
        found += [(name, one) for one in waiting]
        waiting = []
    return found + [("", one) for one in waiting]


def collect(rows: dict[str, Row]) -> list[str]:
    """Fills in what the tests say. Returns what does not fit."""
    faults = []
    for folder, pattern in TESTS.items():
        for file in sorted((TOP / folder).rglob(pattern)):
            if "build" in file.relative_to(TOP).parts[:1]:
                continue
            where = file.relative_to(TOP)
            for name, text in proofs(file):
                situation, _, happens = text.partition(" => ")
                row = rows.get(situation)
                if not name:
                    faults.append(f"{where}: no test below: {text}")
                elif row is None:
                    faults.append(f"{where}, {name}: {LIST.name} does not list: {situation}")
                elif row.reason:
                    faults.append(f"{where}, {name}: {LIST.name} says that it cannot be shown: {situation}")
                elif happens and row.happens:
                    faults.append(f"{where}, {name}: {row.shown_by[0]} says already what happens: {situation}")
                else:
                    row.happens = row.happens or happens
                    row.shown_by.append(name)
    faults += [f"{LIST.name}: no test shows: {situation}" for situation, row in rows.items() if not row.reason and not row.shown_by]
    faults += [f"{LIST.name}: no test says what happens: {situation}" for situation, row in rows.items() if row.shown_by and not row.happens]
    return faults


def cell(text: str) -> str:
    return text.replace("|", "\\|")


def table(rows: dict[str, Row]) -> str:
    lines = ["# Proofs", "", "Made by `scripts/docs` from the tests. All of them have run under Wine only, none on a real Windows."]
    section = ""
    for situation, row in rows.items():
        if row.section != section:
            section = row.section
            lines += ["", f"## {section}", "", "| Situation | What happens | Shown by |", "|---|---|---|"]
        shown = ", ".join(f"`{name}`" for name in row.shown_by) or f"not shown: {row.reason}"
        lines.append(f"| {cell(situation)} | {cell(row.happens)} | {shown} |")
    return "\n".join(lines) + "\n"


def main() -> int:
    try:
        rows = behaviours(LIST.read_text("utf-8"))
    except ValueError as error:
        print(error, file=sys.stderr)
        return 1
    faults = collect(rows)
    for fault in faults:
        print(fault, file=sys.stderr)
    TABLE.parent.mkdir(parents=True, exist_ok=True)
    TABLE.write_text(table(rows), "utf-8")
    excused = sum(bool(row.reason) for row in rows.values())
    print(f"{len(rows)} behaviours, {sum(len(row.shown_by) for row in rows.values())} proofs, {excused} that Wine cannot show.")
    return 1 if faults or not rows else 0


if __name__ == "__main__":
    sys.exit(main())
