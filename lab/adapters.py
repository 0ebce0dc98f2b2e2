"""Display adapters and their driver packages."""
from __future__ import annotations

import dataclasses
import hashlib
import pathlib
import struct
from typing import Any

from lab import inf, keys, paths
from lab.hive import Value
from lab.prefix import Prefix

CLASS_GUID = "{4D36E968-E325-11CE-BFC1-08002BE10318}"
ENUM = r"System\CurrentControlSet\Enum"
CLASS = rf"System\CurrentControlSet\Control\Class\{CLASS_GUID}"
PROBLEM_CODE = r"Properties\{4340A6C5-93FA-4706-972C-7B648008A5A7}\0003"
DEVICE_UINT32 = 0xFFFF0007
RELEASE = "24.20.11.01-240619a"
STORE = r"C:\windows\System32\DriverStore\FileRepository"


def late_value(key: str, name: str, value: object) -> dict[str, Any]:
    """A value below HKEY_LOCAL_MACHINE that the watcher writes once Wine runs."""
    found = Value.of(value)
    return {"key": key, "name": name, "type": found.kind, "data": list(found.data)}


def _write_parts(file: pathlib.Path, parts: list[Any]) -> None:
    """Writes big files quickly: repeated texts, and holes that take no disk space."""
    with open(file, "wb") as out:
        for part in parts:
            if isinstance(part, int):
                out.seek(part, 1)
            else:
                text, times = (part, 1) if isinstance(part, str) else part
                out.write(text.encode() * times)
        out.truncate(out.tell())


def write_file(file: pathlib.Path, content: Any) -> None:
    """A text, or a table with one of the keys listed for `[files]` in README.md."""
    file.parent.mkdir(parents=True, exist_ok=True)
    file.unlink(missing_ok=True) if not file.is_dir() else None
    if isinstance(content, str):
        file.write_text(content, "utf-8", newline="")
        return
    kinds = {"hex", "size", "parts", "installer", "program", "copy", "folder", "link"}
    if not isinstance(content, dict) or len(content) != 1 or not set(content) <= kinds:
        raise ValueError(f"files: {file.name}: write a text, or a table with one of {', '.join(sorted(kinds))}")
    kind, value = next(iter(content.items()))
    if kind == "folder":
        file.mkdir(exist_ok=True)
    elif kind == "link":
        file.symlink_to(value)
    elif kind == "hex":
        file.write_bytes(bytes.fromhex(value))
    elif kind == "size":
        with open(file, "wb") as empty:
            empty.truncate(value)
    elif kind == "parts":
        _write_parts(file, value)
    else:
        source = {"installer": paths.PACKAGES / f"installer-{value}.exe", "program": paths.PROGRAMS / value,
                  "copy": pathlib.Path(value)}
        file.write_bytes(paths.need(source[kind]).read_bytes())


@dataclasses.dataclass
class Package:
    """A driver package in the driver store. Without text an INF with the release is made."""
    release: str | None = None       # as in the adapter when left out
    text: str | None = None          # the whole INF; {hardware}, {description} and {release} are filled in
    encoding: str = "utf-8"
    inf: str = ""                    # published name, oem1.inf and so on
    name: str = ""                   # its own name without .inf
    store: bool = True               # false: the driver store does not know it
    installer: str = ""              # release of the installer in a folder B...
    folder: str = "B384125"          # that folder
    files: dict[str, Any] = dataclasses.field(default_factory=dict)  # more files, below the package's folder

    def store_folder(self) -> str:
        digest = hashlib.sha1(self.name.encode()).hexdigest()[:16]
        return rf"{STORE}\{self.name}.inf_amd64_{digest}"

    def inf_text(self, adapter: "Adapter") -> str:
        release = adapter.release_text() if self.release is None else self.release
        text = self.text
        if text is None:
            text = inf.text(self.name, adapter.description or "Tavik Display", adapter.hardware, release)
        for key, value in (("hardware", adapter.hardware), ("description", adapter.description or ""), ("release", release)):
            text = text.replace("{%s}" % key, value)
        return text

    def install(self, prefix: Prefix, adapter: "Adapter") -> str:
        """Returns its line of driverstore.txt."""
        data = self.inf_text(adapter).encode(self.encoding)
        folder = self.store_folder()
        for path in (rf"C:\windows\inf\{self.inf}", rf"{folder}\{self.name}.inf"):
            file = prefix.windows_path(path)
            file.parent.mkdir(parents=True, exist_ok=True)
            file.write_bytes(data)
        if self.installer:
            write_file(prefix.windows_path(rf"{folder}\{self.folder}\DWX2_Install.exe"), {"installer": self.installer})
        for path, content in self.files.items():
            write_file(prefix.windows_path(rf"{folder}\{path}"), content)
        return f"{self.inf}\t{folder}\\{self.name}.inf\n" if self.store else ""


@dataclasses.dataclass
class Adapter:
    id: str = ""
    description: str | bool = "Tavik Corvel 7800"  # false: none
    release: Any = RELEASE    # text, {type = .., hex = ..}, or false: the driver key has no such value
    problem: int | bool = 0   # Device Manager's code; false: the property is missing
    driver_key: str | bool = True  # false: the device has none; a text: that key, which is not created
    packages: list[Any] | None = None  # one package of the adapter's release when left out
    number: int = 0

    @staticmethod
    def of(table: dict[str, Any], number: int) -> "Adapter":
        known = {field.name for field in dataclasses.fields(Adapter)} - {"number"}
        keys.check(table, known, f"adapter {number}")
        adapter = Adapter(**table, number=number)
        if not adapter.id:
            adapter.id = rf"PCI\VEN_1E7D&DEV_2F1{number:X}&SUBSYS_00011E7D&REV_A1\4&1A2B3C4D&0&{number:04X}"
        if adapter.id.count("\\") != 2:
            raise ValueError(f"adapter {number}: write the id as bus\\hardware\\instance, not {adapter.id}")
        known = {field.name for field in dataclasses.fields(Package)}
        packages = []
        for item in [{}] if adapter.packages is None else adapter.packages:
            keys.check(item, known, f"adapter {number}, package")
            packages.append(Package(**item))
        adapter.packages = packages
        return adapter

    @property
    def hardware(self) -> str:
        """The hardware id that an INF names: without revision and instance."""
        bus, name, _ = self.id.split("\\")
        return bus + "\\" + "&".join(part for part in name.split("&") if not part.upper().startswith(("REV_", "SUBSYS_")))

    def release_text(self) -> str:
        return self.release if isinstance(self.release, str) else RELEASE

    def late_values(self) -> list[dict[str, Any]]:
        device = rf"{ENUM}\{self.id}"
        bus, name, _ = self.id.split("\\")
        values = [(device, "Class", "Display"), (device, "ClassGUID", CLASS_GUID),
                  (device, "HardwareID", list(dict.fromkeys((f"{bus}\\{name}", self.hardware))))]
        if self.description is not False:
            values.append((device, "DeviceDesc", self.description))
        if self.problem is not False:
            values.append((rf"{device}\{PROBLEM_CODE}", "", Value(DEVICE_UINT32, struct.pack("<I", self.problem))))
        if isinstance(self.driver_key, str):
            values.append((device, "Driver", self.driver_key))
        elif self.driver_key:
            key = rf"{CLASS}\{self.number:04d}"
            values += [(device, "Driver", rf"{CLASS_GUID}\{self.number:04d}"), (key, "DriverDesc", self.description or "")]
            if self.release is not False:
                values.append((key, "ReleaseVersion", self.release))
        return [late_value(*value) for value in values]

    def install_packages(self, prefix: Prefix) -> list[str]:
        return [package.install(prefix, self) for package in self.packages]


def number_packages(all_adapters: list[Adapter]) -> None:
    """Windows publishes packages as oem1.inf, oem2.inf and so on."""
    number = 0
    for adapter in all_adapters:
        for package in adapter.packages:
            number += 1
            package.inf = package.inf or f"oem{number}.inf"
            package.name = package.name or f"u04{number:05d}"
