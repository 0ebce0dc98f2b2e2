"""The stand-ins themselves: a case may trust them. What fault rules do to calls is shown by the cases that use them."""
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


# The Windows Runtime component.

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


def removal(machine: Machine, *lines: str) -> list[str]:
    machine.write("standins/store.txt", "[package]", "name = One_1.2.3.4_x64", "version = 1.2.3.4", *lines)
    code, printed = machine.run("winrt_probe", "remove")
    assert code == 0
    return printed


def test_package_is_found_and_removed(machine: Machine):
    printed = removal(machine, "user = S-1-5-21-1", "[package]", "name = Two", "version = 5.6.7.65535", "ok = no", "keep = yes")
    assert [line for line in printed if line.startswith(("package:", "ok:", "result:"))] == [
        "package: One_1.2.3.4_x64 1.2.3.4", "ok: 1", "result: 0x00000000 [(null)]",
        "package: Two 5.6.7.65535", "ok: 0", "result: 0x00000000 [(null)]"]
    assert machine.lines("standins/store-state.txt") == ["Two"]
    record = machine.lines("standins/winrt-calls.txt")
    assert 'RemovePackageWithOptionsAsync name="One_1.2.3.4_x64"; options=0x80000; user="S-1-5-21-1" -> 0x0 thread=1' in record
    assert "unused slot IPackageManager.FindPackagesByUserSecurityId -> 0x80004001 thread=1" in record
    assert [line for line in record if "thread=" not in line] == ["handler released count=0"] * 2  # and nothing still held

    machine.run("winrt_probe", "query")  # the next process finds the machine as this one left it
    assert not any("One" in line for line in machine.lines("standins/winrt-calls.txt")[len(record):])


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


def test_operation_that_never_completes(machine: Machine):
    printed = removal(machine, "completion = never")
    assert "wait: 258" in printed
    assert "GetResults: 0x8000000E" in printed
    assert not (machine.folder / "store-state.txt").exists()


@pytest.mark.parametrize("line, printed", [
    ("removal = 0x80073CF1:Not there", "result: 0x80073CF1 [Not there]"),
    ("removal_end = canceled", "GetResults: 0x8000000E"),
    ("removal_end = error:0x80070005:denied",
     "GetResults: 0x80070005 description [denied] restricted 0x80070005 [(general description)] [denied]"),
    ("fail = get_Id:0x80004005", "get_Id: 0x80004005"),
    ("fail = get_FullName:0x80004005=plain", "get_FullName: 0x80004005 description [plain]"),
    ("fail = get_Version:0x80004005!0x80070005:text",
     "get_Version: 0x80004005 description [text] restricted 0x80070005 [(general description)] [text]"),
    ("fail = IPackage3:0x80004002", "IPackage3: 0x80004002"),
    ("fail = get_Status:0x80004005:general|", "get_Status: 0x80004005 description [general] restricted 0x80004005 [general] [(null)]"),
    ("fail = VerifyIsOK:0x80004005:a|b", "VerifyIsOK: 0x80004005 description [a] restricted 0x80004005 [a] [b]"),
    ("fail = RemovePackageAsync:0x80070005", "remove: 0x80070005"),
    ("fail = put_Completed:0x80070006", "put_Completed: 0x80070006"),
    ("fail = GetResults:0x80070007", "GetResults: 0x80070007"),
    ("fail = get_ErrorText:0x80070008", "get_ErrorText: 0x80070008"),
    ("fail = get_ExtendedErrorCode:0x80070009", "get_ExtendedErrorCode: 0x80070009"),
])
def test_failure_comes_as_described(machine: Machine, line: str, printed: str):
    assert printed in removal(machine, line)
    if "removal" in line:
        assert not (machine.folder / "store-state.txt").exists()  # the package stays


@pytest.mark.parametrize("line, printed", [
    ("create = 0x80004005", "ActivateInstance: 0x80004005"),
    ("find = 0x80070005:no", "FindPackages: 0x80070005 description [no] restricted 0x80070005 [(general description)] [no]"),
    ("first = 0x80004005", "First: 0x80004005"),
    ("next = 1:0x8000000B", "MoveNext: 0x8000000B"),
    ("current = 1:0x8000000B", "get_Current: 0x8000000B"),
    ("activation = 0x80040154:none",
     "activation: 0x80040154 description [none] restricted 0x80040154 [(general description)] [none]"),
    ("activation = mta", "activation: 0x800401F0"),
])
def test_enumeration_fails_as_described(machine: Machine, line: str, printed: str):
    machine.write("standins/store.txt", "[manager]", line, "[package]", "name = One", "version = 1.2.3.4")
    assert printed in machine.run("winrt_probe", "query")[1]


def test_apartment_makes_the_activation_work(machine: Machine):
    machine.write("standins/store.txt", "[manager]", "activation = mta")
    assert machine.run("winrt_probe", "query", "mta")[1][0] == "activation: 0x00000000"


def test_store_installs(machine: Machine):
    machine.write("standins/store.txt", "[store]", "installs = New_1 | 1.2.3.4")
    assert "state: 3" in machine.run("winrt_probe", "install")[1]
    assert machine.lines("standins/store-state.txt") == ["New_1"]
    record = machine.lines("standins/winrt-calls.txt")
    assert 'id "ID000000000A" thread=1' in record
    assert any(re.fullmatch(r'Initialize hwnd=0x[0-9A-F]+; window=yes; title="" -> 0x0 thread=1', line) for line in record)


@pytest.mark.parametrize("lines, printed", [
    (["default = 0x80004005"], "GetDefault: 0x80004005"),
    (["window = missing"], "IInitializeWithWindow: 0x80004002"),
    (["window = 0x80070578"], "Initialize: 0x80070578"),
    (["context3 = no"], "IStoreContext3: 0x80004002"),
    (["request = 0x80070005"], "request: 0x80070005"),
    (["state = 8"], "state: 8"),
    (["end = canceled"], "status: 2, own thread: no"),
    (["end = error:0x80070005"], "GetResults: 0x80070005"),
    (["results = 0x80004005"], "GetResults: 0x80004005"),
    (["overall = 0x80004005"], "get_OverallState: 0x80004005"),
    (["walk = getmany", "read = late"], "state: 3"),
])
def test_store_answers_as_described(machine: Machine, lines: list[str], printed: str):
    machine.write("standins/store.txt", "[store]", *lines)
    assert printed in machine.run("winrt_probe", "install")[1]


def test_list_can_be_read_late_and_in_one_go(machine: Machine):
    machine.write("standins/store.txt", "[store]", "walk = getmany", "read = late")
    machine.run("winrt_probe", "install")
    record = machine.lines("standins/winrt-calls.txt")
    returned = next(i for i, line in enumerate(record) if line.startswith("DownloadAndInstallStorePackagesAsync"))
    read = record.index('id "ID000000000A" thread=2')
    assert read > returned
    assert "list GetMany count=0 -> 0x0 thread=2" in record  # past the end


@pytest.mark.parametrize("line", ["rubbish", "[stoer]", "colour = red", "version = 1.2.3", "fail = get_Ip:0x80004005"])
def test_line_that_cannot_be_understood_stops_everything(machine: Machine, line: str):
    machine.write("standins/store.txt", "[package]", line)
    assert machine.run("winrt_probe", "query")[1] == ["activation: 0x8007000D"]
    assert machine.lines("standins/winrt-calls.txt")[0].startswith("!bad line 2 of store.txt: ")


@pytest.mark.parametrize("rule", ["winrt!FindPackages 1", "winrt!FindPackages 0 exit=9", "winrt!FindPackages 1 error=9",
                                  "winrt!FindPackages 1 exit=nine", "winrt!FindPackages 1 exit=9 crash=9"])
def test_rule_of_the_component_that_cannot_be_understood_is_reported(machine: Machine, rule: str):
    machine.write("standins/faults.txt", "# comment", rule)
    machine.run("winrt_probe", "query")
    assert machine.lines("standins/winrt-calls.txt")[0] == "!bad rule in line 2"


def test_rule_of_the_component_ends_the_process(machine: Machine):
    """At the second line that has the word, not at one that has it further on."""
    machine.write("standins/store.txt", "[package]", "name = MoveNext_1", "version = 1.2.3.4", "[package]", "name = Two_1")
    machine.write("standins/faults.txt", "winrt!MoveNext 2 exit=77")
    assert machine.run("winrt_probe", "query")[0] == 77
    lines = [line.split(" ")[0] for line in machine.lines("standins/winrt-calls.txt")]
    assert lines.count("MoveNext") == 2 and lines[-1] == "MoveNext"
