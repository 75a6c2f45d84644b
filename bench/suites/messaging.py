"""In-process messages beside asio::post, a TBB bounded queue and a swapped mutex-and-deque."""
from measure import RATE, ROUND_TRIP, Case, progress, target

PROGRAM = "bench_messaging"
PEERS = ("zarn", "asio", "tbb", "deque")
COUNTED = ("sent and delivered, 1 sender", "1"), ("sent and delivered, 4 senders", "4")


def side_by_side(mode, *more):
    return {peer: [PROGRAM, mode, peer, *more] for peer in PEERS}


def make_cases():
    alone = "1 sender"
    four = [PROGRAM, "oneway", "zarn", "--senders", "4"]
    return [
        Case("1 sender, 64 B", RATE, side_by_side("oneway"),
             [("asio", "at least", 2), ("tbb", "at least", 1)]),
        Case("4 senders, 64 B", RATE, side_by_side("oneway", "--senders", "4"), []),
        Case("4 senders beside 1, 64 B", RATE,
             {"zarn": four, alone: [PROGRAM, "oneway", "zarn"]}, [(alone, "at least", 1)]),
        Case("round trip 64 B, sleeping", ROUND_TRIP, side_by_side("pingpong"),
             [("deque", "at most", 1.1)]),
    ]


def count_all(runner):
    """Allocations per message, in runs of their own since counting slows down."""
    counts = []
    for name, senders in COUNTED:
        progress(f"counting: {name}")
        seen = runner.run([PROGRAM, "oneway", "zarn", "--senders", senders, "--count"])
        counts.append({"name": name,
                       "allocations_per_message": seen["allocations"] / seen["messages"]})
    progress("")
    return counts


def judge_more(_cases, counts):
    return [target(f"allocations per message {count['name']}", count["allocations_per_message"],
                   "at most", 0.01) for count in counts]


def print_counts(counts):
    print(f"\n{'per message':40}{'allocations':>12}")
    for count in counts:
        print(f"{count['name']:40}{count['allocations_per_message']:12.4f}")
