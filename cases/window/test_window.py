"""The status window and the message boxes: what they say, when they show, and what mouse and keys do to them."""
from __future__ import annotations

import pytest

from cases.support.download import PATH
from cases.support.expect import (CAPTION, CHECKING, DOTS, DOWNLOADING, INSTALLING, NO_ADAPTER_LEFT, REPAIR, REPAIRED, SAME,
                                  UNTOUCHED, inventory, opening)
from cases.support.repair import MSI_AGREES, found, until_unpacked

INSTALLS = f"text {INSTALLING}"
SLOW = found(installer={"sleep": 1200}, faults=[MSI_AGREES])
SHORT = found("24.20-nomain", installer={"sleep": 900})  # ends with the failure box as soon as the installer has ended
FAILED = {"outcome": "installer-empty", "after": UNTOUCHED}
AGREED = {"outcome": "repaired"}

# Window styles.
POPUP, VISIBLE, MINIMIZE_BOX, CENTER, CONTROL = 0x80000000, 0x10000000, 0x00020000, 0x0800, 0x0400
SYSTEM_MENU, CAPTION_FRAME, CHILD_VISIBLE = 0x00080000, 0x00400000, 0x50000000
TRANSPARENT, RIGHT = 0x20, 0x1000


def shown(result) -> list[dict]:
    return [sample for sample in result.status if sample["instance"] == 0 and sample["visible"]]


def changes(values: list) -> list:
    return [one for number, one in enumerate(values) if number == 0 or values[number - 1] != one]


def dots(result) -> list[str]:
    return changes([sample["dots"] for sample in result.status if sample["dots"]])


# Its controls

# Proves: It is started
@pytest.mark.quick
def test_window_has_these_controls(lab):
    result = lab.run(SHORT, when=[f"{INSTALLS} : look"])
    lab.check(**FAILED)
    (action,) = result.actions
    window = action["seen"]
    assert (window["title"], window["title_icon"]) == (CAPTION, "big and small")
    wanted = POPUP | VISIBLE | MINIMIZE_BOX | CENTER | CONTROL  # Wine drops the border
    assert window["style"] & (wanted | SYSTEM_MENU | CAPTION_FRAME) == wanted
    controls = {control["id"]: control for control in window["controls"]}
    assert len(controls) == len(window["controls"]) == 5 and {control["class"] for control in window["controls"]} == {"Static"}
    for number, style, extended, font in ((1004, 0x5002004C, TRANSPARENT, 21), (1013, 0x5002004C, TRANSPARENT, 27),
                                          (1005, 0x50020002, TRANSPARENT | RIGHT, 16), (1014, 0x50020101, TRANSPARENT, 16)):
        control = controls[number]
        assert (number, control["style"], control["extended"] & 0x1020, control["font"]) == (number, style, extended, font)
    (background,) = (control for number, control in controls.items() if number not in (1004, 1013, 1005, 1014))
    assert background["style"] == CHILD_VISIBLE | 0x4E  # shows a bitmap and keeps its size
    assert [background[name] for name in ("x", "y", "width", "height")] == [0, 0, window["width"], window["height"]]
    assert [one["text"] for one in (background, controls[1004], controls[1013], controls[1014])] == ["", INSTALLING, "", "—"]
    # Sizes follow from the font, so they are compared with each other: in dialog units the window is 286 by 72.
    across, down = window["width"] / 286, window["height"] / 72
    for number, *units in ((1004, 15, 57, 194, 11), (1013, 15, 47, 268, 20), (1005, 216, 57, 63, 11), (1014, 260, 3, 10, 9)):
        place = [controls[number][name] for name in ("x", "y", "width", "height")]
        assert all(abs(pixels - unit * scale) <= 1 for pixels, unit, scale in zip(place, units, (across, down, across, down))), number


# What it shows

# Proves: Not silent
# Proves: The driver package has an installer
def test_window_shows_from_the_start_and_hides_for_the_box(lab):
    result = lab.run(SHORT, hold=0.3)
    lab.check(**FAILED, requests=[])
    assert result.status_texts == [CHECKING, INSTALLING]
    assert len({(one["x"], one["y"], one["width"], one["height"]) for one in shown(result)}) == 1, "it stays in its place"
    assert changes([sample["visible"] for sample in result.status if sample["exists"]]) in ([True, False], [False, True, False])
    hidden = next(sample for sample in result.status if not sample["visible"] and sample["line"] == INSTALLING)
    assert hidden["at"] <= result.boxes[0]["since"] + 20 and hidden["exists"]
    assert not any(sample["visible"] for sample in result.status if sample["at"] >= hidden["at"])


def test_early_exit_only_shows_checking(lab):
    result = lab.run({"adapters": []}, hold=0.2)
    lab.check(outcome="no-adapter", log=[*opening(), *NO_ADAPTER_LEFT])
    assert result.status_texts == [CHECKING]


# Proves: Silent
def test_silent_window_is_never_shown_and_keeps_its_text(lab):
    result = lab.run(SHORT, "-SILENT")
    lab.check(**FAILED)
    assert result.status_texts == [CHECKING]
    assert shown(result) == []
    assert dots(result)[:2] == DOTS[:2]


# Proves: Time passes
# Proves: A status is set
@pytest.mark.parametrize("machine, wanted, shown_while", [
    (found("24.20-nomain", installer={"sleep": 2600}), FAILED, INSTALLING),
    ({"server": {"answers": {PATH: {"installer": "24.20", "delay": 2.2}}}}, {**AGREED, "after": REPAIRED}, DOWNLOADING),
], ids=["while the installer works", "during the download"])
def test_dots_go_round(lab, machine, wanted, shown_while):
    result = lab.run(machine)
    lab.check(**wanted)
    seen = dots(result)
    assert len(seen) >= 5 and seen == [DOTS[number % 3] for number in range(len(seen))]
    assert result.status_texts == [CHECKING, *([DOWNLOADING] if shown_while == DOWNLOADING else []), INSTALLING]
    sample = next(one for one in shown(result) if one["line"] == shown_while)
    assert (sample["title"], sample["mark"], sample["heading"]) == (CAPTION, "—", "")


# Mouse and keys

@pytest.mark.parametrize("place", ["1004", "1005", "1013", "5,5"])
def test_click_beside_the_mark_does_nothing(lab, place):
    result = lab.run(SHORT, when=[f"{INSTALLS} : click {place}"])
    lab.check(**FAILED)
    assert [action["done"] for action in result.actions] == [True]
    assert not any(sample["minimised"] for sample in result.status)
    assert len({(one["x"], one["y"]) for one in shown(result)}) == 1


# Proves: A click on the mark
def test_minimised_window_stays_minimised_and_the_box_shows(lab):
    result = lab.run(SLOW, when=[f"{INSTALLS} : click 1014"])
    lab.check(**AGREED)
    assert changes([sample["minimised"] for sample in shown(result)]) == [False, True]
    assert result.status_texts == [CHECKING, INSTALLING]


def test_minimised_window_comes_back(lab):
    result = lab.run(SLOW, when=[f"{INSTALLS} : click 1014", f"{INSTALLS} : wait 300", f"{INSTALLS} : restore"])
    lab.check(**AGREED)
    assert changes([sample["minimised"] for sample in shown(result)]) == [False, True, False]


def test_minimised_window_still_changes_its_text(lab):
    """Reading the first list of products takes 700 ms, so the click comes while the tool checks."""
    slow = {"installer": {"sleep": 700}, "faults": ["msi!MsiEnumRelatedProductsW 1 sleep=700"]}
    result = lab.run(found("24.20-nomain", **slow), when=[f"text {CHECKING} : click 1014"])
    lab.check(**FAILED)
    assert [sample["line"] for sample in result.status if sample["minimised"]][-1] == INSTALLING
    assert result.status_texts == [CHECKING, INSTALLING] and len(dots(result)) >= 2


# Proves: The mouse is pressed outside the mark
@pytest.mark.parametrize("drags, moved", [(["-70,-30"], (-70, -30)), (["50,20", "-20,-50"], (30, -30))], ids=["once", "twice"])
def test_window_is_dragged_by_its_text_and_can_still_be_minimised(lab, drags, moved):
    result = lab.run(SLOW, when=[*(f"{INSTALLS} : drag {drag}" for drag in drags), f"{INSTALLS} : click 1014"])
    lab.check(**AGREED)
    first, *_, last = [(one["x"], one["y"]) for one in shown(result) if not one["minimised"]]
    assert last == (first[0] + moved[0], first[1] + moved[1])
    assert any(sample["minimised"] for sample in result.status)


# Proves: It is closed by key or system menu => it stays
@pytest.mark.parametrize("action", ["close", "key escape"])
def test_window_cannot_be_closed(lab, action):
    result = lab.run(SHORT, when=[f"{INSTALLS} : {action}"])
    lab.check(**FAILED)
    at, end = result.actions[0]["at"], result.boxes[0]["since"]
    assert result.actions[0]["done"] and all(sample["exists"] for sample in result.status if at < sample["at"] < end)
    assert not any(sample["minimised"] for sample in result.status)


# Without a window

# Proves: Picture, dialog or the larger font cannot be created
@pytest.mark.parametrize("machine, wanted, log", [
    ({"adapters": []}, {"outcome": "no-adapter"}, [*opening(), *NO_ADAPTER_LEFT]),
    (found(), {"outcome": "repaired", "after": REPAIRED}, [*until_unpacked(), *REPAIR]),
], ids=["early exit", "repair"])
def test_without_a_display_the_run_takes_two_seconds_longer(lab, machine, wanted, log):
    """Neither window nor box can be created; the tool waits two seconds for the window."""
    result = lab.run({**machine, "registry": {r"HKCU\Software\Wine\Drivers": {"Graphics": "x11"}}})
    lab.check(**wanted, boxes=[], log=log)
    assert result.instances[0]["ended"] - result.instances[0]["started"] >= 2000
    assert not any(sample["exists"] for sample in result.status)


# Message boxes

# Proves: The box is answered, with a key or by closing it => the run waits for the answer, and any answer will do
@pytest.mark.parametrize("action", ["key return", "key escape", "key space", "close"])
def test_box_is_answered_in_any_way(lab, action):
    """The answer does not matter: the exit code is that of the check."""
    result = lab.run("compatible.toml", hold=20, when=[f"box : {action}"])
    lab.check(outcome="same-release", log=[*opening(version="24.20"), *inventory(), f"{SAME} Exiting."])
    assert result.boxes[0]["until"] - result.boxes[0]["since"] < 15000


def test_tool_runs_on_until_the_box_is_answered(lab):
    result = lab.run(found(), hold=0.5)
    lab.check(**AGREED, after=REPAIRED)
    assert result.boxes[0]["until"] - result.boxes[0]["since"] >= 500
    assert result.instances[0]["ended"] >= result.boxes[0]["until"] - 20
