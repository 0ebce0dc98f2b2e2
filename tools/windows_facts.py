#!/usr/bin/python3
"""What the product relies on in Windows: windows_check/facts.toml, and what is made from it.

    tools/windows_facts.py page             writes docs/windows-facts.md
    tools/windows_facts.py check            the page is up to date, every fact has a check and every check a fact, every fact
                                           says where the product relies on it, how it is guarded and where it comes from
    tools/windows_facts.py program FILE     the facts as C++, for the build
"""
import re
import sys
import tomllib
from dataclasses import dataclass, field
from pathlib import Path

TOP = Path(__file__).resolve().parent.parent
FOLDER = TOP / "windows_check"
FACTS = FOLDER / "facts.toml"
DIFFERENCES = FOLDER / "wine-differences.toml"
CALLS = FOLDER / "calls.toml"
PAGE = TOP / "build" / "docs" / "windows-facts.md"

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
    "https": lambda rest: f"https:{rest}",
}
MADE = "Made by `tools/windows_facts.py page`"


@dataclass
class Fact:
    id: str
    group: str
    says: str
    expected: list[str]  # each of them is fine; empty for a fact that no program can check
    used: str
    guard: str
    sources: list[str]
    why_not: str = ""  # for a fact that the program does not look at


@dataclass
class Group:
    name: str
    title: str
    facts: list[Fact] = field(default_factory=list)


class Wrong(Exception):
    pass


def address(source: str) -> str:
    kind, _, rest = source.partition(":")
    if kind not in ADDRESSES or not rest:
        raise Wrong(f"{source}: not a source")
    return ADDRESSES[kind](rest)


def read_facts() -> list[Group]:
    groups = []
    for name, table in tomllib.loads(FACTS.read_text("utf-8")).items():
        group = Group(name, table.pop("title"))
        used, guard, sources = table.pop("used", ""), table.pop("guard", ""), table.pop("sources", [])
        for key, row in table.items():
            expected = row.pop("expected", [])
            fact = Fact(f"{name}.{key}", name, row.pop("says", ""), [expected] if isinstance(expected, str) else expected,
                        row.pop("used", used), row.pop("guard", guard), row.pop("sources", sources), row.pop("why_not", ""))
            if row:
                raise Wrong(f"{fact.id}: unknown: {', '.join(row)}")
            group.facts.append(fact)
        groups.append(group)
    return groups


def read_differences() -> dict[str, list[dict[str, str]]]:
    found: dict[str, list[dict[str, str]]] = {}
    for row in tomllib.loads(DIFFERENCES.read_text("utf-8")).get("difference", []):
        found.setdefault(row["id"], []).append(row)
    return found


def read_calls() -> dict[str, dict[str, str | list[str]]]:
    return tomllib.loads(CALLS.read_text("utf-8"))


# --- the program

def literal(text: str, wide: bool) -> str:
    escaped = "".join(c if " " <= c <= "~" and c not in '"\\' else f"\\{c}" if c in '"\\' else
                      f"\\u{ord(c):04X}" if ord(c) >= 0xA0 else f"\\{ord(c):03o}" for c in text)
    return ("L" if wide else "") + f'"{escaped}"'


def program(out: Path) -> None:
    lines = ["// Made by the build from facts.toml.", '#include "windows_check/fact.h"', "", "namespace windows_check", "{",
             "const std::vector<Fact>& AllFacts()", "{", "    static const std::vector<Fact> facts = {"]
    for group in read_facts():
        for fact in group.facts:
            if fact.expected:
                expected = ", ".join(literal(text, True) for text in fact.expected)
                lines.append(f"        {{{literal(fact.id, False)}, {literal(group.name, False)}, {literal(fact.says, True)}, {{{expected}}}}},")
    lines += ["    };", "    return facts;", "}", "}  // namespace windows_check", ""]
    out.write_text("\n".join(lines), "utf-8")


# --- the page

def cell(text: str) -> str:
    return text.replace("\\", "\\\\").replace("|", "\\|").replace("<", "&lt;").replace("*", "\\*").replace("\n", " ")


def code(text: str) -> str:
    return f"`{text}`".replace("|", "\\|")


def wine(fact: Fact, differences: dict[str, list[dict[str, str]]]) -> str:
    if not fact.expected:
        return cell(fact.why_not)
    rows = differences.get(fact.id)
    if not rows:
        return "the same"
    parts = []
    for row in rows:
        seen = f"not looked at: {cell(row['reason'])}" if row["result"] == "not applicable" else f"{code(row['seen'])}: {cell(row['reason'])}"
        parts.append(seen + (" (with the lab's stand-ins)" if row.get("machine") == "lab" else ""))
    return "; ".join(dict.fromkeys(parts))


def links(sources: list[str]) -> str:
    return ", ".join(f"[{number}]({address(source)})" for number, source in enumerate(sources, 1))


def page() -> str:
    groups = read_facts()
    differences = read_differences()
    checked = sum(bool(fact.expected) for group in groups for fact in group.facts)
    others = sum(not fact.expected for group in groups for fact in group.facts)
    lines = [
        "# What the product relies on in Windows",
        "",
        f"<!-- {MADE} from windows_check/facts.toml and wine-differences.toml; change those. -->",
        "",
        "The product is built and tested under Wine and runs on Windows. Below stands every place known to us where the two could",
        f"differ: {checked} facts that `TavikWindowsCheck.exe` looks at, and {others} that no harmless program can look at. **Nothing of this",
        "has been seen on a real Windows yet.** The last column is empty for that; the first report that comes back fills it.",
        "",
        "`build/release/TavikWindowsCheck.exe` prints each fact with what it expected and what it saw",
        "([how to run it](../windows_check/README.txt)). Exit code 0: nothing differs. Under Wine it runs among the cases",
        "(`windows_check/tests/test_windows_check.py`): there every difference stands in `windows_check/wine-differences.toml`, and one that",
        "comes or goes is an error.",
        "",
        "| Column | Meaning |",
        "|---|---|",
        "| Fact | id for the program's `--only`, and the fact |",
        "| Expected | what the check must see, in its own words; \"or\": each is fine |",
        "| Source | public documentation or public source; where none is known to us the fact is an assumption and says so |",
        "| Wine 8 | \"the same\": as expected, under Wine; otherwise what is seen there, and why |",
        "| Relied on | the part of the product that does |",
        "| Guarded by | what keeps a surprise harmless, or what happens then |",
        "| Real PC | what a report from a real Windows showed |",
    ]
    for group in groups:
        lines += ["", f"## {group.title}", "", "| Fact | Expected | Source | Wine 8 | Relied on | Guarded by | Real PC |",
                  "|---|---|---|---|---|---|---|"]
        for fact in group.facts:
            expected = " or ".join(code(text) for text in fact.expected) if fact.expected else "not looked at by the program"
            lines.append(f"| **{fact.id}** {cell(fact.says)} | {expected} | {links(fact.sources) or 'assumption'} | "
                         f"{wine(fact, differences)} | {cell(fact.used)} | {cell(fact.guard)} | |")
    lines += ["", "## Call by call", "", "Every function of Windows and of its C runtime that the product calls, and what of the C++ library rests on them. A case of",
              "the lab compares the list with what the product is linked with.", "", "| Call | Facts |", "|---|---|"]
    for table in read_calls().values():
        for name in sorted(table, key=str.lower):
            about = table[name]
            lines.append(f"| {code(name)} | {cell(about) if isinstance(about, str) else ', '.join(about)} |")
    return "\n".join(lines) + "\n"


# --- the check

def complaints() -> list[str]:
    groups = read_facts()
    differences = read_differences()
    facts = [fact for group in groups for fact in group.facts]
    found = []
    in_sources = {name for file in FOLDER.glob("*.cpp")
                  for name in re.findall(r'\{"([a-z0-9_]+\.[a-z0-9_]+)"', file.read_text("utf-8"))}
    checked = {fact.id for fact in facts if fact.expected}
    found += [f"{name}: there is no check in windows_check" for name in sorted(checked - in_sources)]
    found += [f"{name}: a check without a fact in facts.toml" for name in sorted(in_sources - checked)]
    found += [f"{name}: in wine-differences.toml, but no such fact" for name in sorted(set(differences) - checked)]
    for fact in facts:
        for what, text in (("says", fact.says), ("used", fact.used), ("guard", fact.guard)):
            if not text:
                found.append(f"{fact.id}: \"{what}\" is missing")
        if not fact.expected and not fact.why_not:
            found.append(f"{fact.id}: neither \"expected\" nor \"why_not\"")
        for file in re.findall(r"\b(?:src|tests|lab|scripts)/[\w./-]+\w", fact.used + " " + fact.guard):
            if not (TOP / file).exists():
                found.append(f"{fact.id}: {file} does not exist")
        for source in fact.sources:
            address(source)
    names = {fact.id for fact in facts} | {group.name for group in groups}
    for table in read_calls().values():
        for call, about in table.items():
            if isinstance(about, list):
                found += [f"{call}, in calls.toml: there is no fact {name}" for name in about if name not in names]
    for name, rows in differences.items():
        for row in rows:
            if row.get("result") not in ("differs", "not applicable") or not row.get("reason") or not row.get("seen"):
                found.append(f"{name}: a difference needs a result, what was seen and a reason")
            if row.get("machine", "both") not in ("both", "bare", "lab"):
                found.append(f"{name}: no machine is called {row['machine']}")
    if not PAGE.is_file() or PAGE.read_text("utf-8") != page():
        found.append("docs/windows-facts.md is not up to date: tools/windows_facts.py page")
    return found


def main(arguments: list[str]) -> int:
    try:
        if arguments == ["page"]:
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
    except (Wrong, KeyError, tomllib.TOMLDecodeError) as error:
        print(f"windows-facts: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
