"""zarn ping, against servers of ours that come and go, and against plain sockets that misbehave."""

import shutil
import signal
import unittest

from zarn_tool import LONGEST, ToolTest, frame, read_frame


class Ping(ToolTest):
    def test_counts_and_measures(self):
        self.serve("--echo")
        *replies, summary = self.run_events("ping", self.url, "-c", "5", "-i", "0.01")
        self.assertEqual([reply["seq"] for reply in replies], [0, 1, 2, 3, 4])
        self.assertTrue(all(reply["us"] > 0 for reply in replies))
        self.assertEqual((summary["sent"], summary["received"], summary["lost"]), (5, 5, 0))
        times = [summary[key] for key in ("min_us", "p50_us", "p90_us", "p99_us", "p99_9_us", "max_us")]
        self.assertEqual(times, sorted(times))
        self.assertAlmostEqual(times[-1], max(reply["us"] for reply in replies), delta=0.1)

    def test_quiet_prints_the_summary_only(self):
        self.serve("--echo")
        for options in (("-i", "0.01", "-c", "5"), ("-i", "0", "-c", "5")):
            events = self.run_events("ping", self.url, "--quiet", *options)
            self.assertEqual([event["event"] for event in events], ["summary"])
            self.assertEqual(events[0]["received"], 5)

    def test_text_looks_like_a_ping(self):
        self.serve("--echo")
        lines = self.run_tool("ping", self.url, "-c", "2", "-i", "0.01").stdout.splitlines()
        self.assertEqual(lines[0], f"ping {self.url}: 56 bytes")
        self.assertRegex(lines[2], r"^56 bytes from 1_2: seq=1 time=\d+\.\d us$")
        self.assertRegex(lines[4], r"^2 sent, 2 received, 0 lost \(0 %\), \d+\.\d s$")
        self.assertRegex(lines[5], r"^round trip in us: min .*p50 .*p90 .*p99 .*p99\.9 .*max ")

    def test_peer_that_never_answers_is_a_failure_with_a_hint(self):
        self.serve()
        result = self.run_tool("ping", self.url, "-c", "2", "-i", "0.01", "--timeout", "0.1")
        self.assertEqual((result.returncode, result.stderr),
                         (1, "zarn: no answer at all: does the peer send everything back, as zarn serve --echo?\n"))

    def test_back_to_back_of_all_sizes_with_and_without_spin(self):
        self.serve("--echo")
        for options in (("-s", "0"), ("-s", str(LONGEST)), ("--spin", "50")):
            summary = self.run_events("ping", self.url, "-i", "0", "-c", "200", *options)[-1]
            self.assertEqual((summary["received"], summary["lost"], summary["altered"]), (200, 0, 0))

    def test_sigint_ends_it_with_its_summary(self):
        self.serve("--echo")
        ping = self.start("ping", self.url, "--json")
        ping.event("reply")
        self.assertEqual(ping.end(), 0)
        self.assertGreaterEqual(ping.event("summary")["received"], 1)

    def test_survives_a_restart_of_the_peer_and_says_so(self):
        server = self.serve("--echo")
        ping = self.start("ping", self.url, "-i", "0.05", "--json")
        ping.event("reply")
        server.end(signal.SIGKILL)
        self.assertIn("peer gone: ", ping.event("gone")["text"])
        ping.event("lost")
        self.serve("--echo")
        back = ping.event("back")
        self.assertRegex(back["text"], r"^connected again after \d+\.\d s$")
        self.assertLess(back["away_s"], 20)
        ping.event("reply")
        self.assertEqual(ping.end(), 0)
        summary = ping.event("summary")
        self.assertGreater(summary["lost"], 0)
        self.assertGreaterEqual(summary["received"], 2)

    def test_back_to_back_survives_a_restart_too(self):
        server = self.serve("--echo")
        ping = self.start("ping", self.url, "-i", "0", "--json")
        self.assertGreater(ping.event("interval")["received"], 0)
        server.end(signal.SIGKILL)
        ping.event("gone")
        self.serve("--echo")
        ping.event("back")
        self.assertGreater(ping.event("interval")["received"], 0)
        self.assertEqual(ping.end(), 0)

    def test_a_count_ends_also_when_the_peer_does_not_come_back(self):
        listener = self.listen()
        ping = self.start("ping", self.url, "-c", "3", "-i", "0.1", "--json")
        connection = self.accept(listener)
        connection.sendall(frame(*read_frame(connection)))
        ping.event("reply")
        shutil.rmtree(self.root)
        listener.close()
        connection.close()
        self.assertEqual(ping.process.wait(), 0)
        summary = ping.event("summary")
        self.assertEqual((summary["sent"], summary["received"], summary["lost"]), (3, 1, 2))

    def test_no_answer_is_a_loss_and_no_answers_a_failure(self):
        self.serve()
        *events, summary = self.run_events("ping", self.url, "-c", "2", "-i", "0.01", "--timeout",
                                           "0.2", code=1)
        self.assertEqual([event["event"] for event in events], ["lost", "lost"])
        self.assertEqual((summary["received"], summary["lost"]), (0, 2))
        self.assertNotIn("p50_us", summary)

    def test_late_doubled_altered_and_foreign_answers_are_told_apart(self):
        listener = self.listen()
        ping = self.start("ping", self.url, "-c", "2", "-i", "0.01", "--json")
        connection = self.accept(listener)
        type_, tag, payload = read_frame(connection)
        connection.sendall(frame(type_ + 1, tag, payload) + frame(type_, tag + 1000, payload) +
                           frame(type_, tag, payload) * 2)
        type_, tag, payload = read_frame(connection)
        connection.sendall(frame(type_, tag, payload[:-1] + b"?"))
        self.assertEqual(ping.process.wait(), 1)
        summary = ping.event("summary")
        self.assertEqual((summary["received"], summary["late"], summary["altered"]), (2, 2, 1))

    def test_a_malformed_answer_is_a_loss(self):
        listener = self.listen()
        ping = self.start("ping", self.url, "-c", "1", "--timeout", "0.3", "--json")
        connection = self.accept(listener)
        read_frame(connection)
        connection.sendall(bytes([0, 0, 0, 20, 0, 0, 0, 0, 0, 0, 0, 4]) + b"x" * 50)
        self.assertEqual(ping.process.wait(), 1)
        self.assertEqual(ping.event("summary")["lost"], 1)
        self.assertIn("fatal error", ping.errors())

    def test_unreachable(self):
        result = self.run_tool("ping", self.url, "--timeout", "0.2")
        self.assertEqual((result.returncode, result.stdout), (3, ""))


class PingOverSharedMemory(Ping):
    scheme = "shm"


if __name__ == "__main__":
    unittest.main()
