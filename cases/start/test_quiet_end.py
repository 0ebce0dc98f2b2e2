"""What nobody catches ends the run at once with code 3: no box, no debugger, nothing left, and the log whole so far.

The machines here have a debugger for crashed programs, and it would leave its mark.
"""
from __future__ import annotations

from typing import Any

import pytest

from cases.support.expect import CHECKING, DOWNLOADING, download, inventory, opening, remove, stop
from cases.support.repair import UNTOUCHED, found, until_found, until_unpacked
from cases.support.store import ATTEMPT, CORVEL, package, store_only, until_query, has

QUIET_END = 3
BAD_ADDRESS, ILLEGAL_INSTRUCTION, PAGE_NOT_READ, FOREIGN = "0xC0000005", "0xC000001D", "0xC0000006", "0xE06D7363"
DEBUGGER = r"C:\Tools\debugger.exe"
DOWNLOAD = "/drivers/installer/vlt/24.20/dwx2_install.txt"
SWITCHES = r"-VLT -Install -Path C:\setup.exe"
INF = r"Found driver {store1}\u0400001.inf. Version [24.20.11.01-240619a]"


def with_debugger(machine: dict[str, Any]) -> dict[str, Any]:
    command = {"Debugger": f"{DEBUGGER} -p %ld -e %ld -g", "Auto": "1"}
    key = {r"HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug": command,
           r"HKCU\Software\Wine\WineDbg": {"ShowCrashDialog": 1}}
    return {**machine, "registry": {**machine.get("registry", {}), **key},
            "files": {**machine.get("files", {}), DEBUGGER: {"program": "CorvelSettings.exe"}}}


def check_end(lab, log: list[str], **more: Any) -> None:
    lab.check(exit_code=QUIET_END, boxes=[], log=log, **more)
    assert [line for line in lab.result.programs if "debugger" in line.lower()] == []
    assert (lab.result.output, "Unhandled" in lab.result.errors) == ([""], False)  # a C runtime's own end says something


def crash(machine: dict[str, Any], call: str, code: str = BAD_ADDRESS) -> dict[str, Any]:
    return with_debugger({**machine, "faults": [f"{call} crash={code}"]})


def direct(**changes: Any) -> dict[str, Any]:
    return {"desktop": False, "server": {"reach": "none"}, "files": {r"C:\setup.exe": {"installer": "24.20"}}, **changes}


# The main thread. The last lines say how far it came; all but the first rows are inside a guard for exceptions.
# Proves: Something crashes, or memory runs out => code 3 within a second, no box, no debugger; the log is whole as far as it goes
@pytest.mark.parametrize("machine, call, log", [
    (found(), "setupapi!SetupDiGetClassDevsW 1", opening()),
    (found(), "setupapi!SetupDiEnumDriverInfoW 2", [*opening(), inventory()[0], INF, "\tFound driver matching active driver"]),
    (found(), "setupapi!SetupGetLineTextW 1", [*opening(), inventory()[0]]),
    (found(), "msi!MsiEnumRelatedProductsW 1", [*opening(), *inventory()]),
    ({}, "wininet!HttpSendRequestW 1", [*opening(), *inventory(), *download()[:2]]),
    ({}, "wininet!InternetReadFile 2", [*opening(), *inventory(), *download()[:3]]),
    (found(), "wtsapi32!WTSQuerySessionInformationW 1", until_found()),
    (found(), "msi!MsiInstallProductW 1", [*until_unpacked(), *stop(), remove("Halden")[0]]),
    (store_only(package()), "winrt!get_Version 1", until_query()),
    (store_only(package()), "winrt!GetDefault 1", [*until_query(), has(), ATTEMPT]),
    (store_only(package()), "winrt!GetResults 1", [*until_query(), has(), ATTEMPT])],
    ids=lambda value: value if isinstance(value, str) else "")
def test_a_crash_of_the_main_thread(lab, machine, call, log):
    result = lab.run(crash(machine, call))
    products = result.before.products
    check_end(lab, log, after={"products": products})
    assert result.store_left == lab.machine.store_packages and result.still_running == []


@pytest.mark.parametrize("arguments", ["", "-SILENT"])
@pytest.mark.parametrize("code", [BAD_ADDRESS, ILLEGAL_INSTRUCTION, PAGE_NOT_READ, FOREIGN])
def test_every_exception_of_the_system_counts(lab, code, arguments):
    """None of them is taken for an exception that the guard of the installation knows."""
    lab.run(crash(found(), "wtsapi32!WTSQuerySessionInformationW 1", code), arguments)
    check_end(lab, until_found(arguments), after=UNTOUCHED)


@pytest.mark.parametrize("call, lines", [("msi!MsiEnumRelatedProductsW 1", 1), ("wtsapi32!WTSQuerySessionInformationW 1", 1),
                                         ("msi!MsiInstallProductW 1", 8)])
def test_a_crash_of_a_direct_installation(lab, call, lines):
    lab.run(crash(direct(), call), SWITCHES)
    check_end(lab, lab.result.log, after={"products": []})
    assert len(lab.result.log) == lines and lab.result.log[0] == opening(SWITCHES)[0]


# Other threads

@pytest.mark.quick
def test_a_crash_of_the_status_window(lab):
    machine = {"server": {"answers": {DOWNLOAD: {"installer": "24.20", "delay": 20}}}}
    result = lab.run(with_debugger(machine), when=["text Downloading : crash"], timeout=40)
    check_end(lab, [*opening(), *inventory(), *download()[:2]], after=UNTOUCHED)
    assert [action["done"] for action in result.actions] == [True]
    assert result.status_texts == [CHECKING, DOWNLOADING]
    assert result.instances[0]["ended"] - result.actions[0]["at"] < 5000


def test_a_crash_of_a_thread_of_the_system(lab):
    """The main thread waits without limit for what this thread was to say."""
    result = lab.run(crash(store_only(package(), service={"completion": "later:300"}), "winrt!calls 1"))
    check_end(lab, [*until_query(), has(), ATTEMPT])
    assert result.store_left == [CORVEL]


# No memory left

LONG = "long " * 100_000


def test_no_memory_while_the_adapters_are_listed(lab):
    """The description needs a megabyte, and nobody catches what comes of it."""
    machine = {**found(), "adapters": [{"description": LONG}], "faults": ["setupapi!SetupDiGetDeviceInstanceIdW 1 memory=none"]}
    lab.run(with_debugger(machine))
    check_end(lab, opening(), after=UNTOUCHED)


def test_no_memory_for_a_download_is_caught(lab):
    """For the buffer of the download: a failed download like any other. Wine needs the library that is loaded beforehand to
    end a thread."""
    machine = {"faults": ["wininet!HttpQueryInfoW 1 memory=none"], "environment": {"LD_PRELOAD": "libgcc_s.so.1"}}
    lab.run(with_debugger(machine), "-SILENT")
    lab.check(exit_code=-1, boxes=[], after=UNTOUCHED, log=[
        *opening("-SILENT"), *inventory(), *download()[:3],
        "\tException occured during the download of dwx2_install.exe. std::bad_alloc",
        "Unable to download dwx2_install.exe from web. Exiting."])


# How quickly

def test_it_ends_within_a_second(lab):
    """From the last line of the log; the watcher looks every 15 ms. Generous, for a machine with other things to do."""
    machine = crash({}, "wininet!InternetReadFile 2")
    result = lab.run(machine, when=["log Response code : wait 1"])
    check_end(lab, [*opening(), *inventory(), *download()[:3]])
    assert result.instances[0]["ended"] - result.actions[0]["at"] < 5000
