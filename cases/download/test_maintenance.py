"""A mirror that is being serviced: its web server answers, but not with the installer. The example of docs/testing.md."""
from __future__ import annotations

from cases.support.download import FINAL, PATH, failed, status_line
from cases.support.expect import UNTOUCHED


def test_a_mirror_under_maintenance_changes_nothing(lab):
    page = {"status": 503, "text": "<html>Back at noon.</html>", "headers": {"Retry-After": "3600"}}
    lab.run({"server": {"answers": {PATH: page}}})
    lab.check(**failed("download-server-trouble", *status_line(503)), requests=[f"{PATH} 503"], before=UNTOUCHED,
              after={**UNTOUCHED, "missing": [FINAL]})
