"""TCP between two machines, as far as network namespaces and a virtual cable between them are: peers
that vanish without a word, an address that is silent, many at once, readers that do not read.

As root only; it says so otherwise."""

import errno
import os
import subprocess
import time
import unittest

from programs import ProgramTest, raise_descriptor_limit

PEER = os.path.join(os.environ.get("ZARN_BIN_DIR", ""), "tcp_peer")
HERE, THERE, NOBODY = "10.97.0.1", "10.97.0.2", "10.97.0.9"
SILENCE = 3000  # milliseconds, the least that can be set
MOST_SECONDS = 9  # until it is noticed: as long again for the system's timers, and a machine under load
MANY = 1000
KEPT = 5000
MOST_KEPT = 16 << 10  # bytes of the server for each of these
MOST_IN_TRANSPORT = 256 << 10
MOST_EACH = 512 << 10  # of the process, for a connection whose peer does not read
MOST_EACH_SANITIZED = 4 << 20


def ip(*arguments):
    subprocess.run(["ip", *arguments], check=True, timeout=20)


@unittest.skipUnless(os.geteuid() == 0, "needs root for network namespaces")
class TwoMachines(ProgramTest):
    def setUp(self):
        super().setUp()
        raise_descriptor_limit(KEPT + 100)
        self.here, self.there = f"zarn-{os.getpid()}-a", f"zarn-{os.getpid()}-b"
        for name in (self.here, self.there):
            ip("netns", "add", name)
            self.addCleanup(ip, "netns", "delete", name)
        ip("-n", self.here, "link", "add", "cable", "type", "veth", "peer", "name", "cable",
           "netns", self.there)
        for name, address in ((self.here, HERE), (self.there, THERE)):
            ip("-n", name, "address", "add", f"{address}/24", "dev", "cable")
            ip("-n", name, "link", "set", "cable", "up")

    def start_in(self, name, *arguments):
        """A program that is ended before its namespace is deleted."""
        return self.start("/usr/bin/env", "ip", "netns", "exec", name, PEER, *arguments)

    def serve(self):
        server = self.start_in(self.here, "serve", HERE, str(SILENCE))
        self.port = server.wait("listening")["port"]
        return server

    def connect(self, count=1, silence=SILENCE):
        client = self.start_in(self.there, "connect", HERE, str(self.port), str(count), str(silence))
        client.wait("connected")
        return client

    def pull_the_cable(self):
        """Nothing that one side sends arrives any more, and neither side is told."""
        ip("-n", self.there, "link", "set", "cable", "address", "02:00:00:00:00:99")
        ip("-n", self.here, "neigh", "replace", THERE, "lladdr", "02:00:00:00:00:01", "dev", "cable")
        ip("-n", self.there, "neigh", "replace", HERE, "lladdr", "02:00:00:00:00:02", "dev", "cable")

    def assert_noticed(self, program, start):
        ended = program.wait("ended", limit=MOST_SECONDS)
        self.assertEqual(ended["reason"], errno.ETIMEDOUT)
        self.assertGreater(ended["time"] - start, 1)

    def test_idle_peers_behind_a_cut_cable_are_noticed_by_both_sides(self):
        server = self.serve()
        client = self.connect()
        start = time.monotonic()
        self.pull_the_cable()
        self.assert_noticed(server, start)
        self.assert_noticed(client, start)

    def test_peers_that_do_not_acknowledge_are_noticed(self):
        server = self.serve()
        self.connect()
        start = time.monotonic()
        self.pull_the_cable()
        server.tell("send 1000")
        self.assert_noticed(server, start)

    def test_a_link_that_is_down_is_noticed(self):
        server = self.serve()
        self.connect()
        start = time.monotonic()
        ip("-n", self.there, "link", "set", "cable", "down")
        ended = server.wait("ended", limit=MOST_SECONDS)
        self.assertIn(ended["reason"], (errno.ETIMEDOUT, errno.EHOSTUNREACH))
        self.assertGreater(ended["time"] - start, 1)

    def test_a_short_cut_is_survived(self):
        self.serve()
        client = self.connect(silence=20000)
        ip("-n", self.there, "link", "set", "cable", "down")
        client.tell("send 1000")
        time.sleep(0.5)
        ip("-n", self.there, "link", "set", "cable", "up")
        client.wait("answered")

    def test_connecting_to_a_silent_address_ends_after_three_seconds(self):
        ip("-n", self.there, "neigh", "add", NOBODY, "lladdr", "02:00:00:00:00:09", "dev", "cable")
        start = time.monotonic()
        client = self.start_in(self.there, "connect", NOBODY, "7000", "1", str(SILENCE))
        ended = client.wait("ended", limit=MOST_SECONDS)
        self.assertEqual(ended["reason"], errno.ETIMEDOUT)
        self.assertGreater(ended["time"] - start, 2.9)
        self.assertLess(ended["time"] - start, 5)

    def test_a_thousand_connect_at_once_and_are_answered(self):
        server = self.serve()
        client = self.connect(MANY)
        server.wait("accepted", clients=MANY)
        client.tell("send 5000")
        client.wait("answered")
        self.assert_idle(server)

    def test_five_thousand_are_kept_for_little(self):
        server = self.serve()
        self.connect()
        before, start = server.private_bytes(), time.monotonic()
        for _ in range(KEPT // 500):
            self.connect(500, silence=60000)
        server.wait("accepted", clients=KEPT + 1)
        took = time.monotonic() - start
        each = (server.private_bytes() - before) / KEPT
        share = server.cpu_share(1.0)
        print(f"{KEPT} connections after {took:.2f} s, {each:.0f} bytes each, {100 * share:.1f} % of a processor")
        if not server.is_sanitized():
            self.assertLess(each, MOST_KEPT)
        self.assertLess(share, 0.1)

    def test_readers_that_do_not_read_cost_bounded_memory(self):
        server = self.serve()
        count = 100
        client = self.connect(count, silence=60000)
        server.wait("accepted", clients=count)
        client.tell("stop")
        client.tell("send 0")
        client.wait("sent")  # and so it has stopped
        before = server.private_bytes()
        server.tell(f"send {1 << 30}")
        waiting = server.wait("sent")["waiting"]
        each = (server.private_bytes() - before) / count
        print(f"{count} that do not read: {waiting} bytes wait in a transport, {each:.0f} each in all")
        self.assertLess(waiting, MOST_IN_TRANSPORT)
        self.assertLess(each, MOST_EACH_SANITIZED if server.is_sanitized() else MOST_EACH)


if __name__ == "__main__":
    unittest.main()
