"""The inventory: which adapters count, their releases and order, their packages, and what an INF tells.

The desktop edition is of release 24.20. When that is also the greatest release, the run ends there; otherwise it ends before a
download, because the server folder has no host. What happens when a call fails is shown by the fault campaign and the in-process tests.
"""
from __future__ import annotations

import re

import pytest

from cases.support.expect import NO_ADAPTER_LEFT, NO_SERVER, NOT_THE_MAKERS, OTHER_ADAPTER, SAME, opening, without_server
from lab import inf
from lab.adapters import RELEASE

NAME = "Tavik Corvel 7800"
MAKER = r"PCI\VEN_1E7D&DEV_2F11&SUBSYS_00011E7D&REV_A1\4&1A2B3C4D&0&0001"
SECOND = r"PCI\VEN_1E7D&DEV_2F12&SUBSYS_00011E7D&REV_A1\4&1A2B3C4D&0&0002"
GENERIC = "Microsoft Basic Display Adapter"
MATCHING = "\tFound driver matching active driver"


def run(lab, *adapters: dict, rules: tuple[str, ...] = (), **machine) -> object:
    """rules: faults of SetupAPI."""
    faults = {"faults": [f"setupapi!{rule}" for rule in rules]} if rules else {}
    return lab.run({"desktop": {"release": "24.20"}, "adapters": list(adapters), **NO_SERVER, **faults, **machine})


def check(lab, *lines: str, listed: list[str], outcome: str = "same-release", prefix: str | None = None) -> None:
    """The lines between the installed version and the list, then the list. prefix: the release that is downloaded, if it is another
    one than the installed release."""
    log = [*opening("", "24.20"), *lines, NO_ADAPTER_LEFT[0], *(f"\t {line}" for line in listed)]
    end = NO_ADAPTER_LEFT[1:] if not listed else [f"{SAME} Exiting."] if prefix is None else without_server(prefix=prefix)
    lab.check(outcome=outcome, log=[*log, *end])
    lists = [line for line in lab.result.calls if line.startswith(("setupapi!SetupDiGetClassDevsW", "setupapi!SetupDiDestroy"))]
    opened = [line for line in lab.result.calls if line.startswith("setupapi!SetupOpenInfFileW") and "-> invalid" not in line]
    closed = [line for line in lab.result.calls if line.startswith("setupapi!SetupCloseInfFile")]
    assert len(lists) == 2, "the list of devices is released"
    assert len(opened) == len(closed), "every INF is closed"


def enumerating(device: str = MAKER, name: str = NAME) -> str:
    return f"Enumerating installed drivers for {device} - {name}"


def found(number: int = 1, version: str = RELEASE) -> str:
    return rf"Found driver {{store{number}}}\u04{number:05}.inf. Version [{version}]"


def shown(number: int = 1, name: str = NAME) -> str:
    """An adapter in the list, with the folder of this package."""
    return f"[{name}] [{RELEASE}] [{{store{number}}}]"


def no_release(device: str, why: str = "Unable to get registry value") -> str:
    return f"Unable to find ReleaseVersion regkey for [{NAME}] - [{device}]. {why}: {{any}}"


def not_the_makers(device: str) -> str:
    return f"[{NAME}] - [{device}] is not an Tavik Display Adapter."


def cards(key: str, *values: object) -> tuple[list[dict], list[str]]:
    """Adapters that differ in one thing, in the order in which the system gives them, and their ids."""
    ids = [rf"PCI\VEN_1E7D&DEV_2F1{number}&SUBSYS_00011E7D&REV_A1\4&1A2B3C4D&0&000{number}" for number in range(1, len(values) + 1)]
    return [{"id": device, key: value} for device, value in zip(ids, values)], ids


USUAL = [enumerating(), found(), MATCHING]
OTHER_VENDOR = r"PCI\VEN_1E7C&DEV_2F11&SUBSYS_00011E7D&REV_A1\4&1A2B3C4D&0&0001"
INSIDE = r"ROOT\XVEN_1E7DX\0001"
NO_FOLDER = f"[{NAME}] [{RELEASE}] []"
PROBLEM = "Unable to get DEVPKEY_Device_ProblemCode property: "


# Which adapters count

ONE = {  # name: adapter, lines, how the adapter is listed
    "second vendor": ({"id": OTHER_VENDOR}, [enumerating(OTHER_VENDOR), *USUAL[1:]], shown()),
    "vendor id anywhere": ({"id": INSIDE}, [enumerating(INSIDE), *USUAL[1:]], shown()),
    "no description": ({"description": False}, [enumerating(name=""), *USUAL[1:]], shown(name="")),
    "no problem code": ({"problem": False}, [f"{PROBLEM} 1168 {{any}}", *USUAL], shown()),
    "no package": ({"packages": []}, USUAL[:1], NO_FOLDER),
    "no package of the release": ({"packages": [{"release": "24.20.11.01"}]}, [enumerating(), found(version="24.20.11.01")], NO_FOLDER),
}


# Proves: A vendor id anywhere, in lower case
# Proves: The description cannot be read
# Proves: The problem code cannot be read
# Proves: No package carries the release
@pytest.mark.parametrize("name", ONE)
def test_one_adapter_is_kept(lab, name):
    """None of these excludes the adapter; without a matching package it has no folder."""
    adapter, lines, listed = ONE[name]
    run(lab, {"id": MAKER, **adapter})
    check(lab, *lines, listed=[listed])


# Proves: Neither of the maker's two vendor ids in the id
def test_adapters_of_other_makers_are_logged_and_left_out(lab):
    run(lab, OTHER_ADAPTER, {"id": MAKER})
    check(lab, *USUAL, NOT_THE_MAKERS, listed=[shown()])


@pytest.mark.quick
def test_vendor_id_in_lower_case_counts(lab):
    """Wine returns ids in capital letters, whatever is stored; the adapter counts either way."""
    result = run(lab, {"id": MAKER.replace("VEN_1E7D", "ven_1e7d")})
    given = re.search(r'SetupDiGetDeviceInstanceIdW#1 .*id="([^"]*)"', "\n".join(result.calls)).group(1)
    assert given.upper() == MAKER
    check(lab, enumerating(given), *USUAL[1:], listed=[shown()])


# Proves: A description shorter than nine characters, or in other letter case
def test_generic_drivers_are_left_out(lab):
    """The word "Microsoft" decides, in exactly this letter case and anywhere in the name."""
    names = [GENERIC, "microsoft basic display adapter", "Microsoft", "MICROSOFT", "The Microsoft one", "Microsof"]
    adapters, ids = cards("description", *names)
    run(lab, *adapters)
    lines = []
    for number, (device, name) in enumerate(zip(ids, names), 1):
        lines += [enumerating(device, name), found(number), MATCHING]
    check(lab, *lines, listed=[shown(number, names[number - 1]) for number in (2, 4, 6)])


# Proves: Device Manager reports a problem
def test_devices_with_a_problem_are_kept(lab):
    adapters, ids = cards("problem", 43, 0, 22)
    run(lab, *adapters)
    check(lab, "Device has CM_PROB_Xxx code 43", enumerating(ids[0]), found(1), MATCHING, enumerating(ids[1]), found(2), MATCHING,
          "Device has CM_PROB_Xxx code 22", enumerating(ids[2]), found(3), MATCHING, listed=[shown(1), shown(2), shown(3)])


# Proves: The driver key cannot be opened, or has no readable release
def test_adapter_without_a_readable_release_is_left_out(lab):
    adapters, ids = cards("release", False, {"type": "REG_DWORD", "hex": "14000000"}, ["24.20"], RELEASE, RELEASE)
    adapters[3]["driver_key"] = r"{4D36E968-E325-11CE-BFC1-08002BE10318}\0077"
    run(lab, *adapters)
    check(lab, *(no_release(device) for device in ids[:3]), no_release(ids[3], "Unable to open registry key"),
          enumerating(ids[4]), found(5), MATCHING, listed=[shown(5)])


# Proves: The driver key cannot be read
def test_first_of_two_adapters_is_left_out(lab):
    run(lab, {"id": MAKER, "driver_key": False}, {"id": SECOND})
    check(lab, f"Failed to get SPDRP_DRIVER for {MAKER}: {{number}}  {{any}}", enumerating(SECOND), found(2), MATCHING, listed=[shown(2)])


NONE_LEFT = {  # name: outcome, adapters, rules, lines
    "only a generic driver": ("no-usable-driver", [{"id": MAKER, "description": GENERIC}], (), [enumerating(name=GENERIC), *USUAL[1:]]),
    "every adapter is unreadable": ("no-usable-driver", [{"id": MAKER, "release": False}, OTHER_ADAPTER], (),
                                    [no_release(MAKER), NOT_THE_MAKERS]),
    "devices cannot be enumerated": ("no-adapter", [{}], ("SetupDiEnumDeviceInfo * error=13",), []),
}


# Proves: "Microsoft" in the description
# Proves: The devices cannot be enumerated => an empty list without a line
@pytest.mark.parametrize("name", NONE_LEFT)
def test_no_adapter_is_left(lab, name):
    outcome, adapters, rules, lines = NONE_LEFT[name]
    run(lab, *adapters, rules=rules)
    check(lab, *lines, listed=[], outcome=outcome)


def test_ids_that_only_look_like_the_makers_do_not_count(lab):
    ids = [r"PCI\1E7D_VEN&DEV_2F11&SUBSYS_1E7CVEN_&REV_A1\4&1A2B3C4D&0&0001",
           r"PCI\VEN_1E7&DEV_D2F1&SUBSYS_00011E7C&REV_A1\4&1A2B3C4D&0&0001",
           r"PCI\VEN_1E7E&DEV_1E7D&SUBSYS_00011E7D&REV_A1\4&1A2B3C4D&0&0001"]
    run(lab, *({"id": device} for device in ids))
    assert set(lab.result.log[2:5]) == set(map(not_the_makers, ids))
    check(lab, *lab.result.log[2:5], listed=[], outcome="no-adapter")


# Releases and their order

# Proves: Any run
# Proves: Releases 23.10.2 and 23.9.1
# Proves: Equal releases
@pytest.mark.parametrize("releases, order, version", [
    (("23.10.2-a", "23.9.1-b"), (2, 1), "23.9.1"),
    (("24.20-a", "24.20.1-b"), (2, 1), "24.20"),
    (("24.20.1-b", "24.20.1-a", "24.20.1-c"), (1, 2, 3), "24.20"),
    (("24.10.3", "V24.20", "24.30.1", "-24.40", "v24.10"), (5, 2, 3, 1, 4), "v24.1"),
], ids=["characters, not numbers", "prefix comes last", "equal ones stay", "five"])
def test_adapters_are_listed_by_release(lab, releases, order, version):
    adapters = [{"release": release, "description": f"Card {number}"} for number, release in enumerate(releases, 1)]
    result = run(lab, *adapters, registry={r"HKLM\Software\Tavik\HL": {"HLVersion": version}})
    lab.check(outcome="same-release")
    at = result.log.index(NO_ADAPTER_LEFT[0])
    stores = [adapter.packages[0].store_folder() for adapter in lab.machine.adapters]
    assert result.log[at + 1:-1] == [f"\t [Card {number}] [{releases[number - 1]}] [{stores[number - 1]}]" for number in order]


# Proves: A release without a hyphen, or one that begins with it
@pytest.mark.parametrize("release, prefix", [("24.30.1.2", "24.30"), ("-240619a", ""), ("a-b-c", "a"), ("24.30-1-2", "24.30")])
def test_release_counts_up_to_its_first_hyphen(lab, release, prefix):
    run(lab, {"id": MAKER, "release": release})
    check(lab, enumerating(), found(version=release), MATCHING, listed=[f"[{NAME}] [{release}] [{{store1}}]"], prefix=prefix,
          outcome="download-bad-address")


# Packages

# Proves: A package's release is the active one, in any letter case
def test_last_matching_package_wins(lab):
    run(lab, {"id": MAKER, "packages": [{}, {"release": RELEASE.upper()}, {"release": "24.10.1"}]})
    check(lab, *USUAL, found(2, RELEASE.upper()), MATCHING, found(3, "24.10.1"), listed=[shown(2)])


# Proves: The driver store does not know a package
def test_package_missing_from_the_store_counts_as_the_one_before(lab):
    """The buffer is not cleared, so the previous package is used, or none."""
    run(lab, {"id": MAKER, "packages": [{"release": "24.10.1", "store": False}, {}, {"release": "24.30.1", "store": False}]})
    check(lab, enumerating(), "Found driver . Version []", found(2), MATCHING, found(2), MATCHING, listed=[shown(2)])


def test_package_of_the_adapter_before_is_used_too(lab):
    run(lab, {"id": MAKER}, {"id": SECOND, "packages": [{"store": False}]})
    check(lab, *USUAL, enumerating(SECOND), found(), MATCHING, listed=[shown()] * 2)


# What an INF tells

def inf_with(settings: str, **package) -> dict:
    """A package whose INF has these settings, and the release as a string as well."""
    text = inf.text("u", "Adapter", "{hardware}", RELEASE).replace("\r\n", "\n")
    text = re.sub(r"\[Adapter_Settings\].*?(?=\[Strings\])", lambda _: f"{settings}\n", text, flags=re.S) + f'Release="{RELEASE}"\n'
    return {"text": text.replace("\n", "\r\n"), **package}


SETTINGS = "[Adapter_Settings]\n"
LINE = "HKR,,ReleaseVersion,,24.20.11.01-240619a"
NO_LINE = SETTINGS + "HKR,,Other,,1"
READ = {
    "lower case": (SETTINGS + 'hkr,,releaseversion,,"24.20.11.01-240619a"', RELEASE),
    "string key": (SETTINGS + "HKR,,ReleaseVersion,,%Release%", RELEASE),
    "blanks and a comment": (SETTINGS + " HKR , , ReleaseVersion , , 24.20.11.01-240619a ; the release", RELEASE),
    "last line": (SETTINGS + "HKR,,ReleaseVersion,,1.0\nHKR,,Other,,2.0\n" + LINE + "\nHKR,,Other,,3.0", RELEASE),
    "later section": (SETTINGS + "HKR,,ReleaseVersion,,1.0\n[Unused]\n" + LINE, RELEASE),
    "any section": ("[Unused]\n" + LINE + "\n" + NO_LINE, RELEASE),
    "comma in the value": (SETTINGS + 'HKR,,ReleaseVersion,,"1.0,2"', "1.0,2"),
    "empty value": (SETTINGS + "HKR,,ReleaseVersion,,", ""),
    "comment behind the header": ("[Adapter_Settings] ; settings\n" + LINE, ""),
    "indented header": (" [Adapter_Settings]\n" + LINE, ""),
    "header once plain": ("[Adapter_Settings] ; settings\n" + LINE + "\n" + NO_LINE, RELEASE),
    "other root": (SETTINGS + "HKLM,,ReleaseVersion,,24.20.11.01-240619a", ""),
    "with flags": (SETTINGS + "HKR,,ReleaseVersion,0x0,24.20.11.01-240619a", ""),
    "sub-key": (SETTINGS + "HKR,Sub,ReleaseVersion,,24.20.11.01-240619a", ""),
    "line too long": (SETTINGS + "HKR,,ReleaseVersion,," + ",".join("x" * 500 for _ in range(5)) + "\nHKR,,Other,,1", ""),
    "no line": (NO_LINE, ""),
}


# Proves: A header with a comment after it, or indented
# Proves: Saved as UTF-16
# Proves: The release line in any letter case
# Proves: The value is a string key
# Proves: Several release lines
def test_release_is_read_from_the_inf(lab):
    """One adapter has all these packages."""
    packages = [inf_with(settings) for settings, _ in READ.values()]
    versions = [version for _, version in READ.values()]
    # Sections of a UTF-16 file are not seen; a UTF-8 mark hides just the first header.
    packages += [inf_with(SETTINGS + LINE, encoding=encoding) for encoding in ("utf-16", "utf-8-sig", "utf-16")]
    versions += ["", RELEASE, ""]
    for number, package in enumerate(packages, 1):
        package["inf"] = f"oem{number:02}.inf"  # the system takes them in the order of their names
    result = run(lab, {"id": MAKER, "packages": packages})
    cases = [*READ, "UTF-16", "UTF-8", "UTF-16 again"]
    seen = dict(zip(cases, (re.search(r"Version \[(.*)\]$", line).group(1) for line in result.log if line.startswith("Found driver "))))
    assert seen == dict(zip(cases, versions))
    lines = []
    for number, version in enumerate(versions, 1):
        lines += [found(number, version), *([MATCHING] if version == RELEASE else [])]
    check(lab, enumerating(), *lines, listed=[shown(len(cases) - 1)])


# Proves: An adapter of the maker with its package
def test_inventory_makes_these_calls_in_order(lab):
    result = run(lab, {"id": MAKER})
    check(lab, *USUAL, listed=[shown()])
    calls = [line.removeprefix("setupapi!").rpartition(" -> ")[0] for line in result.calls if "Line" not in line]
    store = lab.machine.adapters[0].packages[0].store_folder()
    assert [call.split(" ")[0] for call in calls] == [
        "SetupDiGetClassDevsW#1", "SetupDiEnumDeviceInfo#1", "SetupDiGetDeviceInstanceIdW#1", "SetupDiGetDeviceRegistryPropertyW#1",
        "SetupDiGetDeviceRegistryPropertyW#2", "SetupDiGetDeviceRegistryPropertyW#3", "SetupDiGetDeviceRegistryPropertyW#4",
        "SetupDiGetDevicePropertyW#1", "SetupDiBuildDriverInfoList#1", "SetupDiEnumDriverInfoW#1", "SetupDiGetDriverInfoDetailW#1",
        "SetupDiGetDriverInfoDetailW#2", "SetupGetInfDriverStoreLocationW#1", "SetupOpenInfFileW#1", "SetupCloseInfFile#1",
        "SetupDiEnumDriverInfoW#2", "SetupDiEnumDeviceInfo#2", "SetupDiDestroyDeviceInfoList#1"]
    text = "\n".join(calls)
    for part in ("SetupDiGetClassDevsW#1 class={4D36E968-E325-11CE-BFC1-08002BE10318}; enumerator=(null); parent=0x0; flags=0x2",
                 "SetupDiEnumDeviceInfo#1 index=0; size=32", "SetupDiGetDeviceInstanceIdW#1 size=520;",
                 "SetupDiGetDeviceRegistryPropertyW#1 property=0; size=0;",
                 f"SetupDiGetDeviceRegistryPropertyW#2 property=0; size={2 * len(NAME) + 2};",
                 "SetupDiGetDeviceRegistryPropertyW#3 property=9; size=0;", "SetupDiGetDeviceRegistryPropertyW#4 property=9; size=88;",
                 "key={4340A6C5-93FA-4706-972C-7B648008A5A7}; pid=3; type=7; size=4; flags=0x0", "SetupDiBuildDriverInfoList#1 type=2",
                 "SetupDiEnumDriverInfoW#1 type=2; index=0; size=1568", "SetupDiGetDriverInfoDetailW#1 size=0; detail=0",
                 "detail=1584; inf=", r'platform=0x0; locale=(null); size=260; location="' + store,
                 rf'SetupOpenInfFileW#1 path="{store}\u0400001.inf"; class=(null); style=0x2'):
        assert part in text, part
