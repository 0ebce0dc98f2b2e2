#!/usr/bin/python3
"""Checks that what the documents point to exists: files, headings and pictures, and that every page is named in README.md.

Addresses outside of the project are left alone; they would have to be asked for.
"""
import re
import subprocess
import sys
from pathlib import Path

TOP = Path(__file__).resolve().parent.parent
LINK = re.compile(r"!?\[[^\]]*\]\(([^()\s]+)\)")


def anchors(page: Path) -> set[str]:
    """Of the headings, as the usual viewers make them: letters, digits, hyphens for blanks."""
    headings = re.findall(r"^#+ (.+)$", without_code(page.read_text("utf-8")), re.MULTILINE)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def without_code(text: str) -> str:
    return re.sub(r"`[^`\n]*`", lambda found: found[0].strip("`") if found[0].count("](") == 0 else "",
                  re.sub(r"^```.*?^```", "", text, flags=re.MULTILINE | re.DOTALL))


def wrong(page: Path, target: str) -> str | None:
    if re.match(r"[a-z]+:", target):
        return None
    name, _, anchor = target.partition("#")
    file = (page.parent / name).resolve() if name else page
    if not file.is_relative_to(TOP) or not file.exists():
        return "does not exist"
    if anchor and file.suffix == ".md" and anchor not in anchors(file):
        return "has no such heading"
    return None


def main() -> int:
    listed = subprocess.run(["git", "ls-files", "--cached", "--others", "--exclude-standard", "--deduplicate", "--", "*.md"],
                            cwd=TOP, stdout=subprocess.PIPE, text=True, check=True).stdout.split()
    pages = [TOP / name for name in listed if (TOP / name).is_file()]
    problems, links = [], 0
    for page in pages:
        for target in LINK.findall(without_code(page.read_text("utf-8"))):
            links += 1
            reason = wrong(page, target)
            if reason:
                problems.append(f"{page.relative_to(TOP)}: {target} {reason}")
    index = TOP / "README.md"
    named = {(index.parent / target.partition("#")[0]).resolve() for target in LINK.findall(index.read_text("utf-8"))}
    problems += [f"README.md does not name {page.relative_to(TOP)}" for page in pages
                 if page.parent == TOP / "docs" and page not in named and page != index]
    for problem in problems:
        print(problem, file=sys.stderr)
    print(f"{links} links in {len(pages)} pages, {len(problems)} wrong")
    return 1 if problems or not links else 0


if __name__ == "__main__":
    sys.exit(main())
