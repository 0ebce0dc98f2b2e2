"""After a desktop installation the Store packages are removed: which ones, how, what is logged, and that no failure there stops the run."""
from __future__ import annotations

from typing import Any

import pytest

from cases.support.direct import MARKER
from cases.support.expect import FINISHED, HL_VERSION, INSTALL_FAILED, REPAIR, REPAIRED, UNTOUCHED
from cases.support.repair import found, until_unpacked
from cases.support.store import (CANCELED, CORVEL, DENIED, EARLIER, OTHER, POINTER, asked, calls, check_nothing_leaks, numbered, package, until_apartment)

RESULT = "\t Result = {} {}".format
FAILED = "Exception {} when enumerating info for {}".format
SEARCHING = "Exception [{}] when searching for UWP version of VLT".format
AFTER = {**REPAIRED, "values": {HL_VERSION: "24.20", MARKER: None}}


def removing(name: str = CORVEL, version: str = "2.23.40.0") -> str:
    return f"Remvoing {name} - version {version}"


def removed(name: str = CORVEL, version: str = "2.23.40.0", code: int = 0, text: str = "") -> list[str]:
    return [removing(name, version), RESULT(code, text)]


def run(lab, *packages: dict[str, Any], manager: dict[str, Any] | None = None, arguments: str = "", kind: str = "24.20", store: bool = True):
    """The installer is in the driver package; Store packages as described."""
    described = {"packages": list(packages), "manager": manager or {}} if store else False
    return lab.run(found(kind, store=described), arguments)


def check(lab, *lines: str, left: tuple[str, ...] = (), outcome: str = "repaired", arguments: str = "") -> None:
    """The repair is a success whether or not the Store packages are removed."""
    lab.check(outcome=outcome, exit_code=0, boxes=[] if arguments else [FINISHED], requests=[], before=UNTOUCHED,
              log=[*until_unpacked(arguments), *REPAIR, *lines], after={**AFTER, "store": list(left)})
    check_nothing_leaks(lab.result)


# Proves: Two matching packages => removed one after the other in the system's order, for all users, each with its two lines
# Proves: A package of another user => is removed too
# Proves: Everything is removed => only the factory is kept
@pytest.mark.quick
def test_all_packages_of_the_application_go_one_after_the_other(lab):
    third = "Contoso.TAVIKSYSTEMSINC-2.8f31d07a2b6e4.Extra_1.0.0.0_x64__abc"
    run(lab, package(), package(OTHER), package(EARLIER, "1.22.11.65535"), package(third, "1.0.0.0", user="S-1-5-21-7-8-9-1002"))
    check(lab, *removed(), *removed(EARLIER, "1.22.11.65535"), *removed(third, "1.0.0.0"), left=(OTHER,))
    assert [line.partition(" ->")[0] for line in asked(lab.result, "RemovePackage")] == [
        f'RemovePackageWithOptionsAsync name="{CORVEL}"; options=0x80000', f'RemovePackageWithOptionsAsync name="{EARLIER}"; options=0x80000',
        f'RemovePackageWithOptionsAsync name="{third}"; options=0x80000; user="S-1-5-21-7-8-9-1002"']


def test_calls_of_a_removal_in_order(lab):
    run(lab, package(completion="later:300"), package(OTHER))
    check(lab, *removed(), left=(OTHER,))
    manager = "Windows.Management.Deployment.PackageManager"
    assert calls(lab.result) == [
        f"DllGetActivationFactory {manager}", "QueryInterface PackageManagerFactory IActivationFactory", "ActivateInstance PackageManager",
        f"QueryInterface {manager} IPackageManager", "FindPackages", "First", "get_HasCurrent", f'get_Current "{CORVEL}"',
        f'get_Id "{CORVEL}"', f'get_FullName "{CORVEL}"', f'get_Version "{CORVEL}"', f"QueryInterface {manager} IPackageManager2",
        f'RemovePackageWithOptionsAsync name="{CORVEL}"; options=0x80000', "QueryInterface DeploymentOperation IAsyncInfo",
        "DeploymentOperation get_Status 0", "handler QueryInterface own interface", "handler QueryInterface IAgileObject",
        "DeploymentOperation put_Completed", "DeploymentOperation GetResults", "get_ExtendedErrorCode", "get_ErrorText",
        "DeploymentOperation destroyed", "MoveNext", f'get_Current "{OTHER}"', f'get_Id "{OTHER}"', f'get_FullName "{OTHER}"', "MoveNext"]


# Proves: No matching package (store package removal) => nothing is logged, nothing removed
def test_without_a_package_of_the_application_nothing_is_logged(lab):
    run(lab, package(OTHER), package("(null)"))
    check(lab, left=(OTHER, "(null)"))
    assert asked(lab.result, "FindPackages") and not asked(lab.result, "RemovePackage") and not asked(lab.result, "get_Version")


# Proves: Disabled packages => removed like any other, their status is not asked for
def test_disabled_package_goes_as_well(lab):
    run(lab, package(ok=False), package(EARLIER, "0.0.0.0", ok=False, fail="get_Status:0x80004005"))
    check(lab, *removed(), *removed(EARLIER, "0.0.0.0"))
    assert not asked(lab.result, "get_Status") and not asked(lab.result, "QueryInterface Package IPackage3")


# Proves: The system rejects a removal => signed code and text in the result line, the next package goes
def test_answer_of_the_system_to_a_removal_is_logged(lab):
    run(lab, package(numbered(1), removal="0x80073CF1:Package was not found."), package(numbered(2), removal="0x80073CFA"),
        package(numbered(3), removal="0x0:Removed at the next start."), package(numbered(4), null="get_ErrorText"),
        package(numbered(5), removal="0x8007000E:Out of memory, as a result."))
    answers = [(-2147009295, "Package was not found."), (-2147009286, ""), (0, "Removed at the next start."), (0, ""),
               (-2147024882, "Out of memory, as a result.")]
    check(lab, *(line for number, (code, text) in enumerate(answers, 1) for line in removed(numbered(number), code=code, text=text)),
          left=(numbered(1), numbered(2), numbered(5)), outcome="repaired-store-left")


# Proves: It still runs
def test_removal_may_end_early_or_late(lab):
    completions = ["before", "inside", "thread", "later:0", "later:400"]
    run(lab, *(package(numbered(number), completion=completion) for number, completion in enumerate(completions)))
    check(lab, *(line for number in range(len(completions)) for line in removed(numbered(number))))
    status = [line.partition(" ->")[0].rpartition(" ")[2] for line in asked(lab.result, "DeploymentOperation get_Status")]
    assert (status[0], status[1], status[2], status[4]) == ("1", "0", "0", "0")


# Proves: A removal is canceled => logged with the full name, the next package goes
# Proves: Any step of one package fails
# Proves: Memory runs out for one package => "Unknown expection" with its name
def test_failures_of_one_removal_are_logged_and_the_next_package_goes(lab):
    run(lab, package(numbered(1), removal_end="canceled"), package(numbered(2), removal_end="error:0x80070005:It is in use."),
        package(numbered(3), fail="RemovePackageAsync:0x80070005"), package(numbered(4), null="RemovePackageAsync"),
        package(numbered(5), fail="put_Completed:0x80070005:No handler wanted."), package(numbered(6), fail="GetResults:0x80004005:No results."),
        package(numbered(7), null="GetResults"), package(numbered(8), fail="get_ExtendedErrorCode:0x80004005:No code."),
        package(numbered(9), fail="get_ErrorText:0x80004005:No text."), package(numbered(10), fail="get_Version:0x80004005:No version."),
        package(numbered(11), fail="get_FullName:0x80004005:No name."), package(numbered(12), fail="get_Id:0x80004005:No id."),
        package(numbered(13), null="package"), package(numbered(14), removal_end="error:0x8007000E:It is in use."), package(numbered(15)))
    texts = [CANCELED, "It is in use.", DENIED, POINTER, "No handler wanted.", "No results.", POINTER, "No code.", "No text."]
    lines = [line for number, text in enumerate(texts, 1) for line in (removing(numbered(number)), FAILED(text, numbered(number)))]
    gone = {5, 6, 7, 8, 9, 15}  # these removals succeed although a later step fails
    check(lab, *lines, FAILED("No version.", numbered(10)), FAILED("No name.", ""), FAILED("No id.", ""), FAILED(POINTER, ""),
          removing(numbered(14)), f"Unknown expection occured when enumerating info for {numbered(14)}", *removed(numbered(15)),
          outcome="repaired-store-left", left=tuple(numbered(number) for number in range(1, 16) if number not in gone))


# Proves: The manager cannot be created, or the enumeration fails (store package removal)
# Proves: Memory runs out while searching (store package removal)
@pytest.mark.parametrize("packages, manager, lines, left", [
    ((CORVEL,), {"create": "0x80070005"}, [SEARCHING(DENIED)], (CORVEL,)),
    ((CORVEL,), {"find": "0x80070005:Administrators only."}, [SEARCHING("Administrators only.")], (CORVEL,)),
    ((CORVEL,), {"first": "0x80004005:No first."}, [SEARCHING("No first.")], (CORVEL,)),
    ((CORVEL,), {"activation": "0x80040154"}, [SEARCHING("")], (CORVEL,)),
    ((CORVEL,), {"find": "0x8007000E"}, ["Unknown expection occured when searching for UWP version of VLT"], (CORVEL,)),
    ((CORVEL, EARLIER), {"next": "1:0x80004005:The list has changed."}, [*removed(), SEARCHING("The list has changed.")], (EARLIER,)),
    ((), None, [SEARCHING("")], ())], ids=["create", "find", "first", "activation", "memory", "halfway", "no package manager"])
def test_search_that_fails_is_no_failure_of_the_repair(lab, packages, manager, lines, left):
    """What was found before is removed."""
    run(lab, *map(package, packages), manager=manager, store=manager is not None)
    check(lab, *lines, left=left, outcome="repaired-store-left")


# Proves: The thread has no apartment (store package removal) => it gets one
def test_thread_without_an_apartment_gets_one(lab):
    run(lab, package(), manager={"activation": "mta"})
    check(lab, *removed())
    assert asked(lab.result, "DllGetActivationFactory") == until_apartment("DllGetActivationFactory Windows.Management.Deployment.PackageManager")


def test_after_a_failed_installation_the_store_packages_stay(lab):
    run(lab, package(), kind="24.20-fail")
    lab.check(outcome="install-failed", exit_code=1603, boxes=[INSTALL_FAILED], after={"products": [], "store": [CORVEL]},
              log=[*until_unpacked(), *REPAIR[:-1], "\tResult = 1603"])
    assert lab.result.store_calls == []


# Proves: `-SILENT` (store package removal) => the same
def test_silent_removal(lab):
    run(lab, package(), arguments="-SILENT")
    check(lab, *removed(), arguments="-SILENT")
