"""Local IPC channels beside ZeroMQ, nng, Boost.Asio and the bare system calls."""
from measure import RATE, ROUND_TRIP, Case, progress, target

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
    program = [PROGRAMS["zarn"], "oneway", "--size", "64"]
    cases.append(Case("one way 64 B, a snapshot of the metrics every 10 ms", RATE,
                      {"zarn": [*program, "--snapshots", "10"], "without": program},
                      [("without", "at least", 0.95)]))
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


def judge_more(cases, counts):
    targets = [target("user memory of an idle connection, bytes",
                      case.median("zarn", "bytes_per_connection"), "at most", 16384)
               for case in cases if "1 of them" in case.name]
    return targets + judge_counts(counts)


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


def print_counts(counts):
    print(f"\n{'per message':34}{'allocations':>12}{'system calls':>14}")
    for count in counts:
        name = f"{count['mode']} {count['size']} B {count['peer']} {count['side']}"
        print(f"{name:34}{count['allocations_per_message']:12.4f}"
              f"{count['system_calls_per_message']:14.4f}")
