#!/usr/bin/python3
"""Lets each call into Windows that the tool makes fail once, on twenty machines, and judges each run.

  scripts/inject-faults                    all runs that have no good result yet; stop it and start it again as you like
  scripts/inject-faults --slice 3/30       the third of 30 slices; "commit" is the slice that scripts/test runs
  scripts/inject-faults --only 'store/*'   runs whose names match
  scripts/inject-faults --list             the names of the runs, nothing is run
  scripts/inject-faults --show NAME        one run with all its logs and calls; the machine is kept

A name says which machine, which function, which of its calls and with which code it fails: found/msi!MsiInstallProductW#2=1603.
"~" instead of "=": the real call is made, and then reported as failed. Steps of the Store have no "!": store/find=0x80070005.

Results: build/fault-injection/results.jsonl, a line for each run, and summary.json beside it. The exit code is 0 only when
every run was made and passed.
"""
from __future__ import annotations

import argparse
import fnmatch
import sys

from lab.result import render
from cases.fault_injection import campaign, plan


def show(name: str) -> int:
    if name not in campaign.by_id():
        print(f"scripts/inject-faults: unknown run: {name}. --list prints all names.", file=sys.stderr)
        return 2
    result, problems = campaign.execute(campaign.by_id()[name], keep=True)
    print(render(result, calls=True), "", *(problems or ["as the model says"]), sep="\n")
    return 1 if problems else 0


def main() -> int:
    parser = argparse.ArgumentParser(prog="scripts/inject-faults", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--list", action="store_true", help="print the names of the runs")
    parser.add_argument("--show", metavar="NAME", help="make one run and print everything about it")
    parser.add_argument("--jobs", type=int, default=4, metavar="N", help="number of runs at a time (default: 4)")
    parser.add_argument("--slice", metavar="K/N", help="every N-th run, from the K-th on")
    parser.add_argument("--only", metavar="PATTERN", help="runs whose names match, with * and ?")
    parser.add_argument("--fresh", action="store_true", help="forget the results so far")
    options = parser.parse_args()
    if options.show:
        return show(options.show)
    runs = [run for run in campaign.runs() if not options.only or fnmatch.fnmatchcase(run.id, options.only)]
    if options.slice:
        try:
            runs = plan.take_slice(runs, campaign.slice_name() if options.slice == "commit" else options.slice)
        except ValueError as error:
            parser.error(str(error))
    if options.list:
        print("\n".join(run.id for run in runs))
        return 0
    wrong = [f"{name}: {problem}" for name, found in campaign.undisturbed().items() for problem in found["problems"]]
    if wrong:
        print("the undisturbed runs are not as the model says:", *wrong, sep="\n")
        return 1
    return 1 if campaign.campaign(runs, options.jobs, options.fresh) else 0


if __name__ == "__main__":
    sys.exit(main())
