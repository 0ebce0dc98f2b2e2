"""Which Store version is there: what counts as the application, which version wins, and what may fail on the way."""
from __future__ import annotations

import pytest

from cases.support.expect import ANOTHER, FINISHED, NO_ADAPTER, NOT_INSTALLED, SAME_RELEASE, opening
from cases.support.store import (ATTEMPT, CORVEL, DENIED, DISABLED, EARLIER, INSTALLED, NO_STORE, NOTHING, OTHER, POINTER, SAME, asked,
                           calls, check_nothing_leaks, has, package, store_only, until_query)

NOT_HERE = {"outcome": "no-application", "exit_code": -1, "boxes": [NOT_INSTALLED], "requests": []}
UNREAD = {**NOT_HERE, "outcome": "no-application-store-unread"}
SAME_HERE = {"outcome": "same-release", "exit_code": -1, "boxes": [SAME_RELEASE], "requests": []}
UPDATED = {"outcome": "store-installed", "exit_code": 0, "boxes": [FINISHED], "requests": []}
UPDATE = [ATTEMPT, INSTALLED]


def searching(text: str) -> list[str]:
    return [f"Exception {text} when searching for UWP version of VLT", f"{NOTHING} Exiting."]


def test_the_store_version_of_the_drivers_release_is_left_alone(lab):
    lab.run(store_only(package(version="2.24.20.0")))
    lab.check(**SAME_HERE, log=[*until_query(), has(version="2.24.20.0"), f"{SAME} Exiting."], after={"products": []})
    assert lab.result.store_left == [CORVEL]
    assert not asked(lab.result, "DllGetActivationFactory Windows.Services")
    check_nothing_leaks(lab.result)


# Minor and Build in decimal, cut to five characters, are compared with the first five of the driver's release.
# Proves: Only the Store edition installed
@pytest.mark.parametrize("version", ["24.24.20.24", "0.24.201.0", "0.24.2011.9", "65535.24.20.65535"])
def test_versions_of_the_drivers_release(lab, version):
    lab.run(store_only(package(version=version)))
    lab.check(**SAME_HERE, log=[*until_query(), has(version=version), f"{SAME} Exiting."])


@pytest.mark.parametrize("version", ["24.20.0.0", "2.24.2.0", "2.124.20.0", "2.24.21.0", "0.0.24.20", "0.0.0.1"])
def test_versions_of_another_release(lab, version):
    lab.run(store_only(package(version=version)))
    lab.check(**UPDATED, log=[*until_query(), has(version=version), *UPDATE])


@pytest.mark.parametrize("release, installed", [("24.05.10-240101a", "2.24.5.0"), ("24.20", "2.2.420.0")])
def test_numbers_have_no_leading_zeros_and_the_point_counts(lab, release, installed):
    lab.run(store_only(package(version=installed), adapters=[{"release": release}]))
    lab.check(**UPDATED, log=[*until_query(release=release), has(version=installed), *UPDATE])


def test_a_short_release_equals_a_short_version(lab):
    lab.run(store_only(package(version="2.24.5.0"), adapters=[{"release": "24.5-240101a"}]))
    lab.check(**SAME_HERE, log=[*until_query(release="24.5-240101a"), has(version="2.24.5.0"), f"{SAME} Exiting."])


# Proves: All matching packages disabled
@pytest.mark.quick
def test_a_disabled_version_does_not_count(lab):
    lab.run(store_only(package(version="2.24.20.0", ok=False)))
    lab.check(**NOT_HERE, log=[*until_query(), has(version="2.24.20.0"), DISABLED, NO_STORE, f"{NOTHING} Exiting."])
    assert lab.result.store_left == [CORVEL]


# Proves: A disabled package
def test_a_disabled_version_never_wins_even_when_it_is_the_highest(lab):
    lab.run(store_only(package(version="2.24.20.0"), package(EARLIER, "9.99.99.0", ok=False)))
    lab.check(**SAME_HERE, log=[*until_query(), has(version="2.24.20.0"), has(EARLIER, "9.99.99.0"), DISABLED, f"{SAME} Exiting."])


# The highest version counts, not the first and not the last.
# Proves: Two usable versions, 1.10.0.0 and 1.9.5.0
@pytest.mark.parametrize("high, low, high_first", [
    ("2.24.20.0", "1.99.99.0", True), ("2.24.20.0", "1.99.99.0", False), ("1.24.20.0", "1.9.99.0", True),
    ("1.24.20.9", "1.24.3.10", False), ("10.24.20.0", "9.30.10.0", True), ("10.24.20.0", "9.30.10.0", False)])
def test_the_numerically_highest_version_counts(lab, high, low, high_first):
    packages = [(CORVEL, high), (EARLIER, low)] if high_first else [(EARLIER, low), (CORVEL, high)]
    lab.run(store_only(*(package(*one) for one in packages)))
    lab.check(**SAME_HERE, log=[*until_query(), *(has(*one) for one in packages), f"{SAME} Exiting."])


# Proves: Packages of other users
def test_another_users_package_counts(lab):
    lab.run(store_only(package(version="2.24.20.0", user="S-1-5-21-7-8-9-1002")))
    lab.check(**SAME_HERE, log=[*until_query(), has(version="2.24.20.0"), f"{SAME} Exiting."])
    assert asked(lab.result, "FindPackages") == ["FindPackages -> 0x0 thread=1"]


# Proves: A full name contains either name anywhere, in any letter case
@pytest.mark.parametrize("name", ["Contoso.taviksystemsinc-2.8f31d07a2b6e4.Extra_1.0.0.0_neutral__abc",
                                  "TAVIKSYSTEMSINC-2.TAVIKCORVELSOFTWAREPRO_1.0.0.0_x64__abc", "TavikSystemsInc-2.TavikCorvelSoftware"])
def test_the_name_counts_anywhere_and_in_any_case(lab, name):
    lab.run(store_only(package(name, "2.24.20.0")))
    lab.check(**SAME_HERE, log=[*until_query(), has(name, "2.24.20.0"), f"{SAME} Exiting."])


# Proves: Other packages, a package without a name
# Proves: No matching package (store package query)
def test_packages_of_other_names_are_passed_over_in_silence(lab):
    others = [OTHER, "TavikSystemsInc-2.TavikCorvelSoftwar_9.9.9.9_x64__abc", "TavikSystemsInc-2.8F31D07A2B6E_9.9.9.9_x64__abc",
              "TavikSystemsInc-3.8F31D07A2B6E4_9.9.9.9_x64__abc"]
    lab.run(store_only(*(package(name, "2.24.20.0") for name in others), package("(null)", "2.24.20.0")))
    lab.check(**NOT_HERE, log=[*until_query(), NO_STORE, f"{NOTHING} Exiting."])
    assert len(asked(lab.result, "get_FullName")) == 5
    assert not asked(lab.result, "get_Version") and not asked(lab.result, "get_Status")


# Proves: A version of zeros => counts as none
def test_a_version_of_zeros_is_none(lab):
    lab.run(store_only(package(version="0.0.0.0")))
    lab.check(**NOT_HERE, log=[*until_query(), has(version="0.0.0.0"), f"{NOTHING} Exiting."])


# Proves: Reading one package fails
def test_every_failure_of_one_package_is_logged_and_the_next_one_is_read(lab):
    def name(number: int) -> str:
        return f"TavikSystemsInc-2.TavikCorvelSoftware_2.99.{number}.0_x64__0a9344xs7nr4m"

    def broken(number: int, method: str, failure: str) -> dict[str, object]:
        return package(name(number), f"2.99.{number}.0", fail=f"{method}:{failure}")

    lab.run(store_only(broken(1, "get_Id", "0x80004005:No id."), broken(2, "get_FullName", "0x80004005:No name."),
                       broken(3, "get_Version", "0x80004005:No version."), broken(4, "IPackage3", "0x80004005:No third interface."),
                       broken(5, "get_Status", "0x80004005:No status."), broken(6, "VerifyIsOK", "0x80004005:Not verified."),
                       package(name(7), "2.99.7.0", null="package"), package(name(8), "2.99.8.0", null="get_Id"),
                       package(name(9), "2.99.9.0", null="get_Status"), package(version="2.24.20.0")))
    failed = "Exception {} when enumerating info for {}".format
    lab.check(**SAME_HERE, log=[
        *until_query(), failed("No id.", ""), failed("No name.", ""), failed("No version.", name(3)),
        has(name(4), "2.99.4.0"), failed("No third interface.", name(4)), has(name(5), "2.99.5.0"), failed("No status.", name(5)),
        has(name(6), "2.99.6.0"), failed("Not verified.", name(6)), failed(POINTER, ""), failed(POINTER, ""),
        has(name(9), "2.99.9.0"), failed(POINTER, name(9)), has(version="2.24.20.0"), f"{SAME} Exiting."])
    check_nothing_leaks(lab.result)


# (failure, text): whose error object it is and what it holds decides.
TEXTS = [("0x80070005:Told by the system.", "Told by the system."),
         ("0x80070005:Description|Restricted description", "Restricted description"),
         ("0x80070005:Description|", "Description"),
         (r"0x80070005:Trailing blanks go.  \t\r\n", "Trailing blanks go."),
         (r"0x80070005: two\r\nlines", " two\r\nlines"),
         ("0x80070005=Plain error object", "Plain error object"),
         ("0x80070005!0x80004005:Another failure's text", DENIED),
         ("0x80070005", DENIED),
         ("0x80073CF1", "")]


# Proves: The thread carries an error object for this code
# Proves: It carries none, one for another code, one that cannot tell, or it is another thread's
def test_the_text_of_an_error(lab):
    lab.run(store_only(*(package(fail=f"get_Version:{failure}") for failure, _ in TEXTS)))
    texts = "\n".join(f"Exception {text} when enumerating info for {CORVEL}" for _, text in TEXTS)  # one of them has two lines
    lab.check(**UNREAD, log=[*until_query(), *texts.split("\n"), NO_STORE, f"{NOTHING} Exiting."])


# Proves: Memory runs out while reading one
def test_out_of_memory_is_an_unknown_exception(lab):
    lab.run(store_only(package(fail="VerifyIsOK:0x8007000E"), package(fail="get_Status:0x8007000E:With a text."),
                       package(EARLIER, "2.24.20.0")))
    unknown = f"Unknown expection occured when enumerating info for {CORVEL}"
    lab.check(**SAME_HERE, log=[*until_query(), has(), unknown, has(), unknown, has(EARLIER, "2.24.20.0"), f"{SAME} Exiting."])


# Proves: The manager cannot be created, or the enumeration fails (store package query)
@pytest.mark.parametrize("manager, text", [
    ({"activation": "0x80070005:No such manager."}, "No such manager."),
    ({"create": "0x80070005"}, DENIED),
    ({"create": "null"}, POINTER),
    ({"find": "0x80070005:Administrators only."}, "Administrators only."),
    ({"find": "null"}, POINTER),
    ({"first": "0x80004005:No first."}, "No first."),
    ({"first": "null"}, POINTER)])
def test_a_search_that_fails_finds_nothing(lab, manager, text):
    lab.run(store_only(package(version="2.24.20.0"), manager=manager))
    lab.check(**UNREAD, log=[*until_query(), *searching(text)])
    check_nothing_leaks(lab.result)


@pytest.mark.parametrize("manager", [{"next": "2:0x80004005:The list has changed."}, {"current": "3:0x80004005:The list has changed."}])
def test_a_search_that_fails_halfway_finds_nothing(lab, manager):
    lab.run(store_only(package(version="2.24.20.0"), package(EARLIER), package(OTHER), manager=manager))
    lab.check(**UNREAD, log=[*until_query(), has(version="2.24.20.0"), has(EARLIER), *searching("The list has changed.")])
    check_nothing_leaks(lab.result)


# Proves: Memory runs out while searching (store package query)
def test_a_search_without_memory(lab):
    lab.run(store_only(package(version="2.24.20.0"), manager={"find": "0x8007000E"}))
    lab.check(**UNREAD, log=[*until_query(), "Unknown expection occured when searching for UWP version of VLT", f"{NOTHING} Exiting."])


# Proves: A Windows without these classes or functions
def test_a_system_without_the_package_manager(lab):
    lab.run({"desktop": False, "store": False})
    lab.check(**UNREAD, log=[*until_query(), *searching("")])


# Proves: The thread has no apartment (store package query)
def test_a_thread_without_an_apartment_gets_one(lab):
    lab.run(store_only(package(version="2.24.20.0"), manager={"activation": "mta"}))
    lab.check(**SAME_HERE, log=[*until_query(), has(version="2.24.20.0"), f"{SAME} Exiting."])
    factory = "DllGetActivationFactory Windows.Management.Deployment.PackageManager"
    assert asked(lab.result, factory) == [f"{factory} -> 0x800401F0 thread=1", f"{factory} -> 0x0 thread=1"]


def test_activation_is_tried_only_twice(lab):
    lab.run(store_only(package(), manager={"activation": "0x800401F0"}))
    lab.check(**UNREAD, log=[*until_query(), *searching("")])
    assert len(asked(lab.result, "DllGetActivationFactory")) == 2


def test_any_other_failure_of_activation_is_not_tried_again(lab):
    lab.run(store_only(package(), manager={"activation": "0x80040154:Gone."}))
    lab.check(**UNREAD, log=[*until_query(), *searching("Gone.")])
    assert len(asked(lab.result, "DllGetActivationFactory")) == 1


def test_the_calls_of_a_search_in_order(lab):
    lab.run(store_only(package(OTHER), package(version="2.24.20.0")))
    lab.check(**SAME_HERE)
    manager = "Windows.Management.Deployment.PackageManager"
    assert calls(lab.result) == [
        f"DllGetActivationFactory {manager}", "QueryInterface PackageManagerFactory IActivationFactory", "ActivateInstance PackageManager",
        f"QueryInterface {manager} IPackageManager", "FindPackages", "First", "get_HasCurrent",
        f'get_Current "{OTHER}"', f'get_Id "{OTHER}"', f'get_FullName "{OTHER}"', "MoveNext",
        f'get_Current "{CORVEL}"', f'get_Id "{CORVEL}"', f'get_FullName "{CORVEL}"', f'get_Version "{CORVEL}"',
        "QueryInterface Package IPackage3", f'get_Status "{CORVEL}"', f'VerifyIsOK "{CORVEL}"', "MoveNext"]


# Proves: Desktop edition installed
def test_the_desktop_edition_makes_the_search_needless(lab):
    lab.run({"desktop": {"release": "24.20"}, "store": {"packages": [package()]}})
    lab.check(outcome="same-release", exit_code=-1, boxes=[SAME_RELEASE])
    assert lab.result.store_calls == []


def test_without_an_adapter_the_store_is_not_asked(lab):
    lab.run(store_only(package(), adapters=[]))
    lab.check(outcome="no-adapter", exit_code=-1, boxes=[NO_ADAPTER], log=[
        *opening(version=""), "Currently installed drivers on system:", "Unable to find installed Tavik display adapters. Exiting."])
    assert lab.result.store_calls == []


@pytest.mark.parametrize("machine, outcome, last", [
    (store_only(package(version="2.24.20.0")), "same-release", f"{SAME} Exiting."),
    (store_only(package(OTHER)), "no-application", f"{NOTHING} Exiting.")])
def test_silent_early_exits_show_nothing(lab, machine, outcome, last):
    lab.run(machine, "-SILENT")
    lab.check(outcome=outcome, exit_code=-1, boxes=[])
    assert lab.result.log[-1] == last
    assert not any(sample["visible"] for sample in lab.result.status)


def test_a_second_instance_asks_no_store(lab):
    result = lab.run(store_only(package(version="2.24.20.0")), when=["box : second -FORCE"])
    lab.check(**{**SAME_HERE, "outcome": "same-release, another-instance"})
    assert result.instances[1]["exit_code"] == -1
    assert [(box["icon"], box["text"]) for box in result.boxes if box["instance"] == 1] == [ANOTHER]
    assert result.logs[1] == [opening("-FORCE")[0], "Another instance is running. Exiting."]
    assert len(asked(result, "DllGetActivationFactory")) == 1
