"""Two versions of Debian: the names of their packages, and what scripts/on-debian asks for."""
from __future__ import annotations

import os
import pathlib
import subprocess

import pytest

from tools import on_debian

SETUP = on_debian.TOP / "scripts" / "setup"
# A Debian on which DIR/has lists the packages that can be had, DIR/installed those that are there, and the user is not root.
FAKES = {
    "id": "echo 1000",
    "dpkg-query": 'for one; do grep -qx -- "$one" DIR/installed && echo "$one installed"; done; exit 1',
    "apt-get": "exit 0",
    "apt-cache": 'shift; for one; do echo "$one:"; if grep -qx -- "$one" DIR/has; then echo "  Candidate: 1"; else echo "  Candidate: (none)"; fi; done',
    "sudo": '[ "$6" = install ] || exit 0; shift 6; for one; do grep -qx -- "$one" DIR/has && echo "$one" >>DIR/installed; done; exit 0',
}


def names() -> list[str]:
    return [line.split()[0] for line in subprocess.run([SETUP, "--list"], capture_output=True, text=True, check=True).stdout.splitlines()]


def set_up(folder: pathlib.Path, has: list[str], *arguments: str) -> tuple[int, str, list[str]]:
    """Exit code of scripts/setup, what it said, and what is installed then."""
    (folder / "has").write_text("".join(f"{name}\n" for name in has), "ascii")
    (folder / "installed").touch()
    for name, text in FAKES.items():
        (folder / name).write_text(f"#!/bin/sh\n{text}\n".replace("DIR", str(folder)), "ascii")
        (folder / name).chmod(0o755)
    done = subprocess.run([SETUP, *arguments], env={**os.environ, "PATH": f"{folder}:{os.environ['PATH']}"}, capture_output=True, text=True, check=False)
    return done.returncode, done.stdout + done.stderr, (folder / "installed").read_text("ascii").split()


@pytest.mark.parametrize("which", [0, -1], ids=["older names", "newer names"])
def test_package_with_two_names_is_installed_under_the_one_that_there_is(tmp_path, which):
    here = [name.split("|")[which] for name in names() if name not in ("wget", "mmdebstrap")]
    code, said, installed = set_up(tmp_path, here)
    assert (code, sorted(installed)) == (0, sorted(here)), said
    assert any("|" in name for name in names())
    code, said, _ = set_up(tmp_path, here)
    assert (code, said) == (0, f"setup: all {len(here)} packages are installed.\n")


def test_package_with_two_names_is_the_first_also_when_the_second_is_installed(tmp_path):
    both = "\n".join(names()).replace("|", "\n").split()
    second = [name.split("|")[1] for name in names() if "|" in name]
    (tmp_path / "installed").write_text("".join(f"{name}\n" for name in second), "ascii")
    code, said, installed = set_up(tmp_path, both)
    assert code == 0 and {name.split("|")[0] for name in names() if "|" in name} <= set(installed), said


def test_package_that_is_nowhere_is_named(tmp_path):
    code, said, _ = set_up(tmp_path, [], "--quiet", "--debian")
    assert code == 1 and "still missing: mmdebstrap." in said


def test_package_sources_are_those_of_this_machine_with_the_other_version():
    listed = """http://one.example/debian/ bookworm main
http://one.example/debian/ bookworm-updates main
https://two.example/security/ bookworm-security main
https://three.example/ sdk-bookworm main
https://four.example/ bookworm-backports main
https://five.example/ nodistro main"""
    key = f"deb [signed-by={on_debian.KEYS}]"
    assert on_debian.sources("bookworm", "trixie", listed) == [
        f"{key} http://one.example/debian/ trixie main", f"{key} http://one.example/debian/ trixie-updates main",
        f"{key} https://two.example/security/ trixie-security main"]
    assert on_debian.sources("", "trixie", listed) == []


def test_user_without_rights_is_told_so(monkeypatch, capsys):
    monkeypatch.setattr(os, "geteuid", lambda: 1000)
    with pytest.raises(SystemExit, match="run it as root"):
        on_debian.main(["13", "true"])
    assert on_debian.main(["11", "true"]) == on_debian.main(["13"]) == 2
    assert "scripts/on-debian 13" in capsys.readouterr().out


def test_programs_built_here_need_a_list_of_their_tests(monkeypatch, tmp_path):
    monkeypatch.setattr(on_debian, "obstacle", lambda: "")
    monkeypatch.setattr(on_debian, "TOP", tmp_path)
    entered = []
    monkeypatch.setattr(on_debian, "make", lambda version, folder: folder / "root")
    monkeypatch.setattr(os, "execvp", lambda program, command: entered.append(command))
    tests = tmp_path / "build" / "release" / "tests"
    tests.mkdir(parents=True)
    exe, listed, of_cmake = (tests / name for name in ("unit_tests.exe", "unit_tests[1]_tests.cmake", "unit_tests[1]_include.cmake"))
    for file in (exe, of_cmake):
        file.touch()
    for make_list in (lambda: None, lambda: (listed.touch(), os.utime(listed, (1, 1)))):  # none; older than the program
        make_list()
        with pytest.raises(SystemExit, match="run scripts/test in-process first"):
            on_debian.main(["13", "--built", "true"])
    os.utime(exe, (2, 2))
    os.utime(listed, (3, 3))  # CMake was called since: of_cmake is newer
    on_debian.main(["13", "--built", "true"])
    assert "TAVIK_BUILT=1" in entered[0] and listed.stat().st_mtime >= of_cmake.stat().st_mtime
    assert "TAVIK_BUILT=" in on_debian.enter(tmp_path, tmp_path, ["true"])
