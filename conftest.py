"""The fixture `lab`: one run of the tool on a described machine, and the check of its result."""
from __future__ import annotations

import contextlib
import fnmatch
import os
import pathlib
import re
import time
from typing import Any

import pytest

ROOT = pathlib.Path(__file__).resolve().parent

from cases.support import corpus, expect, statements  # noqa: E402
from lab import paths  # noqa: E402
from lab.machine import Machine  # noqa: E402
from lab.result import Result, render  # noqa: E402
from lab.privileges import mounting_obstacle, private_hosts_obstacle  # noqa: E402
from lab.run import RunError, run  # noqa: E402
from lab.session import end_orphans, remove_folder  # noqa: E402
from lab.state import State  # noqa: E402

DAY = 24 * 3600
CORES = sorted(os.sched_getaffinity(0))

# Exit code and box of a run with one of these outcomes; the first pattern that fits counts.
ENDS = {
    "repaired*": (0, expect.FINISHED), "store-installed": (0, expect.FINISHED), "store-not-completed": (-1, expect.INSTALL_FAILED),
    "same-release": (-1, expect.SAME_RELEASE), "no-application*": (-1, expect.NOT_INSTALLED),
    "no-adapter": (-1, expect.NO_ADAPTER), "no-usable-driver": (-1, expect.NO_ADAPTER),
    "download-*": (-1, expect.DOWNLOAD_FAILED),
    "folder-not-prepared": (-1, expect.INSTALL_FAILED), "installation-exception": (-1, expect.INSTALL_FAILED),
    "installer-*": (2, expect.INSTALL_FAILED), "install-failed": (1603, expect.INSTALL_FAILED),
    "quiet-end": (expect.QUIET_END, None), "direct-no-location": (expect.QUIET_END, None),
    "direct-file-missing": (2, None), "direct-*": (0, None),
}


def pytest_configure(config: pytest.Config) -> None:
    """Ends what an interrupted test run has left running, and removes machines of failed cases after a day."""
    config.addinivalue_line("markers", "slow: started first, because it mostly waits")
    config.addinivalue_line("markers", "all_cores: its programs are to run at the same moment, not in turns")
    if hasattr(config, "workerinput"):
        return
    corpus.forget_others()
    if paths.RUNS.exists():
        end_orphans()
        for folder in paths.RUNS.iterdir():
            with contextlib.suppress(FileNotFoundError):  # another run may have removed it meanwhile
                if time.time() - folder.stat().st_mtime > DAY:
                    remove_folder(folder)


def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    """Cases that mostly wait are started first, so that the others run beside them."""
    items.sort(key=lambda item: item.get_closest_marker("slow") is None)


@pytest.fixture(autouse=True)
def one_core(request: pytest.FixtureRequest) -> None:
    """All programs of a case share a core. They and Wine's server mostly wait for each other, and waking a program on another
    core costs a sixth of all computing time on two cores."""
    worker = int(os.environ.get("PYTEST_XDIST_WORKER", "gw0").removeprefix("gw"))
    workers = int(os.environ.get("PYTEST_XDIST_WORKER_COUNT", "1"))
    spread = workers < len(CORES) or request.node.get_closest_marker("all_cores") is not None
    os.sched_setaffinity(0, CORES if spread else {CORES[worker % len(CORES)]})


def end_of(statement: str) -> tuple[int | None, tuple[str, str] | None]:
    """Exit code and box of the first start in a statement of outcomes; (None, None) when they do not follow from the outcome."""
    first = re.match(r"(?:\d+ )?([a-z-]+)", statement)[1]
    return next((end for pattern, end in ENDS.items() if fnmatch.fnmatchcase(first, pattern)), (None, None))


class Lab:
    def __init__(self) -> None:
        self.machine: Machine | None = None
        self.result: Result | None = None
        self.runs: list[tuple[Result, bool]] = []  # result, and whether all starts were made at once
        self.stated: dict[int, str] = {}  # number of the run -> the outcomes that the case states
        self.kept: list[pathlib.Path] = []
        self.silent = False

    def run(self, machine: dict[str, Any] | str | None = None, arguments: str = "", **options: Any) -> Result:
        """machine: what differs from the common machine, or the name of a file in lab/machines."""
        if isinstance(machine, str):
            self.machine = Machine.load(ROOT / "lab" / "machines" / machine)
        else:
            self.machine = Machine(machine or {})
        self.silent = "-silent" in arguments.lower().split()
        if (self.machine.server.reach == "default" or self.machine.data["hosts"]) and private_hosts_obstacle():
            pytest.skip(private_hosts_obstacle())
        if self.machine.data["disks"] and mounting_obstacle():
            pytest.skip(mounting_obstacle())
        try:
            self.result = run(self.machine, arguments, keep=True, **options)
        except RunError as error:
            self.kept.append(error.folder)
            raise
        self.kept.append(pathlib.Path(self.result.prefix))
        self.runs.append((self.result, options.get("at_once", 1) > 1))
        return self.result

    def outcome(self, statement: str) -> None:
        """States the outcome of each start of the last run, in order: "repaired", "same-release, 2 another-instance",
        "repaired | no-log". Every run of a case needs this, here or in check()."""
        self.stated[len(self.runs)] = statement

    def check(self, *, exit_code: int | None = None, outcome: str | None = None, log: list[str] | None = None,
              boxes: list[tuple[str, str]] | None = None, before: dict[str, Any] | None = None, after: dict[str, Any] | None = None,
              requests: list[str] | None = None, running: list[str] | None = None, crash: bool = False) -> None:
        """States are tables: products (names), values ("key\\name" below HKLM -> value, None: absent), files (present),
        missing (absent files), store (Store packages, after only). requests: "<path> <status>"; running: programs left.
        Exit code and boxes are those of the outcome (expect.ENDS) unless given; a silent run has no box."""
        result = self.result
        assert result is not None and self.machine is not None
        if outcome is not None:
            self.outcome(outcome)
            code, box = end_of(outcome)
            exit_code = code if exit_code is None else exit_code
            boxes = [box] * (box is not None and not self.silent) if boxes is None and code is not None else boxes
        names = ["Tavik " + " ".join(product.split("-")[:2]) for product in self.machine.products]
        self._check_state("before the run", result.before, {"products": sorted(names), **(before or {})})
        assert not result.timed_out, "the run was ended by the time limit"
        bad = [line for line in [*result.calls, *result.store_calls] if line.startswith("!bad")]
        assert not bad, f"the case's own rules are not understood: {bad}"
        assert crash or "Unhandled exception" not in result.errors, result.errors
        assert result.exit_code == exit_code
        if log is not None:
            difference = expect.compare_log(log, result.log, expect.places(self.machine, result))
            assert not difference, difference
        if boxes is not None:
            assert [(box["icon"], box["text"]) for box in result.boxes if box["instance"] == 0] == boxes
        for box in result.boxes:
            assert (box["caption"], box["buttons"], box["title_icon"]) == (expect.CAPTION, ["OK"], "big and small")
            assert box["status_hidden"], "the status window is hidden before a message is shown"
        self._check_state("after the run", result.after, after or {})
        if after and "store" in after:
            assert result.store_left == after["store"]
        if requests is not None:
            assert [f"{item['path']} {item['status']}" for item in result.requests] == requests
        assert sorted(result.still_running) == sorted(running or [])

    @staticmethod
    def _check_state(when: str, state: State, wanted: dict[str, Any]) -> None:
        unknown = set(wanted) - {"products", "values", "files", "missing", "store"}
        assert not unknown, f"unknown in a state: {unknown}"
        if "products" in wanted:
            assert state.products == wanted["products"], when
        for path, value in wanted.get("values", {}).items():
            key, _, name = path.rpartition("\\")
            assert (path, state.value(key, name)) == (path, value), when
        present = {path.lower() for path in state.files}
        assert [path for path in wanted.get("files", []) if path.lower() not in present] == [], f"missing {when}"
        assert [path for path in wanted.get("missing", []) if path.lower() in present] == [], f"still there {when}"

    def check_outcomes(self) -> None:
        """Each start must have exactly one outcome of the catalogue: the one that the case states."""
        for number, (result, at_once) in enumerate(self.runs, 1):
            codes = [one["exit_code"] for one in result.instances]
            assert number in self.stated, (f"run {number} has no stated outcome: {statements.found(codes, result.logs)!r} came of it. "
                                           "If that is what the case is about, add outcome=... to its check")
            difference = statements.compare(statements.starts(self.stated[number]), codes, result.logs, at_once)
            assert not difference, f"outcomes of run {number}: {difference}"
            if len(codes) == len(result.logs) and not at_once:
                for code, log in zip(codes, result.logs):
                    corpus.add(*statements.recognised(code, log), code, log)


@pytest.fixture
def lab(request: pytest.FixtureRequest):
    one = Lab()
    request.node.lab = one
    yield one
    if not getattr(request.node, "failed", False):
        for folder in one.kept:
            remove_folder(folder)


@pytest.hookimpl(hookwrapper=True)
def pytest_pyfunc_call(pyfuncitem: pytest.Function):
    """Compares the outcomes once the case itself has passed."""
    outcome = yield
    if outcome.excinfo is None and hasattr(pyfuncitem, "lab"):
        pyfuncitem.lab.check_outcomes()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item: pytest.Item, call: pytest.CallInfo):
    outcome = yield
    report = outcome.get_result()
    if call.when == "call" and report.failed:
        item.failed = True
        one = getattr(item, "lab", None)
        if one is not None and one.result is not None:
            report.sections.append(("the run", render(one.result)))
