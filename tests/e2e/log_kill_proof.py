"""Kills a program that logs from four threads, with SIGKILL at random moments: every line whose call
had returned is in its file, whole, and each thread's lines are in order."""

import os
import random
import re
import struct
import time
import unittest

from programs import ProgramTest
from proof_scale import proof_count

KILLS = proof_count(400)
THREADS = 4
MOST_SECONDS = 0.1  # that it logs before it is killed
LOG = re.compile(rb"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6} \| INFO     \| WriteLines         \| (.*)")
DEBUG = re.compile(rb"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6} \| DEBUG    \|    log_peer\.cpp\[\d{5}\]"
                   rb" \| WriteLines         \| (.*)")


def message(thread, number):
    dots = 9000 if number % 100 == 0 else number % 150
    return f"thread {thread} line {number} {'.' * dots}".encode()


class KilledWhileLogging(ProgramTest):
    def test_every_line_whose_call_returned_is_there_whole(self):
        chance = random.Random(3)
        lines = 0
        for _ in range(KILLS):
            counts = self.log_and_kill(chance.random() ** 2 * MOST_SECONDS)
            self.check_file("log_peer.log", LOG, counts, 0)
            self.check_file("log_peer_debug.log", DEBUG, counts, 1)
            lines += sum(counts)
        self.assertGreater(lines, KILLS * 10)
        print(f"{KILLS} kills, {lines} lines")

    def log_and_kill(self, seconds):
        """How many calls of each thread have returned."""
        path = os.path.join(self.root.path, "counts")
        with open(path, "wb") as file:
            file.write(bytes(8 * THREADS))
        program = self.start("log_peer", str(THREADS), path)
        program.wait("logging")
        time.sleep(seconds)
        program.kill()
        with open(path, "rb") as file:
            return struct.unpack(f"{THREADS}Q", file.read())

    def check_file(self, name, pattern, counts, parity):
        """One file has the even numbers, the other the odd ones."""
        with open(os.path.join(self.root.path, "logs", name), "rb") as file:
            lines = file.read().split(b"\n")
        lines.pop()  # behind the last newline: nothing, or a line whose call has not returned
        following = [parity] * THREADS
        for line in lines:
            match = pattern.fullmatch(line)
            self.assertIsNotNone(match, line[:200])
            thread = int(match[1].split(b" ", 2)[1])
            self.assertEqual(match[1], message(thread, following[thread]))
            following[thread] += 2
        for thread, count in enumerate(counts):
            self.assertGreaterEqual(following[thread], count, name)


if __name__ == "__main__":
    unittest.main()
