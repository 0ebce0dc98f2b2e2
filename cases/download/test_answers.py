"""Everything that a download server can answer, and how its connections can end. Error numbers are those of this system.

test_address.py has addresses, TLS and certificates.
"""
from __future__ import annotations

import gzip

import pytest

from cases.support.download import (BEFORE, FINAL, GOOD, NO_PROGRAM, PATH, START, TEMPORARY, URL, answering, check_arrived,
                                    check_failed, not_sent, status_line)
from cases.support.expect import (CHECKING, DOWNLOADING, INSTALLING, REPAIR, REPAIRED, UNTOUCHED, download, inventory, opening,
                                  unpack)

MIB = 1 << 20
OK = "HTTP/1.1 200 OK\r\n"
LOST = ["Response code from server: 200", "Download failed with error code: 10054 Connection reset by peer. "]


def raw(text: str) -> dict:
    return {"raw": text}


# Proves: The server says nothing for 90 seconds
@pytest.mark.slow
def test_silence_in_mid_body_is_given_up_after_a_minute_and_a_half(lab):
    """The error of the time-out has no text."""
    result = lab.run(answering({"size": 3 * MIB, "pause": [MIB + 1000, 900]}), timeout=300)
    check_failed(lab, "download-broken", LOST[0], "Download failed with error code: 10060 ", requests=[GOOD], left=MIB)
    assert result.seconds > 90


# Proves: A body of 2 GiB or more
# Proves: The body has more than 2 or 4 GiB => it arrives whole; the counter in the log wraps
@pytest.mark.slow
@pytest.mark.parametrize("size, logged", [((2 << 30) + 1, -2147483647), (5_000_000_000, 705032704)], ids=["2 GiB + 1", "5 GB"])
def test_body_larger_than_the_logged_counter_arrives(lab, size, logged):
    """The body arrives whole; only the number in the log wraps."""
    result = lab.run({**answering({"size": size, "rate": 400_000_000}), "sparse": TEMPORARY}, timeout=300)
    check_arrived(lab, size, [GOOD], logged=logged)
    assert result.requests[0]["bytes"] == size
    assert result.status_texts[-3:] == [CHECKING, DOWNLOADING, INSTALLING]
    assert 0 < result.disk_used < 1_000_000_000, "the file was kept sparse"


# Statuses

# Proves: The server answers with any status, loop, redirect, broken length or chunk, reset or silence => only 200 is good; the rest ends as a failed download, in 90 seconds at most after the last byte
# Proves: The installer is neither found nor downloaded
# Proves: A status other than 200, even another good one
@pytest.mark.parametrize("outcome, answer", [
    ("download-refused", {"status": 201, "text": "MZ"}),
    ("download-refused", {"status": 204, "headers": {"ETag": '"empty"'}}),
    ("download-refused", {"status": 206, "text": NO_PROGRAM, "headers": {"Content-Range": "bytes 0-9/100"}}),
    ("download-refused", {"status": 304, "text": "MZ", "length": False}),
    ("download-refused", {"status": 308, "redirect": "/elsewhere"}),
    ("download-refused", {"status": 401, "text": "who are you", "headers": {"WWW-Authenticate": 'Basic realm="lab"'}}),
    ("download-not-there", {"status": 404, "installer": "24.20"}),
    ("download-refused", {"status": 407, "text": "who are you", "headers": {"Proxy-Authenticate": 'Basic realm="lab"'}}),
    ("download-server-trouble", {"status": 500, "hex": "00ff"}),
    ("download-server-trouble", {"status": 503, "text": "later", "headers": {"Retry-After": "1"}}),
], ids=lambda value: f"{value['status']}" if isinstance(value, dict) else "")
def test_only_status_200_is_good(lab, outcome, answer):
    """No second try, no second address, and an installer that is sent as an error page stays unused."""
    lab.run(answering(answer))
    check_failed(lab, outcome, *status_line(answer["status"]), requests=[f"{PATH} {answer['status']}"])


# Answers that end the download

LENGTH = "Content-Length: 10\r\n\r\nno program"
FAILS = {  # name: answer, outcome, lines, status that was sent, length of the temporary file
    "status of too many digits": (raw(f"HTTP/1.1 2000 OK\r\n{LENGTH}"), "download-refused", status_line(2000), 0, 0),
    "status in words": (raw(f"HTTP/1.1 OK\r\n{LENGTH}"), "download-refused", status_line(0), 0, 0),
    "no answer at all": (raw(""), "download-refused", status_line(0), 0, 0),
    "redirect without an address": (raw(f"HTTP/1.1 302 Found\r\n{LENGTH}"), "download-refused", status_line(302), 0, 0),
    # The log has the first address. Only HTTP is followed; otherwise the redirect's own status counts.
    "redirect to no server": ({"redirect": "http://127.0.0.1:1/x"}, "download-unreachable", [not_sent(URL, 12029)], 302, 0),
    "redirect to half an address": ({"redirect": "http://"}, "download-unreachable", [not_sent(URL, 12005)], 302, 0),
    "redirect to ftp": ({"redirect": "ftp://127.0.0.1:1/x"}, "download-refused", status_line(302), 302, 0),
    # Delayed until Wine waits for the answer: a reset before that counts as an empty answer now and then.
    "reset in place of an answer": ({"raw": "", "reset": 0, "delay": 0.3}, "download-unreachable", [not_sent(URL, 12030)], 0, 0),
    "reset after a body of unknown length": ({"size": 2 * MIB, "length": False, "reset": 2 * MIB}, "download-broken", LOST, 200, 2 * MIB),
}


@pytest.mark.parametrize("name", FAILS)
def test_answer_ends_the_download(lab, name):
    answer, outcome, lines, status, left = FAILS[name]
    lab.run(answering(answer))
    check_failed(lab, outcome, *lines, requests=[f"{PATH} {status}"], left=left)


# Proves: Reading fails otherwise
@pytest.mark.parametrize("at, left", [(0, 0), (MIB - 1, 0), (MIB + 1, MIB), (3 * MIB - 1, 2 * MIB)])
def test_reset_in_the_body_ends_the_download(lab, at, left):
    """Only full blocks are in the file; the bytes after them were lost with the reset."""
    result = lab.run(answering({"size": 3 * MIB, "reset": at}))
    check_failed(lab, "download-broken", *LOST, requests=[GOOD], left=left)
    assert result.requests[0]["bytes"] == at


def test_reset_after_the_last_byte_does_not_matter(lab):
    """On a busy host the system may repeat the request; the tool does not notice."""
    result = lab.run(answering({"size": 3 * MIB, "reset": 3 * MIB}))
    check_arrived(lab, 3 * MIB, [GOOD] * min(2, len(result.requests)))


# Answers that arrive

CHUNKED = f"{OK}Transfer-Encoding: chunked\r\n\r\n"
ARRIVES = {  # name: answer, length of the file; a body that is shorter than announced ends with the connection
    "100 before": (raw(f"HTTP/1.1 100 Continue\r\n\r\n{OK}{LENGTH}"), 10),
    "long header": (raw(f"{OK}X-Long: {'x' * 100_000}\r\n{LENGTH}"), 10),
    "length of 10 GB": (raw(f"{OK}Content-Length: 10000000000\r\n\r\nno program"), 10),
    "no body, no length": ({"text": "", "length": False}, 0),
    "no body, length 5": ({"text": "", "announce": 5}, 0),
    "1 byte missing after 1 MiB": ({"size": MIB, "announce": MIB + 1}, MIB),
    "5 GB announced": ({"size": 2 * MIB + 5, "announce": 5_000_000_000}, 2 * MIB + 5),
    "more than announced, after 1 MiB": ({"size": 2 * MIB, "announce": MIB + 1}, MIB + 1),
    "chunk size is no number": (raw(f"{CHUNKED}zz\r\nno program\r\n0\r\n\r\n"), 0),
    "no chunk": (raw(CHUNKED), 0),
    "chunk ends early": (raw(f"{CHUNKED}ff\r\nno program"), 10),
    "chunk goes on": (raw(f"{CHUNKED}2\r\nno program\r\n0\r\n\r\n"), 2),
    "chunks with extension and trailer": (raw(f"{CHUNKED}4;name=value\r\nno p\r\n06\r\nrogram\r\n0\r\nX-Trailer: 1\r\n\r\n"), 10),
    "byte by byte": ({"text": NO_PROGRAM, "trickle": 0.02}, 10),
}


# Proves: An empty body
# Proves: The body is shorter than announced, or no installer at all => nothing checks it
@pytest.mark.parametrize("name", ARRIVES)
def test_answer_is_taken_for_the_installer(lab, name):
    answer, size = ARRIVES[name]
    result = lab.run(answering(answer))
    check_arrived(lab, size, [f"{PATH} 0" if "raw" in answer else GOOD])
    assert "size" in answer or result.file(FINAL).read_text() == NO_PROGRAM[:size]


@pytest.mark.parametrize("answer", [{"size": 3000, "rate": 2000, "delay": 0.01}, {"size": 2 * MIB, "pause": [MIB + 7, 2]},
                                    {"size": 7, "delay": 2}], ids=["slow", "pause in the body", "pause before the answer"])
def test_slow_server_is_waited_for(lab, answer):
    lab.run(answering(answer))
    check_arrived(lab, answer["size"], [GOOD])
    assert lab.result.status_texts[-3:] == [CHECKING, DOWNLOADING, INSTALLING]


def test_gzip_label_is_ignored(lab):
    """A real installer under that label is installed: the bytes are taken as they come."""
    lab.run(answering({"installer": "24.20", "headers": {"Content-Encoding": "gzip"}}))
    lab.check(outcome="repaired", before=BEFORE, requests=[GOOD], after={**REPAIRED, "files": [FINAL], "missing": [TEMPORARY]},
              log=[*opening(), *inventory(), *download(), unpack(), *REPAIR])


def test_gzip_body_stays_packed(lab):
    packed = gzip.compress(b"no program" * 1000, mtime=0)
    result = lab.run(answering({"hex": packed.hex(), "headers": {"Content-Encoding": "gzip"}}))
    check_arrived(lab, len(packed), [GOOD])
    assert result.file(FINAL).read_bytes() == packed


# Redirects

# Proves: A redirect => is followed, only the final status counts
@pytest.mark.parametrize("status", [301, 307])
def test_redirect_is_followed(lab, status):
    result = lab.run({"server": {"answers": {PATH: {"redirect": "/mirror", "status": status}, "/mirror": {"text": NO_PROGRAM}}}})
    check_arrived(lab, 10, [f"{PATH} {status}", "/mirror 200"])
    assert result.requests[1]["accept"] == "Accept: */*"


@pytest.mark.quick
@pytest.mark.parametrize("last", [200, 500])
def test_last_status_of_a_chain_of_redirects_counts(lab, last):
    hops = [PATH, *[f"/hop/{number}" for number in range(1, 13)]]
    answers = {path: {"redirect": onward, "status": 301} for path, onward in zip(hops, hops[1:])}
    lab.run({"server": {"answers": {**answers, hops[-1]: {"text": NO_PROGRAM, "status": last}}}})
    requests = [*[f"{path} 301" for path in hops[:-1]], f"{hops[-1]} {last}"]
    if last == 200:
        check_arrived(lab, 10, requests)
    else:
        check_failed(lab, "download-server-trouble", *status_line(last), requests=requests)


def test_redirect_loop_that_ends_after_50_turns(lab):
    lab.run(answering({"redirect": PATH, "turns": 50, "text": NO_PROGRAM}))
    check_arrived(lab, 10, [f"{PATH} 302"] * 50 + [GOOD])


# Proves: The tool is killed => what was logged so far is in the file
def test_endless_redirect_loop_lasts_until_the_user_ends_it(lab):
    """The system sets no limit to redirects. The window stays up, and the program can be ended like any other."""
    result = lab.run({"server": {"answers": {PATH: {"redirect": "/other"}, "/other": {"redirect": PATH}}}},
                     when=[f"text {DOWNLOADING} : wait 1000", "window : kill 77"])
    lab.check(exit_code=77, outcome="interrupted", boxes=[], log=[*opening(), *inventory(), *START], before=BEFORE,
              after={**UNTOUCHED, "files": [TEMPORARY], "missing": [FINAL]})
    asked = [(item["path"], item["status"]) for item in result.requests]
    assert len(asked) > 4 and set(asked[::2]) == {(PATH, 302)} and set(asked[1::2]) <= {("/other", 302)}
