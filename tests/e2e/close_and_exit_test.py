"""A program sends, closes and ends at once: what was accepted arrives, every byte of it."""

import itertools
import time
import unittest

from frames import FrameServer, encode
from programs import ProgramTest

# count and size of the messages; most are more than the system's socket buffers hold
LOADS = [(1, 10), (1, 65523), (100, 65523), (50000, 20), (2000, 4000)]
THREADS = ["main", "network"]
WAYS = ["return", "exit"]


class CloseAndExit(ProgramTest):
    def variants(self):
        return itertools.product(THREADS, WAYS, LOADS)

    def assert_all_arrives(self, leaver, connection, count, size):
        expected = b"".join(encode(5, tag, b"x" * size) for tag in range(count))
        leaver.wait("left", failed=0)  # the rest is written by a process that is ending, for two seconds
        received = connection.read_to_end()
        self.assertEqual(len(received), len(expected))
        self.assertTrue(received == expected)
        self.assertEqual(leaver.wait_exit(), 0, leaver.trace())

    def test_a_client_leaves(self):
        for thread, way, (count, size) in self.variants():
            with self.subTest(thread=thread, way=way, count=count, size=size):
                self.root = self.new_root()
                with FrameServer(self.root.endpoint("1_2")) as listening:
                    leaver = self.start("leaver_peer", "client", thread, way, str(count), str(size))
                    with listening.accept() as connection:
                        self.assert_all_arrives(leaver, connection, count, size)

    def test_a_server_leaves(self):
        for thread, way, (count, size) in self.variants():
            with self.subTest(thread=thread, way=way, count=count, size=size):
                self.root = self.new_root()
                leaver = self.start("leaver_peer", "server", thread, way, str(count), str(size))
                leaver.wait("listening")
                self.assert_all_arrives(leaver, self.connect(), count, size)

    def test_a_peer_that_reads_nothing_does_not_hold_the_process_for_long(self):
        for thread, way in itertools.product(THREADS, WAYS):
            with self.subTest(thread=thread, way=way):
                self.root = self.new_root()
                leaver = self.start("leaver_peer", "server", thread, way, "100", "65523")
                leaver.wait("listening")
                self.connect()
                left = leaver.wait("left", failed=0)["time"]
                self.assertEqual(leaver.wait_exit(), 0, leaver.trace())
                self.assertLess(time.monotonic() - left, 5.0)


if __name__ == "__main__":
    unittest.main()
