"""Addresses that lead nowhere, servers that are not the maker's, and the administrator's value with every slip of the pen."""
from __future__ import annotations

import pytest

from cases.support.download import (BEFORE, FINAL, FOLDER, NO_PROGRAM, PATH, SERVER_PATH, START, TEMPORARY, UNTOUCHED, answering,
                              check_arrived, check_failed, failed, file_of, status_line, thrown)
from lab.certificates import HOST

HTTPS_URL = f"https://{HOST}{PATH}"
GOOD = f"{PATH} 200"
DEFAULT = START[:1]  # the maker's own address is not in the log
NAME = "/24.20/dwx2_install.txt"
KEY = r"HKLM\Software\Tavik"


def changed(folder: str) -> list[str]:
    return [START[0], f"Change server to {folder}."]


def own(answers: dict | None = None, folder: str | None = None, **server) -> dict:
    """The maker's own host, at its default address or at the one given."""
    machine = {"server": {"reach": "default", "answers": {PATH: {"text": NO_PROGRAM}, **(answers or {})}, **server}}
    return machine if folder is None else {**machine, "registry": {KEY: {"DWXServerFolder": folder}}}


def not_sent(url: str, code: int) -> str:
    return f"Unable to call HttpSendRequest to {url}. Error {code}"


def not_split(url: str, code: int) -> str:
    return f"Unable to crack URL: {url}. Error = {code}"


# Encryption

def test_tls_13_only_is_too_new(lab):
    lab.run(own(tls="TLSv1.3"))
    check_failed(lab, not_sent(HTTPS_URL, 12157), requests=[], start=DEFAULT)


@pytest.mark.quick
def test_tls_12_is_spoken(lab):
    result = lab.run(own(tls="TLSv1.2"))
    check_arrived(lab, 10, [GOOD], DEFAULT)
    assert result.requests[0]["tls"] == "TLSv1.2"


@pytest.mark.parametrize("folder", [None, f"http://{HOST}:443{SERVER_PATH}", f"https://{HOST}:443{SERVER_PATH}"],
                         ids=["default", "http", "https"])
def test_plain_http_on_port_443(lab, folder):
    """The server sees the beginning of TLS, which is no request: never a path in the clear."""
    result = lab.run(own(folder=folder, tls="none"))
    url = HTTPS_URL if folder is None else f"{folder}24.20/dwx2_install.txt"
    lab.check(**failed(not_sent(url, 12157), start=DEFAULT if folder is None else changed(folder)), before=BEFORE,
              after={**UNTOUCHED, "files": [TEMPORARY], "missing": [FINAL]})
    assert {(item["path"], item["status"]) for item in result.requests} == {("", 400)}


def test_https_address_of_a_tls_server_on_another_port(lab):
    """The port alone decides, so the request goes out in the clear, and a server that wants TLS says no."""
    folder = "https://{server}" + SERVER_PATH
    lab.run({"server": {"folder": folder, "tls": "TLSv1.2 TLSv1.3"}})
    check_failed(lab, *status_line(400, "https://{server}" + PATH), requests=[f"{PATH} 400"], start=changed(folder))


def test_http_address_of_a_tls_server_on_another_port(lab):
    lab.run({"server": {"tls": "TLSv1.2 TLSv1.3"}})
    check_failed(lab, *status_line(400), requests=[f"{PATH} 400"])


def test_redirect_out_of_encryption_is_followed(lab):
    answers = {PATH: {"redirect": f"http://{HOST}/mirror"}, "/mirror": {"text": NO_PROGRAM}}
    result = lab.run(own(answers, also_plain=True))
    check_arrived(lab, 10, [f"{PATH} 302", "/mirror 200"], DEFAULT)
    assert [item["tls"] for item in result.requests] == ["TLSv1.2", ""]


def test_redirect_into_encryption_is_followed(lab):
    folder = f"http://{HOST}{SERVER_PATH}"
    answers = {PATH: {"redirect": f"https://{HOST}/mirror"}, "/mirror": {"text": NO_PROGRAM}}
    result = lab.run(own(answers, folder, also_plain=True))
    check_arrived(lab, 10, [f"{PATH} 302", "/mirror 200"], changed(folder))
    assert [item["tls"] for item in result.requests] == ["", "TLSv1.2"]


CERTIFICATES = [("wrong-host", 12038), ("expired", 12037), ("unknown", 12045), ("self-signed", 12045)]


@pytest.mark.parametrize("certificate, code", CERTIFICATES)
def test_certificate_is_looked_at_after_a_redirect_too(lab, certificate, code):
    folder = f"http://{HOST}{SERVER_PATH}"
    answers = {PATH: {"redirect": f"https://{HOST}/mirror"}, "/mirror": "24.20"}
    lab.run(own(answers, folder, certificate=certificate, also_plain=True))
    check_failed(lab, not_sent(f"{folder}24.20/dwx2_install.txt", code), requests=[f"{PATH} 302"], start=changed(folder))


# Proves: The server's certificate or TLS version is no good, or the address is odd => the download fails, or goes where the port says
@pytest.mark.parametrize("certificate, code", CERTIFICATES)
def test_certificate_is_looked_at_whatever_the_scheme(lab, certificate, code):
    folder = f"http://{HOST}:443{SERVER_PATH}"
    lab.run(own(folder=folder, certificate=certificate))
    check_failed(lab, not_sent(f"{folder}24.20/dwx2_install.txt", code), requests=[], start=changed(folder))


# Lengths

def long_path(length: int) -> str:
    return "/" + "x" * (length - 1 - len(NAME)) + NAME


@pytest.mark.parametrize("length", [237, 238, 239, 259])
def test_path_of_up_to_259_characters(lab, length):
    """With http://127.0.0.1:12345 before it, the first three are addresses of 259 to 261 characters."""
    path = long_path(length)
    folder = "http://{server}" + path.removesuffix(NAME) + "/"
    lab.run(answering(folder=folder, path=path))
    assert len(path) == length
    check_arrived(lab, 10, [f"{path} 200"], changed(folder))


@pytest.mark.parametrize("length", [260, 261, 500])
def test_path_of_260_characters_and_more(lab, length):
    path = long_path(length)
    folder = "http://{server}" + path.removesuffix(NAME) + "/"
    lab.run(answering(folder=folder, path=path))
    check_failed(lab, not_split("http://{server}" + path, 122), requests=[], left=None, start=changed(folder))


@pytest.mark.parametrize("length", [1005, 1006, 5000])
def test_lines_end_after_1023_characters(lab, length):
    """A value of 1005 characters just fits into the first line."""
    folder = "http://mirror/".ljust(length, "x")
    lines = [changed(folder)[1][:1023], not_split(f"{folder}24.20/dwx2_install.txt", 122)[:1023]]
    lab.run(answering(folder=folder))
    check_failed(lab, lines[1], requests=[], left=None, start=[START[0], lines[0]])
    assert lines[0].endswith("x." if length == 1005 else "x") and len(lines[0]) == 1023


@pytest.mark.parametrize("length, line", [(259, not_sent("{url}", 12007)), (260, not_split("{url}", 122))])
def test_host_name_of_260_characters(lab, length, line):
    """One less can be split, but nobody has such a name."""
    folder = f"http://{'h' * length}/"
    lab.run(answering(folder=folder))
    check_failed(lab, line.replace("{url}", f"{folder}24.20/dwx2_install.txt"), requests=[], start=changed(folder),
                 left=0 if length == 259 else None)


# The administrator's value

@pytest.mark.parametrize("folder", ["", "   ", " http://{server}" + SERVER_PATH, "\thttp://{server}/", "mirror.example/vlt/",
                                    r"\\mirror\share" + "\\", "//{server}/"],
                         ids=["empty", "blanks", "blank before", "tab before", "no scheme", "network share", "slashes only"])
def test_value_that_is_no_address(lab, folder):
    lab.run(answering(folder=folder))
    check_failed(lab, not_split(f"{folder}24.20/dwx2_install.txt", 12006), requests=[], left=None, start=changed(folder))


def test_empty_value_does_not_mean_the_default(lab):
    lab.run(own(folder=""))
    check_failed(lab, not_split("24.20/dwx2_install.txt", 12006), requests=[], left=None, start=changed(""))


@pytest.mark.parametrize("folder", ["http:///vlt/", "http:/{server}/vlt/", "http:\\\\{server}\\vlt\\", "file:///C:/vlt/",
                                    "C:\\vlt\\", "mailto:admin@mirror.example/", "{server}" + SERVER_PATH],
                         ids=["no host", "one slash", "backslashes", "file", "path", "mailto", "host and port"])
def test_value_that_names_no_server(lab, folder):
    """What stands before the first colon is taken for the scheme."""
    lab.run(answering(folder=folder))
    check_failed(lab, thrown("Unable to connect to server: {any}"), requests=[], left=None, start=changed(folder))


@pytest.mark.parametrize("scheme", ["ftp", "HTTP", "htp", "gopher"])
def test_scheme_does_not_matter_once_there_is_a_port(lab, scheme):
    folder = scheme + "://{server}" + SERVER_PATH
    lab.run(answering(folder=folder))
    check_arrived(lab, 10, [GOOD], changed(folder))


def test_ftp_address_is_asked_on_the_port_of_ftp(lab):
    lab.run(answering(folder="ftp://127.0.0.9/"))
    check_failed(lab, not_sent("ftp://127.0.0.9/24.20/dwx2_install.txt", 12029), requests=[], start=changed("ftp://127.0.0.9/"))


@pytest.mark.parametrize("folder, path, status", [
    ("/drivers/in staller/", "/drivers/in%20staller/24.20/dwx2_install.txt", 404),
    (SERVER_PATH + " ", f"{SERVER_PATH}%2024.20/dwx2_install.txt", 404),
    (SERVER_PATH + "../vlt/", PATH, 200),
    (SERVER_PATH + "24.2", f"{SERVER_PATH}24.224.20/dwx2_install.txt", 404),
    (PATH + "?file=", f"{PATH}?file=24.20/dwx2_install.txt", 200),
], ids=["blank inside", "blank behind", "dots", "no slash", "query"])
def test_value_is_used_as_it_stands(lab, folder, path, status):
    """Only the system itself changes something on the way: blanks and dots."""
    folder = "http://{server}" + folder
    lab.run(answering(folder=folder))
    if status == 200:
        check_arrived(lab, 10, [f"{path} 200"], changed(folder))
    else:
        lines = status_line(status, f"{folder}24.20/dwx2_install.txt")
        check_failed(lab, *lines, requests=[f"{path} {status}"], start=changed(folder))


def test_host_without_a_slash_is_glued_to_the_release(lab):
    """Port 9 becomes port 924 with something behind, and there is nobody."""
    folder = "http://127.0.0.9:9"
    lab.run(answering(folder=folder))
    check_failed(lab, not_sent("http://127.0.0.9:924.20/dwx2_install.txt", 12029), requests=[], start=changed(folder))


def test_old_files_outlive_an_address_that_is_none(lab):
    """They are removed only when there is a server to ask."""
    old = {FINAL: "the last one", TEMPORARY: "half of one"}
    result = lab.run({**answering(folder="mirror/"), "files": old})
    lab.check(**failed(not_split("mirror/24.20/dwx2_install.txt", 12006), start=changed("mirror/")), requests=[],
              before={"files": list(old)}, after={**UNTOUCHED, "files": [FOLDER, *old]})
    assert {path: file_of(result, path).read_text() for path in old} == old
