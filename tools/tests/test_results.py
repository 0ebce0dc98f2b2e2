"""tools/results.py and the names that scripts/test takes."""
from __future__ import annotations

import re

import pytest

from tools import results, run_tests

GOOD, BAD = '<testcase classname="cases.start.test_check" name="test_a"/>', '<testcase classname="cases.start.test_check" name="test_b"><failure message="no"/></testcase>'
SKIPPED = '<testcase classname="Suite" name="Name"><skipped message="no display"/></testcase>'
TEST = run_tests.in_process_tests()["unit_tests"][0]
NOT_RUN = '<testcase classname="unit" name="unit" status="notrun"/>'


@pytest.mark.parametrize("text, again, good, last", [
    (GOOD, "", True, "1 passed, 0 failed"),
    (GOOD + SKIPPED, "", True, "skipped: Suite.Name: no display\n1 passed, 0 failed, 1 skipped"),
    (GOOD + BAD, "", False, "failed: cases/start/test_check.py::test_b: no\n1 passed, 1 failed"),
    (GOOD + BAD, BAD, False, "1 passed, 1 failed"),
    (GOOD + BAD, BAD.replace("<failure message=\"no\"/>", ""), True, "passed alone, failed among others: cases/start/test_check.py::test_b: no\n2 passed, 0 failed"),
    (NOT_RUN, "", True, "skipped: unit: notrun\n0 passed, 0 failed, 1 skipped"),
    ("", "", False, "0 passed, 0 failed"),
    (GOOD + "<broken", "", False, "0 passed, 0 failed")])
def test_what_did_not_pass_is_named_and_what_did_not_run_is_no_success(tmp_path, capsys, text, again, good, last):
    for name, cases in (("cases.xml", text), *([("cases-again.xml", again)] if again else [])):
        (tmp_path / name).write_text(f"<testsuite>{cases}</testsuite>", "utf-8")
    assert results.summary([tmp_path / "cases.xml"]) is good
    assert capsys.readouterr().out.strip().endswith(last)


def test_results_of_another_debian_are_part_of_the_whole_and_what_it_could_not_run_is_skipped(tmp_path, capsys, monkeypatch):
    session = object.__new__(run_tests.Session)  # its own way of making one would remove the results of this run
    session.results, session.files, session.left_out = tmp_path, [], []
    (tmp_path / "cases.xml").write_text(f"<testsuite>{GOOD}</testsuite>", "utf-8")

    def refused(command, log, *_, **__) -> int:
        log.write_text("a word\non-debian: folders cannot be mounted here.\n", "utf-8")
        return 1
    monkeypatch.setattr(run_tests, "followed", refused)
    assert session.other_debian() and session.files == []
    assert results.summary([tmp_path / "cases.xml"], session.left_out)
    assert capsys.readouterr().out.endswith("cannot be entered here: on-debian: folders cannot be mounted here.\n1 passed, 0 failed, 1 skipped\n")

    commands = []
    monkeypatch.setattr(run_tests, "TOP", tmp_path)
    monkeypatch.setattr(run_tests, "followed", lambda command, *_, **__: commands.append(command) or (len(commands) == 2))
    assert not session.other_debian() and commands[1][2:] == ["--built", "scripts/test", "--quick"]
    for file in session.files:
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(f"<testsuite>{BAD if file.name == 'cases.xml' else GOOD}</testsuite>", "utf-8")
    assert not results.summary([tmp_path / "cases.xml", *session.files])
    assert re.fullmatch(r"failed: Debian 1[23]: cases/start/test_check.py::test_b: no\n4 passed, 1 failed\n", capsys.readouterr().out)


def test_a_missing_file_of_results_is_no_success(tmp_path):
    assert not results.summary([tmp_path / "cases.xml"]) and not results.summary([])


@pytest.mark.parametrize("names, patterns, cases", [
    (["tools/tests/test_results.py"], {}, ["tools/tests/test_results.py"]),
    (["test_results.py::test_a_missing_file_of_results_is_no_success"], {}, ["tools/tests/test_results.py::test_a_missing_file_of_results_is_no_success"]),
    (["test_a_missing_file_of_results_is_no_success"], {}, ["tools/tests/test_results.py::test_a_missing_file_of_results_is_no_success"]),
    ([TEST], {"unit_tests": [TEST]}, []),
    ([f"All/{TEST}/0", f'All/{TEST}/query L"x"', "tools"], {"unit_tests": [f"All/{TEST}/0", f"All/{TEST}/*"]}, ["tools"])])
def test_names_of_tests(names, patterns, cases):
    assert run_tests.chosen(names) == (patterns, cases)


@pytest.mark.parametrize("name", ["test_resutls.py", "test_resutls", "NoSuite.*", "cases/start/test_none.py"])
def test_an_unknown_name_is_refused(name):
    with pytest.raises(SystemExit, match="There is no test"):
        run_tests.chosen([name])
