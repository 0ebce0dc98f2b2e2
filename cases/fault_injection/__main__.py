#!/usr/bin/python3
"""Lets each call into Windows that the tool makes fail once, on twenty machines, and judges what comes of it.

  scripts/inject-faults                    all runs that have no good result yet; stop it and start it again as you like
  scripts/inject-faults --sample 150       a random part (--seed for another one)
  scripts/inject-faults --slice 3/30       the third of 30 slices; "commit" is the slice that scripts/test runs
  scripts/inject-faults --only 'store/*'   runs whose names match
  scripts/inject-faults --list             the names of the runs, nothing is run
  scripts/inject-faults --show NAME        one run with all its logs and calls, and the machine kept
  scripts/inject-faults --count            measures the undisturbed runs again, from which the list is made

A name says which machine, which function, which of its calls and with which code it fails: found/msi!MsiInstallProductW#2=1603.
"~" instead of "=": the real call is made, and then reported as failed. Steps of the Store have no "!": store/find=0x80070005.

Results: build/fault-injection/results.jsonl, a line for each run, and build/fault-injection/summary.json. The exit code is 0 only when every
run was made and is right.
"""
from __future__ import annotations

import argparse
import fnmatch
import pathlib
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT))

from lab.result import render  # noqa: E402
from cases.fault_injection import campaign, plan  # noqa: E402


def chosen(options: argparse.Namespace) -> list[plan.Planned]:
    runs = plan.planned()
    if options.only:
        runs = [run for run in runs if fnmatch.fnmatchcase(run.id, options.only)]
    if options.slice:
        part = plan.slice_of(campaign.commit(), runs) if options.slice == "commit" else options.slice
        print(f"slice {part}", file=sys.stderr)
        runs = plan.take_slice(runs, part)
    return plan.take_sample(runs, options.sample, options.seed) if options.sample else runs


def show(name: str) -> int:
    if name not in campaign.by_id():
        print(f"scripts/inject-faults: there is no run {name}", file=sys.stderr)
        return 2
    result, verdict = campaign.execute(campaign.by_id()[name], keep=True)
    print(render(result, calls=True))
    print(f"\nend: {verdict.end}", *verdict.problems, sep="\n")
    return 1 if verdict.problems else 0


def main() -> int:
    parser = argparse.ArgumentParser(prog="scripts/inject-faults", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--list", action="store_true", help="print the names of the runs")
    parser.add_argument("--count", action="store_true", help="measure again and write cases/fault_injection/counts.json")
    parser.add_argument("--show", metavar="NAME", help="make one run and print everything about it")
    parser.add_argument("--jobs", type=int, default=4, metavar="N", help="so many runs at a time (4)")
    parser.add_argument("--slice", metavar="K/N", help="every N-th run, from the K-th on")
    parser.add_argument("--sample", type=int, metavar="N", help="N runs by chance")
    parser.add_argument("--seed", type=int, default=1, metavar="S", help="of the sample (1)")
    parser.add_argument("--only", metavar="PATTERN", help="runs whose names match, with * and ?")
    parser.add_argument("--fresh", action="store_true", help="forget the results so far")
    options = parser.parse_args()
    if options.show:
        return show(options.show)
    if options.count:
        problems = campaign.count(options.jobs, write=True)
        print("\n".join(problems) or f"{len(plan.planned())} runs planned")
        return 1 if problems else 0
    try:
        runs = chosen(options)
    except ValueError as error:
        parser.error(str(error))
    if options.list:
        print("\n".join(run.id for run in runs))
        return 0
    if len(runs) == len(plan.planned()):
        problems = campaign.count(options.jobs, write=False)
        if problems:
            print("the undisturbed runs are not as they should be:", *problems, sep="\n")
            return 1
    return 1 if campaign.campaign(runs, options.jobs, options.fresh) else 0


if __name__ == "__main__":
    sys.exit(main())
