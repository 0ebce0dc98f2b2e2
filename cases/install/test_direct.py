"""Direct installation: -VLT -Install -Path FILE installs the given installer, without any check."""
from __future__ import annotations

import contextlib
import os
import subprocess

import pytest

from cases.support.direct import (GIVEN, HALDEN, HOME, INSTALL_KEY, MARKER, SWITCHES, UPDATE_FAILED, application, given, started)
from cases.support.expect import (CAPTION, CHECKING, DOWNLOADS, INSTALLING, MAIN_PACKAGE_MISSING, QUIET_END, REPAIR, SAME,
                                  SAME_RELEASE, install, opening, remove, stop, unpack)
from cases.support.repair import FAMILIES, MSI_AGREES, installs, removes
from cases.support.store import CORVEL, EARLIER, OTHER, asked, check_nothing_leaks, package
from lab import paths
from lab.machine import Machine
from lab.session import TOOL, Session, remove_folder

KEPT = r"C:\Kept"  # an application outside all packages: it is started when nothing was installed
ALL = {"products": ["Tavik DVR 24.20", "Tavik Halden 24.20", "Tavik PXL 24.20"], "values": {MARKER: 1}}
NOTHING = {"products": [], "values": {MARKER: None}}
REPLACED = {"products": ["Tavik Halden 24.20"], "values": {MARKER: None}}
COMPATIBLE = {"release": "24.20"}
NEW_LOG = [unpack(GIVEN), *stop(""), *installs(*FAMILIES)]
REMOVED = [f"Remvoing {CORVEL} - version 2.23.40.0", "\t Result = 0 "]


def kept_application(*programs: str) -> dict:
    """With these programs, or all."""
    return {"registry": {HALDEN: {"Location": KEPT}},
            "files": {rf"{KEPT}\{name}": {"program": name} for name in programs or ("CorvelSoftware.exe", "hlcmd.exe")}}


def store(*packages: dict) -> dict:
    return {"packages": list(packages)}


def check_application_started(result, folder: str = HOME) -> None:
    """Once, hidden, without arguments."""
    [line] = [line for line in result.programs if line.startswith("CorvelSoftware.exe")]
    assert "; show=0; " in line and line.endswith(f'command="""{folder}\\CorvelSoftware.exe"""')


def check_store_left_alone(result) -> None:
    assert result.store_left == [CORVEL] and result.store_calls == []


# Proves: `-VLT` and `-Install`, and the file exists
# Proves: It starts
# Proves: The desktop edition was missing
# Proves: It was missing and the installation succeeded (a wanted restart included)
# Proves: Everything is done
# Proves: All components wanted
@pytest.mark.quick
def test_desktop_edition_takes_the_place_of_the_store_edition(lab):
    result = lab.run(given(store=store(package(), package(OTHER), package(EARLIER, "1.2.3.4", ok=False))), SWITCHES)
    lab.check(outcome="direct-done", requests=[], before={"values": {MARKER: None}}, after={**ALL, "store": [OTHER]}, log=[
        *started(), *NEW_LOG, *REMOVED, f"Remvoing {EARLIER} - version 1.2.3.4", "\t Result = 0 ", application()])
    assert [line.rpartition("options=")[2].split()[0] for line in asked(result, "RemovePackage")] == ["0x80000", "0x80000"]
    assert result.installer == [f'"{GIVEN}" /NCRC /S -EXTRACTONLY=YES /D={DOWNLOADS}\\LPInstaller']
    assert result.calls == [], "no adapter is asked for"
    check_application_started(result)
    check_nothing_leaks(result)


@pytest.mark.parametrize("arguments", [
    f"-SILENT {SWITCHES}", SWITCHES.lower().replace(GIVEN.lower(), GIVEN), f'-path "{GIVEN}" -INSTALL -vlt -Force -forcevltuwp',
    f'-VLT -VLT -Install -Path C:\\nothing.exe -Path "{GIVEN}" -Unknown /VLT'], ids=["silent", "lower case", "other order", "twice"])
def test_switches_in_other_spellings_and_orders(lab, arguments):
    """The window is shown, with -SILENT as well, and tells what the tool does. No adapter of the maker is needed."""
    result = lab.run(given(adapters=[]), arguments)
    lab.check(outcome="direct-done", after=ALL, log=[*started(arguments), *NEW_LOG, application()])
    assert result.status_texts == [CHECKING, INSTALLING]
    assert any(sample["visible"] and sample["line"] == INSTALLING and sample["title"] == CAPTION for sample in result.status)


# Proves: The desktop edition was there before
def test_installed_desktop_edition_is_replaced_family_by_family(lab):
    result = lab.run(given(desktop={"release": "23.40", "families": ["Halden", "DVR"]}, store=store(package())), SWITCHES)
    lab.check(outcome="direct-done", before={"products": ["Tavik DVR 23.40", "Tavik Halden 23.40"]},
              after={"products": ["Tavik DVR 24.20", "Tavik Halden 24.20"], "values": {MARKER: None}},
              log=[*started(), unpack(GIVEN), *stop(), *removes("Halden", "DVR"), *installs("Halden", "DVR"), application()])
    check_store_left_alone(result)
    check_application_started(result)


# Proves: The application stays => it is waited for 30 seconds and left running; exit code 0, no box
# Proves: It outlives the wait
def test_application_that_stays_is_waited_for_30_seconds_and_left_running(lab):
    result = lab.run(given("24.20-nomain", programs={"CorvelSoftware.exe.stay": "forever"}, **kept_application()), SWITCHES, timeout=90)
    lab.check(outcome="direct-installer-empty", running=["CorvelSoftware.exe"],
              log=[*started(), unpack(GIVEN), MAIN_PACKAGE_MISSING, application(259, KEPT)])
    assert 30_000 <= result.instances[0]["ended"] - result.instances[0]["started"] < 60_000


# Proves: The installation fails, or the installer unpacks nothing
@pytest.mark.parametrize("release, installer, outcome, products, log", [
    ("24.20-fail", {}, "direct-failed", ["Tavik DVR 24.20", "Tavik PXL 24.20"],
     [unpack(GIVEN), *stop(KEPT), *install("Halden", 1603), *installs("DVR", "PXL")]),
    ("24.20-nomain", {}, "direct-installer-empty", [], [unpack(GIVEN), MAIN_PACKAGE_MISSING]),
    ("24.20", {"exit": 7, "extract": "no"}, "direct-installer-empty", [], [unpack(GIVEN, 7), MAIN_PACKAGE_MISSING])],
    ids=["main package refuses", "no main package", "nothing unpacked"])
def test_failed_installation_is_not_reported_and_the_application_starts(lab, release, installer, outcome, products, log):
    result = lab.run(given(release, store=store(package()), installer=installer, **kept_application()), SWITCHES)
    lab.check(outcome=outcome, after={"products": products, "values": {MARKER: None}},
              log=[*started(), *log, application(folder=KEPT)])
    check_store_left_alone(result)
    check_application_started(result, KEPT)


# The only box of this mode, shown with -SILENT too.
# Proves: The installation raises an exception (direct installation)
@pytest.mark.parametrize("arguments", [SWITCHES, f"{SWITCHES} -SILENT"], ids=["window", "silent"])
def test_exception_during_the_installation(lab, arguments):
    changes = kept_application()
    changes["files"][DOWNLOADS] = "a file, not a folder"
    result = lab.run(given(store=store(package()), **changes), arguments)
    lab.check(outcome="folder-not-prepared", boxes=[UPDATE_FAILED], after=NOTHING,
              log=[*started(arguments), "\tException occured during installation. {any}create_directories{any}"])
    assert (result.programs, result.installer, result.store_calls) == ([], [], [])


# Proves: The marker's key cannot be created
def test_marker_that_cannot_be_written_is_logged(lab):
    late = store(package(completion="later:1500"))  # leaves time to deny the key; the DVR package does not write to it
    result = lab.run(given(store=late), SWITCHES, when=[rf"file C:\Program Files\Tavik\DVR\release.txt : deny {INSTALL_KEY}"])
    assert [action["done"] for action in result.actions] == [True]
    lab.check(outcome="direct-not-marked", after={**ALL, "values": {MARKER: None}}, log=[
        *started(), *NEW_LOG, *REMOVED, "Unable to create VLTUWPReplaced registry key SOFTWARE\\Orrel Technologies\\Install\\", application()])
    check_application_started(result)


# The application's location cannot be read: the run ends at once without a message, and the log is complete so far.
# Proves: The application's key or its location is missing
@pytest.mark.parametrize("registry", [{}, {HALDEN: {"InstallDir": KEPT}}, {HALDEN: {"Location": 5}}, {HALDEN: {"Location": [KEPT]}}],
                         ids=["no key", "no value", "number", "list"])
def test_without_a_location_the_run_ends_quietly(lab, registry):
    result = lab.run(given("24.20-nomain", registry=registry), SWITCHES)
    lab.check(outcome="direct-installer-empty", exit_code=QUIET_END, log=[*started(), unpack(GIVEN), MAIN_PACKAGE_MISSING])
    assert result.instances[0]["ended"] - result.instances[0]["started"] < 10_000
    assert result.programs == []


# Endings. With MSI_AGREES Windows Installer does nothing, and returns what the rule says.

OLD = {"release": "23.40"}
BUSY = [line for family in FAMILIES for line in install(family, 1618)]
MAIN, MAIN_RESULT = install("Halden")
NOT_STARTED = r"Launching process {}\CorvelSoftware.exe  failed. Error code = {}".format


def rule(text: str = "", **changes) -> dict:
    return given(faults=[MSI_AGREES, *([f"msi!MsiInstallProductW * {text}"] if text else [])], **changes)


def failing_store(failure: str, text: str) -> tuple:
    return ("direct-store-left", 0, given(store=store(package(removal_end=failure))), {**ALL, "store": [CORVEL]},
            [*NEW_LOG, REMOVED[0], f"Exception {text} when enumerating info for {CORVEL}", application()])


ENDINGS = {  # name: outcome, exit code, machine, state after, log after its first line
    "same release is installed again": ("direct-done", 0, given(desktop=COMPATIBLE), REPLACED, [unpack(GIVEN), *REPAIR, application()]),
    "optional families without the main one count as missing": (
        "direct-done", 0, given(desktop={"packages": ["DVR-23.40"]}, store=store(package())), ALL,
        [unpack(GIVEN), *stop(""), *remove("DVR"), *installs(*FAMILIES), *REMOVED, application()]),
    "running programs are stopped": (
        "direct-done", 0, given(desktop=OLD, running=[rf"{HOME}\CorvelSettings.exe"], programs={"CorvelSettings.exe.deaf": True}), REPLACED,
        [unpack(GIVEN), *stop(running=("CorvelSettings.exe",)), *remove("Halden"), *install("Halden"), application()]),
    "wanted restart": (
        "direct-restart", 0, given("24.20-reboot", store=store(package())), ALL,
        [unpack(GIVEN), *stop(""), MAIN, MAIN.replace("Installing", "System reboot may be required for") + ".", MAIN_RESULT,
         *installs("DVR", "PXL"), *REMOVED, application()]),
    "application with an exit code": (
        "direct-done", 0, given(programs={"CorvelSoftware.exe.exit": "0xC0000005"}), ALL, [*NEW_LOG, application(-1073741819)]),
    "marker of another kind": (
        "direct-done", 0, given(registry={rf"HKLM\{INSTALL_KEY}": {"VLTUWPReplaced": "yes"}}), ALL, [*NEW_LOG, application()]),
    "removal canceled": failing_store("canceled", "Operation canceled by user."),
    "Store package in use": failing_store("error:0x80070005:It is in use.", "It is in use."),
    "no package manager": ("direct-store-left", 0, given(store=False), {**ALL, "store": []},
                           [*NEW_LOG, "Exception [] when searching for UWP version of VLT", application()]),
    "location does not exist": ("direct-installer-empty", 0, given("24.20-nomain", registry={HALDEN: {"Location": r"C:\Nowhere"}}), {},
                                [unpack(GIVEN), MAIN_PACKAGE_MISSING, NOT_STARTED(r"C:\Nowhere", "3 Path not found. ")]),
    "location without the application": ("direct-installer-empty", 0, given("24.20-nomain", registry={HALDEN: {"Location": r"C:\Given folder"}}), {},
                                         [unpack(GIVEN), MAIN_PACKAGE_MISSING, NOT_STARTED(r"C:\Given folder", "2 File not found. ")]),
    "failed replacement leaves no location": ("direct-failed", QUIET_END, given("24.20-fail", desktop=OLD), {"products": []},
                                              [unpack(GIVEN), *stop(), *remove("Halden"), *install("Halden", 1603)]),
    "location unknown": ("direct-no-location", QUIET_END, rule(), {}, NEW_LOG),
    "application cannot be started": (
        "direct-not-started", 0, rule(**kept_application("hlcmd.exe")), {},
        [unpack(GIVEN), *stop(KEPT), *installs(*FAMILIES), NOT_STARTED(KEPT, "{number} {any}")]),
    "another installation is running": ("direct-busy", 0, rule("return=1618", **kept_application()), {},
                                        [unpack(GIVEN), *stop(KEPT), *BUSY, application(folder=KEPT)]),
    "another installation, no application": ("direct-busy", QUIET_END, rule("return=1618"), {}, [unpack(GIVEN), *stop(""), *BUSY]),
    "optional package fails": (
        "direct-optional-failed", 0, rule("if=package~PXL64 return=1603", **kept_application()), {},
        [unpack(GIVEN), *stop(KEPT), *installs("Halden", "DVR"), *install("PXL", 1603), application(folder=KEPT)]),
    "old product stays": ("direct-old-left", 0, rule(r"if=package~windows\Installer return=1603", desktop=OLD), {},
                          [unpack(GIVEN), *stop(), *remove("Halden", 1603), *install("Halden"), application()]),
}


# Proves: The application's programs run => they are stopped as in a repair
# Proves: Exit codes above 0x7FFFFFFF
# Proves: The application is missing, or ends with a code of its own
# Proves: A marker is there already, even of another type => it is replaced
# Proves: A Store package stays, or the Store cannot be asked
@pytest.mark.parametrize("name", ENDINGS)
def test_direct_installation_ends_with(lab, name):
    outcome, code, machine, after, log = ENDINGS[name]
    lab.run(machine, SWITCHES)
    lab.check(outcome=outcome, exit_code=code, boxes=[], after=after, log=[*started(), *log])


# The installer is missing.

def missing(path: str) -> list[str]:
    return [f"Unable to find file at : {path}."]


# Proves: `-Path` is the last argument
# Proves: `-VLT` and `-Install`, and there is no such file (or no path, or a folder)
@pytest.mark.parametrize("arguments, path", [
    (r"-VLT -Install -Path C:\nothing.exe", r"C:\nothing.exe"),
    ("-VLT -Install -Path -SILENT", "-SILENT"),
    ("-Path -Path -vlt -install", "-Path"),
    ("-VLT -Install -Path", ""),
    ("-VLT -Install", ""),
    (r'-VLT -Install -Path ""', ""),
    (r'-VLT -Install -Path "C:\Given folder"', r"C:\Given folder"),
    (r'-VLT -Install -Path "C:\no \"such\" file"', 'C:\\no "such" file')])
def test_given_file_is_missing(lab, arguments, path):
    result = lab.run(given(), arguments)
    lab.check(outcome="direct-file-missing", requests=[], after={"products": []},
              log=[*started(arguments), *missing(path)])
    assert result.output == [f"The given location does not contain the file : {path}"]
    assert (result.status, result.installer, result.programs) == ([], [], [])


# Proves: The standard output is a pipe
def test_text_goes_into_a_pipe_as_well(tmp_path):
    """Started without the watcher, which would redirect the output to a file."""
    with Session(Machine({"desktop": False, "server": {"reach": "none"}})) as session:
        reader, writer = os.pipe()
        arguments = ["-vlt", "-install", "-path", r"C:\nothing.exe"]
        with open(tmp_path / "errors", "wb") as errors:
            tool = subprocess.Popen([paths.WINE, TOOL, *arguments], env=session.prefix.environment(), stdin=subprocess.DEVNULL,
                                    stdout=writer, stderr=errors)
        assert tool.wait(60) == 2
        os.close(writer)
        os.set_blocking(reader, False)  # Wine's services may have inherited the other end
        text = b""
        with contextlib.suppress(BlockingIOError):
            while part := os.read(reader, 1000):
                text += part
        os.close(reader)
        assert text == rb"The given location does not contain the file : C:\nothing.exe"
        [log] = session.logs()
        assert log[1:] == missing(r"C:\nothing.exe")
    remove_folder(session.folder)


# One switch alone changes nothing.

# Proves: Only one of `-VLT` and `-Install`, or `-Path` alone
@pytest.mark.parametrize("arguments", [f'-Path "{GIVEN}"', f'-VLT -Path "{GIVEN}"', f'-Install -Path "{GIVEN}"', "-VLT -Path -Install",
                                       "-Path -SILENT"])
def test_half_of_the_switches_is_the_ordinary_check(lab, arguments):
    """A switch after -Path is taken as its value."""
    result = lab.run(given(desktop=COMPATIBLE), arguments)
    lab.check(outcome="same-release", boxes=[SAME_RELEASE], after={"products": ["Tavik Halden 24.20"]})
    assert result.log[:2] == opening(arguments, "24.20") and result.log[-1] == f"{SAME} Exiting."
    assert (result.installer, result.programs, result.output) == ([], [], [""])


# The instance event.

def test_direct_installation_beside_a_running_check(lab):
    result = lab.run(given("24.20-nomain", desktop=COMPATIBLE), when=[f"box : second {SWITCHES}"])
    lab.check(outcome="same-release, direct-installer-empty")
    assert result.instances[1]["exit_code"] == 0
    assert result.logs[1][0] == started()[0] and result.logs[1][-1] == application()
    assert [box for box in result.boxes if box["instance"] == 1] == []


def test_check_beside_a_running_direct_installation(lab):
    result = lab.run(given("24.20-nomain", desktop=COMPATIBLE, installer={"sleep": 2500}), SWITCHES,
                     when=[f"text {INSTALLING} : watch Tavik_Software_Repair_Tool_Mutex", f"text {INSTALLING} : second"])
    lab.check(outcome="direct-installer-empty, same-release")
    assert [action["done"] for action in result.actions] == [False, True]
    assert result.instances[1]["exit_code"] == -1 and result.logs[1][-1] == f"{SAME} Exiting."
    assert [(box["icon"], box["text"]) for box in result.boxes] == [SAME_RELEASE]


# Proves: The run ends
@pytest.mark.parametrize("machine, outcome", [
    ({"desktop": COMPATIBLE}, "same-release"), ({"desktop": False, "store": store(package())}, "store-installed"),
    ({"desktop": False, "store": {**store(package()), "service": {"state": 4}}}, "store-not-completed")],
    ids=["early end", "success", "failure"])
def test_instance_event_is_set_at_the_end_of_a_check(lab, machine, outcome):
    result = lab.run(machine, when=["box : watch Tavik_Software_Repair_Tool_Mutex"])
    lab.check(outcome=outcome)
    assert [action["done"] for action in result.actions] == [True]
    assert result.event == "set"
