"""The address: encryption and certificates, long addresses, and values that an administrator may have mistyped."""
from __future__ import annotations

import pytest

from cases.support.download import (FINAL, GOOD, NO_PROGRAM, PATH, SERVER_PATH, START, TEMPORARY, answering, changed,
                                    check_arrived, check_failed, failed, not_sent, not_split, own, status_line, thrown)
from cases.support.expect import DOWNLOADS, UNTOUCHED
from lab.certificates import HOST

HTTPS_URL = f"https://{HOST}{PATH}"
DEFAULT = START[:1]  # the maker's own address is not in the log
NAME = "/24.20/dwx2_install.txt"


# Encryption

def test_server_that_speaks_only_tls_13_is_refused(lab):
    lab.run(own(tls="TLSv1.3"))
    check_failed(lab, "download-not-trusted", not_sent(HTTPS_URL, 12157), requests=[], start=DEFAULT)


# Proves: An http address with port 443
@pytest.mark.quick
@pytest.mark.parametrize("folder", [None, f"http://{HOST}:443{SERVER_PATH}"], ids=["default", "http on port 443"])
def test_server_that_speaks_tls_12_is_used(lab, folder):
    result = lab.run(own(folder=folder, tls="TLSv1.2"))
    check_arrived(lab, 10, [GOOD], changed(folder) if folder else DEFAULT)
    assert result.requests[0]["tls"] == "TLSv1.2"


@pytest.mark.parametrize("folder", [None, f"http://{HOST}:443{SERVER_PATH}", f"https://{HOST}:443{SERVER_PATH}"],
                         ids=["default", "http", "https"])
def test_plain_http_is_not_used_on_port_443(lab, folder):
    """The server sees the first bytes of TLS, never a path in the clear."""
    result = lab.run(own(folder=folder, tls="none"))
    url = HTTPS_URL if folder is None else f"{folder}24.20/dwx2_install.txt"
    check_failed(lab, "download-not-trusted", not_sent(url, 12157), requests=None, start=DEFAULT if folder is None else changed(folder))
    assert {(item["path"], item["status"]) for item in result.requests} == {("", 400)}


@pytest.mark.parametrize("scheme", ["https", "http"])
def test_tls_is_not_used_on_another_port(lab, scheme):
    """The port alone decides: the request goes out in the clear, and a server that wants TLS refuses it."""
    folder = scheme + "://{server}" + SERVER_PATH
    lab.run({"server": {"folder": folder, "tls": "TLSv1.2 TLSv1.3"}})
    lines = status_line(400, scheme + "://{server}" + PATH)
    check_failed(lab, "download-refused", *lines, requests=[f"{PATH} 400"], start=changed(folder))


@pytest.mark.parametrize("folder, onward, tls", [
    (None, "http", ["TLSv1.2", ""]), (f"http://{HOST}{SERVER_PATH}", "https", ["", "TLSv1.2"]),
], ids=["out of encryption", "into encryption"])
def test_redirect_is_followed(lab, folder, onward, tls):
    answers = {PATH: {"redirect": f"{onward}://{HOST}/mirror"}, "/mirror": {"text": NO_PROGRAM}}
    result = lab.run(own(answers, folder, also_plain=True))
    check_arrived(lab, 10, [f"{PATH} 302", "/mirror 200"], changed(folder) if folder else DEFAULT)
    assert [item["tls"] for item in result.requests] == tls


# Proves: The server's certificate or TLS version is not accepted, or the address is unusual => the download fails, or goes where the port says
# Proves: The request cannot be sent: no server listens, wrong, expired or unknown certificate
@pytest.mark.parametrize("way, certificate, code", [
    ("default", "wrong-host", 12038), ("default", "expired", 12037), ("default", "unknown", 12045), ("default", "self-signed", 12045),
    ("http on port 443", "unknown", 12045), ("after a redirect", "expired", 12037)])
def test_certificate_is_checked(lab, way, certificate, code):
    """The address in the log is the first one, also after a redirect."""
    redirect = way == "after a redirect"
    folder = None if way == "default" else f"http://{HOST}{SERVER_PATH}" if redirect else f"http://{HOST}:443{SERVER_PATH}"
    answers = {PATH: {"redirect": f"https://{HOST}/mirror"}, "/mirror": "24.20"} if redirect else {}
    lab.run(own(answers, folder, certificate=certificate, also_plain=redirect))
    check_failed(lab, "download-not-trusted", not_sent(f"{folder}24.20/dwx2_install.txt" if folder else HTTPS_URL, code),
                 requests=[f"{PATH} 302"] if redirect else [], start=changed(folder) if folder else DEFAULT)


# Lengths

def long_path(length: int) -> str:
    return "/" + "x" * (length - 1 - len(NAME)) + NAME


# Proves: The address cannot be split
@pytest.mark.parametrize("length, good", [(239, True), (259, True), (260, False), (500, False)])
def test_path_has_at_most_259_characters(lab, length, good):
    """With http://127.0.0.1:12345 in front, the first path gives an address of 261 characters."""
    path = long_path(length)
    folder = "http://{server}" + path.removesuffix(NAME) + "/"
    lab.run(answering(folder=folder, path=path))
    assert len(path) == length
    if good:
        check_arrived(lab, 10, [f"{path} 200"], changed(folder))
    else:
        check_failed(lab, "download-bad-address", not_split("http://{server}" + path, 122), requests=[], left=None, start=changed(folder))


@pytest.mark.parametrize("length", [1005, 1006])
def test_lines_end_after_1023_characters(lab, length):
    """A value of 1005 characters just fits into the first line."""
    folder = "http://mirror/".ljust(length, "x")
    lines = [changed(folder)[1][:1023], not_split(f"{folder}24.20/dwx2_install.txt", 122)[:1023]]
    lab.run(answering(folder=folder))
    check_failed(lab, "download-bad-address", lines[1], requests=[], left=None, start=[START[0], lines[0]])
    assert lines[0].endswith("x." if length == 1005 else "x") and len(lines[0]) == 1023


@pytest.mark.parametrize("length, outcome, line, left", [(259, "download-unreachable", not_sent("{url}", 12007), 0),
                                                         (260, "download-bad-address", not_split("{url}", 122), None)])
def test_host_name_of_260_characters_cannot_be_split(lab, length, outcome, line, left):
    folder = f"http://{'h' * length}/"
    lab.run(answering(folder=folder))
    check_failed(lab, outcome, line.replace("{url}", f"{folder}24.20/dwx2_install.txt"), requests=[], start=changed(folder), left=left)


# The administrator's value

NO_ADDRESS = {"empty": "", "blank before": " http://{server}" + SERVER_PATH, "no scheme": "mirror.example/vlt/",
              "network share": r"\\mirror\share" + "\\"}
# The part before the first colon is taken for the scheme.
NO_HOST = {"no host": "http:///vlt/", "backslashes": "http:\\\\{server}\\vlt\\", "path": "C:\\vlt\\", "host and port": "{server}" + SERVER_PATH}


# Proves: It is empty
@pytest.mark.parametrize("name", [*NO_ADDRESS, *NO_HOST])
def test_value_without_an_address_ends_the_download(lab, name):
    """An empty value does not fall back to the maker's own server."""
    folder = {**NO_ADDRESS, **NO_HOST}[name]
    line = thrown("Unable to connect to server: {any}") if name in NO_HOST else not_split(f"{folder}24.20/dwx2_install.txt", 12006)
    lab.run(own(folder=folder) if name == "empty" else answering(folder=folder))
    check_failed(lab, "download-bad-address", line, requests=[], left=None, start=changed(folder))


# Proves: An https address with a port other than 443
@pytest.mark.parametrize("scheme", ["https", "HTTP", "htp"])
def test_scheme_does_not_matter_when_a_port_is_given(lab, scheme):
    folder = scheme + "://{server}" + SERVER_PATH
    result = lab.run(answering(folder=folder))
    check_arrived(lab, 10, [GOOD], changed(folder))
    assert result.requests[0]["tls"] == ""


@pytest.mark.parametrize("folder", ["ftp://127.0.0.9/", "http://127.0.0.9:9"], ids=["port of ftp", "no slash"])
def test_port_without_a_server_ends_the_download(lab, folder):
    """Without a slash the release follows the port directly, and the port becomes 924 with text after it."""
    lab.run(answering(folder=folder))
    check_failed(lab, "download-unreachable", not_sent(f"{folder}24.20/dwx2_install.txt", 12029), requests=[], start=changed(folder))


# Proves: It has no slash at its end
# Proves: The address is made
@pytest.mark.parametrize("folder, path, status", [
    ("/drivers/installer/vlt", "/drivers/installer/vlt24.20/dwx2_install.txt", 404),
    ("/drivers/in staller/", "/drivers/in%20staller/24.20/dwx2_install.txt", 404),
    (SERVER_PATH + " ", f"{SERVER_PATH}%2024.20/dwx2_install.txt", 404),
    (SERVER_PATH + "../vlt/", PATH, 200),
    (SERVER_PATH + "24.2", f"{SERVER_PATH}24.224.20/dwx2_install.txt", 404),
    (PATH + "?file=", f"{PATH}?file=24.20/dwx2_install.txt", 200),
], ids=["no slash", "blank inside", "blank behind", "dots", "part of a release", "query"])
def test_value_is_used_as_it_is(lab, folder, path, status):
    """Only the system changes it (blanks and dots). Without a slash at the end, the release follows directly."""
    folder = "http://{server}" + folder
    lab.run(answering(folder=folder))
    if status == 200:
        check_arrived(lab, 10, [f"{path} 200"], changed(folder))
    else:
        lines = status_line(status, f"{folder}24.20/dwx2_install.txt")
        check_failed(lab, "download-not-there", *lines, requests=[f"{path} {status}"], start=changed(folder))


def test_old_files_stay_when_the_address_cannot_be_split(lab):
    """Old files are removed only once the address names a server."""
    old = {FINAL: "the last one", TEMPORARY: "half of one"}
    result = lab.run({**answering(folder="mirror/"), "files": old})
    lab.check(**failed("download-bad-address", not_split("mirror/24.20/dwx2_install.txt", 12006), start=changed("mirror/")), requests=[],
              before={"files": list(old)}, after={**UNTOUCHED, "files": [DOWNLOADS, *old]})
    assert {path: result.file(path).read_text() for path in old} == old
