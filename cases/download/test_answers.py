"""Everything that a download server can answer, and how its connections can end. Error numbers are those of this system.

test_address.py has addresses, TLS and certificates.
"""
from __future__ import annotations

import gzip

import pytest

from cases.support.download import (BEFORE, FINAL, GOOD, NO_PROGRAM, PATH, START, TEMPORARY, URL, answering, check_arrived, check_failed, not_sent,
                                    status_line)
from cases.support.expect import (CHECKING, DOWNLOADING, FINISHED, INSTALLING, REPAIR, REPAIRED, UNTOUCHED, download, inventory, opening,
                                  unpack)

MIB = 1 << 20
OK = "HTTP/1.1 200 OK\r\n"
LOST = ["Response code from server: 200", "Download failed with error code: 10054 Connection reset by peer. "]


def raw(text: str) -> dict:
    return answering({"raw": text})


# Proves: The server says nothing for 90 seconds
@pytest.mark.slow
def test_silence_in_mid_body_is_given_up_after_a_minute_and_a_half(lab):
    """The error of the time-out has no text."""
    result = lab.run(answering({"size": 3 * MIB, "pause": [MIB + 1000, 900]}), timeout=300)
    check_failed(lab, "download-broken", "Response code from server: 200", "Download failed with error code: 10060 ", requests=[GOOD], left=MIB)
    assert result.seconds > 90


# Proves: A body of 2 GiB or more
# Proves: The body has more than 2 or 4 GiB => it arrives whole; the counter in the log wraps
@pytest.mark.slow
@pytest.mark.parametrize("size, logged", [((2 << 30) + 1, -2147483647), (5_000_000_000, 705032704)], ids=["2 GiB + 1", "5 GB"])
def test_more_than_the_counter_can_count(lab, size, logged):
    """The body arrives whole; only the number in the log wraps."""
    result = lab.run({**answering({"size": size, "rate": 400_000_000}), "sparse": [TEMPORARY]}, timeout=300)
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
    ("download-refused", {"status": 300, "text": NO_PROGRAM}),
    ("download-refused", {"status": 304, "text": "MZ", "length": False}),
    ("download-refused", {"status": 308, "redirect": "/elsewhere"}),
    ("download-refused", {"status": 401, "text": "who are you", "headers": {"WWW-Authenticate": 'Basic realm="lab"'}}),
    ("download-refused", {"status": 403, "text": "MZ"}),
    ("download-not-there", {"status": 404, "installer": "24.20"}),
    ("download-refused", {"status": 407, "text": "who are you", "headers": {"Proxy-Authenticate": 'Basic realm="lab"'}}),
    ("download-not-there", {"status": 410, "size": 3 * MIB}),
    ("download-server-trouble", {"status": 500, "hex": "00ff"}),
    ("download-server-trouble", {"status": 503, "text": "later", "headers": {"Retry-After": "1"}}),
    ("download-refused", {"status": 999, "text": NO_PROGRAM}),
], ids=lambda value: f"{value['status']}" if isinstance(value, dict) else "")
def test_only_status_200_is_good(lab, outcome, answer):
    """No second try, no second address, and an installer that is sent as an error page stays unused."""
    lab.run(answering(answer))
    check_failed(lab, outcome, *status_line(answer["status"]), requests=[f"{PATH} {answer['status']}"])


@pytest.mark.parametrize("text, status", [
    ("HTTP/1.1 2000 OK\r\nContent-Length: 10\r\n\r\nno program", 2000),
    ("HTTP/1.1 -200 OK\r\nContent-Length: 10\r\n\r\nno program", -200),
    ("HTTP/1.1 OK\r\nContent-Length: 10\r\n\r\nno program", 0),
    ("HTTP/1.1 302 Found\r\nContent-Length: 10\r\n\r\nno program", 302),
    ("", 0),
], ids=["too many digits", "negative", "words", "redirect to nowhere", "no answer at all"])
def test_malformed_status_is_refused(lab, text, status):
    lab.run(raw(text))
    check_failed(lab, "download-refused", *status_line(status), requests=[f"{PATH} 0"])


@pytest.mark.parametrize("text", [
    f"HTTP/1.1 100 Continue\r\n\r\n{OK}Content-Length: 10\r\n\r\nno program",
    f"{OK}X-Long: {'x' * 100_000}\r\nContent-Length: 10\r\n\r\nno program",
    f"{OK}{'X-Many: x' * 3000}\r\nContent-Length: 10\r\n\r\nno program",
    f"{OK}nonsense\r\nContent-Length: 10\r\n\r\nno program",
    f"{OK}Content-Length: many\r\n\r\nno program",
    f"{OK}Content-Length: 10000000000\r\n\r\nno program",
], ids=["100 before", "long line", "3000 lines", "nonsense", "length in words", "length of 10 GB"])
def test_strange_headers_are_ignored(lab, text):
    lab.run(raw(text))
    check_arrived(lab, 10, [f"{PATH} 0"])


# Redirects

# Proves: A redirect => is followed, only the final status counts
@pytest.mark.parametrize("status", [301, 302, 303, 307])
def test_redirect_is_followed(lab, status):
    result = lab.run({"server": {"answers": {PATH: {"redirect": "/mirror", "status": status}, "/mirror": {"text": NO_PROGRAM}}}})
    check_arrived(lab, 10, [f"{PATH} {status}", "/mirror 200"])
    assert result.requests[1]["accept"] == "Accept: */*"


@pytest.mark.quick
def test_long_chain_of_redirects(lab):
    hops = [PATH, *[f"/hop/{number}" for number in range(1, 13)]]
    answers = {path: {"redirect": onward, "status": 301} for path, onward in zip(hops, hops[1:])}
    lab.run({"server": {"answers": {**answers, hops[-1]: {"text": NO_PROGRAM}}}})
    check_arrived(lab, 10, [*[f"{path} 301" for path in hops[:-1]], f"{hops[-1]} 200"])


def test_only_the_last_status_of_a_chain_counts(lab):
    lab.run({"server": {"answers": {PATH: {"redirect": "/a"}, "/a": {"redirect": "/b", "status": 307}, "/b": 500}}})
    check_failed(lab, "download-server-trouble", *status_line(500), requests=[f"{PATH} 302", "/a 307", "/b 500"])


def test_redirect_loop_that_ends_after_50_turns(lab):
    lab.run(answering({"redirect": PATH, "turns": 50, "text": NO_PROGRAM}))
    check_arrived(lab, 10, [f"{PATH} 302"] * 50 + [GOOD])


def test_endless_redirect_loop_lasts_until_the_user_ends_it(lab):
    """The system sets no limit to redirects. The window stays up, and the program can be ended like any other."""
    result = lab.run({"server": {"answers": {PATH: {"redirect": "/other"}, "/other": {"redirect": PATH}}}},
                     when=[f"text {DOWNLOADING} : wait 1000", "window : kill 77"])
    lab.check(exit_code=77, outcome="interrupted", boxes=[], log=[*opening(), *inventory(), *START], before=BEFORE,
              after={**UNTOUCHED, "files": [TEMPORARY], "missing": [FINAL]})
    asked = [(item["path"], item["status"]) for item in result.requests]
    assert len(asked) > 4 and set(asked[::2]) == {(PATH, 302)} and set(asked[1::2]) <= {("/other", 302)}


@pytest.mark.parametrize("where, outcome, lines", [
    ("http://127.0.0.1:1/x", "download-unreachable", [not_sent(URL, 12029)]),
    ("http://", "download-unreachable", [not_sent(URL, 12005)]),
    ("ftp://127.0.0.1:1/x", "download-refused", status_line(302)),
    ("file:///C:/windows/notepad.exe", "download-refused", status_line(302))], ids=["no server", "no address", "ftp", "file"])
def test_redirect_that_cannot_be_followed(lab, where, outcome, lines):
    """The log has the first address. Only HTTP is followed; otherwise the redirect's own status counts."""
    lab.run(answering({"redirect": where}))
    check_failed(lab, outcome, *lines, requests=[f"{PATH} 302"])


# Bodies

# Proves: An empty body
@pytest.mark.parametrize("answer", [{"text": ""}, {"text": "", "length": False}, {"text": "", "announce": 5}],
                         ids=["of length 0", "without a length", "of length 5"])
def test_empty_body_is_an_installer_of_no_bytes(lab, answer):
    lab.run(answering(answer))
    check_arrived(lab, 0, [GOOD])


@pytest.mark.parametrize("body, announced", [(MIB - 1, MIB), (MIB, MIB + 1), (2 * MIB + 5, 5_000_000_000)])
def test_body_shorter_than_announced_looks_complete(lab, body, announced):
    """Nothing is compared with the length: the end of the connection ends the body."""
    lab.run(answering({"size": body, "announce": announced}))
    check_arrived(lab, body, [GOOD])


@pytest.mark.parametrize("body, announced", [(2 * MIB, MIB - 1), (2 * MIB, MIB), (2 * MIB, MIB + 1)])
def test_body_longer_than_announced_is_cut(lab, body, announced):
    lab.run(answering({"size": body, "announce": announced}))
    check_arrived(lab, announced, [GOOD])


# Proves: Reading fails otherwise
@pytest.mark.parametrize("at, left", [(0, 0), (1, 0), (MIB - 1, 0), (MIB, MIB), (MIB + 1, MIB), (3 * MIB - 1, 2 * MIB)])
def test_reset_at_byte(lab, at, left):
    """Full blocks are in the file, what was read before the reset is not."""
    result = lab.run(answering({"size": 3 * MIB, "reset": at}))
    check_failed(lab, "download-broken", *LOST, requests=[GOOD], left=left)
    assert result.requests[0]["bytes"] == at


def test_reset_after_the_last_byte_does_not_matter(lab):
    """On a busy host the system may send the request once more, unseen by the tool."""
    result = lab.run(answering({"size": 3 * MIB, "reset": 3 * MIB}))
    check_arrived(lab, 3 * MIB, [GOOD] * min(2, len(result.requests)))


def test_reset_after_the_last_byte_of_an_unknown_length(lab):
    lab.run(answering({"size": 2 * MIB, "length": False, "reset": 2 * MIB}))
    check_failed(lab, "download-broken", *LOST, requests=[GOOD], left=2 * MIB)


def test_reset_in_place_of_an_answer(lab):
    lab.run(answering({"raw": "", "reset": 0}))
    check_failed(lab, "download-unreachable", not_sent(URL, 12030), requests=[f"{PATH} 0"])


CHUNKS = {
    "size is no number": ("zz\r\nno program\r\n0\r\n\r\n", 0),
    "second size is no number": ("a\r\nno program\r\nzz\r\nmore\r\n0\r\n\r\n", 10),
    "no size": ("\r\nno program\r\n0\r\n\r\n", 0),
    "no chunk": ("", 0),
    "no last chunk": ("a\r\nno program\r\n", 10),
    "chunk ends early": ("ff\r\nno program", 10),
    "chunk goes on": ("2\r\nno program\r\n0\r\n\r\n", 2),
    "only the last chunk": ("0\r\n\r\n", 0),
    "size of 16 digits": ("ffffffffffffffff\r\nno program", 10),
    "good, with extension and trailer": ("4;name=value\r\nno p\r\n06\r\nrogram\r\n0\r\nX-Trailer: 1\r\n\r\n", 10),
}


@pytest.mark.parametrize("name", CHUNKS)
def test_bad_chunks_end_the_body(lab, name):
    chunks, size = CHUNKS[name]
    result = lab.run(raw(f"{OK}Transfer-Encoding: chunked\r\n\r\n{chunks}"))
    check_arrived(lab, size, [f"{PATH} 0"])
    assert result.file(FINAL).read_text() == NO_PROGRAM[:size]


def test_gzip_label_is_ignored(lab):
    """A real installer under that label is installed: the bytes are taken as they come."""
    lab.run(answering({"installer": "24.20", "headers": {"Content-Encoding": "gzip"}}))
    lab.check(exit_code=0, outcome="repaired", boxes=[FINISHED], before=BEFORE, requests=[GOOD],
              log=[*opening(), *inventory(), *download(), unpack(), *REPAIR], after={**REPAIRED, "files": [FINAL], "missing": [TEMPORARY]})


def test_gzip_body_stays_packed(lab):
    packed = gzip.compress(b"no program" * 1000, mtime=0)
    result = lab.run(answering({"hex": packed.hex(), "headers": {"Content-Encoding": "gzip"}}))
    check_arrived(lab, len(packed), [GOOD])
    assert result.file(FINAL).read_bytes() == packed


# Time

def test_answer_that_arrives_byte_by_byte(lab):
    """Headers and body arrive in about a hundred pieces."""
    result = lab.run(answering({"text": NO_PROGRAM, "trickle": 0.02}))
    check_arrived(lab, 10, [GOOD])
    assert result.file(FINAL).read_text() == NO_PROGRAM


@pytest.mark.parametrize("answer", [{"size": 3000, "rate": 2000, "delay": 0.01}, {"size": 2 * MIB, "pause": [MIB + 7, 2]},
                                    {"size": 7, "delay": 2}], ids=["slow", "pause in the body", "pause before the answer"])
def test_slow_server_is_waited_for(lab, answer):
    lab.run(answering(answer))
    check_arrived(lab, answer["size"], [GOOD])
    assert lab.result.status_texts[-3:] == [CHECKING, DOWNLOADING, INSTALLING]
