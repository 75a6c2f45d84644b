"""TCP sessions beside ZeroMQ, nng, Boost.Asio and the bare system calls; connections that are kept."""
from measure import RATE, ROUND_TRIP, Case, target

SIZES = (64, 1024, 16384, 65000)
PROGRAMS = {
    "zarn": ["bench_zarn_tcp"],
    "raw": ["bench_raw", "--tcp"],
    "asio": ["bench_asio_tcp"],
    "zmq": ["bench_zmq", "--tcp"],
    "nng": ["bench_nng", "--tcp"],
}
SPIN = ["--spin", "100"]
KEPT = 5000


def side_by_side(peers, mode, size, *more):
    return {peer: [program, mode, "--size", str(size), *options, *more]
            for peer, (program, *options) in PROGRAMS.items() if peer in peers}


def make_cases():
    one_way = {
        64: [("zmq", "at least", 3), ("raw", "at least", 0.3)],
        1024: [("raw", "at least", 0.6)],
        16384: [("raw", "at least", 0.9)],
        65000: [("raw", "at least", 0.8)],
    }
    cases = [Case(f"one way {size} B", RATE, side_by_side(PROGRAMS, "oneway", size), one_way[size])
             for size in SIZES]
    cases += [Case(f"round trip {size} B, sleeping", ROUND_TRIP,
                   side_by_side(PROGRAMS, "pingpong", size), [("asio", "at most", 1.1)])
              for size in SIZES]
    cases += [Case(f"round trip {size} B, spinning", ROUND_TRIP,
                   side_by_side(("zarn", "raw"), "pingpong", size, *SPIN),
                   [("raw", "at most", 1.5)])
              for size in SIZES]
    return [*cases, make_kept_case()]


def make_kept_case():
    alone = "1 connection"
    program = ["bench_zarn_tcp", "oneway", "--size", "64"]
    kept = [*program, "--clients", str(KEPT), "--active", "1"]
    # Within what repeated runs of one program differ by.
    return Case(f"{KEPT} connections, 1 of them sends 64 B", RATE, {"zarn": kept, alone: program},
                [(alone, "at least", 0.85)])


def judge_more(cases, _counts):
    targets = []
    for case in cases:
        if case.name.startswith(str(KEPT)):
            targets.append(target("user memory of an idle connection, bytes",
                                  case.median("zarn", "bytes_per_connection"), "at most", 16384))
            targets.append(target(f"seconds until {KEPT} are connected",
                                  case.median("zarn", "connect_seconds"), "at most", 5))
    return targets
