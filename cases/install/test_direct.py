"""Direct installation: -VLT -Install -Path FILE installs what it is given, without any check."""
from __future__ import annotations

import contextlib
import os
import subprocess
from typing import Any

import pytest

from cases.support.expect import CAPTION, CHECKING, FINISHED, INSTALL_FAILED, INSTALLING, SAME_RELEASE, install, opening, remove, stop, unpack
from lab import paths
from lab.machine import Machine
from lab.prefix import Prefix
from lab.run import LOGS, TOOL, read_log
from cases.support.store import CORVEL, EARLIER, OTHER, SAME, asked, check_nothing_leaks, package

GIVEN = r"C:\Given folder\setup.exe"
SWITCHES = f'-VLT -Install -Path "{GIVEN}"'
INSTALL_KEY = r"Software\Orrel Technologies\Install"
MARKER = rf"{INSTALL_KEY}\VLTUWPReplaced"
HALDEN = rf"HKLM\{INSTALL_KEY}\Halden"
KEPT = r"C:\Kept"  # an application that no package knows: what the tool starts when nothing was installed
FOLDER = r"C:\Program Files\Tavik\Halden"
UPDATE_FAILED = ("error", "Update failed. Please visit www.tavik.example to install the appropriate driver.")
ALL = {"products": ["Tavik DVR 24.20", "Tavik Halden 24.20", "Tavik PXL 24.20"], "values": {MARKER: 1}}
QUIET_END = 3  # of an error that nobody catches


def given(release: str = "24.20", desktop: Any = False, **changes: Any) -> dict[str, Any]:
    """A machine with the installer in a folder; nothing is installed unless told otherwise."""
    files = {GIVEN: {"installer": release}, **changes.pop("files", {})}
    return {"desktop": desktop, "server": {"reach": "none"}, "files": files, **changes}


def kept_application() -> dict[str, Any]:
    return {"registry": {HALDEN: {"Location": KEPT}},
            "files": {rf"{KEPT}\{name}": {"program": name} for name in ("CorvelSoftware.exe", "hlcmd.exe")}}


def started(arguments: str = SWITCHES) -> list[str]:
    return opening(arguments)[:1]


def application(code: int = 0, folder: str = FOLDER) -> str:
    return rf"Process {folder}\CorvelSoftware.exe  completed with exit code {code}"


def store(*packages: dict[str, Any]) -> dict[str, Any]:
    return {"packages": list(packages)}


NEW_LOG = [unpack(GIVEN), *stop(""), *install("Halden"), *install("DVR"), *install("PXL")]
REMOVED = [f"Remvoing {CORVEL} - version 2.23.40.0", "\t Result = 0 "]


def check_application_started(result, folder: str = FOLDER) -> None:
    """Hidden, without arguments."""
    line = next(line for line in result.programs if line.startswith("CorvelSoftware.exe"))
    assert "; show=0; " in line and line.endswith(f'command="""{folder}\\CorvelSoftware.exe"""')
    assert len([line for line in result.programs if line.startswith("CorvelSoftware.exe")]) == 1


# Proves: `-VLT` and `-Install`, and the file exists
# Proves: It starts
# Proves: The desktop edition was missing
# Proves: It was missing and the installation succeeded (a wanted restart included)
# Proves: Everything is done
# Proves: All components wanted
@pytest.mark.quick
def test_the_desktop_edition_takes_the_store_editions_place(lab):
    result = lab.run(given(store=store(package(), package(OTHER), package(EARLIER, "1.2.3.4", ok=False))), SWITCHES)
    lab.check(outcome="direct-done", exit_code=0, boxes=[], requests=[], before={"values": {MARKER: None}}, after=ALL, log=[
        *started(), *NEW_LOG, *REMOVED, f"Remvoing {EARLIER} - version 1.2.3.4", "\t Result = 0 ", application()])
    assert result.store_left == [OTHER]
    assert [line.rpartition("options=")[2].split()[0] for line in asked(result, "RemovePackage")] == ["0x80000", "0x80000"]
    assert result.installer == [f'"{GIVEN}" /NCRC /S -EXTRACTONLY=YES /D=C:\\users\\root\\Temp\\Tavik_VLTInstallerDownload\\LPInstaller']
    assert result.calls == [], "no adapter is looked at"
    check_application_started(result)
    check_nothing_leaks(result)


def test_the_window_shows_what_it_does(lab):
    result = lab.run(given(), SWITCHES)
    lab.check(outcome="direct-done", exit_code=0, boxes=[], after=ALL)
    assert result.status_texts == [CHECKING, INSTALLING]
    assert any(sample["visible"] and sample["line"] == INSTALLING and sample["title"] == CAPTION for sample in result.status)


def test_the_switch_silent_does_not_hide_the_window(lab):
    result = lab.run(given(), f"-SILENT {SWITCHES}")
    lab.check(outcome="direct-done", exit_code=0, boxes=[], after=ALL, log=[*started(f"-SILENT {SWITCHES}"), *NEW_LOG, application()])
    assert any(sample["visible"] and sample["line"] == INSTALLING for sample in result.status)


@pytest.mark.parametrize("arguments", [SWITCHES.lower().replace(GIVEN.lower(), GIVEN), f'-path "{GIVEN}" -INSTALL -vlt -Force -forcevltuwp',
                                       f'-VLT -VLT -Install -Path C:\\nothing.exe -Path "{GIVEN}" -Unknown /VLT'])
def test_switches_in_other_spellings_and_orders(lab, arguments):
    lab.run(given(), arguments)
    lab.check(outcome="direct-done", exit_code=0, boxes=[], after=ALL, log=[*started(arguments), *NEW_LOG, application()])


# Proves: The desktop edition was there before
def test_an_installed_desktop_edition_is_replaced_family_by_family(lab):
    old = {"release": "23.40", "families": ["Halden", "DVR"]}
    result = lab.run(given(desktop=old, store=store(package())), SWITCHES)
    lab.check(outcome="direct-done", exit_code=0, boxes=[], before={"products": ["Tavik DVR 23.40", "Tavik Halden 23.40"]},
              after={"products": ["Tavik DVR 24.20", "Tavik Halden 24.20"], "values": {MARKER: None}},
              log=[*started(), unpack(GIVEN), *stop(), *remove("Halden"), *remove("DVR"), *install("Halden"), *install("DVR"), application()])
    assert result.store_left == [CORVEL] and result.store_calls == []
    check_application_started(result)


def test_the_same_release_is_installed_again_without_a_question(lab):
    lab.run(given(desktop={"release": "24.20"}), SWITCHES)
    lab.check(outcome="direct-done", exit_code=0, boxes=[], after={"products": ["Tavik Halden 24.20"], "values": {MARKER: None}},
              log=[*started(), unpack(GIVEN), *stop(), *remove("Halden"), *install("Halden"), application()])


def test_optional_families_without_the_main_one_count_as_missing(lab):
    lab.run(given(desktop={"packages": ["DVR-23.40"]}, store=store(package())), SWITCHES)
    lab.check(outcome="direct-done", exit_code=0, boxes=[], after=ALL, log=[
        *started(), unpack(GIVEN), *stop(""), *remove("DVR"), *install("Halden"), *install("DVR"), *install("PXL"), *REMOVED, application()])


def test_a_machine_without_an_adapter_of_the_maker_is_no_matter(lab):
    lab.run(given(adapters=[]), SWITCHES)
    lab.check(outcome="direct-done", exit_code=0, boxes=[], after=ALL, log=[*started(), *NEW_LOG, application()])


# Proves: The application's programs run => they are stopped as in a repair
def test_running_programs_are_stopped_before(lab):
    old = {"release": "23.40"}
    lab.run(given(desktop=old, running=[rf"{FOLDER}\CorvelSettings.exe"], programs={"CorvelSettings.exe.deaf": True}), SWITCHES)
    lab.check(outcome="direct-done", exit_code=0, boxes=[], after={"products": ["Tavik Halden 24.20"]}, log=[
        *started(), unpack(GIVEN), *stop(running=("CorvelSettings.exe",)), *remove("Halden"), *install("Halden"), application()])


def test_a_restart_that_is_wanted_is_a_success(lab):
    lab.run(given("24.20-reboot", store=store(package())), SWITCHES)
    main = install("Halden")
    lab.check(outcome="direct-restart", exit_code=0, boxes=[], after=ALL, log=[
        *started(), unpack(GIVEN), *stop(""), main[0],
        "System reboot may be required for {temp}Tavik_VLTInstallerDownload\\LPInstaller\\HL\\halden\\halden64\\dwx-next64.msi.", main[1],
        *install("DVR"), *install("PXL"), *REMOVED, application()])


# Proves: Exit codes above 0x7FFFFFFF
def test_the_applications_exit_code_is_only_logged(lab):
    lab.run(given(programs={"CorvelSoftware.exe.exit": "0xC0000005"}), SWITCHES)
    lab.check(outcome="direct-done", exit_code=0, boxes=[], after=ALL, log=[*started(), *NEW_LOG, application(-1073741819)])


# Proves: The application stays => it is waited for 30 seconds and left running; exit code 0, no box
# Proves: It outlives the wait
def test_an_application_that_stays_is_waited_for_30_seconds_and_left_running(lab):
    result = lab.run(given("24.20-nomain", programs={"CorvelSoftware.exe.stay": "forever"}, **kept_application()), SWITCHES, timeout=90)
    lab.check(outcome="direct-installer-empty", exit_code=0, boxes=[], running=["CorvelSoftware.exe"], log=[
        *started(), unpack(GIVEN), "Unable to find {temp}Tavik_VLTInstallerDownload\\LPInstaller\\HL\\halden\\halden64\\dwx-next64.msi.",
        application(259, KEPT)])
    assert 30_000 <= result.instances[0]["ended"] - result.instances[0]["started"] < 60_000


# Proves: The installation fails, or the installer unpacks nothing
def test_a_failed_installation_is_not_reported_and_the_application_starts(lab):
    result = lab.run(given("24.20-fail", store=store(package()), **kept_application()), SWITCHES)
    lab.check(outcome="direct-failed", exit_code=0, boxes=[], after={"products": ["Tavik DVR 24.20", "Tavik PXL 24.20"], "values": {MARKER: None}}, log=[
        *started(), unpack(GIVEN), *stop(KEPT), *install("Halden", 1603), *install("DVR"), *install("PXL"), application(folder=KEPT)])
    assert result.store_left == [CORVEL] and result.store_calls == []
    check_application_started(result, KEPT)


@pytest.mark.parametrize("release, installer, code", [("24.20-nomain", {}, 0), ("24.20", {"exit": 7, "extract": "no"}, 7)])
def test_an_installer_that_unpacks_nothing_useful(lab, release, installer, code):
    result = lab.run(given(release, store=store(package()), installer=installer, **kept_application()), SWITCHES)
    lab.check(outcome="direct-installer-empty", exit_code=0, boxes=[], after={"products": [], "values": {MARKER: None}}, log=[
        *started(), unpack(GIVEN, code), "Unable to find {temp}Tavik_VLTInstallerDownload\\LPInstaller\\HL\\halden\\halden64\\dwx-next64.msi.",
        application(folder=KEPT)])
    assert result.store_left == [CORVEL] and result.store_calls == []
    check_application_started(result, KEPT)


# Proves: The application is missing, or ends with a code of its own
@pytest.mark.parametrize("location, why", [(r"C:\Nowhere", "3 Path not found. "), (r"C:\Given folder", "2 File not found. ")])
def test_a_location_without_the_application(lab, location, why):
    lab.run(given("24.20-nomain", registry={HALDEN: {"Location": location}}), SWITCHES)
    lab.check(outcome="direct-installer-empty", exit_code=0, boxes=[], log=[
        *started(), unpack(GIVEN), "Unable to find {temp}Tavik_VLTInstallerDownload\\LPInstaller\\HL\\halden\\halden64\\dwx-next64.msi.",
        rf"Launching process {location}\CorvelSoftware.exe  failed. Error code = {why}"])


# The only box of this mode, and one that -SILENT does not keep away.
# Proves: The installation raises an exception (direct installation)
@pytest.mark.parametrize("arguments", [SWITCHES, f"{SWITCHES} -SILENT"])
def test_an_exception_during_the_installation(lab, arguments):
    changes = kept_application()
    changes["files"][r"C:\users\root\Temp\Tavik_VLTInstallerDownload"] = "a file, not a folder"
    result = lab.run(given(store=store(package()), **changes), arguments)
    lab.check(outcome="folder-not-prepared", exit_code=-1, boxes=[UPDATE_FAILED], after={"products": [], "values": {MARKER: None}},
              log=[*started(arguments), "\tException occured during installation. {any}create_directories{any}"])
    assert (result.programs, result.installer, result.store_calls) == ([], [], [])


# Proves: The marker's key cannot be created
def test_a_marker_that_cannot_be_written_is_logged(lab):
    late = store(package(completion="later:1500"))  # the package of the DVR comes before, and writes nothing there
    result = lab.run(given(store=late), SWITCHES, when=[rf"file C:\Program Files\Tavik\DVR\release.txt : deny {INSTALL_KEY}"])
    assert [action["done"] for action in result.actions] == [True]
    lab.check(outcome="direct-not-marked", exit_code=0, boxes=[], after={**ALL, "values": {MARKER: None}}, log=[
        *started(), *NEW_LOG, *REMOVED, "Unable to create VLTUWPReplaced registry key SOFTWARE\\Orrel Technologies\\Install\\", application()])
    check_application_started(result)


# Proves: A marker is there already, even of another type => it is replaced
def test_a_marker_of_another_kind_is_replaced(lab):
    lab.run(given(registry={rf"HKLM\{INSTALL_KEY}": {"VLTUWPReplaced": "yes"}}), SWITCHES)
    lab.check(outcome="direct-done", exit_code=0, boxes=[], before={"values": {MARKER: "yes"}}, after=ALL)


# Proves: A Store package stays, or the Store cannot be asked
@pytest.mark.parametrize("failure", ["canceled", "error:0x80070005:It is in use."])
def test_the_marker_is_written_although_a_store_package_stays(lab, failure):
    text = "Operation canceled by user." if failure == "canceled" else "It is in use."
    lab.run(given(store=store(package(removal_end=failure))), SWITCHES)
    lab.check(outcome="direct-store-left", exit_code=0, boxes=[], after=ALL, log=[
        *started(), *NEW_LOG, REMOVED[0], f"Exception {text} when enumerating info for {CORVEL}", application()])
    assert lab.result.store_left == [CORVEL]


def test_a_system_without_the_package_manager(lab):
    lab.run(given(store=False), SWITCHES)
    lab.check(outcome="direct-store-left", exit_code=0, boxes=[], after=ALL, log=[
        *started(), *NEW_LOG, "Exception [] when searching for UWP version of VLT", application()])


# Where the application is cannot be read: the run ends at once and without a word, the log is complete so far.
# Proves: The application's key or its location is missing
@pytest.mark.parametrize("registry", [{}, {HALDEN: {"InstallDir": KEPT}}, {HALDEN: {"Location": 5}}, {HALDEN: {"Location": [KEPT]}}])
def test_without_a_location_the_run_ends_quietly(lab, registry):
    result = lab.run(given("24.20-nomain", registry=registry), SWITCHES)
    lab.check(outcome="direct-installer-empty", exit_code=QUIET_END, boxes=[], log=[
        *started(), unpack(GIVEN), "Unable to find {temp}Tavik_VLTInstallerDownload\\LPInstaller\\HL\\halden\\halden64\\dwx-next64.msi."])
    assert result.instances[0]["ended"] - result.instances[0]["started"] < 10_000
    assert result.programs == []


def test_a_failed_replacement_leaves_no_location(lab):
    lab.run(given("24.20-fail", desktop={"release": "23.40"}), SWITCHES)
    lab.check(outcome="direct-failed", exit_code=QUIET_END, boxes=[], after={"products": []},
              log=[*started(), unpack(GIVEN), *stop(), *remove("Halden"), *install("Halden", 1603)])


# The installer is not there.

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
def test_a_given_file_that_is_missing(lab, arguments, path):
    result = lab.run(given(), arguments)
    lab.check(outcome="direct-file-missing", exit_code=2, boxes=[], requests=[], after={"products": []}, log=[*started(arguments), *missing(path)])
    assert result.output == [f"The given location does not contain the file : {path}"]
    assert (result.status, result.installer, result.programs) == ([], [], [])


# Proves: The standard output is a pipe
def test_the_text_goes_into_a_pipe_as_well(tmp_path):
    """Not by way of the watcher, which gives the tool a file."""
    folder = paths.RUNS / f"pipe-{os.getpid()}"
    machine = Machine({"desktop": False, "server": {"reach": "none"}})
    prefix = Prefix.copy(machine.template(), folder / "prefix")
    try:
        machine.install(prefix, "")
        prefix.start()
        reader, writer = os.pipe()
        arguments = ["-vlt", "-install", "-path", r"C:\nothing.exe"]
        with open(tmp_path / "errors", "wb") as errors:
            tool = subprocess.Popen([paths.WINE, TOOL, *arguments], env=prefix.environment(), stdin=subprocess.DEVNULL, stdout=writer,
                                    stderr=errors)
        assert tool.wait(60) == 2
        os.close(writer)
        os.set_blocking(reader, False)  # Wine's services may have inherited the other end
        text = b""
        with contextlib.suppress(BlockingIOError):
            while part := os.read(reader, 1000):
                text += part
        os.close(reader)
        assert text == rb"The given location does not contain the file : C:\nothing.exe"
        [log] = (prefix.drive / LOGS).glob("*.log")
        assert read_log(log)[1:] == missing(r"C:\nothing.exe")
    finally:
        prefix.remove()
        subprocess.run(["rm", "-rf", str(folder)], check=False)


# One switch alone changes nothing.

# Proves: Only one of `-VLT` and `-Install`, or `-Path` alone
@pytest.mark.parametrize("arguments", ["-VLT", "-Install", f'-Path "{GIVEN}"', f'-VLT -Path "{GIVEN}"', f'-Install -Path "{GIVEN}"',
                                       "-VLT -Path -Install", "-Install -Path -VLT", f'-VLT -Installs -Path "{GIVEN}"'])
def test_half_of_the_switches_is_the_ordinary_check(lab, arguments):
    result = lab.run(given(desktop={"release": "24.20"}), arguments)
    lab.check(outcome="same-release", exit_code=-1, boxes=[SAME_RELEASE], after={"products": ["Tavik Halden 24.20"]})
    assert result.log[:2] == opening(arguments, "24.20") and result.log[-1] == f"{SAME} Exiting."
    assert (result.installer, result.programs, result.output) == ([], [], [""])


def test_a_path_that_swallows_the_switch_silent(lab):
    lab.run({"desktop": {"release": "24.20"}}, "-Path -SILENT")
    lab.check(outcome="same-release", exit_code=-1, boxes=[SAME_RELEASE])


# The instance event.

def test_direct_installation_beside_a_running_check(lab):
    machine = given("24.20-nomain", desktop={"release": "24.20"})
    result = lab.run(machine, when=[f"box : second {SWITCHES}"])
    lab.check(outcome="same-release, direct-installer-empty", exit_code=-1, boxes=[SAME_RELEASE])
    assert result.instances[1]["exit_code"] == 0
    assert result.logs[1][0] == started()[0] and result.logs[1][-1] == application()
    assert [box for box in result.boxes if box["instance"] == 1] == []


def test_a_check_beside_a_running_direct_installation(lab):
    machine = given("24.20-nomain", desktop={"release": "24.20"}, installer={"sleep": 2500})
    result = lab.run(machine, SWITCHES, when=[f"text {INSTALLING} : watch Tavik_Software_Repair_Tool_Mutex", f"text {INSTALLING} : second"])
    lab.check(outcome="direct-installer-empty, same-release", exit_code=0, boxes=[])
    assert [action["done"] for action in result.actions] == [False, True]
    assert result.instances[1]["exit_code"] == -1 and result.logs[1][-1] == f"{SAME} Exiting."
    assert [(box["icon"], box["text"]) for box in result.boxes] == [SAME_RELEASE]


# Proves: The run ends
@pytest.mark.parametrize("machine, outcome, box", [
    ({"desktop": {"release": "24.20"}}, "same-release", SAME_RELEASE),
    ({"desktop": False, "store": {"packages": [package()]}}, "store-installed", FINISHED),
    ({"desktop": False, "store": {"packages": [package()], "service": {"state": 4}}}, "store-not-completed", INSTALL_FAILED)])
def test_the_instance_event_is_set_at_the_end_of_a_check(lab, machine, outcome, box):
    result = lab.run(machine, when=["box : watch Tavik_Software_Repair_Tool_Mutex"])
    lab.check(outcome=outcome, exit_code=0 if box == FINISHED else -1, boxes=[box])
    assert [action["done"] for action in result.actions] == [True]
    assert result.event == "set"
