"""What the lab's download server can say, seen by the tool. The tool's own rules about downloads have cases of their own."""
from __future__ import annotations

import pytest

from cases.support.expect import DOWNLOAD_FAILED, FINISHED, INSTALL_FAILED

NEW_INSTALLER = "/drivers/installer/vlt/24.20/dwx2_install.txt"
WHOLE = r"Completed download. Total bytes downloaded: "


def answer(lab, description, **options):
    return lab.run({"server": {"answers": {NEW_INSTALLER: description, "/other": "24.20"}}}, **options)


@pytest.mark.parametrize("description", [
    {"redirect": "/other"}, {"redirect": "/other", "status": 307}, {"installer": "24.20", "rate": 1000000},
    {"installer": "24.20", "length": False}, {"installer": "24.20", "delay": 0.3},
    {"installer": "24.20", "pause": [5000, 0.3]}], ids=str)
def test_good_answers(lab, description):
    answer(lab, description)
    lab.check(exit_code=0, boxes=[FINISHED], after={"products": ["Tavik Halden 24.20"]})


@pytest.mark.parametrize("status", [204, 206, 308, 403, 404, 500, 503])
def test_statuses(lab, status):
    result = answer(lab, status)
    lab.check(exit_code=-1, boxes=[DOWNLOAD_FAILED], requests=[f"{NEW_INSTALLER} {status}"])
    assert f"Response code from server: {status}" in result.log


# Proves: The body is shorter than announced, or no installer at all => nothing checks it
@pytest.mark.parametrize("description, size", [
    ({}, 0), ({"text": "not a program"}, 13), ({"size": 3000000}, 3000000), ({"installer": "24.20", "cut": 4096}, 4096),
    ({"raw": "SSH-2.0-Lab\r\n"}, None)], ids=str)
def test_bodies_that_are_no_installer(lab, description, size):
    """They arrive as they are, and what comes after finds no package."""
    result = answer(lab, description)
    lab.check(exit_code=2, boxes=[INSTALL_FAILED], after={"products": ["Tavik Halden 23.40"]})
    lengths = [int(line.removeprefix(WHOLE)) for line in result.log if line.startswith(WHOLE)]
    assert len(lengths) == 1 and size in (lengths[0], None)


def test_reset_connection(lab):
    result = answer(lab, {"installer": "24.20", "reset": 100000})
    lab.check(exit_code=-1, boxes=[DOWNLOAD_FAILED])
    assert "Download failed with error code: 10054 Connection reset by peer. " in result.log


def test_nobody_listens(lab):
    closed = "http://127.0.0.1:9/"
    result = lab.run({"server": {"reach": "none"}, "registry": {r"HKLM\SOFTWARE\Tavik": {"DWXServerFolder": closed}}})
    lab.check(exit_code=-1, boxes=[DOWNLOAD_FAILED])
    assert f"Unable to call HttpSendRequest to {closed}24.20/dwx2_install.txt. Error 12029" in result.log


@pytest.mark.parametrize("certificate, error", [
    ("wrong-host", 12038), ("expired", 12037), ("unknown", 12045), ("self-signed", 12045)])
def test_certificates_that_nobody_should_trust(lab, certificate, error):
    result = lab.run({"server": {"reach": "default", "certificate": certificate}})
    lab.check(exit_code=-1, boxes=[DOWNLOAD_FAILED], requests=[], after={"products": ["Tavik Halden 23.40"]})
    assert f"Unable to call HttpSendRequest to https://download.tavik.example{NEW_INSTALLER}. Error {error}" in result.log
