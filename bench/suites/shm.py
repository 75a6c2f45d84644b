"""Shared-memory channels beside bare rings, Boost.Interprocess and iceoryx, and our local IPC."""
from measure import RATE, ROUND_TRIP, Case

SIZES = (64, 1024, 16384, 65000)
PROGRAMS = {
    "zarn": "bench_zarn_shm",
    "ring": "bench_ring",
    "mq": "bench_mq",
    "iceoryx": "bench_iceoryx",
    "ipc": "bench_zarn_ipc",
}
SPIN = ["--spin", "100"]


def side_by_side(mode, size, *more):
    arguments = [mode, "--size", str(size), *more]
    return {peer: [program, *arguments] for peer, program in PROGRAMS.items()}


def make_cases():
    one_way = {
        64: [("mq", "at least", 2), ("ring", "at least", 0.25)],
        1024: [("ring", "at least", 0.25)],
        16384: [("mq", "at least", 1), ("iceoryx", "at least", 1)],
        65000: [("ring", "at least", 0.4)],
    }
    spinning = {
        64: [("iceoryx", "at most", 1), ("ring", "at most", 4)],
        65000: [("ring", "at most", 2)],
    }
    cases = []
    for size in SIZES:
        cases.append(Case(f"one way {size} B", RATE, side_by_side("oneway", size, *SPIN),
                          [*one_way[size], ("ipc", "at least", 1)]))
    # The bare ring and iceoryx hand over bytes that nobody has looked at yet, on the other processor;
    # ours are copied out by then. Here every receiver compares each byte.
    for size in (16384, 65000):
        cases.append(Case(f"one way {size} B, read", RATE,
                          side_by_side("oneway", size, *SPIN, "--read"), one_way[size]))
    for size in (64, 65000):
        cases.append(Case(f"round trip {size} B, sleeping", ROUND_TRIP,
                          side_by_side("pingpong", size),
                          [("ring", "at most", 1.1), ("ipc", "at most", 1)]))
    for size in (64, 65000):
        cases.append(Case(f"round trip {size} B, spinning", ROUND_TRIP,
                          side_by_side("pingpong", size, *SPIN),
                          [*spinning[size], ("ipc", "at most", 1)]))
    # Its answer is read by the time that the clock stops.
    cases.append(Case("round trip 65000 B, read, sleeping", ROUND_TRIP,
                      side_by_side("pingpong", 65000, "--read"), [("ring", "at most", 1.1)]))
    cases.append(Case("round trip 65000 B, read, spinning", ROUND_TRIP,
                      side_by_side("pingpong", 65000, *SPIN, "--read"), spinning[65000]))
    return cases
