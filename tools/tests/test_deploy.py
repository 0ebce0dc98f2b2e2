"""The deployment kit's scripts, as far as they can be tested without Windows: a run as the repair script prepares it for SYSTEM."""
from __future__ import annotations

import re

from tools.tests.deploy_kit import DEPLOY
from cases.support.expect import REPAIR, download, inventory, opening, unpack

# As SYSTEM in session 0

PRIVATE = r"C:\Program Files\Tavik\MIM\Temp"
NO_USER = 'wtsapi32!WTSQuerySessionInformationW * return=1 text=""'


# Proves: A silent run in a session without a user, as under SYSTEM => repaired, in the temporary folder that the repair script prepares
def test_a_silent_run_in_a_session_without_a_user(lab):
    """The session has no user, so the tool cannot protect the folder it unpacks into, and logs nothing about that. The repair script
    gives it a temporary folder of its own with that folder in it. Not shown: that Windows answers as the stand-in does, and the
    folder's access rights."""
    unpacked = PRIVATE + r"\Tavik_VLTInstallerDownload\LPInstaller"
    lab.run({"temp": PRIVATE, "files": {unpacked: {"folder": True}}, "faults": [NO_USER]}, "-SILENT")
    lab.check(exit_code=0, outcome="repaired", boxes=[], before={"files": [unpacked]},
              after={"products": ["Tavik Halden 24.20"], "files": [unpacked + r"\HL\halden\halden64\dwx-next64.msi"]},
              log=[*opening("-SILENT"), *inventory(), *download(), unpack(), *REPAIR])


def test_the_repair_script_prepares_that_folder():
    script = (DEPLOY / "powershell" / "Repair-TavikSoftware.ps1").read_text("ascii")
    assert r"Join-Path $programFiles 'Tavik\MIM'" in script and r"$temp = Join-Path $base 'Temp'" in script
    assert r"(Join-Path $temp 'Tavik_VLTInstallerDownload\LPInstaller')" in script
    assert re.search(r"^    \$env:TMP = \$temp\n    \$env:TEMP = \$temp$", script, re.M)
    assert "& (Join-Path $Folder 'TavikToolCompanion.exe') 'run' '--timeout' $limitSeconds '--' '-SILENT'" in script
