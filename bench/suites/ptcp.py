"""Pseudo-TCP on the loopback address beside kernel TCP, TLS over it; connections that are kept on one port."""
from measure import RATE, ROUND_TRIP, Case, target

PROGRAMS = {
    "zarn": ["bench_zarn_ptcp"],
    "TCP": ["bench_raw", "--tcp"],
    "zarn over TCP": ["bench_zarn_tcp"],
}
KEPT = 2000
IDLE_SECONDS = 9  # each connection asks three times for a sign of life


def side_by_side(mode, size):
    return {peer: [program, mode, "--size", str(size), *options]
            for peer, (program, *options) in PROGRAMS.items()}


def make_cases():
    return [
        Case("one way 64 B", RATE, side_by_side("oneway", 64), []),
        Case("one way 65000 B", RATE, side_by_side("oneway", 65000), [("TCP", "at least", 0.45)]),
        Case("round trip 64 B", ROUND_TRIP, side_by_side("pingpong", 64),
             [("TCP", "at most", 1.3)]),
        Case("one way 65000 B over TLS", RATE,
             {"zarn over TLS": ["bench_zarn_ptls", "oneway", "--size", "65000"],
              "zarn": ["bench_zarn_ptcp", "oneway", "--size", "65000"]}, [("zarn", "at least", 0.4)]),
        make_kept_case(),
    ]


def make_kept_case():
    alone = "1 connection"
    program = ["bench_zarn_ptcp", "oneway", "--size", "64"]
    kept = [*program, "--clients", str(KEPT), "--active", "1"]
    return Case(f"{KEPT} connections, 1 of them sends 64 B", RATE, {"zarn": kept, alone: program}, [])


def count_all(runner):
    printed = runner.run(["bench_zarn_ptcp", "oneway", "--size", "64", "--clients", str(KEPT),
                          "--idle", str(IDLE_SECONDS)])
    return [{"connections": KEPT, "bytes_of_one": printed["bytes_per_connection"],
             "idle_ms_of_processor_a_second_connecting_side": printed["idle_cpu_ms_per_s"]["sender"],
             "accepting_side": printed["idle_cpu_ms_per_s"]["receiver"]}]


def print_counts(counts):
    for count in counts:
        print(f"\n{count['connections']} idle connections: {count['bytes_of_one']} bytes of the accepting "
              "side's memory each; milliseconds of a processor a second: connecting side "
              f"{count['idle_ms_of_processor_a_second_connecting_side']:.1f}, accepting side "
              f"{count['accepting_side']:.1f}")


def judge_more(cases, _counts):
    targets = []
    for case in cases:
        if case.name.startswith(str(KEPT)):
            targets.append(target(f"seconds until {KEPT} are connected",
                                  case.median("zarn", "connect_seconds"), "at most", 2))
    return targets
