"""Lists what is linked into the programs (SPDX 2.3, JSON), for scripts/release.

The linker's map names the libraries that it took parts from, dpkg their packages and versions. A library that is not in COMPONENTS
or HEADERS is an error: nothing gets into a release unlisted.
"""
from __future__ import annotations

import hashlib
import re
import subprocess
from collections import Counter
from pathlib import Path
from typing import Any
from urllib.parse import quote

from tools.project import TOP, fail

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
    "nlohmann": ("nlohmann-json", Path("/usr/include/nlohmann/json.hpp"), "MIT", "JSON of the companion and of the Windows check."),
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
        fail(f"sbom: {sources.name} includes headers of {', '.join(sorted(unknown))}. Add the library to HEADERS, with its licence.")
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
    fail(f"sbom: {file} is linked in, but belongs to no known component. Add it to COMPONENTS, with its licence.")


def identifier(*parts: str) -> str:
    return "SPDXRef-" + re.sub(r"[^A-Za-z0-9.]+", "-", "-".join(parts).replace("++", "pp")).strip("-")


def library(name: str, package: str, version: str, licence: str, remark: str) -> dict[str, Any]:
    return {"SPDXID": identifier(name, package), "name": name, "versionInfo": version, "supplier": "Organization: Debian",
            "downloadLocation": "NOASSERTION", "filesAnalyzed": False, "primaryPackagePurpose": "LIBRARY",
            "licenseConcluded": "NOASSERTION", "licenseDeclared": licence, "licenseComments": remark, "copyrightText": "NOASSERTION",
            "externalRefs": [{"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
                              "referenceLocator": f"pkg:deb/debian/{quote(package)}@{quote(version)}"}]}


def document(programs: list[Path], version: str, created: str, commit: str) -> dict[str, Any]:
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
            "checksums": [{"algorithm": "SHA256", "checksumValue": digest}], "comment": "The checksum is that of the file before it was signed.",
            "sourceInfo": f"commit {commit}"}
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
        if not parts:
            fail(f"sbom: nothing is linked into {program.name}, which is impossible with this tool chain. Look into its linker map.")
        for key, names in parts.items():
            relationships.append({"spdxElementId": own, "relationshipType": "STATIC_LINK", "relatedSpdxElement": key,
                                  "comment": "Parts taken: " + ", ".join(names)})
    name = f"TavikCompatibilityTool-{version}"
    return {"spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT", "name": name,
            "documentNamespace": f"https://www.tavik.example/spdx/{name}-{hashlib.sha256(''.join(hashes).encode()).hexdigest()[:32]}",
            "creationInfo": {"created": created, "creators": ["Organization: Tavik", "Tool: tools/sbom.py"]},
            "packages": list(packages.values()), "relationships": relationships}
