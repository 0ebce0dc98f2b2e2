"""Makes the pages and tables from companion/outcomes.toml.

    scripts/docs            writes the files that are out of date
    scripts/docs --check    only names them; exit code 1 if there are any

docs/outcomes.md and deploy/return-codes.json are made completely. In any other page below docs/ and deploy/ the lines between
"<!-- made by scripts/docs: return-codes -->" and "<!-- end -->" are replaced by the table of the return codes.
"""
import json
import pathlib
import re
import sys
from collections.abc import Sequence

from companion import outcomes
from companion.outcomes import Outcome
from tools.project import TOP as ROOT

MARK = "<!-- made by scripts/docs: return-codes -->"
BLOCK = re.compile(f"({MARK}\n).*?(<!-- end -->)", re.S)
DOWNLOAD_AND_ON = ("download-", "install", "repaired", "store-")
GROUPS = (
    ("Nothing to repair", lambda one: one.mode == "check" and not one.id.startswith(DOWNLOAD_AND_ON)),
    ("Download", lambda one: one.id.startswith("download-")),
    ("Desktop edition", lambda one: one.mode == "check" and one.id.startswith(("install", "repaired"))),
    ("Store edition", lambda one: one.id.startswith("store-")),
    ("Given installer", lambda one: one.mode == "direct"),
    ("Any run", lambda one: one.mode == "any"),
)
RETRY = {"no": "no", "yes": "yes", "later": "later", "after-restart": "after a restart"}
# Return code, its meaning, and the type that Intune (Win32 app) and Configuration Manager have for it.
STANDARD = (
    (0, "Done, or nothing to do", "Success", "Success (no reboot)"),
    (3010, "Done, restart needed", "Soft reboot", "Soft reboot"),
    (1618, "Not done, try again", "Retry", "Fast retry"),
    (1603, "Not done, an administrator must act", "Failed", "Failure (no reboot)"),
)
HEAD = """# Outcomes

<!-- Made from companion/outcomes.toml by scripts/docs: change that file, not this one. -->

Each run of the tool has exactly one of these {number} outcomes. To find the one of your run:

```
TavikToolCompanion explain LOG --exit N
```

Without that program, compare exit code and log with the entries of one group: a run with `-VLT -Install` belongs to
[Given installer](#given-installer), a log that ends early to [Any run](#any-run).

| Group | Outcomes |
|---|---|
{index}
The exit code alone is not enough: -1 has many reasons, 0 can hide a restart that is needed, and with `-VLT -Install` even a failed
installation ends with 0. A deployment system should get the standard code of the outcome instead; `TavikToolCompanion run` returns it:

{codes}
In log lines, `*` is any text, `<result>` a number, `<failure>` a number other than 0, 1641, 3010 and 3011, and `\\t` a tab. Other lines
may come between them. [outcomes.toml](../companion/outcomes.toml) has the exact rules.
[Tests](../lab/README.md) under Wine show that each outcome is recognised; on a real Windows this has not been tried.
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
    return f"""
### {one.id}

- **{one.title}**: exit code {exit_codes(one)}; standard code {one.code}; start again: {RETRY[one.retry]}
- Log: {log_lines(one)}
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
    groups = {title: [one for one in found if belongs(one)] for title, belongs in GROUPS}
    if sorted(one.id for group in groups.values() for one in group) != sorted(one.id for one in found):
        raise ValueError("an outcome is in no group, or in two")
    index = "".join(f"| {title} | {', '.join(f'[{one.id}](#{one.id})' for one in group)} |\n" for title, group in groups.items())
    return HEAD.format(number=len(found), index=index, codes=code_table(found)) + "".join(
        f"\n## {title}\n{''.join(map(entry, group))}" for title, group in groups.items())


def codes_file(found: list[Outcome]) -> str:
    codes = [{"code": number, "meaning": meaning, "intune": intune, "configuration_manager": manager,
              "outcomes": [one.id for one in found if one.code == number]} for number, meaning, intune, manager in STANDARD]
    text = json.dumps({"made_from": "companion/outcomes.toml by scripts/docs", "codes": codes}, indent=1) + "\n"
    return re.sub(r"\[([^][{]*)\]", lambda found: f"[{' '.join(found[1].split())}]", text)  # a list of texts in one line


def wanted(root: pathlib.Path) -> dict[pathlib.Path, str]:
    """The text of each file below this folder that is made, completely or in part."""
    found = outcomes.catalogue()
    files = {root / "docs" / "outcomes.md": page(found), root / "deploy" / "return-codes.json": codes_file(found)}
    for file in sorted({*(root / "docs").rglob("*.md"), *(root / "deploy").rglob("*.md")} - set(files)):
        text = file.read_text("utf-8")
        filled, times = BLOCK.subn(lambda match: match[1] + code_table(found) + match[2], text)
        if times != text.count(MARK):
            raise ValueError(f"{file.relative_to(root)}: the table has no end mark")
        if times:
            files[file] = filled
    return files


def main(arguments: list[str]) -> int:
    if arguments not in ([], ["--check"]):
        print(__doc__, file=sys.stderr)
        return 2
    try:
        files = wanted(ROOT)
    except (ValueError, TypeError, KeyError) as error:
        print(f"scripts/docs: {error}", file=sys.stderr)
        return 1
    stale = [file for file, text in files.items() if not file.exists() or file.read_text("utf-8") != text]
    for file in stale:
        print(f"{file.relative_to(ROOT)} {'is out of date: run scripts/docs' if arguments else 'written'}")
        if not arguments:
            file.write_text(files[file], "utf-8")
    print(f"{len(files)} files made from {len(outcomes.catalogue())} outcomes, {len(stale)} {'out of date' if arguments else 'changed'}.")
    return 1 if arguments and stale else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
