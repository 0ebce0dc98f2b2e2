"""The parts of scripts/release that need no build. The whole is made and compared by scripts/release --check."""
from __future__ import annotations

import copy
import os
import re
import zipfile

import pytest

from lab import paths
from tools import release, sbom



def good() -> dict:
    program = {"SPDXID": "SPDXRef-tool.exe", "name": "tool.exe", "versionInfo": "1.0.0.1", "downloadLocation": "NOASSERTION",
               "filesAnalyzed": False, "primaryPackagePurpose": "APPLICATION", "licenseConcluded": "NOASSERTION",
               "licenseDeclared": "NOASSERTION", "copyrightText": "NOASSERTION",
               "checksums": [{"algorithm": "SHA256", "checksumValue": "0" * 64}]}
    library = {"SPDXID": "SPDXRef-lib", "name": "lib", "versionInfo": "12.2.0-14+b1", "downloadLocation": "NOASSERTION",
               "filesAnalyzed": False, "primaryPackagePurpose": "LIBRARY", "licenseConcluded": "NOASSERTION", "licenseDeclared": "MIT",
               "copyrightText": "NOASSERTION", "externalRefs": [{"referenceLocator": "pkg:deb/debian/g%2B%2B-lib@12.2.0-14%2Bb1"}]}
    return {"spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT", "name": "tool-1.0.0.1",
            "documentNamespace": "https://www.tavik.example/spdx/tool-1.0.0.1-0",
            "creationInfo": {"created": "2026-11-21T00:00:00Z", "creators": ["Tool: tools/sbom.py"]},
            "packages": [program, library],
            "relationships": [
                {"spdxElementId": "SPDXRef-DOCUMENT", "relationshipType": "DESCRIBES", "relatedSpdxElement": "SPDXRef-tool.exe"},
                {"spdxElementId": "SPDXRef-tool.exe", "relationshipType": "STATIC_LINK", "relatedSpdxElement": "SPDXRef-lib"}]}


def test_good_list_of_components_has_no_complaint():
    assert sbom.complaints(good()) == []


@pytest.mark.parametrize("where, value, complaint", [
    (("spdxVersion",), "SPDX-2.2", "spdxVersion is 'SPDX-2.2'"),
    (("documentNamespace",), "tool#1", "documentNamespace is 'tool#1'"),
    (("creationInfo", "created"), "2026-11-21", "created is '2026-11-21'"),
    (("creationInfo", "creators"), [], "creators is empty"),
    (("packages", 0, "checksums"), [], "SPDXRef-tool.exe: checksums is empty"),
    (("packages", 0, "filesAnalyzed"), True, "SPDXRef-tool.exe: filesAnalyzed must be false"),
    (("packages", 0, "versionInfo"), "", "SPDXRef-tool.exe/versionInfo is ''"),
    (("packages", 1, "licenseDeclared"), "NOASSERTION", "SPDXRef-lib/licenseDeclared is 'NOASSERTION'"),
    (("packages", 1, "externalRefs"), [], "SPDXRef-lib: externalRefs is empty"),
    (("packages", 1, "SPDXID"), "SPDXRef-tool.exe", "two packages have the same SPDXID"),
    (("packages", 1, "SPDXID"), "lib_1", "lib_1/SPDXID is 'lib_1'"),
    (("relationships", 0, "relatedSpdxElement"), "SPDXRef-lib", "SPDXRef-tool.exe is not described"),
    (("relationships", 1, "relatedSpdxElement"), "SPDXRef-other", "relationship SPDXRef-tool.exe STATIC_LINK SPDXRef-other"),
    (("relationships", 1, "spdxElementId"), "SPDXRef-lib", "SPDXRef-tool.exe has nothing linked in"),
])
def test_bad_list_of_components_is_complained_about(where, value, complaint):
    document = copy.deepcopy(good())
    *way, last = where
    part = document
    for step in way:
        part = part[step]
    part[last] = value
    assert any(complaint in one for one in sbom.complaints(document)), sbom.complaints(document)


def test_a_library_without_a_licence_gets_into_no_release(tmp_path):
    program = tmp_path / "tool.exe"
    program.write_bytes(b"MZ")
    (tmp_path / "tool.exe.map").write_text("Archive member included to satisfy reference by file (symbol)\n\n"
                                           "/usr/lib/libsurprise.a(surprise.o)\n                              main.o (surprise)\n"
                                           "\nMemory Configuration\n", "utf-8")
    with pytest.raises(SystemExit, match="libsurprise.a is linked in, but belongs to no known component"):
        sbom.document([program], "1.0.0.1", "2026-11-21T00:00:00Z")


def test_libraries_of_headers_are_listed(tmp_path):
    assert sbom.included_headers(paths.ROOT / "companion") == ["CLI", "nlohmann", "utf8cpp"]
    assert sbom.included_headers(paths.ROOT / "src") == []
    (tmp_path / "main.cpp").write_text("#include <surprise/all.h>\n")
    with pytest.raises(SystemExit, match="headers of surprise. Add the library"):
        sbom.included_headers(tmp_path)


# Proves: A release is made => version and change log agree; what is linked in is listed, or there is no release; the same files give the same archive
def test_version_of_the_program_has_its_heading_in_the_change_log():
    version, date = release.version_and_date()
    assert re.fullmatch(r"\d+\.\d+\.\d+\.\d+", version) and re.fullmatch(r"\d{4}-\d\d-\d\d", date)
    assert f'"{version}"' in (paths.ROOT / "src/resources/version.h").read_text("utf-8")


def test_archives_of_the_same_files_are_the_same(tmp_path):
    archives = []
    for name, time in (("first", 1_000_000_000), ("second", 1_700_000_000)):
        folder = tmp_path / name
        folder.mkdir()
        files = {}
        for number, file in enumerate(("b.exe", "a.txt") if name == "first" else ("a.txt", "b.exe")):
            (folder / file).write_bytes(file.encode() * 1000)
            os.utime(folder / file, (time + number, time + number))
            files[file] = folder / file
        archives.append(tmp_path / f"{name}.zip")
        release.zip_files(archives[-1], files, "2026-11-21")
    assert archives[0].read_bytes() == archives[1].read_bytes()
    with zipfile.ZipFile(archives[0]) as archive:
        assert {entry.filename: entry.date_time for entry in archive.infolist()} == dict.fromkeys(("a.txt", "b.exe"), (2026, 11, 21, 0, 0, 0))
