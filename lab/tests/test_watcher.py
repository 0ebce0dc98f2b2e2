"""What a case can do while the tool runs, beyond what the cases of the window show: restore, kill, start again, limit the time."""
from __future__ import annotations

import pytest

from cases.support.download import PATH
from cases.support.expect import CHECKING, DOWNLOADING, FINISHED, INSTALL_FAILED, NO_ADAPTER, SAME_RELEASE, download, inventory, opening
from cases.support.repair import found
from cases.support.store import INSTALLS, NEWER, package, store_only

SLOW = {"server": {"answers": {PATH: {"installer": "24.20", "delay": 1.5}}}}
DURING = "text Downloading"


def test_click_on_the_mark_minimises(lab):
    result = lab.run(SLOW, when=[f"{DURING} : click 1014", "after 1200 : restore"])
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED])
    assert [action["done"] for action in result.actions] == [True, True]
    minimised = [sample["minimised"] for sample in result.status if sample["line"] == DOWNLOADING]
    assert minimised[0] is False and True in minimised and minimised[-1] is False


# Proves: The tool is killed => what was logged so far is in the file
def test_log_survives_a_kill(lab):
    result = lab.run(SLOW, when=[f"{DURING} : wait 300", f"{DURING} : kill 77"])
    lab.check(outcome="interrupted", exit_code=77, boxes=[], log=[*opening(), *inventory(), *download()[:2]])
    assert result.status_texts == [CHECKING, DOWNLOADING]


def test_second_run_is_undisturbed(lab):
    """The rule kills every run at its first call; the last action would kill the second one."""
    result = lab.run({"faults": ["setupapi!SetupDiGetClassDevsW 1 exit=77"]}, "-FORCE", then="-SILENT",
                     when=["text Installing : kill 78"])
    lab.check(outcome="interrupted, repaired", exit_code=77, boxes=[], log=opening("-FORCE"), after={"products": ["Tavik Halden 24.20"]})
    assert [(one["arguments"], one["exit_code"]) for one in result.instances] == [("-FORCE", 77), ("-SILENT", 0)]
    assert result.logs[1][:2] == opening("-SILENT") and len(result.logs) == 2
    assert result.boxes == result.again.boxes == [] and result.actions == []


def test_run_has_a_time_limit(lab):
    result = lab.run("compatible.toml", hold=100, timeout=6)
    assert result.timed_out and result.boxes[0]["text"] == SAME_RELEASE[1]
    with pytest.raises(AssertionError, match="time limit"):
        lab.check(outcome="interrupted", exit_code=-1)


def test_unknown_action_is_refused(lab):
    with pytest.raises(RuntimeError, match="unknown action: dance"):
        lab.run("compatible.toml", when=["start : dance"])


# A second start on the same machine

def test_a_second_start_meets_the_machine_that_the_first_one_left(lab):
    result = lab.run(found(standins=["msi"]), then="-FORCE -SILENT")
    lab.check(outcome="2 repaired", exit_code=0, boxes=[FINISHED], after={"products": ["Tavik Halden 24.20"]})
    first, second = result.log, result.again.log
    assert first[1] == opening()[1] and second[:2] == opening("-FORCE -SILENT", "24.20")
    assert (result.again.exit_code, result.again.boxes) == (0, [])
    assert result.calls[0].split()[0] == result.again.calls[0].split()[0], "each start has its own record, numbered from 1"


def test_fault_rules_are_gone_at_the_second_start(lab):
    result = lab.run(found(faults=["setupapi!SetupDiGetClassDevsW 1 error=5"]), then="")
    lab.check(outcome="no-usable-driver, repaired", exit_code=-1, boxes=[NO_ADAPTER], after={"products": ["Tavik Halden 24.20"]})
    assert result.again.exit_code == 0 and [box["text"] for box in result.again.boxes] == [FINISHED[1]]


def test_the_store_works_again_at_the_second_start(lab):
    broken = {"installs": INSTALLS, "end": "error:0x80240438:No way to the Store."}
    result = lab.run(store_only(package(), service=broken), then="-SILENT")
    lab.check(outcome="store-error, store-installed", exit_code=-2145123272, boxes=[INSTALL_FAILED])
    assert result.again.exit_code == 0 and result.store_left == [NEWER]
    for calls in (result.store_calls, result.again.store_calls):
        assert len([call for call in calls if call.startswith("FindPackages")]) == 1


def test_after_the_time_limit_there_is_no_second_start(lab):
    result = lab.run("compatible.toml", hold=100, timeout=6, then="")
    lab.outcome("interrupted")
    assert result.timed_out and result.again is None and len(result.instances) == 1
