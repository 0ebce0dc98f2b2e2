"""What a machine holds before and after a run: registry, installed products, files."""
from __future__ import annotations

import dataclasses
import pathlib
import re

from lab.hive import Hive

REGISTRY_ROOTS = (r"Software\Tavik", r"Software\Orrel Technologies")
PRODUCTS = re.compile(r"software\\microsoft\\windows\\currentversion\\installer\\userdata\\[^\\]+\\products\\[^\\]+"
                      r"\\installproperties$")
OWN = ("windows", "lab", "ProgramData", "Program Files (x86)")  # folders of C: that are not listed: Wine's and the lab's


@dataclasses.dataclass
class State:
    registry: dict[str, dict[str, object]]
    products: list[str]           # "Tavik Halden 23.40", sorted
    local_packages: dict[str, str]  # product -> the package that Windows Installer keeps
    files: dict[str, int]         # Windows path -> size; folders have -1

    def value(self, key: str, name: str) -> object:
        """A registry value below HKEY_LOCAL_MACHINE, or None."""
        for known, values in self.registry.items():
            if known.lower() == key.lower():
                return {item.lower(): value for item, value in values.items()}.get(name.lower())
        return None


def read(drive: pathlib.Path, system: Hive) -> State:
    packages = {}
    for key in system.sections:
        if key.endswith("installproperties") and PRODUCTS.match(key):
            values = {name.lower(): value.plain() for name, value in (system.values(key) or {}).items()}
            packages[str(values.get("displayname", key))] = str(values.get("localpackage", ""))
    files = {}
    for top in sorted(drive.iterdir()):
        if top.name in OWN:
            continue
        for item in [top, *sorted(top.rglob("*"))] if top.is_dir() else [top]:
            name = "C:\\" + "\\".join(item.relative_to(drive).parts)
            files[name] = -1 if item.is_dir() else item.lstat().st_size  # a link may lead nowhere
    return State(system.below(*REGISTRY_ROOTS), sorted(packages), packages, files)
