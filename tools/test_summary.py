#!/usr/bin/python3
"""Adds up the results that test programs have written as JUnit files.

    tools/test_summary.py FILE...
    tools/test_summary.py --failed FILE       only the names of failed cases of the lab, as pytest wants them

Names what failed and what was skipped, with the reason, and ends with one line: "N passed, N failed", and
", N skipped" when there are any. The exit code is 1 when a test failed, when a file is missing or not readable, or
when a file holds no test at all: nothing that did not run may look like success.

Cases of the lab that failed are run once more, alone: FILE-again.xml beside FILE. One that passes then had something in
its way on a busy host; it is named and counts as passed.
"""
import sys
import xml.etree.ElementTree as ElementTree
from collections import Counter
from pathlib import Path


def outcome(case: ElementTree.Element) -> tuple[str, str]:
    """What became of a test, and in a few words why."""
    for tag, result in (("failure", "failed"), ("error", "failed"), ("skipped", "skipped")):
        found = case.find(tag)
        if found is not None:
            text = (found.get("message") or found.text or "").strip()
            return result, text.splitlines()[0] if text else ""
    # ctest writes its own words for a test that did not run.
    if case.get("status") in ("fail", "notrun", "disabled"):
        return ("failed" if case.get("status") == "fail" else "skipped"), case.get("status", "")
    return "passed", ""


def cases(file: Path) -> list[ElementTree.Element]:
    found = list(ElementTree.parse(file).getroot().iter("testcase"))
    if not found:
        raise ValueError("there is no test in it")
    return found


def name(case: ElementTree.Element) -> str:
    where = case.get("classname") or ""
    return case.get("name", "?") if where in ("", case.get("name")) else f"{where}: {case.get('name')}"


def key(case: ElementTree.Element) -> tuple[str | None, str | None]:
    return case.get("classname"), case.get("name")


def passed_alone(file: Path) -> set[tuple[str | None, str | None]]:
    again = file.with_name(f"{file.stem}-again.xml")
    return {key(case) for case in cases(again) if outcome(case)[0] == "passed"} if again.exists() else set()


def print_failed(file: Path) -> int:
    for case in cases(file):
        if outcome(case)[0] == "failed":
            print(f"{(case.get('classname') or '').replace('.', '/')}.py::{case.get('name')}")
    return 0


def main(files: list[str]) -> int:
    if files[:1] == ["--failed"] and len(files) == 2:
        return print_failed(Path(files[1]))
    if not files:
        print(__doc__, file=sys.stderr)
        return 2
    count: Counter[str] = Counter()
    problems = 0
    for file in map(Path, files):
        try:
            found = cases(file)
            alone = passed_alone(file)
        except (OSError, ElementTree.ParseError, ValueError) as error:
            print(f"{file}: no results: {error}")
            problems += 1
            continue
        for case in found:
            result, reason = outcome(case)
            if result == "failed" and key(case) in alone:
                print(f"passed alone, failed among others: {name(case)}{': ' + reason if reason else ''}"[:300])
                result = "passed"
            count[result] += 1
            if result != "passed":
                print(f"{result}: {name(case)}{': ' + reason if reason else ''}"[:300])
    skipped = f", {count['skipped']} skipped" if count["skipped"] else ""
    print(f"{count['passed']} passed, {count['failed']} failed{skipped}")
    return 1 if problems or count["failed"] else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
