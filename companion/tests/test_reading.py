"""What TavikToolCompanion.exe reads in a log: `explain` and `convert`."""
from __future__ import annotations

import datetime
import json
import os
import random
import re

import pytest

from cases.support import corpus, statements
from companion import outcomes
from companion.tests.desk import BUSY, CHECK, COMPANION, LAST, LATER, LAUNCHED, NAME, SAME, utf16
from companion.tests.known_logs import expected_logs
from lab import paths
from lab.session import LOGS, read_log


# explain

def test_a_run_in_plain_words(desk):
    code, text, errors = desk.run("explain", desk.put(rf"C:\logs\{NAME}", utf16(BUSY)), "--exit", "1618")
    busy, = (one for one in outcomes.catalogue() if one.id == "install-busy")
    words = " ".join(text.split())
    assert (code, errors) == (0, "")
    assert text.splitlines()[:6] == [f"Log        {NAME}", "Began      2026-11-06T04:07:31.015", "Switches   -SILENT", "Installed  23.40, edition unknown",
                                     "Exit code  1618", f"Outcome    install-busy - {busy.title}"]
    assert all(part in words for part in (f"Meaning {busy.owner}", f"Cause {busy.cause}", f"Next step {busy.action}", "Report as 1618, to a deployment system Event 303, if"))
    assert text.endswith(f"Log lines  {BUSY[2]}\n           {BUSY[3]}\nCode       1618: another installation is in progress: wait until it has ended\n")


def test_without_the_exit_code_several_outcomes_may_remain(desk):
    path = desk.put(rf"C:\logs\{NAME}", utf16([LAUNCHED, CHECK]))
    code, text, _ = desk.run("explain", path)
    assert code == 0 and "one of 3; the exit code (--exit) decides which" in text
    assert re.findall(r"^Outcome    ([a-z-]+) - ", text, re.M) == ["interrupted", "quiet-end", "log-cut"]
    assert desk.explain(path)[0]["outcome"] is None and desk.explain(path, "--exit", "3")[0]["outcome"] == "quiet-end"


def test_a_log_that_cannot_be_read(desk):
    good = desk.put(r"C:\logs\good.log", utf16(SAME))
    page = desk.put(r"C:\logs\page.txt", b"a page\n")
    code, text, errors = desk.run("explain", "--json", r"C:\nowhere\ü.log", page, good, "--exit", "-1")
    assert code == 1 and r"TavikToolCompanion: C:\nowhere\ü.log cannot be opened: error 3, the folder was not found: check the path" in errors
    missing, refused, read = map(json.loads, text.splitlines())
    assert list(missing) == list(refused) == ["log", "error"] and (missing["log"], refused["log"]) == ("ü.log", "page.txt")
    assert all(f"TavikToolCompanion: {one['error']}\n" in errors for one in (missing, refused)) and read["outcome"] == "same-release"


@pytest.mark.parametrize("code, outcome", [("3", "no-log-folder"), ("4294967295", "no-log")])
def test_a_run_without_a_log(desk, code, outcome):
    assert [one["outcome"] for one in desk.explain("--no-log", "--exit", code)] == [outcome]
    assert [one["outcome"] for one in desk.explain(desk.put(r"C:\logs\empty.log", b""), "--exit", code)] == [outcome]


ALWAYS = {"interrupted", "no-log"}


@pytest.mark.parametrize("given, number, shown, ids", [
    ("1618", 1618, ["Exit code  1618", "Code       1618: another installation is in progress: wait until it has ended",
                    'Exit code  1618\nRun        "TavikToolCompanion run", which deployment systems start, ends with 1618 for many\n           outcomes: try again later. ',
                    "Registry   reg query HKLM\\SOFTWARE\\Tavik\\RepairTool\\LastRun /reg:64\nEvent      wevtutil query-events Application /rd:true /count:1 /format:text "
                    "\"/query:*[System[Provider[@Name='TavikToolCompanion']]]\"\nCode       1618: "], {"install-busy", *ALWAYS}),
    ("0x80070643", -2147023293, ["Exit code  -2147023293 (0x80070643, Windows code 1603)", "Code       1603: the package failed:"],
     {"install-failed", "store-error", "store-no-window", *ALWAYS}),
    ("-1", -1, ["Exit code  -1", "Can mean   same-release - Already compatible: Nothing"], None), ("3", 3, ["Exit code  3"], None)])
def test_an_exit_code_without_a_log(desk, given, number, shown, ids):
    code, text, errors = desk.run("explain", "--exit", given)
    assert (code, errors) == (0, "") and [line for line in shown if f"\n{line}" not in f"\n{text}"] == []
    assert ("Code  " in text) == (number not in (-1, 3)) and f"Next step  The log decides: TavikToolCompanion explain LOG --exit {given}." in text
    known = {one.id: one for one in outcomes.catalogue() if one.mode != "run"}
    other = {"install-failed-other"} if number == 3 else set()  # any other code of Windows
    ids = ids or other | {one.id for one in known.values() if number not in one.exit_not and
                          (number in one.exit if isinstance(one.exit, list) else one.exit == "any" or (one.exit == "negative" and number < 0))}
    for one in ids:
        assert f" {one} - {known[one].title}: {re.split('[.:;]( |$)', known[one].action)[0]}\n" in text
    told, = (json.loads(line) for line in desk.run("explain", "--exit", given, "--json")[1].splitlines())
    assert list(told) == ["log", "exit", "words", "outcome", "candidates", "outcomes"] and (told["exit"], bool(told["words"])) == (number, "Code  " in text)
    assert set(told["candidates"]) == {one["outcome"] for one in told["outcomes"]} == ids


# A number that is not what it seems: what is said of it.
@pytest.mark.parametrize("given, says", [
    ("303", "Event 303 is also the number of an event, of install-busy: TavikToolCompanion explain --event 303 Can mean"), ("300", None), ("3", None),
    ("255", "sees 255 for -1: TavikToolCompanion explain --exit -1 Can mean"), ("67", "sees 67 for 1603: TavikToolCompanion explain --exit 1603 Can mean"),
    ("82", "sees 82 for 1618: "), ("194", "sees 194 for 3010: "), ("-1", None), ("1618", None)])
def test_an_event_or_a_cut_code_given_as_exit_code(desk, given, says):
    text = " ".join(desk.run("explain", "--exit", given)[1].split())
    assert says in text if says else "number of an event" not in text and "8 bits" not in text


def test_the_outcome_of_an_event(desk):
    for one in outcomes.catalogue():
        if one.event % 100 == 3 or one.mode == "run":
            told, = desk.explain("--event", str(one.event))
            assert (told["outcome"], told["action"], told["code"], told["log"]) == (one.id, " ".join(one.action.split()), one.code, None)
    code, text, errors = desk.run("explain", "--event", "303")
    assert (code, errors) == (0, "") and "\nOutcome    install-busy - Windows Installer is busy\n" in text and "\nRetry      start the tool again later" in text


@pytest.mark.parametrize("data, note", [(utf16(BUSY[:3])[:-20], True), (utf16(BUSY[:3]), True), (utf16(SAME)[:-2], True), (utf16(SAME), False), (b"", False)])
def test_a_log_without_an_end_may_be_an_incomplete_copy(desk, data, note):
    path = desk.put(r"C:\logs\copy.log", data)
    assert ("Note       If this log is a copy, the copy may be incomplete: get the whole log first.\n" in desk.run("explain", path, "--exit", "1618")[1]) == note


BODY = "a line of the log\nUser does not desktop VLT installed.\n\tGrüße € 😀\n"
CUT = ["it ends in the middle of a character", "its last line is not complete", "1 of its characters cannot be read"]
# The bytes of a log, how many lines it has, the last one, and what is said about damage.
READ = [
    *((data, 3, BODY.splitlines()[2], []) for data in (
        BODY.encode("utf-16-le"), b"\xff\xfe" + BODY.encode("utf-16-le"), b"\xfe\xff" + BODY.encode("utf-16-be"), BODY.encode(),
        b"\xef\xbb\xbf" + BODY.encode(), BODY.replace("\n", "\r\n").encode(), BODY.replace("\n", "\r\n").encode("utf-16-le"))),
    (b"", 0, "", []), (b"\xff\xfe", 0, "", []),
    (BODY.encode("utf-16-le")[1:], 3, BODY.splitlines()[2], ["it begins in the middle of a character"]),
    ("Launched\ntwo".encode("utf-16-le"), 2, "two", ["its last line is not complete"]),
    ("Launched\ntwo".encode("utf-16-le") + b"x", 2, "two\ufffd", CUT), ("Launched\n😀".encode("utf-16-le")[:20], 2, "\ufffd", CUT),
    (b"Launched with command line: \xe2\x82", 1, "Launched with command line: \ufffd", CUT),
    (utf16(["Launched with command line: x", "a\udc00b\ud800c\ud800\U00010000\0"]), 2, "a\ufffdb\ufffdc\ufffd\U00010000\ufffd", ["4 of its characters cannot be read"]),
    # An overlong form, a surrogate, a value beyond the last character, and bytes that cannot begin a character.
    *((LAUNCHED[:28].encode() + bad + b" text\n", 1, "Launched with command line: \ufffd text", ["1 of its characters cannot be read"])
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
    wanted = [(1618, BUSY, "install-busy", BUSY[2:]), (9, BUSY, "interrupted", [number]),
              (0, [CHECK, installing, "something else", "\tResult = 0", "System reboot may be required for x."], "repaired-restart",
               [installing, "\tResult = 0", "System reboot may be required for x."])]
    lines = (f"{code}\t" + desk.put(rf"C:\logs\decide{at}.log", utf16(log)) + "\n" for at, (code, log, _, _) in enumerate(wanted))
    said = desk.explain("@" + desk.put(r"C:\logs\decide.txt", "".join(lines).encode()))
    assert [(one["outcome"], one["evidence"]) for one in said] == [(outcome, evidence) for _, _, outcome, evidence in wanted]


def test_one_line_of_json_for_programs(desk):
    _, text, _ = desk.run("explain", "--json", desk.put(rf"C:\logs\{NAME}", utf16(SAME)), "--exit", "-1")
    one, = map(json.loads, text.splitlines())
    assert text.startswith(f'{{"log":"{NAME}","began":"2026-11-06T04:07:31.015","mode":"check","exit":-1,"exit_fits":true,')
    assert list(one) == ["log", "began", "mode", "exit", "exit_fits", "seconds", "switches", "driver", "edition", "version", "source", "installer", "outcome", "title", "code", "retry", "meaning", "cause", "action", "evidence", "candidates",
                         "lines", "last_line", "damage"]
    assert (one["code"], one["retry"], one["evidence"], one["candidates"], one["lines"]) == (0, "no", [SAME[2]], ["same-release"], 3)


def test_any_text_of_the_log_is_valid_json_and_harmless_to_a_terminal(desk):
    odd = '"c\\d \x1b[2J\x07\x7f\x9b\xa0\xfc dwx-next64.msi'
    log = desk.put(r"C:\logs\odd.log", utf16([CHECK, f"Installing {odd}", "\tResult = 1618"]))
    _, text, _ = desk.run("explain", "--json", log)
    one = json.loads(text)
    assert (one["exit"], one["began"]) == (None, None) and f"Installing {odd}" in one["evidence"] and not re.search("[\0-\x1f]", text.rstrip("\n"))
    shown = re.sub("[\x1b\x07\x7f\x9b]", "\ufffd", odd)
    assert f"Log lines  Installing {shown}\n           \tResult = 1618\n" in desk.run("explain", log, "--exit", "1618")[1]


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
             if ours["exit_fits"] is not False and ours["candidates"] != (theirs := statements.recognised(code, read_log(data, "replace")))]
    assert wrong == [] and len(found_by_us) == len(known) > 1000
    assert len({ours["outcome"] for ours in found_by_us}) > 25
    assert {ours["exit"] for ours in found_by_us if ours["exit_fits"] is False} <= {0, 1603, 1618, 3010, 9, 0xDEAD}  # cut logs; the last two: ended by another program


# For the owner of the PC

FETCHED = r"C:\Users\The Owner\AppData\Local\Temp\Tavik_VLTInstallerDownload\dwx2_install.exe"
UNPACKS, REMOVES = rf"Process {FETCHED} /NCRC /S -EXTRACTONLY=YES /D=C:\x completed with exit code 0", "Uninstalling installed Halden {1}"
WEB = r"Unable to find dwx2-install.exe at [C:\store]. Downloading dwx2_install.exe for [24.20] from web."
FAILED = [*BUSY[:2], WEB, UNPACKS, *BUSY[2:]]
BY_RUN = LAUNCHED.replace("-SILENT", "-run=1-2 -SILENT")
SAYS = ["\nSame again TavikCompatibilityTool.exe -SILENT\n", f'\nCommand    TavikCompatibilityTool.exe -VLT -Install -Path "{FETCHED}"\n', " version is gone",
        "\nSame again TavikToolCompanion run -- -SILENT\n"]


# The whole command line where the log knows it, and "is gone" instead of "may be gone" where the log proves it.
@pytest.mark.parametrize("log, says", [
    (FAILED, SAYS[:2]), ([BY_RUN, *FAILED[1:]], SAYS[3:]), ([BY_RUN, CHECK, r"Found dwx2-install.exe at [C:\x]", *FAILED[3:]], [SAYS[1], SAYS[3]]),
    ([BY_RUN, *FAILED[1:4], REMOVES, "\tResult = 0", *BUSY[2:]], SAYS[2:]), ([*FAILED[:4], REMOVES, "\tResult = "], SAYS[:2]),
    ([*BUSY[:2], WEB, UNPACKS, REMOVES, "\tResult = 3010", *BUSY[2:]], SAYS[1:3]),
    ([*BUSY[:2], WEB, UNPACKS, REMOVES, "\tResult = 0", REMOVES, "\tResult = 1618", *BUSY[2:]], SAYS[:2]),
    ([*BUSY[:2], WEB, UNPACKS, REMOVES.replace("Halden", "DVR"), "\tResult = 0", *BUSY[2:]], SAYS[:2]),
    (BUSY, SAYS[:1]), (["Launched with command line: tool.exe", *BUSY[1:]], []), (SAME, [])])
def test_what_to_type(desk, log, says):
    path = desk.put(r"C:\logs\type.log", utf16(log))
    text = desk.run(path)[1]
    assert [one for one in SAYS if one in text or one in " ".join(text.split())] == says
    assert ("\nSame again " in text) == (SAYS[0] in says or SAYS[3] in says)
    explained, told = desk.run("explain", path, "--exit", "1618")[1], desk.explain(path, "--exit", "1618")[0]
    assert ("\nRetry      no\n" in explained, SAYS[1] in explained) == (says == SAYS[1:3] or log == SAME, SAYS[1] in says)
    if told["outcome"] == "install-busy":
        assert [SAYS[2] in told["meaning"], told["retry"] == "no", told["code"] == 1603] == [SAYS[2] in says, *[says == SAYS[1:3]] * 2]
        step = re.search(r"end\. (.*) with -VLT", told["action"])[1]
        assert step == ("Install it" if says == SAYS[1:3] else 'Start "TavikToolCompanion run" again, which installs it, or install it' if says == SAYS[2:]
                        else "If the application is still installed, start again with the same command. If it is gone, install it")


NONE = [LAUNCHED, "Currently installed VLT is version [] from driver version []", "User does not desktop VLT installed.", "UWP version is not installed"]
NO_APPLICATION = [*NONE, "User does not have VLT installed. Exiting."]
STORE = [*NONE, "User does not have VLT installed.", "Attempting to download and install the UWP version of VLT.", "failed to install the UWP version of VLT"]
OLDER = f"\nOr         Install it again with the installer of an earlier run, if that file still exists:{SAYS[1]}"


def with_driver(log, release="24.20.11.01-a", adapter="Tavik Corvel 7800"):
    return [*log[:2], "Currently installed drivers on system:", rf"	 [{adapter}] [{release}] [C:\store]", *log[2:]]


def test_a_lost_application_and_the_installer_of_an_earlier_run(desk):
    """Only for the driver that the newest log names: another release would not fit."""
    failed, none, store = map(with_driver, (FAILED, NO_APPLICATION, STORE))
    known = [((failed, none), True), ((failed, none, ["a page"], store), True), ((failed, [*failed[:-1], "\tResult = 0"], store), False),
             ((failed, SAME), False), ((none,), False), ((with_driver(FAILED, "25.10.01.02-b"), none), False),
             ((with_driver(FAILED, adapter="Other"), none), False), ((failed, NO_APPLICATION), False), ((FAILED, NO_APPLICATION), False),
             ((failed, with_driver(FAILED, "25.10.01.02-b"), none), False)]
    for at, (logs, _) in enumerate(known):
        for day, log in enumerate(logs, 1):
            desk.put(rf"C:\lost{at}\InstallVLTForWUDriver_2026-11-{day}_4_7_31_15.log", utf16(log))
    texts = [desk.run(rf"C:\lost{at}")[1] for at in range(len(known))]
    assert [(text.endswith(OLDER), SAYS[1] in text) for text in texts] == [(says, says) for _, says in known]
    texts = [desk.run("explain", rf"C:\lost{at}")[1] for at in range(len(known))]
    assert [(OLDER + "Older logs " in text, SAYS[1] in text) for text in texts] == [(says, says) for _, says in known]


def test_a_path_without_a_command(desk):
    both = [desk.put(rf"C:\typed\{name}", utf16(SAME)) for name in (NAME, LATER)]
    code, text, errors = desk.run(r"C:\typed\*.log")
    assert (code, errors) == (0, "") and text == "\n".join(desk.run(path)[1] for path in both)
    missing = r"C:\typed\nix.log"
    assert desk.run(missing, both[0]) == (1, "\n" + desk.run(both[0])[1], f"TavikToolCompanion: {missing} cannot be opened: error 2, the file was not found: check the path\n")
    assert "nix.LOG cannot be opened: error 2, the file was not found" in desk.run("nix.LOG")[2]
    assert desk.run(r"C:\typed\*.txt") == (1, "", "TavikToolCompanion: C:\\typed\\*.txt: no file has such a name; check folder and spelling\n")
    page = desk.put(r"C:\typed\page", b"a page\n")
    for others in ((missing, r"C:\typed\*.txt", page), (page, r"C:\typed\*.txt", missing)):
        code, text, errors = desk.run(*others, both[0])
        assert (code, text.lstrip("\n"), errors.count("\n")) == (1, desk.run(both[0])[1], 3)


# Proves: The companion is started by a double-click, or a log is dropped on it => the newest log, or that one, in plain words with the next step; it waits for a key
@pytest.mark.parametrize("arguments, code, shows", [
    ((), 0, ["Started    2026-11-16 04:07", "Result     Windows Installer is busy", "Meaning    Another installation is in progress.", "What to do Wait for the other"]),
    ((rf"C:\drop\{NAME}",), 0, ["Started    2026-11-06 04:07", "Result     Already compatible", "What to do Nothing."]), ((r"C:\drop",), 0, ["Result     Already compatible"]),
    ((rf"C:\drop\{NAME}", rf"C:\drop\cut.log"), 0, ["Result     Already compatible", "\n\nLog        cut.log\n", "The log does not say it. It is one of these:\n\nResult     Interrupted"]),
    ((r"C:\drop\page.txt",), 3, [r"C:\drop\page.txt is no log of the tool"]), ((r"C:\bare",), 1, [r"there are no logs in C:\bare: start the tool first"])],
    ids=["double-click", "log", "folder", "two logs", "no log", "no logs"])
def test_started_by_a_double_click(desk, arguments, code, shows):
    folder = "C:\\" + str(LOGS).replace("/", "\\")
    for path, data in ((rf"{folder}\{NAME}", utf16(SAME)), (rf"{folder}\{LATER}", utf16(BUSY)), (rf"C:\drop\{NAME}", utf16(SAME)), (r"C:\drop\cut.log", utf16(BUSY[:2])),
                       (r"C:\drop\page.txt", b"a page\n"), (r"C:\bare\x", b"")):
        desk.put(path, data)
    ended, text, waited = desk.in_console(COMPANION, *arguments)
    assert (ended, waited) == (code, True), text
    assert [one for one in shows if one not in text] == [] and text.rstrip().endswith("Press a key to close this window."), text


def test_in_a_terminal_it_does_not_wait(desk):
    log = desk.put(rf"C:\drop\{NAME}", utf16(SAME))
    ended, text, waited = desk.in_console("cmd", "/c", COMPANION)
    assert (ended, waited) == (2, False) and "Examples:\n" in text and "Usage: TavikToolCompanion" in text
    ended, text, waited = desk.in_console("cmd", "/c", COMPANION, log)
    assert (ended, waited) == (0, False) and "Result     Already compatible" in text
    ended, text, waited = desk.in_console(COMPANION, "explain", log, "--exit", "-1")  # as a deployment system starts it
    assert (ended, waited) == (0, False) and "Outcome    same-release" in text


# What the log tells beside the outcome

DRIVERS = ["Currently installed drivers on system:", "\t [Tavik [x] 7800] [24.20.11.01-a] [C:\\store\\[1]]", "\t [Older] [23.10] []"]
HAS = "User has TavikSystemsInc-2.8F31D07A2B6E4_x64 - version 1.{}.7"
NO_DESKTOP = "User does not desktop VLT installed."
DOWNLOADS = r"Unable to find dwx2-install.exe at [C:\store]. Downloading dwx2_install.exe for [24.20] from web."
MAKER = "https://download.tavik.example/drivers/installer/vlt/24.20/dwx2_install.txt"


@pytest.mark.parametrize("lines, facts", [
    ([], {}), (DRIVERS, {"driver": "24.20.11.01-a"}), ([DRIVERS[0], SAME[2]], {"driver": None, "edition": "desktop"}),
    ([SAME[2]], {"edition": "desktop", "version": "23.40"}), ([NO_DESKTOP, HAS.format("24.20"), SAME[2]], {"edition": "store", "version": "24.20"}),
    ([NO_DESKTOP, HAS.format("9.30"), HAS.format("10.20"), HAS.format("24.20"), "\tThis version is disabled"], {"edition": "store", "version": "10.20"}),
    ([NO_DESKTOP, HAS.format("24.20"), "\tThis version is disabled", "UWP version is not installed"], {"edition": "none", "version": None}),
    ([NO_DESKTOP], {"edition": None}),
    ([r"Found dwx2-install.exe at [C:\store\B1\DWX2_Install.exe]"], {"edition": "desktop", "source": "driver-package", "installer": r"C:\store\B1\DWX2_Install.exe"}),
    ([DOWNLOADS], {"edition": "desktop", "source": "download", "installer": MAKER}),
    ([DOWNLOADS, "Change server to http://h/v/."], {"source": "download", "installer": "http://h/v/24.20/dwx2_install.txt"}),
    ([NO_DESKTOP, HAS.format("23.40"), "Attempting to download and install the UWP version of VLT."], {"edition": "store", "source": "store", "installer": None})])
def test_what_is_known_of_a_run(desk, lines, facts):
    path = desk.put(r"C:\logs\facts.log", utf16([LAUNCHED, CHECK, *lines]))
    one, = desk.explain(path)
    assert one["switches"] == "-SILENT" and {key: one[key] for key in facts} == facts
    shown = desk.run("explain", path)[1].split("Outcome")[0]
    known = ["-SILENT", *(str(value) for key, value in facts.items() if value and key in ("driver", "version", "installer"))]
    assert [value for value in known if f" {value}" not in shown] == []


OTHERS = [f"[{name}] - [PCI\\VEN_8086&DEV_46A6] is not an Tavik Display Adapter." for name in ("Other Graphics", "Another")]
REMOVAL, DENIED = "Uninstalling installed Halden C:\\x.msi", "\tResult = -2147024891"
UNSEEN = "Note The log has no line \"Uninstalling\": the tool found no old product to remove."


# What the log knows more than the catalogue: the outcome, what is said, and what is not.
@pytest.mark.parametrize("log, outcome, says, not_said", [
    ([*BUSY[:2], *OTHERS, "Unable to find installed Tavik display adapters. Exiting."], "no-adapter", "Adapters not Tavik's: Other Graphics, Another ", UNSEEN),
    ([*with_driver(FAILED[:4]), BUSY[2], "\tResult = 0"], "repaired", UNSEEN, "not Tavik's"),
    ([*with_driver(FAILED[:4]), REMOVAL, "\tResult = 0", BUSY[2], "\tResult = 0"], "repaired", "Nothing.", UNSEEN),
    ([*with_driver(FAILED[:4]), REMOVAL, DENIED, BUSY[2], "\tResult = 0"], "repaired-old-left", "Remove the entries of version 23.40 under Apps", "start as administrator"),
    ([*with_driver(FAILED[:4], "23.40.11.01"), REMOVAL, DENIED, BUSY[2], "\tResult = 0"], "repaired-old-left", "Remove the old entries under Apps", UNSEEN)])
def test_what_the_log_adds_to_an_outcome(desk, log, outcome, says, not_said):
    path = desk.put(r"C:\logs\adds.log", utf16(log))
    code = {"no-adapter": "-1"}.get(outcome, "0")
    for arguments in (["explain", path, "--exit", code], [path]):
        text = " ".join(desk.run(*arguments)[1].split())
        assert says in text and not_said not in text and (arguments == [path] or f"Outcome {outcome} - " in text)


@pytest.mark.parametrize("command, switches, given", [
    (r'"C:\My Files\tool.exe" -VLT -Install -Path "C:\My Files\a b.exe" -SILENT', r'-VLT -Install -Path "C:\My Files\a b.exe" -SILENT', r"C:\My Files\a b.exe"),
    (r"tool.exe -vlt -install -PATH C:\x.exe", r"-vlt -install -PATH C:\x.exe", r"C:\x.exe"), ("tool.exe", "", "")])
def test_switches_and_a_given_installer(desk, command, switches, given):
    one, = desk.explain(desk.put(r"C:\logs\given.log", utf16([f"Launched with command line: {command}", f"Process {given} /NCRC /S -EXTRACTONLY=YES /D=x completed with exit code 0"])))
    assert (one["switches"], one["source"], one["installer"] or "") == (switches, "given", given)


@pytest.mark.parametrize("seconds, shown", [(151, 151), (0, 0), (-2, 0), (-9, None), (2 * 24 * 3600, None)])
def test_the_duration_is_known_if_the_times_fit(desk, seconds, shown):
    path = desk.put(rf"C:\logs\{NAME}", utf16(SAME))
    began = datetime.datetime(2026, 11, 6, 4, 7, 31, 15000, datetime.timezone.utc).timestamp()
    os.utime(desk.prefix.windows_path(path), (began + seconds + 0.1,) * 2)
    assert desk.explain(path)[0]["seconds"] == shown and (f"Duration   {shown} s" in desk.run("explain", path)[1]) == (shown is not None)


# An exit code that does not fit

REFUSED = [LAUNCHED, CHECK, "Response code from server: 404", "Error response code received from http://h/x", "Unable to download dwx2_install.exe from web. Exiting."]


@pytest.mark.parametrize("log, given, code, outcome, fits", [
    (SAME, "0", 0, "same-release", "reports for this outcome"), (REFUSED, "1603", 1603, "download-not-there", "reports for this outcome"),
    (SAME, "1603", 1603, "same-release", "may be the code of another run, or"), (SAME, "9", 9, "same-release", "may be the code"),
    (BUSY, "1603", 1603, "install-busy", "may be the code"), (BUSY[:1] + BUSY[2:], "1618", 1618, "direct-busy", "reports for this outcome"),
    (BUSY, "0x80070652", 1618, "install-busy", None), (BUSY, "0X652", 1618, "install-busy", None), (SAME, "0xFFFFFFFF", -1, "same-release", None),
    (SAME, "0x80070643", -2147023293, "same-release", "may be the code"), (REFUSED, "0x80070643", -2147023293, "download-not-there", "reports for this outcome"), (BUSY, "9", 9, "interrupted", None), (BUSY[:2], "0", 0, "log-cut", None)])
def test_an_exit_code_that_the_log_contradicts(desk, log, given, code, outcome, fits):
    path = desk.put(rf"C:\logs\{NAME}", utf16(log))
    one, = desk.explain(path, "--exit", given)
    assert (one["exit"], one["outcome"], one["exit_fits"]) == (code, outcome, fits is None)
    shown = " ".join(desk.run("explain", path, "--exit", given)[1].split())
    assert f"Outcome {outcome} - " in shown and (("which does not fit this log: it" in shown and fits in shown) if fits else "does not fit" not in shown)
    hresults = {"0x80070652": "-2147023278 (0x80070652, Windows code 1618)", "0x80070643": "-2147023293 (0x80070643, Windows code 1603), which"}
    assert f"Exit code {hresults.get(given, code)}" in shown


# HRESULTs: what the Store answers, and what deployment systems show.
@pytest.mark.parametrize("number, shown", [
    ("-2147024891", "-2147024891 (0x80070005, Windows code 5): access was denied to an administrator: check"), ("-2147009281", "-2147009281 (0x80073CFF, Windows code 15615)"),
    ("-2145844845", "-2145844845 (0x80190193)"), ("5", "5: access was denied to an administrator: check the rights on the files, and the security"), ("-1", None), ("1602", None)])
def test_the_code_of_a_line_in_words(desk, number, shown):
    for lines in ([f"\tResult = {number}"], ["\tResult = 0", f"\t Result = {number} text"]):
        text = desk.run("explain", desk.put(r"C:\logs\code.log", utf16([*BUSY[:3], *lines])))[1]
        assert re.findall("^Code       (.*)$", text, re.M)[:1] == ([shown] if shown else []), text


# Files, folders, wildcards

def test_a_file_that_is_no_log_is_named(desk):
    page = (paths.ROOT / "docs" / "log.md").read_bytes()
    names = {r"C:\lab\TavikToolCompanion.exe": None, r"C:\logs\log.md": page, r"C:\logs\page.html": b"<html>\nError: 404\n</html>\n", r"C:\logs\tool.exe": paths.need(paths.TOOL).read_bytes(),
             rf"C:\logs\{LATER}": b"Installing\n\tResult = 0\nError: x\n"}
    for name, data in names.items():
        assert desk.run("explain", name if data is None else desk.put(name, data), "--exit", "0") == (3, "", (
            f"TavikToolCompanion: {name} is no log of the tool: its logs are named InstallVLTForWUDriver_<date and time>.log and are in "
            "C:\\Program Files\\Tavik\\MIM\\Log\\\n"))
    assert desk.run("explain", *names, desk.put(r"C:\logs\good.log", utf16(SAME)))[1].count("Outcome    ") == 1


def test_a_folder_explains_its_newest_log_and_lists_the_others(desk):
    for name, log in ((NAME, SAME), (LAST, BUSY), (LATER, SAME)):
        desk.put(rf"C:\folder\{name}", utf16(log))
    code, text, errors = desk.run("explain", r"C:\folder", "--exit", "1618")
    assert (code, errors) == (0, "") and text.startswith(f"Log        {LAST}\n") and "Outcome    install-busy - " in text
    assert text.endswith(f"\nOlder logs {LATER}\n           {NAME}\n")
    desk.put(r"C:\empty\x.txt", b"")
    says = "TavikToolCompanion: there are no logs in C:\\empty: start the tool first; its own folder is C:\\Program Files\\Tavik\\MIM\\Log\\\n"
    assert desk.run("explain", r"C:\empty") == (1, "", says)


def test_several_logs_and_wildcards(desk):
    for name in (LATER, NAME):
        desk.put(rf"C:\several\{name}", utf16(SAME))
    both = desk.run("explain", rf"C:\several\{NAME}", rf"C:\several\{LATER}")[1]
    assert re.findall(r"^Log {8}(.*)$", both, re.M) == [NAME, LATER] and f"\n\nLog        {LATER}\n" in both
    assert desk.run("explain", r"C:\several\*_2026-11-?*.log")[1] == both
    assert desk.run("explain", r"C:\several\*.txt") == (1, "", "TavikToolCompanion: C:\\several\\*.txt: no file has such a name; check folder and spelling\n")


# convert

def test_several_logs_become_files_of_a_folder(desk):
    for name in (NAME, LATER):
        desk.put(rf"C:\many\{name}", utf16(SAME))
    out = desk.prefix.windows_path(desk.put(r"C:\texts\x", b"")).parent
    text = "".join(line + "\r\n" for line in SAME)
    for given in (r"C:\many\*.log", r"C:\many"):
        assert desk.run("convert", given, r"C:\texts", "--force")[0] == 0
        assert {file.name: file.read_bytes().decode() for file in out.iterdir() if file.name != "x"} == dict.fromkeys([f"{NAME}.txt", f"{LATER}.txt"], text)
    assert desk.run("convert", r"C:\many\*.log") == (0, text * 2, "")
    assert desk.run("convert", r"C:\many", r"C:\nowhere") == (2, "", 'TavikToolCompanion: OUT: several logs need a folder that exists, and C:\\nowhere is none. '
                                                              '"TavikToolCompanion convert --help" shows the usage.\n')


def test_a_file_is_replaced_only_if_asked(desk):
    log, other = desk.put(rf"C:\logs\{NAME}", utf16(SAME)), desk.put(rf"C:\logs\{LATER}", utf16(BUSY))
    says = f"TavikToolCompanion: {other} exists: name another file, or give --force to replace it\n"
    assert desk.run("convert", log, other) == (1, "", says)
    file = desk.prefix.windows_path(other)
    assert file.read_bytes() == utf16(BUSY) and not file.with_name(file.name + ".part").exists()
    for same in (log, log.upper(), rf"C:\logs\.\..\logs\{NAME}"):
        for force in ([], ["--force"]):
            assert desk.run("convert", log, same, *force) == (1, "", f"TavikToolCompanion: {same} is the log itself, which is never replaced: name another file\n")
    assert desk.prefix.windows_path(log).read_bytes() == utf16(SAME)
    assert desk.run("convert", log, other, "--FORCE") == (0, "", "") and file.read_bytes().decode() == "".join(line + "\r\n" for line in SAME)


def test_a_log_as_text(desk):
    path = desk.put(rf"C:\logs\{NAME}", utf16([*BUSY, "grün 😀"]) + b"x")
    wanted = "".join(line + "\r\n" for line in [*BUSY, "grün 😀"]) + "\ufffd"
    says = f"TavikToolCompanion: {path}: it ends in the middle of a character\n"
    assert desk.run("convert", path)[:2] == (0, wanted) and says in desk.run("convert", path)[2]
    assert desk.run("convert", path, r"C:\logs\out.txt")[:2] == (0, "")
    assert desk.prefix.windows_path(r"C:\logs\out.txt").read_bytes() == wanted.encode()
    code, _, errors = desk.run("convert", path, r"C:\nowhere\out.txt")
    assert code == 1 and "cannot be created: error 3, the folder was not found: check the path" in errors


def test_only_logs_are_converted(desk):
    for name, data in ((NAME, utf16(SAME)), (LATER, b""), ("notes.txt", b"my notes\n"), (LAST, utf16([SAME[2] + "x" * 65536]))):
        desk.put(rf"C:\mixed\{name}", data)
    out = desk.prefix.windows_path(desk.put(r"C:\made\x", b"")).parent
    for given, refused in ((r"C:\mixed\*", (LAST, "notes.txt")), (r"C:\mixed", (LAST,)), (r"C:\mixed\notes.txt", ("notes.txt",))):
        code, text, errors = desk.run("convert", given, r"C:\made", "--force")
        assert (code, text) == (3, "") and sorted(re.findall(r"C:\\mixed\\(.*) is no log of the tool: ", errors)) == sorted(refused)
    assert {file.name for file in out.iterdir()} == {"x", f"{NAME}.txt", f"{LATER}.txt"}
    assert desk.run("convert", r"C:\mixed\notes.txt")[:2] == (3, "")


def test_the_conversion_goes_on_after_a_log_that_cannot_be_read(desk):
    last = "InstallVLTForWUDriver_2026-11-18_4_7_31_15.log"
    for name, data in ((NAME, utf16(SAME)), (LAST, b"a page\n"), (last, utf16(SAME))):
        desk.put(rf"C:\partly\{name}", data)
    desk.prefix.windows_path(rf"C:\partly\{LATER}").symlink_to("/proc/self/mem")  # it can be opened, but not read
    code, text, errors = desk.run("convert", r"C:\partly")
    assert (code, text) == (1, "".join(line + "\r\n" for line in SAME) * 2)
    assert [part in errors for part in (rf"C:\partly\{LATER} cannot be read: error", rf"C:\partly\{LAST} is no log of the tool: ")] == [True, True]


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
    path = desk.put(r"C:\logs\long.log", utf16([SAME[2] + "x" * (3 * 65536 - len(SAME[2])), LAUNCHED]))
    assert desk.run("convert", path)[1] == f"{SAME[2]}{'x' * (3 * 65536 - len(SAME[2]))}\r\n{LAUNCHED}\r\n"
    records = [len(record.partition("]LOG]!>")[0]) - len("<![LOG[") for record in desk.run("convert", "--cmtrace", path)[1].splitlines()]
    assert records == [65536, 65536, 65536, len(LAUNCHED)]
    one, = desk.explain(desk.put(r"C:\logs\long.log", utf16([LAUNCHED, SAME[2] + "x" * 65536])), "--exit", "-1")
    assert (one["outcome"], one["lines"], one["last_line"]) == ("interrupted", 2, "\ufffd")
    assert one["damage"] == ["1 of its lines are too long to be the tool's"]
