"""The stand-ins work as the cases expect. The effect of fault rules is shown by the cases that use them."""
from __future__ import annotations

import os
import re

import pefile
import pytest

from lab import paths
from lab.hive import Hive
from lab.machine import CLASSES
from lab.prefix import STANDINS, Prefix, template


@pytest.mark.parametrize("name", STANDINS)
def test_every_export_of_the_real_dll_is_offered(name: str):
    """By name or number, as the stand-in's own function or as a forward to the real one."""
    real, standin = ({symbol.ordinal: symbol for symbol in pefile.PE(str(folder / f"{name}.dll")).DIRECTORY_ENTRY_EXPORT.symbols}
                     for folder in (paths.WINE_DLLS, paths.STANDINS))
    assert {number: symbol.name for number, symbol in real.items()}.items() <= {number: symbol.name for number, symbol in standin.items()}.items()
    source = (paths.ROOT / "lab" / "standins" / f"{name}.cpp").read_text("utf-8")
    own = {symbol.name.decode() for symbol in standin.values() if symbol.forwarder is None}
    assert own == set(re.findall(r"^\w.*\bLab_(\w+)\(", source, re.MULTILINE))
    assert all(symbol.forwarder in (None, b"%s_lab.%s" % (name.encode(), symbol.name or b"#%d" % number))
               for number, symbol in standin.items())


# The Windows Runtime component. The cases show its answers: each one leads to another log of the tool.

class Machine:
    """A prefix with the component and the program that calls it."""

    def __init__(self, prefix: Prefix):
        self.prefix = prefix
        self.lab = prefix.drive / "lab"
        self.folder = self.lab / "standins"
        self.folder.mkdir(parents=True, exist_ok=True)
        system = Hive(prefix.path / "system.reg")
        for name in CLASSES:
            system.set(rf"Software\Microsoft\WindowsRuntime\ActivatableClassId\{name}", "DllPath", r"C:\lab\standins\winrt.dll")
        system.save()
        (self.folder / "winrt.dll").write_bytes(paths.need(paths.STANDINS / "winrt.dll").read_bytes())
        (self.lab / "winrt_probe.exe").write_bytes(paths.need(paths.PROGRAMS / "winrt_probe.exe").read_bytes())
        prefix.start()
        prefix.wine("wineboot")

    def fresh(self) -> "Machine":
        for file in self.folder.glob("*.txt"):
            file.unlink()
        return self

    def write(self, name: str, *lines: str) -> None:
        (self.lab / name).write_text("".join(f"{line}\n" for line in lines), "utf-8")

    def lines(self, name: str) -> list[str]:
        file = self.lab / name
        return file.read_text("utf-8").splitlines() if file.exists() else []

    def run(self, program: str, *arguments: str) -> tuple[int, list[str]]:
        """Low 8 bits of the exit code, and what the probe printed."""
        output = self.prefix.path / "output.txt"
        output.unlink(missing_ok=True)
        code = self.prefix.wine(rf"C:\lab\{program}.exe", *arguments, output=output)
        return code, output.read_text("utf-8", "replace").splitlines()


@pytest.fixture(scope="module")
def prepared():
    paths.RUNS.mkdir(parents=True, exist_ok=True)
    path = paths.RUNS / f"standins-{os.getpid()}"
    with Prefix.copy(template(), path) as prefix:
        yield Machine(prefix)


@pytest.fixture
def machine(prepared: Machine) -> Machine:
    return prepared.fresh()


def removal(machine: Machine, *lines: str, arguments: tuple[str, ...] = ()) -> list[str]:
    machine.write("standins/store.txt", "[package]", "name = One_1.2.3.4_x64", "version = 1.2.3.4", *lines)
    code, printed = machine.run("winrt_probe", *arguments)
    assert code == 0
    return printed


@pytest.mark.parametrize("completion, early, inside, own_thread", [
    ("before", False, None, None),
    ("inside", True, "yes", "yes"),
    ("thread", True, "yes", "no"),
    ("later:60", True, "no", "no"),
])
def test_operation_completes_when_it_is_told_to(machine: Machine, completion: str, early: bool, inside: str, own_thread: str):
    printed = removal(machine, f"completion = {completion}")
    assert ("status: 0" in printed) == early
    if early:
        for line in ("early results: 0x8000000E", "handler that is not agile: 0x8000001C", "second put_Completed: 0x80000018",
                     f"called inside: {inside}", f"status: 1, own thread: {own_thread}"):
            assert line in printed
    assert "GetResults: 0x00000000" in printed
    assert machine.lines("standins/store-state.txt") == []  # the package is gone
    assert (machine.folder / "store-state.txt").exists()


@pytest.mark.parametrize("arguments, kept", [
    ((), ["handler released count=0"]), (("leak",), ["handler released count=1", "still held: Package refs=1"])])
def test_wrong_slot_and_objects_that_are_kept_are_recorded(machine: Machine, arguments: tuple[str, ...], kept: list[str]):
    removal(machine, arguments=arguments)
    record = machine.lines("standins/winrt-calls.txt")
    assert "unused slot IPackageManager.FindPackagesByUserSecurityId -> 0x80004001 thread=1" in record
    assert [line for line in record if "thread=" not in line] == kept


@pytest.mark.parametrize("line", ["rubbish", "[stoer]", "colour = red", "version = 1.2.3", "fail = get_Ip:0x80004005"])
def test_line_that_cannot_be_understood_stops_everything(machine: Machine, line: str):
    machine.write("standins/store.txt", "[package]", line)
    assert machine.run("winrt_probe")[1] == ["activation: 0x8007000D"]
    assert machine.lines("standins/winrt-calls.txt")[0].startswith("!bad line 2 of store.txt: ")


@pytest.mark.parametrize("rule", ["winrt!FindPackages 1", "winrt!FindPackages 0 exit=9", "winrt!FindPackages 1 error=9",
                                  "winrt!FindPackages 1 exit=nine", "winrt!FindPackages 1 exit=9 crash=9"])
def test_rule_of_the_component_that_cannot_be_understood_is_reported(machine: Machine, rule: str):
    machine.write("standins/faults.txt", "# comment", rule)
    machine.run("winrt_probe")
    assert machine.lines("standins/winrt-calls.txt")[0] == "!bad rule in line 2"


def test_rule_of_the_component_ends_the_process(machine: Machine):
    """At the second line that has the word among its first two words; a later place in the line does not count."""
    machine.write("standins/store.txt", "[package]", "name = MoveNext_1", "version = 1.2.3.4", "[package]", "name = Two_1")
    machine.write("standins/faults.txt", "winrt!MoveNext 2 exit=77")
    assert machine.run("winrt_probe")[0] == 77
    lines = [line.split(" ")[0] for line in machine.lines("standins/winrt-calls.txt")]
    assert lines.count("MoveNext") == 2 and lines[-1] == "MoveNext"
