"""Each call into Windows that the tool makes fails once, on twenty machines, and each run is judged.

These are some 3,000 runs. A test run makes about a hundred of them, other ones with nearly every commit; FAULTS picks others:
"all", a slice K/N, or a pattern of names. scripts/inject-faults sets it.
"""
from __future__ import annotations

import os

import pytest

from lab.result import render
from cases.fault_injection import campaign

RUNS = campaign.chosen(os.environ.get("FAULTS"))


# Proves: Any one call into SetupAPI, Windows Installer, WinINet or the session functions, or any step of the package manager or the Store fails (some 3,000 runs on 20 machines by scripts/inject-faults, a hundred of them with the cases) => what the lab's model of the tool says for that call: whole log, exit code, box, machine afterwards; nothing leaks; the next start repairs
@pytest.mark.parametrize("run", RUNS, ids=[run.id for run in RUNS])
def test_fault(run):
    result, problems = campaign.execute(run)
    assert not problems, "\n".join([*problems, f"scripts/inject-faults '{run.id}' makes this run again", "", render(result, calls=True)])
