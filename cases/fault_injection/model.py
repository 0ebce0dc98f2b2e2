"""What the tool does on a machine, also when one of its calls fails: the whole log, how it ends, what it leaves behind.

The model names the calls whose failure changes something, in their order. A call that it does not name may fail without any
consequence. The model was written independently of the program: where the two differ, one of them is wrong.
"""
from __future__ import annotations

import copy
import dataclasses

from cases.support import expect
from lab.machine import Machine
from cases.fault_injection.faults import REBOOT
from cases.fault_injection.installation import Installation
from cases.fault_injection.inventory import Inventory, Record
from cases.fault_injection.store import Store
from cases.fault_injection.world import Ending, Fault, World

QUIET_EXIT = 3  # an uncaught error


class Quiet(Exception):
    """An error that ends the process."""


class Model(Inventory, Installation, Store):
    """One start of the tool, from beginning to end."""

    def play(self) -> Ending:
        self.log += expect.opening(self.arguments)[:1]
        try:
            code = self._direct() if self.direct else self._check()
        except Quiet:
            code = QUIET_EXIT
        return Ending(code, self.log, self.boxes, self.calls, self.world, self._outcome(code))

    def _outcome(self, code: int) -> str:
        """The outcome of this run, derived from what has happened and not from the log."""
        if self.reason:
            return self.reason
        if not self.installations:
            return "quiet-end"
        main, *optional = self.installations
        if main != 0 and self.direct:
            return "direct-busy" if main == 1618 else "direct-failed"
        if main != 0:
            return {1618: "install-busy", 1603: "install-failed"}.get(main, "install-failed-other")
        if code == QUIET_EXIT:
            return "direct-no-location"
        kind = "direct" if self.direct else "repaired"
        if any(optional):
            return f"{kind}-optional-failed"
        if self.restart or any(one in REBOOT for one in self.removals):
            return f"{kind}-restart"
        if any(self.removals):
            return f"{kind}-old-left"
        if self.store_trouble:
            return f"{kind}-store-left"
        return "direct-done" if self.direct else kind

    def leave(self, line: str, box: tuple[str, str], reason: str = "") -> int:
        self.say(line)
        self.reason = reason or self.reason
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
            return self.leave("Unable to find installed Tavik display adapters. Exiting.", expect.NO_ADAPTER,
                              "no-usable-driver" if self.adapter_seen else "no-adapter")
        use_store = not self.related("Halden")
        if use_store:
            self.say("User does not desktop VLT installed.")
            found = self.store_version()
            if found == (0, 0, 0, 0):
                if not self.force:
                    return self.leave("User does not have VLT installed. Exiting.", expect.NOT_INSTALLED,
                                      "no-application-store-unread" if self.store_trouble else "no-application")
                self.say("User does not have VLT installed.")
            version = f"{found[1]}.{found[2]}"[:5]
        first = records[0]
        prefix = first.base[:5]
        if version.lower() in (first.base.lower(), prefix.lower()) or prefix.lower() == version[:5].lower():
            same = "Currently installed version of VLT is from the same release as the active driver."
            if not self.force:
                return self.leave(f"{same} Exiting.", expect.SAME_RELEASE, "same-release")
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


def endings(machine: Machine, world: World, arguments: str, fault: Fault | None = None) -> list[Ending]:
    """How the run may end. There are several only where the system decides: when the session's user is unknown, the extraction
    folder may be left as it is, and a program cannot be started in a folder that does not exist; and a removal that the tool
    does not wait for may be done before the next start or not at all."""
    if fault is None or not fault.function.startswith("wtsapi32"):
        first = Model(machine, world, arguments, fault).play()
        return [first, *(_removed(first, name) for name in first.world.unsure)]
    return [Model(machine, world, arguments, fault, prepared=prepared, launched=launched).play()
            for prepared, launched in ((True, True), (False, True), (False, False))]


def _removed(ending: Ending, name: str) -> Ending:
    world = copy.deepcopy(ending.world)
    world.store = [package for package in world.store if package["name"] != name]
    return dataclasses.replace(ending, world=world)
