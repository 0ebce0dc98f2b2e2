"""A machine: described in one TOML file, put into a fresh prefix. README.md explains every key.

What a description leaves out is the common machine: one adapter of the maker with a driver of release 24.20, the desktop
edition of release 23.40, no Store package, and a download server that has the installer of every release.
"""
from __future__ import annotations

import copy
import dataclasses
import pathlib
import tomllib
from typing import Any

from lab import adapters, keys, paths, prefix as prefixes
from lab.hive import Hive
from lab.server import Answer

RELEASES = ("23.40", "24.10", "24.20")
SERVER_PATH = "/drivers/installer/vlt/"
DEFAULTS: dict[str, Any] = {
    "description": "",
    "adapters": [{}],
    "desktop": {"release": "23.40", "families": ["Halden"]},
    "store": {},
    "registry": {},
    "files": {},
    "remove": [],
    "read_only": [],
    "held": [],
    "sparse": "",
    "shared": [],
    "running": [],
    "programs": {},
    "installer": {},
    "faults": [],
    "standins": [],
    "server": {},
    "hosts": {},
    "temp": "",
    "disks": {},
    "largest_file": 0,
    "environment": {},
}
DESKTOP_KEYS = {"release", "families", "folder", "packages"}
STORE_KEYS = {"manager", "service", "packages"}
SERVER_KEYS = {"reach", "folder", "certificate", "tls", "also_plain", "answers"}
INFINITE = 0xFFFFFFFF
CLASSES = [rf"Software\Microsoft\WindowsRuntime\ActivatableClassId\{name}"
           for name in ("Windows.Management.Deployment.PackageManager", "Windows.Services.Store.StoreContext")]


def _word(value: Any) -> Any:
    """Quotes a text for the lab's text files."""
    return ("yes" if value else "no") if isinstance(value, bool) else value


@dataclasses.dataclass
class Server:
    """How the tool reaches the download server. reach: override (a registry value points to it), default (the maker's
    own address, which then leads here) or none (nothing listens, no override)."""
    reach: str = "override"
    folder: str = "http://{server}" + SERVER_PATH
    certificate: str = "good"
    tls: str = ""  # versions, "TLSv1.2 TLSv1.3", or "none": plain HTTP; without it the maker's address has TLS, others not
    also_plain: bool = False  # the maker's address answers on port 80 too
    answers: list[Answer] = dataclasses.field(default_factory=list)


class Machine:
    """A description that has been checked."""

    def __init__(self, description: dict[str, Any]):
        keys.check(description, DEFAULTS, "machine")
        self.data = {**copy.deepcopy(DEFAULTS), **copy.deepcopy(description)}
        self.products, self.folder = self._read_desktop(self.data["desktop"])
        self.adapters = [adapters.Adapter.of(item, number) for number, item in enumerate(self.data["adapters"], 1)]
        adapters.number_packages(self.adapters)
        if isinstance(self.data["store"], dict):
            keys.check(self.data["store"], STORE_KEYS, "store")
        self.server = self._read_server(self.data["server"])
        if self.data["hosts"] and self.server.reach != "none":
            raise ValueError('hosts: only with reach = "none", or the lab\'s own server would not be found')

    @staticmethod
    def load(path: pathlib.Path | str) -> "Machine":
        with open(path, "rb") as file:
            try:
                return Machine(tomllib.load(file))
            except (ValueError, TypeError) as error:
                raise ValueError(f"{path}: {error}") from None

    @staticmethod
    def _read_desktop(desktop: Any) -> tuple[tuple[str, ...], str]:
        if desktop is False:
            return (), ""
        keys.check(desktop, DESKTOP_KEYS, "desktop")
        desktop = {**DEFAULTS["desktop"], **desktop}
        packages = desktop.get("packages", [f"{family}-{desktop['release']}" for family in desktop["families"]])
        return tuple(packages), desktop.get("folder", "")

    @staticmethod
    def _read_server(table: Any) -> Server:
        keys.check(table, SERVER_KEYS, "server")
        server = Server(**{key: value for key, value in table.items() if key != "answers"})
        if server.reach not in ("override", "default", "none"):
            raise ValueError("server: reach is override, default or none")
        described = {f"{SERVER_PATH}{release}/dwx2_install.txt": release for release in RELEASES} | table.get("answers", {})
        server.answers = [Answer.of(path, description) for path, description in described.items()]
        return server

    @property
    def store_packages(self) -> list[str]:
        """Full names of the Store packages before the run."""
        store = self.data["store"]
        return [str(package.get("name", "")) for package in store.get("packages", [])] if store else []

    # Everything but the server's address is known before Wine starts.

    def template(self) -> pathlib.Path:
        return prefixes.template(self.products, self.folder)

    def install(self, prefix: prefixes.Prefix, server: str) -> tuple[list[dict[str, Any]], Hive]:
        """Writes the machine into a prefix that does not run yet. Returns the registry values for the watcher, and
        HKEY_LOCAL_MACHINE as it is now."""
        lab = prefix.drive / "lab"
        (lab / "standins").mkdir(parents=True)
        system, user = Hive(prefix.path / "system.reg"), Hive(prefix.path / "user.reg")
        for name in ("watcher.exe", "watcher_hook.dll"):
            prefixes.replace_file(lab / name, paths.need(paths.PROGRAMS / name).read_bytes())
        prefixes.replace_file(lab / paths.TOOL.name, paths.need(paths.TOOL).read_bytes())
        self._install_standins(prefix, user)
        late = []
        store_lines = []
        for adapter in self.adapters:
            late += adapter.late_values()
            store_lines += adapter.install_packages(prefix)
        (lab / "standins" / "driverstore.txt").write_text("".join(store_lines), "utf-8")
        self._install_store(lab, system)
        self._install_behaviour(lab)
        if self.server.reach == "override":
            system.set(r"Software\Tavik", "DWXServerFolder", self.server.folder.replace("{server}", server))
        if self.data["temp"]:
            prefix.windows_path(self.data["temp"]).mkdir(parents=True, exist_ok=True)
            for name in ("TMP", "TEMP"):
                user.set("Environment", name, self.data["temp"])
        late += self._install_registry(system, user)
        self._install_files(prefix, system, user)
        system.save()
        user.save()
        prefix.variables.update({name: str(value) for name, value in self.data["environment"].items()})
        return late, system

    def _install_standins(self, prefix: prefixes.Prefix, user: Hive) -> None:
        names = {"setupapi", *self.data["standins"], *(rule.split("!")[0].lower() for rule in self.data["faults"])} - {"winrt"}
        unknown = names - set(prefixes.STANDINS)
        if unknown:
            raise ValueError(f"faults, standins: there is no stand-in for {', '.join(sorted(unknown))}")
        for name in sorted(names):
            prefixes.install_standin(prefix, name, user)
        if self.data["faults"]:
            text = "".join(rule + "\n" for rule in self.data["faults"])
            (prefix.drive / "lab" / "standins" / "faults.txt").write_text(text, "utf-8")

    def _install_store(self, lab: pathlib.Path, system: Hive) -> None:
        store = self.data["store"]
        if store is False:
            for key in CLASSES:  # Wine 10 has a package manager of its own
                system.remove(key)
            return
        (lab / "standins" / "winrt.dll").write_bytes(paths.need(paths.STANDINS / "winrt.dll").read_bytes())
        (lab / "standins" / "store.txt").write_text(store_text(store), "utf-8")
        (lab / "standins" / "store-undisturbed.txt").write_text(store_text(undisturbed(store)), "utf-8")
        for key in CLASSES:
            system.set(key, "DllPath", r"C:\lab\standins\winrt.dll")

    def _install_behaviour(self, lab: pathlib.Path) -> None:
        keys.check(self.data["installer"], {"sleep", "exit", "extract"}, "installer")
        running = {path.rpartition("\\")[2] + ".stay": "forever" for path in self.data["running"]}
        sections = {"installer": self.data["installer"]}
        for name, value in {**running, **self.data["programs"]}.items():
            image, _, key = name.rpartition(".")
            keys.check({key: value}, {"deaf", "stay", "exit"}, f"programs, {image}")
            sections.setdefault(image, {})[key] = INFINITE if value == "forever" else int(value) if value is True else value
        text = "".join(f"[{title}]\r\n" + "".join(f"{key}={value}\r\n" for key, value in table.items())
                       for title, table in sections.items())
        (lab / "programs.ini").write_text(text, "ascii", newline="")

    def _install_registry(self, system: Hive, user: Hive) -> list[dict[str, Any]]:
        late = []
        for path, values in self.data["registry"].items():
            hive, key = self._hive(path, system, user)
            if not isinstance(values, dict):
                raise ValueError(f"registry: {path} needs a table of values")
            if key.lower().startswith((adapters.ENUM.lower(), adapters.CLASS.lower())):  # see watcher.h
                late += [adapters.late_value(key, name, value) for name, value in values.items()]
                continue
            hive.create(key)
            for name, value in values.items():
                hive.set(key, name, value)
        return late

    @staticmethod
    def _hive(path: str, system: Hive, user: Hive) -> tuple[Hive, str]:
        root, _, key = path.partition("\\")
        hives = {"HKLM": system, "HKEY_LOCAL_MACHINE": system, "HKCU": user, "HKEY_CURRENT_USER": user}
        if root not in hives:
            raise ValueError(f"{path}: a registry path begins with HKLM\\ or HKCU\\")
        return hives[root], key

    def _install_files(self, prefix: prefixes.Prefix, system: Hive, user: Hive) -> None:
        for path in self.data["remove"]:
            if path.startswith("HK"):
                path, _, name = path.partition("@")
                hive, key = self._hive(path.rstrip("\\"), system, user)
                hive.remove(key, name or None)
            else:
                target = prefix.windows_path(path)
                if target.is_dir():
                    for item in sorted(target.rglob("*"), reverse=True):
                        item.rmdir() if item.is_dir() else item.unlink()
                    target.rmdir()
                else:
                    target.unlink()
        for path, content in self.data["files"].items():
            if isinstance(content, dict) and set(content) <= {"link", "same"} and str(*content.values()).startswith("C:\\"):
                self._link(prefix.windows_path(path), prefix.windows_path(*content.values()), soft="link" in content)
            else:
                adapters.write_file(prefix.windows_path(path), content)
        for path in self.data["disks"]:
            prefix.windows_path(path).mkdir(parents=True, exist_ok=True)
        for path in self.data["read_only"]:
            prefix.windows_path(path).chmod(0o444)

    @staticmethod
    def _link(place: pathlib.Path, target: pathlib.Path, soft: bool) -> None:
        """Creates a symbolic link, or a second name of the same file, inside the machine."""
        place.parent.mkdir(parents=True, exist_ok=True)
        place.symlink_to(target) if soft else place.hardlink_to(target)


def store_text(store: dict[str, Any]) -> str:
    """The file store.txt."""
    sections = [("manager", store.get("manager", {})), *(("package", item) for item in store.get("packages", [])),
                ("store", store.get("service", {}))]
    lines = []
    for title, table in sections:
        lines.append(f"[{title}]\n")
        for key, value in table.items():
            for item in value if isinstance(value, list) else [value]:
                lines.append(f"{key} = {_word(item)}\n")
    return "".join(lines)


def undisturbed(store: dict[str, Any]) -> dict[str, Any]:
    """The same packages and answers, but nothing fails any more."""
    packages = [{key: value for key, value in package.items() if key in ("name", "version", "ok", "user", "completion")}
                for package in store.get("packages", [])]
    service = {key: value for key, value in store.get("service", {}).items() if key in ("installs", "completion")}
    return {"packages": packages, "service": service}


def merge(base: dict[str, Any], changes: dict[str, Any]) -> dict[str, Any]:
    """Tables are merged, everything else is replaced."""
    merged = copy.deepcopy(base)
    for key, value in changes.items():
        if isinstance(value, dict) and isinstance(merged.get(key), dict):
            merged[key] = merge(merged[key], value)
        else:
            merged[key] = copy.deepcopy(value)
    return merged
