"""The deployment kit's scripts, as far as they can be tested without Windows: the rule of the detection script, the registry key by
which it finds the desktop edition, and a run as the repair script prepares it for SYSTEM.

There is no PowerShell here. The translator below rewrites the three functions of the rule into Python, line by line. It knows only
the forms that they use and stops at any other, so the test runs the text of the script itself. The rest of the scripts is only
checked by tools/deployment_check.py.
"""
from __future__ import annotations

import re

import pytest

from tools.tests.deploy_kit import DEPLOY
from cases.support.expect import REPAIR, download, inventory, opening, unpack
from lab import paths
from lab.hive import Hive
from lab.machine import Machine

DETECTION = (DEPLOY / "powershell" / "Test-TavikRelease.ps1").read_text("ascii")
TABLE = (paths.ROOT / "tests" / "app" / "compatibility_check_test.cpp").read_text("utf-8")


# PowerShell, the part that the rule needs

class Text(str):
    """A text with PowerShell's members."""

    @property
    def Length(self) -> int:
        return len(self)

    def Split(self, at: str) -> "list[Text]":
        return [Text(part) for part in self.split(at)]

    def Substring(self, start: int, length: int) -> "Text":
        assert 0 <= start <= start + length <= len(self), "PowerShell raises an error"
        return Text(self[start:start + length])


class OrdinalIgnoreCase:
    @staticmethod
    def Equals(one: str, other: str) -> bool:
        return one.upper() == other.upper()


STATEMENTS = [
    (r"function ([\w-]+)\((\[string\] \$\w+(?:, \[string\] \$\w+)*)\) \{", r"def \1(\2):"),
    (r"return (.+)", r"    return \1"),
    (r"if \((.+)\) \{ return (\S+) \}", r"    if \1: return \2"),
    (r"(\$\w+) = (.+)", r"    \1 = \2"),
    (r"\}", ""),
]
EXPRESSIONS = [
    (r"\((Get-\w+) (\$\w+)\)", r"\1(\2)"), (r"\[string\] ", ""), (r"\[Math\]::Min", "min"), (r"\[StringComparer\]::", ""),
    (r"\$true\b", "True"), (r"\$false\b", "False"), (r"\$(\w+)", r"\1"), (r"(Get|Test)-(\w+)", r"\1_\2"),
]
KNOWN = r"(?:'-'|[\w.,()\[\] :=])*"  # what may be left: names, members, calls, indices and the hyphen


def translated(script: str, *names: str) -> dict:
    lines = []
    for name in names:
        function = re.search(rf"^function {name}\(.*?^\}}$", script, re.M | re.S)
        assert function, f"there is no function {name}"
        for line in filter(None, (line.strip() for line in function[0].split("\n"))):
            form = next(((pattern, put) for pattern, put in STATEMENTS if re.fullmatch(pattern, line)), None)
            assert form, f"the translator does not know this form: {line}"
            line = re.sub(*form, line)
            for pattern, put in EXPRESSIONS:
                line = re.sub(pattern, put, line)
            assert re.fullmatch(KNOWN, line), f"the translator does not know a part of: {line}"
            lines.append(line)
    scope = {"OrdinalIgnoreCase": OrdinalIgnoreCase}
    exec("\n".join(lines), scope)
    return scope


RULE = translated(DETECTION, "Get-ReleaseBase", "Get-ReleasePrefix", "Test-SameRelease")


def pairs() -> list[tuple[str, str, bool]]:
    """The table of the tool's own tests."""
    rows = re.search(r"kReleases\[\] = \{(.*?)^\};", TABLE, re.M | re.S)[1]
    return [(base, installed, same == "true") for base, installed, same in re.findall(r'\{L"(.*?)", L"(.*?)", (true|false)\}', rows)]


def prefixes() -> list[tuple[str, str]]:
    return re.findall(r'EXPECT_EQ\(ReleasePrefix\(L"(.*?)"\), L"(.*?)"\)', TABLE)


def test_the_table_was_found():
    assert len(pairs()) >= 20 and len(prefixes()) >= 5
    assert {same for _, _, same in pairs()} == {True, False}


# Proves: The detection script compares releases => by the tool's own rule
@pytest.mark.parametrize("base, installed, same", pairs())
def test_releases_are_compared_by_the_tools_own_rule(base, installed, same):
    assert RULE["Test_SameRelease"](Text(base), Text(installed)) is same


@pytest.mark.parametrize("release, prefix", prefixes())
def test_the_prefix_is_the_tools_own(release, prefix):
    assert RULE["Get_ReleasePrefix"](Text(release)) == prefix


@pytest.mark.parametrize("release, base", [("24.20.11.01-240619a", "24.20.11.01"), ("24.20", "24.20"), ("-a", ""), ("", ""), ("1-2-3", "1")])
def test_the_base_ends_before_the_first_hyphen(release, base):
    assert RULE["Get_ReleaseBase"](Text(release)) == base


@pytest.mark.parametrize("broken", [
    ("return $Release.Split('-')[0]", "return $Release -replace '-.*'"), ("function Test-SameRelease(", "function Test-Same("),
    ("if ($compare.Equals($Base, $Installed)) { return $true }", "if ($Base -eq $Installed) { return $true }")])
def test_the_translator_refuses_unknown_forms(broken):
    assert broken[0] in DETECTION
    with pytest.raises(AssertionError):
        translated(DETECTION.replace(*broken), "Get-ReleaseBase", "Get-ReleasePrefix", "Test-SameRelease")


# The registry

def upgrade_key() -> str:
    """The key that the detection script looks for, built in the same way."""
    code = re.search(r"^\$upgradeCode = '(.*)'", DETECTION, re.M)[1]
    digits = code.strip("{}").replace("-", "")
    order = [int(number) for number in re.search(r"^    \$order = (.*)$", DETECTION, re.M)[1].split(",")]
    folder = re.search(r"OpenSubKey\('(SOFTWARE\\Classes\\Installer\\UpgradeCodes\\)'", DETECTION)[1]
    return folder + "".join(digits[number] for number in order)


# Proves: The detection script looks for the desktop edition => where Windows Installer lists it by its upgrade code
@pytest.mark.parametrize("desktop, products", [({"release": "23.40"}, 1), (False, None)], ids=["installed", "not installed"])
def test_the_desktop_edition_is_found_where_windows_installer_lists_it(desktop, products):
    """Wine's Windows Installer keeps this list in the same place as Windows' own."""
    values = Hive(Machine({"desktop": desktop}).template() / "system.reg").values(upgrade_key())
    assert (len(values) if values is not None else None) == products


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
