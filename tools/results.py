"""Adds up test results (JUnit files): names what failed or was skipped, with the reason.

Cases that failed are run once more, alone; their results are in FILE-again.xml beside FILE. A case that passes then was
disturbed by a busy host: it is named and counts as passed.
"""
from __future__ import annotations

import re
import sys
import xml.etree.ElementTree as ElementTree
from collections import Counter
from collections.abc import Sequence
from pathlib import Path


def outcome(case: ElementTree.Element) -> tuple[str, str]:
    """Passed, failed or skipped, and the reason in a few words."""
    for tag, result in (("failure", "failed"), ("error", "failed"), ("skipped", "skipped")):
        found = case.find(tag)
        if found is not None:
            text = (found.get("message") or found.text or "").strip()
            return result, text.splitlines()[0] if text else ""
    # ctest has its own words for a test that did not run.
    if case.get("status") in ("fail", "notrun", "disabled"):
        return ("failed" if case.get("status") == "fail" else "skipped"), case.get("status", "")
    return "passed", ""


def cases(file: Path) -> list[ElementTree.Element]:
    """Raises OSError, ElementTree.ParseError, or ValueError for a file without any test."""
    found = list(ElementTree.parse(file).getroot().iter("testcase"))
    if not found:
        raise ValueError("there is no test in it")
    return found


def name(case: ElementTree.Element) -> str:
    """As scripts/test takes it."""
    where, own = case.get("classname") or "", case.get("name", "?")
    if where in ("", own):
        return own
    return f"{where.replace('.', '/')}.py::{own}" if "test_" in where else f"{where}.{own}"


def failed(file: Path) -> list[str]:
    """Names of the failed cases; empty when the file cannot be read."""
    try:
        return [name(case) for case in cases(file) if outcome(case)[0] == "failed"]
    except (OSError, ElementTree.ParseError, ValueError):
        return []


def summary(files: list[Path], left_out: Sequence[str] = ()) -> bool:
    """Prints what did not pass and the closing line. True when at least one test ran, none failed and every file could be read:
    what did not run is not a success. left_out: what could not run on this machine; it counts as skipped."""
    count = Counter(skipped=len(left_out))
    for reason in left_out:
        print(f"skipped: {reason}")
    unread = 0
    for file in files:
        there = re.search(r"/build/debian-(\d+)/build/", str(file))
        where = f"Debian {there[1]}: " if there else ""
        again = file.with_name(f"{file.stem}-again.xml")
        try:
            found = cases(file)
            alone = {name(case) for case in cases(again) if outcome(case)[0] == "passed"} if again.exists() else set()
        except (OSError, ElementTree.ParseError, ValueError) as error:
            print(f"no results: {file}: {error}")
            unread += 1
            continue
        for case in found:
            result, reason = outcome(case)
            shown = result
            if result == "failed" and name(case) in alone:
                result, shown = "passed", "passed alone, failed among others"
            count[result] += 1
            if shown != "passed":
                print(f"{shown}: {where}{name(case)}{': ' + reason if reason else ''}"[:300])
    skipped = f", {count['skipped']} skipped" if count["skipped"] else ""
    print(f"{count['passed']} passed, {count['failed']} failed{skipped}")
    return bool(files) and not unread and not count["failed"]


if __name__ == "__main__":
    sys.exit(0 if summary([Path(file) for file in sys.argv[1:]]) else 1)
