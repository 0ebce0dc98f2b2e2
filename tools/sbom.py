"""Lists what is linked into the programs (SPDX 2.3, JSON), and checks such a list.

    tools.sbom --out FILE --version V --created TIME PROGRAM...    from PROGRAM and the linker's PROGRAM.map beside it
    tools.sbom --check FILE                                        each complaint is one line, exit code 1 if any

The linker's map names the libraries that it took parts from, dpkg their packages and versions. A library that is not in COMPONENTS
or HEADERS is an error: nothing gets into a release unlisted.
"""
from __future__ import annotations

import argparse
import hashlib
import json
import re
import subprocess
import sys
from collections import Counter
from pathlib import Path
from typing import Any
from urllib.parse import quote

from tools.forms import ANY, faults
from tools.project import TOP

# What may be linked in: name, files of the tool chain, licence as SPDX writes it, and what the licence field cannot say.
COMPONENTS = [
    ("libstdc++", r"libstdc\+\+\.a", "GPL-3.0-or-later WITH GCC-exception-3.1",
     "C++ library. The exception permits to link it into programs under any licence."),
    ("libgcc", r"libgcc(_eh)?\.a|crt(begin|end)\.o", "GPL-3.0-or-later WITH GCC-exception-3.1",
     "Compiler's support routines. The exception permits to link them into programs under any licence."),
    ("zlib", r"libz\.a", "Zlib", "Compression of the logs that the companion collects."),
    ("winpthreads", r"lib(win)?pthread\.a", "MIT AND BSD-3-Clause", "Threads for the C++ library."),
    ("mingw-w64 runtime", r"lib(mingwex|mingw32|moldname|msvcrt|uuid)\.a|crt2u?\.o", "ZPL-2.1",
     "Start-up code and C library routines. Single files are in the public domain or under other permissive licences: see "
     "the package's copyright file."),
    ("mingw-w64 import libraries", r"lib(advapi32|gdi32|kernel32|ole32|oleaut32|shell32|user32|wintrust|crypt32|setupapi)\.a", "ZPL-2.1",
     "Tables of names through which functions of Windows are found; no code of Windows."),
]

# Libraries of headers only, which the linker does not see: by the folder of their headers, found in the includes of the sources.
HEADERS = {
    "CLI": ("CLI11", Path("/usr/include/CLI/CLI.hpp"), "BSD-3-Clause", "Command line of the companion."),
    "nlohmann": ("nlohmann-json", Path("/usr/include/nlohmann/json.hpp"), "MIT", "JSON of the companion."),
    "utf8cpp": ("utfcpp", Path("/usr/include/utf8cpp/utf8.h"), "BSL-1.0", "UTF-8 and UTF-16 in the companion."),
}
SOURCES = {"TavikCompatibilityTool.exe": "src", "TavikToolCompanion.exe": "companion"}

MEMBER = re.compile(r"^(\S.*?\.a)\(([^)]+)\)$", re.MULTILINE)
LOADED = re.compile(r"^LOAD (\S.*)$", re.MULTILINE)


def linked_files(linker_map: Path) -> Counter[Path]:
    """Files of the tool chain that the linker took something from, with the number of parts."""
    text = linker_map.read_text("utf-8", errors="replace")
    taken = Counter(Path(archive).resolve() for archive, _ in MEMBER.findall(text.split("\nMemory Configuration")[0]))
    for name in LOADED.findall(text):
        if name.endswith(".o") and name.startswith("/"):
            taken[Path(name).resolve()] += 1
    return Counter({file: parts for file, parts in taken.items() if file.is_relative_to("/usr")})


def included_headers(sources: Path) -> list[str]:
    """Keys of HEADERS for the libraries whose headers the sources in a folder include."""
    files = [file for file in sorted(sources.rglob("*")) if file.suffix in (".h", ".cpp") and "tests" not in file.relative_to(sources).parts]
    found = sorted({folder for file in files for folder in re.findall(r"^#include <(\w+)/", file.read_text("utf-8"), re.MULTILINE)})
    if unknown := set(found) - set(HEADERS):
        raise SystemExit(f"sbom: {sources.name} includes headers of {', '.join(sorted(unknown))}. Add the library to HEADERS, with its licence.")
    return found


def debian_package(file: Path) -> tuple[str, str]:
    owner = subprocess.run(["dpkg-query", "--search", str(file)], stdout=subprocess.PIPE, text=True, check=True).stdout
    name = owner.split(":")[0].strip()
    version = subprocess.run(["dpkg-query", "--show", "--showformat=${Version}", name], stdout=subprocess.PIPE, text=True, check=True).stdout
    return name, version


def component(file: Path) -> tuple[str, str, str]:
    for name, files, licence, remark in COMPONENTS:
        if re.fullmatch(files, file.name):
            return name, licence, remark
    raise SystemExit(f"sbom: {file} is linked in, but belongs to no known component. Add it to COMPONENTS, with its licence.")


def identifier(*parts: str) -> str:
    return "SPDXRef-" + re.sub(r"[^A-Za-z0-9.]+", "-", "-".join(parts).replace("++", "pp")).strip("-")


def library(name: str, package: str, version: str, licence: str, remark: str) -> dict[str, Any]:
    return {"SPDXID": identifier(name, package), "name": name, "versionInfo": version, "supplier": "Organization: Debian",
            "downloadLocation": "NOASSERTION", "filesAnalyzed": False, "primaryPackagePurpose": "LIBRARY",
            "licenseConcluded": "NOASSERTION", "licenseDeclared": licence, "licenseComments": remark, "copyrightText": "NOASSERTION",
            "externalRefs": [{"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
                              "referenceLocator": f"pkg:deb/debian/{quote(package)}@{quote(version)}"}]}


def document(programs: list[Path], version: str, created: str) -> dict[str, Any]:
    packages: dict[str, dict[str, Any]] = {}
    relationships = []
    hashes = []
    for program in programs:
        digest = hashlib.sha256(program.read_bytes()).hexdigest()
        hashes.append(digest)
        own = identifier(program.name)
        packages[own] = {
            "SPDXID": own, "name": program.name, "versionInfo": version, "supplier": "Organization: Tavik",
            "downloadLocation": "NOASSERTION", "filesAnalyzed": False, "primaryPackagePurpose": "APPLICATION",
            "licenseConcluded": "NOASSERTION", "licenseDeclared": "NOASSERTION", "copyrightText": "NOASSERTION",
            "checksums": [{"algorithm": "SHA256", "checksumValue": digest}], "comment": "The checksum is that of the file before it was signed."}
        relationships.append({"spdxElementId": "SPDXRef-DOCUMENT", "relationshipType": "DESCRIBES", "relatedSpdxElement": own})
        parts: dict[str, list[str]] = {}
        for file, number in sorted(linked_files(program.with_name(program.name + ".map")).items()):
            name, licence, remark = component(file)
            package, package_version = debian_package(file)
            entry = library(name, package, package_version, licence, remark)
            parts.setdefault(entry["SPDXID"], []).append(f"{number} of {file.name}")
            packages.setdefault(entry["SPDXID"], entry)
        for folder in included_headers(TOP / SOURCES[program.name]) if program.name in SOURCES else ():
            name, file, licence, remark = HEADERS[folder]
            entry = library(name, *debian_package(file), licence, remark)
            parts[entry["SPDXID"]] = ["headers"]
            packages.setdefault(entry["SPDXID"], entry)
        for key, names in parts.items():
            relationships.append({"spdxElementId": own, "relationshipType": "STATIC_LINK", "relatedSpdxElement": key,
                                  "comment": "Parts taken: " + ", ".join(names)})
    name = f"TavikCompatibilityTool-{version}"
    return {"spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT", "name": name,
            "documentNamespace": f"https://www.tavik.example/spdx/{name}-{hashlib.sha256(''.join(hashes).encode()).hexdigest()[:32]}",
            "creationInfo": {"created": created, "creators": ["Organization: Tavik", "Tool: tools/sbom.py"]},
            "packages": list(packages.values()), "relationships": relationships}


# What SPDX 2.3 demands of a document of this kind, and what a release demands of its list.
DOCUMENT = {"spdxVersion": r"SPDX-2\.3", "dataLicense": r"CC0-1\.0", "SPDXID": "SPDXRef-DOCUMENT", "name": r"\S.*", "documentNamespace": r"https://[^#\s]+",
            "creationInfo": {"created": r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", "creators+": r"(Tool|Organization|Person): \S.*"},
            "packages+": None, "relationships+": None}
PACKAGE = {"SPDXID": r"SPDXRef-[A-Za-z0-9.-]+", "name": ANY, "versionInfo": ANY, "supplier?": ANY, "downloadLocation": ANY, "filesAnalyzed": bool,
           "primaryPackagePurpose": ANY, "licenseConcluded": ANY, "licenseDeclared": ANY, "copyrightText": ANY}
PROGRAM = {**PACKAGE, "comment?": ANY, "checksums+": {"algorithm": "SHA256", "checksumValue": "[0-9a-f]{64}"}}
LIBRARY = {**PACKAGE, "licenseDeclared": "(?!NOASSERTION).+", "licenseComments?": ANY,
           "externalRefs+": {"referenceCategory?": ANY, "referenceType?": ANY, "referenceLocator": r"pkg:deb/debian/[a-z0-9%A-F.-]+@\S+"}}


def complaints(sbom: dict[str, Any]) -> list[str]:
    found = list(faults(DOCUMENT, sbom, "sbom"))
    listed = sbom.get("packages", [])
    packages = {package.get("SPDXID", "?"): package for package in listed}
    programs = [key for key, package in packages.items() if package.get("primaryPackagePurpose") == "APPLICATION"]
    arrows = [(one.get("spdxElementId"), one.get("relationshipType"), one.get("relatedSpdxElement")) for one in sbom.get("relationships", [])]
    linked = {end for _, kind, end in arrows if kind == "STATIC_LINK"}
    if len(packages) != len(listed):
        found.append("two packages have the same SPDXID")
    if not programs:
        found.append("no program is listed")
    for key, package in packages.items():
        found += faults(PROGRAM if key in programs else LIBRARY, package, key)
        if package.get("filesAnalyzed"):
            found.append(f"{key}: filesAnalyzed must be false, as no files are listed")
        if key in programs and ("SPDXRef-DOCUMENT", "DESCRIBES", key) not in arrows:
            found.append(f"{key} is not described")
        if key in programs and not any(start == key and kind == "STATIC_LINK" for start, kind, _ in arrows):
            found.append(f"{key} has nothing linked in, which is impossible with this tool chain")
        if key not in programs and key not in linked:
            found.append(f"{key} is linked into nothing")
    known = {"SPDXRef-DOCUMENT", *packages}
    return found + [f"relationship {start} {kind} {end}" for start, kind, end in arrows
                    if kind not in ("DESCRIBES", "STATIC_LINK") or start not in known or end not in known]


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--check", type=Path)
    parser.add_argument("--out", type=Path)
    parser.add_argument("--version")
    parser.add_argument("--created")
    parser.add_argument("programs", type=Path, nargs="*")
    given = parser.parse_args()
    if given.check:
        sbom = json.loads(given.check.read_text("utf-8"))
    elif given.out and given.version and given.created and given.programs:
        sbom = document(given.programs, given.version, given.created)
        given.out.write_text(json.dumps(sbom, indent=1, ensure_ascii=False) + "\n", "utf-8")
    else:
        parser.error("either --check, or --out, --version, --created and programs")
    found = complaints(sbom)
    for one in found:
        print(f"sbom: {one}", file=sys.stderr)
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
