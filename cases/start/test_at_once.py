"""Started more than once: one instance works, the others say so and leave it alone."""
from __future__ import annotations

import pytest

from cases.support.download import PATH
from cases.support.expect import (ANOTHER, DOWNLOADING, FINISHED, REFUSED, REPAIR, REPAIRED, check_refused, compare_log, download,
                                  inventory, opening, places, unpack)
from cases.support.repair import found, until_unpacked

pytestmark = pytest.mark.all_cores
SLOW = {"server": {"answers": {PATH: {"installer": "24.20", "delay": 2.5}}}}
WORK = [*until_unpacked("-SILENT"), *REPAIR]


def codes(result) -> list[int]:
    return sorted(one["exit_code"] for one in result.instances)


# Proves: Two or ten are started at the same moment => one works, the others say so and return -1; after a kill the name is free again
@pytest.mark.parametrize("number", [2, 10])
def test_only_one_of_many_works(lab, number):
    """Logs are named by the millisecond. The second instance in one millisecond cannot create its file and runs without a log,
    so there can be fewer logs than instances, but never two in one file."""
    slow = found(faults=["setupapi!SetupDiGetClassDevsW 1 sleep=5000"])  # every start comes before the work is done
    result = lab.run(slow, "-SILENT", at_once=number)
    lab.outcome(f"repaired | no-log, {number - 1} another-instance | no-log")
    assert len(result.instances) == number and codes(result) == [-1] * (number - 1) + [0]
    assert (result.boxes, result.after.products, result.still_running) == ([], REPAIRED["products"], [])
    assert len(result.installer) == 1
    assert sum("SetupDiGetClassDevsW#1 " in line for line in result.calls) == 1
    others = [log for log in result.logs if log[-1] == REFUSED]
    assert all(log == [opening("-SILENT")[0], REFUSED] for log in others) and number / 2 <= len(result.logs) <= number
    for log in [log for log in result.logs if log not in others]:
        assert (log[0], log[-1], len(log)) == (WORK[0], "\tResult = 0", len(WORK))
    assert len(result.logs) - len(others) <= 1


@pytest.mark.quick
def test_each_start_has_a_window_and_the_refused_one_a_box(lab):
    result = lab.run(SLOW, at_once=2)
    lab.outcome("repaired | no-log, another-instance | no-log")
    assert codes(result) == [-1, 0]
    loser = [one["exit_code"] for one in result.instances].index(-1)
    boxes = [(box["instance"] == loser, box["icon"], box["text"]) for box in result.boxes]
    assert boxes == [(True, *ANOTHER), (False, *FINISHED)]
    assert {sample["instance"] for sample in result.status if sample["visible"]} == {0, 1}
    assert all(sample["line"] != DOWNLOADING for sample in result.status if sample["instance"] == loser)


def test_killed_instance_does_not_block_the_next_start(lab):
    result = lab.run(SLOW, when=["text Downloading : second -SILENT", f"log {REFUSED} : kill 9"], then="")
    lab.check(exit_code=9, outcome="interrupted, another-instance, repaired", after=REPAIRED,
              log=[*opening(), *inventory(), *download()[:2]])
    assert [one["exit_code"] for one in result.instances] == [9, -1, 0]
    check_refused(result, "-SILENT", box=False)
    assert compare_log([*opening(), *inventory(), *download(), unpack(), *REPAIR], result.logs[2], places(lab.machine, result)) == ""


def test_refused_start_holds_the_event_while_its_box_is_up(lab):
    """It closes the event only after its message. Until then no instance can work, although the first one is gone."""
    result = lab.run(SLOW, hold=3, when=["text Downloading : second", "box : kill 9", "box : second -SILENT"], then="-SILENT")
    lab.outcome("interrupted, 2 another-instance, repaired")
    assert [one["exit_code"] for one in result.instances] == [9, -1, -1, 0]
    assert [box["text"] for box in result.boxes] == [ANOTHER[1]]
    assert result.instances[2]["ended"] < result.instances[1]["ended"]
    check_refused(result, "-SILENT", box=False, number=2)
    assert result.after.products == REPAIRED["products"]
