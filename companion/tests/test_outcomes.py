"""The catalogue of outcomes: its rules, its form, and what the cases state about it."""
from __future__ import annotations

import ast
import contextlib
import json
import re
from typing import Any

import pytest

from companion import outcomes
from companion.tests.known_logs import expected_logs
from tools import outcome_pages
from cases.support import corpus, statements
from lab import paths
from lab.session import NO_LINE_END, read_log

HEAD = """
[any]
heading = "Any run"
mode = "any"

[any.one]
title = "One"
event = 1
exit = [0]
lines = ["a"]
owner = "Text."
cause = "Text."
action = "Text."
retry = "no"
code = 0
"""


def one(**changes: Any) -> outcomes.Outcome:
    given = {"id": "one", "title": "One", "heading": "Any run", "mode": "any", "exit": "any", "owner": "-", "cause": "-", "action": "-", "retry": "no", "code": 0, "event": 1}
    return outcomes.Outcome(**{**given, **changes})


# Rules that no log of the lab exercises; test_reading.py compares the others with the companion

CHECK = "Currently installed VLT is version [23.40] from driver version []"
RESULT = {"lines": ["main", "R = <result>"], "exit": "result"}


@pytest.mark.parametrize("keys, code, log, matches", [
    ({"lines": ["a*c"]}, 0, ["ac"], True), ({"lines": ["a*c"]}, 0, ["abc", "x"], True), ({"lines": ["a*c"]}, 0, ["abcd"], False),
    ({"lines": ["a.c"]}, 0, ["abc"], False), ({"lines": ["[*]"]}, 0, ["[]"], True),
    ({"lines": ["a", "b"]}, 0, ["b", "a"], False), ({"lines": ["a", "b"]}, 0, ["a", "x", "b"], True), ({"lines": ["a", "a"]}, 0, ["a"], False),
    ({"lines": ["a*", "a*b"]}, 0, ["ab", "ac"], False),
    (RESULT, -6, ["main", "R = -6"], True), (RESULT, 6, ["main", "R = -6"], False),
    ({"lines": ["R = <result>"]}, 0, ["R = five"], False),
    *(({"lines": ["R = <failure>"]}, 0, [f"R = {number}"], number not in (0, 1641, 3010, 3011)) for number in (0, 1, -1, 30, 1641, 3010, 3011, 30100)),
    ({"exit": "negative"}, -1, ["a"], True), ({"exit": "negative"}, 0, ["a"], False)])
def test_a_rule(keys, code, log, matches):
    assert one(**keys).matches(code, log) is matches


def test_a_fallback_matches_only_alone():
    known = [one(id="a", last=["a"], exit=[1]), one(id="rest", fallback=True)]
    assert outcomes.matching(1, ["a"], known) == ["a"] and outcomes.matching(1, ["b"], known) == ["rest"]


def test_without_an_exit_code_all_that_fit_are_named():
    assert one(exit=[1]).matches(None, ["a"]) and one(exit="result", lines=["R = <result>"]).matches(None, ["R = 5"])
    assert outcomes.matching(None, ["Launched with command line: x"]) == ["interrupted", "quiet-end", "log-cut"]


@pytest.mark.parametrize("log, lines", [("a\nb\n", ["a", "b"]), ("a\nb", ["a", "b"]), ("", []), ("\n", [""]), ("a\n\nb\r\n", ["a", "", "b\r"])])
def test_the_lines_of_a_log(log, lines):
    assert [line.removesuffix(NO_LINE_END) for line in read_log(log.encode("utf-16-le"))] == lines


# The form

@pytest.mark.parametrize("before, after, fault", [
    ("any.one", "any.One", "kebab-case"), ('mode = "any"', 'mode = "both"', "unknown mode"), ('mode = "any"\n', "", "unknown or missing key"), ("[any]", "x = 1\n[any]", "outside of a group"), ("[0]", "[]", "unknown exit"), ("[0]", '"some"', "unknown exit"),
    ("[0]", '["0"]', "not a number"), ("code = 0", "code = true", "not a number"),
    ('"no"', '"never"', "unknown retry"), ("code = 0", "code = 1", "not a standard code"), ("code = 0", "code = 1618", "belong together"),
    ('retry = "no"', 'retry = "later"', "belong together"), ("code = 0", 'code = 0\nlog = "some"', "unknown log"),
    ("[0]", '"result"', "not remembered"), ("code = 0", "code = 0\nresult = [5]", "not remembered"),
    ('["a"]', '["<result>", "<result>"]', "more than one number"), ('["a"]', "[5]", "wrong type"), ('["a"]', '["@name"]', "wrong type: 'name'"),
    ('cause = "Text."', 'cause = " "', "empty text"), ('cause = "Text."', "cause = 5", "wrong type"),
    ("event = 1", "event = 0", "no event"), ("code = 0", "code = 0" + HEAD.replace("any.one", "check.two").replace("any", "check"), "an event is used twice"),
    ('"One"', '"One."', "not a sentence"), ('owner = "Text."', 'owner = "Text"', "not a sentence"),
    ("code = 0", "code = 0" + HEAD.replace("any", "check"), "used twice"), ("code = 0", "code = 0" + HEAD, "twice"),
    ("code = 0", 'colour = "red"', "unknown or missing key"), ('title = "One"', "", "unknown or missing key")])
def test_an_invalid_catalogue(before, after, fault):
    assert outcomes.read(HEAD)[0].id == "one"
    with pytest.raises(ValueError, match=fault):
        outcomes.read(HEAD.replace(before, after, 1))


def test_a_list_of_patterns_has_a_name():
    text = HEAD.replace('["a"]', '["x", "@name"]') + '[patterns]\nname = ["b", "c"]\n'
    assert outcomes.read(text)[0].lines == ["x", "b", "c"]


# By the first id. Consoles of fleets rely on these: a new outcome gets a new id.
EVENTS = {
    101: "same-release another-instance no-adapter no-usable-driver no-application no-application-store-unread",
    201: "repaired repaired-restart repaired-optional-failed repaired-old-left repaired-store-left",
    301: "installer-blocked installer-empty install-busy install-failed install-forbidden install-package-unreadable install-failed-other",
    401: "download-bad-address download-unreachable download-not-trusted download-not-there download-refused download-server-trouble "
         "download-broken download-disk-full download-file-in-the-way download-error",
    501: "store-installed store-not-completed store-canceled store-no-window store-error",
    601: "direct-file-missing direct-installer-blocked direct-installer-empty direct-busy direct-failed",
    701: "direct-done direct-restart direct-optional-failed direct-old-left direct-store-left direct-not-marked direct-not-started direct-no-location",
    801: "folder-not-prepared installation-exception quiet-end interrupted log-cut no-log-folder no-log",
    901: "in-use tool-running timed-out timed-out-ended not-started unclear", 911: "recovery-pending recovery-failed recovered recovered-restart"}


def test_the_event_of_an_outcome_never_changes():
    fixed = {name: first + at for first, names in EVENTS.items() for at, name in enumerate(names.split())}
    assert {one.id: one.event for one in outcomes.catalogue() if one.id in fixed} == fixed


# The pages made from it

def test_the_page_has_a_heading_for_every_outcome_and_a_link_to_it():
    text = outcome_pages.page(outcomes.catalogue())
    known = sorted(one.id for one in outcomes.catalogue())
    assert sorted(re.findall(r"^### ([a-z-]+)$", text, re.M)) == known
    assert {int(number) for number in re.findall(r"; event (\d+)$", text, re.M)} == {one.event for one in outcomes.catalogue()}
    assert dict(re.findall(r"\b(\d+) \[([a-z-]+)\]\(#\2\)", text)) == {str(one.event): one.id for one in outcomes.catalogue()}
    assert sorted(re.findall(r"\[([a-z-]+)\]\(#\1\)", text)) == known and text.index("](#") < 1000


def test_the_table_inside_a_page_is_replaced(tmp_path):
    page, first, last = tmp_path / "docs" / "deploying.md", "Before\n<!-- made by scripts/docs: return-codes -->\n", "<!-- end -->\nAfter\n"
    page.parent.mkdir()
    page.write_text(f"{first}old\n{last}")
    made = outcome_pages.wanted(tmp_path, outcomes.catalogue())
    assert re.fullmatch(rf"{first}(\|.*\|\n){{6}}{last}", made[page])
    assert json.loads(made[tmp_path / "deploy" / "return-codes.json"])["codes"][1]["outcomes"] == ["repaired-restart", "direct-restart", "recovered-restart"]
    page.write_text(f"{first}old\n")
    with pytest.raises(ValueError, match="the two marks"):
        outcome_pages.wanted(tmp_path, outcomes.catalogue())


def test_the_page_of_boxes_names_outcomes_that_exist():
    boxes = (paths.ROOT / "docs" / "exit-codes.md").read_text("utf-8").split("|---|---|")[1]
    named = re.findall(r"`([a-z]+(?:-[a-z]+)*)`", boxes)
    assert "same-release" in named and set(named) <= {one.id for one in outcomes.catalogue()}


# What the cases state

def stated_alone() -> set[str]:
    """The outcomes that a case or its helper states for a start without an alternative."""
    found = set()
    for file in [*paths.ROOT.glob("cases/*/test_*.py"), *paths.ROOT.glob("cases/support/*.py")]:
        for node in ast.walk(ast.parse(file.read_text("utf-8"))):
            if isinstance(node, ast.Constant) and isinstance(node.value, str):
                with contextlib.suppress(ValueError):
                    found |= {name for names in statements.starts(node.value) if len(names) == 1 for name in names}
    return found


# Proves: An outcome of the catalogue => at least one case states it
def test_every_outcome_has_a_case_that_states_it_alone():
    assert {one.id for one in outcomes.catalogue() if one.mode != "run"} - stated_alone() == set()
    own = (paths.ROOT / "companion" / "tests" / "test_run.py").read_text("utf-8")
    # No run is known whose exit code and log fit several outcomes or none.
    assert {one.id for one in outcomes.catalogue() if one.mode == "run" and f'"{one.id}"' not in own} == {"unclear"}


@pytest.mark.parametrize("text", ["nothing-like-it", "", "repaired,", "repaired | ", "2 ", "2repaired", "Repaired"])
def test_text_that_is_no_statement_is_refused(text):
    with pytest.raises(ValueError, match="is no outcome of the catalogue"):
        statements.starts(text)


def test_statement_gives_the_outcomes_of_each_start():
    assert statements.starts("quiet-end | no-log, 2 repaired") == [{"quiet-end", "no-log"}, {"repaired"}, {"repaired"}]


SAME = [CHECK, "Currently installed version of VLT is from the same release as the active driver. Exiting."]
OTHER = ["Launched with command line: x", "Another instance is running. Exiting."]


# Proves: Any start in any case of the lab => exit code and log have exactly one of the [outcomes](outcomes.md), the one stated for the case
@pytest.mark.parametrize("stated, codes, logs, at_once, fault", [
    ("same-release", [-1], [SAME], False, ""),
    ("same-release", [-1], [OTHER], False, "start 1: exit code -1, another-instance instead of same-release"),
    ("same-release", [0], [SAME], False, "log-cut"), ("same-release", [-1, -1], [SAME, SAME], False, "2 starts, 1 outcomes"),
    ("same-release, another-instance", [-1, -1], [SAME, OTHER], False, ""),
    ("same-release, another-instance", [-1, -1], [OTHER, SAME], False, "start 1"),
    ("same-release, another-instance", [-1, -1], [OTHER, SAME], True, ""),
    ("same-release, another-instance", [-1, -1], [OTHER, OTHER], True, "do not come to"),
    ("interrupted, same-release", [9, -1], [SAME, [CHECK]], True, ""), ("interrupted, same-release", [9, -1], [SAME, [CHECK]], False, "start 2"),
    ("no-log, same-release", [9, -1], [SAME], False, ""), ("same-release, no-log", [9, -1], [SAME], False, "do not come to"),
    ("interrupted | no-log, same-release", [9, -1], [SAME], False, ""), ("interrupted, same-release", [9, -1], [SAME], False, "do not come to"),
    ("same-release | no-log, 3 another-instance | no-log", [-1] * 4, [OTHER, SAME, OTHER], True, ""),
    ("same-release | no-log, 3 another-instance | no-log", [-1] * 4, [SAME, SAME], True, "do not come to"),
    ("no-log-folder", [3], [], False, ""), ("quiet-end", [3], [[f"Half{NO_LINE_END}"]], False, ""),
    ("same-release", [-1], [[CHECK, SAME[1] + NO_LINE_END]], False, "")])
def test_what_is_stated_is_compared(stated, codes, logs, at_once, fault):
    found = statements.compare(statements.starts(stated), codes, logs, at_once)
    assert fault in found and bool(found) == bool(fault)


# The fault campaign

# Proves: Any run of the fault campaign => exit code and log have exactly one outcome, the one that its model states
def test_the_model_and_the_catalogue_agree_on_every_planned_run():
    """On the logs that the model expects. The judge compares these with the logs of the runs."""
    known = {(outcome, code, log): run for run, outcome, code, log in expected_logs()}
    wrong = [(run, outcome, found) for (outcome, code, log), run in known.items() if (found := outcomes.matching(code, list(log))) != [outcome]]
    assert wrong == [] and len({outcome for outcome, _, _ in known}) > 25


# The kept logs

def test_a_log_is_kept_once(tmp_path, monkeypatch):
    monkeypatch.setattr(corpus, "FOLDER", tmp_path / "corpus")
    for lines in (["a 12", "\tResult = 5"], ["a 7", "\tResult = 5"], ["a 12", "\tResult = 6"], [], ["a", f"b{NO_LINE_END}"]):
        corpus.add("interrupted", -1, lines)
    found = corpus.entries()
    assert [(code, outcome) for _, code, outcome in found] == [(-1, "interrupted")] * 3
    logs = {file.read_bytes().decode("utf-16-le") for file, _, _ in found}
    assert logs == {"a 12\n\tResult = 5\n", "a 12\n\tResult = 6\n", "a\nb"}
