"""Checks what Windows reads from an exe that ships (flags, sections, imports, resources), and what must not be in it.

    tools.exe_gate [EXE]...    the two of build/release unless told otherwise; TavikToolCompanion.exe has its own lists

The compiler calls of the build are checked too. Each complaint is one line; without any the exit code is 0.
tools/tests/test_exe_gate.py shows for every rule that it can fail.
"""
import contextlib
import dataclasses
import getpass
import itertools
import json
import re
import struct
import sys
from collections.abc import Iterator
from pathlib import Path

import pefile

from tools.load_configuration import SEARCH_SYSTEM32, checksum
from tools.project import TOP

BUILD = TOP / "build" / "release"
RESOURCES = TOP / "src" / "resources"

# What Windows 10 takes from its own folder only, even if a DLL of that name is beside the program: HKLM\SYSTEM\CurrentControlSet\
# Control\Session Manager\KnownDLLs.
KNOWN_DLLS = set("""advapi32 clbcatq combase comdlg32 coml2 gdi32 gdiplus imagehlp imm32 kernel32 msctf msvcrt normaliz nsi
    ole32 oleaut32 psapi rpcrt4 sechost setupapi shcore shell32 shlwapi user32 wldap32 ws2_32""".split())

@dataclasses.dataclass(frozen=True)
class Product:
    """What differs between the programs that ship."""
    name: str
    subsystem: str
    other_subsystem: str      # effect of a wrong subsystem, for the message
    static: dict[str, str]    # loaded before the first instruction: only from the list above
    delayed: dict[str, str]   # loaded at the first call, from the system's folder only
    looked_up: dict[str, str]  # names that the exe looks up itself
    protected: int            # smallest number of linked functions with a guard
    manifest: str
    level: str
    no_level: str
    description: str

    @property
    def texts(self) -> dict[str, str]:
        return {"CompanyName": "Tavik", "FileDescription": self.description, "InternalName": self.name.removesuffix(".exe"),
                "OriginalFilename": self.name, "ProductName": "Tavik Software Compatibility Tool"}


TOOL = Product(
    name="TavikCompatibilityTool.exe",
    subsystem="IMAGE_SUBSYSTEM_WINDOWS_GUI", other_subsystem="not that of window programs: a console would open",
    static={
        "advapi32.dll": "registry, security descriptor of the folder that it unpacks into",
        "gdi32.dll": "font and text of the status window",
        "kernel32.dll": "the system",
        "msvcrt.dll": "the C library below the compiler's",
        "shell32.dll": "switches, known folders, starting installers as Explorer would",
        "user32.dll": "status window and message boxes",
    },
    delayed={
        "msi.dll": "the desktop edition's packages",
        "setupapi.dll": "display adapters and driver packages; protected, but delayed to start faster",
        "wininet.dll": "download",
        "wtsapi32.dll": "the user of the session",
    },
    looked_up={
        "combase.dll": "Windows Runtime, from the system's folder only; a run without Store packages does not need it",
        "oleaut32.dll": "error texts of the Windows Runtime, from the system's folder only",
    },
    protected=50,  # 77 when this was written
    manifest="src/resources/tool.manifest", level="requireAdministrator", no_level="the manifest does not ask for an administrator",
    description="Tavik Software Compatibility Tool")
COMPANION = Product(
    name="TavikToolCompanion.exe",
    subsystem="IMAGE_SUBSYSTEM_WINDOWS_CUI", other_subsystem="not that of console programs: its output would not be shown",
    static={
        "advapi32.dll": "registry: profiles of this machine, what is installed",
        "kernel32.dll": "the system",
        "msvcrt.dll": "the C library below the compiler's",
        "shell32.dll": "its command line",
    },
    delayed={
        "msi.dll": "the desktop edition's products",
        "setupapi.dll": "display adapters and driver packages",
        "wininet.dll": "asking a download server",
    },
    looked_up=TOOL.looked_up,
    protected=80,  # 110 when this was written
    manifest="companion/companion.manifest", level="asInvoker", no_level="the manifest asks for more rights than its caller has",
    description="Log reader of the Tavik Software Compatibility Tool")
PRODUCTS = (TOOL, COMPANION)

FLAGS = {
    "IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE": "the exe would always lie at the same address",
    "IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA": "it would get only the lower addresses",
    "IMAGE_DLLCHARACTERISTICS_NX_COMPAT": "data could be executed",
    "IMAGE_DLLCHARACTERISTICS_TERMINAL_SERVER_AWARE": "a Remote Desktop host could give each user a Windows folder of its own",
}
FAST_FAIL = bytes.fromhex("ba090400c0")  # mov edx, STATUS_STACK_BUFFER_OVERRUN: only in the function that the guard ends with
# What may lie between the functions that Windows can unwind: code that neither calls nor moves the stack, and the linker's lists.
NOT_UNWOUND = re.compile(rb"""(?:
    \x66*\x2e?\x0f\x1f(?:\x00 | \x40. | \x44\x00. | \x80.{4} | \x84\x00.{4}) | \x66*\x90      # padding
    | \xff\x25.{4} | \xe9.{4} | \xeb.                                                         # jump: import, tail call
    | \x48\x8d\x05.{4}\xe9.{4}(?:\0\0)?                                                       # delayed import: names itself, jumps to the loader
    | \x48\x83[\xc1\xe9]. | \x48\x8b\x01\x48\x03\x48.                                         # moves "this", before a jump
    | \x51\x50\x48\x3d\x00\x10\x00\x00.{39}\x58\x59\xc3                                       # stack probe, in assembly
    | \x01\0\0\0.{16}\0{12}                                                                   # descriptor of a delayed DLL
    | \xff{8}(?:.{4}\x01\0{3})*\0{8}                                                          # constructors, destructors
)*""", re.VERBOSE | re.DOTALL)
FOREIGN = ("/home/", "/root/", "/tmp/", "/usr/", "/build/", "\\build\\", "\\users\\", ".cpp", ".cc", ".hpp", ".obj", ".pdb")

NOT_IN_IT = {  # directories
    "EXPORT": "it exports something, which a program should not",
    "BOUND_IMPORT": "the imports are bound to the DLLs of one version of Windows",
    "DEBUG": "there is a debug directory, which names files of the build",
    "SECURITY": "there is a certificate in it: check the file that the build made, before it is signed",
}
SLOW = ("IMAGE_DIRECTORY_ENTRY_EXCEPTION",)  # parsed in this file: pefile would be slow and unpack far more than is needed

Complaints = Iterator[str]


class Exe:
    """The file, parsed, and the build it came from."""

    def __init__(self, path: Path, build: Path, product: Product = TOOL):
        self.product = product
        self.data = path.read_bytes()
        self.build = build
        self.pe = pefile.PE(data=self.data, fast_load=True)
        self.pe.parse_data_directories([number for name, number in pefile.directory_entry_types if name not in SLOW])
        self.image = bytes(self.pe.get_memory_mapped_image())

    def directory(self, name: str) -> int:
        number = pefile.DIRECTORY_ENTRY[f"IMAGE_DIRECTORY_ENTRY_{name}"]
        entry = self.pe.OPTIONAL_HEADER.DATA_DIRECTORY[number]
        return entry.Size or entry.VirtualAddress

    def functions(self) -> list[tuple[int, int, int]]:
        """Start, end and description of each, from the table with which Windows unwinds the stack."""
        table = self.pe.OPTIONAL_HEADER.DATA_DIRECTORY[pefile.DIRECTORY_ENTRY["IMAGE_DIRECTORY_ENTRY_EXCEPTION"]]
        return list(struct.iter_unpack("<3I", self.image[table.VirtualAddress:table.VirtualAddress + table.Size // 12 * 12]))

    def calls(self, begin: int, end: int) -> Iterator[int]:
        """Targets of the calls in this code, and of bytes that only look like a call."""
        for call in re.finditer(b"\xe8", self.image[begin:end - 4]):
            yield begin + call.end() + 4 + struct.unpack_from("<i", self.image, begin + call.end())[0]

    def section(self, name: str) -> range:
        """Its addresses in memory; empty if there is no section of that name."""
        for section in self.pe.sections:
            if section.Name.rstrip(b"\0") == name.encode():
                return range(section.VirtualAddress, section.VirtualAddress + section.Misc_VirtualSize)
        return range(0)

    def text_at(self, address: int) -> str:
        return self.image[address:address + 64].split(b"\0")[0].decode("ascii", "replace")

    def static_imports(self) -> set[str]:
        return {entry.dll.decode("ascii", "replace").lower() for entry in getattr(self.pe, "DIRECTORY_ENTRY_IMPORT", [])}

    def delayed_imports(self) -> set[str]:
        """The linker leaves the directory of delayed imports empty, so their descriptors are searched in code and data: attributes 1,
        then the addresses of the DLL's name, its handle, its functions and their names."""
        listed = getattr(self.pe, "DIRECTORY_ENTRY_DELAY_IMPORT", [])
        found = {entry.dll.decode("ascii", "replace").lower() for entry in listed}
        end = len(self.image)
        for mark in re.finditer(b"\1\0\0\0", self.image[:-32]):
            places = struct.unpack_from("<4I", self.image, mark.end())
            if all(0x1000 <= place < end for place in places):
                name = self.text_at(places[0]).lower()
                if re.fullmatch(r"[\w.-]+\.dll", name):
                    found.add(name)
        return found

    def resources(self, kind: str) -> list[bytes]:
        found = []
        for entry in getattr(self.pe, "DIRECTORY_ENTRY_RESOURCE", None).entries if self.directory("RESOURCE") else []:
            if entry.id == pefile.RESOURCE_TYPE[kind]:
                for name in entry.directory.entries:
                    found += [self.pe.get_data(language.data.struct.OffsetToData, language.data.struct.Size)
                              for language in name.directory.entries]
        return found


def header(exe: Exe) -> Complaints:
    file, optional = exe.pe.FILE_HEADER, exe.pe.OPTIONAL_HEADER
    if file.Machine != pefile.MACHINE_TYPE["IMAGE_FILE_MACHINE_AMD64"]:
        yield f"the machine is {file.Machine:#x}, not x86-64"
    if optional.Subsystem != pefile.SUBSYSTEM_TYPE[exe.product.subsystem]:
        yield f"the subsystem is {optional.Subsystem}, {exe.product.other_subsystem}"
    if (optional.MajorSubsystemVersion, optional.MinorSubsystemVersion) != (10, 0):
        yield f"it wants Windows {optional.MajorSubsystemVersion}.{optional.MinorSubsystemVersion}, but 10.0 is the oldest that is supported"
    for flag, reason in FLAGS.items():
        if not optional.DllCharacteristics & pefile.DLL_CHARACTERISTICS[flag]:
            yield f"{flag.removeprefix('IMAGE_DLLCHARACTERISTICS_')} is not set: {reason}"
    if optional.CheckSum != checksum(exe.data):
        yield "the checksum is wrong: the file was changed after it was linked"


def relocations(exe: Exe) -> Complaints:
    if exe.pe.FILE_HEADER.Characteristics & pefile.IMAGE_CHARACTERISTICS["IMAGE_FILE_RELOCS_STRIPPED"]:
        yield "the header says that relocations were stripped"
    count = sum(len(block.entries) for block in getattr(exe.pe, "DIRECTORY_ENTRY_BASERELOC", []))
    if count < 100:
        yield f"there are {count} relocations: the exe cannot be moved"
    base = exe.pe.OPTIONAL_HEADER.ImageBase
    if base % 0x10000 or base < 1 << 32:
        yield f"the image base {base:#x} is not a multiple of 64 KB above 4 GB"


def sections(exe: Exe) -> Complaints:
    flags = pefile.SECTION_CHARACTERISTICS
    entry = exe.pe.OPTIONAL_HEADER.AddressOfEntryPoint
    for section in exe.pe.sections:
        name = section.Name.rstrip(b"\0").decode("ascii", "replace")
        executable = section.Characteristics & flags["IMAGE_SCN_MEM_EXECUTE"]
        if executable and section.Characteristics & flags["IMAGE_SCN_MEM_WRITE"]:
            yield f"section {name} is writable and executable"
        if section.Characteristics & flags["IMAGE_SCN_MEM_SHARED"]:
            yield f"section {name} is shared between processes"
        if section.contains_rva(entry) and not executable:
            yield f"the program starts in section {name}, which is not executable"


def imports(exe: Exe) -> Complaints:
    static, delayed = exe.static_imports(), exe.delayed_imports()
    for name in sorted(static):
        if name.removesuffix(".dll") not in KNOWN_DLLS:
            yield f"{name} is imported statically, but Windows does not protect that name against a copy beside the exe"
        elif name not in exe.product.static:
            yield f"{name} is imported statically and is not on the list in this script"
    for name in sorted(delayed - set(exe.product.delayed)):
        yield f"{name} is imported at its first call and is not on the list in this script"
    # A name that is no longer imported must leave its list; otherwise the import could come back unnoticed.
    for name in sorted((set(exe.product.static) - static) | (set(exe.product.delayed) - delayed)):
        yield f"{name} is on a list in this script but not imported as it says"


def looked_up(exe: Exe) -> Complaints:
    """Every text that names a library, in whatever way it is loaded."""
    known = set(exe.product.static) | set(exe.product.delayed) | set(exe.product.looked_up)
    name = rb"[A-Za-z0-9_.-]+\.(?:dll|drv|ocx|cpl)"
    narrow = {found.decode("ascii").lower() for found in re.findall(name, exe.data, re.I)}
    # A wide text must follow a zero byte: the last letter of a narrow text and its end look like a wide letter.
    name = rb"(?<=\0)(?:[A-Za-z0-9_.-]\0)+\.\0(?:d\0l\0l\0|d\0r\0v\0|o\0c\0x\0|c\0p\0l\0)"
    wide = {found.replace(b"\0", b"").decode("ascii").lower() for found in re.findall(name, exe.data, re.I)}
    for text in sorted((narrow | wide) - known):
        yield f"the library {text} is named in it and is not on a list in this script"
    for text in sorted(set(exe.product.looked_up) - wide):
        yield f"{text} is on the list of what is looked up in this script but not in the exe"


def unwinding(exe: Exe) -> Complaints:
    """An exception that reaches a function without an entry in the table ends the process. The build removes unused functions from code
    and table (cmake/link_tight.py), so this checks that both still agree."""
    functions, code, descriptions = exe.functions(), exe.section(".text"), exe.section(".xdata")
    if any(begin >= end for begin, end, _ in functions) or any(
            one[1] > other[0] for one, other in itertools.pairwise(functions)):
        yield "the table of functions is not sorted, or two overlap: Windows would not find them"
    if any(begin not in code or end - 1 not in code or about not in descriptions for begin, end, about in functions):
        yield "the table of functions names something outside of the code, or of the descriptions"
    ends = [code.start, *(end for _, end, _ in functions)]
    for begin, end in zip(ends, [*(begin for begin, _, _ in functions), code.stop], strict=True):
        known = NOT_UNWOUND.match(exe.image, begin, max(begin, end)).end()
        if known < end:
            yield f"the code at {known:#x} is not in the table of functions and not of a known kind that needs no entry"


def stack_protector(exe: Exe) -> Complaints:
    """Counts the functions in the linked code that call the one that ends the process after a guard was overwritten."""
    functions = exe.functions()
    ends = [begin for begin, end, _ in functions if FAST_FAIL in exe.image[begin:end]]
    if len(ends) != 1:
        yield f"{len(ends)} functions end the process for a damaged stack, expected one (src/base/stack_guard.cpp)"
    else:
        protected = sum(ends[0] in exe.calls(begin, end) for begin, end, _ in functions)
        if protected < exe.product.protected:
            yield f"{protected} functions have a stack guard, at least {exe.product.protected} should"
    listing = exe.build / "compile_commands.json"
    if not listing.is_file():
        yield f"{listing.name} is missing in {exe.build.name}: the compiler calls cannot be checked"
        return
    calls = {Path(call["file"]): call["command"] for call in json.loads(listing.read_text("utf-8"))}
    for file in [one for one in calls if one.parent.name == "Unity"]:  # sources that are compiled as one
        calls |= {Path(source): calls[file] for source in re.findall(r'#include "(.*)"', file.read_text("utf-8"))}
    for file in sorted([*(TOP / "src").rglob("*.cpp"), *(TOP / "companion").glob("*.cpp")]):
        if file.name != "stack_guard.cpp" and "-fstack-protector-strong" not in calls.get(file, "").split():
            yield f"{file.relative_to(TOP)} is compiled without the stack protector"


def manifest(exe: Exe) -> Complaints:
    found = exe.resources("RT_MANIFEST")
    if len(found) != 1:
        yield f"there are {len(found)} manifests, expected one"
        return
    if found[0] != (TOP / exe.product.manifest).read_bytes():
        yield f"the manifest is not {exe.product.manifest} byte for byte"
    if f'"{exe.product.level}"'.encode() not in found[0]:
        yield exe.product.no_level
    if b"dependen" in found[0].lower():  # dependency, dependentAssembly
        yield "the manifest names another assembly, which is searched beside the exe first"


def version(exe: Exe) -> Complaints:
    defines = dict(re.findall(r"^#define (TAVIK_VERSION_\w+) (.+)$", (RESOURCES / "version.h").read_text("utf-8"), re.M))
    numbers = [int(number) for number in defines["TAVIK_VERSION_NUMBERS"].split(",")]
    text = defines["TAVIK_VERSION_TEXT"].strip('"')
    if text != ".".join(map(str, numbers)):
        yield f"src/resources/version.h contradicts itself: {numbers} and {text}"
    fixed = getattr(exe.pe, "VS_FIXEDFILEINFO", [])
    if len(fixed) != 1:
        yield f"there are {len(fixed)} version blocks, expected one"
        return
    for field in ("FileVersion", "ProductVersion"):
        high, low = getattr(fixed[0], f"{field}MS"), getattr(fixed[0], f"{field}LS")
        found = [high >> 16, high & 0xFFFF, low >> 16, low & 0xFFFF]
        if found != numbers:
            yield f"the number {field} is {found}, src/resources/version.h says {numbers}"
    tables = [table for part in exe.pe.FileInfo[0] if part.Key == b"StringFileInfo" for table in part.StringTable]
    entries = {key.decode(): value.decode("utf-8", "replace") for table in tables for key, value in table.entries.items()}
    wanted = exe.product.texts | {"FileVersion": text, "ProductVersion": text}
    for key in sorted(set(entries) | set(wanted)):
        if entries.get(key) != wanted.get(key):
            yield f"the text {key} is {entries.get(key)!r}, not {wanted.get(key)!r}"


def user_name() -> str:
    """The user who builds. Without an account entry there is no name that could get into the exe."""
    with contextlib.suppress(KeyError, OSError):
        return getpass.getuser()
    return "no-user"


def traces(exe: Exe) -> Complaints:
    """Place and time of the build must not be in the file: they are private, and differ from build to build."""
    user = user_name()
    lower = exe.data.lower()
    for text in [*FOREIGN, str(TOP), str(exe.build), f"/{user}/", f"\\{user}\\"]:
        if any(text.lower().encode(encoding) in lower for encoding in ("utf-8", "utf-16-le")):
            yield f"there is a trace of the build in it: {text}"
    stamps = [("link", exe.pe.FILE_HEADER), *(("imports", entry.struct) for entry in getattr(exe.pe, "DIRECTORY_ENTRY_IMPORT", [])),
              *([("resources", exe.pe.DIRECTORY_ENTRY_RESOURCE.struct)] if exe.directory("RESOURCE") else [])]
    yield from (f"the time stamp of the {name} is {part.TimeDateStamp:#x}, not 0" for name, part in stamps if part.TimeDateStamp)
    if exe.pe.FILE_HEADER.PointerToSymbolTable or exe.pe.FILE_HEADER.NumberOfSymbols:
        yield "the symbols were not stripped"


def rest(exe: Exe) -> Complaints:
    yield from (complaint for name, complaint in NOT_IN_IT.items() if exe.directory(name))
    over = exe.pe.get_overlay_data_start_offset()
    if over is not None:
        yield f"{len(exe.data) - over} bytes follow the last section"


def load_configuration(exe: Exe) -> Complaints:
    found = getattr(exe.pe, "DIRECTORY_ENTRY_LOAD_CONFIG", None)
    if found is None:
        yield "there is no load configuration (tools/load_configuration.py)"
        return
    flags = getattr(found.struct, "DependentLoadFlags" if hasattr(found.struct, "DependentLoadFlags") else "Reserved1")  # its older name
    if flags != SEARCH_SYSTEM32:
        yield f"the load configuration has the flags {flags:#x}: DLLs of the import table are not limited to system32"


RULES = (header, load_configuration, relocations, sections, imports, looked_up, unwinding, stack_protector, manifest, version, traces, rest)


def complaints(path: Path, build: Path, product: Product = TOOL) -> list[str]:
    exe = Exe(path, build, product)
    return [complaint for rule in RULES for complaint in rule(exe)]


def main(arguments: list[str]) -> int:
    if any(argument.startswith("-") for argument in arguments):
        print(__doc__)
        return 0 if arguments in (["-h"], ["--help"]) else 2
    total = 0
    for path in [Path(argument).resolve() for argument in arguments] or [BUILD / product.name for product in PRODUCTS]:
        if not path.is_file():
            print(f"{path} is missing. Run scripts/build.", file=sys.stderr)
            return 1
        product = next((one for one in PRODUCTS if one.name == path.name), TOOL)
        found = complaints(path, path.parent, product)
        total += len(found)
        for complaint in found:
            print(f"{path.name}: {complaint}")
        print(f"{path.name}: {path.stat().st_size} bytes, {len(RULES)} groups of rules, {len(found)} complaints.")
    return 1 if total else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
