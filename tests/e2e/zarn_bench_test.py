"""zarn bench, with short measurements."""

import contextlib
import errno
import os
import pty
import re
import signal
import subprocess
import unittest

from zarn_tool import PATIENCE, TOOL, ToolTest, frame, read_frame

SHORT = ("--seconds", "0.05")


class Bench(ToolTest):
    def test_measures_each_size(self):
        self.serve("--echo", "--max-queue", "100000000")
        *results, summary = self.run_events("bench", self.url, "--sizes", "0,1000,65523", *SHORT)
        self.assertEqual([result["size"] for result in results], [0, 1000, 65523])
        for result in results:
            self.assertGreater(result["round_trips"], 0)
            self.assertGreater(result["messages_per_s"], 0)
            self.assertLessEqual(result["p50_us"], result["p99_9_us"])
            expected = result["messages_per_s"] * result["size"] / 1e6
            self.assertAlmostEqual(result["mb_per_s"], expected, delta=0.01 * expected + 0.002)
        self.assertEqual([result["window"] for result in results], [256, 256, 64])
        self.assertEqual(summary, {"event": "summary", "complete": True, "sizes": 3})

    def test_table_has_a_line_for_each_size_and_no_bar_without_terminal(self):
        self.serve("--echo")
        result = self.run_tool("bench", self.url, "--sizes", "64,128", *SHORT)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertEqual(re.findall(r"^ +(\d+) \|", result.stdout, re.MULTILINE), ["64", "128"])

    @staticmethod
    def read_all(master):
        """What was written to a terminal whose other end is closed by now; it comes in pieces."""
        drawn = b""
        with contextlib.suppress(OSError):  # EIO is its end
            while part := os.read(master, 100000):
                drawn += part
        return drawn.decode()

    def test_progress_bar_on_a_terminal_is_gone_at_the_end(self):
        self.serve("--echo")
        master, slave = pty.openpty()
        self.addCleanup(os.close, master)
        bench = subprocess.run([TOOL, "bench", self.url, "--sizes", "64", "--seconds", "0.3"],
                               env=self.env, stdout=subprocess.DEVNULL, stderr=slave, check=True)
        os.close(slave)
        drawn = self.read_all(master)
        self.assertEqual(bench.returncode, 0)
        self.assertRegex(drawn, r"\r\[#*-*\] +\d+ % 64 bytes, (round trips|throughput)")
        self.assertTrue(drawn.endswith("\r\x1b[K"))

    def test_a_peer_that_does_not_send_back_is_a_failure(self):
        self.serve()
        result = self.run_tool("bench", self.url, "--timeout", "0.3", *SHORT)
        self.assertEqual(result.returncode, 1)
        self.assertIn("no answer within 0.3 s: does the peer send everything back", result.stderr)

    def test_a_peer_that_answers_with_less_is_a_failure(self):
        listener = self.listen()
        bench = self.start("bench", self.url, "--sizes", "1000", *SHORT)
        connection = self.accept(listener)
        type_, tag, payload = read_frame(connection)
        connection.sendall(frame(type_, tag, payload[1:]))
        self.assertEqual(bench.process.wait(PATIENCE), 1)
        self.assertIn("answered 1000 bytes with 999: does the peer send everything back?", bench.errors())

    def test_sigint_prints_what_there_is(self):
        self.serve("--echo")
        bench = self.start("bench", self.url, "--json", "--seconds", "0.05", "--sizes",
                           ",".join(["64"] * 1000))
        bench.event("result")
        self.assertEqual(bench.end(signal.SIGINT), 1)
        summary = bench.event("summary")
        self.assertFalse(summary["complete"])
        self.assertGreaterEqual(summary["sizes"], 1)

    def test_a_peer_that_dies_is_a_failure(self):
        server = self.serve("--echo")
        bench = self.start("bench", self.url, "--json", "--seconds", "0.05", "--sizes",
                           ",".join(["64"] * 1000))
        bench.event("result")
        server.end(signal.SIGKILL)
        self.assertEqual(bench.process.wait(), 1)
        self.assertIn("peer gone", bench.errors())

    def test_what_cannot_be_sent_is_a_failure(self):
        self.needs_plain_sockets()
        self.serve("--echo")
        result = self.run_tool("bench", self.url, "--sizes", "65523", *SHORT,
                               env=self.failing("sendmsg", 1, errno.ENOBUFS))
        self.assertEqual((result.returncode, result.stderr),
                         (1, f"zarn: {self.url}: cannot send: No buffer space available\n"))

    def test_unreachable(self):
        self.assertEqual(self.run_tool("bench", self.url, "--timeout", "0.2").returncode, 3)


class BenchOverSharedMemory(Bench):
    scheme = "shm"


if __name__ == "__main__":
    unittest.main()
