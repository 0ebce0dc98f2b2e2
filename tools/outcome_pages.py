"""Makes the page and the tables of outcomes from companion/outcomes.toml.

    scripts/docs            writes build/docs/outcomes.md, and the files of the repository that are out of date
    scripts/docs --check    writes the page only, and names the files that are out of date; exit code 1 if there are any

Two files of the repository are made: deploy/return-codes.json, and in docs/deploying.md the lines between the two marks.
"""
import json
import pathlib
import re
import sys
from collections.abc import Sequence

from companion import outcomes
from companion.outcomes import Outcome
from tools.project import TOP as ROOT

PAGE = ROOT / "build" / "docs" / "outcomes.md"
BLOCK = re.compile("(<!-- made by scripts/docs: return-codes -->\n).*?(<!-- end -->)", re.S)
RETRY = {"no": "no", "yes": "yes", "later": "later", "after-restart": "after a restart"}
# Return code, its meaning, and the type that Intune (Win32 app) and Configuration Manager have for it.
STANDARD = (
    (0, "Done, or nothing to do", "Success", "Success (no reboot)"),
    (3010, "Done, restart needed", "Soft reboot", "Soft reboot"),
    (1618, "Not done, try again", "Retry", "Fast retry"),
    (1603, "Not done, an administrator must act", "Failed", "Failure (no reboot)"),
)
HEAD = """# Outcomes

Each run of the tool has exactly one of these {number} outcomes; the command `run` of the companion has {own} more, the last group. To find the
one of your run:

```
TavikToolCompanion explain LOG --exit N
```

Without that program, compare exit code and log with the entries of one group: a run with `-VLT -Install` belongs to
[Given installer](#given-installer), a log that ends early to [Any run](#any-run).

| Group | Outcomes, each after the number of its event (source `TavikToolCompanion` of the Application log) |
|---|---|
{index}
The exit code alone is not enough: -1 has many reasons, 0 can hide a restart that is needed, and with `-VLT -Install` even a failed
installation ends with 0. A deployment system should get the standard code of the outcome instead; `TavikToolCompanion run` returns it:

{codes}
In log lines, `*` is any text, `<result>` a number, `<failure>` a number other than 0, 1641, 3010 and 3011, and `\\t` a tab. Other lines
may come between them. [outcomes.toml](../companion/outcomes.toml), from which this page is made, has the exact rules.
Tests under Wine show that each outcome is recognised; on a real Windows this has not been tried.
"""


def code(pattern: str) -> str:
    return "`" + pattern.replace("\t", "\\t") + "`"


def numbers(values: Sequence[int]) -> str:
    return ", ".join(map(str, values))


def exit_codes(one: Outcome) -> str:
    if one.exit == "result":
        return numbers(one.result) or "the result in the log"
    if one.exit == "negative":
        return "an HRESULT, or -1"
    return f"any except {numbers(one.exit_not)}" if one.exit == "any" else numbers(one.exit)


def log_lines(one: Outcome) -> str:
    if one.log == "none":
        return "none, or empty"
    if one.fallback:
        return "ends anywhere, and no other outcome fits"
    parts = [", then ".join(map(code, one.lines))] if one.lines else []
    if one.result or one.result_not:
        parts.append(f"result {numbers(one.result) or 'not ' + numbers(one.result_not)}")
    if one.one_of:
        parts.append("one of " + ", ".join(map(code, one.one_of)))
    if one.without_after:
        parts.append("below that no " + ", ".join(map(code, one.without_after)))
    if one.last:
        parts.append("last line " + " or ".join(map(code, one.last)))
    if len(one.without) > 2:
        parts.append("no line of the similar outcomes")
    elif one.without:
        parts.append("no " + ", ".join(map(code, one.without)))
    return "; ".join(parts)


def plain(text: str) -> str:
    return re.sub(r"\s+", " ", text).replace("<", "&lt;")


def entry(one: Outcome) -> str:
    """The heading is the id, so that a link to #id leads here."""
    is_own = one.mode == "run"
    return f"""
### {one.id}

- **{one.title}**: {'' if is_own else f'exit code {exit_codes(one)}; '}standard code {one.code}; start again: {RETRY[one.retry]}; event {one.event}
- Log: {'any, or none' if is_own else log_lines(one)}
- Meaning: {plain(one.owner)} {plain(one.cause)}
- What to do: {plain(one.action)}
"""


def code_table(found: list[Outcome]) -> str:
    """For pages: what the codes mean, and which outcomes have them."""
    lines = ["| Code | Meaning | Intune | Configuration Manager | Outcomes |", "|---|---|---|---|---|"]
    for number, meaning, intune, manager in STANDARD:
        ids = ", ".join(one.id for one in found if one.code == number)
        lines.append(f"| {number} | {meaning} | {intune} | {manager} | {ids} |")
    return "\n".join(lines) + "\n"


def page(found: list[Outcome]) -> str:
    groups: dict[str, list[Outcome]] = {}
    for one in found:
        groups.setdefault(one.heading, []).append(one)
    index = "".join(f"| {title} | {', '.join(f'{one.event} [{one.id}](#{one.id})' for one in group)} |\n" for title, group in groups.items())
    return HEAD.format(number=sum(one.mode != "run" for one in found), own=sum(one.mode == "run" for one in found), index=index, codes=code_table(found)) + "".join(
        f"\n## {title}\n{''.join(map(entry, group))}" for title, group in groups.items())


def codes_file(found: list[Outcome]) -> str:
    codes = [{"code": number, "meaning": meaning, "intune": intune, "configuration_manager": manager,
              "outcomes": [one.id for one in found if one.code == number]} for number, meaning, intune, manager in STANDARD]
    text = json.dumps({"made_from": "companion/outcomes.toml by scripts/docs", "codes": codes}, indent=1) + "\n"
    return re.sub(r"\[([^][{]*)\]", lambda found: f"[{' '.join(found[1].split())}]", text)  # a list of texts in one line


def wanted(root: pathlib.Path, found: list[Outcome]) -> dict[pathlib.Path, str]:
    """The text of each file of the repository that is made, completely or in part."""
    deploying = root / "docs" / "deploying.md"
    text, times = BLOCK.subn(lambda match: match[1] + code_table(found) + match[2], deploying.read_text("utf-8"))
    if times != 1:
        raise ValueError(f"{deploying.relative_to(root)}: the two marks around the table of return codes are missing")
    return {deploying: text, root / "deploy" / "return-codes.json": codes_file(found)}


def main(arguments: list[str]) -> int:
    if arguments not in ([], ["--check"]):
        print(__doc__, file=sys.stderr)
        return 2
    try:
        found = outcomes.catalogue()
        files = wanted(ROOT, found)
    except ValueError as error:
        print(f"scripts/docs: {error}", file=sys.stderr)
        return 1
    PAGE.parent.mkdir(parents=True, exist_ok=True)
    PAGE.write_text(page(found), "utf-8")
    stale = [file for file, text in files.items() if not file.exists() or file.read_text("utf-8") != text]
    for file in stale:
        print(f"{file.relative_to(ROOT)} {'is out of date: run scripts/docs' if arguments else 'written'}")
        if not arguments:
            file.write_text(files[file], "utf-8")
    print(f"{PAGE.relative_to(ROOT)} made from {len(found)} outcomes; {len(stale)} other files {'out of date' if arguments else 'changed'}.")
    return 1 if arguments and stale else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
