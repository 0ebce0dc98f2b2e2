"""The picture: how much of each limit is used, drawn by gnuplot."""
from __future__ import annotations

import pathlib

from bench.figures import Row
from lab.children import command

SCRIPT = """\
$data << EOD
{data}
EOD
set terminal pngcairo size 1000,{height} font 'DejaVu Sans,10' background '#ffffff'
set output '{file}'
set title 'Measured against the goals' noenhanced
set border 3
set tics nomirror
set xrange [0:2]
set yrange [-0.7:{top}]
set xlabel 'part of the limit that is used (1: the goal is just met; 2: twice as much or more)'
set lmargin 62
unset key
set grid noytics xtics lc rgb '#dddddd'
set arrow from 1,-0.7 to 1,{top} nohead lw 2 lc rgb 'black'
set style fill solid
plot $data using ($2/2):1:($2/2):(0.35):4:ytic(3) with boxxyerror lc rgb variable
"""
MET, MISSED = 0x1f6fb2, 0xc0392b


def used(row: Row) -> float:
    """1: the goal is just met. At most 2."""
    if row.measure == "speed":
        return min(row.limit / row.figure, 2.0) if row.figure else 2.0
    return max(0.0, min(row.figure / row.limit, 2.0))


def script(file: pathlib.Path, rows: list[Row]) -> str:
    """Rows with a limit of 0 are left out: no part of it can be used."""
    data = [f'{place} {used(row)} "{row.what}{" / " + row.against if row.theirs else ""}" {MET if row.met else MISSED}'
            for place, row in enumerate(row for row in reversed(rows) if row.limit)]
    return SCRIPT.format(data="\n".join(data), file=file, height=120 + 26 * len(data), top=len(data) - 0.3)


def goals(folder: pathlib.Path, rows: list[Row]) -> pathlib.Path:
    picture, plot = folder / "goals.png", folder / "goals.plot"
    plot.write_text(script(picture, rows), "utf-8")
    if any(row.limit for row in rows):
        command("gnuplot", str(plot))
    return picture
