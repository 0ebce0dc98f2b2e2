"""The pictures: drawn by gnuplot from the measurements."""
from __future__ import annotations

import pathlib
import re

from bench.figures import Row, quartiles
from lab.children import command

HEAD = """\
set terminal pngcairo size {width},{height} font 'DejaVu Sans,10' background '#ffffff'
set output '{file}'
set title '{title}' noenhanced
set grid ytics lc rgb '#dddddd'
set border 3
set tics nomirror
set key top left noenhanced
"""
OURS, THEIRS = "#1f6fb2", "#999999"


def draw(file: pathlib.Path, title: str, script: str, width: int = 720, height: int = 360) -> pathlib.Path:
    text = HEAD.format(width=width, height=height, file=file, title=title) + script
    script_file = file.with_suffix(".plot")
    script_file.write_text(text, "utf-8")
    command("gnuplot", str(script_file))
    return file


def block(name: str, lines: list[str]) -> str:
    return "\n".join([f"${name} << EOD", *lines, "EOD", ""])


def bars(file: pathlib.Path, title: str, unit: str, values: list[tuple[str, list[float]]]) -> pathlib.Path:
    """One bar for each, as high as the median, with the quartiles."""
    lines = []
    for place, (name, measured) in enumerate(values):
        low, middle, high = quartiles(measured)
        lines.append(f'{place} {middle} {low} {high} "{name}" {0x1f6fb2 if name == "tool" else 0x999999}')
    script = block("data", lines) + f"""\
set ylabel '{unit}'
set yrange [0:*]
set xrange [-0.6:{len(values) - 0.4}]
set boxwidth 0.6
set style fill solid
unset key
plot $data using 1:2:6:xtic(5) with boxes lc rgb variable, $data using 1:2:3:4 with yerrorbars lc rgb 'black' ps 0
"""
    return draw(file, title, script, width=540)


def downloads(folder: pathlib.Path, rows: list[Row]) -> list[pathlib.Path]:
    drawn = []
    for name in ("download", "https"):
        own = [row for row in rows if row.name == name]
        if own:
            values = [("tool", own[0].ours), *((row.against.split()[-1].replace("loop", "bare loop"), row.theirs) for row in own)]
            drawn.append(bars(folder / f"{name}.png", own[0].what, "s", values))
    return drawn


def packages(folder: pathlib.Path, rows: list[Row]) -> list[pathlib.Path]:
    """Seconds over the number of driver packages, one picture for each size of their INF."""
    sizes: dict[str, list[str]] = {}
    for row in rows:
        found = re.match(r"(\d+) driver packages of (\d+ \w+)", row.what)
        if found:
            parts = [str(part) for values in (row.ours, row.theirs) for part in quartiles(values)]
            sizes.setdefault(found[2], []).append(" ".join([found[1], *parts]))
    drawn = []
    for size, lines in sizes.items():
        script = block("data", lines) + f"""\
set xlabel 'driver packages'
set ylabel 's'
set xrange [0:*]
set yrange [0:*]
plot $data using 1:3:2:4 with yerrorlines lw 2 pt 7 lc rgb '{OURS}' title 'the tool', \\
     $data using 1:6:5:7 with yerrorlines lw 2 pt 6 lc rgb '{THEIRS}' title 'a plain loop over SetupAPI'
"""
        file = folder / f"packages-{size.replace(' ', '').lower()}.png"
        drawn.append(draw(file, f"Looking through driver packages with an INF of {size}", script))
    return drawn


def memory(folder: pathlib.Path, rows: list[Row]) -> list[pathlib.Path]:
    """Peak memory over the size of the download."""
    lines: dict[str, list[str]] = {}
    for row in rows:
        if row.name == "memory" and row.what.startswith("peak memory"):
            size = row.what.rpartition("download of ")[2]
            cells = lines.setdefault(size, [f'"{size}"', str(quartiles(row.ours)[1])])
            cells.append(str(quartiles(row.theirs)[1]))
    if not lines:
        return []
    script = block("data", [" ".join(cells) for cells in lines.values()]) + f"""\
set ylabel 'MiB'
set yrange [0:*]
set style data histograms
set style fill solid
set key outside right
plot $data using 2:xtic(1) lc rgb '{OURS}' title 'the tool', \\
     $data using 4 lc rgb '#666666' title 'loop in a plain program', $data using 3 lc rgb '#bbbbbb' title 'bare loop'
"""
    return [draw(folder / "memory.png", "Peak memory of a download", script)]


def goals(folder: pathlib.Path, rows: list[Row]) -> list[pathlib.Path]:
    """How much of each limit is used, all goals in one picture."""
    lines = []
    for row in rows:
        if row.limit:
            more_is_better = row.measure == "speed"
            used = row.limit / row.figure if more_is_better and row.figure else row.figure / row.limit
            lines.append((row, max(0.0, min(used, 2.0))))
    if not lines:
        return []
    data = [f'{place} {used} "{row.what}{" / " + row.against if row.theirs else ""}" {0x1f6fb2 if row.met else 0xc0392b}'
            for place, (row, used) in enumerate(reversed(lines))]
    script = block("data", data) + f"""\
set xrange [0:2]
set yrange [-0.7:{len(data) - 0.3}]
set xlabel 'part of the limit that is used (1: the goal is just met; 2: twice as much or more)'
set lmargin 62
unset key
set grid noytics xtics
set arrow from 1,-0.7 to 1,{len(data) - 0.3} nohead lw 2 lc rgb 'black'
set style fill solid
plot $data using ($2/2):1:($2/2):(0.35):4:ytic(3) with boxxyerror lc rgb variable
"""
    return [draw(folder / "goals.png", "Measured against the goals", script, width=1000, height=60 + 26 * len(data) + 60)]


def draw_all(folder: pathlib.Path, rows: list[Row]) -> list[pathlib.Path]:
    return [file for plot in (goals, downloads, memory, packages) for file in plot(folder, rows)]
