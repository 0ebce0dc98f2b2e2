"""Logs that the model of the fault campaign expects."""
import re
from collections.abc import Iterator

from cases.fault_injection import campaign, model
from cases.fault_injection.world import World


def expected_logs() -> Iterator[tuple[str, str, int, tuple[str, ...]]]:
    """For each planned run and each of its possible endings: id of the run, outcome, exit code, lines."""
    for run in campaign.runs():
        machine = run.machine()
        for ending in model.endings(machine, World.of(machine), run.scenario.arguments, run.fault):
            yield run.id, ending.outcome, ending.exit_code, tuple(map(filled, ending.log))


def filled(line: str) -> str:
    return re.sub(r"\{[a-z0-9]+\}", lambda match: "1605" if match[0] == "{number}" else "text", line)
