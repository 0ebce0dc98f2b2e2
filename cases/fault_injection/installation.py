"""The download, and the installation: Windows Installer's products, the extraction, what is stopped, removed and installed."""
from __future__ import annotations

import math

from cases.support import expect
from lab import paths
from lab.machine import SERVER_PATH
from cases.fault_injection import faults
from cases.fault_injection.world import Product, Start

FAMILIES = ("Halden", "DVR", "PXL")
REBOOT = (1641, 3010, 3011)
NO_MORE, NOT_FOUND = 259, 2
BLOCK = 0x100000  # of the download
LP = r"{temp}Tavik_VLTInstallerDownload\LPInstaller"
PACKAGE_FILES = {"Halden": r"\HL\halden\halden64\dwx-next64.msi", "DVR": r"\HL\tavikdvr\tavikdvr64\tavikdvr64.msi",
                 "PXL": r"\HL\pxl64\PXL64.msi"}


class Installation(Start):
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
            self.reason = "download-bad-address"
            return ""
        if self.call("wininet!InternetOpenW") is not None:
            self.say(thrown("Unable to open internet connection"))
            self.reason = "download-error"
            return ""
        if self.call("wininet!InternetConnectW") is not None:
            self.call("wininet!InternetCloseHandle")
            self.say(thrown("Unable to connect to server"))
            self.reason = "download-bad-address"
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
            self.reason = "download-error"
            return 2, ""
        sent = self.call("wininet!HttpSendRequestW")
        if sent is None and self.machine.server.reach == "none":
            sent = 12007  # there is no such host here
        if sent is not None:
            self.say(f"Unable to call HttpSendRequest to {url}. Error {sent}")
            self.reason = "download-unreachable"
            return 3, ""
        code = self.call("wininet!HttpQueryInfoW")
        if code is not None:
            self.say(f"Unable to create query response code from {url}. Error code: {code} {{any}}")
            self.reason = "download-error"
            return 3, ""
        self.say("Response code from server: 200")
        size = (paths.PACKAGES / f"installer-{release}.exe").stat().st_size
        for _ in range(math.ceil(size / BLOCK) + 1):
            code = self.call("wininet!InternetReadFile")
            self.reason = "download-broken" if code is not None else ""
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
            self.reason = ("direct-" if self.direct else "") + ("installer-empty" if self.launched else "installer-blocked")
            return NOT_FOUND
        installed = {family: self.related(family) for family in FAMILIES}
        folder = self.world.folder + "\\" if self.world.folder and self.world.location else ""
        self._stop()
        for family in FAMILIES:
            for product in installed[family]:
                self.say(rf"Uninstalling installed {family} C:\windows\Installer\{{any}}.msi")
                self.removals.append(self._remove(product))
                self.say(f"\tResult = {self.removals[-1]}")
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
            self.restart = True
            code = 0
        self.installations.append(code)
        self.say(f"\tResult = {code}")
        return code
