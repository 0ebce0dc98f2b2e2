#!/usr/bin/python3
"""Checks docs/proof.md against the tests: every behaviour names a test that exists, or says why none can show it.

In each table the last column of a row holds tests in backquotes, Suite.Name of the in-process tests or
file.py::function of the lab's cases, or it begins with "not shown:" and the reason.
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
PAGE = ROOT / "docs" / "proof.md"
IN_PROCESS = re.compile(r"^TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\s*\)", re.MULTILINE)
CASE = re.compile(r"^(?:async )?def (test_\w+)\(", re.MULTILINE)


def known_tests() -> set[str]:
    names = set()
    for file in (file for folder in ("tests", "companion/tests") for file in (ROOT / folder).rglob("*.cpp")):
        names |= {f"{suite}.{name}" for suite, name in IN_PROCESS.findall(file.read_text("utf-8"))}
    for file in (file for folder in ("cases", "lab/tests", "tools/tests", "companion/tests", "windows_check/tests")
                 for file in (ROOT / folder).rglob("test_*.py")):
        names |= {f"{file.name}::{name}" for name in CASE.findall(file.read_text("utf-8"))}
    return names


def main() -> int:
    known = known_tests()
    faults, rows, named = [], 0, set()
    for number, line in enumerate(PAGE.read_text("utf-8").splitlines(), 1):
        if not line.startswith("|") or re.fullmatch(r"[|\s:-]+", line):
            continue
        cells = [cell.strip() for cell in re.split(r"(?<!\\)\|", line.strip().strip("|"))]
        proof = cells[-1]
        if proof == "Shown by":
            continue
        rows += 1
        tests = re.findall(r"`([^`]+)`", proof)
        if proof.startswith("not shown:"):
            if len(proof) < 30:
                faults.append(f"line {number}: no reason is given")
            continue
        if not tests:
            faults.append(f"line {number}: names no test")
        for test in tests:
            named.add(test)
            if test not in known:
                faults.append(f"line {number}: there is no test {test}")
    for fault in faults:
        print(f"docs/proof.md, {fault}", file=sys.stderr)
    if rows == 0:
        print("docs/proof.md has no table", file=sys.stderr)
        return 1
    print(f"docs/proof.md: {rows} behaviours, {len(named)} of {len(known)} tests named")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
