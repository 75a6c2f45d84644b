"""Clients that flood and clients that never read: others are served all the while, and memory is
bounded where the server says so."""

import threading
import time
import unittest

from frames import connect, encode
from programs import ProgramTest


class GreedyClients(ProgramTest):
    def test_a_flood_neither_starves_others_nor_fills_memory(self):
        server = self.start_server("count")
        polite = self.start_client("echo")  # is sent to, and answers
        polite.wait("connected")
        before = server.resident_bytes()
        frames = encode(1, 2, b"f" * 100) * 5000
        over = threading.Event()
        sent = [0, 0]

        def flood(which):
            with connect(self.root.endpoint("1_2")) as greedy:
                while not over.is_set():
                    greedy.send_bytes(frames)
                    sent[which] += 5000

        floods = [threading.Thread(target=flood, args=(which,)) for which in range(2)]
        for thread in floods:
            thread.start()
        try:
            for _ in range(2):
                server.wait("accepted")
            slowest = 0.0
            for _ in range(50):
                start = time.monotonic()
                polite.tell("send 1 10")
                polite.wait("sent", failed=0)
                server.ask("stats")
                slowest = max(slowest, time.monotonic() - start)
            self.assertLess(slowest, 2.0)
        finally:
            over.set()
            for thread in floods:
                thread.join()
        server.stats_until(lambda stats: stats["received"] == sum(sent) + 50)
        if not server.is_sanitized():
            self.assertLess(server.resident_bytes() - before, 16 << 20)

    def test_what_a_client_does_not_read_waits_for_it(self):
        server = self.start_server("echo")
        lazy = self.connect()
        other = self.connect()
        frame = encode(1, 2, b"e" * 10000)
        lazy.send_bytes(frame * 2000)
        stats = server.stats_until(lambda stats: stats["received"] == 2000)
        self.assertGreater(stats["queued"], 15 << 20)
        self.assert_idle(server)
        self.assert_echoes(other)
        for _ in range(2000):
            self.assertEqual(lazy.receive(), (1, 2, b"e" * 10000))
        self.assertEqual(server.ask("stats")["queued"], 0)

    def test_a_server_with_a_bound_drops_such_a_client(self):
        server = self.start_server("echo", f"bound={1 << 20}")
        other = self.connect()
        lazy = self.connect()
        before = server.resident_bytes()
        frame = encode(1, 2, b"e" * 10000)
        with self.assertRaises((BrokenPipeError, ConnectionResetError)):
            for _ in range(4000):
                lazy.send_bytes(frame)
        self.assertLess(server.wait("dropped")["queued"], (1 << 20) + len(frame))
        server.wait("disconnected", clients=1)
        self.assert_echoes(other)
        if not server.is_sanitized():
            self.assertLess(server.resident_bytes() - before, 16 << 20)


if __name__ == "__main__":
    unittest.main()
