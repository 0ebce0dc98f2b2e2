"""Logs that the model of the fault campaign expects."""
import re
from collections.abc import Iterator

from cases.fault_injection import model, plan
from cases.fault_injection.world import World


def expected_logs() -> Iterator[tuple[str, str, int, tuple[str, ...]]]:
    """Of each planned run and each of its possible outcomes: id of the run, outcome, exit code, lines."""
    for run in plan.planned():
        machine = run.machine()
        for outcome in model.outcomes(machine, World.of(machine), run.scenario.arguments, run.fault):
            yield run.id, outcome.id, outcome.exit_code, tuple(map(filled, outcome.log))


def filled(line: str) -> str:
    return re.sub(r"\{[a-z0-9]+\}", lambda match: "1605" if match[0] == "{number}" else "text", line)
