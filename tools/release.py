"""Makes dist/: the release, signed, with its list of components, its licences and its checksums.

    scripts/release --certificate FILE [OPTION...]    FILE: certificate, chain and key, as PEM or PKCS #12 (.p12, .pfx)
        --password-file FILE    password of the key, or PIN of the token
        --token URI             the key is in a token and has this name ("pkcs11:..."); --module FILE is the token's library
        --time-stamps ADDRESS   server that confirms the time of signing (RFC 3161)
        --ca FILE               authorities that the signatures are verified with; without it, the system's list
    scripts/release --demo      a trial: reserved addresses and ports are accepted; without a certificate one is made and thrown away
    scripts/release --check     builds again in another folder and compares the unsigned files

The version comes from src/resources/version.h, the date from CHANGELOG.md, the commit from git. docs/releasing.md describes the result.
"""
from __future__ import annotations

import argparse
import base64
import hashlib
import json
import os
import platform
import re
import shutil
import subprocess
import sys
import tempfile
import zipfile
from pathlib import Path
from typing import Any
from urllib.parse import unquote, urlsplit

import pefile

from tools import outcome_pages, sbom, texts
from tools.signing import Choice, Signer
from tools.project import ELSEWHERE, PYTHON, TOP, copy_sources, fail, files as project_files, say

BUILD = TOP / "build" / "release"
SYMBOLS = TOP / "build" / "symbols"
WORK = TOP / "build" / "release-files"
DIST = TOP / "dist"

# The files of a release. No release is made if one of them is missing.
PROGRAMS = ["TavikCompatibilityTool", "TavikToolCompanion"]
PAGES = ["README.md", "CHANGELOG.md", "companion/outcomes.toml"]
FOLDERS = ["deploy", "docs"]
# Except pages for those who have the sources, and such parts of the other pages.
NOT_PACKED = [f"docs/{name}.md" for name in ("architecture", "building", "performance", "releasing", "testing", "windows-facts")]
NOT_SHOWN = re.compile(r"<!-- in the repository only -->\n.*?<!-- end -->\n\n?", re.S)
SIGNER = re.compile(r"<!-- signer -->(.*?)<!-- end -->")
# The page for owners is packed as a web page: a double-click opens that.
OWNER_PAGE, START_PAGE = "docs/owner.md", "START-HERE.html"
STYLE = ("body { font: 16px/1.5 sans-serif; max-width: 64em; margin: 2em auto; padding: 0 1em } p img { max-width: 100% } "
         "table { border-collapse: collapse } td, th { border: 1px solid #999; padding: .5em; text-align: left; vertical-align: top } "
         "code { background: #eee; padding: 0 .2em }")
WINDOWS_CHECK = ["build/release/TavikWindowsCheck.exe", "windows_check/README.txt", "build/docs/windows-facts.md"]


def run(*command: str | Path, cwd: Path = TOP, env: dict[str, str] | None = None) -> str:
    """The output of a command; it is shown when the command fails."""
    done = subprocess.run([str(part) for part in command], cwd=cwd, env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, check=False)
    if done.returncode:
        print(done.stdout[-4000:], file=sys.stderr)
        fail(f"{Path(command[0]).name} failed, see its output above.")
    return done.stdout


def version_and_date() -> tuple[str, str]:
    """The version of the resources, and the day that the change log has for it."""
    header = (TOP / "src/resources/version.h").read_text("utf-8")
    found = re.search(r'TAVIK_VERSION_TEXT "(\d+\.\d+\.\d+)\.(\d+)"', header)
    if not found:
        fail("src/resources/version.h has no TAVIK_VERSION_TEXT \"A.B.C.D\".")
    changes = (TOP / "CHANGELOG.md").read_text("utf-8")
    heading = re.search(rf"^## \[{re.escape(found[1])}\] - (\d{{4}}-\d\d-\d\d)$", changes, re.MULTILINE)
    if not heading:
        fail(f'CHANGELOG.md has no heading "## [{found[1]}] - DATE" for this version. Add it.')
    return f"{found[1]}.{found[2]}", heading[1]


def zip_files(target: Path, files: dict[str, Path], date: str) -> None:
    """The same files give the same bytes: names are sorted, all have one time, and nothing of this machine is stored."""
    year, month, day = (int(part) for part in date.split("-"))
    with zipfile.ZipFile(target, "w", zipfile.ZIP_DEFLATED, compresslevel=9) as archive:
        for name in sorted(files):
            entry = zipfile.ZipInfo(name, (year, month, day, 0, 0, 0))
            entry.compress_type = zipfile.ZIP_DEFLATED
            entry.create_system = 3
            entry.external_attr = (0o755 if files[name].suffix in (".exe", ".sh") or os.access(files[name], os.X_OK) else 0o644) << 16
            archive.writestr(entry, files[name].read_bytes())


def packed_page(page: Path, signer: str) -> str:
    """As readers without the sources need it. The page of outcomes takes the place of the catalogue it is made from."""
    text = re.sub(r"^<!-- .* -->\n", "", NOT_SHOWN.sub("", page.read_text("utf-8")), flags=re.MULTILINE)
    text = SIGNER.sub(lambda found: signer or found[1], text)
    for target, instead in (("companion/outcomes.toml", "docs/outcomes.md"), ("../companion/outcomes.toml", "outcomes.md"),
                            (OWNER_PAGE, START_PAGE), (Path(OWNER_PAGE).name, f"../{START_PAGE}")):
        text = text.replace(f"]({target})", f"]({instead})")
    return text


def web_page(text: str, folder: Path) -> str:
    """A page of the folder as one HTML file with its pictures inside, so that it can be read in the zip too."""
    try:
        import markdown
    except ImportError:
        fail("The page for owners needs the Debian package python3-markdown. Install it with scripts/setup.")
    body = re.sub(r'(?<= src=")[^"]+', lambda found: "data:image/png;base64," + base64.b64encode((folder / found[0]).read_bytes()).decode(),
                  markdown.markdown(text, extensions=["tables", "toc"]))  # toc: headings get the names that links use
    title = re.search(r"^# (.+)", text, re.MULTILINE)
    return (f'<!DOCTYPE html>\n<html lang="en">\n<head>\n<meta charset="utf-8">\n<title>{title[1] if title else ""}</title>\n'
            f"<style>{STYLE}</style>\n</head>\n<body>\n{body}\n</body>\n</html>\n")


def check_pages(archive: Path) -> None:
    """What the pages in the archive point to is in the archive, and no page needs the sources."""
    with tempfile.TemporaryDirectory() as work, zipfile.ZipFile(archive) as packed:
        packed.extractall(work)
        top = Path(work).resolve()
        pages = sorted(file for file in top.rglob("*") if file.suffix in (".md", ".html"))
        wrong = [*texts.dead_links(pages, top), *(f"{page.relative_to(top)}: \"{found}\" is for readers who have the sources"
                 for page in pages for found in re.findall(r"(?i)\bclone\b|\bscripts/[a-z-]+", page.read_text("utf-8")))]
    if wrong:
        fail("\n".join([f"{archive.name} has pages that its readers cannot follow:", *wrong]))


def checksums(folder: Path, names: list[str]) -> None:
    lines = [f"{hashlib.sha256((folder / name).read_bytes()).hexdigest()}  {name}\n" for name in sorted(names)]
    (folder / "SHA256SUMS").write_text("".join(lines), "ascii")


# Building

def build() -> None:
    checks = [path for path in WINDOWS_CHECK if path.endswith(".exe")]
    run(PYTHON, "-m", "tools.outcome_pages", "--check")
    run(PYTHON, "-m", "tools.windows_facts", "page")
    for preset, targets in (("release", [*PROGRAMS, *(Path(path).stem for path in checks)]), ("symbols", PROGRAMS)):
        run("cmake", "--preset", preset)
        known = run("cmake", "--build", "--preset", preset, "--target", "help")
        for target in targets:
            if f"{target}: phony" not in known and f"{target}.exe: " not in known:
                fail(f"The build has no target {target}; a release needs {', '.join([*PROGRAMS, *checks])}.")
        run("cmake", "--build", "--preset", preset, "--target", *targets)


def loaded_sections(exe: Path) -> dict[str, tuple[int, bytes]]:
    sections = pefile.PE(str(exe), fast_load=True).sections
    return {section.Name.rstrip(b"\0").decode(): (section.VirtualAddress, section.get_data()) for section in sections
            if not section.Name.startswith(b"/") and not section.Name.startswith(b".debug")}


def without_time(file: Path) -> None:
    """objcopy writes the time of day into the header, and a checksum that includes it. Neither is used."""
    data = bytearray(file.read_bytes())
    header = int.from_bytes(data[0x3C:0x40], "little")
    for field in (header + 8, header + 24 + 64):  # TimeDateStamp, CheckSum
        data[field:field + 4] = bytes(4)
    file.write_bytes(data)


def symbol_file(name: str, target: Path) -> None:
    """The symbols of the shipping exe, from the same program linked with them."""
    shipping, full = BUILD / f"{name}.exe", SYMBOLS / f"{name}.exe"
    if loaded_sections(shipping) != loaded_sections(full):
        fail(f"{name}.exe differs from the one with symbols. Link it with project_strip in both presets.")
    run("x86_64-w64-mingw32-objcopy", "--only-keep-debug", full, target)
    without_time(target)
    names = run("x86_64-w64-mingw32-nm", "--defined-only", target)
    entry = re.search(r"^([0-9a-f]+) T (wWinMain|wmain|main)$", names, re.MULTILINE)
    place = run("x86_64-w64-mingw32-addr2line", "-e", target, f"0x{entry[1]}").strip() if entry else ""
    if not re.search(r"\b(src/\w+|companion)/\w+\.cpp:\d+", place):
        fail(f"The symbols of {name} do not lead to its sources: {place or 'no entry point'}. Build the preset \"symbols\" with -g.")
    if str(TOP).encode() in target.read_bytes():
        fail(f"The symbols of {name} contain the path {TOP}. See -ffile-prefix-map in cmake/Hardening.cmake.")


def third_party(listed: dict[str, Any], target: Path) -> None:
    """The licences of what is linked in: a short list, then the full copyright files of the packages."""
    packages = [one for one in listed["packages"] if one["primaryPackagePurpose"] == "LIBRARY"]
    lines = ["What is linked into the programs, and its licences", "", f"The packages are those of {platform.freedesktop_os_release()['PRETTY_NAME']}.", ""]
    texts: dict[str, str] = {}
    for one in packages:
        name = unquote(one["externalRefs"][0]["referenceLocator"].split("/")[-1].split("@")[0])
        lines += [f"{one['name']} ({name} {one['versionInfo']})", f"    {one['licenseDeclared']}", f"    {one['licenseComments']}", ""]
        source = Path("/usr/share/doc", name, "copyright")
        if not source.is_file():
            fail(f"{source} is missing, so the licence cannot be quoted. Install the package with its documentation (dpkg's path-exclude).")
        texts.setdefault(source.read_text("utf-8", errors="replace"), name)
    for text, name in texts.items():
        lines += ["=" * 100, f"The copyright file of {name}", "=" * 100, "", text.rstrip(), ""]
    target.write_text("\n".join(lines), "utf-8")


def make_unsigned(out: Path, source: str) -> str:
    """Makes everything except the signatures, in the folder out; returns the version."""
    version, date = version_and_date()
    missing = [path for path in [*PAGES, *FOLDERS, "windows_check/README.txt"] if not (TOP / path).exists()]
    if missing:
        fail(f"A release needs {', '.join(missing)}, which is missing.")
    say(f"Building version {version} of {date}, with and without symbols.")
    build()
    shutil.rmtree(out, ignore_errors=True)
    out.mkdir(parents=True)
    for name in PROGRAMS:
        shutil.copyfile(BUILD / f"{name}.exe", out / f"{name}.exe")
        symbol_file(name, out / f"{name}.exe.debug")
        shutil.copyfile(SYMBOLS / f"{name}.exe.map", out / f"{name}.exe.map")
    for path in WINDOWS_CHECK:
        shutil.copyfile(TOP / path, out / Path(path).name)
    listed = sbom.document([out / f"{name}.exe" for name in PROGRAMS], version, f"{date}T00:00:00Z", source)
    (out / "sbom.spdx.json").write_text(json.dumps(listed, indent=1, ensure_ascii=False) + "\n", "utf-8")
    for name in PROGRAMS:
        (out / f"{name}.exe.map").unlink()  # contains paths of this machine
    third_party(listed, out / "THIRD-PARTY.txt")
    pack(out, out, version, date, "-unsigned")
    checksums(out, [file.name for file in out.iterdir()])
    return version


def signed_by(signer: Signer) -> str:
    trial = " (this is a **test build**, which Windows does not trust: for trials only)" if signer.is_trial else ""
    return f"**{signer.name}**{trial}"


def pack(source: Path, target: Path, version: str, date: str, ending: str = "", signer: str = "") -> None:
    """The archives; the programs are taken from the folder source. Signer is what the page for owners says of the signature."""
    name = f"TavikCompatibilityTool-{version}"
    files = {f"{program}.exe": source / f"{program}.exe" for program in PROGRAMS}
    files |= {one: source / one for one in ("THIRD-PARTY.txt", "sbom.spdx.json")}
    files |= {page: TOP / page for page in PAGES} | {"docs/outcomes.md": outcome_pages.PAGE}
    if (TOP / "LICENSE").exists():
        files["LICENSE"] = TOP / "LICENSE"
    files |= {str(file.relative_to(TOP)): file for folder in FOLDERS for file in project_files(folder)}
    with tempfile.TemporaryDirectory() as work:
        for one in [one for one, file in files.items() if file.suffix == ".md" and file != outcome_pages.PAGE]:
            page = Path(work, one)
            page.parent.mkdir(parents=True, exist_ok=True)
            page.write_text(packed_page(files.pop(one), signer), "utf-8")
            files |= {} if one in [*NOT_PACKED, OWNER_PAGE] else {one: page}
        files[START_PAGE] = Path(work, START_PAGE)
        files[START_PAGE].write_text(web_page(Path(work, OWNER_PAGE).read_text("utf-8"), TOP / "docs"), "utf-8")
        sums = Path(work, "SHA256SUMS")
        sums.write_text("".join(f"{hashlib.sha256(file.read_bytes()).hexdigest()}  {one}\n" for one, file in sorted(files.items())), "utf-8")
        zip_files(target / f"{name}{ending}.zip", {f"{name}/{one}": file for one, file in {**files, "SHA256SUMS": sums}.items()}, date)
    check_pages(target / f"{name}{ending}.zip")
    checks = [*(Path(path).name for path in WINDOWS_CHECK), "THIRD-PARTY.txt"]
    zip_files(target / f"windows-check{ending}.zip", {one: source / one for one in checks}, date)
    if not ending:
        zip_files(target / f"{name}-symbols.zip", {f"{program}.exe.debug": source / f"{program}.exe.debug" for program in PROGRAMS}, date)


def commit() -> str:
    """The commit of the sources; with "and changes" if the tree differs from it."""
    number = run("git", "rev-parse", "HEAD").strip()
    return number + (" and changes" if run("git", "status", "--porcelain").strip() else "")


def addresses() -> dict[str, str]:
    """The addresses that build/release has built in, by the name of their option."""
    return dict(re.findall(r"^(TAVIK_(?:DOWNLOAD_HOST|SUPPORT_ADDRESS|WEB_SITE)):STRING=(.*)$", (BUILD / "CMakeCache.txt").read_text("utf-8"), re.M))


def refuse_what_is_for_trials(built_in: dict[str, str]) -> None:
    for option, address in built_in.items():
        parts = urlsplit(address if "://" in address else f"//{address}")
        if (parts.hostname or "").endswith(".example") or parts.port:
            fail(f"The program would ask {address}, which is for trials only: a reserved name, or a server on a port of its own. Configure another "
                 f"one (cmake --preset release -D{option}=...), or make a trial with --demo.")


def make(given: argparse.Namespace) -> None:
    source = commit()
    if source.endswith("changes"):
        fail("The tree has changes or untracked files, so no commit names these sources. Commit them, or move them away; git status lists them.")
    if given.certificate is None and not given.demo:
        fail("A release needs --certificate FILE. For a trial with a certificate that no machine trusts: --demo.")
    run("cmake", "--preset", "release")
    built_in = addresses()
    for option, address in built_in.items():
        say(f"{option} is {address}")
    if not given.demo:
        refuse_what_is_for_trials(built_in)
    version = make_unsigned(WORK, source)
    date = version_and_date()[1]
    shutil.rmtree(DIST, ignore_errors=True)
    DIST.mkdir()
    with tempfile.TemporaryDirectory() as folder:
        work = Path(folder)
        signer = Signer(Choice(given.certificate, given.password_file, given.token, given.module, given.time_stamps, given.ca), work)
        say("Signing" + (" with a test certificate, for trials only: no other machine trusts it." if signer.is_trial else "."))
        signed = work / "signed"
        shutil.copytree(WORK, signed)
        for name in [*PROGRAMS, *(Path(path).stem for path in WINDOWS_CHECK if path.endswith(".exe"))]:
            signer.sign_program(WORK / f"{name}.exe", signed / f"{name}.exe", "Tavik Software Compatibility Tool")
        pack(signed, DIST, version, date, signer=signed_by(signer))
        shutil.copytree(WORK, DIST / "unsigned", ignore=shutil.ignore_patterns("*.debug", "*.zip"))
        checksums(DIST / "unsigned", [file.name for file in (DIST / "unsigned").iterdir() if file.name != "SHA256SUMS"])
        if signer.is_trial:
            shutil.copyfile(signer.trusted, DIST / "test-certificate.pem")
        checksums(DIST, [file.name for file in DIST.iterdir() if file.is_file()])
        signer.sign_list(DIST / "SHA256SUMS")
    if not (TOP / "LICENSE").exists():
        say("There is no file LICENSE: the owner decides under which terms the tool is distributed.")
    for file in sorted(DIST.rglob("*")):
        if file.is_file():
            say(f"{file.stat().st_size:>9}  {file.relative_to(TOP)}")


def check() -> None:
    """Makes the unsigned files from the same sources in another folder, with other times, another language and time zone."""
    source = commit()
    make_unsigned(WORK, source)
    top = TOP / "build" / "check" / "release-again"
    copy = top / "a-folder-of-another-length" / "sources"
    shutil.rmtree(top, ignore_errors=True)
    copy_sources(copy)
    say("The same again in another folder.")
    run("cmake", "--preset", "release", *(f"-D{option}={address}" for option, address in addresses().items()), cwd=copy)
    again = copy / "build" / "release-files"
    run(copy / "scripts/release", "--unsigned", again, "--commit", source, cwd=copy, env={**os.environ, **ELSEWHERE})
    first = {file.name: file.read_bytes() for file in WORK.iterdir()}
    second = {file.name: file.read_bytes() for file in again.iterdir()}
    different = sorted(name for name in first.keys() | second.keys() if first.get(name) != second.get(name))
    if different:
        fail(f"The two releases differ in {', '.join(different)}: compare {WORK} and {again}.")
    shutil.rmtree(top)
    say(f"All {len(first)} unsigned files are the same from two folders.")


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    for option in ("--certificate", "--password-file", "--module", "--ca"):
        parser.add_argument(option, type=lambda name: Path(name).absolute())
    for option in ("--token", "--time-stamps"):
        parser.add_argument(option)
    parser.add_argument("--demo", action="store_true")
    parser.add_argument("--check", action="store_true")
    parser.add_argument("--unsigned", type=lambda name: Path(name).absolute(), help=argparse.SUPPRESS)  # of the second folder of --check
    parser.add_argument("--commit", help=argparse.SUPPRESS)
    given = parser.parse_args()
    if given.check:
        check()
    elif given.unsigned:
        make_unsigned(given.unsigned, given.commit)
    else:
        make(given)


if __name__ == "__main__":
    main()
