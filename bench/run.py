#!/usr/bin/env python3
"""Measures this library beside others and beside the bare system calls.

Every case is run by each of its programs in turn, and all of that several times over, so that what
disturbs the machine disturbs all of them. Runs are short and many: whatever copies 16 KiB and more at
a time falls, on some machines, to a fraction of its speed for a whole run now and then, and a
median of few runs shows who was unlucky. Compared are medians. Start it with scripts/bench.

A suite is a module in suites/ with make_cases(). It may also have count_all(runner), which counts
something in runs of its own, print_counts(counts), judge_more(cases, counts), which gives further
targets, why_not(runner), a line that says why it cannot be measured here or None, MOST_RUNS, and
print_before(), which says what the figures do not.
"""
import argparse
import importlib
import json
import pkgutil
import sys

import suites
from machine import describe_tree_and_machine
from measure import (Runner, describe_cases, judge_cases, print_cases, print_targets, progress,
                     run_all)

SUITES = sorted(module.name for module in pkgutil.iter_modules(suites.__path__))


class Result:
    """One suite, measured."""

    def __init__(self, name, options):
        suite = importlib.import_module(f"suites.{name}")
        runner = Runner(options.bin, options.seconds)
        self.name = name
        self.title = suite.__doc__.splitlines()[0]
        self.cases = [case for case in suite.make_cases() if options.only in case.name]
        self.counts, self.targets = [], []
        reason = suite.why_not(runner) if self.cases and hasattr(suite, "why_not") else None
        if reason:
            print(f"{name}: not measured: {reason}")
            self.cases = []
        if not self.cases:
            return
        runs = min(options.runs, getattr(suite, "MOST_RUNS", options.runs))
        self.seconds = run_all(self.cases, runner, runs)
        if hasattr(suite, "count_all") and not options.only:
            self.counts = suite.count_all(runner)
        self.targets = judge_cases(self.cases)
        if hasattr(suite, "judge_more"):
            self.targets += suite.judge_more(self.cases, self.counts)
        progress("")
        print(f"{name}: {self.title}")
        if hasattr(suite, "print_before"):
            suite.print_before()
        print_cases(self.cases)
        if self.counts:
            suite.print_counts(self.counts)
        if self.targets:
            print_targets(self.targets)
        print()

    def describe(self):
        return {"suite": self.name, "title": self.title, "took_seconds": round(self.seconds, 1),
                "cases": describe_cases(self.cases), "counts": self.counts, "targets": self.targets}


def parse():
    parser = argparse.ArgumentParser(prog="scripts/bench", description=__doc__.split("\n\n")[0])
    parser.add_argument("suite", nargs="*", metavar="SUITE",
                        help=f"of {', '.join(SUITES)}; all of them unless said otherwise")
    parser.add_argument("--runs", type=int, default=15, help="of each case (default 15)")
    parser.add_argument("--seconds", type=float, default=0.4, help="of each run (default 0.4)")
    parser.add_argument("--quick", action="store_true", help="3 runs of 0.2 s: a first impression")
    parser.add_argument("--only", default="", metavar="TEXT", help="cases with TEXT in the name")
    parser.add_argument("--json", metavar="FILE", help="for all that was measured")
    parser.add_argument("--bin", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--check-arguments", action="store_true", help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.quick:
        options.runs, options.seconds = 3, 0.2
    if options.runs < 1 or options.seconds <= 0:
        parser.error("at least one run, of more than 0 seconds")
    for name in options.suite:
        if name not in SUITES:
            parser.error(f"no suite '{name}'; there are: {', '.join(SUITES)}")
    return options


def main():
    options = parse()
    if options.check_arguments:
        return 0
    results = [Result(name, options) for name in options.suite or SUITES]
    results = [result for result in results if result.cases]
    if not results:
        sys.exit(f"bench: no case has '{options.only}' in its name" if options.only else 1)
    if options.json:
        described = {
            **describe_tree_and_machine(),
            "runs": options.runs, "seconds": options.seconds,
            "suites": [result.describe() for result in results],
        }
        with open(options.json, "w", encoding="utf-8") as file:
            json.dump(described, file, indent=1)
    targets = [target for result in results for target in result.targets]
    failed = sum(not one["passed"] for one in targets)
    print(f"{len(targets) - failed} of {len(targets)} targets met")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
