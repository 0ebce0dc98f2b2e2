"""The parts of scripts/release that need no build. The whole is made and compared by scripts/release --check."""
from __future__ import annotations

import base64
import hashlib
import html
import os
import pathlib
import re
import subprocess
import sys
import zipfile

import pytest

from companion import outcomes
from lab import paths
from tools import outcome_pages, release, sbom


MAP = """Archive member included to satisfy reference by file (symbol)

{}({})
                              main.o (symbol)

Memory Configuration
"""


def program(folder: pathlib.Path, archive: str, member: str) -> pathlib.Path:
    """A program with the linker's map beside it."""
    (folder / "tool.exe").write_bytes(b"MZ")
    (folder / "tool.exe.map").write_text(MAP.format(archive, member), "utf-8")
    return folder / "tool.exe"


def test_program_library_and_licence_are_listed(tmp_path):
    archive = subprocess.run(["x86_64-w64-mingw32-g++-posix", "-print-file-name=libstdc++.a"], capture_output=True, text=True, check=True).stdout.strip()
    listed = sbom.document([program(tmp_path, archive, "string.o")], "1.0.0.1", "2026-11-21T00:00:00Z", "abc123")
    assert (listed["spdxVersion"], listed["creationInfo"]["created"]) == ("SPDX-2.3", "2026-11-21T00:00:00Z")
    own, library = listed["packages"]
    assert (own["SPDXID"], own["versionInfo"], own["checksums"]) == (
        "SPDXRef-tool.exe", "1.0.0.1", [{"algorithm": "SHA256", "checksumValue": hashlib.sha256(b"MZ").hexdigest()}])
    assert own["sourceInfo"] == "commit abc123"
    assert (library["name"], library["licenseDeclared"]) == ("libstdc++", "GPL-3.0-or-later WITH GCC-exception-3.1")
    locator = library["externalRefs"][0]["referenceLocator"]
    assert re.fullmatch(r"pkg:deb/debian/g%2B%2B-mingw-w64-x86-64-posix@\S+", locator) and re.fullmatch(r"SPDXRef-[A-Za-z0-9.-]+", library["SPDXID"])
    arrows = [(one["spdxElementId"], one["relationshipType"], one["relatedSpdxElement"]) for one in listed["relationships"]]
    assert arrows == [("SPDXRef-DOCUMENT", "DESCRIBES", "SPDXRef-tool.exe"), ("SPDXRef-tool.exe", "STATIC_LINK", library["SPDXID"])]


@pytest.mark.parametrize("archive, complaint", [
    ("/usr/lib/libsurprise.a", "libsurprise.a is linked in, but belongs to no known component"), ("main.a", "nothing is linked into tool.exe")])
def test_what_is_not_known_gets_into_no_release(tmp_path, archive, complaint):
    with pytest.raises(SystemExit, match=complaint):
        sbom.document([program(tmp_path, archive, "surprise.o")], "1.0.0.1", "2026-11-21T00:00:00Z", "abc123")


def test_libraries_of_headers_are_listed(tmp_path):
    assert sbom.included_headers(paths.ROOT / "companion") == ["CLI", "nlohmann", "utf8cpp"]
    assert sbom.included_headers(paths.ROOT / "src") == []
    # The companion's list, so its licence too, goes into windows-check.zip.
    assert sbom.included_headers(paths.ROOT / "windows_check") == ["nlohmann"]
    (tmp_path / "main.cpp").write_text("#include <surprise/all.h>\n")
    with pytest.raises(SystemExit, match="headers of surprise. Add the library"):
        sbom.included_headers(tmp_path)


# Proves: A release is made => version and change log agree; what is linked in is listed, or there is no release; the same files give the same archive; each page in it can be followed without the sources
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


# Proves: A release is requested that must not be made => refused: changed sources, a reserved address, a server on a port of its own, no certificate
@pytest.mark.parametrize("address", ["download.tavik.example", "http://support.TAVIK.example/", "download.tavik.test:8080", "http://10.0.0.1:8080/"])
def test_addresses_for_trials_are_refused(address):
    with pytest.raises(SystemExit, match=f"The program would ask {re.escape(address)}, which is for trials only"):
        release.refuse_what_is_for_trials({"TAVIK_DOWNLOAD_HOST": address})


def test_other_addresses_are_not_refused():
    release.refuse_what_is_for_trials({"TAVIK_DOWNLOAD_HOST": "download.tavik.test", "TAVIK_SUPPORT_ADDRESS": "http://support.tavik.test/"})


@pytest.mark.parametrize("change, arguments, complaint", [
    ("a new file", ["--demo"], "The tree has changes or untracked files"),
    ("a change", ["--demo"], "The tree has changes or untracked files"),
    ("", [], "A release needs --certificate FILE"),
])
def test_release_is_refused_before_anything_is_built(tmp_path, monkeypatch, change, arguments, complaint):
    def git(*words: str) -> None:
        subprocess.run(["git", "-c", "user.name=n", "-c", "user.email=e", *words], cwd=tmp_path, check=True, capture_output=True)
    (tmp_path / "file").write_text("one")
    git("init")
    git("add", "file")
    git("commit", "-m", "one")
    if change:
        (tmp_path / ("file" if change == "a change" else "other")).write_text("two")
    real = release.run
    monkeypatch.setattr(release, "run", lambda *command, **more: real(*command, **{**more, "cwd": tmp_path}))
    monkeypatch.setattr("sys.argv", ["release", *arguments])
    with pytest.raises(SystemExit, match=complaint):
        release.main()


@pytest.fixture
def parts(tmp_path, monkeypatch):
    """A folder with what goes into the archives and is built: the page of outcomes as it is, all else only by name."""
    checks = [path.rsplit("/", 1)[-1] for path in release.WINDOWS_CHECK]
    for name in (*(f"{program}.exe" for program in release.PROGRAMS), *checks, "THIRD-PARTY.txt", "sbom.spdx.json"):
        (tmp_path / name).write_text(name)
    (tmp_path / "outcomes.md").write_text(outcome_pages.page(outcomes.catalogue()))
    monkeypatch.setattr(outcome_pages, "PAGE", tmp_path / "outcomes.md")
    return tmp_path


def packed(parts: pathlib.Path, signer: str = "") -> dict[str, str]:
    release.pack(parts, parts, "1.0.0.1", "2026-11-21", "-unsigned", signer)
    with zipfile.ZipFile(parts / "TavikCompatibilityTool-1.0.0.1-unsigned.zip") as archive:
        return {name.partition("/")[2]: archive.read(name).decode("utf-8", "replace") for name in archive.namelist()}


def test_licences_go_with_the_programs(parts):
    assert "THIRD-PARTY.txt" in packed(parts)
    with zipfile.ZipFile(parts / "windows-check-unsigned.zip") as archive:
        assert sorted(archive.namelist()) == sorted([*(path.rsplit("/", 1)[-1] for path in release.WINDOWS_CHECK), "THIRD-PARTY.txt"])


# Proves: A release is made
def test_pages_of_the_archive_are_for_readers_without_the_sources(parts):
    files = packed(parts)
    assert "docs/mirror.md" in files and "docs/testing.md" not in files and "](docs/outcomes.md)" in files["README.md"]
    assert "## Use it" in files["README.md"] and "## Try it" not in files["README.md"] and "repository only" not in "".join(files.values())
    sums = [line.split("  ") for line in files["SHA256SUMS"].splitlines()]
    assert hashlib.sha256(files["README.md"].encode()).hexdigest() == {name: digest for digest, name in sums}["README.md"]


@pytest.mark.parametrize("text, complaint", [
    ("See [this](missing.md).", "missing.md does not exist"), ("![box](images/none.png)", "images/none.png does not exist"),
    ("[a](../README.md#none)", "../README.md#none has no such heading"), ("[out](../../../etc)", "../../../etc does not exist"),
    ("In a clone of it,", '"clone" is for readers who have the sources'), ("Run `scripts/test`.", '"scripts/test" is for readers')])
def test_page_that_readers_of_the_archive_cannot_follow_is_refused(parts, text, complaint):
    with open(outcome_pages.PAGE, "a", encoding="utf-8") as page:
        page.write(text)
    with pytest.raises(SystemExit, match=f"outcomes.md: {re.escape(complaint)}"):
        packed(parts)


@pytest.mark.parametrize("text, complaint", [('<a href="#none">', "#none has no such heading"), ('<img src="docs/a.png">', "docs/a.png does not exist")])
def test_web_page_that_cannot_be_followed_is_refused(parts, monkeypatch, text, complaint):
    real = release.web_page
    monkeypatch.setattr(release, "web_page", lambda page, folder: real(page, folder) + text)
    with pytest.raises(SystemExit, match=f"START-HERE.html: {re.escape(complaint)}"):
        packed(parts)


# Proves: A release is made
def test_page_for_owners_opens_with_a_double_click(parts):
    files = packed(parts, "**Some Name** (signed)")
    assert "docs/owner.md" not in files and "](START-HERE.html)" in files["README.md"] and "](../START-HERE.html)" in files["docs/exit-codes.md"]
    source, page = (paths.ROOT / "docs/owner.md").read_text("utf-8"), files["START-HERE.html"]
    pictures = dict(re.findall(r'<img alt="([^"]+)" src="data:image/png;base64,([^"]+)"', page))
    assert {html.unescape(text): base64.b64decode(data) for text, data in pictures.items()} == {
        text: (paths.ROOT / "docs" / name).read_bytes() for text, name in re.findall(r"!\[(.+?)\]\((.+?)\)", source)}
    shown = html.unescape(re.sub(r"<[^>]+>", "", re.sub(r"<(style|code)>.*?</\1>", "", page)))
    assert page.count("<tr>") == source.count("\n|") - 1 and not re.search(r"^#|\*\*|\||`|\]\(|<!--", shown, re.MULTILINE)
    assert "must be Some Name (signed)." in shown


def test_missing_package_is_named(monkeypatch):
    monkeypatch.setitem(sys.modules, "markdown", None)
    with pytest.raises(SystemExit, match="python3-markdown"):
        release.web_page("", paths.ROOT)


def test_page_for_owners_shows_every_box():
    source = re.sub(r'"\s*L"', "", (paths.ROOT / "src/ui/result_message.cpp").read_text("utf-8")).replace('" TAVIK_WEB_SITE L"', "www.tavik.example")
    boxes = re.findall(r'^    \{L"(.+)",\s*k\w+\},$', source, re.MULTILINE)
    assert len(boxes) == 8 and sorted(boxes) == sorted(re.findall(r"^\| !\[(.+?)\]", (paths.ROOT / "docs/owner.md").read_text("utf-8"), re.MULTILINE))
