"""Checks what is written in the project's files.

    tools.texts links    what pages point to exists (files, headings, pictures), and README.md names every page of docs/
    tools.texts paths    no file names a folder of one machine
    tools.texts words    no file has a word that plain English avoids
    tools.texts log      docs/log.md has each line that the tool can log, and no other

Addresses outside the project are not checked: they would have to be fetched. Generated pages (build/docs) count as there.
"""
from __future__ import annotations

import re
import sys
from collections.abc import Iterator
from pathlib import Path

from tools.project import TOP, files

LINK = re.compile(r'(?:\]\(|\b(?:href|src)=")([^()\s"]+)[)"]')
GENERATED = TOP / "build" / "docs"
AVOIDED = re.compile(r"(?<![a-z])(nobody|somebody|whoever|anybody|mend(ed|s|ing)?|torture|stands|glance|look(ed|ing|s)? at|hollow)s?(?![a-z])", re.I)
OWN_FOLDER = re.compile(r"(?:^|[^\w.}-])/(?:home|root|work|Users)/[\w.]")


def without_code(text: str) -> str:
    return re.sub(r"`[^`\n]*`", lambda found: found[0].strip("`") if found[0].count("](") == 0 else "",
                  re.sub(r"^```.*?^```", "", text, flags=re.MULTILINE | re.DOTALL))


def anchors(page: Path) -> set[str]:
    """The anchors of the headings, as the usual viewers make them: letters, digits, hyphens for blanks."""
    text = without_code(page.read_text("utf-8"))
    headings = re.findall(r"^#+ (.+)$", text, re.MULTILINE)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings} | set(re.findall(r'<\w+ id="([^"]+)">', text))


def fault(page: Path, target: str, top: Path = TOP) -> str:
    if re.match(r"[a-z]+:", target):
        return ""
    name, _, anchor = target.partition("#")
    file = (page.parent / name).resolve() if name else page
    if file.parent == GENERATED:
        return ""
    if not file.is_relative_to(top) or not file.exists():
        return "does not exist"
    return "has no such heading" if anchor and file.suffix in (".md", ".html") and anchor not in anchors(file) else ""


def dead_links(pages: list[Path], top: Path = TOP) -> Iterator[str]:
    for page in pages:
        for target in LINK.findall(without_code(page.read_text("utf-8"))):
            if what := fault(page, target, top):
                yield f"{page.relative_to(top)}: {target} {what}"


def links() -> Iterator[str]:
    pages = files("*.md")
    yield from dead_links(pages)
    index = TOP / "README.md"
    named = {(index.parent / target.partition("#")[0]).resolve() for target in LINK.findall(index.read_text("utf-8"))}
    yield from (f"README.md does not name {page.relative_to(TOP)}" for page in pages
                if page.parent == TOP / "docs" and page not in named and page != index)


def lines() -> Iterator[tuple[Path, int, str]]:
    for file in files():
        data = file.read_bytes()
        if b"\0" not in data[:8000] and file != Path(__file__).resolve():
            yield from ((file.relative_to(TOP), number, line) for number, line in enumerate(data.decode("utf-8", "replace").split("\n"), 1))


def paths() -> Iterator[str]:
    for file, number, line in lines():
        if OWN_FOLDER.search(line) or f"{TOP}/" in line:
            yield f"{file}:{number}: {line.strip()[:120]}: write paths relative to the project, or take them from a variable"


def words() -> Iterator[str]:
    for file, number, line in lines():
        if found := AVOIDED.search(line):
            yield f"{file}:{number}: {line.strip()[:120]}: instead of \"{found[0]}\" say who does it, or what is done"


def log() -> Iterator[str]:
    page = (TOP / "docs" / "log.md").read_text("utf-8")
    described = [code for line in page.splitlines() if line.startswith("| `") for code in re.findall("`([^`]+)`", line.split("|")[1])]
    calls = [call for file in files("src/*.cpp") for call in re.findall(r"\b(?:LogLine|WriteLog|ExitEarly)\(([^;]+)", file.read_text("utf-8"))]
    texts = {"".join(re.findall(r'L"((?:[^"\\]|\\.)*)"', group)).replace("\\\\", "\\")
             for call in calls for group in re.findall(r'(?:L"(?:[^"\\]|\\.)*"\s*)+', call)}
    parts = {text: re.split(r"% ?l?[ds]", text) for text in texts}
    missing = dict(parts)
    for one in described:
        fitting = [text for text in texts if re.fullmatch(".+".join(map(re.escape, parts[text])), one)]
        if fitting:
            missing.pop(max(fitting, key=lambda text: len("".join(parts[text]))), None)
        else:
            yield f"docs/log.md: the tool does not log {one}"
    yield from (f"docs/log.md does not have {text}" for text in sorted(missing))


def main(arguments: list[str]) -> int:
    checks = {"links": links, "paths": paths, "words": words, "log": log}
    if len(arguments) != 1 or arguments[0] not in checks:
        print(__doc__)
        return 2
    found = list(checks[arguments[0]]())
    print("\n".join([*found, f"{arguments[0]}: {len(found)} complaints."]))
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
