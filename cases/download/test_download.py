"""The download: where from, what the server may answer, what is asked of the system, and every way to fail."""
from __future__ import annotations

import re
import zlib

import pytest

from cases.support.download import (FINAL, FOLDER, NO_PROGRAM, PATH, SERVER_PATH, START, TEMPORARY, UNTOUCHED, URL, answering, downloaded,
                              failed, file_of, thrown)
from cases.support.expect import DOWNLOADING, INSTALL_FAILED


def wininet(result, skip: tuple[str, ...] = ("InternetReadFile",)) -> list[str]:
    """The calls into WinINet in their order, without results and addresses."""
    calls = [line.removeprefix("wininet!") for line in result.calls if line.startswith("wininet!")]
    calls = [re.sub(r"; (session|connection|request|handle)=0x[0-9a-f]+", "", line) for line in calls]
    return [line for line in calls if not line.startswith(skip)]


# Where from

# Proves: The value names another server
# Proves: What the server sees
@pytest.mark.quick
def test_request_as_the_server_sees_it(lab):
    result = lab.run(answering())
    lab.check(**downloaded(len(NO_PROGRAM)), requests=[f"{PATH} 200"], after={**UNTOUCHED, "files": [FINAL], "missing": [TEMPORARY]})
    request, = result.requests
    assert {name: request[name] for name in ("method", "path", "host", "user_agent", "accept", "referer", "pragma")} == {
        "method": "GET", "path": PATH, "host": result.server, "user_agent": "Tavik Marlin Install Manager",
        "accept": "Accept: */*", "referer": "http://support.tavik.example/", "pragma": "no-cache"}


# Proves: It has no slash at its end
# Proves: The address is made
def test_folder_without_a_slash_is_glued_to_the_release(lab):
    path = "/drivers/installer/vlt24.20/dwx2_install.txt"
    start = [START[0], "Change server to http://{server}/drivers/installer/vlt."]
    lab.run(answering(folder="http://{server}/drivers/installer/vlt", path=path))
    lab.check(**downloaded(len(NO_PROGRAM), start), requests=[f"{path} 200"])


# Proves: An https address with another port than 443
def test_https_on_another_port_goes_out_in_the_clear(lab):
    start = [START[0], "Change server to https://{server}/drivers/installer/vlt/."]
    result = lab.run(answering(folder="https://{server}" + SERVER_PATH))
    lab.check(**downloaded(len(NO_PROGRAM), start), requests=[f"{PATH} 200"])
    assert result.requests[0]["tls"] == ""


# Proves: An http address with port 443
def test_http_on_port_443_is_encrypted(lab):
    folder = f"http://download.tavik.example:443{SERVER_PATH}"
    result = lab.run({"server": {"reach": "default", "answers": {PATH: {"text": NO_PROGRAM}}}, "standins": ["wininet"],
                      "registry": {r"HKLM\Software\Tavik": {"DWXServerFolder": folder}}})
    lab.check(**downloaded(len(NO_PROGRAM), [START[0], f"Change server to {folder}."]), requests=[f"{PATH} 200"])
    assert result.requests[0]["tls"].startswith("TLS")
    assert any(line.startswith("HttpOpenRequestW#1 ") and "flags=0x84800500" in line for line in wininet(result))


# Proves: The value is no text, or reading it fails
def test_folder_that_is_no_text_counts_for_nothing(lab):
    lab.run({"server": {"reach": "default", "answers": {PATH: {"text": NO_PROGRAM}}},
             "registry": {r"HKLM\Software\Tavik": {"DWXServerFolder": 5}}})
    lab.check(**downloaded(len(NO_PROGRAM), START[:1]), requests=[f"{PATH} 200"])


@pytest.mark.parametrize("certificate, code", [("wrong-host", 12038), ("expired", 12037), ("unknown", 12045)])
def test_server_that_is_not_the_makers(lab, certificate, code):
    lab.run({"server": {"reach": "default", "certificate": certificate}})
    url = f"https://download.tavik.example{PATH}"
    lab.check(**failed(f"Unable to call HttpSendRequest to {url}. Error {code}", start=START[:1]), requests=[], after=UNTOUCHED)


# Proves: It is empty
# Proves: The address cannot be split
@pytest.mark.parametrize("folder, code", [
    ("", 12006), ("server/", 12006), ("http://{server}/" + "x" * 240 + "/", 122), ("http://" + "h" * 260 + "/", 122),
], ids=["empty", "no scheme", "long path", "long host"])
def test_folder_that_is_no_address(lab, folder, code):
    lab.run(answering(folder=folder))
    lab.check(**failed(f"Unable to crack URL: {folder}24.20/dwx2_install.txt. Error = {code}",
                       start=[START[0], f"Change server to {folder}."]), requests=[], after={**UNTOUCHED, "files": [FOLDER]})


# Proves: The request cannot be sent: nobody listens, wrong, expired or unknown certificate
def test_nobody_listens(lab):
    lab.run({"server": {"reach": "none"}, "registry": {r"HKLM\Software\Tavik": {"DWXServerFolder": "http://127.0.0.1:1/"}}})
    lab.check(**failed("Unable to call HttpSendRequest to http://127.0.0.1:1/24.20/dwx2_install.txt. Error 12029",
                       start=[START[0], "Change server to http://127.0.0.1:1/."]), after=UNTOUCHED)


# Answers

# Proves: A status other than 200, even another good one
@pytest.mark.parametrize("status", [201, 204, 206, 304, 308, 403, 500])
def test_only_200_is_good(lab, status):
    lab.run(answering({"status": status, "text": "MZ", "length": status not in (204, 304)}))
    lab.check(**failed(f"Response code from server: {status}", f"Error response code received from {URL}"),
              requests=[f"{PATH} {status}"], after={**UNTOUCHED, "missing": [FINAL], "files": [TEMPORARY]})


# Proves: A redirect
def test_redirect_is_followed(lab):
    result = lab.run({"server": {"answers": {PATH: {"redirect": "/mirror/file"}, "/mirror/file": {"text": NO_PROGRAM}}}})
    lab.check(**downloaded(len(NO_PROGRAM)), requests=[f"{PATH} 302", "/mirror/file 200"])
    assert result.requests[1]["accept"] == "Accept: */*"


def test_redirect_to_nothing(lab):
    lab.run(answering({"redirect": "/mirror/file"}))
    lab.check(**failed("Response code from server: 404", f"Error response code received from {URL}"),
              requests=[f"{PATH} 302", "/mirror/file 404"], after=UNTOUCHED)


# Proves: An empty body
def test_empty_body(lab):
    result = lab.run(answering({"text": ""}))
    lab.check(**downloaded(0), requests=[f"{PATH} 200"], after={**UNTOUCHED, "files": [FINAL], "missing": [TEMPORARY]})
    assert result.after.files[FINAL] == 0


# Proves: The body arrives
@pytest.mark.parametrize("length", [True, False], ids=["with length", "without length"])
def test_body_arrives_byte_for_byte(lab, length):
    body = b"".join(zlib.crc32(number.to_bytes(4, "big")).to_bytes(4, "big") for number in range(600_000))
    result = lab.run({**answering({"hex": body.hex(), "length": length}), "standins": ["wininet"]})
    lab.check(**downloaded(len(body)), requests=[f"{PATH} 200"])
    assert file_of(result, FINAL).read_bytes() == body
    reads = [re.search(r"size=(\d+).*count=(\d+) -> 1", line).groups() for line in result.calls if "!InternetReadFile#" in line]
    assert reads == [("1048576", "1048576"), ("1048576", "1048576"), ("1048576", str(len(body) - 2097152)), ("1048576", "0")]


# Proves: Reading fails otherwise
def test_connection_is_lost_in_mid_body(lab):
    result = lab.run(answering({"size": 3_000_000, "reset": 1_500_000}))
    lab.check(**failed("Response code from server: 200", "Download failed with error code: 10054 {any}"),
              after={**UNTOUCHED, "missing": [FINAL], "files": [TEMPORARY]})
    assert result.after.files[TEMPORARY] == 1048576  # the block that was complete


# Files

def test_old_files_are_gone_even_when_the_download_fails(lab):
    result = lab.run({**answering(404), "files": {FINAL: "old", TEMPORARY: "older"}})
    lab.check(**failed("Response code from server: 404", f"Error response code received from {URL}"),
              before={"files": [FINAL, TEMPORARY]}, after={**UNTOUCHED, "missing": [FINAL], "files": [TEMPORARY]})
    assert (result.before.files[TEMPORARY], result.after.files[TEMPORARY]) == (5, 0)


# Proves: Old files that can be removed
def test_old_files_are_replaced(lab):
    result = lab.run({**answering(), "files": {FINAL: "the old one", TEMPORARY: "older"}})
    lab.check(**downloaded(len(NO_PROGRAM)), before={"files": [FINAL, TEMPORARY]}, after={"missing": [TEMPORARY]})
    assert file_of(result, FINAL).read_text() == NO_PROGRAM


# Proves: An old file is locked, write-protected or a folder
@pytest.mark.parametrize("path", [FINAL, TEMPORARY], ids=["final", "temporary"])
@pytest.mark.parametrize("how", ["held", "read_only"])
def test_old_file_that_cannot_be_removed(lab, path, how):
    result = lab.run({**answering(), "files": {path: "old"}, how: [path]})
    lab.check(**failed(thrown(f"filesystem error: remove: {{any}} [{path}]")), requests=[],
              before={"files": [path]}, after={**UNTOUCHED, "files": [path]})
    assert file_of(result, path).read_text() == "old"


@pytest.mark.parametrize("path", [FINAL, TEMPORARY], ids=["final", "temporary"])
def test_folder_in_place_of_an_old_file(lab, path):
    lab.run({**answering(), "files": {path + "\\inside": "old"}})
    lab.check(**failed(thrown(f"filesystem error: remove: {{any}} [{path}]")), requests=[],
              after={**UNTOUCHED, "files": [path + "\\inside"]})


# Proves: The download folder cannot be created
def test_download_folder_blocked_by_a_file(lab):
    lab.run({**answering(), "files": {FOLDER: "in the way"}})
    lab.check(**failed(thrown(f"filesystem error: create_directories: {{any}} [{FOLDER}\\]")), requests=[],
              after={**UNTOUCHED, "files": [FOLDER]})


# Proves: The temporary file cannot be created
def test_temporary_file_cannot_be_created(lab):
    """A folder in which nobody may create anything, not even root."""
    lab.run({**answering(), "files": {FOLDER: {"link": "/proc/sys"}}})
    lab.check(**failed(r"Unable to create file to download data into. Target path: {temp}Tavik_VLTInstallerDownload\dwx2_install.exe.tmp. "
                       "Error: 2"), requests=[], after=UNTOUCHED)


# What is asked of the system

# Proves: A good download
def test_calls_into_the_system(lab):
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


FAILING = {
    "session": (["InternetOpenW * error=14"], [thrown("Unable to open internet connection: {any}")], 0),
    "connection": (["InternetConnectW * error=87"], [thrown("Unable to connect to server: {any}")], 1),
    "request": (["HttpOpenRequestW * error=8", "InternetSetOptionW * return=1 gle=8"], [f"Unable to call HttpOpenRequest to {URL}. Error 8"], 2),
    "request, then an option": (["HttpOpenRequestW * error=8", "InternetSetOptionW 3 error=12018"],
                                [f"Unable to call HttpOpenRequest to {URL}. Error 12018"], 2),
    "options": (["InternetSetOptionW * error=12009", "HttpSendRequestW * error=12002"],
                [f"Unable to call HttpSendRequest to {URL}. Error 12002"], 3),
    "sending": (["HttpSendRequestW * error=12152"], [f"Unable to call HttpSendRequest to {URL}. Error 12152"], 3),
    "status": (["HttpQueryInfoW * error=5"], [f"Unable to create query response code from {URL}. Error code: 5 Access denied. "], 3),
    "status without a text": (["HttpQueryInfoW * error=12150"], [f"Unable to create query response code from {URL}. Error code: 12150 "], 3),
    "status is not 200": (["HttpQueryInfoW * status=-200"], ["Response code from server: -200", f"Error response code received from {URL}"], 3),
    "reading": (["InternetReadFile 1 count=4", "InternetReadFile 2 error=6 count=3"],
                ["Response code from server: 200", "Download failed with error code: 6 Invalid handle. "], 3),
    "reading, with the server's words": (["InternetReadFile 1 count=4", "InternetReadFile 2 error=12003",
                                          'InternetGetLastResponseInfoW * code=550 text="No such file, sorry"'],
                                         ["Response code from server: 200",
                                          "Unable to read file from internet. Extended error code: 550 No such file, sorry"], 3),
    "reading, with no words": (["InternetReadFile 1 count=4", "InternetReadFile 2 error=12003",
                                'InternetGetLastResponseInfoW * code=7 text=""'],
                               ["Response code from server: 200", "Unable to read file from internet. Extended error code: 7 "], 3),
}


# Proves: The download raises an exception
# Proves: The session cannot be opened
# Proves: The connection cannot be opened
# Proves: The request cannot be opened
# Proves: The time limits are refused
# Proves: The status cannot be read
# Proves: Reading fails with a text of the server
@pytest.mark.parametrize("name", FAILING)
def test_failing_call(lab, name):
    rules, lines, handles = FAILING[name]
    result = lab.run({**answering(), "faults": [f"wininet!{rule}" for rule in rules]})
    lab.check(**failed(*lines), after={**UNTOUCHED, "missing": [FINAL]})
    assert len([line for line in result.calls if "InternetCloseHandle" in line]) == handles
    if name.startswith("reading"):
        assert file_of(result, TEMPORARY).read_text() == NO_PROGRAM[:4], "what a failing read gives is not written"
        asked = [line.rpartition(" -> ")[0] for line in result.calls if "GetLastResponseInfoW" in line]
        assert [re.search(r"buffer=\S+", line).group() for line in asked] == (["buffer=(null);", "buffer=given;"] if ", with" in name else [])


def test_short_reads_are_put_together(lab):
    result = lab.run({**answering(), "faults": ["wininet!InternetReadFile * count=3"]})
    lab.check(**downloaded(len(NO_PROGRAM)))
    assert file_of(result, FINAL).read_text() == NO_PROGRAM
    assert len([line for line in result.calls if "!InternetReadFile#" in line]) == 5  # 3, 3, 3, 1 and the end


# What the user sees

def test_status_line_while_downloading(lab):
    result = lab.run(answering({"status": 404, "delay": 1}))
    lab.check(**failed("Response code from server: 404", f"Error response code received from {URL}"))
    assert result.status_texts[-1] == DOWNLOADING


# Proves: Several adapters
def test_greatest_release_is_downloaded(lab):
    """The greatest release decides, wherever its adapter stands."""
    path = f"{SERVER_PATH}24.30/dwx2_install.txt"
    second = {"release": "24.30.1-b", "description": "Tavik Corvel 7900"}
    result = lab.run({"adapters": [{}, second], **answering(path=path)})
    lab.check(exit_code=2, boxes=[INSTALL_FAILED], requests=[f"{path} 200"])
    assert result.log[-6] == (f"Unable to find dwx2-install.exe at [{lab.machine.adapters[1].packages[0].store_folder()}]. "
                              "Downloading dwx2_install.exe for [24.30] from web.")
