"""Enters the load configuration into the header of a program: GNU ld links src/base/load_configuration.cpp, but has no switch that
tells Windows where it is. And makes the section of imports writable, as the first call of a delay-loaded function writes into it;
GNU ld 2.44 marks it read-only. The build calls it after each link:

    tools.load_configuration EXE              a program that ships
    tools.load_configuration --imports EXE    another program with delay-loaded functions
"""
from __future__ import annotations

import array
import struct
import sys
from pathlib import Path

import pefile

SEARCH_SYSTEM32 = 0x800  # LOAD_LIBRARY_SEARCH_SYSTEM32
SIZE = 112  # of IMAGE_LOAD_CONFIG_DIRECTORY64 as the toolchain declares it; the flags are 0x4E bytes behind its start
STRUCTURE = struct.pack("<I", SIZE).ljust(0x4E, b"\0") + struct.pack("<H", SEARCH_SYSTEM32).ljust(SIZE - 0x4E, b"\0")


def checksum(data: bytes) -> int:
    """The header's field: the 16-bit words added up with their carries, without the field, plus the size. pefile takes 50 times longer."""
    at = pefile.PE(data=data, fast_load=True).OPTIONAL_HEADER.get_field_absolute_offset("CheckSum")
    total = sum(array.array("H", data[:at] + bytes(4) + data[at + 4:] + bytes(len(data) % 2)))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return total + len(data)


def with_writable_imports(data: bytes) -> bytes:
    pe = pefile.PE(data=data, fast_load=True)
    for section in pe.sections:
        if section.Name.rstrip(b"\0") == b".idata":
            section.Characteristics |= pefile.SECTION_CHARACTERISTICS["IMAGE_SCN_MEM_WRITE"]
    return bytes(pe.write())


def entered(data: bytes) -> bytes:
    """The program with the entry."""
    if data.count(STRUCTURE) != 1:
        sys.exit(f"The load configuration is in the program {data.count(STRUCTURE)} times, expected once. Compare "
                 "src/base/load_configuration.cpp with STRUCTURE in tools/load_configuration.py.")
    pe = pefile.PE(data=data, fast_load=True)
    entry = pe.OPTIONAL_HEADER.DATA_DIRECTORY[pefile.DIRECTORY_ENTRY["IMAGE_DIRECTORY_ENTRY_LOAD_CONFIG"]]
    entry.VirtualAddress, entry.Size = pe.get_rva_from_offset(data.index(STRUCTURE)), SIZE
    return bytes(pe.write())


def main(arguments: list[str]) -> int:
    imports = arguments[:1] == ["--imports"]
    if len(arguments) != 1 + imports or arguments[-1].startswith("-"):
        print(__doc__)
        return 2
    program = Path(arguments[-1])
    data = with_writable_imports(program.read_bytes())
    pe = pefile.PE(data=data if imports else entered(data), fast_load=True)
    pe.OPTIONAL_HEADER.CheckSum = checksum(bytes(pe.write()))
    program.write_bytes(bytes(pe.write()))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
