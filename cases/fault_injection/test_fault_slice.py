"""A slice of the fault campaign: about a hundred of its runs, other ones with nearly every commit.

FAULT_SLICE=K/N picks one, "all" makes every run, "none" leaves them out.
"""
from __future__ import annotations

import pytest

from lab.result import render
from cases.fault_injection import campaign


RUNS = campaign.slice_for_tests()


# Proves: Any one call into SetupAPI, Windows Installer, WinINet or the session functions, or any step of the package manager or the Store fails (some 3,000 runs on 20 machines by scripts/inject-faults, a hundred of them with the cases) => what the lab's model of the tool says for that call: whole log, exit code, box, machine afterwards; nothing leaks; the next start repairs
@pytest.mark.parametrize("run", RUNS, ids=[run.id for run in RUNS])
def test_fault(run):
    result, problems = campaign.execute(run)
    assert not problems, "\n".join([*problems, "", "the run", render(result)])
