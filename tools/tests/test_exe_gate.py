"""tools/exe_gate.py: for each of its rules a copy of the exe that breaks it."""
from __future__ import annotations

import json
import struct
from collections.abc import Callable

import pefile
import pytest

from tools import exe_gate as check_exe
from tools import load_configuration
from tools.load_configuration import STRUCTURE
from lab import paths

DIRECTORY = pefile.DIRECTORY_ENTRY
USER = check_exe.user_name()


def wide(text: str) -> bytes:
    return text.encode("utf-16-le")


def replaced(data: bytes, old: bytes, new: bytes) -> bytes:
    assert len(old) == len(new) and old in data
    return data.replace(old, new)


def header(change: Callable[[pefile.PE], None]) -> Callable[[bytes], bytes]:
    """Changes fields of the headers."""
    def doctor(data: bytes) -> bytes:
        pe = pefile.PE(data=data, fast_load=True)
        change(pe)
        return bytes(pe.write())
    return doctor


def flags(field: str, clear: int = 0, add: int = 0) -> Callable[[bytes], bytes]:
    part, name = field.split(".")

    def change(pe: pefile.PE) -> None:
        where = getattr(pe, part)
        setattr(where, name, getattr(where, name) & ~clear | add)
    return header(change)


def field(name: str, value: int) -> Callable[[bytes], bytes]:
    part, name = name.split(".")
    return header(lambda pe: setattr(getattr(pe, part), name, value))


def directory(name: str, address: int, size: int) -> Callable[[bytes], bytes]:
    def change(pe: pefile.PE) -> None:
        entry = pe.OPTIONAL_HEADER.DATA_DIRECTORY[DIRECTORY[f"IMAGE_DIRECTORY_ENTRY_{name}"]]
        entry.VirtualAddress, entry.Size = address, size
    return header(change)


def section(name: str, change: Callable[[pefile.PE, pefile.SectionStructure], None]) -> Callable[[bytes], bytes]:
    return header(lambda pe: change(pe, next(item for item in pe.sections if item.Name.rstrip(b"\0") == name.encode())))


def with_flag(name: str, add: int) -> Callable[[bytes], bytes]:
    return section(name, lambda _, one: setattr(one, "Characteristics", one.Characteristics | add))


def swap(old: bytes, new: bytes) -> Callable[[bytes], bytes]:
    return lambda data: replaced(data, old, new)


def paste(text: bytes) -> Callable[[bytes], bytes]:
    """Puts a text into the first unused place after the code that is long enough."""
    def doctor(data: bytes) -> bytes:
        at = data.index(bytes(len(text) + 2), pefile.PE(data=data, fast_load=True).sections[1].PointerToRawData) + 1
        return data[:at] + text + data[at + len(text):]
    return doctor


def stamp(name: str, offset: int) -> Callable[[bytes], bytes]:
    """A time in the first structure of that directory."""
    def doctor(data: bytes) -> bytes:
        pe = pefile.PE(data=data, fast_load=True)
        address = pe.OPTIONAL_HEADER.DATA_DIRECTORY[DIRECTORY[f"IMAGE_DIRECTORY_ENTRY_{name}"]].VirtualAddress
        at = pe.get_offset_from_rva(address) + offset
        return data[:at] + struct.pack("<I", 0x65A0B1C2) + data[at + 4:]
    return doctor


def no_calls_of_the_guard(data: bytes) -> bytes:
    """As if only two functions were compiled with the protector: the other calls are replaced."""
    pe = pefile.PE(data=data, fast_load=True)
    text = pe.sections[0]
    shift = text.VirtualAddress - text.PointerToRawData
    exe = check_exe.Exe(paths.TOOL, paths.BUILD)
    end, = (begin for begin, end, _ in exe.functions() if check_exe.FAST_FAIL in exe.image[begin:end])
    changed = bytearray(data)
    left = 2
    for at in range(text.PointerToRawData, text.PointerToRawData + text.SizeOfRawData - 5):
        if data[at] == 0xE8 and at + shift + 5 + struct.unpack_from("<i", data, at + 1)[0] == end:
            left -= 1
            if left < 0:
                changed[at:at + 5] = b"\x90" * 5
    return bytes(changed)


def table_of_functions(change: Callable[[list[tuple[int, int, int]]], None]) -> Callable[[bytes], bytes]:
    """Changes the table with which Windows unwinds the stack."""
    def doctor(data: bytes) -> bytes:
        pe = pefile.PE(data=data, fast_load=True)
        entry = pe.OPTIONAL_HEADER.DATA_DIRECTORY[DIRECTORY["IMAGE_DIRECTORY_ENTRY_EXCEPTION"]]
        at = pe.get_offset_from_rva(entry.VirtualAddress)
        rows = list(struct.iter_unpack("<3I", data[at:at + entry.Size]))
        change(rows)
        entry.Size = 12 * len(rows)
        table = b"".join(struct.pack("<3I", *row) for row in rows)
        return bytes(pe.write())[:at] + table + data[at + len(table):]
    return doctor


def without_the_longest(rows: list[tuple[int, int, int]]) -> None:
    rows.remove(max(rows, key=lambda row: row[1] - row[0]))


def unsorted(rows: list[tuple[int, int, int]]) -> None:
    rows[10], rows[11] = rows[11], rows[10]


def description_in_the_code(rows: list[tuple[int, int, int]]) -> None:
    rows[10] = (*rows[10][:2], rows[10][0])


CODE, WRITE, SHARED = 0x20000000, 0x80000000, 0x10000000
DOCTORED = {
    "other machine": (field("FILE_HEADER.Machine", 0xAA64), "the machine is 0xaa64, not x86-64"),
    "console": (field("OPTIONAL_HEADER.Subsystem", 3), "the subsystem is 3, not that of window programs"),
    "older Windows": (field("OPTIONAL_HEADER.MajorSubsystemVersion", 6), "it wants Windows 6.0"),
    "fixed address": (flags("OPTIONAL_HEADER.DllCharacteristics", clear=0x40), ["DYNAMIC_BASE is not set"]),
    "low address": (flags("OPTIONAL_HEADER.DllCharacteristics", clear=0x20), "HIGH_ENTROPY_VA is not set"),
    "data executable": (flags("OPTIONAL_HEADER.DllCharacteristics", clear=0x100), "NX_COMPAT is not set"),
    "Windows folder of its own": (flags("OPTIONAL_HEADER.DllCharacteristics", clear=0x8000), ["TERMINAL_SERVER_AWARE is not set"]),
    "no load configuration": (directory("LOAD_CONFIG", 0, 0), ["there is no load configuration"]),
    "DLLs from anywhere": (swap(STRUCTURE, STRUCTURE.replace(b"\x00\x08", b"\0\0")), ["the load configuration has the flags 0x0"]),
    "said to be without relocations": (flags("FILE_HEADER.Characteristics", add=1),
                                       "the header says that relocations were stripped"),
    "no relocations": (directory("BASERELOC", 0, 0), "there are 0 relocations"),
    "low base": (field("OPTIONAL_HEADER.ImageBase", 0x400000), "the image base 0x400000 is not"),
    "code writable": (with_flag(".text", WRITE), "section .text is writable and executable"),
    "data and code": (with_flag(".data", CODE), "section .data is writable and executable"),
    "shared data": (with_flag(".data", SHARED), "section .data is shared between processes"),
    "starts in data": (section(".data", lambda pe, one: setattr(pe.OPTIONAL_HEADER, "AddressOfEntryPoint", one.VirtualAddress)), "the program starts in section .data"),
    "bound imports": (directory("BOUND_IMPORT", 0x200, 0x20), "the imports are bound"),
    "exports": (directory("EXPORT", 0xC0000, 0x28), "it exports something"),
    "functions without an entry": (table_of_functions(without_the_longest),
                                   ["the code at "]),
    "unsorted functions": (table_of_functions(unsorted), "the table of functions is not sorted"),
    "wrong description": (table_of_functions(description_in_the_code), "the table of functions names something outside"),
    "guard's end is gone": (swap(check_exe.FAST_FAIL, b"\xba\0\0\0\0"), "0 functions end the process for a damaged stack"),
    "hardly any guards": (no_calls_of_the_guard, "2 functions have a stack guard"),
    "ordinary user": (swap(b'"requireAdministrator"', b'"asInvoker"           '),
                      "the manifest does not ask for an administrator"),
    "manifest": (swap(b'uiAccess="false"', b'uiAccess="true" '), "the manifest is not src/resources/tool.manifest"),
    "side by side": (swap(b"<requestedPrivileges>", b"<dependentAssembly/>~"), "the manifest names another assembly"),
    "no manifest": (directory("RESOURCE", 0, 0), "there are 0 manifests"),
    "no version": (directory("RESOURCE", 0, 0), "there are 0 version blocks"),
    "number of the version": (swap(bytes.fromhex("bd04effe") + struct.pack("<3I", 0x10000, 0x10000, 1),
                                   bytes.fromhex("bd04effe") + struct.pack("<3I", 0x10000, 0x10000, 2)),
                              "the number FileVersion is [1, 0, 0, 2]"),
    "text of the version": (swap(wide("1.0.0.1\0"), wide("1.0.0.2\0")), "the text ProductVersion is '1.0.0.2', not '1.0.0.1'"),
    "name of the file": (swap(wide("OriginalFilename"), wide("OriginalFilenam_")), "the text OriginalFilename is None"),
    "path of the build": (paste(str(paths.ROOT).encode()), f"there is a trace of the build in it: {paths.ROOT}"),
    "wide path of the build": (paste(wide(str(paths.ROOT))), f"there is a trace of the build in it: {paths.ROOT}"),
    "a user's folder": (paste(b"/home/" + b"user/x"), "there is a trace of the build in it: /home/"),
    "path of a source": (paste(b"base/log.cpp"), "there is a trace of the build in it: .cpp"),
    "wide path of a source": (paste(wide("app\\main.cpp")), "there is a trace of the build in it: .cpp"),
    "user": (paste(f"/{USER}/".encode()), f"there is a trace of the build in it: /{USER}/"),
    "time of the link": (field("FILE_HEADER.TimeDateStamp", 0x65A0B1C2), "the time stamp of the link is 0x65a0b1c2"),
    "time of the imports": (stamp("IMPORT", 4), "the time stamp of the imports is 0x65a0b1c2"),
    "time of the resources": (stamp("RESOURCE", 4), "the time stamp of the resources is 0x65a0b1c2"),
    "debug directory": (directory("DEBUG", 0xC0000, 28), "there is a debug directory"),
    "symbols": (field("FILE_HEADER.NumberOfSymbols", 7), "the symbols were not stripped"),
    "certificate": (directory("SECURITY", 0x1000, 8), "there is a certificate in it"),
    "something after the end": (lambda data: data + b"12345", "5 bytes follow the last section"),
    # Names of the same length, so that one can take another's place.
    "easily planted": (swap(b"SHELL32.dll\0", b"version.dll\0"), [
        "version.dll is imported statically, but Windows does not protect that name", "shell32.dll is on a list",
        "the library version.dll is named in it"]),
    "delayed no more": (swap(b"SHELL32.dll\0", b"WININET.dll\0"), [
        "wininet.dll is imported statically, but Windows does not protect that name", "shell32.dll is on a list"]),
    "protected but new": (swap(b"ADVAPI32.dll\0", b"COMDLG32.dll\0"), [
        "comdlg32.dll is imported statically and is not on the list", "advapi32.dll is on a list",
        "the library comdlg32.dll is named in it"]),
    "delayed but new": (swap(b"WTSAPI32.dll\0", b"NETAPI32.dll\0"), [
        "netapi32.dll is imported at its first call and is not on the list", "wtsapi32.dll is on a list",
        "the library netapi32.dll is named in it"]),
    "looked up": (swap(wide("combase.dll"), wide("sspicli.dll")), [
        "the library sspicli.dll is named in it", "combase.dll is on the list of what is looked up"]),
    "named by a narrow text": (paste(b"planted.drv"), ["the library planted.drv is named in it"]),
}
OF_THE_COMPANION = {
    "window program": (field("OPTIONAL_HEADER.Subsystem", 2), ["the subsystem is 2, not that of console programs"]),
    "more rights": (swap(b'"asInvoker"', b'"highest"  '), ["the manifest is not companion/companion.manifest", "the manifest asks for more"]),
    "other delayed library": (swap(b"WININET.dll\0", b"WINHTTP.dll\0"), [
        "winhttp.dll is imported at its first call", "wininet.dll is on a list", "the library winhttp.dll is named"]),
    "easily planted": (swap(b"SHELL32.dll\0", b"version.dll\0"), [
        "version.dll is imported statically, but Windows", "shell32.dll is on a list", "the library version.dll is named"]),
    "path of a source": (paste(b"base/log.cpp"), ["there is a trace of the build in it: .cpp"]),
}


def complaints(data: bytes, tmp_path, build=paths.BUILD, checksum: bool = True, product=check_exe.TOOL) -> list[str]:
    file = tmp_path / "doctored.exe"
    if checksum:
        data = field("OPTIONAL_HEADER.CheckSum", check_exe.checksum(data))(data)
    file.write_bytes(data)
    return check_exe.complaints(file, build, product)


@pytest.fixture(scope="module")
def shipped() -> bytes:
    return paths.need(paths.TOOL).read_bytes()


# Proves: The exe loses one of its protections, imports something new, or carries a trace of the build => `scripts/check exe` complains
@pytest.mark.parametrize("product", check_exe.PRODUCTS, ids=lambda product: product.name)
def test_the_programs_pass_by_their_lists(product):
    assert check_exe.complaints(paths.need(paths.BUILD / product.name), paths.BUILD, product) == []


@pytest.mark.parametrize("product, name", [
    *((check_exe.TOOL, name) for name in DOCTORED), *((check_exe.COMPANION, name) for name in OF_THE_COMPANION)], ids=lambda value: getattr(value, "name", value))
def test_one_rule_is_broken(tmp_path, product, name):
    """A list in the table has all complaints: one broken rule must not cause many others."""
    doctor, wanted = (DOCTORED if product is check_exe.TOOL else OF_THE_COMPANION)[name]
    data = paths.need(paths.BUILD / product.name).read_bytes()
    assert doctor(data) != data
    found = complaints(doctor(data), tmp_path, product=product)
    texts = [wanted] if isinstance(wanted, str) else wanted
    assert all(any(one.startswith(text) for one in found) for text in texts), found
    assert isinstance(wanted, str) or len(found) == len(wanted), found


def test_a_byte_that_was_changed_later(shipped, tmp_path):
    found = complaints(replaced(shipped, b"DOS mode", b"dos mode"), tmp_path, checksum=False)
    assert found == ["the checksum is wrong: the file was changed after it was linked"]


def test_a_source_compiled_without_the_protector(shipped, tmp_path):
    listing = paths.BUILD / "compile_commands.json"
    calls = json.loads(listing.read_text("utf-8"))
    for call in calls:
        if call["file"].endswith("/base/log.cpp"):
            call["command"] = call["command"].replace("-fstack-protector-strong", "")
        if call["file"].endswith("/app/main.cpp"):
            call["file"] = "elsewhere.cpp"
    (tmp_path / listing.name).write_text(json.dumps(calls), "utf-8")
    assert complaints(shipped, tmp_path, tmp_path) == ["src/app/main.cpp is compiled without the stack protector",
                                                       "src/base/log.cpp is compiled without the stack protector"]


def test_a_build_without_its_compiler_calls(shipped, tmp_path):
    assert [one for one in complaints(shipped, tmp_path, tmp_path) if one.startswith("compile_commands.json is missing")]


def test_imports_that_the_linker_made_read_only_become_writable(shipped, tmp_path):
    protected = section(".idata", lambda _, one: setattr(one, "Characteristics", one.Characteristics & ~0x80000000))(shipped)
    file = tmp_path / "x.exe"
    file.write_bytes(field("OPTIONAL_HEADER.CheckSum", check_exe.checksum(protected))(protected))
    assert load_configuration.main(["--imports", str(file)]) == 0 and file.read_bytes() == shipped


@pytest.mark.parametrize("arguments", [[], ["--imports"], ["--help"], ["a.exe", "b.exe"], ["--imports", "a.exe", "b.exe"]], ids=" ".join)
def test_arguments_that_are_not_understood(arguments):
    assert load_configuration.main(arguments) == 2
