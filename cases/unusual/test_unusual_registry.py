"""Registry values of every wrong kind and size, in each place that the tool reads, and texts that are not releases.

A text counts as it is, up to its first null; a text with variables counts with them replaced; everything else counts as missing.
"""
from __future__ import annotations

from typing import Any

import pytest

from cases.support.direct import HALDEN
from cases.support.download import PATH
from cases.support.expect import (NO_ADAPTER_LEFT, NO_SERVER, NOT_DOWNLOADED, install, inventory, opening, remove, stop,
                                  without_server)
from cases.support.repair import INSTALL_PROPERTIES, MSI_AGREES, asked_of_msi, found, until_unpacked
from cases.support.unusual import ANY_VERSION, DEVICE, LIST, MEBIBYTE, card, check, check_ends_without_server
from lab.adapters import ENUM, RELEASE
from lab.prefix import wine_version

TAVIK = r"HKLM\Software\Tavik"
HL = TAVIK + r"\HL"
NAME = "Tavik Corvel 7800"
NO_RELEASE = "Unable to find ReleaseVersion regkey for [{}] - [{}]. Unable to {}: {{any}}".format


def utf16(text: str) -> str:
    return text.encode("utf-16-le").hex()


def kinds(text: str) -> dict[str, tuple[Any, str | None]]:
    """Ways in which a value can hold a text, and what the tool reads: None for a value that counts as missing."""
    unended = text if wine_version() < 10 else None  # Wine 10 does not tell that a terminator needs room, and refuses the second read: 234
    return {
        "no terminator": ({"type": "REG_SZ", "hex": utf16(text)}, unended),
        "two terminators": ({"type": "REG_SZ", "hex": utf16(text + "\0\0")}, text),
        "null inside": ({"type": "REG_SZ", "hex": utf16(text + "\0more\0")}, text),
        "nulls only": ({"type": "REG_SZ", "hex": "000000000000"}, ""),
        "one byte": ({"type": "REG_SZ", "hex": "00"}, ""),
        "odd size": ({"type": "REG_SZ", "hex": utf16(text) + "00"}, unended),
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
# Proves: Empty text, no bytes, half a character
# Proves: A value is not text
@pytest.mark.parametrize("kind", KINDS)
def test_versions_and_server_folder(lab, kind):
    """All three in one run. Without a readable server folder the tool uses the maker's server."""
    version, version_text = kinds("21.99")[kind]
    driver, driver_text = kinds("21.99.1")[kind]
    folder, folder_text = kinds("gopher")[kind]
    lab.run({"server": {"reach": "default" if folder_text is None else "none", "answers": {PATH: 404}},
             "registry": {HL: {"HLVersion": version, "DriverVersion": driver}, TAVIK: {"DWXServerFolder": folder}}})
    if folder_text is None:
        outcome, requests = "download-not-there", [f"{PATH} 404"]
        server = ["Response code from server: 404", f"Error response code received from https://download.tavik.example{PATH}"]
    else:
        outcome, requests = "download-bad-address", []
        server = [f"Change server to {folder_text}.", f"Unable to crack URL: {folder_text}24.20/dwx2_install.txt. Error = {{number}}"]
    check(lab, outcome=outcome, requests=requests, before=ANY_VERSION, after=ANY_VERSION, log=[
        *opening("", version_text or "", driver_text or ""), *inventory(), without_server()[0], *server, NOT_DOWNLOADED])


def test_versions_and_server_folder_of_a_mebibyte(lab):
    """The lines of the log are cut; the first five characters still decide."""
    text, folder = "24.21" + "v" * (MEBIBYTE // 2), "http://127.0.0.1:1/" + "f" * (MEBIBYTE // 2)
    lab.run({"server": {"reach": "none"}, "registry": {HL: {"HLVersion": text, "DriverVersion": text}, TAVIK: {"DWXServerFolder": folder}}})
    check(lab, outcome="download-bad-address", before=ANY_VERSION, after=ANY_VERSION, log=[
        opening()[0], f"Currently installed VLT is version [{text}"[:1023], *inventory(), without_server()[0],
        f"Change server to {folder}"[:1023], f"Unable to crack URL: {folder}"[:1023], NOT_DOWNLOADED])


# Location and InstallDir of the desktop edition

def check_folders(lab, location: str | None, custom: str = "", **after: Any) -> None:
    """Windows Installer agrees to everything, so the product stays. custom: the install folder that is passed on."""
    polite = [] if location is None else [rf"Launching process {location}\hlcmd.exe exit failed. Error code = {{number}} {{any}}"]
    one, two = install("Halden")
    check(lab, outcome="repaired", after=after, log=[
        *until_unpacked(), *polite, *stop(""), *remove("Halden"), one, *([f"Using custom install directory {custom}"] if custom else []), two])
    assert asked_of_msi(lab.result)[-1][1] == INSTALL_PROPERTIES + (f' INSTALLDIR="{custom}"' if custom else "")


@pytest.mark.parametrize("kind", ["null inside", "no bytes", "odd size", "number", "list"])
def test_location_and_install_folder(lab, kind):
    """Only an install folder that exists can be compared with the default one."""
    location, location_text = kinds(r"C:\Nowhere")[kind]
    folder, folder_text = kinds(r"C:\My Apps")[kind]
    note = r"C:\My Apps\note.txt"
    lab.run(found(registry={HALDEN: {"Location": location, "InstallDir": folder}}, files={note: "mine"}, faults=[MSI_AGREES]))
    check_folders(lab, location_text, folder_text if folder_text == r"C:\My Apps" else "", files=[note])


def test_location_of_600_characters_and_install_folder_of_a_mebibyte(lab):
    """Wine itself crashes when it starts something with a path of about 1,000 characters."""
    location = "C:\\" + "l" * 600
    lab.run(found(registry={HALDEN: {"Location": location, "InstallDir": "C:\\" + "l" * (MEBIBYTE // 2)}}, faults=[MSI_AGREES]))
    check_folders(lab, location)


# ReleaseVersion: one adapter for each kind

def test_release_of_every_kind(lab):
    """Those that can be read are listed by their text, the others are left out."""
    values = kinds("25.10.1-a")
    lab.run({"adapters": [{"description": kind, "release": value, "packages": []} for kind, (value, _) in values.items()], **NO_SERVER})
    lines = [NO_RELEASE(kind, card(number), "get registry value") if text is None else
             f"Enumerating installed drivers for {card(number)} - {kind}" for number, (kind, (_, text)) in enumerate(values.items(), 1)]
    texts = [(kind, text) for kind, (_, text) in values.items() if text is not None]
    listed = sorted(texts, key=lambda item: item[1].partition("-")[0], reverse=True)
    check_ends_without_server(lab, *lines, LIST, *(f"\t [{kind}] [{text}] []" for kind, text in listed), folder="", prefix="25.10")


@pytest.mark.quick
def test_the_only_adapter_has_no_release(lab):
    lab.run({"adapters": [{"release": kinds(RELEASE)["binary"][0]}]})
    check(lab, outcome="no-usable-driver", requests=[], log=[
        *opening(), NO_RELEASE(NAME, DEVICE, "get registry value"), *NO_ADAPTER_LEFT])


# Texts that are not releases

# Proves: A release is empty, "-", or no release at all => taken as it is
@pytest.mark.parametrize("release, prefix", [
    ("", ""), ("-", ""), ("2", "2"), ("..............", "....."), ("\t\r ", "\t\r "), ("\\..\\..\\x", "\\..\\."), ("☃" * 9, "☃" * 5),
], ids=["empty", "hyphen", "one digit", "points", "controls", "path", "snowmen"])
def test_release_that_is_no_release_is_used_as_it_is(lab, release, prefix):
    lab.run({"adapters": [{"release": release, "packages": []}], **NO_SERVER})
    check_ends_without_server(lab, inventory()[0], LIST, f"\t [{NAME}] [{release}] []", folder="", prefix=prefix)


def test_release_of_a_mebibyte(lab):
    release = "24.2" + "0" * (MEBIBYTE // 2)
    lab.run({"adapters": [{"release": release, "packages": [{"release": RELEASE}]}], **NO_SERVER})
    check_ends_without_server(lab, *inventory()[:2], LIST, f"\t [{NAME}] [{release}"[:1023], folder="")


@pytest.mark.parametrize("release", ["%s%n%d.1", "-", "a?b#c", "../x/"])
def test_release_becomes_a_part_of_the_address_as_it_is(lab, release):
    """Whatever the server answers, the run ends in an orderly way."""
    lab.run({"adapters": [{"release": release, "packages": []}]})
    prefix = release.partition("-")[0][:5]
    check(lab, outcome="download-not-there", log=[
        *opening(), inventory()[0], LIST, f"\t [{NAME}] [{release}] []", without_server("", prefix)[0],
        "Change server to http://{server}/drivers/installer/vlt/.", "Response code from server: 404",
        f"Error response code received from http://{{server}}/drivers/installer/vlt/{prefix}/dwx2_install.txt", NOT_DOWNLOADED])


# Texts of a device: description and driver key. Each has an adapter of its own.

def adapters_with(name: str, values: list[Any]) -> dict[str, Any]:
    """One adapter for each value of that name in its device's key."""
    registry = {rf"HKLM\{ENUM}\{card(number)}": {name: value} for number, value in enumerate(values, 1)}
    return {"adapters": [{"packages": []} for _ in values], "registry": registry, **NO_SERVER}


def test_descriptions_of_every_size(lab):
    long = "d" * (MEBIBYTE // 2)
    values = {"Card": {"type": "REG_SZ", "hex": utf16("Card")}, "odd": {"type": "REG_SZ", "hex": utf16("odd") + "00"},
              "": {"type": "REG_SZ", "hex": ""}, "cut": {"type": "REG_SZ", "hex": utf16("cut\0rest\0")},
              "AB": {"type": "REG_DWORD", "hex": "41004200"}, long: long}
    lab.run(adapters_with("DeviceDesc", list(values.values())))
    check_ends_without_server(
        lab, *(f"Enumerating installed drivers for {card(number)} - {text}"[:1023] for number, text in enumerate(values, 1)), LIST,
        *(f"\t [{text}"[:1023] if text == long else f"\t [{text}] [{RELEASE}] []" for text in values), folder="")


def test_driver_keys_of_every_kind(lab):
    """The key named by the value decides; half a terminator works like a whole one."""
    good = "{4D36E968-E325-11CE-BFC1-08002BE10318}\\0001"
    value, key = "get registry value", "open registry key"
    values: list[tuple[Any, str]] = [
        (good, ""), ("{4D36E968-E325-11CE-BFC1-08002BE10318}\\", value), ("\\", value), ("..\\" * 20, key), ("k" * 4000, key),
        ("%s%n\\0001", key), ({"type": "REG_SZ", "hex": utf16(good)}, ""), ({"type": "REG_SZ", "hex": utf16(good) + "00"}, "")]
    if wine_version() < 10:  # Wine 10 reads these values itself before the first window, and hangs at one without a backslash
        values.append(("", value))
    lab.run(adapters_with("Driver", [text for text, _ in values]))
    lines = [NO_RELEASE(NAME, card(number), why) if why else f"Enumerating installed drivers for {card(number)} - {NAME}"
             for number, (_, why) in enumerate(values, 1)]
    check_ends_without_server(lab, *lines, LIST, *[f"\t [{NAME}] [{RELEASE}] []"] * 3, folder="")
