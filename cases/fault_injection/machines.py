"""The machines of the campaign: each takes another way through the tool."""
from __future__ import annotations

import dataclasses
from typing import Any

from cases.support.direct import GIVEN, SWITCHES as DIRECT
from cases.support.expect import OTHER_ADAPTER
from cases.support.store import CORVEL, EARLIER, INSTALLS, NEWER, OTHER
from lab.machine import Machine

OLD = "24.10.05.00-240301b"
STANDINS = ["setupapi", "msi", "wininet", "wtsapi32"]
THIRD_MAKER = r"PCI\VEN_1E7B&DEV_2F19&SUBSYS_00000000&REV_A1\4&1A2B3C4D&0&0009"
SECOND_MAKER = r"PCI\VEN_1E7C&DEV_2F19&SUBSYS_00011E7D&REV_A1\4&1A2B3C4D&0&0009"


@dataclasses.dataclass(frozen=True)
class Scenario:
    """A machine with the switches of its run. Its adapters are listed by their ids, the order that Wine gives them."""
    name: str
    description: dict[str, Any]
    arguments: str = ""

    def machine(self, **changes: Any) -> Machine:
        return Machine({**self.description, "standins": STANDINS, **changes})

    @property
    def needs_root(self) -> bool:
        return self.description.get("server", {}).get("reach") == "default"


def local(*adapters: dict[str, Any], **changes: Any) -> dict[str, Any]:
    """The installer is in the driver package, and there is no network."""
    files = {GIVEN: {"installer": "24.20"}}  # at hand for a direct installation that repairs the machine
    return {"adapters": list(adapters) or [{"packages": [{"installer": "24.20"}]}], "server": {"reach": "none"}, "files": files,
            **changes}


def store(*names: str) -> dict[str, Any]:
    packages = [{"name": name, "version": name.split("_")[1]} for name in names]
    return {"packages": packages, "service": {"installs": INSTALLS}}


MACHINES = {scenario.name: scenario for scenario in (
    Scenario("found", local()),
    Scenario("download", local({}, server={}), "-SILENT"),
    Scenario("https", local({}, server={"reach": "default"}), "-SILENT"),
    Scenario("forced", local(desktop={"release": "24.20"}), "-FORCE -SILENT"),
    Scenario("store", local(desktop=False, store=store(OTHER, CORVEL))),
    Scenario("store-forced", local(desktop=False, store=store(OTHER, EARLIER, NEWER)), "-FORCE -SILENT"),
    Scenario("store-instead", local(desktop={"release": "24.20"}, store=store()), "-FORCEVLTUWP -SILENT"),
    Scenario("nothing-forced", local(desktop=False, store=store()), "-FORCE"),
    Scenario("store-removed", local(store=store(CORVEL, OTHER, EARLIER)), "-SILENT"),
    Scenario("direct", local(desktop=False, store=store(OTHER, CORVEL)), DIRECT),
    Scenario("direct-update", local(desktop={"families": ["Halden", "DVR"]}, store=store(CORVEL)), DIRECT),
    Scenario("adapters", local({"id": SECOND_MAKER, "description": "Tavik Corvel 5500", "release": OLD},
                               {"packages": [{"release": OLD}, {"installer": "24.20"}]}, OTHER_ADAPTER, server={}), "-SILENT"),
    Scenario("running", local(running=[r"C:\Program Files\Tavik\Halden\CorvelSettings.exe"],
                              programs={"CorvelSettings.exe.deaf": True}), "-SILENT"),
    Scenario("reboot", local({"packages": [{"installer": "24.20-reboot"}]},
                             desktop={"packages": ["Halden-23.40-reboot", "DVR-23.40-reboot"]}), "-SILENT"),
    Scenario("optional", local(desktop={"families": ["Halden", "DVR", "PXL"]}), "-SILENT"),
    Scenario("own-folder", local(desktop={"folder": r"C:\My Apps\Graphics", "families": ["Halden", "DVR"]})),
    Scenario("compatible", local({"packages": [{"release": OLD}, {}]}, desktop={"release": "24.20"})),
    Scenario("store-compatible", local(desktop=False, store=store(EARLIER, NEWER)), "-SILENT"),
    Scenario("no-edition", local(desktop=False, store=store(OTHER))),
    Scenario("no-adapter", local({"id": THIRD_MAKER, "packages": []}, OTHER_ADAPTER)),
)}
