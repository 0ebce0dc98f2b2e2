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


@pytest.fixture
def session(tmp_path, monkeypatch) -> run_tests.Session:
    made = object.__new__(run_tests.Session)  # its own way of making one would remove the results of this run
    made.results, made.files, made.failed, made.left_out, made.hung = tmp_path, [tmp_path / "cases.xml"], [], [], 0
    monkeypatch.setattr(run_tests, "TOP", tmp_path)
    return made


NO_NETWORK = "  Could not resolve 'deb.example'\non-debian: mmdebstrap failed with exit code 25; it needs the network."


@pytest.mark.parametrize("obstacle, code, told, reason", [
    ("folders cannot be mounted here", 0, "", "folders cannot be mounted here"),
    ("", 1, NO_NETWORK, "on-debian: mmdebstrap failed with exit code 25; it needs the network."),
    ("", 124, NO_NETWORK, ""), ("", 1, "E: Unable to locate package wine65\non-debian: scripts/setup failed. It needs the network.", ""), ("", 1, "", "")],
    ids=["obstacle", "no network", "time limit", "unknown package", "no reason"])
def test_another_debian_that_cannot_be_had_is_skipped_and_one_that_cannot_be_made_is_a_failure(session, capsys, monkeypatch, obstacle, code, told, reason):
    monkeypatch.setattr(run_tests.on_debian, "obstacle", lambda: obstacle)
    monkeypatch.setattr(run_tests, "followed", lambda command, log, *_, **__: log.write_text(told + "\n", "utf-8") and code)
    session.files[0].write_text(f"<testsuite>{GOOD}</testsuite>", "utf-8")
    session.stage("Debian", session.other_debian)
    assert session.finish() == (0 if reason else 1)
    assert capsys.readouterr().out.endswith(f"cannot be entered here: {reason}\n1 passed, 0 failed, 1 skipped\n" if reason else "\n1 passed, 0 failed\n")


def test_results_of_another_debian_are_part_of_the_whole(session, tmp_path, capsys, monkeypatch):
    session.files, commands = [], []
    (tmp_path / "cases.xml").write_text(f"<testsuite>{GOOD}</testsuite>", "utf-8")
    monkeypatch.setattr(run_tests.on_debian, "obstacle", lambda: "")
    monkeypatch.setattr(run_tests, "followed", lambda command, *_, **__: commands.append(command) or (len(commands) == 2))
    assert not session.other_debian() and commands[1][2:] == ["--built", "scripts/test", "--quick"]
    for file in session.files:
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(f"<testsuite>{BAD if file.name == 'cases.xml' else GOOD}</testsuite>", "utf-8")
    assert not results.summary([tmp_path / "cases.xml", *session.files])
    assert re.fullmatch(r"failed: Debian 1[23]: cases/start/test_check.py::test_b: no\n4 passed, 1 failed\n", capsys.readouterr().out)


@pytest.mark.parametrize("count, hung, alone, good", [(40, 0, None, True), (40, 8, None, True), (40, 9, None, False), (100, 10, None, True), (100, 11, None, False),
                                                      (40, 7, 1, True), (40, 8, 1, False)])
def test_runs_in_which_wine_hung_are_counted_and_too_many_are_a_failure(session, capsys, monkeypatch, count, hung, alone, good):
    """alone: so many hang when what failed is run again."""
    def pytest_runs(name: str, *_) -> int:
        again = name == "cases-again"
        (session.results / f"{name}.log").write_text("x.py:1: UserWarning: Wine hung: the run was repeated\n" * (alone if again else hung), "utf-8")
        last = BAD if alone is not None and not again else BAD.replace('<failure message="no"/>', "")
        (session.results / f"{name}.xml").write_text(f"<testsuite>{last if again else GOOD * (count - 1) + last}</testsuite>", "utf-8")
        return int(last == BAD)
    monkeypatch.setattr(session, "pytest", pytest_runs)
    session.files.clear()
    session.stage("cases", lambda: session.cases("cases"))
    total = hung + (alone or 0)
    assert session.finish() == (0 if good else 1)
    said = capsys.readouterr().out
    assert (f"\nWine hung in {total} runs, which were repeated.\n" in said.partition("== cases")[2]) is (total > 0) and said.endswith(f"\n{count} passed, 0 failed\n")


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
