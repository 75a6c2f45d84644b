"""zarn over ptcp://: what it exchanges, and how it notices that its peer is gone. TLS over it is in
zarn_tls_test.py."""

import contextlib
import json
import os
import signal
import socket
import struct
import subprocess
import time
import unittest

from udp_relay import UdpRelay
from zarn_tool import LONGEST, PATIENCE, TOOL, ToolTest, frame


class PtcpTest(ToolTest):
    def setUp(self):
        super().setUp()
        self.env.pop("ZARN_ROOT")  # nothing of it is needed
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            probe.bind(("127.0.0.1", 0))
            self.address = probe.getsockname()
        self.url = f"ptcp://127.0.0.1:{self.address[1]}"

    def assert_fails(self, code, text, *arguments):
        result = self.run_tool(*arguments)
        self.assertEqual((result.returncode, result.stdout), (code, ""), result.stderr)
        self.assertIn(text, result.stderr)


class Exchange(PtcpTest):
    def test_send_and_serve_show_each_other(self):
        server = self.serve("--echo")
        message, summary = self.run_events("send", self.url, "--type", "7", "--tag", "4294967295", "--data",
                                           "hello", "--replies", "1")
        self.assertEqual((message["type"], message["tag"], message["text"]), (7, 4294967295, "hello"))
        self.assertEqual((summary["sent"], summary["replies"]), (1, 1))
        connected = server.event("connected")
        self.assertRegex(connected["peer"], r"^127\.0\.0\.1:\d+#1$")
        gone = server.event("gone")
        self.assertEqual((gone["peer"], gone["reason"], gone["messages"], gone["bytes"]),
                         (connected["peer"], "closed", 1, 17))
        self.assertEqual(server.end(), 0)

    def test_lines_longer_than_all_queues_arrive_once_and_in_order(self):
        server = self.serve("--full")
        lines = [f"{number} " + "x" * 2000 for number in range(10000)]
        self.run_events("send", self.url, "-", input="\n".join(lines))
        for number in range(len(lines)):
            text = server.event("message")["text"]
            if not text.startswith(f"{number} ") or len(text) != len(lines[number]):
                self.fail(f"message {number} is {text[:20]}")
        gone = server.event("gone")
        self.assertEqual((gone["reason"], gone["messages"]), ("closed", 10000))

    def test_ping_of_all_sizes(self):
        self.serve("--echo")
        for options in (("-s", "0"), ("-s", str(LONGEST)), ("--spin", "50")):
            summary = self.run_events("ping", self.url, "-i", "0", "-c", "200", *options)[-1]
            self.assertEqual((summary["received"], summary["lost"], summary["altered"]), (200, 0, 0))

    def test_bench_measures(self):
        self.serve("--echo", "--max-queue", "100000000")
        *results, summary = self.run_events("bench", self.url, "--sizes", "0,1000,65523", "--seconds", "0.05")
        self.assertEqual([result["size"] for result in results], [0, 1000, 65523])
        self.assertTrue(all(result["messages_per_s"] > 0 for result in results))
        self.assertTrue(summary["complete"])

    def test_fifty_clients_share_the_port(self):
        server = self.serve("--echo")
        pings = [self.start("ping", self.url, "-i", "0.2", "--json") for _ in range(50)]
        for ping in pings:
            ping.event("reply")
        for ping in pings:
            ping.end()
        self.assertEqual(server.end(), 0)
        self.assertEqual(server.event("summary")["clients"], 50)

    def test_a_name_stands_for_its_address(self):
        self.serve("--echo")
        self.run_events("ping", f"ptcp://localhost:{self.address[1]}", "-c", "1")

    def test_a_client_that_takes_no_answer_is_dropped_and_all_its_messages_are_counted(self):
        server = self.serve("--echo", "--max-queue", "0")
        relay = UdpRelay(self.address, 1)
        self.addCleanup(relay.close)
        sender = self.start("send", f"ptcp://127.0.0.1:{relay.address[1]}", "-", stdin=subprocess.PIPE,
                            bufsize=0)
        server.event("connected")
        relay.longest_answer = 200  # that is acknowledgements
        with contextlib.suppress(BrokenPipeError):  # it has been dropped
            sender.process.stdin.write((b"x" * 60000 + b"\n") * 50)
        server.event("dropped")
        gone = server.event("gone")
        self.assertEqual(server.end(), 0)
        self.assertEqual(gone["messages"], server.event("summary")["messages"])


class MalformedFrames(PtcpTest):
    def test_one_ends_that_connection_only(self):
        server = self.serve("--echo")
        peer = subprocess.Popen([os.path.join(os.path.dirname(TOOL), "ptcp_peer"), "127.0.0.1",
                                 str(self.address[1])], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                text=True, bufsize=1)
        self.addCleanup(peer.communicate, timeout=PATIENCE)
        self.assertEqual(json.loads(peer.stdout.readline())["event"], "connected")
        good, malformed = frame(1, 1, b"good"), struct.pack(">HHII", 1, 20, 2, 4) + bytes(8)
        peer.stdin.write(f"send {(good + malformed + good).hex()}\n")
        self.assertEqual(server.event("message")["text"], "good")
        gone = server.event("gone")
        self.assertEqual((gone["messages"], gone["malformed"], gone["bytes"]), (1, True, 52))
        self.assertRegex(server.line_with("malformed", "stderr"),
                         r"^zarn: 127\.0\.0\.1:\d+: malformed frame, pdulen=20, datasize=4: "
                         "the connection is ended$")
        while (event := json.loads(peer.stdout.readline()))["event"] != "ended":
            self.assertEqual(event["event"], "received")
        self.assertEqual(event["reason"], 0)
        self.run_events("ping", self.url, "-c", "1")
        self.assertEqual(server.end(), 0)
        self.assertEqual(server.event("summary")["messages"], 2)


class Unreachable(PtcpTest):
    def test_nobody_listens(self):
        self.assert_fails(3, "nobody listens there", "ping", self.url, "--timeout", "0.3")
        self.assert_fails(3, "nobody listens there", "send", self.url, "--timeout", "0.3", "--data", "x")

    def test_nobody_answers(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent:
            silent.bind(self.address)
            self.assert_fails(3, "no answer from there", "ping", self.url, "--timeout", "4")

    def test_a_port_that_is_served_is_refused(self):
        server = self.serve()
        self.assert_fails(1, "somebody listens at port", "serve", self.url)
        self.assertEqual(server.end(), 0)

    def test_an_address_of_another_machine_is_refused(self):
        self.assert_fails(1, "'192.0.2.1' is not an address of this machine", "serve", "ptcp://192.0.2.1:7000")

    def test_urls_that_are_none_are_wrong_usage(self):
        for address in ("", "host", "host:", ":1", "host:0", "host:65536", "1_2"):
            result = self.run_tool("ping", f"ptcp://{address}")
            self.assertEqual(result.returncode, 2, address)
            self.assertIn("ptcp://host:port", result.stderr)


class DeadPeers(PtcpTest):
    """The documented times: at once when the port is closed, else about ten seconds."""

    def connect(self, interval="0.05"):
        server = self.serve("--echo")
        ping = self.start("ping", self.url, "-i", interval, "--json")
        ping.event("reply")
        return server, ping

    def test_a_restart_is_survived(self):
        server, ping = self.connect()
        for how in (signal.SIGKILL, signal.SIGTERM):
            began = time.monotonic()
            server.end(how)
            ping.event("gone")
            self.assertLess(time.monotonic() - began, 3, "a closed port is told by the system")
            server = self.serve("--echo")
            ping.event("back")
            ping.event("reply")
        self.assertEqual(ping.end(), 0)

    def test_a_client_that_is_killed_is_noticed_by_its_closed_port(self):
        server, ping = self.connect()
        began = time.monotonic()
        ping.process.kill()
        self.assertIn("reset", server.event("gone")["reason"])
        self.assertLess(time.monotonic() - began, 6, "when it is asked for a sign of life, at the latest")

    def test_a_peer_that_stands_still_is_given_up_after_ten_seconds(self):
        server, ping = self.connect("2")
        began = time.monotonic()
        ping.process.send_signal(signal.SIGSTOP)
        self.assertEqual(server.event("gone")["reason"], "Connection timed out")
        took = time.monotonic() - began
        ping.process.send_signal(signal.SIGCONT)
        self.assertTrue(6 < took < 15, took)

    def test_a_port_that_somebody_else_has_taken_over_is_noticed(self):
        server, ping = self.connect("2")
        port = int(server.event("connected")["peer"].split(":")[1].split("#")[0])
        ping.process.send_signal(signal.SIGSTOP)  # so that nothing of ours is sent in between
        ping.process.kill()
        ping.process.wait(PATIENCE)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as other:
            other.bind(("127.0.0.1", port))
            began = time.monotonic()
            self.assertEqual(server.event("gone")["reason"], "Connection timed out")
            self.assertLess(time.monotonic() - began, 15)


if __name__ == "__main__":
    unittest.main()
