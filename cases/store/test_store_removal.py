"""After a desktop installation the Store packages go: which ones, how, what is logged, and that nothing there stops the run."""
from __future__ import annotations

from typing import Any

import pytest

from cases.support.expect import FINISHED, INSTALL_FAILED, install, inventory, opening, remove, stop, unpack
from cases.support.store import CANCELED, CORVEL, DENIED, EARLIER, OTHER, POINTER, asked, calls, check_nothing_leaks, package

INSTALLER = r"{store1}\B384125\DWX2_Install.exe"
REPAIR = [*opening(), *inventory(), f"Found dwx2-install.exe at [{INSTALLER}]", unpack(INSTALLER), *stop(), *remove("Halden"),
          *install("Halden")]
REPAIRED = {"products": ["Tavik Halden 24.20"], "values": {r"Software\Tavik\HL\HLVersion": "24.20",
                                                           r"Software\Orrel Technologies\Install\VLTUWPReplaced": None}}
RESULT = "\t Result = {} {}".format
FAILED = "Exception {} when enumerating info for {}".format
SEARCHING = "Exception [{}] when searching for UWP version of VLT".format


def removing(name: str = CORVEL, version: str = "2.23.40.0") -> str:
    return f"Remvoing {name} - version {version}"


def numbered(number: int) -> str:
    return f"TavikSystemsInc-2.TavikCorvelSoftware_2.99.{number}.0_x64__0a9344xs7nr4m"


def run(lab, *packages: dict[str, Any], manager: dict[str, Any] | None = None, arguments: str = "", **changes: Any):
    """The installer lies in the driver package; Store packages as described."""
    machine = {"adapters": [{"packages": [{"installer": "24.20"}]}], "server": {"reach": "none"},
               "store": {"packages": list(packages), "manager": manager or {}}}
    return lab.run({**machine, **changes}, arguments)


def check(lab, *lines: str, left: tuple[str, ...] = (), outcome: str = "repaired") -> None:
    """Whatever becomes of the Store packages, the repair is a success."""
    lab.check(outcome=outcome, exit_code=0, boxes=[FINISHED], requests=[], log=[*REPAIR, *lines], before={"products": ["Tavik Halden 23.40"]},
              after=REPAIRED)
    assert lab.result.store_left == list(left)
    check_nothing_leaks(lab.result)


# Proves: Two matching packages
# Proves: A package of another user => is removed too
@pytest.mark.quick
def test_all_packages_of_the_application_go_one_after_the_other(lab):
    third = "Contoso.TAVIKSYSTEMSINC-2.8f31d07a2b6e4.Extra_1.0.0.0_x64__abc"
    run(lab, package(), package(OTHER), package(EARLIER, "1.22.11.65535"), package(third, "1.0.0.0", user="S-1-5-21-7-8-9-1002"))
    check(lab, removing(), RESULT(0, ""), removing(EARLIER, "1.22.11.65535"), RESULT(0, ""), removing(third, "1.0.0.0"), RESULT(0, ""),
          left=(OTHER,))
    assert [line.partition(" ->")[0] for line in asked(lab.result, "RemovePackage")] == [
        f'RemovePackageWithOptionsAsync name="{CORVEL}"; options=0x80000', f'RemovePackageWithOptionsAsync name="{EARLIER}"; options=0x80000',
        f'RemovePackageWithOptionsAsync name="{third}"; options=0x80000; user="S-1-5-21-7-8-9-1002"']


def test_the_calls_of_a_removal_in_order(lab):
    run(lab, package(completion="later:300"), package(OTHER))
    check(lab, removing(), RESULT(0, ""), left=(OTHER,))
    manager = "Windows.Management.Deployment.PackageManager"
    assert calls(lab.result) == [
        f"DllGetActivationFactory {manager}", "QueryInterface PackageManagerFactory IActivationFactory", "ActivateInstance PackageManager",
        f"QueryInterface {manager} IPackageManager", "FindPackages", "First", "get_HasCurrent", f'get_Current "{CORVEL}"',
        f'get_Id "{CORVEL}"', f'get_FullName "{CORVEL}"', f'get_Version "{CORVEL}"', f"QueryInterface {manager} IPackageManager2",
        f'RemovePackageWithOptionsAsync name="{CORVEL}"; options=0x80000', "QueryInterface DeploymentOperation IAsyncInfo",
        "DeploymentOperation get_Status 0", "handler QueryInterface own interface", "handler QueryInterface IAgileObject",
        "DeploymentOperation put_Completed", "DeploymentOperation GetResults", "get_ExtendedErrorCode", "get_ErrorText",
        "DeploymentOperation destroyed", "MoveNext", f'get_Current "{OTHER}"', f'get_Id "{OTHER}"', f'get_FullName "{OTHER}"', "MoveNext"]


# Proves: No matching package (store package removal)
def test_without_a_package_of_the_application_nothing_is_said(lab):
    run(lab, package(OTHER), package("(null)"))
    check(lab, left=(OTHER, "(null)"))
    assert asked(lab.result, "FindPackages") and not asked(lab.result, "RemovePackage") and not asked(lab.result, "get_Version")


# Proves: Disabled packages
def test_a_disabled_package_goes_as_well(lab):
    run(lab, package(ok=False), package(EARLIER, "0.0.0.0", ok=False, fail="get_Status:0x80004005"))
    check(lab, removing(), RESULT(0, ""), removing(EARLIER, "0.0.0.0"), RESULT(0, ""))
    assert not asked(lab.result, "get_Status") and not asked(lab.result, "QueryInterface Package IPackage3")


# Proves: The system rejects a removal
def test_what_the_system_says_about_a_removal_is_logged(lab):
    run(lab, package(numbered(1), removal="0x80073CF1:Package was not found."), package(numbered(2), removal="0x80073CFA"),
        package(numbered(3), removal="0x0:Removed at the next start."), package(numbered(4), null="get_ErrorText"),
        package(numbered(5), removal="0x8007000E:Out of memory, as a result."))
    check(lab, removing(numbered(1)), RESULT(-2147009295, "Package was not found."), removing(numbered(2)), RESULT(-2147009286, ""),
          removing(numbered(3)), RESULT(0, "Removed at the next start."), removing(numbered(4)), RESULT(0, ""),
          removing(numbered(5)), RESULT(-2147024882, "Out of memory, as a result."),
          left=(numbered(1), numbered(2), numbered(5)), outcome="repaired-store-left")


# Proves: It still runs
def test_a_removal_may_end_early_or_late(lab):
    completions = ["before", "inside", "thread", "later:0", "later:400"]
    run(lab, *(package(numbered(number), completion=completion) for number, completion in enumerate(completions)))
    check(lab, *(line for number in range(len(completions)) for line in (removing(numbered(number)), RESULT(0, ""))))
    status = [line.partition(" ->")[0].rpartition(" ")[2] for line in asked(lab.result, "DeploymentOperation get_Status")]
    assert (status[0], status[1], status[2], status[4]) == ("1", "0", "0", "0")


# Proves: A removal is canceled
# Proves: Any step of one package fails
# Proves: Memory runs out for one package
def test_every_failure_of_one_removal_is_logged_and_the_next_package_goes(lab):
    run(lab, package(numbered(1), removal_end="canceled"), package(numbered(2), removal_end="error:0x80070005:It is in use."),
        package(numbered(3), fail="RemovePackageAsync:0x80070005"), package(numbered(4), null="RemovePackageAsync"),
        package(numbered(5), fail="put_Completed:0x80070005:No handler wanted."), package(numbered(6), fail="GetResults:0x80004005:No results."),
        package(numbered(7), null="GetResults"), package(numbered(8), fail="get_ExtendedErrorCode:0x80004005:No code."),
        package(numbered(9), fail="get_ErrorText:0x80004005:No text."), package(numbered(10), fail="get_Version:0x80004005:No version."),
        package(numbered(11), fail="get_FullName:0x80004005:No name."), package(numbered(12), fail="get_Id:0x80004005:No id."),
        package(numbered(13), null="package"), package(numbered(14), removal_end="error:0x8007000E:It is in use."), package(numbered(15)))
    texts = [CANCELED, "It is in use.", DENIED, POINTER, "No handler wanted.", "No results.", POINTER, "No code.", "No text."]
    lines = [line for number, text in enumerate(texts, 1) for line in (removing(numbered(number)), FAILED(text, numbered(number)))]
    gone = {5, 6, 7, 8, 9, 15}  # these removals succeed although something else fails
    check(lab, *lines, FAILED("No version.", numbered(10)), FAILED("No name.", ""), FAILED("No id.", ""), FAILED(POINTER, ""),
          removing(numbered(14)), f"Unknown expection occured when enumerating info for {numbered(14)}",
          removing(numbered(15)), RESULT(0, ""), outcome="repaired-store-left",
          left=tuple(numbered(number) for number in range(1, 16) if number not in gone))


# Proves: The manager cannot be created, or the enumeration fails (store package removal)
@pytest.mark.parametrize("manager, text", [({"create": "0x80070005"}, DENIED), ({"find": "0x80070005:Administrators only."}, "Administrators only."),
                                           ({"first": "0x80004005:No first."}, "No first."), ({"activation": "0x80040154"}, "")])
def test_a_search_that_fails_removes_nothing_and_is_no_failure(lab, manager, text):
    run(lab, package(), manager=manager)
    check(lab, SEARCHING(text), left=(CORVEL,), outcome="repaired-store-left")


def test_a_search_that_fails_halfway_has_removed_what_it_found(lab):
    run(lab, package(), package(EARLIER), manager={"next": "1:0x80004005:The list has changed."})
    check(lab, removing(), RESULT(0, ""), SEARCHING("The list has changed."), left=(EARLIER,), outcome="repaired-store-left")


# Proves: Memory runs out while searching (store package removal)
def test_a_search_without_memory(lab):
    run(lab, package(), manager={"find": "0x8007000E"})
    check(lab, "Unknown expection occured when searching for UWP version of VLT", left=(CORVEL,), outcome="repaired-store-left")


def test_a_system_without_the_package_manager(lab):
    run(lab, store=False)
    check(lab, SEARCHING(""), outcome="repaired-store-left")


# Proves: The thread has no apartment (store package removal) => it gets one
def test_a_thread_without_an_apartment_gets_one(lab):
    run(lab, package(), manager={"activation": "mta"})
    check(lab, removing(), RESULT(0, ""))
    assert [line.split()[3] for line in asked(lab.result, "DllGetActivationFactory")] == ["0x800401F0", "0x0"]


def test_after_a_failed_installation_the_store_packages_stay(lab):
    run(lab, package(), adapters=[{"packages": [{"installer": "24.20-fail"}]}])
    lab.check(outcome="install-failed", exit_code=1603, boxes=[INSTALL_FAILED], after={"products": []}, log=[*REPAIR[:-1], "\tResult = 1603"])
    assert lab.result.store_left == [CORVEL] and lab.result.store_calls == []


# Proves: `-SILENT` (store package removal) => the same
def test_silent_removal(lab):
    run(lab, package(), arguments="-SILENT")
    lab.check(outcome="repaired", exit_code=0, boxes=[], log=[*opening("-SILENT"), *REPAIR[2:], removing(), RESULT(0, "")], after=REPAIRED)
    assert lab.result.store_left == []
