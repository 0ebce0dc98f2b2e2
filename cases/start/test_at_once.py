"""Started more than once: one instance works, the others say so and leave it alone."""
from __future__ import annotations

import pytest

from cases.support.expect import (ANOTHER, DOWNLOADING, FINISHED, SAME_RELEASE, compare_log, download, install, inventory, opening, places,
                    remove, stop, unpack)
from cases.support.repair import REPAIRED, found, until_unpacked
from cases.support.store import SAME

pytestmark = pytest.mark.all_cores
REFUSED = "Another instance is running. Exiting."
SLOW = {"server": {"answers": {"/drivers/installer/vlt/24.20/dwx2_install.txt": {"installer": "24.20", "delay": 2.5}}}}
WORK = [*until_unpacked("-SILENT"), *stop(), *remove("Halden"), *install("Halden")]


def refused(arguments: str = "") -> list[str]:
    return [opening(arguments)[0], REFUSED]


def codes(result) -> list[int]:
    return sorted(one["exit_code"] for one in result.instances)


# Proves: Two or ten are started at the same moment => one works, the others say so and return -1; after a kill the name is free again
@pytest.mark.parametrize("number", [2, 10])
def test_only_one_of_many_works(lab, number):
    """Their logs are named by the millisecond. Who comes second in one finds the file taken and goes without a log, so there
    can be fewer logs than instances; never two in one file."""
    slow = found(faults=["setupapi!SetupDiGetClassDevsW 1 sleep=5000"])  # nobody may come when the work is done
    result = lab.run(slow, "-SILENT", at_once=number)
    assert len(result.instances) == number and codes(result) == [-1] * (number - 1) + [0]
    assert (result.boxes, result.after.products, result.still_running) == ([], REPAIRED["products"], [])
    assert len(result.installer) == 1
    assert sum("SetupDiGetClassDevsW#1 " in line for line in result.calls) == 1
    others = [log for log in result.logs if log[-1] == REFUSED]
    assert all(log == refused("-SILENT") for log in others) and number / 2 <= len(result.logs) <= number
    for log in [log for log in result.logs if log not in others]:
        assert (log[0], log[-1], len(log)) == (WORK[0], "\tResult = 0", len(WORK))
    assert len(result.logs) - len(others) <= 1


@pytest.mark.quick
def test_each_start_has_a_window_and_the_refused_one_a_box(lab):
    result = lab.run(SLOW, at_once=2)
    assert codes(result) == [-1, 0]
    loser = [one["exit_code"] for one in result.instances].index(-1)
    boxes = [(box["instance"] == loser, box["icon"], box["text"]) for box in result.boxes]
    assert boxes == [(True, *ANOTHER), (False, *FINISHED)]
    assert {sample["instance"] for sample in result.status if sample["visible"]} == {0, 1}
    assert all(sample["line"] != DOWNLOADING for sample in result.status if sample["instance"] == loser)


def test_a_killed_instance_is_in_nobodys_way(lab):
    result = lab.run(SLOW, when=["text Downloading : second -SILENT", f"log {REFUSED} : kill 9"], then="")
    lab.check(exit_code=9, log=[*opening(), *inventory(), *download()[:2]], after=REPAIRED)
    assert [one["exit_code"] for one in result.instances] == [9, -1, 0]
    assert result.logs[1] == refused("-SILENT")
    whole = [*opening(), *inventory(), *download(), unpack(), *stop(), *remove("Halden"), *install("Halden")]
    assert compare_log(whole, result.logs[2], places(lab.machine, result)) == ""


def test_of_many_the_working_one_is_killed(lab):
    """Nothing of the other nine is left to stand in the way of the eleventh."""
    rule = "setupapi!SetupDiDestroyDeviceInfoList 1 sleep=5000 exit=9"
    result = lab.run(found(faults=[rule]), "-SILENT", at_once=10, then="-SILENT")
    assert codes(result) == [-1] * 9 + [0, 9] and result.instances[-1]["exit_code"] == 0
    assert result.after.products == REPAIRED["products"]
    assert len(result.logs[-1]) == len(WORK) and REFUSED not in result.logs[-1]


def test_a_refused_start_holds_the_name_while_its_box_is_up(lab):
    """It lets go of the event after its message only: until then nobody works and nobody can."""
    result = lab.run(SLOW, hold=3, when=["text Downloading : second", "box : kill 9", "box : second -SILENT"], then="-SILENT")
    assert [one["exit_code"] for one in result.instances] == [9, -1, -1, 0]
    assert [box["text"] for box in result.boxes] == [ANOTHER[1]]
    assert result.instances[2]["ended"] < result.instances[1]["ended"]
    assert result.logs[2] == refused("-SILENT") and result.after.products == REPAIRED["products"]


@pytest.mark.parametrize("release, code, box", [("24.20", -1, SAME_RELEASE), ("23.40", 0, FINISHED)])
def test_one_after_the_other_is_no_matter(lab, release, code, box):
    result = lab.run(found(desktop={"release": release}), then="")
    assert [one["exit_code"] for one in result.instances] == [code, -1]
    assert [(one["instance"], one["icon"], one["text"]) for one in [*result.boxes, *result.again.boxes]] == [(0, *box), (1, *SAME_RELEASE)]
    assert result.logs[1][-1] == f"{SAME} Exiting."
