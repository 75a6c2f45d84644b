"""TLS sessions beside OpenSSL itself and Boost.Asio's TLS stream; connections that come, stay and go."""
from measure import RATE, ROUND_TRIP, Case, target

SIZES = (64, 1024, 16384, 65000)
PROGRAMS = {
    "zarn": "bench_zarn_tls",
    "raw": "bench_raw_tls",
    "asio": "bench_asio_tls",
}
CONNECTING = {"zarn": "bench_zarn_tls_connect", "raw": "bench_raw_tls_connect"}
KEPT = 5000
FULL_CASE = "connections, full handshakes"
KEPT_CASE = f"{KEPT} connections, 1 of them sends 64 B"


def side_by_side(programs, mode, *more):
    return {peer: [program, mode, *more] for peer, program in programs.items()}


def make_cases():
    one_way = {64: 0.3, 1024: 0.6, 16384: None, 65000: 0.9}
    cases = [Case(f"one way {size} B", RATE, side_by_side(PROGRAMS, "oneway", "--size", str(size)),
                  [("raw", "at least", bound)] if bound else [])
             for size, bound in one_way.items()]
    cases += [Case(f"round trip {size} B, sleeping", ROUND_TRIP,
                   side_by_side(PROGRAMS, "pingpong", "--size", str(size)), [])
              for size in SIZES]
    full = side_by_side(CONNECTING, "pingpong", "--seconds", "1")
    resumed = side_by_side(CONNECTING, "pingpong", "--seconds", "1", "--resume")
    cases += [
        Case(FULL_CASE, RATE, full, [("raw", "at least", 0.9)]),
        Case("connections, resumed sessions", RATE, {**resumed, "full": full["zarn"]},
             [("full", "at least", 1)]),
    ]
    return cases + [make_kept_case()]


def make_kept_case():
    alone = "1 connection"
    program = [PROGRAMS["zarn"], "oneway", "--size", "64"]
    kept = [*program, "--clients", str(KEPT), "--active", "1"]
    # Within what repeated runs of one program differ by.
    return Case(KEPT_CASE, RATE, {"zarn": kept, alone: program},
                [(alone, "at least", 0.85)])


def judge_more(cases, _counts):
    named = {case.name: case for case in cases}
    kept = named.get(KEPT_CASE)
    if kept is None:
        return []
    targets = [target("user memory of an idle connection, bytes",
                      kept.median("zarn", "bytes_per_connection"), "at most", 20480)]
    full = named.get(FULL_CASE)
    if full is not None:
        rate = KEPT / kept.median("zarn", "connect_seconds")
        targets.append(target(f"connections a second while {KEPT} stay / while each goes",
                              rate / full.median("zarn"), "at least", 0.9))
    return targets
