"""Pairs of a server and a client under load, of which one side is killed at random moments."""

import random
import statistics
import threading
import time

from programs import LIMIT, ProgramTest

MOST_SECONDS = 3.0  # until a client is back: it tries every second, on a machine under load
MOST_GROWTH = 8 << 20


class Pair:
    """A server and its client, both under load, of which one side is killed again and again."""

    def __init__(self, test: ProgramTest, kills_server: bool, seed: int, options: tuple):
        self.test = test
        self.kills_server = kills_server
        self.random = random.Random(seed)
        self.root = test.new_root()
        self.load = ["load", *options, *(["main"] if seed % 3 == 0 else [])]
        self.server = test.start_server(*self.load, root=self.root)
        self.client = test.start_client(*self.load, root=self.root)
        self.delays = []
        self.failure = None

    def run(self, kills: int) -> None:
        try:
            self._wait_connected()
            survivor = self.client if self.kills_server else self.server
            self._kill_once()  # from now on whatever is made once has been made
            held = survivor.descriptors(), survivor.mappings()
            memory = survivor.resident_bytes()
            for _ in range(kills - 1):
                self._kill_once()
            self.test.assertEqual((survivor.descriptors(), survivor.mappings()), held)
            self.test.assertEqual(self.root.endpoints(), ["1_2"])
            if not survivor.is_sanitized():
                self.test.assertLess(survivor.resident_bytes() - memory, MOST_GROWTH)
            for program in (self.server, self.client):
                self.test.assertEqual(program.ask("stats")["wrong"], 0)
                self.test.assertEqual(program.trace(), [])
        except Exception as failure:  # told by the thread that waits for this one
            self.failure = failure

    def _kill_once(self) -> None:
        """Some of the moments come before the first message, most within the load."""
        time.sleep(self.random.random() ** 2 * 0.5)
        if self.kills_server:
            self.server.kill()
            self.client.wait("disconnected")
            time.sleep(self.random.random() * 1.5)  # the client may try in vain once
            self.server = self.test.start("server_peer", "1_2", *self.load, root=self.root)
            back = self.server.wait("listening")
        else:
            self.client.kill()
            self.server.wait("disconnected", clients=0)
            back = {"time": time.monotonic()}
            self.client = self.test.start_client(*self.load, root=self.root)
        connected = self._wait_connected()
        self.delays.append(connected - back["time"])

    def _wait_connected(self) -> float:
        """Waits until messages flow both ways; when the client was connected."""
        time_connected = self.client.wait("connected")["time"]
        self.server.wait("accepted")
        for program in (self.server, self.client):
            before = program.ask("stats")["received"]
            program.stats_until(lambda stats: stats["received"] > before, LIMIT)
        return time_connected


def run_kills(test: ProgramTest, kills: int, *options: str) -> None:
    """So many kills, ten pairs at once, every second of which loses its server."""
    count = min(10, kills // 2)
    pairs = [Pair(test, number % 2 == 0, number, options) for number in range(count)]
    threads = [threading.Thread(target=pair.run, args=(kills // count,)) for pair in pairs]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    for pair in pairs:
        if pair.failure is not None:
            raise pair.failure
    for what in (True, False):
        delays = [delay for pair in pairs if pair.kills_server == what for delay in pair.delays]
        print(
            f"{len(delays)} kills of {'servers' if what else 'clients'}: back after"
            f" {statistics.median(delays):.3f} s (median), {max(delays):.3f} s (most)"
        )
        test.assertLess(max(delays), MOST_SECONDS)
