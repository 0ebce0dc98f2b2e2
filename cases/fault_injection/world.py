"""What a machine holds, and what all parts of the model share: its calls, its log, its boxes."""
from __future__ import annotations

import copy
import dataclasses
from typing import Any

from lab.adapters import Package
from lab.machine import Machine

LOCATION = r"C:\Program Files\Tavik\Halden"


def signed(code: int) -> int:
    code &= 0xFFFFFFFF
    return code - (1 << 32) if code >= 1 << 31 else code


def setup_result(code: int) -> int:
    """HRESULT_FROM_SETUPAPI, as the log shows it."""
    if code & 0xE0000000 == 0xE0000000:
        return signed(0x800F0000 | code & 0xFFFF)
    return signed(0x80070000 | code & 0xFFFF) if signed(code) > 0 else signed(code)


@dataclasses.dataclass(frozen=True)
class Fault:
    """A call that fails once. number 0: a step of the Store, set in the machine's description."""
    function: str = ""
    number: int = 0
    code: int = 0
    after: bool = False  # the real call is made first


@dataclasses.dataclass
class Product:
    family: str
    release: str
    kind: str

    @property
    def name(self) -> str:
        return f"Tavik {self.family} {self.release}"


@dataclasses.dataclass
class World:
    """What a machine holds that can change."""
    products: list[Product]
    version: str                   # of the desktop edition, as its installer has registered it
    folder: str                    # install folder that the user chose
    store: list[dict[str, Any]]
    running: list[str]
    unpacked: bool = False         # the extraction folder is there
    unsure: set[str] = dataclasses.field(default_factory=set)  # Store packages whose removal the tool did not wait for

    @staticmethod
    def of(machine: Machine) -> "World":
        products = [Product(*(package.split("-") + ["normal"])[:3]) for package in machine.products]
        version = next((product.release for product in products if product.family == "Halden"), "")
        store = machine.data["store"]
        running = [path.rpartition("\\")[2] for path in machine.data["running"]]
        return World(products, version, machine.folder, copy.deepcopy(store.get("packages", [])) if store else [], running)

    def end(self) -> tuple[list[str], list[str]]:
        """Products and Store packages, as the lab reads them."""
        return sorted(product.name for product in self.products), sorted(package["name"] for package in self.store)

    @property
    def location(self) -> str:
        if not any(product.family == "Halden" for product in self.products):
            return ""
        return f"{self.folder}\\Halden" if self.folder else LOCATION


@dataclasses.dataclass
class Ending:
    """How one start ends, by the model."""
    exit_code: int
    log: list[str]
    boxes: list[tuple[str, str]]
    calls: dict[str, int]
    world: World
    outcome: str  # id in the catalogue


class ModelBase:
    """One start of the tool."""

    def __init__(self, machine: Machine, world: World, arguments: str, fault: Fault | None = None, *, prepared: bool = True,
                 launched: bool = True):
        self.machine = machine
        self.world = copy.deepcopy(world)
        self.arguments = arguments
        self.fault = fault or Fault()
        self.prepared, self.launched = prepared, launched
        self.log: list[str] = []
        self.boxes: list[tuple[str, str]] = []
        self.calls: dict[str, int] = {}
        words = arguments.lower().split()
        self.force = "-force" in words or "-forcevltuwp" in words
        self.uwp, self.silent = "-forcevltuwp" in words, "-silent" in words
        self.direct = "-vlt" in words and "-install" in words
        store = machine.data["store"]
        self.manager: dict[str, str] = store.get("manager", {}) if store and fault else {}
        self.service: dict[str, Any] = dict(store.get("service", {})) if store else {}
        if not fault:  # an undisturbed Store
            self.service = {key: value for key, value in self.service.items() if key in ("installs", "completion")}
        self.disturbed = fault is not None
        # The outcome of the run depends on these.
        self.reason = ""  # the outcome, if already decided
        self.adapter_seen = self.store_trouble = self.restart = False
        self.removals: list[int | str] = []
        self.installations: list[int] = []  # the main package first

    def call(self, name: str) -> int | None:
        """Counts a call. Returns the code if this is the call that fails; it is then not made, unless the fault says so."""
        self.calls[name] = self.calls.get(name, 0) + 1
        due = (name, self.calls[name]) == (self.fault.function, self.fault.number)
        return self.fault.code if due else None

    def say(self, line: str) -> None:
        self.log.append(line)

    def box(self, box: tuple[str, str]) -> None:
        if not self.silent:
            self.boxes.append(box)

    def packages(self) -> list[Package]:
        return [package for adapter in self.machine.adapters for package in adapter.packages]
