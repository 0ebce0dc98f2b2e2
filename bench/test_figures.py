"""The verdicts, the table, the CSV file and the page that scripts/bench makes of its measurements."""
from __future__ import annotations

import csv
import pathlib
import time

import pytest

from bench import __main__ as bench, report, size, turns
from bench.figures import Missing, Row, exit_code, quartiles
from bench.settings import FULL
from bench.watch import MODIFY, FileWatch, LogWatch, now


def row(measure: str, ours: list[float], theirs: list[float], limit: float | None, **more: str) -> Row:
    return Row("name", more.pop("what", "what"), "s", ours, "floor", theirs, measure, limit, **more)


@pytest.mark.parametrize("measure, ours, theirs, limit, met", [
    ("speed", [1.0, 1.0, 1.0], [0.97, 0.97, 0.97], 0.97, True),
    ("speed", [1.0, 1.0, 1.0], [0.96, 0.96, 0.96], 0.97, False),
    ("ratio", [1.5, 1.5, 1.5], [1.0, 1.0, 1.0], 1.5, True),
    ("ratio", [1.6, 1.6, 1.6], [1.0, 1.0, 1.0], 1.5, False),
    ("difference", [30.0, 31.0, 32.0], [1.0, 1.0, 2.0], 30, True),
    ("difference", [30.0, 32.0, 33.0], [1.0, 1.0, 2.0], 30, False),
    ("value", [1000.0], [], 1000, True),
    ("value", [1000.1], [], 1000, False),
    ("value", [1000.1], [], None, None),
])
def test_a_goal_is_met_at_its_limit_and_missed_beyond(measure, ours, theirs, limit, met):
    one = row(measure, ours, theirs, limit)
    assert (one.met, one.verdict) == (met, {True: "met", False: "MISSED", None: "-"}[met])


def test_pairs_are_compared_and_not_the_medians_of_both_sides():
    """The machine got slower in between: the ratio of each pair is 1, the ratio of the two medians is not."""
    assert row("ratio", [8.0, 1.0, 2.0], [4.0, 1.0, 4.0], 1).figures == [2.0, 1.0, 0.5]
    one = row("difference", [90.0, 20.0, 60.0, 70.0, 10.0], [80.0, 2.0, 59.0, 69.0, 1.0], 5)
    assert one.figures == [10.0, 18.0, 1.0, 1.0, 9.0]
    assert one.figure == 9.0 and one.met is False
    assert quartiles(one.ours)[1] - quartiles(one.theirs)[1] == 1.0


def test_one_disturbed_pair_decides_nothing():
    assert row("ratio", [1.0, 1.0, 50.0], [1.0, 1.0, 1.0], 1.2).met is True


@pytest.mark.parametrize("rows, missing, code", [
    ([("value", 1.0, 2.0)], [], 0),
    ([("value", 1.0, None)], [], 0),
    ([("value", 1.0, 2.0), ("value", 3.0, 2.0)], [], 1),
    ([("value", 1.0, 2.0)], [Missing("https", "https", "needs root")], 1),
    ([], [], 1),
])
def test_exit_code_is_1_when_a_goal_is_missed_or_not_measured(rows, missing, code):
    assert exit_code([row(measure, [ours], [], limit) for measure, ours, limit in rows], missing) == code


def test_sides_of_different_length_are_no_pairs():
    with pytest.raises(ValueError):
        row("ratio", [1.0, 2.0], [1.0], 1)
    with pytest.raises(ValueError):
        row("value", [], [], 1)


def test_contestants_take_turns_and_the_first_round_does_not_count():
    asked = []
    def contestant(name):
        return lambda: asked.append(name) or float(len(asked))
    values = turns.take({name: contestant(name) for name in "abc"}, 3, lambda text: None)
    assert "".join(asked) == "abc" + "abc" + "acb" + "cab"
    assert values == {"a": [4.0, 7.0, 11.0], "b": [5.0, 9.0, 12.0], "c": [6.0, 8.0, 10.0]}


def test_table_names_every_row_with_its_verdict():
    rows = [row("speed", [2.0, 2.0, 4.0], [1.0, 1.0, 1.0], 0.97, what="download", note="why"), row("value", [3.0], [], None)]
    text = "\n".join(report.lines(rows, [Missing("https", "over https", "needs root")]))
    assert "2.00 s (2.00 to 3.00)" in text and "at least 0.97 of its speed" in text and "MISSED" in text
    assert "not measured: over https: needs root" in text and "download: why" in text


def test_csv_file_has_every_measurement(tmp_path):
    report.write_csv(tmp_path / "x.csv", [row("ratio", [1.0, 2.0], [1.0, 1.5], 1.5), row("value", [3.0], [], 5)])
    measured = list(csv.DictReader((tmp_path / "x.csv").open()))
    assert [(line["pair"], line["ours"], line["theirs"]) for line in measured] == [("1", "1.0", "1.0"), ("2", "2.0", "1.5"), ("1", "3.0", "")]


def test_page_keeps_the_text_around_the_marks():
    text = f"head\n{report.BEGIN}\nold\n{report.END}\ntail\n"
    assert report.replace_between_marks(text, ["new", "lines"]) == f"head\n{report.BEGIN}\nnew\nlines\n{report.END}\ntail\n"
    for broken in ("no marks", report.BEGIN + report.BEGIN + report.END, report.END + report.BEGIN):
        with pytest.raises(ValueError):
            report.replace_between_marks(broken, [])


def test_page_has_the_marks():
    page = bench.PAGE.read_text("utf-8")
    assert report.replace_between_marks(report.replace_between_marks(page, ["x"]), ["y"], bench.SIZE_BEGIN, bench.SIZE_END) != page


def test_full_measurement_has_at_least_eleven_pairs():
    assert min(FULL.pairs, FULL.short_pairs, *(pairs for _, pairs in FULL.inf_sizes)) >= 11
    assert FULL.packages == (10, 100, 200) and FULL.memory[-1] == 5_000_000_000 and FULL.idle_seconds == 60


MAP = """Discarded input sections
 .text          0x0000000000000000       0x99 thrown/away.o
Linker script and memory map
.text           0x0000000140001000      0x300
 .text          0x0000000140001000      0x100 src/librepair.a(log.cpp.obj)
 .text$_ZNSt6locale
                0x0000000140001100      0x180 /usr/lib/libstdc++.a(locale-inst.o)
 *fill*         0x0000000140001280       0x80
.bss            0x0000000140002000       0x40
 .bss           0x0000000140002000       0x40 src/librepair.a(log.cpp.obj)
"""


def test_bytes_are_counted_by_the_object_they_were_taken_from():
    assert size.in_file(MAP) == {(".text", "src/librepair.a(log.cpp.obj)"): 0x100, (".text", "/usr/lib/libstdc++.a(locale-inst.o)"): 0x180}
    assert size.part_of("/usr/lib/libstdc++.a(locale-inst.o)") == "C++ library: locales"
    assert size.part_of("src/librepair.a(log.cpp.obj)") == "the tool itself"
    with pytest.raises(ValueError):
        size.in_file("no map")


def test_file_watch_sees_what_is_written_with_the_time(tmp_path: pathlib.Path):
    start = now()
    with FileWatch(tmp_path) as watch:
        (tmp_path / "x").write_text("text")
    assert start <= watch.first(MODIFY, "x") <= now()
    with pytest.raises(RuntimeError):
        watch.first(MODIFY, "y")


def test_log_watch_has_whole_lines(tmp_path: pathlib.Path):
    with LogWatch(tmp_path) as watch, open(tmp_path / "log", "wb", buffering=0) as log:
        log.write("first\nsec".encode("utf-16-le"))
        for _ in range(200):
            if not watch.lines:
                time.sleep(0.005)
        log.write("ond\n".encode("utf-16-le"))
    assert [line for _, line in watch.lines] == ["first", "second"]
    assert watch.when("first") <= watch.when("second")
    with pytest.raises(RuntimeError):
        watch.when("third")
