"""The application's programs are ended before its packages are replaced: asked first, then killed by name, in a fixed order."""
from __future__ import annotations

import re

import pytest

from cases.support.direct import HOME
from cases.support.expect import install, remove, stop
from cases.support.repair import FAMILIES, INSTALL_KEY, MSI_AGREES, found, installs, products, removes, until_unpacked
from lab.prefix import wine_version

RUNNING = rf"{HOME}\CorvelSoftware.exe"
NOT_FOUND = "failed. Error code = 2 File not found. "


def pretended(**changes):
    """Nothing is really removed or installed."""
    return found(faults=[MSI_AGREES], **changes)


def check(lab, *lines: str, **more) -> None:
    """A repair that is a success. lines: how the programs are stopped."""
    lab.check(outcome="repaired", log=[*until_unpacked(), *lines, *remove("Halden"), *install("Halden")], **more)


def still_running(lab) -> dict[str, bool]:
    """The programs that ran before the tool."""
    return {program["command_line"].rpartition("\\")[2]: program["running"] for program in lab.result.started_before}


# Proves: The application is installed
# Proves: A name is not running
@pytest.mark.quick
def test_order_and_wording(lab):
    """The application is asked, then killed, even if asking succeeds. The lines are compared in full."""
    result = lab.run(pretended())
    check(lab, r"Process C:\Program Files\Tavik\Halden\hlcmd.exe exit completed with exit code 0",
          r'Process C:\windows\system32\taskkill.exe  /IM "hlcmd.exe" /F completed with exit code 128',
          r'Process C:\windows\system32\taskkill.exe  /IM "CorvelSettings.exe" /F completed with exit code 128',
          r'Process C:\windows\system32\taskkill.exe  /IM "Corvelsoftware.exe" /F completed with exit code 128',
          r'Process C:\windows\system32\taskkill.exe  /IM "tavikow.exe" /F completed with exit code 128',
          r'Process C:\windows\system32\taskkill.exe  /IM "TavikLPServ.exe" /F completed with exit code 128')
    [line] = result.programs
    command = rf'hlcmd.exe pid=PID; show=0; folder="C:\windows\system32"; command="""{HOME}\hlcmd.exe"" exit"'
    assert re.sub("pid=[0-9]+", "pid=PID", line) == command, "hidden, in the folder that the tool was started in"


POLITE, *KILLS = stop(running=("Corvelsoftware.exe",))


def located(location: object, **changes) -> dict:
    return pretended(registry={INSTALL_KEY: {"Location": location}}, **changes)


ASKED = {  # name: machine, lines, whether the command tool runs
    "programs listen": (pretended(running=[rf"{HOME}\CorvelSoftware.exe", rf"{HOME}\CorvelSettings.exe"]), stop(), True),
    "command tool refuses": (pretended(running=[RUNNING], programs={"hlcmd.exe.exit": 3, "hlcmd.exe.deaf": True}),
                             [POLITE.replace("code 0", "code 3"), *KILLS], True),
    "command tool is missing": (pretended(running=[RUNNING], remove=[rf"{HOME}\hlcmd.exe"]),
                                [rf"Launching process {HOME}\hlcmd.exe exit {NOT_FOUND}", *KILLS], False),
    # Without a location the application is not asked, and that is not logged.
    "no key": (pretended(running=[RUNNING], remove=[INSTALL_KEY]), KILLS, False),
    "no value": (pretended(running=[RUNNING], remove=[INSTALL_KEY + "@Location"]), KILLS, False),
    # A location is used unchanged.
    "backslash at the end": (located(HOME + "\\"), stop(HOME + "\\"), True),
    "folder with blanks": (located(r"C:\My Apps\x y", files={r"C:\My Apps\x y\hlcmd.exe": {"program": "hlcmd.exe"}}),
                           stop(r"C:\My Apps\x y"), True),
    "short name": (located(r"C:\PROG~FBU\Tavik\Halden"), stop(r"C:\PROG~FBU\Tavik\Halden"), True),
    "folder is gone": (located(r"C:\Gone"), [r"Launching process C:\Gone\hlcmd.exe exit failed. Error code = 3 Path not found. ",
                                            *stop("")], False),
    "empty": (located(""), [rf"Launching process \hlcmd.exe exit {NOT_FOUND}", *stop("")], False),
}


# Proves: Programs listen => they end by themselves
# Proves: The command tool refuses => its code is logged, the kills run
# Proves: The command tool is missing
# Proves: The key or the location is missing
# Proves: The location ends in a backslash
@pytest.mark.parametrize("name", ASKED)
def test_application_is_asked_first(lab, name):
    machine, lines, runs = ASKED[name]
    result = lab.run(machine)
    check(lab, *lines)
    assert not any(still_running(lab).values())
    assert [line.split(" ")[0] for line in result.programs if line.startswith("hlcmd.exe")] == ["hlcmd.exe"] * runs


# Proves: Programs do not listen => they are killed, in any letter case and from any folder
def test_programs_that_do_not_listen_are_killed(lab):
    """Four of the five programs run; the letter case of a name does not matter."""
    folder = r"C:\Program Files\Tavik"
    programs = [rf"{HOME}\CorvelSettings.exe", rf"{HOME}\CorvelSoftware.exe", rf"{folder}\DVR\tavikow.exe", rf"{folder}\PXL\TavikLPServ.exe"]
    names = [program.rpartition("\\")[2] for program in programs]
    lab.run(found(desktop={"families": list(FAMILIES)}, running=programs, programs={f"{name}.deaf": True for name in names}))
    killed = ("CorvelSettings.exe", "Corvelsoftware.exe", "tavikow.exe", "TavikLPServ.exe")
    lab.check(outcome="repaired", after=products("24.20", *FAMILIES),
              log=[*until_unpacked(), *stop(running=killed), *removes(*FAMILIES), *installs(*FAMILIES)])
    assert still_running(lab) == {name: False for name in names}


def test_every_process_of_a_name_is_killed_in_any_folder(lab):
    other = r"C:\Other\corvelSOFTWARE.exe"
    result = lab.run(pretended(files={other: {"program": "CorvelSoftware.exe"}}, programs={"CorvelSoftware.exe.deaf": True},
                               running=[rf"{HOME}\CorvelSoftware.exe", other, other]))
    left = [other.rpartition("\\")[2]] * (0 if wine_version() < 10 else 2)  # Wine 10's taskkill ends only the first of a name
    check(lab, *stop(running=("Corvelsoftware.exe",)), running=left)
    assert [program["running"] for program in result.started_before] == [False, bool(left), bool(left)]


# Proves: Other programs run => they are left alone
def test_other_programs_are_left_alone(lab):
    names = ["Corvel.exe", "MyCorvelSoftware.exe", "tavikow.exe.exe"]
    programs = [rf"C:\Other\{name}" for name in names]
    lab.run(pretended(files={program: {"program": "CorvelSoftware.exe"} for program in programs}, running=programs,
                      programs={f"{name}.deaf": True for name in names}))
    check(lab, *stop(), running=names)
    assert still_running(lab) == {name: True for name in names}


# Proves: A step does not end within 30 seconds => it is left running, the next one starts
def test_command_tool_that_hangs_is_killed_after_30_seconds(lab):
    result = lab.run(pretended(programs={"hlcmd.exe.stay": "forever"}), timeout=90)
    polite, *kills = stop(running=("hlcmd.exe",))
    check(lab, polite.replace("code 0", "code 259"), *kills, running=[])
    assert 30000 <= result.instances[0]["ended"] - result.instances[0]["started"] < 60000
