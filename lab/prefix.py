#!/usr/bin/python3
"""Wine prefixes: a template built once, copies of it in a tenth of a second, and everything that runs in a copy.

    lab/prefix.py template            build (or find) the template and print where it is
    lab/prefix.py new FOLDER          make a warm prefix: its server runs until "remove"
    lab/prefix.py remove FOLDER       end everything in it and remove it

The recipe: stripped system DLLs (a quarter of the size), Windows 10 (TAVIK_WINDOWS=win11: 11), no crash dialog, no links out of the prefix.
"""
from __future__ import annotations

import contextlib
import fcntl
import functools
import hashlib
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import time
from typing import Callable

if __package__ in (None, ""):
    sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))

from lab import certificates, paths  # noqa: E402
from lab.children import command, end_with_parent  # noqa: E402
from lab.hive import Hive  # noqa: E402

RECIPE = "9"  # raise it when the steps below change
WINDOWS = os.environ.get("TAVIK_WINDOWS", "win10")  # the version that Wine plays, as winecfg names it
LINKED = ("system32", "winsxs", "resources", "globalization")  # shared by hard links, replaced but never written in place
STANDINS = ("setupapi", "msi", "wininet", "wtsapi32")
UNUSED_SECONDS = 2 * 24 * 3600  # a template that was not used for so long is removed
BUILTIN_MARK = b"Wine builtin DLL"
OVERRIDES = tuple(rf"Software\Wine\AppDefaults\{name}\DllOverrides" for name in (paths.TOOL.name, paths.COMPANION.name))
# Nothing here has a mouse, a game pad or a scanner; a server without these is up in half the time.
UNUSED_SERVICES = ("winebus", "winehid", "wineusb", "PlugPlay", "StiSvc", "Spooler", "wuauserv", "BITS", "FontCache",
                   "Schedule", "TermService", "LanmanServer", "Eventlog", "Winmgmt", "NDIS", "nsiproxy", "HTTP")
NOT_INSTALLED = "mscoree,mshtml=;winemenubuilder.exe=d"  # Wine would offer to download them, or write into this host's menus
# In place of two fonts of Windows. The first is about as narrow and low, so the status window has about its size and the banner its
# shape; the second has the signs of the progress dots.
FONTS = {"Segoe MDL2 Assets": "Liberation Sans Narrow", "Segoe UI": "DejaVu Sans"}
CAPTION_SIGNS = pathlib.Path("/usr/share/wine/fonts/marlett.ttf")  # Debian's Wine does not look there; without it a box is closed by an "r"


@functools.cache
def wine_version() -> int:
    """8 or 10, for example."""
    return int(re.match(r"wine-(\d+)", command(paths.WINE, "--version"))[1])


def server_place(tmp: pathlib.Path) -> pathlib.Path:
    """Where Wine's server makes the folder with its socket. Debian's Wine 10 crashes at once when TMPDIR is set."""
    return tmp if wine_version() < 10 else pathlib.Path("/tmp")


def environment(prefix: pathlib.Path, tmp: pathlib.Path, **extra: str) -> dict[str, str]:
    """The same for every run: no proxies, no language, no time zone of the user who starts it. No console is shown either: a host
    for each of taskkill's took a fifth of the processor time of a repair."""
    return {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": os.environ.get("HOME", "/root"), "LANG": "C.UTF-8", "TZ": "UTC",
            "WINEPREFIX": str(prefix), "WINEARCH": "win64", "WINEDEBUG": "-all",
            "WINEDLLOVERRIDES": f"{NOT_INSTALLED};conhost.exe=d", **({"TMPDIR": str(tmp)} if server_place(tmp) == tmp else {}), **extra}


def processes_of(prefix: pathlib.Path) -> list[int]:
    """Every process that was started with this prefix."""
    mark = b"WINEPREFIX=" + os.fsencode(str(prefix)) + b"\0"
    found = []
    for entry in os.listdir("/proc"):
        if entry.isdigit():
            with contextlib.suppress(OSError):
                if mark in pathlib.Path("/proc", entry, "environ").read_bytes():
                    found.append(int(entry))
    return found


class Prefix:
    """One prefix and the server that runs in it."""

    def __init__(self, path: pathlib.Path, tmp: pathlib.Path | None = None):
        self.path = path.resolve()
        self.tmp = tmp or self.path.with_name(self.path.name + ".tmp")
        self.drive = self.path / "drive_c"
        self.server: subprocess.Popen[bytes] | None = None
        self.variables: dict[str, str] = {}
        self.launcher: tuple[str, ...] = ()  # command line in front of the server's

    @classmethod
    def copy(cls, template: pathlib.Path, path: pathlib.Path) -> "Prefix":
        prefix = cls(path)
        windows = prefix.drive / "windows"
        windows.mkdir(parents=True)
        prefix.tmp.mkdir(exist_ok=True)
        shutil.copytree(template / "dosdevices", prefix.path / "dosdevices", symlinks=True)
        for file in [*template.glob("*.reg"), template / ".update-timestamp"]:
            shutil.copy2(file, prefix.path)
        for folder in (template / "drive_c").iterdir():
            if folder.name != "windows":
                shutil.copytree(folder, prefix.drive / folder.name, symlinks=True)
        linked = []
        for item in (template / "drive_c" / "windows").iterdir():
            if item.name in LINKED:
                linked.append(str(item))
            elif item.is_dir():
                shutil.copytree(item, windows / item.name, symlinks=True)
            else:
                shutil.copy2(item, windows)
        command("cp", "-al", *linked, str(windows))
        return prefix

    def environment(self) -> dict[str, str]:
        return environment(self.path, self.tmp, **self.variables)

    def windows_path(self, path: str) -> pathlib.Path:
        """The Unix file of C:\\..., whatever the case of its letters. What does not exist keeps the spelling given."""
        drive, _, rest = path.partition(":")
        if drive.lower() != "c":
            raise ValueError(f"{path}: only paths on drive C: are part of a machine")
        current = self.drive
        for part in rest.replace("/", "\\").strip("\\").split("\\"):
            exact = current / part
            if part and not exact.exists() and current.is_dir():
                same = [entry for entry in current.iterdir() if entry.name.lower() == part.lower()]
                exact = same[0] if same else exact
            current = exact
        return current

    def start(self, outlives_us: bool = False) -> None:
        """The server stays in the foreground as our own child, so that it can be ended in an instant.

        It must listen before the first program starts, which would otherwise start a server of its own.
        """
        self.server = subprocess.Popen([*self.launcher, paths.WINESERVER, "-f", "-p"], env=self.environment(), stdin=subprocess.DEVNULL,
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True,
                                       preexec_fn=None if outlives_us else end_with_parent)
        name, place = self.path / "wineserver", server_place(self.tmp)  # the file contains the name of the folder that has the socket
        for _ in range(2000):
            with contextlib.suppress(OSError):
                if any((place / name.read_text("ascii")).glob("server-*/socket")):
                    return
            if self.server.poll() is not None:
                break
            time.sleep(0.005)
        raise RuntimeError(f"the Wine server of {self.path} does not come up: run again, or check \"{paths.WINESERVER} --version\"")

    def wine(self, *arguments: str, output: pathlib.Path | None = None, timeout: float = 60,
             launcher: tuple[str, ...] = ()) -> int:
        """Runs a program to its end. Output goes to a file: background services inherit it and would hold a pipe open."""
        with open(output or os.devnull, "ab") as file:
            return subprocess.run([*launcher, paths.WINE, *arguments], env=self.environment(), stdin=subprocess.DEVNULL,
                                  stdout=file, stderr=file, timeout=timeout).returncode

    def stop(self) -> None:
        """The server writes the registry when it is asked to end, but its clients would linger."""
        ended = False
        if self.server is not None:
            ended = self.server.poll() is not None
            self.server.send_signal(signal.SIGTERM)
            try:
                self.server.wait(10)
            except subprocess.TimeoutExpired:
                self.server.kill()
                self.server.wait()
            self.server = None
        for _ in range(50):
            left = processes_of(self.path)
            if not left:
                break
            for process in left:
                with contextlib.suppress(ProcessLookupError):
                    os.kill(process, signal.SIGKILL)
            time.sleep(0.01)
        if ended:  # then the registry has not been written
            raise RuntimeError(f"the Wine server of {self.path} ended too early: run again")

    def remove(self) -> None:
        self.stop()
        shutil.rmtree(self.path, ignore_errors=True)
        shutil.rmtree(self.tmp, ignore_errors=True)

    def __enter__(self) -> "Prefix":
        return self

    def __exit__(self, *_: object) -> None:
        self.remove()


def replace_file(path: pathlib.Path, data: bytes) -> None:
    """For files that may be hard links into a template."""
    path.unlink(missing_ok=True)
    path.write_bytes(data)


def install_standin(prefix: Prefix, name: str, user: Hive) -> None:
    """Puts a stand-in under the DLL's name into system32, the real one beside it. Only the tool and the companion load the stand-in."""
    system = prefix.drive / "windows" / "system32"
    real = (system / f"{name}.dll").read_bytes()
    at = real.find(BUILTIN_MARK, 0, 0x100)
    if at >= 0:  # remove the mark, or Wine loads its own DLL instead of this file
        real = real[:at] + bytes(len(BUILTIN_MARK)) + real[at + len(BUILTIN_MARK):]
    replace_file(system / f"{name}_lab.dll", real)
    replace_file(system / f"{name}.dll", paths.need(paths.STANDINS / f"{name}.dll").read_bytes())
    for key in OVERRIDES:
        user.set(key, name, "native,builtin")
    user.set(r"Software\Wine\DllOverrides", name, "builtin")


def made_once(name: str, digest: str, make: Callable[[pathlib.Path], None]) -> pathlib.Path:
    """The template of that name and content, made if it is not there yet.

    Several workers may want it at once, so one makes it while the others wait, and it gets its name when it is complete.
    Different content has a different name, so a copy of the older template in progress is not disturbed.
    """
    folder = paths.TEMPLATES / f"{name}-{digest[:10]}"
    if not folder.exists():
        paths.TEMPLATES.mkdir(parents=True, exist_ok=True)
        with open(paths.TEMPLATES / "lock", "w", encoding="ascii") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            if not folder.exists():
                part = paths.TEMPLATES / f"{folder.name}.part"
                shutil.rmtree(part, ignore_errors=True)
                make(part)
                _forget_old_ones()
                part.rename(folder)
    os.utime(folder)
    return folder


def _forget_old_ones() -> None:
    for folder in paths.TEMPLATES.iterdir():
        if folder.is_dir() and time.time() - folder.stat().st_mtime > UNUSED_SECONDS:
            shutil.rmtree(folder, ignore_errors=True)


def _build_base(folder: pathlib.Path) -> None:
    prefix = Prefix(folder)
    prefix.path.mkdir(parents=True)
    prefix.tmp.mkdir(exist_ok=True)
    try:
        for arguments in (["wineboot", "-i"], ["winecfg", "-v", WINDOWS]):
            prefix.wine(*arguments, timeout=120)
        subprocess.run([paths.WINESERVER, "-k"], env=prefix.environment(), check=False)
        subprocess.run([paths.WINESERVER, "-w"], env=prefix.environment(), check=False, timeout=60)
    finally:
        prefix.stop()
        shutil.rmtree(prefix.tmp, ignore_errors=True)
    (prefix.path / "wineserver").unlink(missing_ok=True)
    for windows in ("system32", "winsxs"):
        files = [str(file) for file in (prefix.drive / "windows" / windows).rglob("*")
                 if file.is_file() and file.stat().st_size > 16384]
        subprocess.run(["x86_64-w64-mingw32-strip", *files], stderr=subprocess.DEVNULL, check=False)
    for user in (prefix.drive / "users").iterdir():
        for link in [item for item in user.iterdir() if item.is_symlink()]:
            link.unlink()
            link.mkdir()
    if CAPTION_SIGNS.exists():
        shutil.copy(CAPTION_SIGNS, prefix.drive / "windows" / "Fonts")
    user = Hive(prefix.path / "user.reg")
    user.set(r"Software\Wine\Drivers", "Graphics", "null")
    user.set(r"Software\Wine\X11 Driver", "Managed", "N")
    user.set(r"Software\Wine\WineDbg", "ShowCrashDialog", 0)
    for font, instead in FONTS.items():
        user.set(r"Software\Wine\Fonts\Replacements", font, instead)
    user.set(*certificates.registry_value())
    user.save()
    system = Hive(prefix.path / "system.reg")
    for service in UNUSED_SERVICES:
        key = rf"System\CurrentControlSet\Services\{service}"
        if system.values(key) is not None:
            system.set(key, "Start", 4)
    system.save()


@functools.cache
def base_template() -> pathlib.Path:
    version = command(paths.WINE, "--version").strip()
    digest = hashlib.sha256(f"{RECIPE} {version} {WINDOWS} {certificates.fingerprint()}".encode()).hexdigest()
    return made_once("base", digest, _build_base)


def product_file(product: str) -> pathlib.Path:
    return paths.need(paths.PACKAGES / f"{product}.msi")


def template(products: tuple[str, ...] = (), folder: str = "") -> pathlib.Path:
    """The template with these products (names of packages, such as Halden-23.40) installed, into that folder if given."""
    base = base_template()
    if not products:
        return base
    digest = hashlib.sha256(base.name.encode())
    for product in products:
        digest.update(product_file(product).read_bytes())
    digest.update(folder.encode())
    return made_once("+".join(products), digest.hexdigest(), lambda made: _install(base, made, products, folder))


def _install(base: pathlib.Path, made: pathlib.Path, products: tuple[str, ...], folder: str) -> None:
    prefix = Prefix.copy(base, made)
    prefix.start()
    try:
        source = prefix.drive / "lab-packages"
        source.mkdir()
        for product in products:
            shutil.copy(product_file(product), source)
            install = ["msiexec", "/i", rf"C:\lab-packages\{product}.msi", "/qn"]
            if folder:  # quoted as a person types it: Wine 10 refuses quotes around the property's name
                (source / "install.bat").write_text(f'{" ".join(install)} INSTALLDIR="{folder}"\r\n', "utf-8")
                install = ["cmd", "/c", r"C:\lab-packages\install.bat"]
            code = prefix.wine(*install)
            if code not in (0, 3010 & 0xFF):  # a Unix exit code keeps the low 8 bits
                raise RuntimeError(f"package {product} cannot be installed: msiexec ended with exit code {code}")
        shutil.rmtree(source)
    finally:
        prefix.stop()
        shutil.rmtree(prefix.tmp, ignore_errors=True)
    (prefix.path / "wineserver").unlink(missing_ok=True)


def main(arguments: list[str]) -> int:
    if arguments == ["template"]:
        print(template())
        return 0
    if len(arguments) == 2 and arguments[0] in ("new", "remove"):
        folder = pathlib.Path(arguments[1])
        if arguments[0] == "remove":
            Prefix(folder).remove()
            return 0
        prefix = Prefix.copy(template(), folder)
        prefix.start(outlives_us=True)
        prefix.wine("wineboot")
        return 0
    print(__doc__, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
