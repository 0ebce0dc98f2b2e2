"""The download, and the installation: Windows Installer's products, the extraction, what is stopped, removed and installed."""
from __future__ import annotations

import math

from cases.support import expect
from cases.support.repair import FAMILIES, PACKAGES
from lab import paths
from lab.machine import SERVER_PATH
from cases.fault_injection import faults
from cases.fault_injection.world import ModelBase, Product

NO_MORE, NOT_FOUND = 259, 2
BLOCK = 0x100000  # of the download
DOWNLOAD_ERROR = "\tException occured during the download of dwx2_install.exe. "
# The calls of a download in order, the log line when one fails, and the outcome of that run.
DOWNLOAD = (
    ("InternetCrackUrlW", "Unable to crack URL: {url}. Error = {code}", "download-bad-address"),
    ("InternetOpenW", DOWNLOAD_ERROR + "Unable to open internet connection: {any}", "download-error"),
    ("InternetConnectW", DOWNLOAD_ERROR + "Unable to connect to server: {any}", "download-bad-address"),
    ("HttpOpenRequestW", "Unable to call HttpOpenRequest to {url}. Error {code}", "download-error"),
    ("HttpSendRequestW", "Unable to call HttpSendRequest to {url}. Error {code}", "download-unreachable"),
    ("HttpQueryInfoW", "Unable to create query response code from {url}. Error code: {code} {any}", "download-error"),
)


class Installation(ModelBase):
    def download(self, release: str) -> str:
        """The installer's kind, or nothing."""
        reach = self.machine.server.reach
        if reach == "override":
            self.say(f"Change server to http://{{server}}{SERVER_PATH}.")
        address = "http://{server}" if reach == "override" else "https://{any}"
        for function, line, reason in DOWNLOAD:
            code = self.call(f"wininet!{function}")
            if function == "HttpSendRequestW" and code is None and reach == "none":
                code = 12007  # the host name does not exist here
            if code is not None:
                url = f"{address}{SERVER_PATH}{release}/dwx2_install.txt"
                self.say(line.replace("{url}", url).replace("{code}", str(code)))
                self.reason = reason
                return ""
        self.say("Response code from server: 200")
        return self._read_body(release)

    def _read_body(self, release: str) -> str:
        size = (paths.PACKAGES / f"installer-{release}.exe").stat().st_size
        for _ in range(math.ceil(size / BLOCK) + 1):
            code = self.call("wininet!InternetReadFile")
            if code is None:
                continue
            self.reason = "download-broken"
            if code == faults.EXTENDED:
                for _ in range(2):
                    self.call("wininet!InternetGetLastResponseInfoW")
                self.say("Unable to read file from internet. Extended error code: {number} {any}")
            else:
                self.say(f"Download failed with error code: {code} {{any}}")
            return ""
        self.say(f"Completed download. Total bytes downloaded: {size}")
        return release

    # Installing

    def related(self, family: str) -> list[Product]:
        """The products of a family whose package is known. Only the code for the end of the list stops the loop."""
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
        self._prepare_folder()
        if self.launched:
            self.say(expect.unpack(installer))
            self.world.unpacked = True
        else:
            self.say(expect.not_started(installer))
        if not self.world.unpacked:
            self.say(f"Unable to find {expect.UNPACKED}{PACKAGES['Halden']}.")
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
            self.call("wtsapi32!WTSQuerySessionInformationW")
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
            return "{number}"  # already removed
        self.world.products.remove(product)
        if product.family == "Halden":
            self.world.version = ""
        return code if code is not None else 3010 if product.kind == "reboot" else 0

    def _install(self, family: str, release: str, variant: str, folder: str) -> int:
        path = expect.UNPACKED + PACKAGES[family]
        self.say(f"Installing {path}")
        if folder:
            self.say(f"Using custom install directory {folder}")
        code = self.call("msi!MsiInstallProductW")
        if code is None or self.fault.after:
            product = Product(family, release, variant or "normal")
            if product.name not in [one.name for one in self.world.products]:  # installing the same product again adds none
                self.world.products.append(product)
            if family == "Halden":
                self.world.version = release
            code = code if code is not None else 3010 if variant == "reboot" else 0
        if code in faults.REBOOT:
            self.say(f"System reboot may be required for {path}.")
            self.restart = True
            code = 0
        self.installations.append(code)
        self.say(f"\tResult = {code}")
        return code
