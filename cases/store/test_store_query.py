"""Which Store version is installed: what counts as the application, which version wins, and what may fail on the way."""
from __future__ import annotations

import pytest

from cases.support.expect import FINISHED, NO_ADAPTER, NO_ADAPTER_LEFT, NOT_INSTALLED, SAME, SAME_RELEASE, check_refused, opening
from cases.support.store import (ATTEMPT, CORVEL, DENIED, DISABLED, EARLIER, INSTALLED, NO_STORE, NOTHING, OTHER, POINTER, asked, calls,
                                 check_nothing_leaks, has, numbered, package, store_only, until_apartment, until_query)
from lab.prefix import wine_version

# How a run ends: outcome, exit code, message box, last lines of the log.
SAME_HERE = ("same-release", -1, SAME_RELEASE, f"{SAME} Exiting.")
NOT_HERE = ("no-application", -1, NOT_INSTALLED, f"{NOTHING} Exiting.")
UNREAD = ("no-application-store-unread", *NOT_HERE[1:])
UPDATED = ("store-installed", 0, FINISHED, ATTEMPT, INSTALLED)
MANAGER = "Windows.Management.Deployment.PackageManager"
FACTORY = f"DllGetActivationFactory {MANAGER}"
CURRENT = package(version="2.24.20.0")  # of the driver's release
SEARCHING = "Exception {} when searching for UWP version of VLT".format
FAILED = "Exception {} when enumerating info for {}".format


def check(lab, end: tuple, *lines: str, release: str | None = None) -> None:
    outcome, code, box, *last = end
    lab.check(outcome=outcome, exit_code=code, boxes=[box], requests=[], log=[*until_query(release=release), *lines, *last])
    check_nothing_leaks(lab.result)


# Proves: The first Windows Runtime call of a thread without an apartment => Windows and Wine 10 (not Wine 8) answer CO_E_NOTINITIALIZED, the tool joins the multithreaded apartment and asks again
@pytest.mark.quick
def test_store_version_of_the_drivers_release_is_left_alone(lab):
    lab.run(store_only(CURRENT))
    check(lab, SAME_HERE, has(version="2.24.20.0"))
    assert (lab.result.after.products, lab.result.store_left) == ([], [CORVEL])
    assert not asked(lab.result, "DllGetActivationFactory Windows.Services")


# Minor and Build in decimal, cut to five characters, are compared with the first five of the driver's release: without leading zeros,
# and the point counts.
# Proves: Only the Store edition installed
@pytest.mark.parametrize("release, version, end", [
    *((None, version, SAME_HERE) for version in ("24.24.20.24", "0.24.201.0", "0.24.2011.9", "65535.24.20.65535")),
    *((None, version, UPDATED) for version in ("24.20.0.0", "2.24.2.0", "2.124.20.0", "2.24.21.0", "0.0.24.20", "0.0.0.1")),
    ("24.05.10-240101a", "2.24.5.0", UPDATED), ("24.20", "2.2.420.0", UPDATED), ("24.5-240101a", "2.24.5.0", SAME_HERE)])
def test_version_is_compared_with_the_drivers_release(lab, release, version, end):
    lab.run(store_only(package(version=version), **({"adapters": [{"release": release}]} if release else {})))
    check(lab, end, has(version=version), release=release)


def highest(*packages: tuple[str, str]) -> tuple:
    """Only the numerically highest version matches the driver's release; it is neither the first nor the last in the list."""
    return [package(*one) for one in packages], SAME_HERE, [has(*one) for one in packages]


def named(name: str) -> tuple:
    return [package(name, "2.24.20.0")], SAME_HERE, [has(name, "2.24.20.0")]


UNKNOWN = f"Unknown expection occured when enumerating info for {CORVEL}"
PACKAGES = {  # name: packages, end, lines about them
    "disabled": ([package(version="2.24.20.0", ok=False)], NOT_HERE, [has(version="2.24.20.0"), DISABLED, NO_STORE]),
    "disabled and highest": ([CURRENT, package(EARLIER, "9.99.99.0", ok=False)], SAME_HERE,
                             [has(version="2.24.20.0"), has(EARLIER, "9.99.99.0"), DISABLED]),
    "major version, first": highest((CORVEL, "2.24.20.0"), (EARLIER, "1.99.99.0")),
    "major version, last": highest((EARLIER, "1.99.99.0"), (CORVEL, "2.24.20.0")),
    "minor version": highest((CORVEL, "1.24.20.0"), (EARLIER, "1.9.99.0")),
    "build": highest((EARLIER, "1.24.3.10"), (CORVEL, "1.24.20.9")),
    "two digits, first": highest((CORVEL, "10.24.20.0"), (EARLIER, "9.30.10.0")),
    "two digits, last": highest((EARLIER, "9.30.10.0"), (CORVEL, "10.24.20.0")),
    "of another user": ([{**CURRENT, "user": "S-1-5-21-7-8-9-1002"}], SAME_HERE, [has(version="2.24.20.0")]),
    "name in other letters": named("Contoso.taviksystemsinc-2.8f31d07a2b6e4.Extra_1.0.0.0_neutral__abc"),
    "longer name": named("TAVIKSYSTEMSINC-2.TAVIKCORVELSOFTWAREPRO_1.0.0.0_x64__abc"),
    "name alone": named("TavikSystemsInc-2.TavikCorvelSoftware"),
    "version of zeros": ([package(version="0.0.0.0")], NOT_HERE, [has(version="0.0.0.0")]),
    "out of memory": ([package(fail="VerifyIsOK:0x8007000E"), package(fail="get_Status:0x8007000E:With a text."), package(EARLIER, "2.24.20.0")],
                      SAME_HERE, [has(), UNKNOWN, has(), UNKNOWN, has(EARLIER, "2.24.20.0")]),
}


# Proves: All matching packages disabled => the same, after their lines
# Proves: A disabled package => logged as such, never counts, even as the highest
# Proves: Two usable versions, 1.10.0.0 and 1.9.5.0
# Proves: Packages of other users => count: all packages are asked for, once
# Proves: A full name contains either name anywhere, in any letter case
# Proves: A version of zeros => counts as none
# Proves: Memory runs out while reading one => "Unknown expection", the next one is read
@pytest.mark.parametrize("name", PACKAGES)
def test_package_counts_or_not(lab, name):
    packages, end, lines = PACKAGES[name]
    lab.run(store_only(*packages))
    check(lab, end, *lines)
    assert asked(lab.result, "FindPackages") == ["FindPackages -> 0x0 thread=1"]


# Proves: Other packages, a package without a name => skipped, nothing is logged
# Proves: No matching package (store package query) => "UWP version is not installed", the zero version
def test_packages_of_other_names_are_not_logged(lab):
    others = [OTHER, "TavikSystemsInc-2.TavikCorvelSoftwar_9.9.9.9_x64__abc", "TavikSystemsInc-2.8F31D07A2B6E_9.9.9.9_x64__abc",
              "TavikSystemsInc-3.8F31D07A2B6E4_9.9.9.9_x64__abc", "(null)"]
    lab.run(store_only(*(package(name, "2.24.20.0") for name in others)))
    check(lab, NOT_HERE, NO_STORE)
    assert len(asked(lab.result, "get_FullName")) == 5
    assert not asked(lab.result, "get_Version") and not asked(lab.result, "get_Status")


# Proves: Reading one package fails
def test_failures_of_one_package_are_logged_and_the_next_one_is_read(lab):
    methods = {1: ("get_Id", "No id."), 2: ("get_FullName", "No name."), 3: ("get_Version", "No version."),
               4: ("IPackage3", "No third interface."), 5: ("get_Status", "No status."), 6: ("VerifyIsOK", "Not verified.")}
    lab.run(store_only(*(package(numbered(number), f"2.99.{number}.0", fail=f"{method}:0x80004005:{text}")
                         for number, (method, text) in methods.items()),
                       package(numbered(7), "2.99.7.0", null="package"), package(numbered(8), "2.99.8.0", null="get_Id"),
                       package(numbered(9), "2.99.9.0", null="get_Status"), CURRENT))
    check(lab, SAME_HERE, FAILED("No id.", ""), FAILED("No name.", ""), FAILED("No version.", numbered(3)),
          *(line for number in (4, 5, 6) for line in (has(numbered(number), f"2.99.{number}.0"), FAILED(methods[number][1], numbered(number)))),
          FAILED(POINTER, ""), FAILED(POINTER, ""), has(numbered(9), "2.99.9.0"), FAILED(POINTER, numbered(9)), has(version="2.24.20.0"))


# (failure, text): an error object that describes the failure gives the text; otherwise the system does.
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
def test_text_of_an_error(lab):
    lab.run(store_only(*(package(fail=f"get_Version:{failure}") for failure, _ in TEXTS)))
    texts = "\n".join(FAILED(text, CORVEL) for _, text in TEXTS)  # one of them has two lines
    check(lab, UNREAD, *texts.split("\n"), NO_STORE)


BOTH_READ = [has(version="2.24.20.0"), has(EARLIER)]


# Proves: The manager cannot be created, or the enumeration fails (store package query)
# Proves: Memory runs out while searching (store package query)
# Proves: A Windows without these classes or functions
@pytest.mark.parametrize("manager, lines", [
    ({"activation": "0x80070005:No such manager."}, [SEARCHING("No such manager.")]),
    ({"create": "0x80070005"}, [SEARCHING(DENIED)]),
    ({"create": "null"}, [SEARCHING(POINTER)]),
    ({"find": "0x80070005:Administrators only."}, [SEARCHING("Administrators only.")]),
    ({"find": "null"}, [SEARCHING(POINTER)]),
    ({"find": "0x8007000E"}, ["Unknown expection occured when searching for UWP version of VLT"]),
    ({"first": "0x80004005:No first."}, [SEARCHING("No first.")]),
    ({"first": "null"}, [SEARCHING(POINTER)]),
    ({"next": "2:0x80004005:The list has changed."}, [*BOTH_READ, SEARCHING("The list has changed.")]),
    ({"current": "3:0x80004005:The list has changed."}, [*BOTH_READ, SEARCHING("The list has changed.")]),
    (None, [SEARCHING("")])], ids=lambda value: str(value) if not isinstance(value, list) else "")
def test_search_that_fails_finds_nothing(lab, manager, lines):
    """What was found before does not count. None: a system without the package manager."""
    machine = {"desktop": False, "store": False} if manager is None else store_only(CURRENT, package(EARLIER), package(OTHER), manager=manager)
    lab.run(machine)
    check(lab, UNREAD, *lines)


# Proves: The thread has no apartment (store package query) => it becomes part of the multithreaded one, and the class is asked for once more; for no other error
def test_thread_without_an_apartment_gets_one(lab):
    lab.run(store_only(CURRENT, manager={"activation": "mta"}))
    check(lab, SAME_HERE, has(version="2.24.20.0"))
    assert asked(lab.result, FACTORY) == until_apartment(FACTORY)


@pytest.mark.parametrize("failure, text, times", [("0x800401F0", "", 2 if wine_version() < 10 else 1), ("0x80040154:Gone.", "Gone.", 1)],
                         ids=["no apartment", "another failure"])
def test_activation_is_tried_again_only_for_a_missing_apartment(lab, failure, text, times):
    """Wine 10 itself refuses the first time, as Windows does; the component is asked the second time only."""
    lab.run(store_only(package(), manager={"activation": failure}))
    check(lab, UNREAD, SEARCHING(text))
    assert len(asked(lab.result, "DllGetActivationFactory")) == times


def test_calls_of_a_search_in_order(lab):
    lab.run(store_only(package(OTHER), CURRENT))
    check(lab, SAME_HERE, has(version="2.24.20.0"))
    assert calls(lab.result) == [
        FACTORY, "QueryInterface PackageManagerFactory IActivationFactory", "ActivateInstance PackageManager",
        f"QueryInterface {MANAGER} IPackageManager", "FindPackages", "First", "get_HasCurrent",
        f'get_Current "{OTHER}"', f'get_Id "{OTHER}"', f'get_FullName "{OTHER}"', "MoveNext",
        f'get_Current "{CORVEL}"', f'get_Id "{CORVEL}"', f'get_FullName "{CORVEL}"', f'get_Version "{CORVEL}"',
        "QueryInterface Package IPackage3", f'get_Status "{CORVEL}"', f'VerifyIsOK "{CORVEL}"', "MoveNext"]


# Proves: Desktop edition installed => its version counts, the Store is not asked
def test_with_the_desktop_edition_the_store_is_not_asked(lab):
    lab.run({"desktop": {"release": "24.20"}, "store": {"packages": [package()]}})
    lab.check(outcome="same-release", exit_code=-1, boxes=[SAME_RELEASE])
    assert lab.result.store_calls == []


def test_without_an_adapter_the_store_is_not_asked(lab):
    lab.run(store_only(package(), adapters=[]))
    lab.check(outcome="no-adapter", exit_code=-1, boxes=[NO_ADAPTER], log=[*opening(version=""), *NO_ADAPTER_LEFT])
    assert lab.result.store_calls == []


@pytest.mark.parametrize("found, end", [(CURRENT, SAME_HERE), (package(OTHER), NOT_HERE)], ids=["same release", "not installed"])
def test_silent_early_exits_show_nothing(lab, found, end):
    lab.run(store_only(found), "-SILENT")
    lab.check(outcome=end[0], exit_code=-1, boxes=[])
    assert lab.result.log[-1] == end[-1]
    assert not any(sample["visible"] for sample in lab.result.status)


def test_second_instance_does_not_ask_the_store(lab):
    result = lab.run(store_only(CURRENT), when=["box : second -FORCE"])
    lab.check(outcome="same-release, another-instance", exit_code=-1, boxes=[SAME_RELEASE], requests=[])
    check_refused(result, "-FORCE")
    assert len(asked(result, "DllGetActivationFactory")) == 1
