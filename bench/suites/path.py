"""Pseudo-TCP over an emulated path beside kernel TCP (BBR, CUBIC) and usrsctp: loss, reordering, a shared bottleneck."""
import socket
import statistics
import subprocess

from measure import ROUND_TRIP, THROUGHPUT, Case, target

# A run has to outlast the beginning, in which congestion controls look for their rate.
BULK_LONGER = 10  # times the runs of other suites
PING_LONGER = 25
SHARED_LONGER = 40
MOST_RUNS = 5

ROWS = {  # round trip time, and what happens to packets of either direction
    "20 ms, 0.5 % lost": ["--delay", "10", "--loss", "0.5"],
    "20 ms, 2 % lost, late, doubled":  # 1 % of them late, 0.5 % doubled
        ["--delay", "10", "--loss", "2", "--reorder", "1", "--duplicate", "0.5"],
    "100 ms, 1 % lost": ["--delay", "50", "--loss", "1"],
}
PINGED = list(ROWS)[1]
# The queue holds what is on its way at that rate.
BOTTLENECK = ["--delay", "10", "--rate", "100", "--queue", "256"]
OURS, BBR, CUBIC = "zarn", "TCP BBR", "TCP CUBIC"
SHARED = f"100 Mbit/s shared with {CUBIC}"


def has_bbr():
    """Root's question loads the module, where there is one."""
    try:
        with socket.socket() as one:
            one.setsockopt(socket.IPPROTO_TCP, socket.TCP_CONGESTION, b"bbr")
    except OSError:
        return False
    return True


HAS_BBR = has_bbr()
PROGRAMS = {
    OURS: ["bench_zarn_ptcp"],
    **({BBR: ["bench_raw", "--tcp", "--congestion", "bbr"]} if HAS_BBR else {}),
    CUBIC: ["bench_raw", "--tcp", "--congestion", "cubic"],
    "usrsctp": ["bench_usrsctp"],
}


def why_not(runner):
    """Why nothing can be measured here; None when it can."""
    tried = subprocess.run([runner.path_of("emulate_path"), "--", "true"], check=False,
                           stderr=subprocess.PIPE, text=True, timeout=30)
    return None if tried.returncode == 0 else tried.stderr.strip()


class PathCase(Case):
    """The contestants take turns on one path, or use it together."""

    def __init__(self, name, metric, path, mode, longer, together=False, limits=(), names=None):
        commands = {peer: [program, *mode, *options]
                    for peer, (program, *options) in PROGRAMS.items() if peer in (names or PROGRAMS)}
        super().__init__(name, metric, commands, list(limits))
        self.path, self.longer, self.together = path, longer, together

    def run(self, runner):
        """The seeds differ from run to run and are the same for all contestants and each time."""
        seed = len(self.results[self.ours()]) + 1
        seconds = ["--seconds", str(runner.seconds * self.longer)]
        emulate = [*self.path, "--seed", str(seed)]
        commands = {name: ["--", runner.path_of(program), *options, *seconds]
                    for name, (program, *options) in self.contestants.items()}
        if not self.together:
            return {name: runner.run_as_is(["emulate_path", *emulate, *command])[0]
                    for name, command in commands.items()}
        printed = runner.run_as_is(["emulate_path", *emulate, *sum(commands.values(), [])])
        ours = next(one for one in printed if one["peer"] == OURS)
        others = [one for one in printed if one is not ours]
        return {OURS: ours, CUBIC: others[0]}


def make_cases():
    bulk = ["oneway", "--size", "16384"]
    # A bound of 1: ahead.
    ahead = [(BBR, "at least", 1)] if HAS_BBR else []
    cases = [PathCase(f"bulk, {name}", THROUGHPUT, path, bulk, BULK_LONGER, limits=ahead)
             for name, path in ROWS.items()]
    ping = ["pingpong", "--size", "64", "--pause", "5"]
    return [*cases,
            PathCase(f"ping, {PINGED}", ROUND_TRIP, ROWS[PINGED], ping, PING_LONGER),
            PathCase(f"bulk, {SHARED}", THROUGHPUT, BOTTLENECK, bulk, SHARED_LONGER,
                     together=True, names=(OURS, CUBIC))]


def print_before():
    if not HAS_BBR:
        print("This kernel has no BBR: what is to be ahead of it is not judged.")


def judge_more(cases, _counts):
    targets = []
    for case in cases:
        if case.name.startswith("ping") and HAS_BBR:
            ratio = case.median(OURS, "p99_us") / case.median(BBR, "p99_us")
            targets.append(target(f"99th percentile of {case.name}: {OURS} / {BBR}", ratio, "at most", 1))
        if case.name.endswith(SHARED):
            share = statistics.median(
                ours["mb_per_s"] / (ours["mb_per_s"] + other["mb_per_s"])
                for ours, other in zip(case.results[OURS], case.results[CUBIC]))
            for direction, bound in (("at least", 0.4), ("at most", 0.6)):
                targets.append(target(f"{OURS}'s share of {SHARED}", share, direction, bound))
    return targets
