"""The install sequence: which products are removed and installed, in which order, with which properties, and what comes of it."""
from __future__ import annotations

import re

import pytest

from cases.support.expect import FINISHED, INSTALL_FAILED, NOT_INSTALLED, install, inventory, opening, remove, stop
from cases.support.repair import (FOLDER, INSTALL_KEY, INSTALL_PROPERTIES, INSTALLER, MAIN_PACKAGE_MISSING, MSI_AGREES, PACKAGES,
                            REMOVAL_PROPERTIES, REPAIRED, UNTOUCHED, UPGRADE_CODES, asked_of_msi, brought, found,
                            until_found, until_unpacked)

SAME = "Currently installed version of VLT is from the same release as the active driver."
MAIN = "if=package~dwx-next64"
NEW = {family: FOLDER + path for family, path in PACKAGES.items()}

SEVERAL = {"desktop": {"packages": ["Halden-23.40", "Halden-24.10", "DVR-23.40"]},
           "registry": {r"HKLM\SOFTWARE\Tavik\HL": {"HLVersion": "23.40", "DriverVersion": "23.40.11.01"}}}


def new_packages(result) -> list[str]:
    return [package for package, _ in asked_of_msi(result) if package.startswith(FOLDER)]


# What is replaced

# Proves: DVR installed, PXL not (and the reverse)
@pytest.mark.parametrize("families", [("Halden",), ("Halden", "DVR"), ("Halden", "PXL"), ("Halden", "DVR", "PXL")], ids="+".join)
def test_only_families_that_are_there_are_replaced(lab, families):
    lab.run(found(desktop={"families": list(families)}))
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], requests=[],
              before={"products": sorted(f"Tavik {family} 23.40" for family in families)},
              after={"products": sorted(f"Tavik {family} 24.20" for family in families),
                     "values": {r"Software\Tavik\HL\HLVersion": "24.20", r"Software\Tavik\HL\DriverVersion": "24.20.11.01"}},
              log=[*until_unpacked(), *stop(), *(line for family in families for line in remove(family)),
                   *(line for family in families for line in install(family))])


# Proves: A package is installed
# Proves: Everything is there
@pytest.mark.quick
def test_windows_installer_is_asked_in_this_order(lab):
    result = lab.run(found(desktop={"families": ["PXL", "DVR", "Halden"]}, standins=["msi"]))
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED])
    old = result.before.local_packages
    assert asked_of_msi(result) == [
        *((old[f"Tavik {family} 23.40"], REMOVAL_PROPERTIES) for family in ("Halden", "DVR", "PXL")),
        *((NEW[family], INSTALL_PROPERTIES) for family in ("Halden", "DVR", "PXL"))]
    calls = [re.sub(r"#\d+|; product=.*| -> .*", "", line) for line in result.calls if line.startswith(("msi!MsiSet", "msi!MsiEnum"))]
    silent = calls.index("msi!MsiSetInternalUI level=2; window=(null)")
    families = [line.split('"')[1] for line in calls[silent + 1:]]
    assert list(dict.fromkeys(families)) == [UPGRADE_CODES[family] for family in ("Halden", "DVR", "PXL")]
    assert sum(line.startswith("msi!MsiSetInternalUI") for line in calls) == 1
    asked = [line for line in result.calls if line.startswith("msi!MsiGetProductInfoW")]
    assert len(asked) == 4 and all('property="LocalPackage"; size=260' in line for line in asked)


# Proves: Products of a family are installed
def test_every_product_of_a_family_is_removed(lab):
    result = lab.run(found(**SEVERAL, standins=["msi"]))
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], before={"products": ["Tavik DVR 23.40", "Tavik Halden 23.40", "Tavik Halden 24.10"]},
              after={"products": ["Tavik DVR 24.20", "Tavik Halden 24.20"]},
              log=[*until_unpacked(), *stop(), *remove("Halden"), *remove("Halden"), *remove("DVR"), *install("Halden"), *install("DVR")])
    removed = [package for package, properties in asked_of_msi(result) if properties == REMOVAL_PROPERTIES]
    old = result.before.local_packages
    assert set(removed[:2]) == {old["Tavik Halden 23.40"], old["Tavik Halden 24.10"]} and removed[2:] == [old["Tavik DVR 23.40"]]


@pytest.mark.parametrize("family", ["DVR", "PXL"])
def test_an_optional_family_alone_is_no_desktop_edition(lab, family):
    lab.run(found(desktop={"families": [family]}))
    products = {"products": [f"Tavik {family} 23.40"]}
    lab.check(outcome="no-application", exit_code=-1, boxes=[NOT_INSTALLED], before=products, after=products, log=[
        *opening(version=""), *inventory(), "User does not desktop VLT installed.", "UWP version is not installed",
        "User does not have VLT installed. Exiting."])


# Proves: No product, not all components wanted
def test_products_that_vanished_meanwhile_leave_nothing_to_remove(lab):
    """The check finds the product, the sequence no more: only the main package is installed."""
    gone = f"msi!MsiEnumRelatedProductsW 3+ if=upgrade:{UPGRADE_CODES['Halden']} return=259"
    result = lab.run(found(faults=[gone, MSI_AGREES]))
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], log=[*until_unpacked(), *stop(), *install("Halden")])
    assert asked_of_msi(result) == [(NEW["Halden"], INSTALL_PROPERTIES)]


# Proves: An older driver => brings the older application back
def test_older_driver_brings_the_older_application_back(lab):
    release = "23.40.05.01-230801c"
    lab.run({"desktop": {"release": "24.20"}, "server": {"reach": "none"},
             "adapters": [{"release": release, "packages": [{"installer": "23.40"}]}]})
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], before={"products": ["Tavik Halden 24.20"]}, after={"products": ["Tavik Halden 23.40"]},
              log=[*opening(version="24.20"), *inventory(release), *until_unpacked()[-2:], *stop(), *remove("Halden"),
                   *install("Halden")])


@pytest.mark.parametrize("arguments, boxes", [("-force", [FINISHED]), ("-Silent -Force", [])])
def test_same_release_is_put_in_again_when_forced(lab, arguments, boxes):
    lab.run(found(desktop={"release": "24.20", "families": ["Halden", "DVR"]}), arguments)
    products = {"products": ["Tavik DVR 24.20", "Tavik Halden 24.20"]}
    lab.check(outcome="repaired", exit_code=0, boxes=boxes, before=products, after=products, log=[
        *opening(arguments, "24.20"), *inventory(), SAME, *until_unpacked()[-2:], *stop(), *remove("Halden"), *remove("DVR"),
        *install("Halden"), *install("DVR")])


# What Windows Installer answers

# Proves: A product's package cannot be read, or its path has 260 characters or more
def test_products_whose_package_is_unknown_stay(lab):
    """Without its package a product cannot be removed; an optional family then counts as not installed."""
    result = lab.run(found(desktop={"families": ["Halden", "DVR"]}, faults=["msi!MsiGetProductInfoW 2+ error=1608", MSI_AGREES]))
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], log=[*until_unpacked(), *stop(), *install("Halden")])
    assert new_packages(result) == [NEW["Halden"]]


# Proves: Is the desktop edition installed?
@pytest.mark.parametrize("rule", ["error=1608", "return=0 value=" + "C:\\\\" + "x" * 300], ids=["unknown", "too long"])
def test_a_product_whose_package_is_unknown_is_no_desktop_edition(lab, rule):
    lab.run(found(faults=[f"msi!MsiGetProductInfoW * {rule}"]))
    lab.check(outcome="no-application", exit_code=-1, boxes=[NOT_INSTALLED], after=UNTOUCHED, log=[
        *opening(), *inventory(), "User does not desktop VLT installed.", "UWP version is not installed",
        "User does not have VLT installed. Exiting."])


# Proves: The enumeration fails in between
def test_only_the_end_of_the_list_ends_the_enumeration(lab):
    """After an error the product found before is looked up once more, so it is removed twice."""
    rule = f"msi!MsiEnumRelatedProductsW 4 if=upgrade:{UPGRADE_CODES['Halden']} error=1610"
    result = lab.run(found(faults=[rule, MSI_AGREES]))
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], log=[
        *until_unpacked(), *stop(), *remove("Halden"), *remove("Halden"), *install("Halden")])
    old = result.before.local_packages["Tavik Halden 23.40"]
    assert [package for package, _ in asked_of_msi(result)] == [old, old, NEW["Halden"]]


# Proves: A removal fails
def test_a_removal_that_is_refused_stops_nothing(lab):
    lab.run(found(desktop={"packages": ["Halden-23.40-stubborn", "DVR-23.40"]}))
    lab.check(outcome="repaired-old-left", exit_code=0, boxes=[FINISHED], before={"products": ["Tavik DVR 23.40", "Tavik Halden 23.40"]},
              after={"products": ["Tavik DVR 24.20", "Tavik Halden 23.40", "Tavik Halden 24.20"]},
              log=[*until_unpacked(), *stop(), *remove("Halden", 1603), *remove("DVR"), *install("Halden"), *install("DVR")])


# Proves: Removals and installs
@pytest.mark.parametrize("code, outcome", [
    *((code, "repaired-restart") for code in (3010, 1641, 3011)), *((code, "repaired-old-left") for code in (1605, 1618, -2147024891))])
def test_the_result_of_a_removal_is_logged_as_it_came(lab, code, outcome):
    """Neither the rest of the family nor the other families are left out."""
    rules = [MSI_AGREES, *(f"msi!MsiInstallProductW {number} return={code}" for number in (1, 2, 3))]
    lab.run(found(**SEVERAL, faults=rules))
    removals = [*remove("Halden", code), *remove("Halden", code), *remove("DVR", code)]
    lab.check(outcome=outcome, exit_code=0, boxes=[FINISHED], log=[
        *until_unpacked(), *stop(), *removals, *install("Halden"), *install("DVR")])


# Proves: It wants a restart (1641, 3010, 3011)
@pytest.mark.parametrize("code", [1641, 3010, 3011])
def test_a_main_package_that_wants_a_restart_is_a_success(lab, code):
    lab.run(found(faults=[MSI_AGREES, f"msi!MsiInstallProductW * {MAIN} return={code}"]))
    line, result = install("Halden")
    lab.check(outcome="repaired-restart", exit_code=0, boxes=[FINISHED], log=[
        *until_unpacked(), *stop(), *remove("Halden"), line, f"System reboot may be required for {NEW['Halden']}.", result])


def test_packages_that_really_want_a_restart(lab):
    lab.run(found("24.20-reboot", desktop={"packages": ["Halden-23.40-reboot", "DVR-23.40-reboot"]}))
    line, result = install("Halden")
    lab.check(outcome="repaired-restart", exit_code=0, boxes=[FINISHED], before={"products": ["Tavik DVR 23.40", "Tavik Halden 23.40"]},
              after={"products": ["Tavik DVR 24.20", "Tavik Halden 24.20"]},
              log=[*until_unpacked(), *stop(), *remove("Halden", 3010), *remove("DVR", 3010), line,
                   f"System reboot may be required for {NEW['Halden']}.", result, *install("DVR")])


# Proves: It fails otherwise
# Proves: The main package fails
@pytest.mark.parametrize("code, outcome", [
    (1603, "install-failed"), (1618, "install-busy"), (1619, "install-package-unreadable"), (1625, "install-forbidden"),
    *((code, "install-failed-other") for code in (1602, 1638, 3009, 3012, -2147024891))])
def test_the_failure_of_the_main_package_is_the_exit_code(lab, code, outcome):
    """The optional packages are installed all the same, and the Store package stays."""
    lab.run(found(desktop={"families": ["Halden", "DVR"]},
                  faults=[MSI_AGREES, f"msi!MsiInstallProductW * {MAIN} return={code}"]))
    lab.check(outcome=outcome, exit_code=code, boxes=[INSTALL_FAILED], log=[
        *until_unpacked(), *stop(), *remove("Halden"), *remove("DVR"), *install("Halden", code), *install("DVR")])


def test_a_main_package_that_really_refuses(lab):
    lab.run(found("24.20-fail", desktop={"families": ["Halden", "DVR", "PXL"]}), "-SILENT")
    lab.check(outcome="install-failed", exit_code=1603, boxes=[], before={"products": ["Tavik DVR 23.40", "Tavik Halden 23.40", "Tavik PXL 23.40"]},
              after={"products": ["Tavik DVR 24.20", "Tavik PXL 24.20"], "values": {r"Software\Tavik\HL\HLVersion": None}},
              log=[*until_unpacked("-SILENT"), *stop(), *remove("Halden"), *remove("DVR"), *remove("PXL"), *install("Halden", 1603),
                   *install("DVR"), *install("PXL")])


# Proves: Another package fails, or was not unpacked
def test_optional_packages_do_not_decide(lab):
    rules = [MSI_AGREES, "msi!MsiInstallProductW * if=package~tavikdvr64 return=1603",
             "msi!MsiInstallProductW * if=package~PXL64 return=3010"]
    lab.run(found(desktop={"families": ["Halden", "DVR", "PXL"]}, faults=rules))
    line, result = install("PXL")
    lab.check(outcome="repaired-optional-failed", exit_code=0, boxes=[FINISHED], log=[
        *until_unpacked(), *stop(), *remove("Halden"), *remove("DVR"), *remove("PXL"), *install("Halden"), *install("DVR", 1603),
        line, f"System reboot may be required for {NEW['PXL']}.", result])


def test_an_optional_package_that_was_not_unpacked(lab):
    """Nobody looks whether it is there: Windows Installer says that it is not (Wine with 2, Windows with 1619)."""
    lab.run(found(desktop={"families": ["Halden", "DVR"]}), when=[f"file {NEW['PXL']} : delete {NEW['DVR']}"])
    lab.check(outcome="repaired-optional-failed", exit_code=0, boxes=[FINISHED], before={"products": ["Tavik DVR 23.40", "Tavik Halden 23.40"]}, after=REPAIRED,
              log=[*until_unpacked(), *stop(), *remove("Halden"), *remove("DVR"), *install("Halden"), *install("DVR", 2)])
    assert [action["done"] for action in lab.result.actions] == [True]


# The Store edition of the same application

STORE = {"packages": [{"name": name, "version": "1.23.40.0", "completion": "later:300"} for name in (
    "TavikSystemsInc-2.8F31D07A2B6E4_1.23.40.0_x64__c9k2m4q7w1x8t", "TavikSystemsInc-2.TavikCorvelSoftware_1.23.40.0_x64__c9k2m4q7w1x8t")]}


def store_lines() -> list[str]:
    return [line for package in STORE["packages"] for line in (f"Remvoing {package['name']} - version 1.23.40.0", "\t Result = 0 ")]


# Proves: The installation succeeds (result 0)
@pytest.mark.parametrize("rule", ["return=0", "return=3010"])
def test_store_packages_are_gone_before_the_result_is_shown(lab, rule):
    """The tool is killed while the box is up. A wanted restart is a success here as well."""
    lab.run(found(faults=[MSI_AGREES, f"msi!MsiInstallProductW * {MAIN} {rule}"], store=STORE), when=["box : kill 77"])
    line, last = install("Halden")
    reboot = [f"System reboot may be required for {NEW['Halden']}."] if rule == "return=3010" else []
    lab.check(outcome="interrupted", exit_code=77, boxes=[FINISHED], after={"store": []},
              log=[*until_unpacked(), *stop(), *remove("Halden"), line, *reboot, last, *store_lines()])


def test_an_optional_package_that_refuses_keeps_no_store_package(lab):
    rules = [MSI_AGREES, "msi!MsiInstallProductW * if=package~tavikdvr64 return=1603"]
    lab.run(found(desktop={"families": ["Halden", "DVR"]}, faults=rules, store=STORE))
    lab.check(outcome="repaired-optional-failed", exit_code=0, boxes=[FINISHED], after={"store": []}, log=[
        *until_unpacked(), *stop(), *remove("Halden"), *remove("DVR"), *install("Halden"), *install("DVR", 1603), *store_lines()])


def test_an_installation_that_fails_keeps_the_store_packages(lab):
    lab.run(found("24.20-nomain", store=STORE))
    lab.check(outcome="installer-empty", exit_code=2, boxes=[INSTALL_FAILED], after={"store": [package["name"] for package in STORE["packages"]]},
              log=[*until_unpacked(), MAIN_PACKAGE_MISSING])
    assert lab.result.store_calls == []


# The installer

# Proves: The installer reports failure but has unpacked
@pytest.mark.parametrize("code", [7, 259, -5])
def test_exit_code_of_the_installer_is_only_logged(lab, code):
    lab.run(found(installer={"exit": code}, faults=[MSI_AGREES]))
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], log=[*until_unpacked(code=code), *stop(), *remove("Halden"), *install("Halden")])


# Proves: The main package is missing afterwards
@pytest.mark.parametrize("arguments, boxes", [("", [INSTALL_FAILED]), ("-SILENT", [])])
def test_without_the_main_package_nothing_is_touched(lab, arguments, boxes):
    program = r"C:\Program Files\Tavik\Halden\CorvelSoftware.exe"
    result = lab.run(found("24.20-nomain", running=[program], standins=["msi"]), arguments)
    lab.check(outcome="installer-empty", exit_code=2, boxes=boxes, after=UNTOUCHED | {"files": [NEW["DVR"], NEW["PXL"]]}, running=["CorvelSoftware.exe"],
              log=[*until_unpacked(arguments), MAIN_PACKAGE_MISSING])
    assert asked_of_msi(result) == []
    assert not any(line.startswith("hlcmd") for line in result.programs)


def test_an_installer_that_unpacks_nothing(lab):
    lab.run(found(installer={"extract": "no", "exit": 5}))
    lab.check(outcome="installer-empty", exit_code=2, boxes=[INSTALL_FAILED], after=UNTOUCHED, log=[*until_unpacked(code=5), MAIN_PACKAGE_MISSING])


# Proves: It cannot be started
# Proves: The installer cannot be started
def test_an_installer_that_is_no_program(lab):
    lab.run(brought("not a program"))
    lab.check(outcome="installer-blocked", exit_code=2, boxes=[INSTALL_FAILED], after=UNTOUCHED, log=[
        *until_found(), f"Launching process {INSTALLER} /NCRC /S -EXTRACTONLY=YES /D={FOLDER} failed. Error code = 193 {{any}}",
        MAIN_PACKAGE_MISSING])


# The folder of the application

def custom(folder: object, **changes) -> dict:
    return found(registry={INSTALL_KEY: {"InstallDir": folder}}, faults=[MSI_AGREES], desktop={"families": list(PACKAGES)}, **changes)


def check_folder(lab, folder: str) -> None:
    """All three packages go into the folder; an empty one is the packages' own."""
    wanted = INSTALL_PROPERTIES + (f' INSTALLDIR="{folder}"' if folder else "")
    assert [one for one in asked_of_msi(lab.result) if one[0].startswith(FOLDER)] == [
        (NEW[family], wanted) for family in ("Halden", "DVR", "PXL")]
    line = [f"Using custom install directory {folder}"] if folder else []
    installs = [[one, *line, two] for one, two in map(install, ("Halden", "DVR", "PXL"))]
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], log=[
        *until_unpacked(), *stop(), *remove("Halden"), *remove("DVR"), *remove("PXL"), *(text for lines in installs for text in lines)])


# Proves: Into a folder of the user's own, with blanks
@pytest.mark.parametrize("folder", [r"C:\My Apps", "C:\\My Apps\\", r"C:\Program Files", r"C:\Program Files\Tavik\Halden"])
def test_a_folder_of_the_users_own_is_kept(lab, folder):
    lab.run(custom(folder, files={r"C:\My Apps\note.txt": "mine"}))
    check_folder(lab, folder)


# Proves: It is the default one in another spelling: letter case, short name, backslash at the end
@pytest.mark.parametrize("folder", [
    r"C:\Program Files\Tavik", "C:\\Program Files\\Tavik\\", r"c:\PROGRAM FILES\tavik", "C:/Program Files/Tavik",
    r"C:\Program Files\Tavik\Halden\..", r"C:\PROG~FBU\Tavik"])
def test_the_default_folder_in_any_spelling_is_not_passed_on(lab, folder):
    lab.run(custom(folder))
    check_folder(lab, "")


# Proves: The default one exists, the registered one does not or cannot be opened
@pytest.mark.parametrize("folder", [r"C:\Gone", r"Q:\Apps", "", 5, ["C:\\Windows"]], ids=str)
def test_a_folder_that_cannot_be_compared_is_not_passed_on(lab, folder):
    lab.run(custom(folder))
    check_folder(lab, "")


# Proves: Key or value is missing
def test_no_folder_registered(lab):
    lab.run(custom(r"C:\windows") | {"remove": [INSTALL_KEY + "@InstallDir"]})
    check_folder(lab, "")


# Proves: The default folder does not exist
@pytest.mark.parametrize("folder", [r"C:\windows", r"C:\Gone Away"])
def test_any_registered_folder_counts_when_the_default_one_does_not_exist(lab, folder):
    machine = custom(folder)
    machine["registry"][r"HKLM\Software\Microsoft\Windows\CurrentVersion"] = {"ProgramFilesDir": r"C:\Programme"}
    lab.run(machine)
    check_folder(lab, folder)


# Proves: The registered folder is another than the default one
# Proves: The user chose a folder
def test_the_repair_goes_into_the_users_folder(lab):
    place = r"C:\My Apps\Graphics"
    lab.run(found(desktop={"folder": place, "families": ["Halden", "DVR"]}))
    lines = [[one, f"Using custom install directory {place}\\", two] for one, two in map(install, ("Halden", "DVR"))]
    files = {"files": [place + r"\Halden\CorvelSoftware.exe", place + r"\DVR\tavikow.exe"]}
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], before={"products": ["Tavik DVR 23.40", "Tavik Halden 23.40"], **files},
              after={"products": ["Tavik DVR 24.20", "Tavik Halden 24.20"], **files, "missing": [r"C:\Program Files\Tavik\Halden"]},
              log=[*until_unpacked(), *stop(place + r"\Halden"), *remove("Halden"), *remove("DVR"), *lines[0], *lines[1]])
