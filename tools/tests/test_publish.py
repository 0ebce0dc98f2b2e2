"""deploy/mirror/publish: what it lets onto a mirror, under which name, and what it refuses. No Windows machine is needed."""
from __future__ import annotations

import hashlib
import json
import pathlib
import subprocess
import time

import pytest

from lab import paths
from tools.tests.deploy_kit import PUBLISH, SIGNER, Signers, load, publish

script = load(PUBLISH)


@pytest.fixture(scope="module")
def signers(tmp_path_factory):
    return Signers(tmp_path_factory.mktemp("signers"))


@pytest.fixture(scope="module")
def installer(signers):
    """The lab's installer of release 24.20, signed by the maker."""
    return signers.sign(paths.need(paths.PACKAGES / "installer-24.20.exe"), "maker", signers.folder / "installer.exe")


@pytest.fixture(scope="module")
def another(signers):
    return signers.sign(paths.need(paths.PACKAGES / "installer-24.10.exe"), "maker", signers.folder / "another.exe")


@pytest.fixture
def site(tmp_path, signers):
    """add(release, file, ...) publishes; files(): what nginx would serve, and the list."""
    class Site:
        root = tmp_path / "vlt"

        def add(self, release: str, file: pathlib.Path, *more: object, signer: str = SIGNER):
            return publish("--root", self.root, "--ca", signers.ca, "--signer", signer, *more, release, file)

        def files(self) -> list[str]:
            return sorted(str(path.relative_to(self.root)) for path in self.root.rglob("*") if path.is_file() and path.name != ".lock")
    return Site()


def listed(file: pathlib.Path, folder: str) -> str:
    return f"{hashlib.sha256(file.read_bytes()).hexdigest()}  {folder}/dwx2_install.txt\n"


# Names

# Proves: An installer is published => under the name the tool asks for, in one step, and listed; publishing it again changes nothing
@pytest.mark.parametrize("release, folder", [
    ("24.20", "24.20"), ("24.20.11.01-240619a", "24.20"), ("24.2", "24.2"), ("24.2-a", "24.2"), ("9", "9"), ("24.2.1", "24.2."),
    ("22.q4.1", "22.q4"), ("22.Q4", "22.Q4"), ("4.2.20-x-y", "4.2.2")])
def test_the_folder_is_what_the_tool_asks_for(release, folder):
    assert script.folder_of(release) == folder


@pytest.mark.parametrize("release", ["", "-24.20", "..", ".-1", "../x", "a/b", "24 20", "24.2\u0660", "24%20", "24\n"])
def test_what_is_not_a_release(release):
    with pytest.raises(script.Refused):
        script.folder_of(release)


# What is published

def test_a_signed_installer_is_published_and_again_without_effect(site, installer):
    done = site.add("24.20.11.01-240619a", installer)
    assert (done.returncode, done.stderr) == (0, "")
    assert site.files() == ["24.20/dwx2_install.txt", "SHA256SUMS"]
    assert (site.root / "24.20/dwx2_install.txt").read_bytes() == installer.read_bytes()
    assert (site.root / "SHA256SUMS").read_text() == listed(installer, "24.20")
    assert subprocess.run(["sha256sum", "--check", "--strict", "SHA256SUMS"], cwd=site.root, capture_output=True, check=False).returncode == 0
    modes = [oct((site.root / name).stat().st_mode & 0o777) for name in ("24.20", "24.20/dwx2_install.txt", "SHA256SUMS")]
    assert modes == ["0o755", "0o644", "0o644"], "nginx runs as another user"
    before = {name: (site.root / name).stat().st_mtime_ns for name in site.files()}
    time.sleep(0.01)
    again = site.add("24.20", installer)
    assert again.returncode == 0 and "is there already" in again.stdout
    assert {name: (site.root / name).stat().st_mtime_ns for name in site.files()} == before


def test_another_file_of_a_release_needs_the_option_replace(site, installer, another):
    """The old file is not written to, so a client reads it to its end."""
    site.add("24.20", installer)
    refused = site.add("24.20", another)
    assert refused.returncode == 1 and "--replace" in refused.stderr
    with open(site.root / "24.20/dwx2_install.txt", "rb") as client:
        first = client.read(100)
        assert site.add("24.20", another, "--replace").returncode == 0
        assert first + client.read() == installer.read_bytes()
    assert (site.root / "SHA256SUMS").read_text() == listed(another, "24.20")
    assert (site.root / "24.20/dwx2_install.txt").read_bytes() == another.read_bytes()


def test_releases_are_kept_side_by_side_and_removed(site, installer, another):
    site.add("24.20", installer)
    site.add("24.10", another)
    assert (site.root / "SHA256SUMS").read_text() == listed(another, "24.10") + listed(installer, "24.20")
    done = publish("--root", site.root, "--remove", "24.10.05.00-a")
    assert done.returncode == 0 and "removed" in done.stdout
    assert site.files() == ["24.20/dwx2_install.txt", "SHA256SUMS"] and not (site.root / "24.10").exists()
    assert (site.root / "SHA256SUMS").read_text() == listed(installer, "24.20")
    again = publish("--root", site.root, "--remove", "24.10")
    assert again.returncode == 0 and "is not there" in again.stdout


def test_a_dry_run_checks_and_changes_nothing(site, signers, installer):
    done = site.add("24.20", installer, "--dry-run")
    assert done.returncode == 0 and "would be published" in done.stdout and not site.root.exists()
    unsigned = site.add("24.20", paths.PACKAGES / "installer-24.20.exe", "--dry-run")
    assert unsigned.returncode == 1 and not site.root.exists()
    site.add("24.20", installer)
    assert "would be removed" in publish("--root", site.root, "--dry-run", "--remove", "24.20").stdout
    assert site.files() == ["24.20/dwx2_install.txt", "SHA256SUMS"]


# What is refused

def changed(data: bytes) -> bytes:
    """One bit in the middle, far from headers and signature."""
    middle = len(data) // 2
    return data[:middle] + bytes([data[middle] ^ 1]) + data[middle + 1:]


DOCTORED = {"changed": changed, "longer": lambda data: data + b"more", "shorter": lambda data: data[:-16],
            "text": lambda data: b"MZ, but no program"}


def refused_file(signers: Signers, installer: pathlib.Path, target: pathlib.Path, how: str) -> pathlib.Path:
    plain = paths.PACKAGES / "installer-24.20.exe"
    if how == "unsigned":
        return plain
    if how in DOCTORED:
        target.write_bytes(DOCTORED[how](installer.read_bytes()))
        return target
    return signers.sign(plain, "other" if how == "accompanied" else how, target, along="maker" if how == "accompanied" else "")


# Proves: It is unsigned, changed, or signed by another signer => refused, and the mirror stays as it is
@pytest.mark.parametrize("how, why", [
    ("unsigned", "it is not signed"), ("text", "not a Windows program"), ("changed", "the signature is not good"),
    ("longer", "something was added"), ("shorter", "something was added"), ("other", "not signed by"),
    ("impostor", "the signature is not good"), ("expired", "the signature is not good"), ("accompanied", "the signature is not good")])
def test_refused(site, signers, installer, tmp_path, how, why):
    """`impostor` has the maker's name from an authority that is not trusted; `accompanied` contains the maker's own certificate but
    was signed with another."""
    site.add("24.10", installer)
    before = (site.files(), (site.root / "SHA256SUMS").read_text())
    done = site.add("24.20", refused_file(signers, installer, tmp_path / "refused.exe", how))
    assert done.returncode == 1 and why in done.stderr, done.stderr
    assert (site.files(), (site.root / "SHA256SUMS").read_text()) == before


@pytest.mark.parametrize("signer", ["Tavik Systems", "tavik systems, inc.", "Another", "Tavik Systems, Inc. "])
def test_the_signers_name_is_compared_exactly(site, installer, signer):
    done = site.add("24.20", installer, signer=signer)
    assert done.returncode == 1 and "not signed by" in done.stderr and not list(site.root.glob("24.20"))


def test_missing_files_are_named(site, signers, installer, tmp_path):
    assert "there is no file" in site.add("24.20", tmp_path / "missing.exe").stderr
    done = publish("--root", site.root, "--ca", tmp_path / "missing.pem", "--signer", SIGNER, "24.20", installer)
    assert done.returncode == 1 and "there is no file" in done.stderr


@pytest.mark.parametrize("arguments", [
    [], ["24.20"], ["24.20", "file"], ["--ca", "x", "24.20", "file"], ["--signer", "x", "24.20", "file"], ["--check", "--remove", "24.20"],
    ["--remove", "24.20", "24.10", "file"], ["--check", "--needed", "file"]])
def test_wrong_arguments(tmp_path, arguments):
    assert publish("--root", tmp_path / "vlt", *arguments).returncode == 2
    assert not (tmp_path / "vlt").exists()


# After a crash

# Proves: Publishing is killed, or a file changes afterwards => the next call puts the list right; `--check` says what changed
def test_the_next_call_repairs_what_a_killed_one_left(site, installer, another):
    """Killed after the file was put in its place and before it was listed; and half a copy of another call."""
    site.add("24.20", installer)
    (site.root / ".incoming-half").write_bytes(b"MZ")
    (site.root / "24.10").mkdir()
    (site.root / "24.10/dwx2_install.txt").write_bytes(another.read_bytes())
    told = publish("--root", site.root, "--check")
    assert told.returncode == 1 and "24.10 is there but not listed" in told.stderr
    assert site.add("24.20", installer).returncode == 0
    assert site.files() == ["24.10/dwx2_install.txt", "24.20/dwx2_install.txt", "SHA256SUMS"]
    assert publish("--root", site.root, "--check").returncode == 0


@pytest.mark.parametrize("break_it, word", [
    (lambda root: (root / "24.20/dwx2_install.txt").write_bytes(b"MZ"), "not the file that was published"),
    (lambda root: (root / "24.20/dwx2_install.txt").unlink(), "listed but not there")], ids=["changed", "gone"])
def test_check_finds_what_changed(site, installer, break_it, word):
    site.add("24.20", installer)
    assert publish("--root", site.root, "--check").stdout == "1 releases, all as listed: 24.20\n"
    break_it(site.root)
    told = publish("--root", site.root, "--check")
    assert told.returncode == 1 and word in told.stderr


# What the machines need

def state(release: str, verdict: str = "due", source: str | None = "download") -> str:
    return json.dumps({"verdict": verdict, "adapters": [{"release": release}], "source": source}) + "\n"


NOT_THERE = '10.0.0.{} [2026-11-22T09:00:00+00:00] "GET /vlt/24.40/dwx2_install.txt HTTP/1.1" {} 153 0.000 "{}" TLSv1.3\n'


# Proves: Machines need releases that are on the mirror, or not => `publish --needed` counts them by `status --json` and its log, and names those that get 404
def test_what_the_machines_need(site, installer, tmp_path):
    site.add("24.20", installer)
    machines, powershell, log = tmp_path / "machines.json", tmp_path / "powershell.json", tmp_path / "mirror.log"
    machines.write_text(state("24.20.11.01-240619a") + state("24.10.1", "up-to-date", None) + state("24.11", "due", "driver-package"), "utf-8")
    needed = ("--root", site.root, "--needed", machines)
    done = publish(*needed)
    assert (done.returncode, done.stdout) == (0, "24.20: published; 1 machines would download it, 0 got 404\nnothing is missing\n")
    powershell.write_text(state("24.30.1-a") + state("24.30.2-a"), "utf-16")
    asked = ((1, 404, "Tavik Marlin Install Manager"), (1, 404, "Tavik Marlin Install Manager"), (2, 404, "Tavik Marlin Install Manager"),
             (3, 404, "a browser"), (4, 200, "Tavik Marlin Install Manager"))
    log.write_text("".join(NOT_THERE.format(*one) for one in asked), "utf-8")
    done = publish(*needed, powershell, log)
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr.splitlines()[0].endswith("needed, but not published (404): 24.30, 24.40")
    assert done.stderr.splitlines()[1:] == ["24.20: published; 1 machines would download it, 0 got 404",
                                            "24.30: NOT PUBLISHED; 2 machines would download it, 0 got 404",
                                            "24.40: NOT PUBLISHED; 0 machines would download it, 2 got 404"]


@pytest.mark.parametrize("line", ['{"verdict": "due"}', '{"verdict": "due", "source": "download", "adapters": []}', "{half"])
def test_what_is_no_state_of_a_machine(tmp_path, line):
    (tmp_path / "state.json").write_text(line, "utf-8")
    done = publish("--root", tmp_path / "vlt", "--needed", tmp_path / "state.json")
    assert done.returncode == 1 and "is not the output of status --json" in done.stderr
