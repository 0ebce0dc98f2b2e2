"""The Store: its packages, their removal, and the installation of the Store edition."""
from __future__ import annotations

from typing import Any

from cases.fault_injection import faults
from cases.fault_injection.world import ModelBase, signed

STORE_NAMES = ("taviksystemsinc-2.8f31d07a2b6e4", "taviksystemsinc-2.tavikcorvelsoftware")
SEARCHING = "when searching for UWP version of VLT"
CANCELED, CANCELED_CODE = "Operation canceled by user.", 0x800704C7


class StoreError(Exception):
    def __init__(self, failure: str):
        code, colon, text = failure.partition(":")
        super().__init__(failure)
        self.code = int(code, 16)
        self.text = text if colon else "{any}"


class Store(ModelBase):
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
                self.store_trouble = True
                told = "Unknown expection occured" if error.code == faults.E_MEMORY else f"Exception {error.text}"
                self.say(f"{told} when enumerating info for {name[0]}")
            self.counted("next", number)

    def searching(self, error: StoreError, brackets: bool) -> None:
        self.store_trouble = True
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
        self.store_trouble |= refusal is not None

    def install_store(self) -> int:
        self.reason = "store-installed"
        try:
            for key in ("activation", "default"):
                self.fail(self.service, key)
            window = str(self.service.get("window", "ok"))
            if window != "ok":
                self.say("Error: Unable to initialize with window.")
                self.reason = "store-no-window"
                return signed(StoreError(window).code)
            self.fail(self.service, "request")
            self._store_ends()
            for key in ("results", "overall"):
                self.fail(self.service, key)
            if int(self.service.get("state", 3)) == 3:
                return 0
            self.reason = "store-not-completed"
            return -1
        except StoreError as error:
            self.reason = "store-canceled" if error.code == CANCELED_CODE else "store-error"
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
