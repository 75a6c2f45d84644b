"""ptcp:// and ptls:// over paths that lose, delay, double and damage datagrams: every message arrives
once, in order and unchanged, or the sender says that it did not."""

import socket
import subprocess
import tempfile
import unittest

from certificates import Authority
from udp_relay import UdpRelay
from zarn_tool import PATIENCE, ToolTest

PATHS = {
    "1 % is lost": {"loss": 0.01},
    "5 % is lost": {"loss": 0.05},
    "much is late, doubled or damaged": {"loss": 0.02, "late": 0.05, "doubled": 0.03, "flipped": 0.02},
}
LINES = 3000


class Loss(ToolTest):
    @classmethod
    def setUpClass(cls):
        directory = tempfile.TemporaryDirectory(prefix="zarnptcp")
        cls.addClassCleanup(directory.cleanup)
        cls.authority = Authority(directory.name)
        cls.key, cls.certificate = cls.authority.issue("server")

    def setUp(self):
        super().setUp()
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            probe.bind(("127.0.0.1", 0))
            self.server_address = probe.getsockname()

    def transfer(self, scheme, serve_options, send_options):
        port = self.server_address[1]
        for seed, (name, traits) in enumerate(PATHS.items()):
            with self.subTest(f"{scheme}: {name}"):
                server = self.serve("--full", *serve_options, url=f"{scheme}://127.0.0.1:{port}")
                relay = UdpRelay(self.server_address, seed, **traits)
                try:
                    lines = [f"{number} " + "x" * (number * 7 % 3000) for number in range(LINES)]
                    self.run_events("send", f"{scheme}://127.0.0.1:{relay.address[1]}", *send_options, "-",
                                    "--timeout", str(PATIENCE), input="\n".join(lines))
                    self.assertGreater(relay.lost, 0)
                    texts = [server.event("message")["text"] for _ in lines]
                    self.assertEqual(texts, lines)
                    gone = server.event("gone")
                    self.assertEqual((gone["reason"], gone["messages"]), ("closed", LINES))
                    self.assertEqual(server.end(), 0)
                finally:
                    relay.close()

    def test_plain(self):
        self.transfer("ptcp", (), ())

    def test_with_tls_on_top(self):
        self.transfer("ptls", ("--key", self.key, "--cert", self.certificate),
                      ("--ca", self.authority.certificate))

    def fall_silent(self, scheme, serve_options, send_options):
        server = self.serve(*serve_options, url=f"{scheme}://127.0.0.1:{self.server_address[1]}")
        relay = UdpRelay(self.server_address, 0)
        self.addCleanup(relay.close)
        sender = self.start("send", f"{scheme}://127.0.0.1:{relay.address[1]}", *send_options, "-", "--timeout", "3",
                            stdin=subprocess.PIPE)
        sender.process.stdin.write(b"arrives\n")
        sender.process.stdin.flush()
        server.event("message")
        relay.silent = True
        sender.process.stdin.write(b"is lost\n")
        sender.process.stdin.close()
        self.assertRegex(sender.line_with("the peer takes nothing", "stderr"), "bytes left after 3 s$")
        self.assertEqual(sender.process.wait(PATIENCE), 1)

    def test_a_sender_whose_bytes_are_not_acknowledged_says_so(self):
        self.fall_silent("ptcp", (), ())

    def test_a_sender_with_tls_on_top_says_so_too(self):
        self.fall_silent("ptls", ("--key", self.key, "--cert", self.certificate),
                         ("--ca", self.authority.certificate))


if __name__ == "__main__":
    unittest.main()
