"""What TavikToolCompanion.exe reads in a log: `explain` and `convert`."""
from __future__ import annotations

import json
import random
import re

import pytest

from cases.support import corpus, statements
from companion import outcomes
from companion.tests.desk import BUSY, CHECK, LAUNCHED, NAME, SAME, utf16
from companion.tests.known_logs import expected_logs
from lab.session import read_log


# explain

def test_a_run_in_plain_words(desk):
    code, text, errors = desk.run("explain", desk.put(rf"C:\logs\{NAME}", utf16(BUSY)), "--exit", "1618")
    busy, = (one for one in outcomes.catalogue() if one.id == "install-busy")
    words = " ".join(text.split())
    assert (code, errors) == (0, "")
    assert text.splitlines()[:4] == [f"Log        {NAME}", "Began      2026-11-06T04:07:31.015", "Exit code  1618",
                                     f"Outcome    install-busy - {busy.title}"]
    assert all(part in words for part in (f"Meaning {busy.owner}", f"Cause {busy.cause}", f"Next step {busy.action}", "Report as 1618"))
    assert text.endswith(f"Log lines  {BUSY[2]}\n           {BUSY[3]}\n")


def test_without_the_exit_code_several_outcomes_may_remain(desk):
    path = desk.put(rf"C:\logs\{NAME}", utf16([LAUNCHED, CHECK]))
    code, text, _ = desk.run("explain", path)
    assert code == 0 and "one of 3; the exit code (--exit) decides which" in text
    assert re.findall(r"^Outcome    ([a-z-]+) - ", text, re.M) == ["quiet-end", "interrupted", "log-cut"]
    assert desk.explain(path)[0]["outcome"] is None and desk.explain(path, "--exit", "3")[0]["outcome"] == "quiet-end"


def test_a_log_that_cannot_be_read(desk):
    good = desk.put(r"C:\logs\good.log", utf16(SAME))
    code, text, errors = desk.run("explain", "--json", r"C:\nowhere\ü.log", good, "--exit", "-1")
    assert code == 1 and r"TavikToolCompanion: C:\nowhere\ü.log cannot be opened: error 3" in errors
    assert [json.loads(line)["outcome"] for line in text.splitlines()] == ["same-release"]


@pytest.mark.parametrize("code, outcome", [("3", "no-log-folder"), ("4294967295", "no-log")])
def test_a_run_without_a_log(desk, code, outcome):
    assert [one["outcome"] for one in desk.explain("--no-log", "--exit", code)] == [outcome]
    assert [one["outcome"] for one in desk.explain(desk.put(r"C:\logs\empty.log", b""), "--exit", code)] == [outcome]


BODY = "a line of the log\n\n\tGrüße € 😀\n"
CUT = ["it ends in the middle of a character", "its last line is not complete", "1 of its characters cannot be read"]
# The bytes of a log, how many lines it has, the last one, and what is said about damage.
READ = [
    *((data, 3, BODY.splitlines()[2], []) for data in (
        BODY.encode("utf-16-le"), b"\xff\xfe" + BODY.encode("utf-16-le"), b"\xfe\xff" + BODY.encode("utf-16-be"), BODY.encode(),
        b"\xef\xbb\xbf" + BODY.encode(), BODY.replace("\n", "\r\n").encode(), BODY.replace("\n", "\r\n").encode("utf-16-le"))),
    (b"", 0, "", []), (b"\xff\xfe", 0, "", []),
    (BODY.encode("utf-16-le")[1:], 3, BODY.splitlines()[2], ["it begins in the middle of a character"]),
    ("one\ntwo".encode("utf-16-le"), 2, "two", ["its last line is not complete"]),
    ("one\ntwo".encode("utf-16-le") + b"x", 2, "two\ufffd", CUT), ("one\n😀".encode("utf-16-le")[:10], 2, "\ufffd", CUT),
    (b"one two three \xe2\x82", 1, "one two three \ufffd", CUT),
    (utf16(["an ordinary line", "a\udc00b\ud800c\ud800\U00010000\0"]), 2, "a\ufffdb\ufffdc\ufffd\U00010000\ufffd", ["4 of its characters cannot be read"]),
    # An overlong form, a surrogate, a value beyond the last character, and bytes that cannot begin a character.
    *((b"text " + bad + b" text\n", 1, "text \ufffd text", ["1 of its characters cannot be read"])
      for bad in (b"\xc0\xaf", b"\xed\xa0\x80", b"\xf4\x90\x80\x80", b"\x80", b"\xff", b"\xe0\x80\x80"))]


def test_each_encoding_and_each_kind_of_damage(desk):
    paths_of = [desk.put(rf"C:\logs\read{number}.log", data) for number, (data, *_) in enumerate(READ)]
    said = desk.explain(*paths_of)
    assert [(one["lines"], one["last_line"], one["damage"]) for one in said] == [tuple(wanted) for _, *wanted in READ]


def test_the_name_says_when_the_run_began(desk):
    names = {NAME: "2026-11-06T04:07:31.015", "copy of installvltforwudriver_2026-11-6_4_7_31_15 (2).LOG": "2026-11-06T04:07:31.015",
             **dict.fromkeys(["InstallVLTForWUDriver_.log", "InstallVLTForWUDriver_2026-13-6_4_7_31_15.log", "other.log",
                              "InstallVLTForWUDriver_2026-11-6_24_7_31_15.log", "InstallVLTForWUDriver_2026-11-6_4_7_31.log",
                              "InstallVLTForWUDriver_2026-11-6_4_7_31_1000.log"])}
    said = desk.explain(*(desk.put(rf"C:\logs\{name}", b"") for name in names))
    assert {one["log"]: one["began"] for one in said} == names


def test_mode_exit_code_and_lines_decide(desk):
    installing, number = BUSY[2:]
    wanted = [(1618, BUSY, "install-busy", BUSY[2:]), (1603, BUSY, "interrupted", [number]),
              (1618, BUSY[2:], "interrupted", [number]),  # a direct installation never ends with that code
              (0, [CHECK, installing, "something else", "\tResult = 0", "System reboot may be required for x."], "repaired-restart",
               [installing, "\tResult = 0", "System reboot may be required for x."])]
    lines = (f"{code}\t" + desk.put(rf"C:\logs\decide{at}.log", utf16(log)) + "\n" for at, (code, log, _, _) in enumerate(wanted))
    said = desk.explain("@" + desk.put(r"C:\logs\decide.txt", "".join(lines).encode()))
    assert [(one["outcome"], one["evidence"]) for one in said] == [(outcome, evidence) for _, _, outcome, evidence in wanted]


def test_one_line_of_json_for_programs(desk):
    _, text, _ = desk.run("explain", "--json", desk.put(rf"C:\logs\{NAME}", utf16(SAME)), "--exit", "-1")
    one, = map(json.loads, text.splitlines())
    assert text.startswith(f'{{"log":"{NAME}","began":"2026-11-06T04:07:31.015","mode":"check","exit":-1,"outcome":"same-release","title":"')
    assert list(one) == ["log", "began", "mode", "exit", "outcome", "title", "code", "retry", "meaning", "cause", "action", "evidence", "candidates",
                         "lines", "last_line", "damage"]
    assert (one["code"], one["retry"], one["evidence"], one["candidates"], one["lines"]) == (0, "no", [SAME[2]], ["same-release"], 3)


def test_any_text_of_the_log_is_valid_json_and_harmless_to_a_terminal(desk):
    odd = '"c\\d \x1b[2J\x07\x7f\x9b\xa0\xfc dwx-next64.msi'
    log = desk.put(r"C:\logs\odd.log", utf16([CHECK, f"Installing {odd}", "\tResult = 1618"]))
    _, text, _ = desk.run("explain", "--json", log)
    one = json.loads(text)
    assert (one["exit"], one["began"]) == (None, None) and f"Installing {odd}" in one["evidence"] and not re.search("[\0-\x1f]", text.rstrip("\n"))
    shown = re.sub("[\x1b\x07\x7f\x9b]", "\ufffd", odd)
    assert desk.run("explain", log, "--exit", "1618")[1].endswith(f"Log lines  Installing {shown}\n           \tResult = 1618\n")


def known_runs() -> set[tuple[int, bytes]]:
    """Exit code and log: what the model expects of all planned failures, and what earlier runs of the lab left."""
    return {*((code, utf16(list(log))) for _, _, code, log in expected_logs()), *((code, file.read_bytes()) for file, code, _ in corpus.entries())}


def test_every_log_of_the_lab_is_recognised_as_the_catalogue_says(desk):
    """Compared with companion/outcomes.py: whole and cut logs, with and without the exit code."""
    chance = random.Random(20261106)
    runs = [(code, data) for code, log in sorted(known_runs()) for data in (log, log[:chance.randrange(min(200, len(log)), len(log) + 1)])]
    known = sorted({*runs, *((None, data) for _, data in runs)}, key=repr)
    lines = []
    for number, (code, data) in enumerate(known):
        desk.put(rf"C:\corpus\{number}.log", data)
        lines.append(f"{'' if code is None else code}\tC:\\corpus\\{number}.log\r\n")
    found_by_us = desk.explain("@" + desk.put(r"C:\corpus\list.txt", "".join(lines).encode()))
    wrong = [(code, read_log(data, "replace")[-3:], ours["candidates"], theirs) for (code, data), ours in zip(known, found_by_us)
             if ours["candidates"] != (theirs := statements.recognised(code, read_log(data, "replace")))]
    assert wrong == [] and len(found_by_us) == len(known) > 1000
    assert len({ours["outcome"] for ours in found_by_us}) > 25


# convert

def test_a_log_as_text(desk):
    path = desk.put(rf"C:\logs\{NAME}", utf16([*BUSY, "grün 😀"]) + b"x")
    wanted = "".join(line + "\r\n" for line in [*BUSY, "grün 😀"]) + "\ufffd"
    says = f"TavikToolCompanion: {path}: it ends in the middle of a character\n"
    assert desk.run("convert", path)[:2] == (0, wanted) and says in desk.run("convert", path)[2]
    assert desk.run("convert", path, r"C:\logs\out.txt")[:2] == (0, "")
    assert desk.prefix.windows_path(r"C:\logs\out.txt").read_bytes() == wanted.encode()
    code, _, errors = desk.run("convert", path, r"C:\nowhere\out.txt")
    assert code == 1 and "cannot be created: error 3" in errors


# Lines and their severity in the log viewer: 1 information, 2 warning, 3 error.
SEVERITIES = [
    (BUSY[0], "1"), (CHECK, "1"), ("Unable to find dwx2-install.exe at [x]. Downloading dwx2_install.exe for [24.20] from web.", "1"),
    (r"Unable to find x\dwx-next64.msi.", "3"), ("Response code from server: 200", "1"), ("Response code from server: 404", "3"),
    ("\tResult = 0", "1"), ("\tResult = 1641", "2"), ("\tResult = 3010", "2"), ("\tResult = 3011", "2"), ("\tResult = 1618", "3"),
    ("System reboot may be required for x.", "2"), ("\tException occured during installation. x", "3"),
    ("Exception x when searching for UWP version of VLT", "2"), ("failed to install the UWP version of VLT", "3"), (SAME[2], "1")]


def test_a_log_for_the_log_viewer(desk):
    """The mark of a record's end is only at its end."""
    lines = [line for line, _ in SEVERITIES]
    _, text, _ = desk.run("convert", "--cmtrace", desk.put(rf"C:\logs\{NAME}", utf16([*lines, "a]LOG]!>b]LOG]!>"])))
    lines = text.split("\r\n")
    form = re.compile(r'<!\[LOG\[(.*)\]LOG\]!><time="04:07:31\.015\+000" date="11-06-2026" component="TavikCompatibilityTool" '
                      r'context="" type="([123])" thread="0" file="">')
    assert [form.fullmatch(line).groups() for line in lines[:-1]] == [*SEVERITIES, ("a]LOG] !>b]LOG] !>", "1")] and lines[-1] == ""


def test_a_line_that_is_too_long(desk):
    """It comes in pieces of 65,536 bytes, and matches no pattern."""
    path = desk.put(r"C:\logs\long.log", utf16([SAME[2] + "x" * (3 * 65536 - len(SAME[2])), "end"]))
    assert desk.run("convert", path)[1] == f"{SAME[2]}{'x' * (3 * 65536 - len(SAME[2]))}\r\nend\r\n"
    records = [len(record.partition("]LOG]!>")[0]) - len("<![LOG[") for record in desk.run("convert", "--cmtrace", path)[1].splitlines()]
    assert records == [65536, 65536, 65536, len("end")]
    one, = desk.explain(desk.put(r"C:\logs\long.log", utf16([SAME[2] + "x" * 65536])), "--exit", "-1")
    assert (one["outcome"], one["lines"], one["last_line"]) == ("interrupted", 1, "\ufffd")
    assert one["damage"] == ["1 of its lines are too long to be the tool's"]
