"""The result of a run, as plain data and as text for a reader."""
from __future__ import annotations

import dataclasses
import json
import pathlib
from typing import Any

from lab.state import State


@dataclasses.dataclass
class Again:
    """The second start, on the machine as the first one left it."""
    exit_code: int
    log: list[str]
    boxes: list[dict[str, Any]]
    calls: list[str]
    store_calls: list[str]


@dataclasses.dataclass
class Result:
    exit_code: int
    log: list[str]                   # of the first instance
    logs: list[list[str]]            # of all instances, in the order of their start
    boxes: list[dict[str, Any]]      # in the order in which they came up
    status: list[dict[str, Any]]     # the status window, whenever something about it changed
    requests: list[dict[str, Any]]   # to the download server
    calls: list[str]                 # calls into Windows that the stand-ins recorded
    store_calls: list[str]
    store_left: list[str]            # Store packages that remain
    programs: list[str]              # starts of the desktop edition's programs
    installer: list[str]             # starts of the installer: command lines
    instances: list[dict[str, Any]]
    actions: list[dict[str, Any]]
    started_before: list[dict[str, Any]]
    still_running: list[str]
    event: str                       # of an action "watch": "set" or "not set"
    timed_out: bool
    before: State
    after: State
    output: list[str]                # standard output of each instance
    errors: str                      # standard error of Wine, for example about a crash
    server: str                      # host:port of the download server
    seconds: float
    disk_used: int                   # the most that the machine's sparse file took
    pictures: list[str]
    prefix: str = ""                 # where the machine was kept
    again: Again | None = None       # calls, store_calls and boxes above are then those of the first start alone

    @property
    def status_texts(self) -> list[str]:
        """The status line over time, of the first instance, each text once per change."""
        texts: list[str] = []
        for sample in self.status:
            if sample["instance"] == 0 and sample["exists"] and sample["line"] and texts[-1:] != [sample["line"]]:
                texts.append(sample["line"])
        return texts

    def file(self, path: str) -> pathlib.Path:
        """A file of the machine as the run has left it. path: "C:\\...", in the letters it has there."""
        return pathlib.Path(self.prefix, "prefix", "drive_c", *path.split("\\")[1:])

    def json(self) -> str:
        return json.dumps(dataclasses.asdict(self), indent=1, ensure_ascii=False)


def _changes(before: dict[str, Any], after: dict[str, Any]) -> list[str]:
    lines = [f"  - {key}" for key in before if key not in after]
    lines += [f"  + {key}" + (f" ({after[key]} bytes)" if isinstance(after[key], int) and after[key] >= 0 else "")
              for key in after if key not in before]
    changed = [key for key in before if key in after and before[key] != after[key]]
    return lines + [f"  * {key}: {before[key]} -> {after[key]}" for key in changed]


def _flat(registry: dict[str, dict[str, Any]]) -> dict[str, Any]:
    return {f"{key}\\{name}": repr(value) for key, values in registry.items() for name, value in values.items()}


def render(result: Result, calls: bool = False, outcome: str = "") -> str:
    """What a supporter wants to see, in the order of interest."""
    lines = [f"exit code   {result.exit_code}" + ("   TIMED OUT" if result.timed_out else ""),
             *([f"outcome     {outcome}"] if outcome else []),
             f"took        {result.seconds:.1f} s"]
    for number, log in enumerate(result.logs):
        lines += ["", "log" if number == 0 else f"log of instance {number + 1}", *(f"  {line}" for line in log)]
    lines += ["", "message boxes"]
    for box in [*result.boxes, *(result.again.boxes if result.again else [])]:
        looks = f"(icon {box['icon']}, buttons {', '.join(box['buttons'])})"
        lines.append(f"  {box['since']} ms  [{box['caption']}] {box['text']}  {looks}")
    lines += ["", "status window"]
    for sample in result.status:
        shown = "minimised" if sample["minimised"] else "shown" if sample["visible"] else "hidden"
        lines.append(f"  {sample['at']:6} ms  {shown:9}  {sample['line']:50} {sample['dots']}")
    lines += ["", "requests to the download server"]
    lines += [f"  {item['method']} {item['path']} -> {item['status']}, {item['bytes']} bytes" for item in result.requests]
    lines += ["", "programs started", *(f"  {line}" for line in [*result.installer, *result.programs])]
    lines += ["", "products before", *(f"  {name}" for name in result.before.products)]
    lines += ["", "products after", *(f"  {name}" for name in result.after.products)]
    lines += ["", "registry changes", *_changes(_flat(result.before.registry), _flat(result.after.registry))]
    lines += ["", "files changed", *_changes(result.before.files, result.after.files)]
    if calls:
        lines += ["", "calls", *(f"  {line}" for line in [*result.calls, *result.store_calls])]
        if result.again:
            lines += ["", "calls of the second start", *(f"  {line}" for line in [*result.again.calls, *result.again.store_calls])]
    if result.errors.strip():
        lines += ["", "errors of the system", *(f"  {line}" for line in result.errors.splitlines()[:40])]
    if result.pictures:
        lines += ["", "pictures", *(f"  {picture}" for picture in result.pictures)]
    if result.prefix:
        lines += ["", f"kept in {result.prefix}"]
    return "\n".join(lines)
