"""Writes the export list of a stand-in DLL.

A stand-in must offer everything that Wine's DLL of that name offers: what it does not define itself goes on to the
real DLL, which waits beside it as <name>_lab.dll. The list is read from Wine's own DLL at build time, so it always
fits the Wine that the lab runs on.

usage: forwarders.py WINE_DLL NAME SOURCE OUT_DEF OUT_CPP
SOURCE is the C++ file of the stand-in; each function Lab_<Name> defined there takes the place of <Name>. OUT_CPP gets
the list of these names, which tells a mistyped fault rule from a good one.
"""
import re
import sys
from pathlib import Path

import pefile


def own_functions(source: str) -> list[str]:
    """Names of the functions that the stand-in defines itself: lines that begin a definition Lab_<Name>(..."""
    return sorted(set(re.findall(r"^[A-Za-z].*\bLab_(\w+)\(", source, re.MULTILINE)))


def main() -> None:
    wine_dll, name, source, out_def, out_cpp = sys.argv[1:]
    table = pefile.PE(wine_dll, fast_load=True)
    table.parse_data_directories([pefile.DIRECTORY_ENTRY["IMAGE_DIRECTORY_ENTRY_EXPORT"]])
    exports = sorted((symbol.ordinal, symbol.name and symbol.name.decode("ascii")) for symbol in table.DIRECTORY_ENTRY_EXPORT.symbols)
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
