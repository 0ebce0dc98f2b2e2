"""The stand-ins themselves, called by small programs instead of the tool: a case may trust them."""
from __future__ import annotations

import functools
import os
import re
import time

import pytest

from lab import paths
from lab.hive import Hive
from lab.prefix import STANDINS, Prefix, install_standin, template

RUNTIME_CLASSES = r"Software\Microsoft\WindowsRuntime\ActivatableClassId"
CLASSES = ("Windows.Management.Deployment.PackageManager", "Windows.Services.Store.StoreContext")


class Machine:
    """A prefix with every stand-in, and the probes."""

    def __init__(self, prefix: Prefix):
        self.prefix = prefix
        self.lab = prefix.drive / "lab"
        self.folder = self.lab / "standins"
        self.folder.mkdir(parents=True, exist_ok=True)
        user = Hive(prefix.path / "user.reg")
        for name in STANDINS:
            install_standin(prefix, name, user)
        user.save()
        system = Hive(prefix.path / "system.reg")
        for name in CLASSES:
            system.set(rf"{RUNTIME_CLASSES}\{name}", "DllPath", r"C:\lab\standins\winrt.dll")
        system.save()
        (self.folder / "winrt.dll").write_bytes(paths.need(paths.STANDINS / "winrt.dll").read_bytes())
        # Under the tool's name the probe gets the stand-ins the way the tool does.
        for name, program in (("TavikCompatibilityTool", "standin_probe"), ("other", "standin_probe"),
                              ("winrt_probe", "winrt_probe")):
            (self.lab / f"{name}.exe").write_bytes(paths.need(paths.PROGRAMS / f"{program}.exe").read_bytes())
        prefix.start()
        prefix.wine("wineboot")

    def fresh(self) -> "Machine":
        for file in [*self.folder.glob("*.txt"), *self.lab.glob("*.txt")]:
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

    @functools.cached_property
    def plain(self) -> list[str]:
        """What the calls give on this machine without any rule."""
        self.fresh()
        return self.calls()

    def calls(self) -> list[str]:
        code, printed = self.run("TavikCompatibilityTool", "calls")
        assert code == 0
        return printed


@pytest.fixture(scope="module")
def prepared():
    paths.RUNS.mkdir(parents=True, exist_ok=True)
    path = paths.RUNS / f"standins-{os.getpid()}"
    with Prefix.copy(template(), path) as prefix:
        yield Machine(prefix)


@pytest.fixture
def machine(prepared: Machine) -> Machine:
    return prepared.fresh()


def test_every_export_of_the_real_dlls_gets_through(machine: Machine):
    code, printed = machine.run("TavikCompatibilityTool", "forwards")
    assert code == 0
    found = {name: tuple(map(int, numbers)) for name, *numbers in
             (re.fullmatch(r"(\w+): forwarded (\d+), own (\d+), missing (\d+)", line).groups() for line in printed)}
    assert set(found) == set(STANDINS)
    for name, (forwarded, own, missing) in found.items():
        source = (paths.ROOT / "lab" / "standins" / f"{name}.cpp").read_text("utf-8")
        intercepted = len(re.findall(r"^\w.*\bLab_\w+\(", source, re.MULTILINE))
        assert (own, missing) == (2 * intercepted, 0)  # each has a name and an ordinal
        assert forwarded > own


def test_without_a_rule_nothing_changes_but_the_driver_store(machine: Machine):
    _, plain = machine.run("other", "calls")
    assert machine.lines("standins/calls.txt") == []  # other programs keep Wine's own DLLs
    through = machine.calls()
    assert len(machine.lines("standins/calls.txt")) > 10
    different = {a.split(":")[0] for a, b in zip(plain, through, strict=True) if a != b}
    assert different == {"driver store"}


def test_driver_store_answers_from_its_file(machine: Machine):
    machine.write("standins/driverstore.txt", "# comment", "oem7.inf\tC:\\windows\\x.inf")
    assert [line for line in machine.calls() if line.startswith("driver store")] == [
        r"driver store: 1 gle=0 [C:\windows\x.inf]",  # C:\windows\inf\OEM7.INF was asked for
        "driver store: 0 gle=2 [untouched]",
        "driver store: 0 gle=122 [untouched]",
    ]


@pytest.mark.parametrize("rules, printed", [
    (["setupapi!SetupDiGetClassDevsW 2 error=5"],
     ["devices: handle gle=0", "devices: invalid gle=5", "devices: handle gle=4321"]),
    (["setupapi!SetupDiGetClassDevsW 2+ error=0xE0000203"],
     ["devices: handle gle=0", "devices: invalid gle=3758096899", "devices: invalid gle=3758096899"]),
    (["setupapi!SetupDiGetClassDevsW * return=0 gle=7"], ["devices: null gle=7"] * 3),
    (["setupapi!SetupDiGetClassDevsW 3 after=31"],
     ["devices: handle gle=0", "devices: handle gle=4321", "devices: invalid gle=31"]),
    (["setupapi!SetupDiGetClassDevsW 2 sleep=250"],
     ["devices: handle gle=0", "devices: handle gle=4321 slow", "devices: handle gle=4321"]),
    (["setupapi!SetupDiGetClassDevsW * error=5", "setupapi!SetupDiGetClassDevsW 2 error=6"],  # the last one wins
     ["devices: invalid gle=5", "devices: invalid gle=6", "devices: invalid gle=5"]),
    (["setupapi!SetupGetInfDriverStoreLocationW 1 if=inf~OEM8 error=77"],  # its first call, the second of all
     ["driver store: 0 gle=2 [untouched]", "driver store: 0 gle=77 [untouched]", "driver store: 0 gle=2 [untouched]"]),
    (["setupapi!SetupGetInfDriverStoreLocationW * if=size:4 error=78"],
     ["driver store: 0 gle=2 [untouched]", "driver store: 0 gle=2 [untouched]", "driver store: 0 gle=78 [untouched]"]),
    (["msi!MsiEnumRelatedProductsW 1 error=1610"], ["product: 1610 [untouched]", "product: 259 [untouched]"]),
    (["msi!MsiEnumRelatedProductsW 1 return=0 product={A}"], ["product: 0 [{A}]", "product: 259 [untouched]"]),
    (['msi!MsiGetProductInfoW * return=0 value="a b"'], ["product info: 0 3 [a b]"]),
    (['msi!MsiGetProductInfoW * return=0 value="as long as 8"'], ["product info: 234 12 [old]"]),
    (["wininet!InternetCrackUrlW * error=12005"], ["url: 0 [] 0 []"]),
    (["wininet!InternetOpenW * error=14"], ["session: null gle=14"]),
    (["wininet!InternetReadFile * error=10054 count=7"], ["read: 0 gle=10054 count=7"]),
    (["wininet!InternetReadFile * return=1"], ["read: 1 gle=0 count=0"]),
    ([r'wininet!InternetGetLastResponseInfoW * code=550 text="No \"such\" file."'],
     [r'response: 1 550 length=16 [No "such" file.]']),
    (["wtsapi32!WTSQuerySessionInformationW * error=5"], ["user: 0 gle=5 size=0 []"]),
    (["wtsapi32!WTSQuerySessionInformationW * return=1 text=OTHER"], ["user: 1 gle=0 size=12 [OTHER]"]),
])
def test_rule_changes_just_the_call_it_names(machine: Machine, rules: list[str], printed: list[str]):
    plain = machine.plain
    machine.write("standins/faults.txt", *rules)
    ruled = machine.calls()
    kind = printed[0].split(":")[0] + ":"
    assert [line for line in ruled if line.startswith(kind)] == printed
    # A session that cannot be opened takes the calls on it along.
    followers = ("read:", "response:") if kind == "session:" else ()
    untouched = [line for line in plain if not line.startswith((kind, *followers))]
    assert [line for line in ruled if not line.startswith((kind, *followers))] == untouched
    assert not [line for line in machine.lines("standins/calls.txt") if line.startswith("!")]


def test_rule_can_end_the_process(machine: Machine):
    machine.write("standins/faults.txt", "msi!MsiGetProductInfoW 1 exit=77")
    code, printed = machine.run("TavikCompatibilityTool", "calls")
    assert code == 77
    assert not any(line.startswith("product info") for line in printed)
    assert machine.lines("standins/calls.txt")[-1] == (
        'msi!MsiGetProductInfoW#1 product="{11111111-2222-3333-4444-555555555555}"; property="LocalPackage"; size=8'
        " -> exit 77 gle=" + machine.lines("standins/calls.txt")[-1].rpartition("=")[2])


@pytest.mark.parametrize("rule, why", [
    ("setupapi!SetupDiGetClassDvsW 1 error=5", "function is not intercepted: SetupDiGetClassDvsW"),
    ("setupapi!SetupDiGetClassDevsW 0 error=5", "which call? <number>, <number>+ or *"),
    ("setupapi!SetupDiGetClassDevsW 1", "nothing to do"),
    ("setupapi!SetupDiGetClassDevsW 1 eror=5", "unknown key: eror"),
    ("setupapi!SetupDiGetClassDevsW 1 error=five", "not a number: five"),
    ("setupapi!SetupDiGetClassDevsW 1 error=5 error=6", "given twice: error"),
    ("setupapi!SetupDiGetClassDevsW 1 count=5", "unknown key: count"),  # belongs to another function
    ("setupapi!SetupDiGetClassDevsW 1 crash=hard", "not a number: hard"),
    ("setupapi!SetupDiGetClassDevsW 1 memory=some", "memory can only be none"),
])
def test_rule_that_cannot_be_understood_is_reported(machine: Machine, rule: str, why: str):
    machine.write("standins/faults.txt", "# comment", rule)
    printed = machine.calls()
    assert f"!bad rule in line 2: {why}" in machine.lines("standins/calls.txt")
    assert printed[0] == "devices: handle gle=0"


def test_record_shows_arguments_results_and_last_error(machine: Machine):
    machine.calls()
    record = machine.lines("standins/calls.txt")
    assert re.fullmatch(r"setupapi!SetupDiGetClassDevsW#1 class=\{4D36E968-E325-11CE-BFC1-08002BE10318\}; "
                        r"enumerator=\(null\); parent=0x0; flags=0x2 -> 0x[0-9A-F]+ gle=0", record[0])
    assert [line.split(" ")[0] for line in record if "!InternetG" in line] == [
        "wininet!InternetGetLastResponseInfoW#1", "wininet!InternetGetLastResponseInfoW#2"]
    assert any(line.startswith('wininet!InternetCrackUrlW#1 url="http://localhost:81/a/b.txt"; length=0; flags=0x0; '
                               'host="localhost"; port=81; path="/a/b.txt" -> 1 gle=') for line in record)


# The Windows Runtime component.

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


# The application's programs.

def start_in_background(machine: Machine) -> None:
    """CorvelSoftware.exe, which stays; comes back once it is up."""
    for name in ("CorvelSoftware", "tavikow", "hlcmd"):
        (machine.lab / f"{name}.exe").write_bytes(paths.need(paths.PROGRAMS / f"{name}.exe").read_bytes())
    machine.prefix.wine("cmd", "/c", "start", r"C:\lab\CorvelSoftware.exe")
    deadline = time.monotonic() + 20
    while not machine.lines("programs.txt"):
        assert time.monotonic() < deadline, "CorvelSoftware.exe did not start"
        time.sleep(0.02)


def end_by_force(machine: Machine) -> int:
    return machine.prefix.wine("taskkill", "/IM", "CorvelSoftware.exe", "/F")


def test_programs_note_their_start_and_end_when_asked(machine: Machine):
    machine.write("programs-behaviour.txt", "corvelsoftware.exe.stay = forever", "tavikow.exe.exit = 9",
                  "hlcmd.exe.exit = 5")
    start_in_background(machine)
    assert machine.run("tavikow", "one", "two three") == (9, [])
    assert machine.run("hlcmd", "exit") == (5, [])
    assert end_by_force(machine) == 128  # not running any more
    started = machine.lines("programs.txt")
    assert [line.split(" ")[0] for line in started] == ["CorvelSoftware.exe", "tavikow.exe", "hlcmd.exe"]
    assert re.search(r'; show=none; folder="[^"]+"; command=".*C:\\lab\\tavikow\.exe"* one ""two three"""$', started[1])


@pytest.mark.parametrize("behaviour", ["hlcmd.exe.ignore = yes", "CorvelSoftware.exe.deaf = yes"])
def test_program_stays_if_it_is_not_asked_or_does_not_listen(machine: Machine, behaviour: str):
    machine.write("programs-behaviour.txt", "CorvelSoftware.exe.stay = forever", behaviour)
    start_in_background(machine)
    machine.run("hlcmd", "exit")
    assert end_by_force(machine) == 0
