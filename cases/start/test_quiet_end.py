"""An error that the tool does not catch ends the run at once with code 3: no box, no debugger, nothing left, and a whole log.

The machines have a debugger for crashed programs, which would show in the list of started programs.
"""
from __future__ import annotations

from typing import Any

import pytest

from cases.support.direct import GIVEN, SWITCHES, given, started
from cases.support.download import PATH, thrown
from cases.support.expect import (CHECKING, DOWNLOADING, NOT_DOWNLOADED, UNTOUCHED, download, install, inventory, opening, remove,
                                  stop, unpack)
from cases.support.repair import found, until_found, until_unpacked
from cases.support.store import ATTEMPT, CORVEL, has, package, store_only, until_query

BAD_ADDRESS, ILLEGAL_INSTRUCTION, PAGE_NOT_READ, FOREIGN = "0xC0000005", "0xC000001D", "0xC0000006", "0xE06D7363"
DEBUGGER = r"C:\Tools\debugger.exe"
DIRECT = given()


def with_debugger(machine: dict[str, Any]) -> dict[str, Any]:
    command = {"Debugger": f"{DEBUGGER} -p %ld -e %ld -g", "Auto": "1"}
    key = {r"HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug": command,
           r"HKCU\Software\Wine\WineDbg": {"ShowCrashDialog": 1}}
    return {**machine, "registry": {**machine.get("registry", {}), **key},
            "files": {**machine.get("files", {}), DEBUGGER: {"program": "CorvelSettings.exe"}}}


def check_end(lab, log: list[str], **more: Any) -> None:
    lab.check(outcome="quiet-end", log=log, **more)
    assert [line for line in lab.result.programs if "debugger" in line.lower()] == []
    assert (lab.result.output, "Unhandled" in lab.result.errors) == ([""], False)  # abort() of the C runtime would print a message


def crash(machine: dict[str, Any], call: str, code: str = BAD_ADDRESS) -> dict[str, Any]:
    return with_debugger({**machine, "faults": [f"{call} crash={code}"]})


# The main thread: where it crashes, and the last log line. All but the first rows crash inside a try block.
CRASHES = [
    (found(), "setupapi!SetupDiGetClassDevsW 1", opening()),
    (found(), "setupapi!SetupDiEnumDriverInfoW 2", [*opening(), *inventory()[:3]]),
    (found(), "setupapi!SetupGetLineTextW 1", [*opening(), inventory()[0]]),
    (found(), "msi!MsiEnumRelatedProductsW 1", [*opening(), *inventory()]),
    ({}, "wininet!HttpSendRequestW 1", [*opening(), *inventory(), *download()[:2]]),
    ({}, "wininet!InternetReadFile 2", [*opening(), *inventory(), *download()[:3]]),
    (found(), "wtsapi32!WTSQuerySessionInformationW 1", until_found()),
    (found(), "msi!MsiInstallProductW 1", [*until_unpacked(), *stop(), remove("Halden")[0]]),
    (store_only(package()), "winrt!get_Version 1", until_query()),
    (store_only(package()), "winrt!GetDefault 1", [*until_query(), has(), ATTEMPT]),
    (store_only(package()), "winrt!GetResults 1", [*until_query(), has(), ATTEMPT]),
    (DIRECT, "msi!MsiEnumRelatedProductsW 1", started()),
    (DIRECT, "wtsapi32!WTSQuerySessionInformationW 1", started()),
    (DIRECT, "msi!MsiInstallProductW 1", [*started(), unpack(GIVEN), *stop(""), install("Halden")[0]])]


# Proves: Something crashes, or memory runs out => code 3 within a second, no box, no debugger; the log is complete up to that point
@pytest.mark.parametrize("machine, call, log", CRASHES, ids=lambda value: value if isinstance(value, str) else "")
def test_crash_of_the_main_thread_ends_the_run(lab, machine, call, log):
    """It takes less than a second after the last line of the log; 5 seconds allow for a busy host."""
    result = lab.run(crash(machine, call), SWITCHES if machine is DIRECT else "", when=["log Response code : wait 1"])
    check_end(lab, log, after={"products": result.before.products})
    assert result.store_left == lab.machine.store_packages and result.still_running == []
    assert "InternetReadFile" not in call or result.instances[0]["ended"] - result.actions[0]["at"] < 5000


@pytest.mark.parametrize("code", [ILLEGAL_INSTRUCTION, PAGE_NOT_READ, FOREIGN])
def test_every_exception_of_the_system_ends_the_run(lab, code):
    """The try block around the installation does not catch them as C++ exceptions."""
    lab.run(crash(found(), "wtsapi32!WTSQuerySessionInformationW 1", code), "-SILENT")
    check_end(lab, until_found("-SILENT"), after=UNTOUCHED)


# Other threads

@pytest.mark.quick
def test_crash_of_the_status_window_ends_the_run(lab):
    machine = {"server": {"answers": {PATH: {"installer": "24.20", "delay": 20}}}}
    result = lab.run(with_debugger(machine), when=["text Downloading : crash"], timeout=40)
    check_end(lab, [*opening(), *inventory(), *download()[:2]], after=UNTOUCHED)
    assert [action["done"] for action in result.actions] == [True]
    assert result.status_texts == [CHECKING, DOWNLOADING]
    assert result.instances[0]["ended"] - result.actions[0]["at"] < 5000


def test_crash_of_a_thread_of_the_system_ends_the_run(lab):
    """The main thread waits without limit for this thread."""
    result = lab.run(crash(store_only(package(), service={"completion": "later:300"}), "winrt!calls 1"))
    check_end(lab, [*until_query(), has(), ATTEMPT])
    assert result.store_left == [CORVEL]


# A library of Windows that is damaged or missing

OVERRIDES = r"HKCU\Software\Wine\AppDefaults\TavikCompatibilityTool.exe\DllOverrides"


# Proves: A library or function that is loaded at its first call is missing => the run ends at once with code 3, as after any error that is not caught
@pytest.mark.parametrize("missing", ["function", "library"])
@pytest.mark.parametrize("name, log", [("msi", [*opening(), *inventory()]), ("wtsapi32", until_found())])
def test_missing_library_or_function_ends_the_run(lab, name, log, missing):
    """wtsapi32 is called inside a guard for exceptions."""
    path = rf"C:\windows\system32\{name}.dll"
    change = {"files": {path: {"program": "planted_dll.dll"}}} if missing == "function" else {"remove": [path]}
    lab.run(with_debugger(found(registry={OVERRIDES: {name: "native"}}, **change)))
    check_end(lab, log, after=UNTOUCHED)


# No memory left

# Proves: An error that is not caught
def test_no_memory_for_the_list_of_adapters_ends_the_run(lab):
    """The description needs a megabyte; the tool does not catch the exception."""
    machine = {**found(), "adapters": [{"description": "long " * 100_000}], "faults": ["setupapi!SetupDiGetDeviceInstanceIdW 1 memory=none"]}
    lab.run(with_debugger(machine))
    check_end(lab, opening(), after=UNTOUCHED)


def test_no_memory_for_a_download_is_caught(lab):
    """No memory for the buffer is a failed download like any other. Wine needs the preloaded library to end a thread."""
    machine = {"faults": ["wininet!HttpQueryInfoW 1 memory=none"], "environment": {"LD_PRELOAD": "libgcc_s.so.1"}}
    lab.run(with_debugger(machine), "-SILENT")
    lab.check(outcome="download-error", boxes=[], after=UNTOUCHED,
              log=[*opening("-SILENT"), *inventory(), *download()[:3], thrown("std::bad_alloc"), NOT_DOWNLOADED])
