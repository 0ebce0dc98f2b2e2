"""The machines of the campaign: each takes another way through the tool, and its undisturbed run ends as given here."""
from __future__ import annotations

import dataclasses
from typing import Any

from cases.support.expect import FINISHED, NO_ADAPTER, NOT_INSTALLED, SAME_RELEASE
from lab.machine import Machine

NEW = "24.20.11.01-240619a"
OLD = "24.10.05.00-240301b"
GIVEN = r"C:\Given folder\setup.exe"
DIRECT = f'-VLT -Install -Path "{GIVEN}"'
CORVEL = "TavikSystemsInc-2.TavikCorvelSoftware_2.23.40.0_x64__0a9344xs7nr4m"
EARLIER = "TavikSystemsInc-2.8F31D07A2B6E4_1.22.11.0_x64__0a9344xs7nr4m"
OTHER = "Contoso.Paint_11.2404.5.0_x64__8wekyb3d8bbwe"
NEWER = "TavikSystemsInc-2.TavikCorvelSoftware_2.24.20.0_x64__0a9344xs7nr4m"
UPDATE = {"installs": f"{NEWER} | 2.24.20.0"}
STANDINS = ["setupapi", "msi", "wininet", "wtsapi32"]
FOREIGN = {"id": r"PCI\VEN_8086&DEV_46A6&SUBSYS_00000000&REV_0C\3&11583659&0&10", "description": "Other Graphics",
           "packages": []}
THIRD_MAKER = r"PCI\VEN_1E7B&DEV_2F19&SUBSYS_00000000&REV_A1\4&1A2B3C4D&0&0009"
SECOND_MAKER = r"PCI\VEN_1E7C&DEV_2F19&SUBSYS_00011E7D&REV_A1\4&1A2B3C4D&0&0009"


@dataclasses.dataclass(frozen=True)
class Scenario:
    """A machine with the good end of the undisturbed run. Its adapters are listed by their ids, the order that Wine gives them."""
    name: str
    description: dict[str, Any]
    arguments: str
    exit_code: int
    boxes: tuple[tuple[str, str], ...]
    products: tuple[str, ...]
    store: tuple[str, ...] = ()

    def machine(self, **changes: Any) -> Machine:
        return Machine({**self.description, "standins": STANDINS, **changes})

    @property
    def needs_root(self) -> bool:
        return self.description.get("server", {}).get("reach") == "default"


def local(*adapters: dict[str, Any], **changes: Any) -> dict[str, Any]:
    """The installer lies in the driver package, and there is no network."""
    files = {GIVEN: {"installer": "24.20"}}  # at hand for a direct installation that repairs the machine
    return {"adapters": list(adapters) or [{"packages": [{"installer": "24.20"}]}], "server": {"reach": "none"}, "files": files,
            **changes}


def store(*names: str, **service: Any) -> dict[str, Any]:
    packages = [{"name": name, "version": name.split("_")[1]} for name in names]
    return {"packages": packages, "service": {**UPDATE, **service}}


DONE, SILENT = (FINISHED,), ()
MACHINES = {scenario.name: scenario for scenario in (
    Scenario("found", local(), "", 0, DONE, ("Tavik Halden 24.20",)),
    Scenario("download", local({}, server={}), "-SILENT", 0, SILENT, ("Tavik Halden 24.20",)),
    Scenario("https", local({}, server={"reach": "default"}), "-SILENT", 0, SILENT, ("Tavik Halden 24.20",)),
    Scenario("forced", local(desktop={"release": "24.20"}), "-FORCE -SILENT", 0, SILENT, ("Tavik Halden 24.20",)),
    Scenario("store", local(desktop=False, store=store(OTHER, CORVEL)), "", 0, DONE, (), (OTHER, NEWER)),
    Scenario("store-forced", local(desktop=False, store=store(OTHER, EARLIER, NEWER)), "-FORCE -SILENT", 0, SILENT, (),
            (OTHER, EARLIER, NEWER)),
    Scenario("store-instead", local(desktop={"release": "24.20"}, store=store()), "-FORCEVLTUWP -SILENT", 0, SILENT,
            ("Tavik Halden 24.20",), (NEWER,)),
    Scenario("nothing-forced", local(desktop=False, store=store()), "-FORCE", 0, DONE, (), (NEWER,)),
    Scenario("store-removed", local(store=store(CORVEL, OTHER, EARLIER)), "-SILENT", 0, SILENT, ("Tavik Halden 24.20",),
            (OTHER,)),
    Scenario("direct", local(desktop=False, store=store(OTHER, CORVEL)), DIRECT, 0, (),
            ("Tavik DVR 24.20", "Tavik Halden 24.20", "Tavik PXL 24.20"), (OTHER,)),
    Scenario("direct-update", local(desktop={"families": ["Halden", "DVR"]}, store=store(CORVEL)), DIRECT, 0, (),
            ("Tavik DVR 24.20", "Tavik Halden 24.20"), (CORVEL,)),
    Scenario("adapters", local({"id": SECOND_MAKER, "description": "Tavik Corvel 5500", "release": OLD},
                              {"packages": [{"release": OLD}, {"installer": "24.20"}]}, FOREIGN, server={}), "-SILENT",
            0, SILENT, ("Tavik Halden 24.20",)),
    Scenario("running", local(running=[r"C:\Program Files\Tavik\Halden\CorvelSettings.exe"],
                             programs={"CorvelSettings.exe.deaf": True}), "-SILENT", 0, SILENT, ("Tavik Halden 24.20",)),
    Scenario("reboot", local({"packages": [{"installer": "24.20-reboot"}]},
                            desktop={"packages": ["Halden-23.40-reboot", "DVR-23.40-reboot"]}), "-SILENT", 0, SILENT,
            ("Tavik DVR 24.20", "Tavik Halden 24.20")),
    Scenario("optional", local(desktop={"families": ["Halden", "DVR", "PXL"]}), "-SILENT", 0, SILENT,
            ("Tavik DVR 24.20", "Tavik Halden 24.20", "Tavik PXL 24.20")),
    Scenario("own-folder", local(desktop={"folder": r"C:\My Apps\Graphics", "families": ["Halden", "DVR"]}), "", 0, DONE,
            ("Tavik DVR 24.20", "Tavik Halden 24.20")),
    Scenario("compatible", local({"packages": [{"release": OLD}, {}]}, desktop={"release": "24.20"}), "", -1, (SAME_RELEASE,),
            ("Tavik Halden 24.20",)),
    Scenario("store-compatible", local(desktop=False, store=store(EARLIER, NEWER)), "-SILENT", -1, SILENT, (), (EARLIER, NEWER)),
    Scenario("no-edition", local(desktop=False, store=store(OTHER)), "", -1, (NOT_INSTALLED,), (), (OTHER,)),
    Scenario("no-adapter", local({"id": THIRD_MAKER, "packages": []}, FOREIGN), "", -1,
            (NO_ADAPTER,), ("Tavik Halden 23.40",)),
)}
