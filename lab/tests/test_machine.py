"""Keys of a machine's description that no other case needs, and what the lab says about a mistake in one.

All other keys are shown by the cases that describe their machines with them.
"""
from __future__ import annotations

import pytest

from cases.support.expect import FINISHED, NO_ADAPTER
from lab.machine import Machine

HL = r"HKLM\SOFTWARE\Tavik\HL"


@pytest.mark.parametrize("description", [
    {"adaptor": []}, {"adapters": [{"realease": "1"}]}, {"adapters": [{"packages": [{"bogus": 1}]}]},
    {"adapters": [{"id": "PCI"}]}, {"desktop": {"version": "1"}}, {"server": {"answers": {"/x": {"stat": 1}}}},
    {"server": {"reach": "moon"}}, {"store": {"package": []}}], ids=str)
def test_unknown_keys_are_refused(description):
    with pytest.raises(ValueError):
        Machine(description)


def test_rule_that_is_not_understood_fails_the_case(lab):
    lab.run({"desktop": {"release": "24.20"}, "faults": ["msi!MsiInstallProductW sometimes"]})
    with pytest.raises(AssertionError, match="not understood"):
        lab.check(outcome="same-release", exit_code=-1)


def test_wines_own_adapter_can_be_left(lab):
    result = lab.run({"adapters": [], "own_adapter": True})
    lab.check(outcome="no-adapter", exit_code=-1, boxes=[NO_ADAPTER])
    assert any(line.startswith("[Wine Adapter] - [PCI\\VEN_0000") for line in result.log)


# Proves: The value is not plain text
# Proves: The value is a text with variables => the system replaces them, and it counts
@pytest.mark.parametrize("value, shown", [
    (5, ""), (["a", "b"], ""), ({"type": "REG_EXPAND_SZ", "text": "%OS%"}, "Windows_NT"), ("Ünï ☃", "Ünï ☃")], ids=str)
def test_registry_values(lab, value, shown):
    result = lab.run({"registry": {HL: {"HLVersion": value}}}, "-SILENT")
    lab.check(outcome="repaired", exit_code=0, boxes=[])
    assert result.log[1] == f"Currently installed VLT is version [{shown}] from driver version [23.40.11.01]"


def test_optional_packages_that_refuse(lab):
    answers = {"/drivers/installer/vlt/24.20/dwx2_install.txt": "24.20-optionalfail"}
    result = lab.run({"server": {"answers": answers}, "desktop": {"families": ["Halden", "DVR", "PXL"]}})
    lab.check(outcome="repaired-optional-failed", exit_code=0, boxes=[FINISHED], after={"products": ["Tavik Halden 24.20"]})
    assert [line for line in result.log if "Result" in line] == ["\tResult = 0"] * 4 + ["\tResult = 1603"] * 2


def test_machine_without_the_store_classes(lab):
    result = lab.run({"desktop": False, "store": {"registered": False}}, "-SILENT")
    lab.check(outcome="no-application-store-unread", exit_code=-1, boxes=[])
    assert result.log[-2].startswith("Exception ") and result.log[-2].endswith(" when searching for UWP version of VLT")


def test_direct_install(lab):
    """The description in lab/machines."""
    result = lab.run("direct.toml", r"-VLT -Install -Path C:\users\Public\dwx2_install.exe")
    lab.check(outcome="direct-done", exit_code=0, boxes=[], before={"products": []},
              after={"products": ["Tavik DVR 24.20", "Tavik Halden 24.20", "Tavik PXL 24.20"], "store": [],
                     "values": {r"Software\Orrel Technologies\Install\VLTUWPReplaced": 1}})
    assert any(line.startswith("CorvelSoftware.exe ") for line in result.programs)
