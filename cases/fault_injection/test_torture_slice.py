"""A slice of the torture campaign: about a hundred of its runs, other ones with nearly every commit.

TORTURE_SLICE=K/N picks one, "all" makes every run, "none" leaves them out.
"""
from __future__ import annotations

import pytest

from lab.result import render
from cases.fault_injection import campaign


RUNS = campaign.slice_for_tests()


@pytest.mark.parametrize("run", RUNS, ids=[run.id for run in RUNS])
def test_torture(run):
    if campaign.obstacle(run):
        pytest.skip(campaign.obstacle(run))
    result, verdict = campaign.execute(run)
    assert not verdict.problems, "\n".join([*verdict.problems, "", "the run", render(result)])
