"""The inventory: adapters, their drivers and the driver packages."""
from __future__ import annotations

import dataclasses

from lab.adapters import Adapter, Package
from cases.fault_injection.world import ModelBase, setup_result, signed

MAKERS = ("VEN_1E7D", "VEN_1E7C")
MORE_DATA = 122


@dataclasses.dataclass
class Record:
    """An adapter that the tool lists."""
    description: str
    release: str
    folder: str

    @property
    def base(self) -> str:
        return self.release.partition("-")[0]


class Inventory(ModelBase):
    def place(self, folder: str) -> str:
        """The folder that {store1}, {store2}, ... in a log line refers to."""
        number = folder.strip("{}").removeprefix("store")
        return self.packages()[int(number) - 1].store_folder() if number.isdigit() else folder

    def adapters(self) -> list[Record]:
        code = self.call("setupapi!SetupDiGetClassDevsW")
        if code is not None:
            self.say(f"Failed to call SetupDiGetClassDevs {setup_result(code)}  {{any}}")
            self.adapter_seen = True  # it cannot be known
            return []
        self.id, self.path = "", ""  # buffers that are never cleared
        records = []
        for adapter in [*self.machine.adapters, None]:
            if self.call("setupapi!SetupDiEnumDeviceInfo") is not None or adapter is None:
                break
            record = self._adapter(adapter)
            if record:
                records.append(record)
        return sorted(records, key=lambda record: [ord(char) for char in record.base], reverse=True)

    def _property(self, text: str) -> tuple[str, int]:
        """Text and code. The tool asks for the size first; without it there is no room for the text."""
        size, read = (self.call("setupapi!SetupDiGetDeviceRegistryPropertyW") for _ in range(2))
        code = read if read is not None else MORE_DATA if size is not None else 0
        return ("", code) if code else (text, 0)

    def _adapter(self, adapter: Adapter) -> Record | None:
        code = self.call("setupapi!SetupDiGetDeviceInstanceIdW")
        if code is None:
            self.id = adapter.id
        else:
            self.say(f"Failed to call SetupDiGetDeviceInstanceId {setup_result(code)}  {{any}}")
            self.adapter_seen = True  # it cannot be known
        description, _ = self._property(str(adapter.description))
        if not any(maker in self.id.upper() for maker in MAKERS):
            self.say(f"[{description}] - [{self.id}] is not an Tavik Display Adapter.")
            return None
        self.adapter_seen = True
        _, code = self._property("the driver's key")
        if code:
            self.say(f"Failed to get SPDRP_DRIVER for {self.id}: {setup_result(code)}  {{any}}")
            return None
        code = self.call("setupapi!SetupDiGetDevicePropertyW")
        if code is not None:
            number = signed(code)
            self.say(f"Unable to get DEVPKEY_Device_ProblemCode property: {number if number < 0 else f' {number}'} {{any}}")
        elif adapter.problem:
            self.say(f"Device has CM_PROB_Xxx code {adapter.problem}")
        self.say(f"Enumerating installed drivers for {self.id} - {description}")
        folder = self._driver_folder(adapter)
        return None if "Microsoft" in description else Record(description, adapter.release_text(), folder)

    def _driver_folder(self, adapter: Adapter) -> str:
        built = self.call("setupapi!SetupDiBuildDriverInfoList") is None
        folder = ""
        for package in [*adapter.packages, None]:
            if self.call("setupapi!SetupDiEnumDriverInfoW") is not None or package is None or not built:
                break
            self.call("setupapi!SetupDiGetDriverInfoDetailW")  # the size; without it the tool asks for the bare structure
            known = self.call("setupapi!SetupDiGetDriverInfoDetailW") is None
            located = self.call("setupapi!SetupGetInfDriverStoreLocationW") is None
            if known and located and package.store:
                number = next(number for number, one in enumerate(self.packages(), 1) if one is package)
                self.path = f"{{store{number}}}"
            release = self._release(adapter)
            inf = rf"{self.path}\{self._package_of(self.path).name}.inf" if self.path else ""
            self.say(f"Found driver {inf}. Version [{release}]")
            if release.lower() == adapter.release_text().lower():
                self.say("\tFound driver matching active driver")
                folder = self.path
        return folder

    def _package_of(self, path: str) -> Package:
        return self.packages()[int(path.strip("{}").removeprefix("store")) - 1]

    def _release(self, adapter: Adapter) -> str:
        """The release in the INF that was located last."""
        if self.call("setupapi!SetupOpenInfFileW") is not None or not self.path:
            return ""
        package = self._package_of(self.path)
        owner = next(one for one in self.machine.adapters if any(item is package for item in one.packages))
        release = ""
        for section in sections(package.inf_text(owner)):
            found = self.call("setupapi!SetupFindFirstLineW") is None
            for line in section:
                if not found:
                    break
                if self.call("setupapi!SetupGetLineTextW") is None and line.lower().startswith("hkr,,releaseversion,,"):
                    release = line.split(",", 4)[4].strip('"')
                found = self.call("setupapi!SetupFindNextLine") is None
        return release


def sections(text: str) -> list[list[str]]:
    """The lines of each section of an INF, blank lines and comments left out."""
    found: list[list[str]] = []
    for line in text.splitlines():
        line = line.strip()
        if line.startswith("["):
            found.append([])
        elif line and not line.startswith(";"):
            found[-1].append(line)
    return found
