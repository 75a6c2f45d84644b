"""Pseudo-TCP on the loopback address beside kernel TCP; connections that are kept on one port."""
from measure import RATE, ROUND_TRIP, Case, target

PROGRAMS = {
    "zarn": ["bench_zarn_ptcp"],
    "TCP": ["bench_raw", "--tcp"],
    "zarn over TCP": ["bench_zarn_tcp"],
}
KEPT = 2000


def side_by_side(mode, size):
    return {peer: [program, mode, "--size", str(size), *options]
            for peer, (program, *options) in PROGRAMS.items()}


def make_cases():
    return [
        Case("one way 64 B", RATE, side_by_side("oneway", 64), []),
        Case("one way 65000 B", RATE, side_by_side("oneway", 65000), [("TCP", "at least", 0.45)]),
        Case("round trip 64 B", ROUND_TRIP, side_by_side("pingpong", 64),
             [("TCP", "at most", 1.3)]),
        make_kept_case(),
    ]


def make_kept_case():
    alone = "1 connection"
    program = ["bench_zarn_ptcp", "oneway", "--size", "64"]
    kept = [*program, "--clients", str(KEPT), "--active", "1"]
    return Case(f"{KEPT} connections, 1 of them sends 64 B", RATE, {"zarn": kept, alone: program}, [])


def judge_more(cases, _counts):
    targets = []
    for case in cases:
        if case.name.startswith(str(KEPT)):
            targets.append(target(f"seconds until {KEPT} are connected",
                                  case.median("zarn", "connect_seconds"), "at most", 2))
    return targets
