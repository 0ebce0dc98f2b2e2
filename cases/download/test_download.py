"""The download: the request, the files on the disk, the calls into the system, and what happens when one of them fails."""
from __future__ import annotations

import re
import zlib

import pytest

from cases.support.download import (FINAL, GOOD, KEY, NO_PROGRAM, PATH, SERVER_PATH, START, TEMPORARY, URL, answering,
                                    check_arrived, downloaded, failed, not_sent, own, status_line, thrown)
from cases.support.expect import DOWNLOADING, DOWNLOADS, REPAIR, REPAIRED, UNTOUCHED, download, inventory, opening, unpack
from lab.certificates import HOST


def wininet(result, skip: tuple[str, ...] = ("InternetReadFile",)) -> list[str]:
    """The calls into WinINet in their order, without results and addresses."""
    calls = [line.removeprefix("wininet!") for line in result.calls if line.startswith("wininet!")]
    calls = [re.sub(r"; (session|connection|request|handle)=0x[0-9a-f]+", "", line) for line in calls]
    return [line for line in calls if not line.startswith(skip)]


# Where from

# Proves: The value names another server
# Proves: What the server sees => a GET with agent, referrer, accept type; caches are bypassed, every download asks the server
@pytest.mark.quick
def test_request_as_the_server_sees_it(lab):
    result = lab.run(answering())
    check_arrived(lab, 10, [GOOD])
    request, = result.requests
    assert {name: request[name] for name in ("method", "path", "host", "user_agent", "accept", "referer", "pragma")} == {
        "method": "GET", "path": PATH, "host": result.server, "user_agent": "Tavik Marlin Install Manager",
        "accept": "Accept: */*", "referer": "http://support.tavik.example/", "pragma": "no-cache"}


# Proves: The value is not text, or reading it fails
def test_folder_that_is_not_a_text_is_ignored(lab):
    lab.run({**own(), "registry": {KEY: {"DWXServerFolder": 5}}})
    check_arrived(lab, 10, [GOOD], START[:1])


# Proves: It has none
# Proves: No key, no value
# Proves: `-SILENT` (repair)
@pytest.mark.parametrize("server, arguments", [({}, ""), ({"reach": "default"}, ""),
                                               ({"answers": {PATH: {"installer": "24.20", "delay": 0.6}}}, "-SILENT")],
                         ids=["server of the registry", "the maker's own, over https", "silent"])
def test_machine_is_repaired_from_the_server(lab, server, arguments):
    result = lab.run({"server": server}, arguments)
    start = download()
    lab.check(outcome="repaired", requests=[GOOD], before=UNTOUCHED, after=REPAIRED,
              log=[*opening(arguments), *inventory(), start[0], *start[2 if "reach" in server else 1:], unpack(), *REPAIR])
    assert any(sample["visible"] for sample in result.status) == (not arguments)
    if "reach" in server:
        assert (result.requests[0]["host"], result.requests[0]["tls"][:3]) == (HOST, "TLS")


# Proves: The body arrives
@pytest.mark.parametrize("length", [True, False], ids=["with length", "without length"])
def test_body_arrives_byte_for_byte(lab, length):
    body = b"".join(zlib.crc32(number.to_bytes(4, "big")).to_bytes(4, "big") for number in range(600_000))
    result = lab.run({**answering({"hex": body.hex(), "length": length}), "standins": ["wininet"]})
    check_arrived(lab, len(body), [GOOD])
    assert result.file(FINAL).read_bytes() == body
    reads = [re.search(r"size=(\d+).*count=(\d+) -> 1", line).groups() for line in result.calls if "!InternetReadFile#" in line]
    assert reads == [("1048576", "1048576"), ("1048576", "1048576"), ("1048576", str(len(body) - 2097152)), ("1048576", "0")]


# Files

def test_old_files_are_gone_even_when_the_download_fails(lab):
    result = lab.run({**answering({"status": 404, "delay": 1}), "files": {FINAL: "old", TEMPORARY: "older"}})
    lab.check(**failed("download-not-there", *status_line(404)), before={"files": [FINAL, TEMPORARY]},
              after={**UNTOUCHED, "missing": [FINAL], "files": [TEMPORARY]})
    assert result.status_texts[-1] == DOWNLOADING
    assert (result.before.files[TEMPORARY], result.after.files[TEMPORARY]) == (5, 0)


# Proves: Old files that can be removed
def test_old_files_are_replaced(lab):
    result = lab.run({**answering(), "files": {FINAL: "the old one", TEMPORARY: "older"}})
    lab.check(**downloaded(len(NO_PROGRAM)), before={"files": [FINAL, TEMPORARY]}, after={"missing": [TEMPORARY]})
    assert result.file(FINAL).read_text() == NO_PROGRAM


# Proves: An old file is locked, write-protected or a folder
@pytest.mark.parametrize("path", [FINAL, TEMPORARY], ids=["final", "temporary"])
@pytest.mark.parametrize("how", ["held", "read_only", "folder"])
def test_old_file_that_cannot_be_removed_ends_the_download(lab, path, how):
    """The final file is removed first. If that fails, the temporary file stays, even one that could be removed."""
    old = path + "\\inside" if how == "folder" else path
    files = {**({TEMPORARY: "older"} if path == FINAL else {FINAL: "older"}), old: "old"}
    result = lab.run({**answering(), "files": files, **({} if how == "folder" else {how: [old]})})
    lab.check(**failed("download-file-in-the-way", thrown(f"filesystem error: remove: {{any}} [{path}]")), requests=[],
              before={"files": list(files)}, after={**UNTOUCHED, "files": list(files) if path == FINAL else [old],
                                                    "missing": [] if path == FINAL else [FINAL]})
    assert result.file(old).read_text() == "old"


# Proves: The download folder cannot be created
def test_file_in_place_of_the_download_folder_ends_the_download(lab):
    lab.run({**answering(), "files": {DOWNLOADS: "in the way"}})
    lab.check(**failed("download-file-in-the-way", thrown(f"filesystem error: create_directories: {{any}} [{DOWNLOADS}\\]")), requests=[],
              after={**UNTOUCHED, "files": [DOWNLOADS]})


# Proves: The download folder is a link
def test_link_in_place_of_the_download_folder_is_not_used(lab):
    """Windows removes the link and creates the folder. Wine treats the link as its target, so here the download ends."""
    mine = r"C:\Victim\mine.txt"
    lab.run({**answering(), "files": {mine: "mine", DOWNLOADS: {"link": r"C:\Victim"}}})
    lab.check(**failed("download-file-in-the-way", thrown(f"filesystem error: remove: {{any}} [{DOWNLOADS}]")), requests=[],
              after={**UNTOUCHED, "files": [mine]})
    assert [path for path in lab.result.after.files if path.startswith(r"C:\Victim" + "\\")] == [mine]


# What is asked of the system

# Proves: A good download
def test_download_makes_these_calls_in_order(lab):
    result = lab.run({**answering(), "standins": ["wininet"]})
    lab.check(**downloaded(len(NO_PROGRAM)))
    host, port = result.server.split(":")
    url = f"http://{result.server}{PATH}"
    closed = [line for line in result.calls if "InternetCloseHandle" in line]
    handles = [re.search(r"handle=(0x[0-9a-f]+)", line).group(1) for line in closed]
    opened = {name: re.search(r"-> (0x[0-9a-f]+)", line).group(1) for line in result.calls
              for name in ("InternetOpenW", "InternetConnectW", "HttpOpenRequestW") if f"!{name}#" in line}
    assert handles == [opened["HttpOpenRequestW"], opened["InternetConnectW"], opened["InternetOpenW"]]
    known = [line.rpartition(" -> ")[0] for line in wininet(result, ("InternetReadFile", "InternetCloseHandle"))]
    assert known == [
        f'InternetCrackUrlW#1 url="{url}"; length={len(url)}; flags=0x0; host="{host}"; port={port}; path="{PATH}"',
        'InternetOpenW#1 agent="Tavik Marlin Install Manager"; access=0; proxy=(null); bypass=(null); flags=0x0',
        f'InternetConnectW#1 host="{host}"; port={port}; user=(null); password=(null); service=3; flags=0x0',
        f'HttpOpenRequestW#1 verb="GET"; object="{PATH}"; version=(null); referrer="http://support.tavik.example/"; '
        'accept="Accept: */*"; flags=0x84000500',
        "InternetSetOptionW#1 option=6; size=4; value=90000",
        "InternetSetOptionW#2 option=5; size=4; value=30000",
        "InternetSetOptionW#3 option=2; size=4; value=30000",
        "HttpSendRequestW#1 headers=(null); body=0",
        "HttpQueryInfoW#1 level=0x20000013; size=4; number=200"]


READING = ["InternetReadFile 1 count=4", "InternetReadFile 2 error=12003"]
FAILING = {  # name: outcome, rules, lines of the log, handles that are closed. The fault campaign lets each call fail alone.
    "request, then an option": ("download-error", ["HttpOpenRequestW * error=8", "InternetSetOptionW 3 error=12018"],
                                [f"Unable to call HttpOpenRequest to {URL}. Error 12018"], 2),
    "options": ("download-unreachable", ["InternetSetOptionW * error=12009", "HttpSendRequestW * error=12002"], [not_sent(URL, 12002)], 3),
    "status is not 200": ("download-refused", ["HttpQueryInfoW * status=-200"], status_line(-200), 3),
    "reading": ("download-broken", ["InternetReadFile 1 count=4", "InternetReadFile 2 error=6 count=3"],
                ["Response code from server: 200", "Download failed with error code: 6 Invalid handle. "], 3),
    "reading, with the server's words": (
        "download-broken", [*READING, 'InternetGetLastResponseInfoW * code=550 text="No such file, sorry"'],
        ["Response code from server: 200", "Unable to read file from internet. Extended error code: 550 No such file, sorry"], 3),
    "reading, with no answer": ("download-broken", [*READING, "InternetGetLastResponseInfoW * error=14"],
                                ["Response code from server: 200", "Unable to read file from internet. Extended error code: 0 "], 3),
    "reading, with no words": ("download-broken", [*READING, 'InternetGetLastResponseInfoW * code=7 text=""'],
                               ["Response code from server: 200", "Unable to read file from internet. Extended error code: 7 "], 3),
}


# Proves: The request cannot be opened
# Proves: The time limits are refused
# Proves: Reading fails with a text of the server
@pytest.mark.parametrize("name", FAILING)
def test_failing_call_ends_the_download(lab, name):
    outcome, rules, lines, handles = FAILING[name]
    result = lab.run({**answering(), "faults": [f"wininet!{rule}" for rule in rules]})
    lab.check(**failed(outcome, *lines), after={**UNTOUCHED, "missing": [FINAL]})
    assert len([line for line in result.calls if "InternetCloseHandle" in line]) == handles
    if name.startswith("reading"):
        assert result.file(TEMPORARY).read_text() == NO_PROGRAM[:4], "what a failing read gives is not written"
        asked = [re.search(r"buffer=\S+", line).group() for line in result.calls if "GetLastResponseInfoW" in line]
        assert asked == (["buffer=(null);", "buffer=given;"] if ", with" in name else [])


def test_short_reads_are_put_together(lab):
    result = lab.run({**answering(), "faults": ["wininet!InternetReadFile * count=3"]})
    lab.check(**downloaded(len(NO_PROGRAM)))
    assert result.file(FINAL).read_text() == NO_PROGRAM
    assert len([line for line in result.calls if "!InternetReadFile#" in line]) == 5  # 3, 3, 3, 1 and the end


# Proves: Several adapters => only the first of the sorted list counts
def test_greatest_release_of_several_adapters_is_downloaded(lab):
    path = f"{SERVER_PATH}24.30/dwx2_install.txt"
    second = {"release": "24.30.1-b", "description": "Tavik Corvel 7900"}
    result = lab.run({"adapters": [{}, second], **answering(path=path)})
    lab.check(outcome="installer-blocked", requests=[f"{path} 200"])
    assert result.log[-6] == (f"Unable to find dwx2-install.exe at [{lab.machine.adapters[1].packages[0].store_folder()}]. "
                              "Downloading dwx2_install.exe for [24.30] from web.")
