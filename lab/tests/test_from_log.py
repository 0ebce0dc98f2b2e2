"""lab/run --from: a machine that is made from the log of a run behaves like the machine of that run."""
from __future__ import annotations

import json
import pathlib
import re
import shlex
import subprocess
import tomllib
import zipfile

import pytest

from cases.support.direct import GIVEN, SWITCHES, given
from cases.support.download import FINAL, PATH
from cases.support.expect import EXTRACTED, NOT_THE_MAKERS, OTHER_ADAPTER, TEMP
from cases.support.repair import UPGRADE_CODES, found
from cases.support.store import CORVEL, package, store_only
from companion import outcomes
from lab import from_log, paths
from lab.from_log import Story, Told

OTHER_FOLDER = {"desktop": {"families": ["Halden", "DVR"], "folder": r"C:\My Apps"}}
RUNS = {  # machine and switches of the first run, by outcome; a second run of one has a comment behind it
    "same-release": ("compatible.toml", "-SILENT"),
    "no-adapter": ({"adapters": [OTHER_ADAPTER]}, ""),
    "no-usable-driver": ({"adapters": [{"release": False}, {"driver_key": False}, {"description": "Tavik Corvel 5500", "release": False}]}, ""),
    "no-application": (store_only(package(ok=False)), ""),
    "no-application-store-unread": (store_only(manager={"find": "0x80070005:Refused."}), ""),
    "repaired": ({**found(), **OTHER_FOLDER, "running": [r"C:\My Apps\Halden\CorvelSoftware.exe"],
                  "programs": {"CorvelSoftware.exe.deaf": True}}, "-SILENT"),
    "repaired: Halden is gone after the check": (
        found(desktop={"families": ["Halden", "DVR"]}, faults=[f"msi!MsiEnumRelatedProductsW 3+ if=upgrade:{UPGRADE_CODES['Halden']} return=259"]), ""),
    "repaired-restart": (found("24.20-reboot"), ""),
    "repaired-old-left": (found(desktop={"packages": ["Halden-24.10", "Halden-23.40-stubborn"]}), ""),
    "repaired-store-left": (found(store={"packages": [package(removal="0x80073CF1:Package was not found.")]}), ""),
    "install-failed": (found("24.20-fail"), "-FORCE"),
    "installer-empty": ({"installer": {"exit": 7, "extract": "no"}}, ""),
    "installer-blocked": ({"server": {"answers": {PATH: {"text": "no program"}}}}, ""),
    "download-not-there": ({"server": {"folder": "http://{server}/mirror/"}}, ""),
    "download-unreachable": ({"server": {"folder": "http://127.0.0.1:1/x/"}}, ""),
    "download-broken": ({"faults": ["wininet!InternetReadFile 1 error=12030"]}, "-SILENT"),
    "download-file-in-the-way": ({"files": {FINAL: "old"}, "held": [FINAL]}, ""),
    "folder-not-prepared": (found(files={EXTRACTED + r"\old": "x"}, held=[EXTRACTED + r"\old"]), ""),
    "store-error": (store_only(package(), service={"end": "error:0x80070005:The Store is closed."}), ""),
    "store-installed": (store_only(package()), ""),
    "direct-done": (given(store={"packages": [package()]}), SWITCHES),
    "direct-busy": (given(faults=["msi!MsiInstallProductW 2 return=1618"], desktop={}), SWITCHES),
    "direct-file-missing": ({}, r'-VLT -Install -Path "Z:\None\setup.exe"'),
    "interrupted": ({"faults": ["wininet!InternetReadFile 1 exit=9"]}, ""),
}


def told(log: list[str]) -> tuple[Story, str]:
    """The machine that the log tells about, its exit code not known, and the comparison of the log with itself."""
    certain = [one for one in outcomes.catalogue() if not one.fallback and one.matches(None, log)]
    story = Story(Told("customer.log", log), is_unfinished=not certain)
    return story, "\n".join(line for line in from_log.compare(story, log) if not line.startswith(" "))


@pytest.mark.parametrize("name", RUNS)
def test_the_machine_of_a_log_has_the_same_outcome_and_log(lab, name):
    outcome = name.partition(":")[0]
    machine, arguments = RUNS[name]
    log = lab.run(machine, arguments).log
    lab.outcome(outcome)
    story, difference = told(log)
    assert difference == "" and tomllib.loads(story.toml()) == story.machine
    again = lab.run(story.machine, story.arguments, when=story.when)
    lab.outcome(outcome)
    changed = [line for line in from_log.compare(story, again.log) if not line.startswith(" ")]
    assert [line for line in changed if "failed. Error code" not in line] == [], "only the reason why an installer is blocked may differ"


def lab_run(*arguments: object) -> subprocess.CompletedProcess[str]:
    return subprocess.run([str(paths.ROOT / "lab" / "run"), *map(str, arguments)], capture_output=True, text=True, check=False)


def test_an_archive_from_another_pc_is_read_run_and_compared(lab, tmp_path: pathlib.Path):
    """As the companion's collect leaves it: UTF-8, names replaced, with the facts. The texts are another Windows'."""
    lines = lab.run(given("24.20-fail"), SWITCHES).log
    lab.outcome("direct-failed")
    text = "\r\n".join(lines).replace(TEMP, "D:\\Users\\<user1>\\Temp\\").replace(GIVEN, r"\\<computer1>\share\setup.exe") + "\r\n"
    name = "InstallVLTForWUDriver_2024-7-1_9-5-7-12.log"
    facts = {"last_run": {"log": rf"C:\Program Files\Tavik\MIM\Log\{name}", "tool_code": 3}}
    file, machine = tmp_path / "TavikToolLogs.zip", tmp_path / "customer.toml"
    with zipfile.ZipFile(file, "w") as archive:
        archive.writestr(name.replace("2024-7", "2024-11"), "nothing")
        archive.writestr(name, text)
        archive.writestr("facts.json", json.dumps(facts))
    assert from_log.read(file, name="2024-7-1").exit_code == 3
    done = lab_run("--from", file, "--log", "2024-7-1", machine)
    assert done.returncode == 0, done.stdout + done.stderr
    assert r"assumed     \\<computer1>\share\setup.exe is C:\computer1\share\setup.exe here" in done.stdout
    assert "this one (+): no lines differ\n\noutcome" in done.stdout and "log: direct-failed; here: direct-failed" in done.stdout
    assert re.search(r"^exit code   3$", done.stdout, re.M)
    assert tomllib.loads(machine.read_text("utf-8"))["files"] == {r"C:\computer1\share\setup.exe": {"installer": "24.20"}}

    corrected = machine.read_text("utf-8").replace("error=1603", "error=1618")
    machine.write_text(corrected, "utf-8")
    again = lab_run("--from", file, "--log", "2024-7-1", machine)
    assert again.returncode == 3 and "customer.toml, which exists and is used as it is" in again.stdout, again.stdout + again.stderr
    assert "assumed " not in again.stdout and machine.read_text("utf-8") == corrected
    assert "this one (+): 2 lines differ" in again.stdout and "  - \tResult = 1603\n  + \tResult = 1618\n" in again.stdout
    newest = lab_run("--from", file)
    assert newest.returncode == 2 and "this is no log of the tool" in newest.stderr
    wrong = lab_run("--from", file, "--log", "2023")
    assert wrong.returncode == 2 and f"it has {name}" in wrong.stderr


@pytest.mark.parametrize("path, here", [(r"C:\My Apps", r"C:\My Apps"), (r"D:\x", r"C:\x"), (r"\\server\a b", r"C:\server\a b"), ("%A%c:x", r"C:\Acx")])
def test_every_path_is_on_the_only_drive(path, here):
    assert Story(Told("x.log", [f'Launched with command line: x.exe -VLT -Install -Path "{path}"']), is_unfinished=True).given == here


UNINSTALLED = [rf"Uninstalling installed {family} C:\windows\Installer\1.msi" for family in ("Halden", "Halden", "DVR")]
STORE = "Attempting to download and install the UWP version of VLT."
EXCEPTION = "\tException occured during the download of dwx2_install.exe. "


@pytest.mark.parametrize("lines, assumed", [
    (UNINSTALLED, "the releases of the installed products: Halden-24.10, DVR-23.40"),
    ([r"Installing C:\x\dwx-next64.msi", "\tResult = 0"], "Windows Installer names Halden to the check, but no longer to the removal"),
    ([STORE, "failed to install the UWP version of VLT"], "the Store's installation ends without an error, in state 1 (3 is completed)"),
    ([STORE, "Error: Unable to initialize with window."], "the code of the Store's window is 0x80004005"),
    (["Exception No. when enumerating info for A_2"], "the package that cannot be read is A_2, version 1.0.0.0"),
    (["Failed writing to file: x"], "no file can be longer than 65536 bytes, as if the disk were full"),
    (["Unable to create file to download data into. Target path: x. Error: 5"], "the temporary download is write-protected"),
    ([EXCEPTION + "filesystem error: create_directory: x"], "a file has the name of the download folder"),
    ([EXCEPTION + "std::bad_alloc"], "there is no memory left when the status of the answer is read"),
    ([r"Launching process C:\x\hlcmd.exe exit failed. Error code = 2 x"], "hlcmd.exe is missing"),
    (["Unable to create VLTUWPReplaced registry key x"], "the marker cannot be written from the installation of DVR on"),
    (["Another instance is running. Exiting."], "the installed version is 23.40"),
    ([], "the adapter is the common machine's"), ([], r"the temporary folder is C:\temp")])
def test_what_no_line_tells_is_named(lines, assumed):
    version = "Currently installed VLT is version [23.40] from driver version [23.40.11.01]"
    story = Story(Told("x.log", ["Launched with command line: x.exe", version, *lines]), is_unfinished=False)
    assert assumed in story.assumed and f"\n#   {assumed}\n" in story.toml()


def test_a_description_is_easy_to_change():
    lines = ["Launched with command line: x.exe", "Enumerating installed drivers for A\\B\\1 - One", "[Two] - [A\\B\\2] is not an Tavik Display Adapter."]
    text = Story(Told("x.log", lines), is_unfinished=False).toml()
    assert "\n#   lab/run THIS_FILE\n" in text and '\n[[adapters]]\nid = "A\\\\B\\\\2"\ndescription = "Two"\n' in text


def test_command_at_the_head_is_for_a_shell():
    path = r"C:\my setups\new\a.exe"
    lines = [rf'Launched with command line: "C:\x y\x.exe" -VLT -Install -Path "{path}" -A="b"', "Unable to create VLTUWPReplaced registry key x"]
    story = Story(Told("x.log", lines), is_unfinished=False)
    command = re.search("^#   (lab/run THIS_FILE .*)$", story.toml(), re.M)[1]
    assert "\\" in story.when[0]
    assert shlex.split(command) == ["lab/run", "THIS_FILE", f"--when={story.when[0]}", "--", "-VLT", "-Install", "-Path", path, '-A="b"']


@pytest.mark.parametrize("name, other", [("customer.log", False), ("other.log", True)])
def test_description_of_another_log_is_named(tmp_path: pathlib.Path, name, other):
    """The description is damaged, so that nothing is run."""
    logs = {one: f"Launched with command line: x.exe -{one}" for one in ("customer.log", "other.log")}
    machine = tmp_path / "customer.toml"
    machine.write_text(Story(Told("customer.log", [logs["customer.log"]]), is_unfinished=True).toml() + "]", "utf-8")
    (tmp_path / name).write_text(logs[name] + "\n", "utf-8")
    done = lab_run("--from", tmp_path / name, machine)
    assert done.returncode == 2 and ("made from another log" in done.stdout) is other, done.stdout + done.stderr


@pytest.mark.parametrize("code, fits", [("-1", True), ("1603", False)])
def test_exit_code_that_the_log_contradicts_is_left_out(tmp_path: pathlib.Path, code, fits):
    """The description is damaged, so that nothing is run."""
    machine, log = tmp_path / "customer.toml", tmp_path / "customer.log"
    machine.write_text("]", "utf-8")
    log.write_text("Launched with command line: x.exe\nCurrently installed VLT is version [24.20] from driver version [24.20.11.01]\n"
                   "Currently installed version of VLT is from the same release as the active driver. Exiting.\n", "utf-8")
    done = lab_run("--from", log, f"--exit={code}", machine)
    assert done.returncode == 2 and ("does not fit this log" in done.stdout) is not fits, done.stdout + done.stderr


def test_facts_say_what_a_log_that_ends_early_does_not():
    inventory = [NOT_THE_MAKERS, "Currently installed drivers on system:"]
    facts = {"inventory": inventory, "desktop": {"families": ["Halden", "PXL"]}}
    lines = ["Launched with command line: x.exe", "Currently installed VLT is version [24.10] from driver version [24.11]"]
    machine = Story(Told("x.log", lines, 9, facts), is_unfinished=True).machine
    assert machine["adapters"] == [{"id": OTHER_ADAPTER["id"], "description": "Other Graphics", "packages": []}]
    assert machine["desktop"] == {"packages": ["Halden-24.10", "PXL-24.10"]}
    assert machine["registry"] == {r"HKLM\Software\Tavik\HL": {"DriverVersion": "24.11"}}
    assert machine["faults"] == ["setupapi!SetupDiGetClassDevsW 1 exit=9"]


def test_another_outcome_is_reported(tmp_path: pathlib.Path):
    """The lab cannot bring about this end: its run is another one."""
    log = tmp_path / "customer.log"
    log.write_text('Launched with command line: x.exe -SILENT\nCurrently installed VLT is version [24.20] from driver version [24.20.11.01]\n'
                   "Currently installed drivers on system:\n\t [Tavik] [24.20] []\n\tException occured during installation. bad\n", "utf-8")
    done = lab_run("--from", log, tmp_path / "customer.toml")
    assert done.returncode == 3, done.stdout + done.stderr
    assert "assumed     the lab cannot bring about this exception" in done.stdout and "- \tException occured" in done.stdout


def test_second_start_of_the_command_gets_its_switches():
    done = lab_run(paths.ROOT / "lab" / "machines" / "found.toml", "--then", "-SILENT", "--", "-SILENT")
    assert done.returncode == 0, done.stderr
    assert "second start: exit code -1, outcome same-release" in done.stdout
    assert done.stdout.count('TavikCompatibilityTool.exe" -SILENT') == 2
