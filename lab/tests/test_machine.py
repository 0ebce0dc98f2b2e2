"""What a description can ask for is really so on the machine: each key, seen by the tool."""
from __future__ import annotations

import pytest

from cases.support.expect import DOWNLOAD_FAILED, FINISHED, INSTALL_FAILED, NO_ADAPTER, TEMP, install, remove, unpack
from lab.machine import Machine

OLD_DOWNLOAD = TEMP + r"Tavik_VLTInstallerDownload\dwx2_install.exe"
NEW_INSTALLER = "/drivers/installer/vlt/24.20/dwx2_install.txt"
HL = r"HKLM\SOFTWARE\Tavik\HL"
DEVICE = r"PCI\VEN_1E7D&DEV_2F11&SUBSYS_00011E7D&REV_A1\4&1A2B3C4D&0&0001"

NO_RELEASE = f"Unable to find ReleaseVersion regkey for [Tavik Corvel 7800] - [{DEVICE}]."
NO_MAIN_PACKAGE = f"Unable to find {TEMP}Tavik_VLTInstallerDownload\\LPInstaller\\HL\\halden\\halden64\\dwx-next64.msi."


def served(installer):
    return {"server": {"answers": {NEW_INSTALLER: installer}}}


@pytest.mark.parametrize("description", [
    {"adaptor": []}, {"adapters": [{"realease": "1"}]}, {"adapters": [{"packages": [{"bogus": 1}]}]},
    {"adapters": [{"id": "PCI"}]}, {"desktop": {"version": "1"}}, {"server": {"answers": {"/x": {"stat": 1}}}},
    {"server": {"reach": "moon"}}, {"store": {"package": []}}], ids=str)
def test_unknown_keys_are_refused(description):
    with pytest.raises(ValueError):
        Machine(description)


@pytest.mark.parametrize("adapter, line", [
    ({"problem": 22}, "Device has CM_PROB_Xxx code 22"),
    ({"driver_key": False}, f"Failed to get SPDRP_DRIVER for {DEVICE}: -2147024883  "),
    ({"driver_key": "{none}\\0000"}, f"{NO_RELEASE} Unable to open registry key: File not found"),
    ({"release": False}, f"{NO_RELEASE} Unable to get registry value: File not found"),
    ({"description": False}, f"Enumerating installed drivers for {DEVICE} - "),
    ({"packages": []}, "\t [Tavik Corvel 7800] [24.20.11.01-240619a] []"),
    ({"packages": [{"release": "1.2"}]}, "\t [Tavik Corvel 7800] [24.20.11.01-240619a] []"),
], ids=str)
def test_adapters(lab, adapter, line):
    result = lab.run({"adapters": [adapter]}, "-SILENT")
    assert any(found.startswith(line) for found in result.log), result.log


def test_missing_problem_code(lab):
    result = lab.run({"adapters": [{"problem": False}]}, "-SILENT")
    assert any(line.startswith("Unable to get DEVPKEY_Device_ProblemCode property:") for line in result.log)


def test_two_adapters_of_which_the_newer_counts(lab):
    result = lab.run({"adapters": [{"release": "23.40.1"}, {"release": "24.20.1-b", "description": "Second"}]}, "-SILENT")
    at = result.log.index("Currently installed drivers on system:")
    assert [line.split("]")[0] for line in result.log[at + 1:at + 3]] == ["\t [Second", "\t [Tavik Corvel 7800"]


def test_wines_own_adapter_can_be_left(lab):
    result = lab.run({"adapters": [], "own_adapter": True})
    lab.check(exit_code=-1, boxes=[NO_ADAPTER])
    assert any(line.startswith("[Wine Adapter] - [PCI\\VEN_0000") for line in result.log)


# Proves: The value is no plain text
# Proves: The value is a text with variables => the system replaces them, and it counts
@pytest.mark.parametrize("value, shown", [
    ("23.40x", "23.40x"), (5, ""), (["a", "b"], ""), ({"type": "REG_EXPAND_SZ", "text": "%OS%"}, "Windows_NT"),
    ({"type": "REG_SZ", "hex": "31002e003200"}, "1.2"), ("Ünï ☃", "Ünï ☃")], ids=str)
def test_registry_values(lab, value, shown):
    result = lab.run({"registry": {HL: {"HLVersion": value}}}, "-SILENT")
    assert result.log[1] == f"Currently installed VLT is version [{shown}] from driver version [23.40.11.01]"


def test_registry_values_and_files_can_be_taken_away(lab):
    program = r"C:\Program Files\Tavik\Halden\hlcmd.exe"
    result = lab.run({"remove": [HL + "@DriverVersion", program]}, "-SILENT")
    lab.check(exit_code=0, before={"missing": [program]})
    assert result.log[1] == "Currently installed VLT is version [23.40] from driver version []"


@pytest.mark.parametrize("key, text", [("read_only", "Access denied"), ("held", "Sharing violation")])
def test_files_that_cannot_be_removed(lab, key, text):
    result = lab.run({"files": {OLD_DOWNLOAD: "old"}, key: [OLD_DOWNLOAD]})
    lab.check(exit_code=-1, boxes=[DOWNLOAD_FAILED], before={"files": [OLD_DOWNLOAD]}, after={"files": [OLD_DOWNLOAD]})
    assert f"\tException occured during the download of dwx2_install.exe. filesystem error: remove: {text} [{OLD_DOWNLOAD}]" in result.log


def test_temporary_folder_elsewhere(lab):
    lab.run({"temp": r"C:\My Temp"})
    lab.check(exit_code=0, boxes=[FINISHED], after={"files": [r"C:\My Temp\Tavik_VLTInstallerDownload\dwx2_install.exe"]})


def test_time_zone(lab):
    hours = []
    for zone in ("UTC", "Etc/GMT-9"):
        result = lab.run({"environment": {"TZ": zone}}, "-SILENT")
        log = next(path for path in result.after.files if path.endswith(".log"))
        hours.append(int(log.split("_")[2]))
    assert (hours[1] - hours[0]) % 24 in (9, 10)


@pytest.mark.parametrize("installer, lines, code", [
    ("24.20-reboot", ["\tResult = 0"], 0), ("24.20-nomain", [NO_MAIN_PACKAGE], 2)])
def test_kinds_of_installers(lab, installer, lines, code):
    result = lab.run(served(installer))
    lab.check(exit_code=code, boxes=[INSTALL_FAILED if code else FINISHED])
    assert result.log[-1:] == lines
    assert any(line.startswith("System reboot may be required for ") for line in result.log) == (installer == "24.20-reboot")


def test_optional_packages_that_refuse(lab):
    result = lab.run(served("24.20-optionalfail") | {"desktop": {"families": ["Halden", "DVR", "PXL"]}})
    lab.check(exit_code=0, boxes=[FINISHED], after={"products": ["Tavik Halden 24.20"]})
    assert [line for line in result.log if "Result" in line] == ["\tResult = 0"] * 4 + ["\tResult = 1603"] * 2


@pytest.mark.parametrize("kind, code", [("stubborn", 1603), ("reboot", 3010)])
def test_kinds_of_installed_packages(lab, kind, code):
    result = lab.run({"desktop": {"packages": [f"Halden-23.40-{kind}"]}})
    lab.check(exit_code=0, boxes=[FINISHED])
    assert [line for line in result.log if "Result" in line] == [remove("Halden", code)[1], install("Halden")[1]]


def test_installer_with_an_exit_code_of_its_own(lab):
    result = lab.run({"installer": {"exit": 7, "sleep": 100}})
    lab.check(exit_code=0, boxes=[FINISHED])
    assert unpack(code=7).replace("{temp}", TEMP) in result.log
    assert result.installer[0].endswith(f" /NCRC /S -EXTRACTONLY=YES /D={TEMP}Tavik_VLTInstallerDownload\\LPInstaller")


def test_installer_that_unpacks_nothing(lab):
    lab.run({"installer": {"extract": "no"}})
    lab.check(exit_code=2, boxes=[INSTALL_FAILED], after={"products": ["Tavik Halden 23.40"]})


def test_store_package_is_removed_after_a_repair(lab):
    name = "TavikSystemsInc-2.TavikCorvelSoftware_1.23.40.0_x64__0a9344xs7nr4m"
    other = "Other.App_1.0.0.0_x64__0a9344xs7nr4m"
    lab.run({"store": {"packages": [{"name": name, "version": "1.23.40.0"}, {"name": other, "version": "1.0.0.0"}]}})
    lab.check(exit_code=0, boxes=[FINISHED], after={"products": ["Tavik Halden 24.20"], "store": [other]})


def test_machine_without_the_store_classes(lab):
    result = lab.run({"desktop": False, "store": {"registered": False}}, "-SILENT")
    assert result.log[-2].startswith("Exception ") and result.log[-2].endswith(" when searching for UWP version of VLT")


def test_fault_rules(lab):
    result = lab.run({"faults": ["msi!MsiInstallProductW 2 return=1618"]})
    lab.check(exit_code=1618, boxes=[INSTALL_FAILED], after={"products": []})
    assert any(line.startswith("msi!MsiInstallProductW#2 ") for line in result.calls)


def test_broken_fault_rule_fails_the_case(lab):
    lab.run({"desktop": {"release": "24.20"}, "faults": ["msi!MsiInstallProductW sometimes"]})
    with pytest.raises(AssertionError, match="not understood"):
        lab.check(exit_code=-1)


def test_direct_install(lab):
    result = lab.run("direct.toml", r"-VLT -Install -Path C:\users\Public\dwx2_install.exe")
    lab.check(exit_code=0, boxes=[], before={"products": []},
              after={"products": ["Tavik DVR 24.20", "Tavik Halden 24.20", "Tavik PXL 24.20"], "store": [],
                     "values": {r"Software\Orrel Technologies\Install\VLTUWPReplaced": 1}})
    assert any(line.startswith("CorvelSoftware.exe ") for line in result.programs)


def test_output_of_the_tool(lab):
    result = lab.run(None, r"-VLT -Install -Path C:\none.exe")
    lab.check(exit_code=2, boxes=[])
    assert result.output == [r"The given location does not contain the file : C:\none.exe"]
