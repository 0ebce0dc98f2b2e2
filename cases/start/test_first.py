"""One case of each kind: early exits, repair from both sources, failures, switches, the status window."""
from __future__ import annotations

import pytest

from cases.support.expect import (ANOTHER, CHECKING, DOTS, DOWNLOAD_FAILED, DOWNLOADING, FINISHED, INSTALL_FAILED, INSTALLING, NO_ADAPTER,
                    NOT_INSTALLED, SAME_RELEASE, download, install, inventory, opening, remove, stop, unpack)

SAME = "Currently installed version of VLT is from the same release as the active driver."
NEW_INSTALLER = "/drivers/installer/vlt/24.20/dwx2_install.txt"
HL_VERSION = r"Software\Tavik\HL\HLVersion"
REPAIRED = {"products": ["Tavik Halden 24.20"], "values": {HL_VERSION: "24.20"}}
UNTOUCHED = {"products": ["Tavik Halden 23.40"], "values": {HL_VERSION: "23.40"}}
REPAIR = [unpack(), *stop(), *remove("Halden"), *install("Halden")]


# Proves: There is at least one argument
# Proves: Same release, not forced
# Proves: A box appears
def test_same_release_is_left_alone(lab):
    lab.run("compatible.toml")
    lab.check(exit_code=-1, log=[*opening(version="24.20"), *inventory(), f"{SAME} Exiting."], boxes=[SAME_RELEASE],
              requests=[], after={"products": ["Tavik Halden 24.20"]})


# Proves: Same release, forced
# Proves: `-FORCE` with the same release => the installation runs again
def test_same_release_is_installed_again_when_forced(lab):
    lab.run("compatible.toml", "-FORCE")
    lab.check(exit_code=0, boxes=[FINISHED], after=REPAIRED,
              log=[*opening("-FORCE", "24.20"), *inventory(), SAME, *download(), *REPAIR])


# Proves: No adapter of the maker
def test_no_adapter_of_the_maker(lab):
    other = r"PCI\VEN_8086&DEV_46A6&SUBSYS_00000000&REV_0C\3&11583659&0&10"
    lab.run({"adapters": [{"id": other, "description": "Other Graphics"}]})
    lab.check(exit_code=-1, boxes=[NO_ADAPTER], requests=[], after=UNTOUCHED, log=[
        *opening(), f"[Other Graphics] - [{other}] is not an Tavik Display Adapter.", "Currently installed drivers on system:",
        "Unable to find installed Tavik display adapters. Exiting."])


# Proves: Neither edition installed, not forced
# Proves: No desktop application: the key is missing
def test_nothing_installed(lab):
    lab.run({"desktop": False})
    lab.check(exit_code=-1, boxes=[NOT_INSTALLED], requests=[], after={"products": []}, log=[
        *opening(version=""), *inventory(), "User does not desktop VLT installed.", "UWP version is not installed",
        "User does not have VLT installed. Exiting."])


def test_repair_with_the_installer_of_the_driver_package(lab):
    lab.run("found.toml")
    installer = r"{store2}\B384125\DWX2_Install.exe"
    device = inventory()
    log = [*opening(), device[0], r"Found driver {store1}\u0400001.inf. Version [24.10.05.00-240301b]",
           r"Found driver {store2}\u0400002.inf. Version [24.20.11.01-240619a]", device[2], device[3],
           "\t [Tavik Corvel 7800] [24.20.11.01-240619a] [{store2}]", f"Found dwx2-install.exe at [{installer}]",
           unpack(installer), *stop(), *remove("Halden"), *install("Halden")]
    lab.check(exit_code=0, log=log, boxes=[FINISHED], after=REPAIRED)


# Proves: It has none
@pytest.mark.quick
def test_repair_with_the_installer_from_the_server(lab):
    result = lab.run()
    lab.check(exit_code=0, log=[*opening(), *inventory(), *download(), *REPAIR], boxes=[FINISHED],
              requests=[f"{NEW_INSTALLER} 200"], before=UNTOUCHED, after=REPAIRED)
    assert {name: result.requests[0][name] for name in ("method", "user_agent", "accept", "pragma")} == {
        "method": "GET", "user_agent": "Tavik Marlin Install Manager", "accept": "Accept: */*", "pragma": "no-cache"}


# Proves: Which components
def test_families_that_were_installed_are_replaced(lab):
    lab.run({"desktop": {"families": ["Halden", "DVR"]}})
    log = [*opening(), *inventory(), *download(), unpack(), *stop(), *remove("Halden"), *remove("DVR"), *install("Halden"),
           *install("DVR")]
    lab.check(exit_code=0, log=log, boxes=[FINISHED], before={"products": ["Tavik DVR 23.40", "Tavik Halden 23.40"]},
              after={"products": ["Tavik DVR 24.20", "Tavik Halden 24.20"], "values": {HL_VERSION: "24.20"}})


# Proves: The installer is neither found nor downloaded
def test_installer_not_on_the_server(lab):
    lab.run({"server": {"answers": {NEW_INSTALLER: 404}}})
    start = download()
    lab.check(exit_code=-1, boxes=[DOWNLOAD_FAILED], requests=[f"{NEW_INSTALLER} 404"], after=UNTOUCHED, log=[
        *opening(), *inventory(), *start[:2], "Response code from server: 404",
        f"Error response code received from http://{{server}}{NEW_INSTALLER}",
        "Unable to download dwx2_install.exe from web. Exiting."])


# Proves: The installation fails (any other result)
def test_package_that_refuses_to_install(lab):
    lab.run({"server": {"answers": {NEW_INSTALLER: "24.20-fail"}}})
    lab.check(exit_code=1603, boxes=[INSTALL_FAILED], after={"products": [], "values": {HL_VERSION: None}}, log=[
        *opening(), *inventory(), *download(), unpack(), *stop(), *remove("Halden"), *install("Halden", 1603)])


# Proves: Another instance is running
def test_second_instance_says_so_and_goes(lab):
    result = lab.run("compatible.toml", when=["box : second"])
    lab.check(exit_code=-1, boxes=[SAME_RELEASE])
    assert result.instances[1]["exit_code"] == -1
    assert [(box["icon"], box["text"]) for box in result.boxes if box["instance"] == 1] == [ANOTHER]
    assert result.logs[1] == [opening()[0], "Another instance is running. Exiting."]


# Proves: `-SILENT` (repair)
def test_silent_shows_nothing(lab):
    result = lab.run({"server": {"answers": {NEW_INSTALLER: {"installer": "24.20", "delay": 0.6}}}}, "-SILENT")
    lab.check(exit_code=0, log=[*opening("-SILENT"), *inventory(), *download(), *REPAIR], boxes=[], after=REPAIRED)
    assert not any(sample["visible"] for sample in result.status)


# Proves: A status is set
def test_status_window_tells_how_far_it_is(lab):
    result = lab.run({"server": {"answers": {NEW_INSTALLER: {"installer": "24.20", "delay": 2.2}}}})
    lab.check(exit_code=0, boxes=[FINISHED], after=REPAIRED)
    assert result.status_texts == [CHECKING, DOWNLOADING, INSTALLING]
    dots = [sample["dots"] for sample in result.status if sample["dots"]]
    changes = [one for one, before in zip(dots, [None, *dots]) if one != before]
    assert len(changes) >= 5 and changes == [DOTS[number % 3] for number in range(len(changes))]
    shown = next(sample for sample in result.status if sample["visible"] and sample["line"] == DOWNLOADING)
    assert (shown["title"], shown["mark"], shown["heading"]) == ("Tavik Software Compatibility Tool", "—", "")


def test_custom_folder_is_kept(lab):
    lab.run({"desktop": {"folder": r"C:\My Apps"}})
    log = [*opening(), *inventory(), *download(), unpack(), *stop(r"C:\My Apps\Halden"), *remove("Halden")]
    installing = install("Halden")
    lab.check(exit_code=0, boxes=[FINISHED], before={"files": [r"C:\My Apps\Halden\CorvelSoftware.exe"]},
              after={"products": ["Tavik Halden 24.20"], "files": [r"C:\My Apps\Halden\CorvelSoftware.exe"]},
              log=[*log, installing[0], "Using custom install directory C:\\My Apps\\", installing[1]])


def test_running_programs_are_stopped(lab):
    program = r"C:\Program Files\Tavik\Halden\CorvelSoftware.exe"
    result = lab.run({"running": [program], "programs": {"CorvelSoftware.exe.deaf": True}})
    lab.check(exit_code=0, boxes=[FINISHED], after=REPAIRED, log=[
        *opening(), *inventory(), *download(), unpack(), *stop(running=("Corvelsoftware.exe",)), *remove("Halden"),
        *install("Halden")])
    assert not result.started_before[0]["running"]


# Proves: The Store edition is the one in use
def test_store_edition_of_an_older_release(lab):
    result = lab.run("store.toml")
    name = "TavikSystemsInc-2.TavikCorvelSoftware_1.23.40.0_x64__0a9344xs7nr4m"
    lab.check(exit_code=0, requests=[], boxes=[FINISHED], log=[
        *opening(version=""), *inventory(), "User does not desktop VLT installed.", f"User has {name} - version 1.23.40.0",
        "Attempting to download and install the UWP version of VLT.", "Successfully installed the UWP version of VLT"])
    assert any("9PQ4XK7ZT2MV" in line for line in result.store_calls)


# Proves: No key, no value
def test_the_makers_own_server_over_https(lab):
    result = lab.run({"server": {"reach": "default"}})
    start = download()
    lab.check(exit_code=0, boxes=[FINISHED], after=REPAIRED, requests=[f"{NEW_INSTALLER} 200"],
              log=[*opening(), *inventory(), start[0], *start[2:], *REPAIR])
    assert (result.requests[0]["host"], result.requests[0]["tls"][:3]) == ("download.tavik.example", "TLS")
