"""The install sequence: which products are removed and installed, in which order, with which properties, and with which result."""
from __future__ import annotations

import re

import pytest

from cases.support.expect import (FINISHED, INSTALL_FAILED, MAIN_PACKAGE_MISSING, NO_DESKTOP, NO_PROGRAM, REPAIR, UNTOUCHED, install,
                                  inventory, not_started, opening, remove, stop)
from cases.support.repair import (FAMILIES, FOLDER, INSTALL_KEY, INSTALL_PROPERTIES, INSTALLER, MSI_AGREES, PACKAGES, REMOVAL_PROPERTIES,
                                  UPGRADE_CODES, asked_of_msi, brought, found, installs, products, removes, until_found, until_unpacked)
from cases.support.store import NO_STORE, NOTHING, package

MAIN = "if=package~dwx-next64"
NEW = {family: FOLDER + path for family, path in PACKAGES.items()}
TWO, ALL = FAMILIES[:2], FAMILIES
NOT_THERE = [*inventory(), NO_DESKTOP, NO_STORE, f"{NOTHING} Exiting."]
SEVERAL = {"desktop": {"packages": ["Halden-23.40", "Halden-24.10", "DVR-23.40"]},
           "registry": {r"HKLM\SOFTWARE\Tavik\HL": {"HLVersion": "23.40", "DriverVersion": "23.40.11.01"}}}
# The Store edition of the same application
NAMES = ["TavikSystemsInc-2.8F31D07A2B6E4_1.23.40.0_x64__c9k2m4q7w1x8t", "TavikSystemsInc-2.TavikCorvelSoftware_1.23.40.0_x64__c9k2m4q7w1x8t"]
STORE = {"packages": [package(name, "1.23.40.0", completion="later:300") for name in NAMES]}
STORE_LINES = [line for name in NAMES for line in (f"Remvoing {name} - version 1.23.40.0", "\t Result = 0 ")]


def desktop(*families: str, **changes) -> dict:
    return found(desktop={"families": list(families)}, **changes)


def check(lab, *lines: str, outcome: str = "repaired", **states) -> None:
    """A repair that is a success; the lines come after the installer has unpacked."""
    lab.check(outcome=outcome, log=[*until_unpacked(), *lines], **states)


def restart(family: str) -> list[str]:
    """An installation that wants a restart."""
    line, result = install(family)
    return [line, f"System reboot may be required for {NEW[family]}.", result]


# What is replaced

# Proves: DVR installed, PXL not (and the reverse)
@pytest.mark.parametrize("families", [("Halden",), TWO, ("Halden", "PXL"), ALL], ids="+".join)
def test_only_families_that_are_there_are_replaced(lab, families):
    lab.run(desktop(*families))
    check(lab, *stop(), *removes(*families), *installs(*families), requests=[], before=products("23.40", *families), after={
        **products("24.20", *families), "values": {r"Software\Tavik\HL\HLVersion": "24.20", r"Software\Tavik\HL\DriverVersion": "24.20.11.01"}})


# Proves: A package is installed
# Proves: Everything is there
@pytest.mark.quick
def test_windows_installer_is_asked_in_this_order(lab):
    result = lab.run(desktop("PXL", "DVR", "Halden", standins=["msi"]))
    lab.check(outcome="repaired")
    old = result.before.local_packages
    assert asked_of_msi(result) == [*((old[f"Tavik {family} 23.40"], REMOVAL_PROPERTIES) for family in ALL),
                                    *((NEW[family], INSTALL_PROPERTIES) for family in ALL)]
    calls = [re.sub(r"#\d+|; product=.*| -> .*", "", line) for line in result.calls if line.startswith(("msi!MsiSet", "msi!MsiEnum"))]
    silent = calls.index("msi!MsiSetInternalUI level=2; window=(null)")
    families = [line.split('"')[1] for line in calls[silent + 1:]]
    assert list(dict.fromkeys(families)) == [UPGRADE_CODES[family] for family in ALL]
    assert sum(line.startswith("msi!MsiSetInternalUI") for line in calls) == 1
    asked = [line for line in result.calls if line.startswith("msi!MsiGetProductInfoW")]
    assert len(asked) == 4 and all('property="LocalPackage"; size=260' in line for line in asked)


# Proves: Products of a family are installed
def test_every_product_of_a_family_is_removed(lab):
    result = lab.run(found(**SEVERAL, standins=["msi"]))
    check(lab, *stop(), *removes("Halden", *TWO), *installs(*TWO), after=products("24.20", *TWO),
          before={"products": ["Tavik DVR 23.40", "Tavik Halden 23.40", "Tavik Halden 24.10"]})
    removed = [package for package, properties in asked_of_msi(result) if properties == REMOVAL_PROPERTIES]
    old = result.before.local_packages
    assert set(removed[:2]) == {old["Tavik Halden 23.40"], old["Tavik Halden 24.10"]} and removed[2:] == [old["Tavik DVR 23.40"]]


@pytest.mark.parametrize("family", ["DVR", "PXL"])
def test_optional_family_alone_is_no_desktop_edition(lab, family):
    lab.run(desktop(family))
    lab.check(outcome="no-application", before=products("23.40", family), after=products("23.40", family),
              log=[*opening(version=""), *NOT_THERE])


# Proves: An older driver => brings the older application back
def test_older_driver_brings_the_older_application_back(lab):
    release = "23.40.05.01-230801c"
    lab.run({"desktop": {"release": "24.20"}, "server": {"reach": "none"},
             "adapters": [{"release": release, "packages": [{"installer": "23.40"}]}]})
    lab.check(outcome="repaired", before=products("24.20", "Halden"), after=products("23.40", "Halden"),
              log=[*opening(version="24.20"), *inventory(release), *until_unpacked()[-2:], *REPAIR])


# What Windows Installer answers

def rules(*texts: str) -> list[str]:
    """Windows Installer does nothing and succeeds, except where a rule says otherwise."""
    return [MSI_AGREES, *(f"msi!MsiInstallProductW {text}" for text in texts)]


def removal(code: int, outcome: str) -> tuple:
    """Neither the rest of the family nor the other families are left out."""
    machine = found(**SEVERAL, faults=rules(*(f"{number} return={code}" for number in (1, 2, 3))))
    return outcome, machine, [*remove("Halden", code), *remove("Halden", code), *remove("DVR", code), *installs(*TWO)], {}


ANSWERS = {  # name: outcome, machine, log after the programs are stopped, state after
    "product disappears after the check": (
        "repaired", found(faults=[f"msi!MsiEnumRelatedProductsW 3+ if=upgrade:{UPGRADE_CODES['Halden']} return=259", MSI_AGREES]),
        installs("Halden"), {}),
    "packages are unknown": (  # so the products cannot be removed, and the optional family counts as not installed
        "repaired", desktop(*TWO, faults=["msi!MsiGetProductInfoW 2+ error=1608", MSI_AGREES]), installs("Halden"), {}),
    "removal refused": (
        "repaired-old-left", found(desktop={"packages": ["Halden-23.40-stubborn", "DVR-23.40"]}),
        [*remove("Halden", 1603), *remove("DVR"), *installs(*TWO)],
        {"products": ["Tavik DVR 24.20", "Tavik Halden 23.40", "Tavik Halden 24.20"]}),
    "removals want a restart": removal(3011, "repaired-restart"), "removals fail": removal(-2147024891, "repaired-old-left"),
    "main package wants a restart": ("repaired-restart", found(faults=rules(f"* {MAIN} return=3011")),
                                     [*remove("Halden"), *restart("Halden")], {}),
    "real packages want a restart": (
        "repaired-restart", found("24.20-reboot", desktop={"packages": ["Halden-23.40-reboot", "DVR-23.40-reboot"]}),
        [*remove("Halden", 3010), *remove("DVR", 3010), *restart("Halden"), *install("DVR")], products("24.20", *TWO)),
    "optional packages do not decide": (
        "repaired-optional-failed", desktop(*ALL, faults=rules("* if=package~tavikdvr64 return=1603", "* if=package~PXL64 return=3010")),
        [*removes(*ALL), *install("Halden"), *install("DVR", 1603), *restart("PXL")], {}),
    "optional package refuses, Store packages go": (
        "repaired-optional-failed", desktop(*TWO, faults=rules("* if=package~tavikdvr64 return=1603"), store=STORE),
        [*removes(*TWO), *install("Halden"), *install("DVR", 1603), *STORE_LINES], {"store": []}),
}


# Proves: No product, not all components wanted
# Proves: A product's package cannot be read, or its path has 260 characters or more
# Proves: A removal fails
# Proves: Removals and installs
# Proves: It wants a restart (1641, 3010, 3011)
# Proves: Another package fails, or was not unpacked
@pytest.mark.parametrize("name", ANSWERS)
def test_answer_of_windows_installer_does_not_stop_the_repair(lab, name):
    outcome, machine, lines, after = ANSWERS[name]
    result = lab.run(machine)
    check(lab, *stop(), *lines, outcome=outcome, after=after)
    if len(lines) == 2:  # one package only
        assert asked_of_msi(result) == [(NEW["Halden"], INSTALL_PROPERTIES)]


# Proves: Is the desktop edition installed?
def test_product_whose_package_has_too_long_a_path_is_no_desktop_edition(lab):
    lab.run(found(faults=["msi!MsiGetProductInfoW * return=0 value=C:\\\\" + "x" * 300]))
    lab.check(outcome="no-application", after=UNTOUCHED, log=[*opening(), *NOT_THERE])


# Proves: It fails otherwise
# Proves: The main package fails
@pytest.mark.parametrize("code, outcome", [
    (1618, "install-busy"), (1619, "install-package-unreadable"), (1625, "install-forbidden"),
    *((code, "install-failed-other") for code in (3009, 3012, -2147024891))])
def test_failure_of_the_main_package_is_the_exit_code(lab, code, outcome):
    """The optional packages are installed all the same."""
    lab.run(desktop(*TWO, faults=[MSI_AGREES, f"msi!MsiInstallProductW * {MAIN} return={code}"]))
    lab.check(outcome=outcome, exit_code=code, boxes=[INSTALL_FAILED], log=[
        *until_unpacked(), *stop(), *removes(*TWO), *install("Halden", code), *install("DVR")])


def test_real_main_package_that_refuses(lab):
    lab.run(found("24.20-fail", desktop={"families": list(ALL)}), "-SILENT")
    lab.check(outcome="install-failed", before=products("23.40", *ALL),
              after={**products("24.20", "DVR", "PXL"), "values": {r"Software\Tavik\HL\HLVersion": None}},
              log=[*until_unpacked("-SILENT"), *stop(), *removes(*ALL), *install("Halden", 1603), *installs("DVR", "PXL")])


def test_optional_package_that_was_not_unpacked(lab):
    """The tool does not check that it is there: Windows Installer returns that it is not (Wine with 2, Windows with 1619)."""
    lab.run(desktop(*TWO), when=[f"file {NEW['PXL']} : delete {NEW['DVR']}"])
    check(lab, *stop(), *removes(*TWO), *install("Halden"), *install("DVR", 2), outcome="repaired-optional-failed",
          before=products("23.40", *TWO), after=products("24.20", "Halden"))
    assert [action["done"] for action in lab.result.actions] == [True]


# Proves: The installation succeeds (result 0)
@pytest.mark.parametrize("code", [0, 3010])
def test_store_packages_are_gone_before_the_result_is_shown(lab, code):
    """The tool is killed while the box is up. A wanted restart is a success here as well."""
    lab.run(found(faults=[MSI_AGREES, f"msi!MsiInstallProductW * {MAIN} return={code}"], store=STORE), when=["box : kill 77"])
    lab.check(outcome="interrupted", exit_code=77, boxes=[FINISHED], after={"store": []}, log=[
        *until_unpacked(), *stop(), *remove("Halden"), *(restart("Halden") if code else install("Halden")), *STORE_LINES])


# The installer

# Proves: The installer reports failure but has unpacked
@pytest.mark.parametrize("code", [7, 259, -5])
def test_exit_code_of_the_installer_is_only_logged(lab, code):
    lab.run(found(installer={"exit": code}, faults=[MSI_AGREES]))
    lab.check(outcome="repaired", log=[*until_unpacked(code=code), *REPAIR])


# Proves: The main package is missing afterwards
@pytest.mark.parametrize("arguments", ["", "-SILENT"])
def test_without_the_main_package_nothing_is_changed(lab, arguments):
    """Neither are programs stopped, nor products or Store packages removed."""
    program = r"C:\Program Files\Tavik\Halden\CorvelSoftware.exe"
    result = lab.run(found("24.20-nomain", running=[program], standins=["msi"], store=STORE), arguments)
    lab.check(outcome="installer-empty", running=["CorvelSoftware.exe"],
              after={**UNTOUCHED, "files": [NEW["DVR"], NEW["PXL"]], "store": NAMES}, log=[*until_unpacked(arguments), MAIN_PACKAGE_MISSING])
    assert asked_of_msi(result) == result.store_calls == []
    assert not any(line.startswith("hlcmd") for line in result.programs)


# Proves: It cannot be started
# Proves: The installer cannot be started
def test_installer_that_is_no_program(lab):
    lab.run(brought("not a program"))
    lab.check(outcome="installer-blocked", after=UNTOUCHED, log=[*until_found(), not_started(INSTALLER, code=NO_PROGRAM), MAIN_PACKAGE_MISSING])


# The folder of the application

def installs_into(folder: str, *families: str) -> list[str]:
    return [line for one, two in map(install, families) for line in (one, *([f"Using custom install directory {folder}"] if folder else []), two)]


MINE = {"files": {r"C:\My Apps\note.txt": "mine"}}
NO_DEFAULT = {r"HKLM\Software\Microsoft\Windows\CurrentVersion": {"ProgramFilesDir": r"C:\Programme"}}


# Proves: Into a folder of the user's own, with blanks
# Proves: It is the default one in another spelling: letter case, short name, backslash at the end
# Proves: The default one exists, the registered one does not or cannot be opened
# Proves: Key or value is missing
# Proves: The default folder does not exist
@pytest.mark.parametrize("registered, kept, changes", [
    *((folder, True, MINE) for folder in (r"C:\My Apps", "C:\\My Apps\\", r"C:\Program Files", r"C:\Program Files\Tavik\Halden")),
    *((folder, False, {}) for folder in (
        r"C:\Program Files\Tavik", "C:\\Program Files\\Tavik\\", r"c:\PROGRAM FILES\tavik", "C:/Program Files/Tavik",
        r"C:\Program Files\Tavik\Halden\..", r"C:\PROG~FBU\Tavik", r"C:\Gone", r"Q:\Apps", "")),
    (r"C:\windows", False, {"remove": [INSTALL_KEY + "@InstallDir"]}),
    *((folder, True, {"registry": NO_DEFAULT}) for folder in (r"C:\windows", r"C:\Gone Away"))],
    ids=lambda value: value if isinstance(value, str) else "")
def test_folder_of_the_users_own_is_kept_and_no_other(lab, registered, kept, changes):
    """All three packages go into the folder; without one each goes into its own."""
    registry = {INSTALL_KEY: {"InstallDir": registered}, **changes.get("registry", {})}
    lab.run(desktop(*ALL, faults=[MSI_AGREES], **{**changes, "registry": registry}))
    folder = registered if kept else ""
    check(lab, *stop(), *removes(*ALL), *installs_into(folder, *ALL))
    wanted = INSTALL_PROPERTIES + (f' INSTALLDIR="{folder}"' if folder else "")
    assert [one for one in asked_of_msi(lab.result) if one[0].startswith(FOLDER)] == [(NEW[family], wanted) for family in ALL]


# Proves: The registered folder is another than the default one
# Proves: The user chose a folder
def test_repair_goes_into_the_users_folder(lab):
    place = r"C:\My Apps\Graphics"
    files = {"files": [place + r"\Halden\CorvelSoftware.exe", place + r"\DVR\tavikow.exe"]}
    lab.run(found(desktop={"folder": place, "families": list(TWO)}))
    check(lab, *stop(place + r"\Halden"), *removes(*TWO), *installs_into(place + "\\", *TWO), before={**products("23.40", *TWO), **files},
          after={**products("24.20", *TWO), **files, "missing": [r"C:\Program Files\Tavik\Halden"]})
