"""Registry values of every wrong kind and size, in each place that the tool reads; releases that are none.

A text counts as it is, up to its first null; a text with variables counts filled in; everything else is as if missing.
"""
from __future__ import annotations

from typing import Any

import pytest

from cases.support.expect import (DOWNLOAD_FAILED, FINISHED, NO_ADAPTER, SAME_RELEASE, install, inventory, opening, remove, stop, unpack)
from cases.support.hostile import (BEFORE, MAIN_PACKAGE, NO_SERVER, NOT_DOWNLOADED, QUIET_END, check, check_ends_without_server,
                             found_there, without_server)
from lab.adapters import ENUM, RELEASE
from cases.support.repair import INSTALL_PROPERTIES, MSI_AGREES, asked_of_msi, until_unpacked

TAVIK = r"HKLM\Software\Tavik"
HL = TAVIK + r"\HL"
HALDEN = r"HKLM\Software\Orrel Technologies\Install\Halden"
NAME = "Tavik Corvel 7800"
DEVICE = r"PCI\VEN_1E7D&DEV_2F11&SUBSYS_00011E7D&REV_A1\4&1A2B3C4D&0&0001"
LIST = "Currently installed drivers on system:"
SAME_EXIT = "Currently installed version of VLT is from the same release as the active driver. Exiting."
PATH = "/drivers/installer/vlt/24.20/dwx2_install.txt"
MEBIBYTE = 1 << 20


def utf16(text: str) -> str:
    return text.encode("utf-16-le").hex()


def kinds(text: str) -> dict[str, tuple[Any, str | None]]:
    """Ways in which a value can hold a text, and what the tool gets to see: None is nothing at all."""
    return {
        "no terminator": ({"type": "REG_SZ", "hex": utf16(text)}, text),
        "two terminators": ({"type": "REG_SZ", "hex": utf16(text + "\0\0")}, text),
        "null inside": ({"type": "REG_SZ", "hex": utf16(text + "\0more\0")}, text),
        "nulls only": ({"type": "REG_SZ", "hex": "000000000000"}, ""),
        "one byte": ({"type": "REG_SZ", "hex": "00"}, ""),
        "odd size": ({"type": "REG_SZ", "hex": utf16(text) + "00"}, text),
        "no bytes": ({"type": "REG_SZ", "hex": ""}, ""),
        "variables": ({"type": "REG_EXPAND_SZ", "text": "%NOT_SET%" + text}, "%NOT_SET%" + text),
        "number": (7, None),
        "big number": ({"type": "REG_QWORD", "hex": "3200340000000000"}, None),
        "binary": ({"type": "REG_BINARY", "hex": utf16(text + "\0")}, None),
        "list": ([text, text], None),
        "empty list": ([], None),
        "no type": ({"type": "REG_NONE", "hex": utf16(text + "\0")}, None),
    }


KINDS = list(kinds(""))


# HLVersion and DriverVersion, DWXServerFolder

# Proves: A registry value has another type, an odd number of bytes, no terminator, or a mebibyte => read as far as it is text, otherwise missing
@pytest.mark.parametrize("kind", KINDS)
def test_versions_and_server_folder(lab, kind):
    """All three in one run. Without a server folder of its own the tool turns to the maker's server."""
    version, version_text = kinds("21.99")[kind]
    driver, driver_text = kinds("21.99.1")[kind]
    folder, folder_text = kinds("gopher")[kind]
    lab.run({"server": {"reach": "default" if folder_text is None else "none",
                        "answers": {PATH: 404}},
             "registry": {HL: {"HLVersion": version, "DriverVersion": driver}, TAVIK: {"DWXServerFolder": folder}}})
    server = [f"Change server to {folder_text}.",
              f"Unable to crack URL: {folder_text}24.20/dwx2_install.txt. Error = {{number}}"]
    if folder_text is None:
        server = ["Response code from server: 404",
                  f"Error response code received from https://download.tavik.example{PATH}"]
    same = {"products": ["Tavik Halden 23.40"]}
    check(lab, outcome="download-not-there" if folder_text is None else "download-bad-address", exit_code=-1, boxes=[DOWNLOAD_FAILED],
          before=same, after=same, log=[
        *opening("", version_text or "", driver_text or ""), *inventory(), without_server()[0], *server, NOT_DOWNLOADED])
    assert len(lab.result.requests) == (1 if folder_text is None else 0)


def test_versions_of_a_mebibyte(lab):
    """The log line is cut; the first five characters still decide."""
    text = "24.20" + "v" * (MEBIBYTE // 2)
    lab.run({"registry": {HL: {"HLVersion": text, "DriverVersion": text}}})
    same = {"products": ["Tavik Halden 23.40"]}
    check(lab, outcome="same-release", exit_code=-1, boxes=[SAME_RELEASE], requests=[], before=same, after=same, log=[
        opening()[0], f"Currently installed VLT is version [{text}"[:1023], *inventory(), SAME_EXIT])


def test_server_folder_of_a_mebibyte(lab):
    text = "http://127.0.0.1:1/" + "f" * (MEBIBYTE // 2)
    lab.run({"server": {"reach": "none"}, "registry": {TAVIK: {"DWXServerFolder": text}}})
    check(lab, outcome="download-bad-address", exit_code=-1, boxes=[DOWNLOAD_FAILED], before=BEFORE, after=BEFORE, log=[
        *opening(), *inventory(), without_server()[0], f"Change server to {text}"[:1023], f"Unable to crack URL: {text}"[:1023],
        NOT_DOWNLOADED])


# Location and InstallDir of the desktop edition

@pytest.mark.parametrize("kind", KINDS)
def test_location_and_install_folder(lab, kind):
    location, location_text = kinds(r"C:\Nowhere")[kind]
    folder, folder_text = kinds(r"C:\My Apps")[kind]
    lab.run(found_there(registry={HALDEN: {"Location": location, "InstallDir": folder}}, files={r"C:\My Apps\note.txt": "mine"},
                        faults=[MSI_AGREES]))
    polite = [rf"Launching process {location_text}\hlcmd.exe exit failed. Error code = {{number}} {{any}}"]
    custom = folder_text if folder_text == r"C:\My Apps" else ""  # any other cannot be compared
    one, two = install("Halden")
    same = {"products": ["Tavik Halden 23.40"]}
    check(lab, outcome="repaired", exit_code=0, boxes=[FINISHED], before=same, after={**same, "files": [r"C:\My Apps\note.txt"]}, log=[
        *until_unpacked(), *(polite if location_text is not None else []), *stop(""), *remove("Halden"), one,
        *([f"Using custom install directory {custom}"] if custom else []), two])
    assert asked_of_msi(lab.result)[-1][1] == INSTALL_PROPERTIES + (f' INSTALLDIR="{custom}"' if custom else "")


def test_location_of_600_characters_and_install_folder_of_a_mebibyte(lab):
    """The system at hand breaks down itself when it is to start something with a path of some 1,000 characters."""
    location = "C:\\" + "l" * 600
    lab.run(found_there(registry={HALDEN: {"Location": location, "InstallDir": "C:\\" + "l" * (MEBIBYTE // 2)}},
                        faults=[MSI_AGREES]))
    same = {"products": ["Tavik Halden 23.40"]}
    check(lab, outcome="repaired", exit_code=0, boxes=[FINISHED], before=same, after=same, log=[
        *until_unpacked(), rf"Launching process {location}\hlcmd.exe exit failed. Error code = {{number}} {{any}}", *stop(""),
        *remove("Halden"), *install("Halden")])
    assert asked_of_msi(lab.result)[-1][1] == INSTALL_PROPERTIES


@pytest.mark.parametrize("kind", KINDS)
def test_location_in_direct_installation(lab, kind):
    """Without one the run ends there and then; with a wrong one the application just does not start."""
    location, text = kinds(r"C:\Nowhere")[kind]
    given = r"C:\Given\setup.exe"
    arguments = f"-VLT -Install -Path {given}"
    lab.run({"desktop": False, "server": {"reach": "none"}, "files": {given: {"program": "CorvelSoftware.exe"}},
             "registry": {HALDEN: {"Location": location}}}, arguments)
    last = [] if text is None else [rf"Launching process {text}\CorvelSoftware.exe  failed. Error code = {{number}} {{any}}"]
    check(lab, outcome="direct-installer-empty", exit_code=QUIET_END if text is None else 0, boxes=[], crash=text is None, before={"products": []},
          after={"products": [], "files": [given]}, log=[
        opening(arguments)[0], unpack(given),
        "Unable to find {temp}Tavik_VLTInstallerDownload\\LPInstaller" + MAIN_PACKAGE + ".", *last])


# ReleaseVersion: one adapter for each kind

def card(number: int) -> str:
    return rf"PCI\VEN_1E7D&DEV_2F{number:02}&SUBSYS_00011E7D&REV_A1\4&1A2B3C4D&0&{number:04}"


def test_release_of_every_kind(lab):
    """Those that can be read are listed by their text, the others are left out."""
    values = kinds("25.10.1-a")
    cards = [{"id": card(number), "description": kind, "release": value, "packages": []}
             for number, (kind, (value, _)) in enumerate(values.items(), 1)]
    lab.run({"adapters": cards, **NO_SERVER})
    lines = []
    for number, (kind, (_, text)) in enumerate(values.items(), 1):
        place = f"[{kind}] - [{card(number)}]"
        unreadable = f"Unable to find ReleaseVersion regkey for {place}. Unable to get registry value: {{any}}"
        lines.append(unreadable if text is None else f"Enumerating installed drivers for {card(number)} - {kind}")
    texts = [(kind, text) for kind, (_, text) in values.items() if text is not None]
    listed = sorted(texts, key=lambda item: item[1].partition("-")[0], reverse=True)
    check_ends_without_server(lab, [*opening(), *lines, LIST, *(f"\t [{kind}] [{text}] []" for kind, text in listed)],
                              folder="", prefix="25.10")


@pytest.mark.quick
def test_the_only_adapter_has_no_release(lab):
    lab.run({"adapters": [{"release": kinds(RELEASE)["binary"][0]}]})
    check(lab, outcome="no-usable-driver", exit_code=-1, boxes=[NO_ADAPTER], requests=[], before=BEFORE, after=BEFORE, log=[
        *opening(), f"Unable to find ReleaseVersion regkey for [{NAME}] - [{DEVICE}]. Unable to get registry value: {{any}}",
        LIST,
        "Unable to find installed Tavik display adapters. Exiting."])


def test_odd_release_still_finds_its_package(lab):
    values = [kinds(RELEASE)[kind][0] for kind in ("no terminator", "two terminators", "null inside", "odd size")]
    lab.run({"adapters": [{"id": card(number), "release": value} for number, value in enumerate(values, 1)], **NO_SERVER})
    lines = []
    for number in range(1, 5):
        lines += [f"Enumerating installed drivers for {card(number)} - {NAME}", *inventory()[1:3]]
        lines[-2] = rf"Found driver {{store{number}}}\u04{number:05}.inf. Version [{RELEASE}]"
    check_ends_without_server(lab, [*opening(), *lines, LIST,
                                    *(f"\t [{NAME}] [{RELEASE}] [{{store{number}}}]" for number in range(1, 5))])


# Releases that are none

# Proves: A release is empty, "-", or no release at all => taken as it is
@pytest.mark.parametrize("release, prefix", [
    ("-", ""), ("2", "2"), ("..............", "....."), ("\t\r ", "\t\r "), ("\\..\\..\\x", "\\..\\."), ("☃" * 9, "☃" * 5),
], ids=["hyphen", "one digit", "points", "controls", "path", "snowmen"])
def test_release_that_is_none(lab, release, prefix):
    lab.run({"adapters": [{"release": release, "packages": []}], **NO_SERVER})
    check_ends_without_server(lab, [*opening(), inventory()[0], LIST, f"\t [{NAME}] [{release}] []"], folder="", prefix=prefix)


def test_empty_release_without_a_package(lab):
    lab.run({"adapters": [{"release": "", "packages": []}], **NO_SERVER})
    check_ends_without_server(lab, [*opening(), inventory()[0], LIST, f"\t [{NAME}] [] []"], folder="", prefix="")


@pytest.mark.parametrize("release, version", [("", ""), ("-", ""), ("2", "2"), ("2", "2-x"), ("....", "....")],
                         ids=["both empty", "hyphen", "one digit", "not cut at hyphens", "points"])
def test_releases_that_are_none_can_still_be_the_same(lab, release, version):
    """An unknown version equals an empty release: then nothing is repaired. Only the first five characters are compared."""
    lab.run({"adapters": [{"release": release, "packages": []}], "registry": {HL: {"HLVersion": version}}, **NO_SERVER})
    lines = [*opening("", version, "23.40.11.01"), inventory()[0], LIST, f"\t [{NAME}] [{release}] []"]
    same = {"products": ["Tavik Halden 23.40"]}
    if version == "2-x":
        check_ends_without_server(lab, lines, folder="", prefix="2", before=same, after=same)
    else:
        check(lab, outcome="same-release", exit_code=-1, boxes=[SAME_RELEASE], requests=[], before=same, after=same, log=[*lines, SAME_EXIT])


def test_release_of_a_mebibyte(lab):
    release = "24.2" + "0" * (MEBIBYTE // 2)
    lab.run({"adapters": [{"release": release, "packages": [{"release": RELEASE}]}], **NO_SERVER})
    device = inventory()
    check_ends_without_server(lab, [*opening(), *device[:2], LIST, f"\t [{NAME}] [{release}"[:1023]], folder="")


@pytest.mark.parametrize("release, status, outcome", [
    ("%s%n%d.1", 400, "download-refused"), *((release, 404, "download-not-there") for release in ("-", "a?b#c", "../x/"))])
def test_release_becomes_a_part_of_the_address_as_it_is(lab, release, status, outcome):
    """Whatever the server makes of it, the run ends in order."""
    lab.run({"adapters": [{"release": release, "packages": []}]})
    prefix = release.partition("-")[0][:5]
    check(lab, outcome=outcome, exit_code=-1, boxes=[DOWNLOAD_FAILED], before=BEFORE, after=BEFORE, log=[
        *opening(), inventory()[0], LIST, f"\t [{NAME}] [{release}] []", without_server("", prefix)[0],
        "Change server to http://{server}/drivers/installer/vlt/.", f"Response code from server: {status}",
        f"Error response code received from http://{{server}}/drivers/installer/vlt/{prefix}/dwx2_install.txt", NOT_DOWNLOADED])


# Texts of a device: description and driver key. Each has an adapter of its own.

def test_descriptions_of_every_size(lab):
    values = {"Card": {"type": "REG_SZ", "hex": utf16("Card")}, "odd": {"type": "REG_SZ", "hex": utf16("odd") + "00"},
              "": {"type": "REG_SZ", "hex": ""},
              "cut": {"type": "REG_SZ", "hex": utf16("cut\0rest\0")}, "AB": {"type": "REG_DWORD", "hex": "41004200"},
              "d" * (MEBIBYTE // 2): "d" * (MEBIBYTE // 2)}
    registry = {rf"HKLM\{ENUM}\{card(number)}": {"DeviceDesc": value} for number, value in enumerate(values.values(), 1)}
    lab.run({"adapters": [{"id": card(number), "packages": []} for number in range(1, len(values) + 1)], "registry": registry,
             **NO_SERVER})
    check_ends_without_server(lab, [
        *opening(), *(f"Enumerating installed drivers for {card(number)} - {text}"[:1023]
                      for number, text in enumerate(values, 1)),
        LIST, *(f"\t [{text}] [{RELEASE}] []" if len(text) < 1000 else f"\t [{text}"[:1023] for text in values)], folder="")


def test_driver_keys_of_every_kind(lab):
    """The key that it names decides; half a terminator is as good as one."""
    good = "{4D36E968-E325-11CE-BFC1-08002BE10318}\\0001"
    values: list[tuple[Any, str]] = [
        (good, ""), ("{4D36E968-E325-11CE-BFC1-08002BE10318}\\", "get registry value"), ("", "get registry value"),
        ("\\", "get registry value"),
        ("..\\" * 20, "open registry key"), ("k" * 4000, "open registry key"), ("%s%n\\0001", "open registry key"),
        ({"type": "REG_SZ", "hex": utf16(good)}, ""), ({"type": "REG_SZ", "hex": utf16(good) + "00"}, "")]
    registry = {rf"HKLM\{ENUM}\{card(number)}": {"Driver": value} for number, (value, _) in enumerate(values, 1)}
    lab.run({"adapters": [{"id": card(number), "packages": []} for number in range(1, len(values) + 1)], "registry": registry,
             **NO_SERVER})
    lines = [f"Unable to find ReleaseVersion regkey for [{NAME}] - [{card(number)}]. Unable to {why}: {{any}}" if why else
             f"Enumerating installed drivers for {card(number)} - {NAME}" for number, (_, why) in enumerate(values, 1)]
    check_ends_without_server(lab, [*opening(), *lines, LIST, *[f"\t [{NAME}] [{RELEASE}] []"] * 3], folder="")
