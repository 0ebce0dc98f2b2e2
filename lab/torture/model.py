"""What the tool does on a machine, call by call, as its description says: which calls it makes, what it logs, how it
ends and what it leaves behind, also when one of the calls fails.

Nothing here was read off the program. Where the two differ, one of them is wrong.
"""
from __future__ import annotations

import copy
import dataclasses
import math
from typing import Any

import expect
from lab import paths
from lab.adapters import Adapter, Package
from lab.machine import SERVER_PATH, Machine
from lab.torture import faults

SWITCHES = ("-force", "-forcevltuwp", "-silent", "-vlt", "-install")
FAMILIES = ("Halden", "DVR", "PXL")
REBOOT = (1641, 3010, 3011)
NO_MORE, MORE_DATA, NOT_FOUND = 259, 122, 2
BLOCK = 0x100000  # of the download
LOCATION = r"C:\Program Files\Tavik\Halden"
LP = r"{temp}Tavik_VLTInstallerDownload\LPInstaller"
PACKAGE_FILES = {"Halden": r"\HL\halden\halden64\dwx-next64.msi", "DVR": r"\HL\tavikdvr\tavikdvr64\tavikdvr64.msi",
                 "PXL": r"\HL\pxl64\PXL64.msi"}
MAKERS = ("VEN_1E7D", "VEN_1E7C")
STORE_NAMES = ("taviksystemsinc-2.8f31d07a2b6e4", "taviksystemsinc-2.tavikcorvelsoftware")
SEARCHING = "when searching for UWP version of VLT"
QUIET_EXIT = 3  # of an error that nobody catches


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
    """A call that fails once. number 0: a step of the Store, which is written in the machine's description."""
    function: str = ""
    number: int = 0
    code: int = 0
    after: bool = False


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
    folder: str                    # of the user's own choice
    store: list[dict[str, Any]]
    running: list[str]
    unpacked: bool = False         # the extraction folder is there
    unsure: set[str] = dataclasses.field(default_factory=set)  # Store packages whose removal nobody waited for

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


class StoreError(Exception):
    def __init__(self, failure: str):
        code, colon, text = failure.partition(":")
        super().__init__(failure)
        self.code = int(code, 16)
        self.text = text if colon else "{any}"


class Quiet(Exception):
    """An error that ends the process."""


@dataclasses.dataclass
class Record:
    """An adapter that counts."""
    description: str
    release: str
    folder: str

    @property
    def base(self) -> str:
        return self.release.partition("-")[0]


@dataclasses.dataclass
class Outcome:
    exit_code: int
    log: list[str]
    boxes: list[tuple[str, str]]
    calls: dict[str, int]
    world: World


class Run:
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

    def execute(self) -> Outcome:
        self.log += expect.opening(self.arguments)[:1]
        try:
            code = self._direct() if self.direct else self._check()
        except Quiet:
            code = QUIET_EXIT
        return Outcome(code, self.log, self.boxes, self.calls, self.world)

    # What everything goes through

    def call(self, name: str) -> int | None:
        """Counts a call. The code with which it fails when it is the one; it is then not made, unless told otherwise."""
        self.calls[name] = self.calls.get(name, 0) + 1
        due = (name, self.calls[name]) == (self.fault.function, self.fault.number)
        return self.fault.code if due else None

    def say(self, line: str) -> None:
        self.log.append(line)

    def box(self, box: tuple[str, str]) -> None:
        if not self.silent:
            self.boxes.append(box)

    def leave(self, line: str, box: tuple[str, str]) -> int:
        self.say(line)
        self.box(box)
        return -1

    # The check

    def _check(self) -> int:
        version = self.world.version
        driver = f"{version}.11.01" if version else ""
        self.say(f"Currently installed VLT is version [{version}] from driver version [{driver}]")
        records = self.adapters()
        self.say("Currently installed drivers on system:")
        for record in records:
            self.say(f"\t [{record.description}] [{record.release}] [{record.folder}]")
        if not records:
            return self.leave("Unable to find installed Tavik display adapters. Exiting.", expect.NO_ADAPTER)
        use_store = not self.related("Halden")
        if use_store:
            self.say("User does not desktop VLT installed.")
            found = self.store_version()
            if found == (0, 0, 0, 0):
                if not self.force:
                    return self.leave("User does not have VLT installed. Exiting.", expect.NOT_INSTALLED)
                self.say("User does not have VLT installed.")
            version = f"{found[1]}.{found[2]}"[:5]
        first = records[0]
        prefix = first.base[:5]
        if version.lower() in (first.base.lower(), prefix.lower()) or prefix.lower() == version[:5].lower():
            same = "Currently installed version of VLT is from the same release as the active driver."
            if not self.force:
                return self.leave(f"{same} Exiting.", expect.SAME_RELEASE)
            self.say(same)
        if self.uwp or use_store:
            return self._store_repair()
        return self._desktop_repair(first, prefix)

    def _store_repair(self) -> int:
        self.say("Attempting to download and install the UWP version of VLT.")
        result = self.install_store()
        self.say("failed to install the UWP version of VLT" if result else "Successfully installed the UWP version of VLT")
        self.box(expect.INSTALL_FAILED if result else expect.FINISHED)
        return result

    def _desktop_repair(self, record: Record, prefix: str) -> int:
        place = self.place(record.folder)
        package = next((one for one in self.packages() if one.installer and one.store_folder() == place), None)
        if package:
            installer, kind = rf"{record.folder}\{package.folder}\DWX2_Install.exe", package.installer
            self.say(f"Found dwx2-install.exe at [{installer}]")
        else:
            self.say(f"Unable to find dwx2-install.exe at [{record.folder}]. "
                     f"Downloading dwx2_install.exe for [{prefix}] from web.")
            kind = self.download(prefix)
            installer = r"{temp}Tavik_VLTInstallerDownload\dwx2_install.exe"
            if not kind:
                return self.leave("Unable to download dwx2_install.exe from web. Exiting.", expect.DOWNLOAD_FAILED)
        result = self.sequence(installer, kind, everything=False)
        if result == 0:
            self.remove_store()
        self.box(expect.INSTALL_FAILED if result else expect.FINISHED)
        return result

    def _direct(self) -> int:
        path = next(path for path in self.machine.data["files"] if path.endswith("setup.exe"))
        missing = not self.related("Halden")
        if self.sequence(path, self.machine.data["files"][path]["installer"], everything=missing) == 0 and missing:
            self.remove_store()
        location = self.world.location
        if not location:
            raise Quiet
        self.say(rf"Process {location}\CorvelSoftware.exe  completed with exit code 0")
        return 0

    # The inventory

    def packages(self) -> list[Package]:
        return [package for adapter in self.machine.adapters for package in adapter.packages]

    def place(self, folder: str) -> str:
        """The folder that a {store} of the log stands for."""
        number = folder.strip("{}").removeprefix("store")
        return self.packages()[int(number) - 1].store_folder() if number.isdigit() else folder

    def adapters(self) -> list[Record]:
        code = self.call("setupapi!SetupDiGetClassDevsW")
        if code is not None:
            self.say(f"Failed to call SetupDiGetClassDevs {setup_result(code)}  {{any}}")
            return []
        self.id, self.path = "", ""  # buffers that are never cleared
        records = []
        for adapter in [*self.machine.adapters, None]:
            if self.call("setupapi!SetupDiEnumDeviceInfo") is not None or adapter is None:
                break
            record = self._adapter(adapter)
            if record:
                records.append(record)
        self.call("setupapi!SetupDiDestroyDeviceInfoList")
        return sorted(records, key=lambda record: [ord(char) for char in record.base], reverse=True)

    def _property(self, text: str) -> tuple[str, int]:
        """Text and code: first the size is asked for, and without it there is no room for the text."""
        size, read = (self.call("setupapi!SetupDiGetDeviceRegistryPropertyW") for _ in range(2))
        code = read if read is not None else MORE_DATA if size is not None else 0
        return ("", code) if code else (text, 0)

    def _adapter(self, adapter: Adapter) -> Record | None:
        code = self.call("setupapi!SetupDiGetDeviceInstanceIdW")
        if code is None:
            self.id = adapter.id
        else:
            self.say(f"Failed to call SetupDiGetDeviceInstanceId {setup_result(code)}  {{any}}")
        description, _ = self._property(str(adapter.description))
        if not any(maker in self.id.upper() for maker in MAKERS):
            self.say(f"[{description}] - [{self.id}] is not an Tavik Display Adapter.")
            return None
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
            self.call("setupapi!SetupDiGetDriverInfoDetailW")  # the size; without it the structure alone is asked for
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
        """Of the INF that was located last."""
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
        self.call("setupapi!SetupCloseInfFile")
        return release

    # The download

    def download(self, release: str) -> str:
        """The installer's kind, or nothing."""
        server = self.machine.server
        url = f"http://{{server}}{SERVER_PATH}{release}/dwx2_install.txt"
        if server.reach == "override":
            self.say(f"Change server to http://{{server}}{SERVER_PATH}.")
        else:
            url = f"https://{{any}}{SERVER_PATH}{release}/dwx2_install.txt"
        thrown = "\tException occured during the download of dwx2_install.exe. {}: {{any}}".format
        code = self.call("wininet!InternetCrackUrlW")
        if code is not None:
            self.say(f"Unable to crack URL: {url}. Error = {code}")
            return ""
        if self.call("wininet!InternetOpenW") is not None:
            self.say(thrown("Unable to open internet connection"))
            return ""
        if self.call("wininet!InternetConnectW") is not None:
            self.call("wininet!InternetCloseHandle")
            self.say(thrown("Unable to connect to server"))
            return ""
        good = self._transfer(url, release)
        for _ in range(good[0]):
            self.call("wininet!InternetCloseHandle")
        return good[1]

    def _transfer(self, url: str, release: str) -> tuple[int, str]:
        """How many handles are open by then, and the installer's kind."""
        opened = self.call("wininet!HttpOpenRequestW")
        for _ in range(3):
            self.call("wininet!InternetSetOptionW")
        if opened is not None:
            self.say(f"Unable to call HttpOpenRequest to {url}. Error {opened}")
            return 2, ""
        sent = self.call("wininet!HttpSendRequestW")
        if sent is None and self.machine.server.reach == "none":
            sent = 12007  # there is no such host here
        if sent is not None:
            self.say(f"Unable to call HttpSendRequest to {url}. Error {sent}")
            return 3, ""
        code = self.call("wininet!HttpQueryInfoW")
        if code is not None:
            self.say(f"Unable to create query response code from {url}. Error code: {code} {{any}}")
            return 3, ""
        self.say("Response code from server: 200")
        size = (paths.PACKAGES / f"installer-{release}.exe").stat().st_size
        for _ in range(math.ceil(size / BLOCK) + 1):
            code = self.call("wininet!InternetReadFile")
            if code == faults.EXTENDED:
                for _ in range(2):
                    self.call("wininet!InternetGetLastResponseInfoW")
                self.say("Unable to read file from internet. Extended error code: {number} {any}")
                return 3, ""
            if code is not None:
                self.say(f"Download failed with error code: {code} {{any}}")
                return 3, ""
        self.say(f"Completed download. Total bytes downloaded: {size}")
        return 3, release

    # Installing

    def related(self, family: str) -> list[Product]:
        """The products of a family whose package is known. Only the end of the list ends it, no other failure does."""
        products = [product for product in self.world.products if product.family == family]
        found: list[Product] = []
        product, index = None, 0
        while True:
            code = self.call("msi!MsiEnumRelatedProductsW")
            if code is None and index < len(products):
                product = products[index]
            if code == NO_MORE or code is None and index >= len(products):
                return found
            index += 1
            if self.call("msi!MsiGetProductInfoW") is None and product:
                found.append(product)

    def sequence(self, installer: str, kind: str, everything: bool) -> int:
        release, _, variant = kind.partition("-")
        self.call("msi!MsiSetInternalUI")
        self._prepare_folder()
        if self.launched:
            self.say(f"Process {installer} /NCRC /S -EXTRACTONLY=YES /D={LP} completed with exit code 0")
            self.world.unpacked = True
        else:
            self.say(f"Launching process {installer} /NCRC /S -EXTRACTONLY=YES /D={LP} failed. Error code = {{number}} {{any}}")
        if not self.world.unpacked:
            self.say(f"Unable to find {LP}{PACKAGE_FILES['Halden']}.")
            return NOT_FOUND
        installed = {family: self.related(family) for family in FAMILIES}
        folder = self.world.folder + "\\" if self.world.folder and self.world.location else ""
        self._stop()
        for family in FAMILIES:
            for product in installed[family]:
                self.say(rf"Uninstalling installed {family} C:\windows\Installer\{{any}}.msi")
                self.say(f"\tResult = {self._remove(product)}")
        if not folder:
            self.world.folder = ""
        result = self._install("Halden", release, variant, folder)
        for family in FAMILIES[1:]:
            if installed[family] or everything:
                self._install(family, release, "", folder)
        return result

    def _prepare_folder(self) -> None:
        for _ in range(2):
            if self.call("wtsapi32!WTSQuerySessionInformationW") is None:
                self.call("wtsapi32!WTSFreeMemory")
        if self.prepared:
            self.world.unpacked = False

    def _stop(self) -> None:
        if self.world.location:
            self.say(rf"Process {self.world.location}\hlcmd.exe exit completed with exit code 0")
        self.log += expect.stop("", tuple(self.world.running))
        self.world.running = []

    def _remove(self, product: Product) -> int | str:
        code = self.call("msi!MsiInstallProductW")
        if code is not None and not self.fault.after:
            return code
        if product not in self.world.products:
            return "{number}"  # it has gone before
        self.world.products.remove(product)
        if product.family == "Halden":
            self.world.version = ""
        return code if code is not None else 3010 if product.kind == "reboot" else 0

    def _install(self, family: str, release: str, variant: str, folder: str) -> int:
        path = LP + PACKAGE_FILES[family]
        self.say(f"Installing {path}")
        if folder:
            self.say(f"Using custom install directory {folder}")
        code = self.call("msi!MsiInstallProductW")
        if code is None or self.fault.after:
            product = Product(family, release, variant or "normal")
            if product.name not in [one.name for one in self.world.products]:  # the same once more is still one product
                self.world.products.append(product)
            if family == "Halden":
                self.world.version = release
            code = code if code is not None else 3010 if variant == "reboot" else 0
        if code in REBOOT:
            self.say(f"System reboot may be required for {path}.")
            code = 0
        self.say(f"\tResult = {code}")
        return code

    # The Store

    def fail(self, place: dict[str, Any], key: str) -> None:
        """A step of the package manager or of the Store."""
        value = str(place.get(key, "ok"))
        if value != "ok":
            raise StoreError(value)

    def method(self, package: dict[str, Any], name: str) -> None:
        failed, _, failure = str(package.get("fail", "")).partition(":") if self.disturbed else ("", "", "")
        if failed == name:
            raise StoreError(failure)

    def counted(self, key: str, number: int) -> None:
        call, _, failure = str(self.manager.get(key, "")).partition(":")
        if call == str(number):
            raise StoreError(failure)

    def each_package(self, look: Any) -> None:
        for key in ("activation", "create", "find", "first"):
            self.fail(self.manager, key)
        for number, package in enumerate(list(self.world.store), 1):
            self.counted("current", number)
            name = [""]
            try:
                self.method(package, "get_Id")
                self.method(package, "get_FullName")
                name[0] = package["name"]
                if any(one in package["name"].lower() for one in STORE_NAMES):
                    look(package)
            except StoreError as error:
                told = "Unknown expection occured" if error.code == faults.E_MEMORY else f"Exception {error.text}"
                self.say(f"{told} when enumerating info for {name[0]}")
            self.counted("next", number)

    def searching(self, error: StoreError, brackets: bool) -> None:
        if error.code == faults.E_MEMORY:
            self.say(f"Unknown expection occured {SEARCHING}")
        else:
            self.say(f"Exception {f'[{error.text}]' if brackets else error.text} {SEARCHING}")

    def store_version(self) -> tuple[int, ...]:
        versions: list[tuple[int, ...]] = []

        def look(package: dict[str, Any]) -> None:
            self.method(package, "get_Version")
            self.say(f"User has {package['name']} - version {package['version']}")
            for name in ("IPackage3", "get_Status", "VerifyIsOK"):
                self.method(package, name)
            if package.get("ok", True):
                versions.append(tuple(int(part) for part in package["version"].split(".")))
            else:
                self.say("\tThis version is disabled")

        try:
            self.each_package(look)
        except StoreError as error:
            self.searching(error, brackets=False)
            return 0, 0, 0, 0
        if not versions:
            self.say("UWP version is not installed")
        return max(versions, default=(0, 0, 0, 0))

    def remove_store(self) -> None:
        try:
            self.each_package(self._remove_package)
        except StoreError as error:
            self.searching(error, brackets=True)

    def _remove_package(self, package: dict[str, Any]) -> None:
        self.method(package, "get_Version")
        self.say(f"Remvoing {package['name']} - version {package['version']}")
        self.method(package, "RemovePackageAsync")
        told = package if self.disturbed else {}
        if package.get("completion") != "before":
            try:
                self.method(package, "put_Completed")
            except StoreError:
                self.world.unsure.add(package["name"])
                raise
        ending = told.get("removal_end", "completed")
        if ending == "canceled":
            raise StoreError(f"0x800704C7:{CANCELED}")
        if ending != "completed":
            raise StoreError(ending.removeprefix("error:"))
        refusal = StoreError(told["removal"]) if "removal" in told else None
        if refusal is None:
            self.world.store.remove(package)
        for name in ("GetResults", "get_ExtendedErrorCode", "get_ErrorText"):
            self.method(package, name)
        text = "" if refusal is None or refusal.text == "{any}" else refusal.text
        self.say(f"\t Result = {signed(refusal.code) if refusal else 0} {text}")

    def install_store(self) -> int:
        try:
            for key in ("activation", "default"):
                self.fail(self.service, key)
            window = str(self.service.get("window", "ok"))
            if window != "ok":
                self.say("Error: Unable to initialize with window.")
                return signed(StoreError(window).code)
            self.fail(self.service, "request")
            self._store_ends()
            for key in ("results", "overall"):
                self.fail(self.service, key)
            return 0 if int(self.service.get("state", 3)) == 3 else -1
        except StoreError as error:
            self.searching(error, brackets=True)
            return -1 if error.code == faults.E_MEMORY else signed(error.code)

    def _store_ends(self) -> None:
        ending = self.service.get("end", "completed")
        if ending == "canceled":
            raise StoreError(f"0x800704C7:{CANCELED}")
        if ending != "completed":
            raise StoreError(ending.removeprefix("error:"))
        if int(self.service.get("state", 3)) == 3 and "installs" in self.service:
            name, _, version = (part.strip() for part in self.service["installs"].partition("|"))
            same = name.partition("_")[0]
            self.world.store = [package for package in self.world.store if package["name"].partition("_")[0] != same]
            self.world.store.append({"name": name, "version": version})


CANCELED = "Operation canceled by user."


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


def outcomes(machine: Machine, world: World, arguments: str, fault: Fault | None = None) -> list[Outcome]:
    """What the run may come to. More than one only where it is left to the system: when the session's user is not known the
    extraction folder may be left as it is, and a program cannot be started in a folder that does not exist; and a removal
    that nobody waits for may be done before the next start or not at all."""
    if fault is None or not fault.function.startswith("wtsapi32"):
        first = Run(machine, world, arguments, fault).execute()
        return [first, *(_removed(first, name) for name in first.world.unsure)]
    return [Run(machine, world, arguments, fault, prepared=prepared, launched=launched).execute()
            for prepared, launched in ((True, True), (False, True), (False, False))]


def _removed(outcome: Outcome, name: str) -> Outcome:
    world = copy.deepcopy(outcome.world)
    world.store = [package for package in world.store if package["name"] != name]
    return dataclasses.replace(outcome, world=world)
