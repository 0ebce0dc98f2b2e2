"""tools/deployment_check.py: each of its rules sees a copy of the kit that breaks it."""
from __future__ import annotations

import pathlib
import shutil

import pytest

from lab import paths
from tools import deployment_check as check


ADMX = "deploy/policy/TavikCompatibilityTool.admx"
ADML = "deploy/policy/en-US/TavikCompatibilityTool.adml"
TASK = "deploy/task/TavikRepairAfterDriverUpdate.xml"
TASK_SCRIPT = "deploy/task/Install-TavikRepair.cmd"
DETECTION = "deploy/powershell/Test-TavikRelease.ps1"
INTUNE = "deploy/intune/app.json"
REMEDY = "deploy/intune/Remediate-TavikRepair.ps1"
ADAPTER = "deploy/intune/Require-TavikAdapter.ps1"
CONFIGMGR = "deploy/configmgr/New-TavikApplication.ps1"
ROLE = "deploy/ansible/roles/tavik_repair/"
WINGET = "deploy/winget/Tavik.SoftwareRepair"


@pytest.fixture(scope="module")
def kit(tmp_path_factory) -> pathlib.Path:
    top = tmp_path_factory.mktemp("kit")
    for folder in ("deploy", "src"):
        shutil.copytree(paths.ROOT / folder, top / folder)
    (top / "companion").mkdir()
    shutil.copy(paths.ROOT / "companion/run_command.cpp", top / "companion")
    return top


@pytest.fixture
def doctored(kit):
    """Replaces one text in one file of the copy, until the test ends."""
    kept = {}

    def change(name: str, old: str, new: str) -> None:
        file = kit / name
        kept.setdefault(file, file.read_bytes())
        text = file.read_bytes().decode("utf-8")
        assert old in text, f"{name} has no {old!r}"
        file.write_bytes(text.replace(old, new, 1).encode("utf-8"))
    yield change
    for file, data in kept.items():
        file.write_bytes(data)


def test_the_kit_itself_is_good(kit):
    assert [complaint for rule in check.RULES if rule is not check.ansible for complaint in rule(kit)] == []


FAULTS = {
    "formats": [
        (ADMX, "</policies>", "", "mismatched tag"), (ADMX, 'class="Machine"', 'class="Machines"', "Machines"),
        (ADMX, r'key="SOFTWARE\Tavik"', r'key="HKLM\SOFTWARE\Tavik"', "HKLM"), (ADMX, "<elements>", "<elements><decimal/>", "decimal"),
        (ADML, "refId=", "reference=", "reference is unknown"), (ADML, 'revision="1.0"', "", "revision"),
        (TASK, "<Delay>PT10M</Delay>", "<Delay>10 minutes</Delay>", "Delay"), (TASK, "<UserId>S-1-5-18</UserId>", "", "UserId"),
        (TASK, "<RandomDelay>PT4H</RandomDelay>\n", "", ""), (TASK, "IgnoreNew", "Ignore", "Ignore"),
        (INTUNE, '"retry"', '"tryAgain"', "tryAgain"), (INTUNE, '"returnCode": 0', '"returnCode": "0"', "'0', not int"),
        (INTUNE, '"rules"', '"detectionRules"', "detectionRules"), (INTUNE, '"publisher": "Tavik",', '"publisher": "Tavik"', "delimiter"),
        (WINGET + ".installer.yaml", "rebootRequiredToFinish", "restart", "restart"),
        (WINGET + ".installer.yaml", "InstallerReturnCode", "ExpectedReturnCode", "ExpectedReturnCode"),
        (WINGET + ".installer.yaml", "'0000", "'000g", "InstallerSha256"), (WINGET + ".installer.yaml", "Scope: machine", "Scope: machine\nScope: user", "Scope"),
        (WINGET + ".locale.en-US.yaml", "PackageName: Tavik Software Compatibility Tool\n", "", "PackageName"),
        (ADMX, "<resources minRequiredRevision=\"1.0\" />\n", "", "resources is missing"), (TASK, "<RunLevel>", "<RunLevel>L</RunLevel><RunLevel>", "there once"),
        (ADML, "<stringTable>", "<presentationTable /><stringTable>", "the order is"), (INTUNE, '"returnCodes": [', '"returnCodes": 1, "more": [', "must be a list"),
        (INTUNE, '"runAs32Bit": false', '"runAs32Bit": 0', "0, not bool"), (WINGET + ".yaml", "DefaultLocale: en-US", "DefaultLocale: [en-US]", "DefaultLocale"),
        (WINGET + ".yaml", "1.0.0.1", "1.0.0.1 beta", "1.0.0.1 beta"),
        (ROLE + "tasks/main.yml", "    state: directory\n", "    state: directory \n", "trailing"),
        (ROLE + "defaults/main.yml", "tavik_repair_tries: 3", "tavik_repair_tries: 3\ntavik_repair_tries: 4", "duplication"),
    ],
    "policy": [
        (ADML, '<string id="Tavik">', '<string id="Tavig">', "there is no string Tavik"), (ADML, '<string id="Tavik">', '<string id="Tavig">', "nothing uses the string Tavig"),
        (ADML, '<presentation id="DownloadServer">', '<presentation id="Server">', "no presentation DownloadServer"),
        (ADML, '<string id="Tavik">Tavik</string>', '<string id="Tavik">Tavik</string><string id="Tavik">T</string>', "is defined twice"),
        (ADML, '<string id="Tavik">Tavik</string>', '<string id="Tavik"> </string>', "is empty"),
        (ADML, 'refId="DownloadServer_Folder"', 'refId="Folder"', "its presentation shows"),
        (ADMX, '<parentCategory ref="Tavik" />', '<parentCategory ref="Other" />', "there is no category Other"),
        (ADMX, '<supportedOn ref="SUPPORTED_Tool" />', '<supportedOn ref="Windows" />', "there is no definition Windows"),
        (ADMX, r'key="SOFTWARE\Tavik"', r'key="SOFTWARE\Policies\Tavik"', "the product reads"),
        (ADMX, 'valueName="DWXServerFolder"', 'valueName="ServerFolder"', "the product reads"), (ADMX, '"237"', '"255"', "up to 237"),
        ("src/acquisition/constants.h", 'L"DWXServerFolder"', 'L"ServerFolder"', "the product reads ServerFolder"),
    ],
    "task": [
        (TASK, "Installs the", "Installs the\u00e9", "ASCII"), (TASK, '<?xml version="1.0"?>', '<?xml version="1.0" encoding="utf-8"?>', "without an encoding"),
        (TASK, "&lt;/Select&gt;", "", "Subscription is"), (TASK, "4d36e968", "4d36e969", "Subscription is"), (TASK, "EventID=400]]", "EventID=400]", "Subscription is"),
        (TASK, 'Path="Microsoft-Windows-Kernel-PnP/Configuration"', 'Path="System"', "Subscription is"), (TASK, "S-1-5-18", "S-1-5-32-544", "UserId is"),
        (TASK, 'Context="System"', 'Context="Someone"', "no principal"),
        (TASK, "use -- -SILENT", "use -- -SILENT -FORCE", "Arguments is"), (TASK_SCRIPT, "RepairAfterDriverUpdate\n", "Repair\n", "URI is"),
        (TASK_SCRIPT, "Kernel-PnP/Configuration", "Kernel-PnP/Device", "Subscription is"), (TASK_SCRIPT, r"%\Tavik\Repair", r"%\Tavik\Tool", "Command is"),
    ],
    "return_codes": [
        (INTUNE, '"returnCode": 1618', '"returnCode": 1602', "intune"), (INTUNE, '"softReboot"', '"hardReboot"', "intune"),
        (CONFIGMGR, "-ReturnCode 1603", "-ReturnCode 1604", "configmgr"), (CONFIGMGR, "-CodeType Failure", "-CodeType Success", "configmgr"),
        (ROLE + "defaults/main.yml", "retry: 1618", "retry: 1619", "ansible"), (WINGET + ".installer.yaml", "InstallerReturnCode: 1603", "InstallerReturnCode: 1", "winget"),
        ("deploy/return-codes.json", '"code": 1618', '"code": 1641', "has the codes"),
        ("deploy/return-codes.json", '"intune": "Retry"', '"intune": "Failed"', "to intune, 1618"),
        ("deploy/return-codes.json", '"Fast retry"', '"Success (no reboot)"', "to configuration_manager, 1618"),
    ],
    "scripts": [
        (DETECTION, "exit 0", "exit 0 # \u00ed", "must be ASCII"), (DETECTION, "exit 0", "exit 0 # -VLT", "direct installation"),
        (TASK_SCRIPT, "TavikRepairAfterDriverUpdate.xml", "Other.xml", "no Other.xml"), (TASK_SCRIPT, "@echo off\n", "@echo off\nrem\nrem\n", "more than 15 lines"),
        (REMEDY, "exit 1", "Restart-Computer", "Restart-Computer starts no program"), (ADAPTER, "exit 0", "exit (Get-Date)", "Get-Date starts no program"),
        (DETECTION, "status --detect", "status", "must end with"), (DETECTION, "exit $LASTEXITCODE", "exit 0", "must end with"),
        (ADAPTER, "VEN_1E7[CD]", "VEN_1E7D", "the rule for VEN_1E7D"), ("src/inventory/constants.h", "VEN_1E7C", "VEN_1E7B", "looks for VEN_1E7D and VEN_1E7B"),
        (WINGET + ".yaml", "1.0.0.1", "1.0.0.2", "all manifests"), (WINGET + ".yaml", "ManifestType: version", "ManifestType: installer", "three manifests"),
        (WINGET + ".installer.yaml", "Tool-1.0.0.1\\", "", "in the folder"),
    ],
    "limits": [
        (CONFIGMGR, "run --keep", "explain", "must start the companion's run"), (CONFIGMGR, "--timeout 3000", "--timeout 5400", "ends it after 90 minutes"),
        (CONFIGMGR, "MaximumRuntimeMins 90", "MaximumRuntimeMins 60", "run waits 3600 seconds"),
        (INTUNE, '"maxRunTimeInMinutes": 180', '"maxRunTimeInMinutes": 150', "ends it after 150 minutes"), (INTUNE, "-- -SILENT", "--", "silently"),
        (REMEDY, " --timeout 1500", "", "run waits 9000 seconds"), (TASK, "PT3H", "PT2H", "ends it after 120 minutes"),
        ("companion/run_command.cpp", "kDefaultLimitSeconds = 9000", "kDefaultLimitSeconds = 10800", "ends it after 180 minutes"),
    ],
    "ansible": [
        (ROLE + "tasks/main.yml", "- name: Create the folder\n  ansible", "- ansible", "name[missing]"),
        ("deploy/ansible/requirements.yml", "    version:", "    release:", "schema"),
    ],
}


# Proves: A file of the kit does not fit its format, the product or the outcomes => `tools/deployment_check.py` names it
@pytest.mark.parametrize("rule, file, old, new, complaint", [
    (rule, *fault) for rule, faults in FAULTS.items() for fault in faults],
    ids=[f"{rule}-{number}" for rule, faults in FAULTS.items() for number in range(1, len(faults) + 1)])
def test_a_fault_is_named(kit, doctored, rule, file, old, new, complaint):
    doctored(file, old, new)
    found = list(getattr(check, rule)(kit))
    if not complaint:  # allowed: the form knows which parts are optional
        assert found == []
    else:
        assert any(complaint in line for line in found), found


# Proves: A file of the kit does not fit its format, the product or the outcomes
def test_a_recipe_whose_codes_are_not_compared_is_named(kit):
    (kit / "deploy" / "new-system").mkdir()
    found = list(check.return_codes(kit))
    (kit / "deploy" / "new-system").rmdir()
    assert len(found) == 1 and "deploy/new-system" in found[0]
