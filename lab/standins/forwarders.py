"""Writes the export list of a stand-in DLL.

A stand-in must offer everything that Wine's DLL of that name offers: what it does not define itself goes on to the
real DLL, which waits beside it as <name>_lab.dll. The list is read from Wine's own DLL at build time, so it always
fits the Wine that the lab runs on.

usage: forwarders.py WINE_DLL NAME SOURCE OUT_DEF OUT_CPP
SOURCE is the C++ file of the stand-in; each function Lab_<Name> defined there takes the place of <Name>. OUT_CPP gets
the list of these names, which tells a mistyped fault rule from a good one.
"""
import re
import struct
import sys
from pathlib import Path


def read_exports(image: bytes) -> list[tuple[int, str | None]]:
    """Ordinal and name (None when there is none) of every export of a 64-bit DLL, in order of the ordinals."""
    pe = struct.unpack_from("<I", image, 0x3C)[0]
    section_count, optional_size = struct.unpack_from("<H12xH", image, pe + 6)
    optional = pe + 24
    if image[pe:pe + 4] != b"PE\0\0" or struct.unpack_from("<H", image, optional)[0] != 0x20B:
        raise ValueError("not a 64-bit PE file")
    export_rva = struct.unpack_from("<I", image, optional + 112)[0]
    sections = [struct.unpack_from("<IIII", image, optional + optional_size + 40 * i + 8) for i in range(section_count)]

    def offset(rva: int) -> int:
        for size, start, raw_size, raw in sections:
            if start <= rva < start + max(size, raw_size):
                return raw + rva - start
        raise ValueError(f"address {rva:#x} is in no section")

    def text(rva: int) -> str:
        start = offset(rva)
        return image[start:image.index(b"\0", start)].decode("ascii")

    base, function_count, name_count, functions, names, ordinals = struct.unpack_from(
        "<IIIIII", image, offset(export_rva) + 16)
    name_of = {}
    for i in range(name_count):
        index = struct.unpack_from("<H", image, offset(ordinals) + 2 * i)[0]
        name_of.setdefault(index, text(struct.unpack_from("<I", image, offset(names) + 4 * i)[0]))
    addresses = struct.unpack_from(f"<{function_count}I", image, offset(functions))
    return [(base + i, name_of.get(i)) for i, address in enumerate(addresses) if address]


def own_functions(source: str) -> list[str]:
    """Names of the functions that the stand-in defines itself: lines that begin a definition Lab_<Name>(..."""
    return sorted(set(re.findall(r"^[A-Za-z].*\bLab_(\w+)\(", source, re.MULTILINE)))


def main() -> None:
    wine_dll, name, source, out_def, out_cpp = sys.argv[1:]
    exports = read_exports(Path(wine_dll).read_bytes())
    own = own_functions(Path(source).read_text(encoding="utf-8"))
    if not own:
        sys.exit(f"{source} defines no Lab_ function")

    lines = [f"LIBRARY {name}", "EXPORTS"]
    for ordinal, function in exports:
        if function is None:
            lines.append(f'  {name}_{ordinal} = "{name}_lab.#{ordinal}" @{ordinal} NONAME')
        elif function in own:
            lines.append(f"  {function} = Lab_{function} @{ordinal}")
        else:
            lines.append(f"  {function} = {name}_lab.{function} @{ordinal}")
    known = {function for _, function in exports}
    lines += [f"  {function} = Lab_{function}" for function in own if function not in known]  # Wine lacks it
    Path(out_def).write_text("\n".join(lines) + "\n", encoding="ascii")

    quoted = ", ".join(f'L"{function}"' for function in own)
    Path(out_cpp).write_text(
        '#include "fault.h"\n\nnamespace standin\n{\n'
        f'const std::wstring kLibrary = L"{name}";\n'
        f"const std::vector<std::wstring> kIntercepted = {{{quoted}}};\n}} // namespace standin\n",
        encoding="ascii")


if __name__ == "__main__":
    main()
