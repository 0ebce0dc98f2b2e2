"""What the lab's download server can say, seen by the tool. The tool's own rules about downloads are in cases/download."""
from __future__ import annotations

import pytest

from cases.support.download import PATH
from cases.support.expect import FINISHED, INSTALL_FAILED

WHOLE = "Completed download. Total bytes downloaded: "


def answer(lab, description):
    return lab.run({"server": {"answers": {PATH: description, "/other": "24.20"}}})


@pytest.mark.parametrize("description", [
    {"redirect": "/other"}, {"installer": "24.20", "rate": 1000000}, {"installer": "24.20", "length": False},
    {"installer": "24.20", "pause": [5000, 0.3]}], ids=str)
def test_installer_arrives_whole(lab, description):
    answer(lab, description)
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], after={"products": ["Tavik Halden 24.20"]})


# Proves: The body is shorter than announced, or no installer at all => nothing checks it
@pytest.mark.parametrize("description, size", [
    ({}, 0), ({"installer": "24.20", "cut": 4096}, 4096), ({"raw": "SSH-2.0-Lab\r\n"}, None)], ids=str)
def test_bodies_that_are_no_installer(lab, description, size):
    """They arrive as they are, and what comes after finds no package."""
    result = answer(lab, description)
    lab.check(outcome="installer-blocked", exit_code=2, boxes=[INSTALL_FAILED], after={"products": ["Tavik Halden 23.40"]})
    lengths = [int(line.removeprefix(WHOLE)) for line in result.log if line.startswith(WHOLE)]
    assert len(lengths) == 1 and size in (lengths[0], None)
