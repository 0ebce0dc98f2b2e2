#!/usr/bin/python3
"""What the product relies on in Windows: windows_check/facts.toml, and what is made from it.

    tools/windows_facts.py page             writes build/docs/windows-facts.md
    tools/windows_facts.py check            every fact has a check and every check a fact; every fact says where the product
                                            relies on it and how it is guarded
    tools/windows_facts.py program FILE     the facts as C++, for the build
"""
import re
import sys
import tomllib
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

TOP = Path(__file__).resolve().parent.parent
FOLDER = TOP / "windows_check"
FACTS = FOLDER / "facts.toml"
WINES = {int(file.stem.removeprefix("wine-")): file for file in FOLDER.glob("wine-*.toml")}  # version: its list of differences
PAGE = TOP / "build" / "docs" / "windows-facts.md"
SECONDS = 20  # time limit of a check if its group sets none

LEARN = "https://learn.microsoft.com/"
# Short forms of addresses in facts.toml.
ADDRESSES = {
    "api": lambda rest: f"{LEARN}windows/win32/api/{rest.split('/')[0]}/nf-{rest.replace('/', '-')}",
    "struct": lambda rest: f"{LEARN}windows/win32/api/{rest.split('/')[0]}/ns-{rest.replace('/', '-')}",
    "win32": lambda rest: f"{LEARN}windows/win32/{rest}",
    "driver": lambda rest: f"{LEARN}windows-hardware/drivers/{rest}",
    "crt": lambda rest: f"{LEARN}cpp/c-runtime-library/reference/{rest}",
    "winrt": lambda rest: f"{LEARN}uwp/api/{rest}",
    "learn": lambda rest: f"{LEARN}{rest}",
    "winetest": lambda rest: f"https://github.com/wine-mirror/wine/blob/master/dlls/{rest}",  # tests that their authors run on Windows too
    "https": lambda rest: f"https:{rest}",
}


@dataclass
class Fact:
    id: str
    group: str
    says: str
    expected: list[str]  # each of them is fine; empty for a fact that no program can check
    used: str
    guard: str
    sources: list[str]
    why_not: str = ""  # for a fact that the program does not check


@dataclass
class Group:
    name: str
    title: str
    seconds: int
    calls: list[str]
    facts: list[Fact] = field(default_factory=list)


@dataclass
class Difference:
    """What the program sees under Wine instead of what a fact expects."""
    result: str  # "differs" or "not applicable"
    seen: str
    why: str
    machines: tuple[str, ...]  # "bare": a prefix as Wine makes it; "lab": a machine of the lab


class Wrong(Exception):
    pass


def address(source: str) -> str:
    kind, _, rest = source.partition(":")
    if kind not in ADDRESSES or not rest:
        raise Wrong(f"{source}: not a source")
    return ADDRESSES[kind](rest)


def tables() -> dict[str, Any]:
    return tomllib.loads(FACTS.read_text("utf-8"))


def read_facts() -> list[Group]:
    groups = []
    for name, blocks in tables().items():
        if name == "without_fact":
            continue
        group = Group(name, blocks[0].pop("title"), blocks[0].pop("seconds", SECONDS), [])
        for block in blocks:
            group.calls += block.pop("calls", [])
            shared = {key: block.pop(key) for key in ("used", "guard", "sources") if key in block}
            for key, row in block.items():
                row = {"expected": [], "used": "", "guard": "", "sources": [], "says": "", **shared, **row}
                if isinstance(row["expected"], str):
                    row["expected"] = [row["expected"]]
                group.facts.append(Fact(f"{name}.{key}", name, **row))
        groups.append(group)
    return groups


def read_differences(version: int) -> dict[str, list[Difference]]:
    """Fact -> its differences under this version of Wine."""
    if version not in WINES:
        raise Wrong(f"{FOLDER.name}/wine-{version}.toml is missing: it lists how Wine {version} differs from Windows")
    found: dict[str, list[Difference]] = {}
    content = tomllib.loads(WINES[version].read_text("utf-8"))
    shared = content.pop("shared")
    for machine, groups in content.items():
        machines = ("bare", "lab") if machine == "both" else (machine,)
        for group, rows in groups.items():
            for name, row in rows.items():
                row = shared[row] if isinstance(row, str) else row
                result = "differs" if "seen" in row else "not applicable"
                seen = row["seen"] if "seen" in row else row["not_checked"]
                found.setdefault(f"{group}.{name}", []).append(Difference(result, seen, row["why"], machines))
    return found


def without_fact(functions: set[str]) -> list[str]:
    """The functions that no fact covers and that the list of exceptions does not have either."""
    covered = {name for names in tables()["without_fact"].values() for name in names}
    named = set()  # by sources and sentences; compared without letter case, a leading underscore and a trailing W
    for group in read_facts():
        covered |= set(group.calls)
        for fact in group.facts:
            named |= {word.lower() for source in fact.sources for word in re.findall(r"\w+", source)}
            named |= {word.lower() for word in re.findall(r"\w+", fact.says)}
    return sorted(name for name in functions - covered if name.lower() not in named and name.lower().lstrip("_") not in named)


# --- the program

def literal(text: str, wide: bool) -> str:
    escaped = "".join(c if " " <= c <= "~" and c not in '"\\' else f"\\{c}" if c in '"\\' else
                      f"\\u{ord(c):04X}" if ord(c) >= 0xA0 else f"\\{ord(c):03o}" for c in text)
    return ("L" if wide else "") + f'"{escaped}"'


def program(out: Path) -> None:
    lines = ["// Made by the build from facts.toml.", '#include "windows_check/check.h"', "", "namespace windows_check", "{",
             "const std::vector<Fact>& AllFacts()", "{", "    static const std::vector<Fact> facts = {"]
    for group in read_facts():
        for fact in group.facts:
            if fact.expected:
                expected = ", ".join(literal(text, True) for text in fact.expected)
                lines.append(f"        {{{literal(fact.id, False)}, {literal(group.name, False)}, {literal(fact.says, True)}, {{{expected}}}, "
                             f"{group.seconds * 1000}}},")
    lines += ["    };", "    return facts;", "}", "}  // namespace windows_check", ""]
    out.write_text("\n".join(lines), "utf-8")


# --- the page

def cell(text: str) -> str:
    return text.replace("\\", "\\\\").replace("|", "\\|").replace("<", "&lt;").replace("*", "\\*").replace("\n", " ")


def code(text: str) -> str:
    return f"`{text}`".replace("|", "\\|")


def wine(fact: Fact, by_version: dict[int, dict[str, list[Difference]]]) -> str:
    if not fact.expected:
        return cell(fact.why_not)
    texts = {}
    for version, differences in by_version.items():
        parts = []
        for row in differences.get(fact.id, []):
            seen = f"not checked: {cell(row.why)}" if row.result == "not applicable" else f"{code(row.seen)}: {cell(row.why)}"
            parts.append(seen + (" (with the lab's stand-ins)" if row.machines == ("lab",) else ""))
        texts[version] = "; ".join(dict.fromkeys(parts)) or "the same"
    if len(set(texts.values())) == 1:
        return texts.popitem()[1]
    return "<br>".join(f"Wine {version}: {text}" for version, text in texts.items())


def page() -> str:
    groups = read_facts()
    differences = {version: read_differences(version) for version in sorted(WINES)}
    wines = "Wine " + " and ".join(map(str, differences))
    facts = [fact for group in groups for fact in group.facts]
    checked = sum(bool(fact.expected) for fact in facts)
    lines = [
        "# What the product relies on in Windows",
        "",
        "<!-- Made by `tools/windows_facts.py page` from windows_check/facts.toml and windows_check/wine-*.toml; change those. -->",
        "",
        f"`TavikWindowsCheck.exe` checks {checked} facts; {len(facts) - checked} more cannot be checked by a harmless program. No report from a real Windows",
        f"has come back yet. {sum(len(fact.sources) > 1 for fact in facts)} facts have several sources, {sum(len(fact.sources) == 1 for fact in facts)} "
        f"have one, {sum(not fact.sources for fact in facts)} are assumptions.",
        "",
        "| Column | Meaning |",
        "|---|---|",
        "| Fact | id for the program's `--only`, and the fact |",
        "| Expected | what the check must see, in its own words; \"or\": each is fine |",
        "| Source | public documentation or source; without one the fact is an assumption |",
        f"| {wines} | \"the same\" as expected, or what is seen there, and why |",
        "| Relied on | the part of the product that does |",
        "| Guarded by | what keeps a surprise harmless, or what happens then |",
    ]
    for group in groups:
        lines += ["", f"## {group.title}", "", f"| Fact | Expected | Source | {wines} | Relied on | Guarded by |", "|---" * 6 + "|"]
        for fact in group.facts:
            expected = " or ".join(code(text) for text in fact.expected) or "not checked by the program"
            links = ", ".join(f"[{number}]({address(source)})" for number, source in enumerate(fact.sources, 1))
            links += " (one source)" if len(fact.sources) == 1 else ""
            cells = [f"**{fact.id}** {cell(fact.says)}", expected, links or "assumption", wine(fact, differences), cell(fact.used), cell(fact.guard)]
            lines.append(f"| {' | '.join(cells)} |")
    return "\n".join(lines) + "\n"


# --- the check

def complaints() -> list[str]:
    facts = [fact for group in read_facts() for fact in group.facts]
    found = []
    in_sources = {".".join(names) for file in FOLDER.glob("*.cpp") for names in re.findall(r"^(?:SHORT_)?FACT\(\s*(\w+),\s*(\w+)", file.read_text("utf-8"), re.M)}
    checked = {fact.id for fact in facts if fact.expected}
    found += [f"{name}: there is no check in windows_check" for name in sorted(checked - in_sources)]
    found += [f"{name}: a check without a fact in facts.toml" for name in sorted(in_sources - checked)]
    found += [f"{name}: in {file.name}, but there is no such fact" for version, file in WINES.items()
              for name in sorted(set(read_differences(version)) - checked)]
    for fact in facts:
        found += [f"{fact.id}: \"{what}\" is missing" for what in ("says", "used", "guard") if not getattr(fact, what)]
        if not fact.expected and not fact.why_not:
            found.append(f"{fact.id}: neither \"expected\" nor \"why_not\"")
        found += [f"{fact.id}: {file} does not exist" for file in re.findall(r"\b(?:src|tests|cases|lab|scripts)/[\w./-]+\w", fact.used + " " + fact.guard)
                  if not (TOP / file).exists()]
        for source in fact.sources:
            address(source)
    return found


def main(arguments: list[str]) -> int:
    try:
        if arguments == ["page"]:
            PAGE.parent.mkdir(parents=True, exist_ok=True)
            PAGE.write_text(page(), "utf-8")
        elif arguments == ["check"]:
            wrong = complaints()
            for line in wrong:
                print(line)
            groups = read_facts()
            print(f"{sum(len(group.facts) for group in groups)} facts in {len(groups)} groups, {len(wrong)} complaints.")
            return 1 if wrong else 0
        elif len(arguments) == 2 and arguments[0] == "program":
            program(Path(arguments[1]))
        else:
            print(__doc__, file=sys.stderr)
            return 2
    except (Wrong, KeyError, TypeError, tomllib.TOMLDecodeError) as error:
        print(f"windows_facts: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
