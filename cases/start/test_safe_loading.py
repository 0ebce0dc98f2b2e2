"""A library that is beside the exe, or in the folder it is started from, is never loaded into it.

The tool runs as administrator from wherever it was downloaded to. So a DLL is planted under every name that the tool could
load, and the machine is told to prefer files over Wine's own DLLs. Each planted DLL writes a line when it is loaded.

The tool cannot protect what loads before its first instruction. Windows does: it takes its KnownDLLs, and what these need, from
its own folder only. Wine knows no such list, so these names are not planted; the list of Windows 10 must have every static import.
"""
from __future__ import annotations

import functools
from typing import Any

import pefile
import pytest

from cases.support.expect import REPAIRED, UNTOUCHED, opening
from cases.support.repair import found
from cases.support.store import INSTALLS, package, store_only
from lab import paths
from tools import exe_gate

TOOL = r"C:\lab\TavikCompatibilityTool.exe"
BESIDE, START = "C:\\lab\\", "C:\\Downloads\\"
OVERRIDES = r"HKCU\Software\Wine\AppDefaults\TavikCompatibilityTool.exe\DllOverrides"
IMPORTS, DELAYED = (pefile.DIRECTORY_ENTRY[f"IMAGE_DIRECTORY_ENTRY_{name}"] for name in ("IMPORT", "DELAY_IMPORT"))

# Loaded by name at run time by parts of Windows or Wine that the tool uses. Their files need not exist here.
AT_RUN_TIME = """apphelp bcryptprimitives clbcatq comctl32 cryptbase cryptnet cryptsp dnsapi dpapi dwmapi edputil gpapi iertutil
    iphlpapi jsproxy linkinfo logoncli mlang msihnd msimg32 msisip netapi32 netprofm netutils ncrypt ncryptsslp newdev
    nlaapi ntmarta ondemandconnroutehelper oleacc powrprof profapi propsys rasadhlp rsaenh samcli schannel secur32 spfileq
    spinf srpapi srvcli sspicli textinputframework textshaping twinapi.appcore userenv usp10 uxtheme webio windows.storage
    winhttp winmm winnsi winsta wintypes wkscli wldp wshtcpip xmllite""".split()
# Wine's user32 loads imm32 at the start of the process, and imm32 loads ole32 at a call. Wine searches for such a delayed import
# beside the program, whatever search the program has asked for. Windows protects both, and what they need.
BY_WINE = {"imm32.dll", "ole32.dll"}
NOWHERE = "tavik-nowhere.dll"  # in no system folder, so the folder that the program is started from is searched


@functools.cache
def named_by(name: str) -> tuple[frozenset[str], frozenset[str]]:
    """What one of Wine's DLLs imports, and what it imports at the first call."""
    path = paths.WINE_DLLS / name
    if not path.exists():
        return frozenset(), frozenset()
    pe = pefile.PE(str(path), fast_load=True)
    found = []
    for directory, size, at in ((IMPORTS, 20, 12), (DELAYED, 32, 4)):
        names = set()
        table = pe.OPTIONAL_HEADER.DATA_DIRECTORY[directory].VirtualAddress
        while table and (text := pe.get_dword_at_rva(table + at)):
            names.add(pe.get_string_at_rva(text).decode("ascii").lower())
            table += size
        found.append(frozenset(names))
    return found[0], found[1]


def closure(names: set[str], delayed: bool) -> set[str]:
    done: set[str] = set()
    due = set(names)
    while due:
        name = due.pop()
        done.add(name)
        imports, later = named_by(name)
        due |= (imports | later if delayed else imports) - done
    return done


@functools.cache
def planted() -> tuple[str, ...]:
    exe = exe_gate.Exe(paths.need(paths.TOOL), paths.BUILD)
    at_start = exe.static_imports()
    later = exe.delayed_imports() | set(exe_gate.TOOL.looked_up)
    names = closure(at_start | later | {f"{name}.dll" for name in AT_RUN_TIME}, delayed=True)
    return tuple(sorted((names | {NOWHERE}) - closure(at_start | BY_WINE, delayed=False)))


def with_planted(machine: dict[str, Any], *folders: str) -> dict[str, Any]:
    files = {folder + name: {"program": "planted_dll.dll"} for folder in folders for name in planted()}
    overrides = {name.removesuffix(".dll"): "native,builtin" for name in planted()}
    return {**machine, "files": files | machine.get("files", {}), "registry": {OVERRIDES: overrides}}


def loaded(result) -> list[str]:
    """Program and planted file, for every planted file that was loaded; the name in lower case."""
    file = result.file(r"C:\lab\planted.txt")
    found = [line.rpartition("\\") for line in file.read_text("utf-16-le").splitlines()] if file.exists() else []
    return [folder + "\\" + name.lower() for folder, _, name in found]


def planted_file(name: str, folder: str = BESIDE) -> str:
    return f"{TOOL}|{folder}{name}"


# The planted DLLs lie where a program without precautions loads them

@pytest.mark.parametrize("folder, options", [(BESIDE, {}), (START, {"directory": START.rstrip("\\")})],
                         ids=["beside it", "where it is started"])
def test_program_without_precautions_loads_planted_dlls(lab, folder, options):
    names = planted() if folder == BESIDE else [NOWHERE]
    result = lab.run(with_planted({"files": {TOOL: {"program": "load_by_name.exe"}}}, folder), " ".join(names), **options)
    lab.check(exit_code=0, outcome="no-log")
    assert sorted(loaded(result)) == sorted(planted_file(name, folder) for name in names)


@pytest.mark.quick
def test_tool_without_its_first_statement_loads_a_planted_dll(lab, tmp_path):
    """The same exe, but it calls another function with the argument that would restrict the search."""
    tool = paths.need(paths.TOOL).read_bytes()
    first = b"SetDefaultDllDirectories\0"
    assert tool.count(first) == 1
    (tmp_path / "tool.exe").write_bytes(tool.replace(first, b"SetErrorMode".ljust(len(first), b"\0")))
    result = lab.run(with_planted(found(files={TOOL: {"copy": str(tmp_path / "tool.exe")}}), BESIDE, START), directory=START.rstrip("\\"))
    assert planted_file("setupapi.dll") in loaded(result)
    lab.check(outcome="quiet-end", after=UNTOUCHED)  # the planted DLL has none of the functions


# The tool does not

# Proves: The file is loaded => only libraries that Windows protects load before the first instruction; the others wait until the search for libraries is restricted
def test_what_loads_at_start_is_protected_by_windows():
    at_start = exe_gate.Exe(paths.need(paths.TOOL), paths.BUILD).static_imports()
    assert at_start and {name.removesuffix(".dll") for name in at_start | BY_WINE} <= exe_gate.KNOWN_DLLS


# Proves: A library of a system name lies beside the tool => it is not loaded
# Proves: A DLL lies beside the exe or in the folder it is started in => it is never loaded
@pytest.mark.parametrize("machine, outcome", [
    (found(), "repaired"), ({}, "repaired"), (store_only(package(), service={"installs": INSTALLS}), "store-installed"),
], ids=["installer of the driver package", "download", "Store"])
def test_nothing_planted_is_loaded(lab, machine, outcome):
    assert {"msi.dll", "setupapi.dll", "wininet.dll", "wtsapi32.dll", "oleaut32.dll", "cryptbase.dll"} <= set(planted())
    result = lab.run(with_planted(machine, BESIDE, START), directory=START.rstrip("\\"))
    assert loaded(result) == []
    lab.check(outcome=outcome, after=REPAIRED if lab.machine.products else {"products": []})
    assert result.log[0] == opening()[0]
