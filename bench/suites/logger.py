"""The logger beside spdlog, both flushing each line, and zarn log beside grep."""
import os
import statistics
import subprocess
import sys
import tempfile
import time

from measure import NANOSECONDS, RATE, Case, progress, target

PROGRAM = "bench_log"
FULL_RUN = 0.4  # seconds of a run, from which on the search is over a whole gigabyte
NEEDLE = "the needle"
SEARCHES = 7


def make_cases():
    cases = []
    for threads in (1, 4):
        contestants = {name: [PROGRAM, name, "--threads", str(threads)]
                       for name in ("zarn", "spdlog", "write")}
        cases.append(Case(f"lines with flush, {threads} thread{'s' * (threads > 1)}", RATE,
                          contestants, [("spdlog", "at least", 1)]))
    cases.append(Case("ZARN_DEBUG switched off", NANOSECONDS, {"zarn": [PROGRAM, "debug-off"]}, []))
    return cases


def count_all(runner):
    """Seconds that zarn log and grep take to find a few lines of a large file. The size in MB is
    ZARN_BENCH_LOG_MB, or 1000, or 100 for a first impression."""
    size = int(os.environ.get("ZARN_BENCH_LOG_MB") or (1000 if runner.seconds >= FULL_RUN else 100))
    with tempfile.TemporaryDirectory(prefix="zarnbench") as directory:
        path = os.path.join(directory, "big.log")
        lines = write_log(path, size)
        commands = {
            "zarn": [os.path.join(runner.directory, "zarn"), "log", path, "--grep", NEEDLE],
            "grep": ["grep", "-F", NEEDLE, path],
        }
        seconds = {name: [] for name in commands}
        for number in range(SEARCHES):
            progress(f"search {number + 1} of {SEARCHES}")
            for name, command in commands.items():
                seconds[name].append(search(command, os.path.join(directory, name), lines))
    progress("")
    return [{"search": name, "mb": size, "seconds": statistics.median(seconds[name]),
             "runs": seconds[name]} for name in commands]


def write_log(path, megabytes):
    """Gives how many of its lines have the needle."""
    block = "".join(f"2024-01-31T08:{number // 60 % 60:02}:{number % 60:02}.004711 | INFO     | "
                    f"SendMessage        | sent message {number} to ipc://1_2 in {number % 97} us\n"
                    for number in range(10000)).encode()
    needle = f"2024-01-31T09:00:00.000000 | ERROR    | Find               | {NEEDLE}\n".encode()
    with open(path, "wb") as file:
        lines = 0
        while file.tell() < megabytes * 1000000:
            file.write(block + needle)
            lines += 1
    return lines


def search(command, output, lines):
    """Into a file: for a place that forgets everything grep would stop at the first line."""
    with open(output, "wb") as file:
        start = time.monotonic()
        subprocess.run(command, check=True, stdout=file, timeout=120)
        seconds = time.monotonic() - start
    with open(output, "rb") as file:
        if file.read().count(b"\n") != lines:
            sys.exit(f"bench: {command[0]} did not find what is there")
    return seconds


def print_counts(counts):
    print(f"\nsearching {counts[0]['mb']} MB for a plain text, file in memory")
    for count in counts:
        rate = count["mb"] / 1000 / count["seconds"]
        print(f"{count['search']:40}{count['seconds']:.3f} s, {rate:.2f} GB/s")


def judge_more(cases, counts):
    targets = [target("ZARN_DEBUG switched off, ns", case.median("zarn"), "at most", 2)
               for case in cases if case.metric is NANOSECONDS]
    if counts:
        seconds = {count["search"]: count["seconds"] for count in counts}
        targets.append(target("zarn log --grep: speed / that of grep -F",
                              seconds["grep"] / seconds["zarn"], "at least", 0.5))
    return targets
