"""The application's programs are gone before its packages are replaced: asked first, then killed by name, in a fixed order."""
from __future__ import annotations

import re

import pytest

from cases.support.expect import FINISHED, install, remove, stop
from cases.support.repair import INSTALL_KEY, MSI_AGREES, REPAIRED, found, until_unpacked

HOME = r"C:\Program Files\Tavik\Halden"
TASKKILL = r"C:\windows\system32\taskkill.exe"
IMAGES = ("hlcmd.exe", "CorvelSettings.exe", "Corvelsoftware.exe", "tavikow.exe", "TavikLPServ.exe")
DONE = [*remove("Halden"), *install("Halden")]
NOT_FOUND = "failed. Error code = 2 File not found. "


def pretended(**changes):
    """Nothing is really removed or installed."""
    return found(faults=[MSI_AGREES], **changes)


def listening(result) -> dict[str, bool]:
    """The programs that ran before the tool: do they still run?"""
    return {program["command_line"].rpartition("\\")[2]: program["running"] for program in result.started_before}


# Proves: The application is installed
# Proves: A name is not running
@pytest.mark.quick
def test_order_and_wording(lab):
    """The application is asked before it is killed, although both succeed; the lines in full."""
    lab.run(pretended())
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], log=[
        *until_unpacked(),
        r"Process C:\Program Files\Tavik\Halden\hlcmd.exe exit completed with exit code 0",
        r'Process C:\windows\system32\taskkill.exe  /IM "hlcmd.exe" /F completed with exit code 128',
        r'Process C:\windows\system32\taskkill.exe  /IM "CorvelSettings.exe" /F completed with exit code 128',
        r'Process C:\windows\system32\taskkill.exe  /IM "Corvelsoftware.exe" /F completed with exit code 128',
        r'Process C:\windows\system32\taskkill.exe  /IM "tavikow.exe" /F completed with exit code 128',
        r'Process C:\windows\system32\taskkill.exe  /IM "TavikLPServ.exe" /F completed with exit code 128', *DONE])


def test_command_tool_is_started_hidden_in_the_tools_own_folder(lab):
    result = lab.run(pretended())
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED])
    assert len(result.programs) == 1
    line = rf'hlcmd.exe pid=PID; show=0; folder="C:\windows\system32"; command="""{HOME}\hlcmd.exe"" exit"'
    assert re.sub("pid=[0-9]+", "pid=PID", result.programs[0]) == line


# Proves: Programs listen => they end by themselves
def test_programs_that_listen_end_by_themselves(lab):
    names = ["CorvelSoftware.exe", "CorvelSettings.exe"]
    result = lab.run(found(running=[rf"{HOME}\{name}" for name in names]))
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], after=REPAIRED, log=[*until_unpacked(), *stop(), *DONE])
    assert listening(result) == {name: False for name in names}


# Proves: Programs do not listen => they are killed, in any letter case and wherever they lie
def test_programs_that_do_not_listen_are_killed(lab):
    """Four of the five; the letters of a name do not matter."""
    folder = r"C:\Program Files\Tavik"
    programs = [rf"{HOME}\CorvelSettings.exe", rf"{HOME}\CorvelSoftware.exe", rf"{folder}\DVR\tavikow.exe",
                rf"{folder}\PXL\TavikLPServ.exe"]
    names = [program.rpartition("\\")[2] for program in programs]
    families = ("Halden", "DVR", "PXL")
    result = lab.run(found(desktop={"families": list(families)}, running=programs, programs={f"{name}.deaf": True for name in names}))
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], after={"products": ["Tavik DVR 24.20", "Tavik Halden 24.20", "Tavik PXL 24.20"]},
              log=[*until_unpacked(), *stop(running=IMAGES[1:]), *(line for family in families for line in remove(family)),
                   *(line for family in families for line in install(family))])
    assert listening(result) == {name: False for name in names}


def test_every_process_of_a_name_is_killed_wherever_it_lies(lab):
    other = r"C:\Other\corvelSOFTWARE.exe"
    result = lab.run(pretended(files={other: {"program": "CorvelSoftware.exe"}}, programs={"CorvelSoftware.exe.deaf": True},
                               running=[rf"{HOME}\CorvelSoftware.exe", other, other]))
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], log=[*until_unpacked(), *stop(running=("Corvelsoftware.exe",)), *DONE])
    assert [program["running"] for program in result.started_before] == [False] * 3


# Proves: Other programs run => they are left alone
def test_other_programs_are_left_alone(lab):
    names = ["Corvel.exe", "MyCorvelSoftware.exe", "tavikow.exe.exe"]
    programs = [rf"C:\Other\{name}" for name in names]
    result = lab.run(pretended(files={program: {"program": "CorvelSoftware.exe"} for program in programs}, running=programs,
                               programs={f"{name}.deaf": True for name in names}))
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], running=names, log=[*until_unpacked(), *stop(), *DONE])
    assert listening(result) == {name: True for name in names}


# Proves: The command tool refuses => its code is logged, the kills run
def test_a_refusing_command_tool_does_not_matter(lab):
    program = rf"{HOME}\CorvelSoftware.exe"
    result = lab.run(pretended(running=[program], programs={"hlcmd.exe.exit": 3, "hlcmd.exe.ignore": True}))
    polite, *kills = stop(running=("Corvelsoftware.exe",))
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], log=[*until_unpacked(), polite.replace("code 0", "code 3"), *kills, *DONE])
    assert listening(result) == {"CorvelSoftware.exe": False}


# Proves: The command tool is missing
def test_missing_command_tool(lab):
    lab.run(pretended(remove=[rf"{HOME}\hlcmd.exe"], running=[rf"{HOME}\CorvelSettings.exe"]))
    polite, *kills = stop(running=("CorvelSettings.exe",))
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], before={"missing": [rf"{HOME}\hlcmd.exe"]}, log=[
        *until_unpacked(), rf"Launching process {HOME}\hlcmd.exe exit {NOT_FOUND}", *kills, *DONE])


# Proves: The key or the location is missing
@pytest.mark.parametrize("changes", [
    {"remove": [INSTALL_KEY]}, {"remove": [INSTALL_KEY + "@Location"]}, {"registry": {INSTALL_KEY: {"Location": 1}}},
    {"registry": {INSTALL_KEY: {"Location": [HOME]}}}], ids=["no key", "no value", "number", "list"])
def test_unknown_location_is_passed_over_in_silence(lab, changes):
    result = lab.run(pretended(running=[rf"{HOME}\CorvelSoftware.exe"], **changes))
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], log=[*until_unpacked(), *stop("", running=("Corvelsoftware.exe",)), *DONE])
    assert not any(line.startswith("hlcmd.exe") for line in result.programs)


# Proves: The location ends in a backslash
@pytest.mark.parametrize("location", [HOME + "\\", r"C:\My Apps\x y", r"C:\PROG~FBU\Tavik\Halden"])
def test_location_is_taken_as_it_is(lab, location):
    """A backslash at its end gives two."""
    lab.run(pretended(registry={INSTALL_KEY: {"Location": location}},
                      files={r"C:\My Apps\x y\hlcmd.exe": {"program": "hlcmd.exe"}}))
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], log=[*until_unpacked(), *stop(location), *DONE])
    assert len(lab.result.programs) == 1 and lab.result.programs[0].startswith("hlcmd.exe ")


@pytest.mark.parametrize("location, failure", [(r"C:\Gone", "failed. Error code = 3 Path not found. "), ("", NOT_FOUND)])
def test_location_without_command_tool(lab, location, failure):
    lab.run(pretended(registry={INSTALL_KEY: {"Location": location}}))
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], log=[
        *until_unpacked(), rf"Launching process {location}\hlcmd.exe exit {failure}", *stop(""), *DONE])


# Proves: A step does not end within 30 seconds => it is left running, the next one starts
def test_command_tool_that_hangs_is_left_after_half_a_minute_and_killed(lab):
    lab.run(pretended(programs={"hlcmd.exe.stay": "forever"}), timeout=90)
    polite, *kills = stop(running=("hlcmd.exe",))
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], running=[], log=[
        *until_unpacked(), polite.replace("code 0", "code 259"), *kills, *DONE])
    assert 30000 <= lab.result.instances[0]["ended"] - lab.result.instances[0]["started"] < 60000
