"""What the suites of the benchmark share: cases, their runs, targets and tables."""
import json
import os
import signal
import statistics
import subprocess
import sys
import tempfile
import time


class Metric:
    """A number that a program prints under `key`, how it is written, and which is better."""

    def __init__(self, key, format_value, better="less"):
        self.key = key
        self.format = format_value
        self.better = better


def format_rate(value):
    if value >= 1e6:
        return f"{value / 1e6:.2f} M/s"
    return f"{value / 1e3:.0f} k/s" if value >= 1e4 else f"{value:.0f}/s"


def format_us(value):
    return f"{value:.1f} us" if value >= 10 else f"{value:.3g} us"


RATE = Metric("rate", format_rate, better="more")  # so many a second
ROUND_TRIP = Metric("p50_us", format_us)  # median of a run; its "p99_us" is shown too
NANOSECONDS = Metric("ns", "{:.1f} ns".format)  # for one call
SECONDS = Metric("seconds", "{:.3f} s".format)
REQUEST = Metric("us", "{:.0f} us".format)
THROUGHPUT = Metric("mb_per_s", "{:.3g} MB/s".format, better="more")
METRICS = {metric.key: metric
           for metric in (RATE, ROUND_TRIP, NANOSECONDS, SECONDS, REQUEST, THROUGHPUT)}


class Case:
    """What is run: one line of arguments for each contestant, of which the first is ours."""

    def __init__(self, name, metric, contestants, limits):
        self.name = name
        self.metric = metric
        self.contestants = contestants  # name -> program and arguments
        self.limits = limits  # (contestant that ours is divided by, "at least"/"at most", bound)
        self.results = {name: [] for name in contestants}

    def run(self, runner):
        """What each contestant has printed."""
        return {name: runner.run(arguments) for name, arguments in self.contestants.items()}

    def median(self, contestant, key=None):
        return statistics.median(result[key or self.metric.key]
                                 for result in self.results[contestant])

    def ratio(self, contestant, base=None):
        return self.median(base or self.ours()) / self.median(contestant)

    def ours(self):
        return next(iter(self.contestants))


class SharedCase(Case):
    """A case whose contestants are measured in turn by one program, which prints an object for each
    of them: for what moves more between two processes than the contestants differ by. The one that
    is set up first may be at a disadvantage, so each is once (--first), and means are taken."""

    def __init__(self, name, metric, names, arguments, limits):
        super().__init__(name, metric, dict.fromkeys(names, arguments), limits)
        self.arguments = arguments

    def run(self, runner):
        printed = [runner.run([*self.arguments, "--first", name]) for name in self.contestants]
        return {name: {key: statistics.mean(one[name][key] for one in printed)
                       for key in printed[0][name]}
                for name in self.contestants}


class Runner:
    def __init__(self, directory, seconds):
        self.directory = directory
        self.seconds = seconds

    def path_of(self, program):
        return os.path.join(self.directory, program)

    def run(self, arguments):
        """The object that the program prints. It is told how many seconds to take."""
        more = [] if "--seconds" in arguments else ["--seconds", str(self.seconds)]
        return self.run_as_is([*arguments, *more])[0]

    def run_as_is(self, arguments):
        """The objects that are printed, one in a line."""
        program, *rest = arguments
        with tempfile.TemporaryDirectory(prefix="zarnbench") as scratch:
            done = subprocess.run([self.path_of(program), *rest], check=False,
                                  stdout=subprocess.PIPE, text=True, timeout=120,
                                  env={**os.environ, "TMPDIR": scratch})
        if done.returncode == 0:
            return [json.loads(line) for line in done.stdout.splitlines()]
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
            for contestant, result in case.run(runner).items():
                case.results[contestant].append(result)
    progress("")
    return time.monotonic() - start


def progress(text):
    if sys.stderr.isatty():
        print(f"\r\033[K{text}", end="", file=sys.stderr, flush=True)


# --- targets ---


def target(text, value, direction, bound):
    passed = value >= bound if direction == "at least" else value <= bound
    return {"text": text, "value": value, "direction": direction, "bound": bound,
            "passed": passed}


def judge_cases(cases):
    return [target(f"{case.name}: {case.ours()} / {base}", case.ratio(base), direction, bound)
            for case in cases for base, direction, bound in case.limits]


# --- output ---


def print_cases(cases):
    print("Medians; behind each in brackets: ours divided by it.\n")
    for case in cases:
        cells = []
        for contestant in case.contestants:
            cell = f"{contestant} {case.metric.format(case.median(contestant))}"
            if case.metric is ROUND_TRIP:
                cell += f" (p99 {format_us(case.median(contestant, 'p99_us'))})"
            if contestant != case.ours():
                cell += f" [{case.ratio(contestant):.2f}]"
            cells.append(cell)
        print(f"{case.name:40}{cells[0]}")
        for cell in cells[1:]:
            print(f"{'':40}{cell}")


def print_targets(targets):
    print(f"\n{'target':64}{'measured':>10}")
    for one in targets:
        verdict = "pass" if one["passed"] else "FAIL"
        print(f"{one['text']:64}{one['value']:10.4g}  {one['direction']} {one['bound']:g}: "
              f"{verdict}")


def describe_cases(cases):
    return [{
        "name": case.name, "metric": case.metric.key,
        "contestants": {name: {"median": case.median(name),
                               "ours_divided_by_it": case.ratio(name),
                               "runs": case.results[name]} for name in case.contestants},
    } for case in cases]
