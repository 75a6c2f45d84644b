"""Runs servers and clients over all six transports at once, each a process of its own, kills and
restarts either side at random moments, and checks every byte that arrives, that everybody goes on, and
that those who survive do not grow. Prints a table; exits with 1 and the reason if anything is off.

    soak.py --seconds 60 [--seed N] [--clients N] [--pace N] [--nice N]

ZARN_BIN_DIR says where soak_peer is. The same seed makes the same plan and the same messages; the moments
of the kills also depend on how fast the machine is."""

import argparse
import asyncio
import os
import random
import shutil
import signal
import statistics
import sys
import tempfile
import time

from certificates import Authority
from group import TRANSPORTS, Group, Setting
from peers import Place, Trouble
from watch import Watch


def is_sanitized(program: str) -> bool:
    with open(program, "rb") as file:
        content = file.read()
    return b"__asan_init" in content or b"__tsan_init" in content


async def watch_all(groups: list, watch: Watch, interval: float) -> None:
    while True:
        await asyncio.sleep(interval)
        watch.sample()
        for group in groups:
            for peer in group.living():
                peer.check_progress(group.settled_since is not None)


async def run(options, top: str) -> list:
    place = Place(os.path.join(os.environ["ZARN_BIN_DIR"], "soak_peer"), top)
    setting = Setting(place, options.seed, options.seconds, options.clients, options.pace,
                      Authority(top))
    groups = [Group(setting, transport, 2 * i + kills_server, bool(kills_server))
              for i, transport in enumerate(TRANSPORTS) for kills_server in (0, 1)]
    watch = Watch(groups, is_sanitized(place.program))
    watcher = asyncio.create_task(watch_all(groups, watch, max(0.1, options.seconds / 3000)))
    tasks = [asyncio.create_task(group.run()) for group in groups]
    everything = asyncio.gather(*tasks)
    try:
        done, _ = await asyncio.wait({everything, watcher, setting.trouble},
                                     return_when=asyncio.FIRST_COMPLETED)
        for task in done:
            task.result()  # raises what it has found
        print_table(groups, watch)
        watch.check()
        if place.endpoints():
            raise Trouble(f"left behind: {place.endpoints()}")
    except Trouble:
        for peer in place.peers:  # what a sanitizer has to say explains the rest
            if complaints := peer.complaints():
                print(f"{peer.name}, process {peer.pid}:\n{complaints[:8000]}", file=sys.stderr)
        raise
    finally:
        for task in [everything, watcher, *tasks]:
            task.cancel()
        await asyncio.gather(everything, watcher, *tasks, return_exceptions=True)
        await asyncio.gather(*(peer.discard() for peer in place.peers))
        if setting.trouble.done():
            setting.trouble.exception()


def print_table(groups: list, watch: Watch) -> None:
    print("transport   messages       MiB  kills  restarts  noticed s     reconnected s"
          "   growth of MiB  fds  threads")
    print("                                               median   most  median   most")
    for transport in TRANSPORTS:
        own = [group for group in groups if group.transport == transport]
        growth = [max(column) for column in zip(*map(watch.growth, own))]
        noticed = [seconds for group in own for seconds in group.noticed]
        reconnected = [seconds for group in own for seconds in group.reconnected]
        print(f"{transport:9} {sum(group.done['received'] for group in own):10}"
              f" {sum(group.done['bytes'] for group in own) / (1 << 20):9.1f}"
              f" {sum(group.kills for group in own):6} {sum(group.restarts for group in own):9}"
              f"  {median_and_most(noticed)}  {median_and_most(reconnected)}"
              f"   {growth[0] / (1 << 20):13.1f} {growth[1]:4.0f} {growth[2]:8.0f}")


def median_and_most(seconds: list) -> str:
    if not seconds:
        return "     -      -"
    return f"{statistics.median(seconds):6.2f} {max(seconds):6.2f}"


async def run_until_interrupted(options, top: str) -> None:
    task = asyncio.current_task()
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        asyncio.get_running_loop().add_signal_handler(number, task.cancel)
    await run(options, top)


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    parser.add_argument("--seconds", type=float, required=True, help="how long, without the ends")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1 << 32))
    parser.add_argument("--clients", type=int, default=2, help="of each of the twelve servers (2)")
    parser.add_argument("--pace", type=int, default=4, help="messages of each side every 10 ms (4)")
    parser.add_argument("--nice", type=int, default=0, help="by how much others come first (0)")
    parser.add_argument("--check-arguments", action="store_true", help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.check_arguments:
        return 0
    os.nice(options.nice)
    print(f"soak: {options.seconds:.0f} s, seed {options.seed}", flush=True)
    start = time.monotonic()
    top = tempfile.mkdtemp(prefix="zarnsoak")
    try:
        asyncio.run(run_until_interrupted(options, top))
    except Trouble as trouble:
        print(f"soak: FAILED after {time.monotonic() - start:.0f} s, seed {options.seed}: {trouble}",
              file=sys.stderr)
        return 1
    except asyncio.CancelledError:
        print("soak: interrupted", file=sys.stderr)
        return 130
    finally:
        shutil.rmtree(top, ignore_errors=True)
    print(f"soak: {time.monotonic() - start:.0f} s in all, nothing is wrong")
    return 0


if __name__ == "__main__":
    sys.exit(main())
