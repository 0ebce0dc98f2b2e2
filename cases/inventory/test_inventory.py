"""The inventory: which adapters count, their releases and order, their packages, and what an INF tells.

The desktop edition is of release 24.20. When that is also the greatest release, the run ends there; the server has no
host, so that any other run ends before a download.
"""
from __future__ import annotations

import re

import pytest

from cases.support.expect import DOWNLOAD_FAILED, NO_ADAPTER, SAME_RELEASE, opening
from lab.adapters import RELEASE

NAME = "Tavik Corvel 7800"
MAKER = r"PCI\VEN_1E7D&DEV_2F11&SUBSYS_00011E7D&REV_A1\4&1A2B3C4D&0&0001"
SECOND = r"PCI\VEN_1E7D&DEV_2F12&SUBSYS_00011E7D&REV_A1\4&1A2B3C4D&0&0002"
OTHER = {"id": r"PCI\VEN_8086&DEV_46A6&SUBSYS_00000000&REV_0C\3&11583659&0&10", "description": "Other Graphics", "packages": []}
NOT_OTHERS = rf"[Other Graphics] - [{OTHER['id']}] is not an Tavik Display Adapter."
NONE_LEFT = ["Currently installed drivers on system:", "Unable to find installed Tavik display adapters. Exiting."]
MATCHING = "\tFound driver matching active driver"


def run(lab, *adapters: dict, **machine) -> object:
    return lab.run({"desktop": {"release": "24.20"}, "adapters": list(adapters), "server": {"folder": "http:///x"}, **machine})


def check(lab, *lines: str, listed: list[str], prefix: str | None = None, version: str = "24.20", folder: str = "{store1}") -> None:
    """The lines between the installed version and the list, then the list. prefix: the release that is asked for, none when
    the release is the same as the installed one."""
    start = opening("", version, "24.20.11.01")
    log = [*start, *lines, "Currently installed drivers on system:", *(f"\t {line}" for line in listed)]
    if not listed:
        lab.check(exit_code=-1, boxes=[NO_ADAPTER], log=[*start, *lines, *NONE_LEFT])
    elif prefix is None:
        log.append("Currently installed version of VLT is from the same release as the active driver. Exiting.")
        lab.check(exit_code=-1, boxes=[SAME_RELEASE], log=log)
    else:
        log += [f"Unable to find dwx2-install.exe at [{folder}]. Downloading dwx2_install.exe for [{prefix}] from web.",
                "Change server to http:///x.",
                "\tException occured during the download of dwx2_install.exe. Unable to connect to server: {any}",
                "Unable to download dwx2_install.exe from web. Exiting."]
        lab.check(exit_code=-1, boxes=[DOWNLOAD_FAILED], log=log)
    lists = [line for line in lab.result.calls if line.startswith(("setupapi!SetupDiGetClassDevsW", "setupapi!SetupDiDestroy"))]
    opened = [line for line in lab.result.calls if line.startswith("setupapi!SetupOpenInfFileW") and "-> invalid" not in line]
    closed = [line for line in lab.result.calls if line.startswith("setupapi!SetupCloseInfFile")]
    assert len(lists) == (2 if "-> invalid" not in lists[0] else 1), "the list of devices is given back"
    assert len(opened) == len(closed), "every INF is closed"


def enumerating(device: str = MAKER, name: str = NAME) -> str:
    return f"Enumerating installed drivers for {device} - {name}"


def found(number: int = 1, version: str = RELEASE) -> str:
    return rf"Found driver {{store{number}}}\u04{number:05}.inf. Version [{version}]"


# Which adapters count

# Proves: Neither of the maker's two vendor ids in the id
def test_adapters_of_others_are_named_and_passed_over(lab):
    run(lab, OTHER, {"id": MAKER})
    check(lab, enumerating(), found(), MATCHING, NOT_OTHERS, listed=[f"[{NAME}] [{RELEASE}] [{{store1}}]"])


# Proves: A vendor id anywhere, in lower case
@pytest.mark.parametrize("device", [
    r"PCI\VEN_1E7C&DEV_2F11&SUBSYS_00011E7D&REV_A1\4&1A2B3C4D&0&0001",
    r"ROOT\XVEN_1E7DX\0001",
], ids=["second vendor", "anywhere in the id"])
def test_makers_ids(lab, device):
    run(lab, {"id": device})
    check(lab, enumerating(device), found(), MATCHING, listed=[f"[{NAME}] [{RELEASE}] [{{store1}}]"])


def test_ids_that_only_look_like_the_makers(lab):
    ids = [r"PCI\1E7D_VEN&DEV_2F11&SUBSYS_1E7CVEN_&REV_A1\4&1A2B3C4D&0&0001",
           r"PCI\VEN_1E7&DEV_D2F1&SUBSYS_00011E7C&REV_A1\4&1A2B3C4D&0&0001",
           r"PCI\VEN_1E7E&DEV_1E7D&SUBSYS_00011E7D&REV_A1\4&1A2B3C4D&0&0001"]
    run(lab, *({"id": device} for device in ids))
    lines = {f"[{NAME}] - [{device}] is not an Tavik Display Adapter." for device in ids}
    assert set(lab.result.log[2:5]) == lines
    check(lab, *lab.result.log[2:5], listed=[])


@pytest.mark.quick
def test_vendor_id_in_lower_case(lab):
    """The system at hand gives ids in capital letters, whatever they are stored in; the adapter counts either way."""
    device = MAKER.replace("VEN_1E7D", "ven_1e7d")
    result = run(lab, {"id": device})
    given = re.search(r'SetupDiGetDeviceInstanceIdW#1 .*id="([^"]*)"', "\n".join(result.calls)).group(1)
    assert given.upper() == MAKER
    check(lab, enumerating(given), found(), MATCHING, listed=[f"[{NAME}] [{RELEASE}] [{{store1}}]"])


def cards(key: str, *values: object) -> tuple[list[dict], list[str]]:
    """Adapters that differ in one thing, in the order in which the system gives them, and their ids."""
    ids = [rf"PCI\VEN_1E7D&DEV_2F1{number}&SUBSYS_00011E7D&REV_A1\4&1A2B3C4D&0&000{number}" for number in range(1, len(values) + 1)]
    return [{"id": device, key: value} for device, value in zip(ids, values)], ids


# Proves: A description shorter than nine characters, or in other letter case
def test_generic_drivers_are_left_out(lab):
    """The word decides, in these very letters and anywhere in the name."""
    names = ["Microsoft Basic Display Adapter", "microsoft basic display adapter", "Microsoft", "MICROSOFT", "The Microsoft one", "Microsof"]
    adapters, ids = cards("description", *names)
    run(lab, *adapters)
    lines = []
    for number, (device, name) in enumerate(zip(ids, names), 1):
        lines += [enumerating(device, name), found(number), MATCHING]
    check(lab, *lines, listed=[f"[{names[number - 1]}] [{RELEASE}] [{{store{number}}}]" for number in (2, 4, 6)])


# Proves: "Microsoft" in the description
def test_only_a_generic_driver(lab):
    run(lab, {"id": MAKER, "description": "Microsoft Basic Display Adapter"})
    check(lab, enumerating(name="Microsoft Basic Display Adapter"), found(), MATCHING, listed=[])


def test_adapter_without_a_description(lab):
    run(lab, {"id": MAKER, "description": False})
    check(lab, enumerating(name=""), found(), MATCHING, listed=[f"[] [{RELEASE}] [{{store1}}]"])


# Proves: Device Manager reports a problem
def test_devices_with_a_problem_are_kept(lab):
    adapters, ids = cards("problem", 43, 0, 22)
    run(lab, *adapters)
    check(lab, "Device has CM_PROB_Xxx code 43", enumerating(ids[0]), found(1), MATCHING, enumerating(ids[1]), found(2), MATCHING,
          "Device has CM_PROB_Xxx code 22", enumerating(ids[2]), found(3), MATCHING,
          listed=[f"[{NAME}] [{RELEASE}] [{{store{number}}}]" for number in (1, 2, 3)])


# Proves: The problem code cannot be read
def test_problem_is_not_known(lab):
    run(lab, {"id": MAKER, "problem": False})
    check(lab, "Unable to get DEVPKEY_Device_ProblemCode property:  1168 {any}", enumerating(), found(), MATCHING,
          listed=[f"[{NAME}] [{RELEASE}] [{{store1}}]"])


# Proves: The driver key cannot be opened, or has no readable release
def test_release_cannot_be_read(lab):
    adapters, ids = cards("release", False, {"type": "REG_DWORD", "hex": "14000000"}, ["24.20"], RELEASE, RELEASE)
    adapters[3]["driver_key"] = r"{4D36E968-E325-11CE-BFC1-08002BE10318}\0077"
    run(lab, *adapters)
    value, key = "Unable to get registry value: {any}", "Unable to open registry key: {any}"
    check(lab, *(f"Unable to find ReleaseVersion regkey for [{NAME}] - [{device}]. {text}"
                 for device, text in zip(ids, [value, value, value, key])),
          enumerating(ids[4]), found(5), MATCHING, listed=[f"[{NAME}] [{RELEASE}] [{{store5}}]"])


def test_device_without_a_driver_key(lab):
    run(lab, {"id": MAKER, "driver_key": False}, {"id": SECOND})
    check(lab, f"Failed to get SPDRP_DRIVER for {MAKER}: {{number}}  {{any}}", enumerating(SECOND), found(2), MATCHING,
          listed=[f"[{NAME}] [{RELEASE}] [{{store2}}]"])


def test_every_adapter_is_unreadable(lab):
    run(lab, {"id": MAKER, "release": False}, OTHER)
    check(lab, f"Unable to find ReleaseVersion regkey for [{NAME}] - [{MAKER}]. Unable to get registry value: {{any}}", NOT_OTHERS, listed=[])


# Releases and their order

def several(*releases: str) -> list[dict]:
    return [{"release": release, "description": f"Card {number}"} for number, release in enumerate(releases, 1)]


# Proves: Any run
# Proves: Releases 23.10.2 and 23.9.1
# Proves: Equal releases
@pytest.mark.parametrize("releases, order, version", [
    (("23.10.2-a", "23.9.1-b"), (2, 1), "23.9.1"),
    (("24.20-a", "24.20.1-b"), (2, 1), "24.20"),
    (("24.20.1-b", "24.20.1-a", "24.20.1-c"), (1, 2, 3), "24.20"),
    (("24.10.3", "V24.20", "24.30.1", "-24.40", "v24.10"), (5, 2, 3, 1, 4), "v24.1"),
], ids=["characters, not numbers", "prefix comes last", "equal ones stay", "five"])
def test_order_of_releases(lab, releases, order, version):
    result = run(lab, *several(*releases), registry={r"HKLM\Software\Tavik\HL": {"HLVersion": version}})
    lab.check(exit_code=-1, boxes=[SAME_RELEASE])
    at = result.log.index("Currently installed drivers on system:")
    stores = [adapter.packages[0].store_folder() for adapter in lab.machine.adapters]
    assert result.log[at + 1:-1] == [f"\t [Card {number}] [{releases[number - 1]}] [{stores[number - 1]}]" for number in order]


# Proves: A release without a hyphen, or one that begins with it
@pytest.mark.parametrize("release, prefix", [("24.30.1.2", "24.30"), ("-240619a", ""), ("a-b-c", "a"), ("24.30-1-2", "24.30")])
def test_release_up_to_its_first_hyphen(lab, release, prefix):
    run(lab, {"id": MAKER, "release": release})
    check(lab, enumerating(), found(version=release), MATCHING, listed=[f"[{NAME}] [{release}] [{{store1}}]"], prefix=prefix)


# Packages

# Proves: A package's release is the active one, in any letter case
def test_last_matching_package_wins(lab):
    run(lab, {"id": MAKER, "packages": [{}, {"release": RELEASE.upper()}, {"release": "24.10.1"}]})
    check(lab, enumerating(), found(), MATCHING, found(2, RELEASE.upper()), MATCHING, found(3, "24.10.1"),
          listed=[f"[{NAME}] [{RELEASE}] [{{store2}}]"])


# Proves: No package carries the release
@pytest.mark.parametrize("packages", [[], [{"release": "24.20.11.01"}]], ids=["none", "another"])
def test_no_package_of_the_release(lab, packages):
    run(lab, {"id": MAKER, "packages": packages})
    check(lab, enumerating(), *(found(version="24.20.11.01") for _ in packages), listed=[f"[{NAME}] [{RELEASE}] []"])


# Proves: The driver store does not know a package
def test_package_that_is_not_in_the_store(lab):
    """What stood in the buffer before is used: the package before, or nothing."""
    run(lab, {"id": MAKER, "packages": [{"release": "24.10.1", "store": False}, {}, {"release": "24.30.1", "store": False}]})
    check(lab, enumerating(), "Found driver . Version []", found(2), MATCHING, found(2), MATCHING,
          listed=[f"[{NAME}] [{RELEASE}] [{{store2}}]"])


def test_package_of_the_adapter_before_is_used_too(lab):
    run(lab, {"id": MAKER}, {"id": SECOND, "packages": [{"store": False}]})
    check(lab, enumerating(), found(), MATCHING, enumerating(SECOND), found(), MATCHING,
          listed=[f"[{NAME}] [{RELEASE}] [{{store1}}]"] * 2)


# What an INF tells

INF = """\
[Version]
Signature="$Windows NT$"
Class=Display
ClassGuid={4D36E968-E325-11CE-BFC1-08002BE10318}
Provider=%Maker%
CatalogFile=u.cat
DriverVer=06/19/2024,31.0.24020.1101

[Manufacturer]
%Maker%=Adapters,NTamd64

[Adapters.NTamd64]
"Adapter"=Adapter_Install,{hardware}

[Adapter_Install.NT]
AddReg=Adapter_Settings

@SETTINGS@
[Strings]
Maker="Tavik"
Release="24.20.11.01-240619a"
"""


def inf(settings: str, **package) -> dict:
    text = INF.replace("@SETTINGS@", settings).replace("\r\n", "\n").replace("\n", "\r\n")
    return {"text": text, **package}


SETTINGS = "[Adapter_Settings]\n"
READ = {
    "lower case": (SETTINGS + 'hkr,,releaseversion,,"24.20.11.01-240619a"', RELEASE),
    "string key": (SETTINGS + "HKR,,ReleaseVersion,,%Release%", RELEASE),
    "blanks and a comment": (SETTINGS + " HKR , , ReleaseVersion , , 24.20.11.01-240619a ; the release", RELEASE),
    "last line": (SETTINGS + "HKR,,ReleaseVersion,,1.0\nHKR,,Other,,2.0\nHKR,,ReleaseVersion,,24.20.11.01-240619a\nHKR,,Other,,3.0", RELEASE),
    "later section": (SETTINGS + "HKR,,ReleaseVersion,,1.0\n[Unused]\nHKR,,ReleaseVersion,,24.20.11.01-240619a", RELEASE),
    "any section": ("[Unused]\nHKR,,ReleaseVersion,,24.20.11.01-240619a\n" + SETTINGS + "HKR,,Other,,1", RELEASE),
    "comma in the value": (SETTINGS + 'HKR,,ReleaseVersion,,"1.0,2"', "1.0,2"),
    "empty value": (SETTINGS + "HKR,,ReleaseVersion,,", ""),
    "comment behind the header": ("[Adapter_Settings] ; settings\nHKR,,ReleaseVersion,,24.20.11.01-240619a", ""),
    "indented header": (" [Adapter_Settings]\nHKR,,ReleaseVersion,,24.20.11.01-240619a", ""),
    "header once plain": ("[Adapter_Settings] ; settings\nHKR,,ReleaseVersion,,24.20.11.01-240619a\n" + SETTINGS + "HKR,,Other,,1", RELEASE),
    "other root": (SETTINGS + "HKLM,,ReleaseVersion,,24.20.11.01-240619a", ""),
    "with flags": (SETTINGS + "HKR,,ReleaseVersion,0x0,24.20.11.01-240619a", ""),
    "sub-key": (SETTINGS + "HKR,Sub,ReleaseVersion,,24.20.11.01-240619a", ""),
    "line too long": (SETTINGS + "HKR,,ReleaseVersion,," + ",".join("x" * 500 for _ in range(5)) + "\nHKR,,Other,,1", ""),
    "no line": (SETTINGS + "HKR,,Other,,1", ""),
}


# Proves: A header with a comment behind it, or indented
# Proves: Saved as UTF-16
# Proves: The release line in any letter case
# Proves: The value is a string key
# Proves: Several release lines
def test_release_of_an_inf(lab):
    """All of them are packages of one adapter."""
    packages = [inf(settings) for settings, _ in READ.values()]
    versions = [version for _, version in READ.values()]
    # Sections of a UTF-16 file are not seen; a UTF-8 mark hides just the first header.
    plain = SETTINGS + "HKR,,ReleaseVersion,,24.20.11.01-240619a"
    packages += [inf(plain, encoding="utf-16"), inf(plain, encoding="utf-8-sig"), inf(plain, encoding="utf-16")]
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
    check(lab, enumerating(), *lines, listed=[f"[{NAME}] [{RELEASE}] [{{store{len(cases) - 1}}}]"])


# Calls that fail. Of these the adapter is kept or left out as described, and the run goes on.

def setup(*rules: str) -> dict:
    return {"faults": [f"setupapi!{rule}" for rule in rules]}


# Proves: The list of devices cannot be opened
@pytest.mark.parametrize("code, line", [
    (5, "Failed to call SetupDiGetClassDevs -2147024891  Access denied. "),
    (0xE0000209, "Failed to call SetupDiGetClassDevs -2146500087  "),
    (0x80004005, "Failed to call SetupDiGetClassDevs -2147467259  {any}"),
], ids=["plain code", "SetupAPI's code", "HRESULT"])
def test_list_of_devices_cannot_be_had(lab, code, line):
    run(lab, {}, **setup(f"SetupDiGetClassDevsW * error={code}"))
    check(lab, line, listed=[])


# Proves: The devices cannot be enumerated => an empty list without a line
def test_devices_cannot_be_enumerated(lab):
    run(lab, {}, **setup("SetupDiEnumDeviceInfo * error=13"))
    check(lab, listed=[])


# Proves: The first device has no id
def test_first_device_has_no_id(lab):
    run(lab, {"id": MAKER}, {"id": SECOND}, **setup("SetupDiGetDeviceInstanceIdW 1 error=13"))
    check(lab, "Failed to call SetupDiGetDeviceInstanceId -2147024883  {any}", f"[{NAME}] - [] is not an Tavik Display Adapter.",
          enumerating(SECOND), found(2), MATCHING, listed=[f"[{NAME}] [{RELEASE}] [{{store2}}]"])


# Proves: A later device has no id
def test_later_device_has_no_id(lab):
    """It goes on with the id of the device before."""
    run(lab, {"id": MAKER}, OTHER, **setup("SetupDiGetDeviceInstanceIdW 2 error=3758096907"))
    lab.check(exit_code=-1, boxes=[SAME_RELEASE])
    assert lab.result.log[5:7] == ["Failed to call SetupDiGetDeviceInstanceId -2146500085  ", f"Enumerating installed drivers for {MAKER} - Other Graphics"]


# Proves: The description cannot be read
def test_description_cannot_be_read(lab):
    run(lab, {"id": MAKER}, **setup("SetupDiGetDeviceRegistryPropertyW * if=property:0 error=5"))
    check(lab, enumerating(name=""), found(), MATCHING, listed=[f"[] [{RELEASE}] [{{store1}}]"])


# Proves: The driver key cannot be read
def test_driver_key_cannot_be_read(lab):
    run(lab, {"id": MAKER}, {"id": SECOND}, **setup("SetupDiGetDeviceRegistryPropertyW 1 if=property:9 error=5",
                                                    "SetupDiGetDeviceRegistryPropertyW 2 if=property:9 error=5"))
    check(lab, f"Failed to get SPDRP_DRIVER for {MAKER}: -2147024891  Access denied. ", enumerating(SECOND), found(2), MATCHING,
          listed=[f"[{NAME}] [{RELEASE}] [{{store2}}]"])


def test_problem_code_cannot_be_read(lab):
    run(lab, {"id": MAKER, "problem": 43}, **setup("SetupDiGetDevicePropertyW * error=5"))
    check(lab, "Unable to get DEVPKEY_Device_ProblemCode property:  5 Access denied. ", enumerating(), found(), MATCHING,
          listed=[f"[{NAME}] [{RELEASE}] [{{store1}}]"])


def test_problem_code_fails_with_a_code_of_setupapi(lab):
    """Unlike the other failures it is shown as it is."""
    run(lab, {"id": MAKER}, **setup("SetupDiGetDevicePropertyW * error=3758096900"))
    check(lab, "Unable to get DEVPKEY_Device_ProblemCode property: -536870396 ", enumerating(), found(), MATCHING,
          listed=[f"[{NAME}] [{RELEASE}] [{{store1}}]"])


# Proves: The list of drivers cannot be built, a detail cannot be read
# Proves: The system rejects the file
@pytest.mark.parametrize("rule, lines, folder", [
    ("SetupDiBuildDriverInfoList * after=5", [found(), MATCHING], "{store1}"),
    ("SetupDiBuildDriverInfoList * error=5", [], ""),
    ("SetupDiEnumDriverInfoW * error=5", [], ""),
    ("SetupDiGetDriverInfoDetailW * error=5", ["Found driver . Version []"], ""),
    ("SetupGetInfDriverStoreLocationW * error=5", ["Found driver . Version []"], ""),
    ("SetupOpenInfFileW * error=5", [found(version="")], ""),
    ("SetupFindFirstLineW * error=5", [found(version="")], ""),
    ("SetupGetLineTextW * error=122", [found(version="")], ""),
    ("SetupDiDestroyDeviceInfoList * after=6", [found(), MATCHING], "{store1}"),
], ids=lambda value: value.split(" ")[0] + value[-8:].strip() if isinstance(value, str) and "!" not in value and "*" in value else "")
def test_packages_cannot_be_read(lab, rule, lines, folder):
    run(lab, {"id": MAKER}, **setup(rule))
    check(lab, enumerating(), *lines, listed=[f"[{NAME}] [{RELEASE}] [{folder}]"])


# Proves: A line that cannot be fetched, or is longer than 2,063 characters
def test_line_that_cannot_be_fetched_is_passed_over(lab):
    """The tenth line of the file is the first of the section whose second one tells the release."""
    package = inf(SETTINGS + "HKR,,ReleaseVersion,,1.0\nHKR,,ReleaseVersion,,24.20.11.01-240619a\nHKR,,ReleaseVersion,,2.0")
    result = run(lab, {"id": MAKER, "packages": [package]}, **setup("SetupGetLineTextW 10 error=122", "SetupGetLineTextW 12 error=122"))
    check(lab, enumerating(), found(), MATCHING, listed=[f"[{NAME}] [{RELEASE}] [{{store1}}]"])
    texts = [line.rpartition("text=")[2].partition(" -> ")[0] for line in result.calls if "SetupGetLineTextW" in line]
    assert texts[8].startswith('"Adapter_Settings"') and texts[10] == f'"HKR,,ReleaseVersion,,{RELEASE}"' and len(texts) == 14


# Proves: An adapter of the maker with its package
def test_calls_into_the_system(lab):
    result = run(lab, {"id": MAKER})
    check(lab, enumerating(), found(), MATCHING, listed=[f"[{NAME}] [{RELEASE}] [{{store1}}]"])
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
                 "SetupDiGetDeviceRegistryPropertyW#1 property=0; size=0;", f"SetupDiGetDeviceRegistryPropertyW#2 property=0; size={2 * len(NAME) + 2};",
                 "SetupDiGetDeviceRegistryPropertyW#3 property=9; size=0;", "SetupDiGetDeviceRegistryPropertyW#4 property=9; size=88;",
                 "key={4340A6C5-93FA-4706-972C-7B648008A5A7}; pid=3; type=7; size=4; flags=0x0", "SetupDiBuildDriverInfoList#1 type=2",
                 "SetupDiEnumDriverInfoW#1 type=2; index=0; size=1568", "SetupDiGetDriverInfoDetailW#1 size=0; detail=0",
                 "detail=1584; inf=", r'platform=0x0; locale=(null); size=260; location="' + store,
                 rf'SetupOpenInfFileW#1 path="{store}\u0400001.inf"; class=(null); style=0x2'):
        assert part in text, part
