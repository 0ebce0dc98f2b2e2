#!/usr/bin/python3
"""Makes the pages and tables that say what companion/outcomes.toml says.

    scripts/docs            writes what is out of date
    scripts/docs --check    only names it; exit code 1 when there is any

docs/outcomes.md and deploy/return-codes.json are made as a whole. In any other page below docs/ and deploy/ the lines between
"<!-- made by scripts/docs: return-codes -->" and "<!-- end -->" are replaced by the table of the return codes.
"""
import json
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.dont_write_bytecode = True
sys.path.insert(0, str(ROOT))

from companion import outcomes  # noqa: E402
from companion.outcomes import Outcome  # noqa: E402

MARK = "<!-- made by scripts/docs: return-codes -->"
BLOCK = re.compile(f"({MARK}\n).*?(<!-- end -->)", re.S)
GROUPS = (
    ("Nothing to repair, or nobody to repair it for", lambda one: one.mode == "check" and not one.id.startswith(DOWNLOAD_AND_ON)),
    ("Download", lambda one: one.id.startswith("download-")),
    ("Desktop edition", lambda one: one.mode == "check" and one.id.startswith(("install", "repaired"))),
    ("Store edition", lambda one: one.id.startswith("store-")),
    ("Given installer (`-VLT -Install`)", lambda one: one.mode == "direct"),
    ("With and without `-VLT -Install`", lambda one: one.mode == "any"),
)
DOWNLOAD_AND_ON = ("download-", "install", "repaired", "store-")
RETRY = {"no": "no", "yes": "yes", "later": "later", "after-restart": "after a restart"}
# Return code, its meaning, and the type that Intune (Win32 app) and Configuration Manager have for it.
STANDARD = (
    (0, "Done, or nothing to do", "Success", "Success (no reboot)"),
    (3010, "Done, and a restart completes it", "Soft reboot", "Soft reboot"),
    (1618, "Not done, and another start may do it", "Retry", "Fast retry"),
    (1603, "Not done, and somebody has to look", "Failed", "Failure (no reboot)"),
)
HEAD = """# Outcomes

<!-- Made from companion/outcomes.toml by scripts/docs: change that file, not this one. -->

The exit code alone does not say how a run ended: -1 has many reasons, 0 can hide a wanted restart, and after `-VLT -Install` even a
failed installation gives 0. Exit code and log together do: each run has exactly one of the {number} outcomes below. `TavikToolCompanion.exe
explain LOG --exit N` names it. How they are recognised to the letter stands in [outcomes.toml](../companion/outcomes.toml); that each is
recognised rightly is shown by the cases of the [lab](../lab/README.md), under Wine and not on a real Windows.

"Code" is what a deployment system should be told instead of the tool's own exit code. `TavikToolCompanion.exe run` does that.

{codes}
In the log lines below `*` stands for any text, `<result>` for a number, `<failure>` for a number other than 0, 1641, 3010 and 3011, and
`\\t` for a tab. They come in the order given, with others between them. Where several outcomes share a line, the text says what
else tells them apart.
"""


def code(pattern: str) -> str:
    return "`" + pattern.replace("\t", "\\t").replace("|", "\\|") + "`"


def numbers(values: list[int]) -> str:
    return ", ".join(map(str, values))


def exit_cell(one: Outcome) -> str:
    if one.exit == "result":
        return "that result" if one.result is None else numbers(one.result)
    if one.exit == "negative":
        return "an HRESULT, or -1"
    return f"any but {numbers(one.exit_not)}" if one.exit == "any" else numbers(one.exit)


def log_cell(one: Outcome) -> str:
    if one.log == "none":
        return "there is none, or it is empty"
    if one.fallback:
        return "stops anywhere; no other outcome fits"
    parts = [code(pattern) for pattern in one.lines]
    if one.result is not None:
        parts.append(f"result: {numbers(one.result)}")
    if one.result_not is not None:
        parts.append(f"result: not {numbers(one.result_not)}")
    if one.one_of:
        parts.append("one of " + ", ".join(map(code, one.one_of)))
    if one.without_after:
        parts.append("none below of " + ", ".join(map(code, one.without_after)))
    if one.last:
        parts.append("at the end " + " or ".join(map(code, one.last)))
    if len(one.without) > 2:
        parts.append("no line of the outcomes beside it")
    elif one.without:
        parts.append("without " + ", ".join(map(code, one.without)))
    return "<br>".join(parts)


def rows(found: list[Outcome]) -> str:
    head = "| Outcome | Exit code | Log | Meaning | What to do | Again? | Code |\n|---|---|---|---|---|---|---|\n"
    return head + "".join(f"| **{one.id}**<br>{one.title} | {exit_cell(one)} | {log_cell(one)} | {cell(one.owner)} {cell(one.cause)} | "
                          f"{cell(one.action)} | {RETRY[one.retry]} | {one.code} |\n" for one in found)


def cell(text: str) -> str:
    return re.sub(r"\s+", " ", text).replace("|", "\\|").replace("<", "&lt;")


def code_table(found: list[Outcome]) -> str:
    """For pages: what the codes mean, and which outcomes have them."""
    lines = ["| Code | Meaning | Intune | Configuration Manager | Outcomes |", "|---|---|---|---|---|"]
    for number, meaning, intune, manager in STANDARD:
        ids = ", ".join(one.id for one in found if one.code == number)
        lines.append(f"| {number} | {meaning} | {intune} | {manager} | {ids} |")
    return "\n".join(lines) + "\n"


def page(found: list[Outcome]) -> str:
    text = HEAD.format(number=len(found), codes=code_table(found))
    placed: list[Outcome] = []
    for title, belongs in GROUPS:
        group = [one for one in found if belongs(one)]
        placed += group
        text += f"\n## {title}\n\n{rows(group)}"
    if sorted(one.id for one in placed) != sorted(one.id for one in found):
        raise ValueError("an outcome is in no group, or in two")
    return text


def codes_file(found: list[Outcome]) -> str:
    codes = [{"code": number, "meaning": meaning, "intune": intune, "configuration_manager": manager,
              "outcomes": [one.id for one in found if one.code == number]} for number, meaning, intune, manager in STANDARD]
    return json.dumps({"made_from": "companion/outcomes.toml by scripts/docs", "codes": codes}, indent=1) + "\n"


def wanted(root: pathlib.Path) -> dict[pathlib.Path, str]:
    """The content of each file that is made, wholly or in part, below this folder."""
    found = outcomes.catalogue()
    files = {root / "docs" / "outcomes.md": page(found), root / "deploy" / "return-codes.json": codes_file(found)}
    for file in sorted({*(root / "docs").rglob("*.md"), *(root / "deploy").rglob("*.md")} - set(files)):
        text = file.read_text("utf-8")
        filled, times = BLOCK.subn(lambda match: match[1] + code_table(found) + match[2], text)
        if times != text.count(MARK):
            raise ValueError(f"{file.relative_to(root)}: a table without its end")
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
        print(f"{file.relative_to(ROOT)} {'is out of date: scripts/docs makes it anew' if arguments else 'written'}")
        if not arguments:
            file.write_text(files[file], "utf-8")
    print(f"{len(files)} files made from {len(outcomes.catalogue())} outcomes, {len(stale)} {'out of date' if arguments else 'changed'}.")
    return 1 if arguments and stale else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
