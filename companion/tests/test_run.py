"""`run`: the tool in a safe place, what is remembered of it, and the recovery of products that a run has lost. In a session without a user, as
deployment systems start it."""
from __future__ import annotations

import contextlib
import json
import pathlib
import re
import shutil
import signal
import subprocess
import threading
import time
from collections.abc import Iterator
from typing import Any

import pefile
import pytest

from cases.support.direct import HOME
from cases.support.repair import FAMILIES, PACKAGES, found
from companion import outcomes
from companion.tests.desk import COMPANION, LAST, SAME, utf16
from lab import paths, state
from lab.hive import Hive
from lab.machine import Machine
from lab.prefix import wine_version
from lab.result import Result
from lab.run import run
from lab.session import Session, read_log, remove_folder

PLACE = r"C:\Program Files\Tavik\MIM\Repair"
TEMP, KEPT = PLACE + r"\Temp", PLACE + r"\Kept"
LAST_RUN = r"Software\Tavik\RepairTool\LastRun"
NO_USER = 'wtsapi32!WTSQuerySessionInformationW * return=1 text=""'
MAIN = "msi!MsiInstallProductW * if=package~dwx-next64"  # the installation of the main package
DVR, PXL = (f"msi!MsiInstallProductW * if=package~{name}" for name in ("tavikdvr64", "PXL64"))


def start(description: dict[str, Any], arguments: str, **options: Any) -> tuple[Result, list[dict[str, Any]]]:
    """The companion starts the tool on that machine; what it printed, behind what it wrote to the standard error."""
    files = {**description.get("files", {}), COMPANION: {"copy": str(paths.need(paths.COMPANION))}}
    described = {**description, "files": files, "faults": [NO_USER, *description.get("faults", [])]}
    result = run(Machine(described), f"run {arguments}", program=COMPANION, **options)
    return result, [json.loads(text.splitlines()[-1]) for text in result.output]


class Fleet:
    """A machine on which `run` is started again and again."""

    def __init__(self, session: Session) -> None:
        self.session = session

    def run(self, *faults: str, arguments: str = "-- -SILENT", **options: Any) -> tuple[str, int]:
        """Outcome and code, with these calls of the tool and of the companion failing."""
        rules = self.session.lab / "standins" / "faults.txt"
        rules.write_text("".join(rule + "\n" for rule in (NO_USER, *faults)), "utf-8")
        output = self.session.lab / "output-0.txt"
        output.unlink(missing_ok=True)  # a tool that goes on may hold it
        self.session.watch(f"run {arguments}", program=COMPANION, **options)
        self.said = json.loads(output.read_text("utf-8").splitlines()[-1])
        report = json.loads((self.session.lab / "report.json").read_text("utf-8"))
        assert report["instances"][0]["exit_code"] == self.said["code"]
        calls = self.session.lab / "standins" / "calls.txt"  # none if nothing was asked of a stand-in
        assert "!bad" not in (calls.read_text("utf-8") if calls.exists() else "")
        return self.said["outcome"], self.said["code"]

    def remembered(self) -> dict[str, Any]:
        """The values of LastRun; ends the machine's programs, like a restart."""
        return self.restart().registry[LAST_RUN]

    def restart(self) -> state.State:
        """What is on the machine. Every process is killed, as by a power cut; what was written is on the disk."""
        self.session.prefix.stop()
        found = state.read(self.session.drive, Hive(self.session.prefix.path / "system.reg"))
        self.session.prefix.start()
        return found

    def log(self) -> list[str]:
        return self.session.logs()[-1]

    def has(self, path: str) -> bool:
        return self.session.drive.joinpath(*path.split("\\")[1:]).exists()


@contextlib.contextmanager
def fleet(description: dict[str, Any]) -> Iterator[Fleet]:
    files = {**description.get("files", {}), COMPANION: {"copy": str(paths.need(paths.COMPANION))}}
    with Session(Machine({**description, "files": files, "faults": [NO_USER], "standins": ["msi"]})) as session:
        yield Fleet(session)
    remove_folder(session.folder)


def whole(release: str = "24.20", *families: str) -> list[str]:
    return sorted(f"Tavik {family} {release}" for family in families or FAMILIES)


# What the tool is given, and what comes back

@pytest.mark.parametrize("description, exit_code, outcome, code", [
    (found(), 0, "repaired", 0), ({"desktop": {"release": "24.20"}}, -1, "same-release", 0),
    (found("24.20-nomain"), 2, "installer-empty", 1603),
    (found(files={r"C:\Program Files\Tavik\MIM\Log": "a file"}), 3, "no-log-folder", 1603)],
    ids=["repaired", "same release", "no package", "no log"])
def test_a_run_of_the_tool(description, exit_code, outcome, code):
    switches = r'-SILENT "C:\My Files\x" "" "C:\ends with\\" "a\"b" "\\\"" a\\b "c c\\"'
    result, (said,) = start(description, f"-- {switches}")
    assert (said["exit"], said["outcome"], said["code"], result.exit_code) == (exit_code, outcome, code, code)
    if said["log"] is None:
        assert result.logs == []
    else:
        assert re.search(rf"TavikCompatibilityTool\.exe\" -run=\d+-\d+ {re.escape(switches)}$", result.log[0]) and said["lines"] == len(result.log)


@pytest.mark.parametrize("switch, outcome, code", [("", "timed-out", 1618), ("--kill ", "timed-out-ended", 1603)], ids=["goes on", "ended"])
def test_a_run_that_takes_too_long(switch, outcome, code):
    """No user answers the message box."""
    result, (said,) = start({"desktop": {"release": "24.20"}}, f"--timeout 3 {switch}")
    assert (said["outcome"], said["code"], result.exit_code) == (outcome, code, code)
    assert said["evidence"] == [result.log[-1]] and said["exit"] == (1460 if switch else None)


def test_a_tool_that_cannot_be_started(desk):
    code, text, errors = desk.run("run", "--", "-SILENT")
    said = json.loads(text)
    assert (said["outcome"], said["code"], code) == ("not-started", 1603, 1603 & 0xFF)
    assert r"C:\lab\TavikCompatibilityTool.exe: error 2" in errors and said["evidence"][0] in errors


def test_a_run_without_an_output(desk):
    """The exit code still reports the outcome."""
    errors = desk.folder / "errors.txt"
    with open("/dev/full", "wb") as full, open(errors, "wb") as beside:  # no pipe: Wine's services would hold it open
        ended = subprocess.run([paths.WINE, COMPANION, "run"], env=desk.prefix.environment(), stdin=subprocess.DEVNULL, stdout=full,
                               stderr=beside, timeout=60, check=False)
    assert ended.returncode == 1603 & 0xFF and b"TavikToolCompanion: the output cannot be written: error " in errors.read_bytes()


def wait_for(file: pathlib.Path) -> None:
    limit = time.monotonic() + 60
    while not file.exists():
        assert time.monotonic() < limit, f"{file.name} never came"
        time.sleep(0.05)


@pytest.mark.parametrize("switch", [(), ("--kill",)], ids=["goes on", "ended"])
def test_a_tool_that_has_ended_when_the_time_limit_is_noticed(desk, switch):
    """The companion is stopped from before the limit until after the tool's end."""
    begun, over = (desk.prefix.windows_path(rf"C:\lab\{name}") for name in ("begun", "over"))
    desk.put(rf"C:\Program Files\Tavik\MIM\Log\{LAST}", utf16(SAME))  # newer, but of another run
    begun.unlink(missing_ok=True)
    over.unlink(missing_ok=True)
    process = subprocess.Popen([paths.WINE, COMPANION, "run", "--timeout", "1", *switch, "--tool", r"C:\windows\system32\cmd.exe", "--", "/c",
                                r"echo %TMP%%TEMP%>C:\lab\begun & ping -n 3 127.0.0.1 >nul & echo x>C:\lab\over & exit 9"],
                               env=desk.prefix.environment(), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    wait_for(begun)
    process.send_signal(signal.SIGSTOP)
    wait_for(over)
    time.sleep(0.5)  # its very end
    process.send_signal(signal.SIGCONT)
    said = json.loads(process.communicate(timeout=60)[0])
    assert (said["exit"], said["outcome"]) == (9, "no-log")
    assert begun.read_text("ascii").strip() == TEMP * 2


# The safe place

# Proves: `run` starts the tool => it gets a new temporary folder that only administrators can enter, which is removed afterwards
def test_the_temporary_folder_is_made_anew_and_for_administrators_only():
    """Wine keeps the rights of owner, group and others only. The tool goes on after the time limit, so its folder stays."""
    old = TEMP + r"\Tavik_VLTInstallerDownload\LPInstaller\planted.txt"
    result, (said,) = start(found(files={old: "planted"}, faults=[f"{MAIN} sleep=4000"]), "--timeout 2 -- -SILENT", keep=True)
    rights = result.file(TEMP).stat().st_mode & 0o007
    remove_folder(pathlib.Path(result.prefix))
    place = TEMP + r"\Tavik_VLTInstallerDownload\LPInstaller"
    assert said["outcome"] == "timed-out" and rights == 0
    assert f"/D={place} completed" in "".join(result.log) and place + PACKAGES["Halden"] in result.after.files
    assert old not in result.after.files and not any("users" in path and "LPInstaller" in path for path in result.after.files)


# Proves: A silent run in a session without a user, as under SYSTEM => repaired, in the temporary folder that `run` prepares
def test_what_a_run_leaves():
    result, (said,) = start(found(), "-- -SILENT", keep=True)
    assert said["outcome"] == "repaired" and result.after.products == ["Tavik Halden 24.20"] and result.boxes == []
    rights = result.file(PLACE).stat().st_mode & 0o007
    remove_folder(pathlib.Path(result.prefix))
    assert [path for path in result.after.files if path.startswith(PLACE)] == [PLACE, PLACE + r"\Lock"] and rights == 0
    assert not any("Tavik_VLTInstallerDownload" in path for path in result.after.files)


# Proves: Something else has the name of the folder that `run` works in => it is removed; nothing is done through a link
@pytest.mark.parametrize("there, outcome", [("a file", "same-release"), ({"link": r"C:\elsewhere"}, "not-started")], ids=["file", "link"])
def test_something_else_in_the_place_of_the_folder(there, outcome):
    """Wine cannot remove a link to a folder with a file in it; Windows can."""
    elsewhere = {r"C:\elsewhere\precious.txt": "x", PLACE: there}
    result, (said,) = start(found(desktop={"release": "24.20"}, files=elsewhere, registry={rf"HKLM\{LAST_RUN}": {"Outcome": "running"}}), "-- -SILENT")
    assert said["outcome"] == outcome and r"C:\elsewhere\precious.txt" in result.after.files and r"C:\elsewhere\Lock" not in result.after.files
    assert bool(result.logs) is (outcome == "same-release")
    # Without the folder it is not known whether another run goes on: what is remembered may belong to that.
    assert result.after.value(LAST_RUN, "Outcome") == ("running" if outcome == "not-started" else outcome)


def test_no_temporary_folder_can_be_made():
    """Wine cannot remove a link to a folder with a file in it. A later run cannot do better, so the code is no invitation to try again."""
    links = {TEMP + str(number): {"link": r"C:\elsewhere"} for number in ("", *range(2, 10))}
    result, (said,) = start(found(files={r"C:\elsewhere\x": "x", **links}), "-- -SILENT")
    assert (said["outcome"], said["code"], result.logs, result.after.value(LAST_RUN, "Outcome")) == ("not-started", 1603, [], "not-started")


# Proves: `run` is started while a repair is in progress => nothing is started, code 1618; what is remembered belongs to the other run
def test_two_runs_at_once():
    machine = found(installer={"sleep": 2500})
    result, said = start(machine, "-- -SILENT", when=["log Found dwx2 : second run -- -SILENT"])
    assert [one["outcome"] for one in said] == ["repaired", "tool-running"]
    assert [one["exit_code"] for one in result.instances] == [0, 1618] and len(result.logs) == 1
    assert result.after.value(LAST_RUN, "Outcome") == "repaired"


# Proves: A user without rights runs a program of the tool's name => `run` does not take it for the tool (shown on Wine 10; Wine 8 gives all rights to every program)
@pytest.mark.parametrize("name, tool", [pytest.param("TavikCompatibilityTool.exe", "", marks=pytest.mark.quick, id="its name"),
                                        pytest.param("other.exe", r"C:\somewhere\other.exe", id="remembered")])
def test_a_tool_that_was_started_elsewhere(name, tool):
    """From another folder: its name, or its path in LastRun, and its rights decide. This program's manifest asks for none."""
    other = rf"C:\somewhere\{name}"
    stays = {other: {"program": "CorvelSoftware.exe"}}
    result, (said,) = start(found(files=stays, running=[other], registry={rf"HKLM\{LAST_RUN}": {"Tool": tool}}), "-- -SILENT")
    assert (said["outcome"], result.exit_code) == (("tool-running", 1618) if wine_version() < 10 else ("repaired", 0))
    assert (result.logs == []) is (wine_version() < 10)


# Proves: `run --keep` => both programs are in the protected folder, and stay there
def test_the_programs_are_kept():
    with fleet(found()) as machine:
        assert machine.run(arguments="--keep -- -SILENT") == ("repaired", 0)
        assert machine.run() == ("same-release", 0)
        after = machine.restart()
        kept = {path.rpartition("\\")[2]: size for path, size in after.files.items() if path.startswith(PLACE + r"\Programs" + "\\")}
        assert kept == {program.name: program.stat().st_size for program in (paths.COMPANION, paths.TOOL)}
        # The texts of the entries in the Application log come from the kept program, which stays.
        assert r"Repair\\Programs\\TavikToolCompanion.exe" in (machine.session.prefix.path / "system.reg").read_text("utf-8")


def test_kept_programs_have_their_names_and_can_be_replaced():
    files = {r"C:\x\other.exe": {"copy": str(paths.TOOL)}}
    with fleet({"desktop": {"release": "24.20"}, "files": files}) as machine:
        machine.session.drive.joinpath("x", "other.exe").chmod(0o444)
        for _ in range(2):
            assert machine.run(arguments=r"--keep --tool C:\x\other.exe -- -SILENT") == ("same-release", 0)
        kept = machine.session.drive.joinpath(*PLACE.split("\\")[1:], "Programs", "TavikCompatibilityTool.exe")
        assert kept.stat().st_mode & 0o200 and not kept.with_name(kept.name + ".new").exists()


# The application is in use

# Proves: `run --unless-in-use` is started while the application is open => nothing is started, code 1618; without it the machine is repaired
@pytest.mark.parametrize("program, option, outcome", [
    (HOME + r"\CorvelSoftware.exe", "--unless-in-use ", "in-use"), (HOME + r"\CorvelSoftware.exe", "", "repaired"),
    (HOME + r"\TavikLPServ.exe", "--unless-in-use ", "repaired"), (r"C:\x\CorvelSoftware.exe", "--unless-in-use ", "repaired")],
    ids=["in use", "without the option", "background", "elsewhere"])
def test_the_application_is_open(program, option, outcome):
    copy = {program: {"program": "CorvelSoftware.exe"}} if program != HOME + r"\CorvelSoftware.exe" else {}
    result, (said,) = start(found(running=[program], files=copy), option + "-- -SILENT")
    assert (said["outcome"], result.exit_code) == (outcome, 1618 if outcome == "in-use" else 0)
    assert (result.logs == []) is (outcome == "in-use") and result.after.value(LAST_RUN, "Outcome") == outcome


# What is remembered

# Proves: `run` has ended => outcome, codes, times, releases and log are in the registry, and an entry is in the Application log
def test_the_registry_after_a_run():
    result, (said,) = start(found(), "-- -SILENT")
    values = result.after.registry[LAST_RUN]
    times = [values.pop("Started"), values.pop("Ended")]
    assert all(re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", one) for one in times) and times == sorted(times)
    assert values.pop("Mark") in result.log[0]
    assert values == {
        "Outcome": "repaired", "Title": "Repaired", "Code": 0, "ToolCode": 0, "Release": "24.20.11.01", "VersionBefore": "23.40", "VersionAfter": "24.20",
        "Log": rf"C:\Program Files\Tavik\MIM\Log\{said['log']}", "Attempt": 1, "ProductsBefore": 0, "ProductsLost": 0, "RecoveryPending": 0,
        "RecoveryFailures": 0, "RecoveryAttempts": "", "KeptInstaller": "", "KeptRelease": "", "Tool": r"C:\lab\TavikCompatibilityTool.exe"}


def test_attempts_are_counted_until_one_succeeds():
    with fleet(found("24.20-nomain")) as machine:
        assert [machine.run() for _ in range(2)] == [("installer-empty", 1603)] * 2
        assert machine.remembered()["Attempt"] == 2
        assert machine.run(arguments="--unless-in-use -- -SILENT", when=()) == ("installer-empty", 1603)
        assert machine.remembered()["Attempt"] == 3


# Proves: `run` has ended
def test_the_entry_in_the_application_log(desk):
    """Wine traces an entry: its kind and id in the call, then its texts."""
    desk.prefix.wine("reg", "add", r"HKCU\Software\Wine\Debug", "/v", "RelayInclude", "/d", "advapi32.ReportEventW")
    desk.prefix.variables["WINEDEBUG"] = "+winediag,+relay"
    _, _, traced = desk.run("run", "--tool", r"C:\none.exe")
    del desk.prefix.variables["WINEDEBUG"]
    kind, number = re.search(r"Call advapi32\.ReportEventW\(\w+,(\w+),\w+,(\w+),", traced).groups()
    assert (int(kind, 16), int(number, 16)) == (1, 905)
    texts = re.findall(r'ReportEventW L"(.*)"', traced)
    assert texts[:6] == ["not-started", "1603", *"----"] and texts[6].isdigit() and texts[7] == "-" and "none.exe: error 2" in texts[8]
    shown = desk.folder / "source.txt"
    desk.prefix.wine("reg", "query", r"HKLM\SYSTEM\CurrentControlSet\Services\EventLog\Application\TavikToolCompanion", "/v", "EventMessageFile", output=shown)
    assert shown.read_text("utf-8").split()[-1] == COMPANION


# Proves: An outcome of the catalogue
def test_every_outcome_has_a_text_for_its_event():
    program = pefile.PE(str(paths.need(paths.COMPANION)))
    table = next(one for one in program.DIRECTORY_ENTRY_RESOURCE.entries if one.id == pefile.RESOURCE_TYPE["RT_MESSAGETABLE"])
    place = table.directory.entries[0].directory.entries[0].data.struct
    data = program.get_data(place.OffsetToData, place.Size)
    texts = {}
    for number in range(int.from_bytes(data[:4], "little")):
        low, high, offset = (int.from_bytes(data[4 + 12 * number + at:8 + 12 * number + at], "little") for at in (0, 4, 8))
        length = int.from_bytes(data[offset:offset + 2], "little")
        assert low == high and data[offset + 2:offset + 4] == b"\1\0" and length % 4 == 0
        texts[low] = data[offset + 4:offset + length].decode("utf-16-le").rstrip("\0")
    assert set(texts) == {one.event for one in outcomes.catalogue()}
    for one in outcomes.catalogue():
        assert texts[one.event].startswith(one.title + ". ") and texts[one.event].endswith("\r\nDetails: %9\r\n")


# Recovery: the old product was removed and the new one not installed

def check_repaired(machine: Fleet, products: list[str]) -> None:
    after = machine.restart()
    values = after.registry[LAST_RUN]
    assert after.products == products
    assert (values["RecoveryPending"], values["KeptInstaller"], values["ProductsLost"], values["Code"]) == (0, "", 0, 0)
    assert not [path for path in after.files if path.startswith(PLACE) and path not in (PLACE, PLACE + r"\Lock")]


# Proves: The tool has removed the application and not installed it => code 1618, the next `run` installs the kept installer
@pytest.mark.parametrize("rule, tool", [(f"{MAIN} return=1618", "install-busy"), (f"{MAIN} return=1603", "install-failed"), (f"{MAIN} exit=9", "interrupted")],
                         ids=["busy once", "fails once", "tool killed"])
@pytest.mark.parametrize("source", [{}, {"adapters": [{}], "server": {}}], ids=["driver package", "download"])
def test_the_application_is_installed_by_the_next_run(rule, tool, source):
    with fleet({**found(desktop={"families": list(FAMILIES)}), **source}) as machine:
        assert machine.run(rule) == ("recovery-pending", 1618)
        assert machine.said["evidence"][0].startswith(tool + ": ")
        values = machine.remembered()
        assert (values["RecoveryPending"], values["ProductsLost"] & 1, values["RecoveryFailures"], values["KeptRelease"]) == (1, 1, 0, "24.20.11.01")
        assert values["KeptInstaller"].startswith(KEPT) and machine.has(values["KeptInstaller"]) and not machine.has(TEMP)
        assert machine.run() == ("recovered", 0)
        assert f'-VLT -Install -Path "{values["KeptInstaller"]}" -SILENT' in machine.log()[0]
        check_repaired(machine, whole())


def test_the_recovery_needs_a_restart():
    with fleet(found("24.20-reboot")) as machine:
        assert machine.run(f"{MAIN} return=1618") == ("recovery-pending", 1618)
        assert machine.run() == ("recovered-restart", 3010)
        assert machine.restart().registry[LAST_RUN]["RecoveryPending"] == 0


# Proves: The recovery fails again and again => code 1603 from the third time on, with what was tried; a further `run` tries once more
def test_the_application_cannot_be_installed_at_all():
    with fleet(found()) as machine:
        rule = f"{MAIN} return=1603"
        assert [machine.run(rule) for _ in range(3)] == [("recovery-pending", 1618)] * 3
        assert machine.run(rule) == ("recovery-failed", 1603)
        assert len(re.findall("install-failed: ", machine.said["evidence"][1])) == 1 and len(re.findall("direct-failed: ", machine.said["evidence"][1])) == 3
        values = machine.remembered()
        assert (values["RecoveryPending"], values["RecoveryFailures"], values["Attempt"]) == (1, 3, 4)
        assert machine.run() == ("recovered", 0)
        check_repaired(machine, whole())


REMOVAL = "msi!MsiInstallProductW * if=properties~REMOVE=ALL"


# Proves: The tool is ended while Windows Installer removes the application, which ends later => the next `run` installs it
@pytest.mark.parametrize("ends", [{"exit=9": "interrupted"}, {"exit=9": "interrupted", "return=1618": "install-busy"}, {"exit=9": "interrupted", "return=1603": "install-failed"},
                                  {"return=1618": "install-busy"}, {"sleep=60000": "timed-out-ended"}],
                         ids=["next run", "busy in between", "failed in between", "not of this tool", "ended by run"])
def test_a_removal_that_ends_after_the_tool(ends):
    """Here Windows Installer works inside the tool, so the removal is done by hand."""
    with fleet(found()) as machine:
        for what, outcome in ends.items():
            assert machine.run(f"{REMOVAL} {what}", f"{MAIN} {what}", arguments=("--timeout 4 --kill " if "sleep" in what else "") + "-- -SILENT")[0] == outcome
        assert machine.remembered()["ProductsBefore"] == 1
        remove_application(machine)
        assert machine.run() == ("recovered", 0)
        check_repaired(machine, whole())
        assert machine.remembered()["ProductsBefore"] == 0


# Proves: Optional packages cannot be installed again => from the fourth `run` on the tool is started, and the code stays 1603
@pytest.mark.parametrize("failures, outcome, code, release", [(0, "recovery-pending", 1618, "23.40"), (3, "recovery-failed", 1603, "24.20")], ids=["first", "fourth"])
def test_lost_packages_do_not_keep_the_tool_from_its_work(failures, outcome, code, release):
    lost = {"RecoveryPending": 1, "ProductsLost": 2, "RecoveryFailures": failures}
    result, (said,) = start(found(registry={rf"HKLM\{LAST_RUN}": lost}), "-- -SILENT")
    assert (said["outcome"], said["code"], result.after.products) == (outcome, code, whole(release, "Halden"))
    assert result.after.registry[LAST_RUN]["RecoveryFailures"] == failures + 1


# Proves: The power fails between removal and installation => the next `run` installs the application
def test_a_power_cut_between_removal_and_installation():
    with fleet({"desktop": {"families": list(FAMILIES)}}) as machine:
        cut = threading.Thread(target=cut_power, args=(machine,))
        cut.start()
        with contextlib.suppress(Exception):  # the watcher dies with the machine
            machine.run(f"{MAIN} sleep=60000")
        cut.join()
        after = machine.restart()
        assert (after.registry[LAST_RUN]["Outcome"], after.registry[LAST_RUN]["ProductsBefore"], after.products) == ("running", 7, [])
        assert machine.run() == ("recovered", 0)
        check_repaired(machine, whole())


def cut_power(machine: Fleet) -> None:
    limit = time.monotonic() + 50
    while time.monotonic() < limit:
        with contextlib.suppress(OSError, IndexError):
            if any(line.startswith("Installing ") for line in machine.log()):
                break
        time.sleep(0.05)
    machine.session.prefix.stop()
    machine.session.prefix.start()


# Proves: The disk is full while the installer unpacks => repaired by the next `run` when there is room, red when there is not
@pytest.mark.parametrize("description, ends", [
    ({"largest_file": 200_000}, [("recovered", 0)]),
    ({"disks": {PLACE.removesuffix(r"\Repair"): 200_000}}, [("recovery-pending", 1618)] * 2 + [("recovery-failed", 1603)])],
    ids=["for a while", "for ever"])
def test_the_disk_is_full_while_unpacking(description, ends):
    """The disk is not mounted at the folder itself: Wine shows a mounted folder as a link, and `run` removes links."""
    with fleet(found(**description)) as machine:
        assert machine.run() == ("recovery-pending", 1618)
        if "largest_file" in description:
            machine.session.launcher = ()
        assert [machine.run() for _ in ends] == ends
        after = machine.restart()
        assert after.products == (whole() if ends[-1][1] == 0 else [])


# Proves: An optional package was removed and not installed => the next `run` installs it from the kept folder
def test_an_optional_package_is_installed_by_the_next_run():
    with fleet(found(desktop={"families": list(FAMILIES)})) as machine:
        assert machine.run(f"{DVR} return=1618", f"{PXL} return=1618") == ("recovery-pending", 1618)
        assert machine.said["evidence"][0].startswith("repaired-optional-failed: ")
        assert machine.run(f"{DVR} return=1603") == ("recovery-pending", 1618)
        assert machine.said["evidence"][0] == "packages: DVR 1603, PXL 0"
        assert machine.run() == ("recovered", 0) and machine.said["evidence"] == ["packages: DVR 0"]
        check_repaired(machine, whole())


def test_an_optional_package_that_needs_a_restart():
    with fleet(found(desktop={"families": list(FAMILIES)})) as machine:
        assert machine.run(f"{DVR} return=1618") == ("recovery-pending", 1618)
        kept = machine.session.prefix.windows_path(KEPT + r"\Tavik_VLTInstallerDownload\LPInstaller" + PACKAGES["DVR"])
        shutil.copy(paths.need(paths.PACKAGES / "DVR-23.40-reboot.msi"), kept)
        assert machine.run() == ("recovered-restart", 3010)


# Proves: The tool goes on after the time limit => the next `run` waits for its end and recovers what it has lost
def test_the_tool_ends_after_the_time_limit_without_the_application():
    with fleet(found()) as machine:
        assert machine.run(f"{MAIN} sleep=6000 return=1618", arguments="--timeout 2 -- -SILENT") == ("timed-out", 1618)
        assert machine.run() == ("tool-running", 1618)
        wait = time.monotonic() + 30
        while machine.log()[-1] != "\tResult = 1618" and time.monotonic() < wait:
            time.sleep(0.1)
        time.sleep(0.5)
        assert machine.run() == ("recovered", 0)
        check_repaired(machine, whole())


# Proves: The recovery takes longer than the time limit of the tool => it is not ended
def test_a_time_limit_does_not_end_the_recovery():
    with fleet(found()) as machine:
        assert machine.run(f"{MAIN} return=1618") == ("recovery-pending", 1618)
        assert machine.run(f"{MAIN} sleep=5000", arguments="--timeout 2 -- -SILENT") == ("recovered", 0)


# Proves: Windows Installer is busy whenever `run` recovers => code 1618 again and again
def test_a_busy_windows_installer_is_no_failed_recovery():
    with fleet(found(desktop={"families": list(FAMILIES)})) as machine:
        rule = f"{DVR} return=1618"
        assert [machine.run(rule) for _ in range(5)] == [("recovery-pending", 1618)] * 5
        assert machine.run() == ("recovered", 0)
    with fleet(found()) as machine:
        rule = f"{MAIN} return=1618"
        assert [machine.run(rule) for _ in range(5)] == [("recovery-pending", 1618)] * 5


# Proves: A direct installation by hand fails while a recovery is pending => what is kept stays, and the next `run` recovers
@pytest.mark.parametrize("rule, wrong, how", [(DVR, "no program", "packages: DVR 0"), (MAIN, {"installer": "24.20-nomain"}, "direct-done")], ids=["package", "application"])
def test_a_failed_attempt_by_hand_costs_nothing_that_is_kept(rule, wrong, how):
    with fleet(found(desktop={"families": list(FAMILIES)}, files={r"C:\wrong.exe": wrong})) as machine:
        assert machine.run(f"{rule} return=1618") == ("recovery-pending", 1618)
        assert machine.run(arguments=r"-- -VLT -Install -Path C:\wrong.exe -SILENT")[1] == 1618
        assert machine.run() == ("recovered", 0) and machine.said["evidence"] == [how]


def remove_application(machine: Fleet) -> None:
    package, = machine.restart().local_packages.values()
    machine.session.prefix.wine("msiexec", "/x", package, "/qn")


# Proves: A user removes the application after a run has ended => it is not installed again
def test_an_application_that_a_user_removes_stays_away():
    with fleet(found()) as machine:
        assert machine.run() == ("repaired", 0)
        remove_application(machine)
        assert machine.run() == ("no-application", 0)
        assert machine.remembered()["RecoveryPending"] == 0


# Proves: A run was interrupted and the application is gone, although the log shows no removal => red, because a power cut can cost the log's end
def test_an_interrupted_run_never_ends_green_without_the_application():
    with fleet({"server": {"answers": {"/drivers/installer/vlt/24.20/dwx2_install.txt": {"installer": "24.20", "pause": [1000, 60]}}}}) as machine:
        assert machine.run(arguments="--timeout 2 -- -SILENT") == ("timed-out", 1618)
        remove_application(machine)
        assert machine.run() == ("recovery-failed", 1603) and machine.said["evidence"][0] == "no installer"


# Proves: The kept installer is gone => another one is looked for, for example in the driver's package
def test_a_kept_installer_that_is_gone():
    with fleet(found()) as machine:
        assert machine.run(f"{MAIN} return=1618") == ("recovery-pending", 1618)
        machine.session.drive.joinpath(*machine.remembered()["KeptInstaller"].split("\\")[1:]).unlink()
        assert machine.run() == ("recovered", 0)
        check_repaired(machine, whole())


# Proves: Products of a pending recovery are there again => nothing is recovered
def test_an_application_that_is_back_is_left_alone():
    with fleet(found()) as machine:
        assert machine.run(f"{MAIN} return=1618") == ("recovery-pending", 1618)
        assert machine.run(arguments=rf'-- -VLT -Install -Path "{machine.remembered()["KeptInstaller"]}" -SILENT') == ("direct-done", 0)
        check_repaired(machine, whole())
        assert machine.run() == ("same-release", 0) and machine.remembered()["Attempt"] == 1
