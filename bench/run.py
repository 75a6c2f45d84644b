#!/usr/bin/env python3
"""Measures zarnutils over local IPC beside other libraries and the bare system calls.

Every case is run by each of its programs in turn, and all of that several times over, so that what
disturbs the machine disturbs all of them. Compared are medians. Start it with scripts/bench.
"""
import argparse
import json
import os
import platform
import signal
import statistics
import subprocess
import sys
import tempfile
import time

SIZES = (64, 1024, 16384, 65000)
PROGRAMS = {
    "zarn": "bench_zarn_ipc",
    "raw": "bench_raw",
    "asio": "bench_asio",
    "zmq": "bench_zmq",
    "nng": "bench_nng",
}
SPIN = ["--spin", "100"]
CLIENTS = 2000

RATE = "rate"  # messages a second
ROUND_TRIP = "p50_us"  # median of a run, microseconds


class Case:
    """What is run: one line of arguments for each contestant, of which the first is ours."""

    def __init__(self, name, metric, contestants, limits):
        self.name = name
        self.metric = metric
        self.contestants = contestants  # name -> program and arguments
        self.limits = limits  # (contestant that ours is divided by, "at least"/"at most", bound)
        self.results = {name: [] for name in contestants}

    def median(self, contestant, key=None):
        return statistics.median(result[key or self.metric] for result in self.results[contestant])

    def ratio(self, contestant, base=None):
        return self.median(base or self.ours()) / self.median(contestant)

    def ours(self):
        return next(iter(self.contestants))


def side_by_side(peers, mode, size, *more):
    arguments = [mode, "--size", str(size), *more]
    return {peer: [PROGRAMS[peer], *arguments] for peer in peers}


def make_cases():
    one_way = {
        64: [("zmq", "at least", 3), ("raw", "at least", 0.3)],
        1024: [("raw", "at least", 0.6)],
        16384: [("raw", "at least", 0.9)],
        65000: [("raw", "at least", 0.8)],
    }
    cases = []
    for size in SIZES:
        cases.append(Case(f"one way {size} B", RATE, side_by_side(PROGRAMS, "oneway", size),
                          one_way[size]))
    for size in SIZES:
        cases.append(Case(f"round trip {size} B, sleeping", ROUND_TRIP,
                          side_by_side(PROGRAMS, "pingpong", size), [("asio", "at most", 1.1)]))
    for size in SIZES:
        cases.append(Case(f"round trip {size} B, spinning", ROUND_TRIP,
                          side_by_side(("zarn", "raw"), "pingpong", size, *SPIN),
                          [("raw", "at most", 1.5)]))
    cases += make_client_cases()
    return cases


def make_client_cases():
    program = [PROGRAMS["zarn"], "oneway", "--size", "64"]
    many = [*program, "--clients", str(CLIENTS)]
    alone = "1 client"
    return [
        # Within what repeated runs of one program differ by.
        Case(f"{CLIENTS} clients, 1 of them sends 64 B", RATE,
             {"zarn": [*many, "--active", "1"], alone: program}, [(alone, "at least", 0.85)]),
        Case(f"{CLIENTS} clients, all of them send 64 B", RATE,
             {"zarn": [*many, "--active", str(CLIENTS), "--seconds", "3"], alone: program},
             [(alone, "at least", 0.7)]),
    ]


class Runner:
    def __init__(self, directory, seconds):
        self.directory = directory
        self.seconds = seconds

    def run(self, arguments):
        """The object that the program prints."""
        program, *rest = arguments
        if "--seconds" not in rest:
            rest += ["--seconds", str(self.seconds)]
        with tempfile.TemporaryDirectory(prefix="zarnbench") as scratch:
            done = subprocess.run([os.path.join(self.directory, program), *rest], check=False,
                                  stdout=subprocess.PIPE, text=True, timeout=120,
                                  env={**os.environ, "TMPDIR": scratch})
        if done.returncode == 0:
            return json.loads(done.stdout)
        progress("")
        reason = f"ended with {done.returncode}"
        if done.returncode < 0:
            reason = f"was ended by {signal.Signals(-done.returncode).name}"
        sys.exit(f"bench: {program} {' '.join(rest)} {reason}")


def run_all(cases, runner, runs):
    start = time.monotonic()
    for number in range(1, runs + 1):
        for case in cases:
            progress(f"run {number} of {runs}: {case.name}")
            for contestant, arguments in case.contestants.items():
                case.results[contestant].append(runner.run(arguments))
    progress("")
    return time.monotonic() - start


def count_all(runner):
    """Allocations and system calls of each program per message. Counting slows down, so it is done
    in runs of its own."""
    counts = []
    for mode, size in [("oneway", size) for size in SIZES] + [("pingpong", 64)]:
        for peer, program in PROGRAMS.items():
            progress(f"counting: {peer}, {mode} {size} B")
            result = runner.run([program, mode, "--size", str(size), "--count"])
            for side in ("sender", "receiver", "asker"):
                if side in result:
                    counts.append(count_of(peer, mode, size, side, result[side]))
    progress("")
    return counts


def count_of(peer, mode, size, side, seen):
    return {
        "peer": peer, "mode": mode, "size": size, "side": side,
        "allocations_per_message": seen["allocations"] / seen["messages"],
        "system_calls_per_message": seen["system_calls"] / seen["messages"],
    }


def progress(text):
    if sys.stderr.isatty():
        print(f"\r\033[K{text}", end="", file=sys.stderr, flush=True)


# --- targets ---


def target(text, value, direction, bound):
    passed = value >= bound if direction == "at least" else value <= bound
    return {"text": text, "value": value, "direction": direction, "bound": bound,
            "passed": passed}


def judge_cases(cases):
    targets = []
    for case in cases:
        for base, direction, bound in case.limits:
            targets.append(target(f"{case.name}: zarn / {base}", case.ratio(base), direction,
                                  bound))
        if "1 of them" in case.name:
            targets.append(target("user memory of an idle connection, bytes",
                                  case.median("zarn", "bytes_per_connection"), "at most", 16384))
    return targets


def judge_counts(counts):
    targets = []
    for count in counts:
        if count["peer"] != "zarn":
            continue
        name = f"{count['mode']} {count['size']} B, {count['side']}"
        targets.append(target(f"allocations per message, {name}",
                              count["allocations_per_message"], "at most", 0.01))
        if count["mode"] == "oneway" and count["size"] <= 1024:
            targets.append(target(f"system calls per message, {name}",
                                  count["system_calls_per_message"], "at most", 0.1))
    return targets


# --- output ---


def format_value(metric, value):
    if metric == ROUND_TRIP:
        return f"{value:.1f} us"
    if value >= 1e6:
        return f"{value / 1e6:.2f} M/s"
    return f"{value / 1e3:.0f} k/s"


def print_cases(cases):
    print("Medians; behind each in brackets: ours divided by it.\n")
    for case in cases:
        cells = []
        for contestant in case.contestants:
            cell = f"{contestant} {format_value(case.metric, case.median(contestant))}"
            if case.metric == ROUND_TRIP:
                cell += f" (p99 {case.median(contestant, 'p99_us'):.0f})"
            if contestant != case.ours():
                cell += f" [{case.ratio(contestant):.2f}]"
            cells.append(cell)
        print(f"{case.name:40}{cells[0]}")
        for cell in cells[1:]:
            print(f"{'':40}{cell}")


def print_counts(counts):
    print(f"\n{'per message':34}{'allocations':>12}{'system calls':>14}")
    for count in counts:
        name = f"{count['mode']} {count['size']} B {count['peer']} {count['side']}"
        print(f"{name:34}{count['allocations_per_message']:12.4f}"
              f"{count['system_calls_per_message']:14.4f}")


def print_targets(targets):
    print(f"\n{'target':64}{'measured':>10}")
    for one in targets:
        verdict = "pass" if one["passed"] else "FAIL"
        print(f"{one['text']:64}{one['value']:10.4g}  {one['direction']} {one['bound']:g}: "
              f"{verdict}")


def describe(cases, counts, targets, options, seconds_taken):
    return {
        "machine": {"processors": os.cpu_count(), "kernel": platform.release()},
        "runs": options.runs, "seconds": options.seconds, "took_seconds": round(seconds_taken, 1),
        "cases": [{
            "name": case.name, "metric": case.metric,
            "contestants": {name: {"median": case.median(name),
                                   "ours_divided_by_it": case.ratio(name),
                                   "runs": case.results[name]} for name in case.contestants},
        } for case in cases],
        "counts": counts,
        "targets": targets,
    }


def parse():
    parser = argparse.ArgumentParser(prog="scripts/bench", description=__doc__.split("\n\n")[0])
    parser.add_argument("transport", nargs="?", default="ipc", choices=["ipc"])
    parser.add_argument("--runs", type=int, default=5, help="of each case (default 5)")
    parser.add_argument("--seconds", type=float, default=1.0, help="of each run (default 1)")
    parser.add_argument("--quick", action="store_true", help="3 runs of 0.2 s: a first impression")
    parser.add_argument("--only", default="", metavar="TEXT", help="cases with TEXT in the name")
    parser.add_argument("--json", metavar="FILE", help="for all that was measured")
    parser.add_argument("--bin", required=True, help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.quick:
        options.runs, options.seconds = 3, 0.2
    if options.runs < 1 or options.seconds <= 0:
        parser.error("at least one run, of more than 0 seconds")
    return options


def main():
    options = parse()
    runner = Runner(options.bin, options.seconds)
    cases = [case for case in make_cases() if options.only in case.name]
    if not cases:
        sys.exit(f"bench: no case has '{options.only}' in its name")
    taken = run_all(cases, runner, options.runs)
    counts = [] if options.only else count_all(runner)
    targets = judge_cases(cases) + judge_counts(counts)
    print_cases(cases)
    if counts:
        print_counts(counts)
    print_targets(targets)
    if options.json:
        with open(options.json, "w", encoding="utf-8") as file:
            json.dump(describe(cases, counts, targets, options, taken), file, indent=1)
    failed = sum(not one["passed"] for one in targets)
    print(f"\n{len(targets) - failed} of {len(targets)} targets met")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
