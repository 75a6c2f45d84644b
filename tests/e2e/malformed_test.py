"""Malformed frames: they cost a trace line, bounded memory and no processor time, and nobody else is
disturbed. The end of whoever sent them is still noticed."""

import unittest

from frames import FrameServer, connect, encode, encode_raw
from programs import ProgramTest

MALFORMED = {
    "the length does not match the payload's": encode_raw(1, 20, 2, 4, b"\0" * 8),
    "the length is nothing": encode_raw(1, 0, 2, 0),
    "the length is less than a header": encode_raw(1, 11, 2, 0),
    "the length of the payload is huge": encode_raw(1, 16, 2, 0x7FFFFFFF, b"abcd"),
    "the length of the payload wraps to 11": encode_raw(1, 11, 2, 0xFFFFFFFF),
    "the length of the payload wraps to 0": encode_raw(1, 0, 2, 0xFFFFFFF4),
    "the length of the payload wraps to 8": encode_raw(1, 8, 2, 0xFFFFFFFC),
}
MOST_TAKEN = 4 << 20  # receive limit, one read, and what the system's socket buffers hold
MOST_LINES = 5  # on standard error, for each bad connection
MOST_GROWTH = 16 << 20
MOST_GROWTH_SANITIZED = 96 << 20


class Malformed(ProgramTest):
    def assert_bounded(self, program, connection, resident_before):
        """Nothing more than a bounded part of a flood is taken, and nobody works on it."""
        taken = connection.fill(encode(1, 9, b"f" * 60000), 64 << 20)
        self.assertLess(taken, MOST_TAKEN)
        self.assert_idle(program)
        sanitized = program.is_sanitized()
        most = MOST_GROWTH_SANITIZED if sanitized else MOST_GROWTH
        self.assertLess(program.resident_bytes() - resident_before, most)

    def test_a_server_stalls_that_client_alone(self):
        server = self.start_server("echo")
        other = self.connect()
        self.assert_echoes(other)
        before = server.resident_bytes()
        for count, (name, frame) in enumerate(MALFORMED.items(), 1):
            with self.subTest(name):
                bad = self.connect()
                bad.send(1, 2, b"good")
                bad.send_bytes(frame)
                self.assertEqual(bad.receive(), (1, 2, b"good"))
                server.stats_until(lambda stats, count=count: stats["malformed"] == count)
                self.assert_bounded(server, bad, before)
                self.assert_echoes(other)
                bad.close()
                server.wait("disconnected", clients=1)
                self.assert_echoes(other)
                received = server.ask("stats")["received"]
                self.assertEqual(received, 1 + 3 * count)  # nothing behind the bad frame
                self.assertIn("fatal error", server.trace()[-1])
                self.assertLessEqual(len(server.trace()), MOST_LINES * count)

    def test_a_thousand_bad_clients_leave_few_lines(self):
        server = self.start_server("echo")
        for _ in range(1000):
            with connect(self.root.endpoint("1_2")) as bad:
                bad.send_bytes(MALFORMED["the length does not match the payload's"])
        stats = server.stats_until(lambda stats: stats["malformed"] == 1000 and not stats["clients"])
        self.assertEqual(stats["received"], 0)
        self.assertLess(len(server.trace()), 100)
        self.assert_echoes(self.connect())

    def test_a_client_stalls_until_its_server_goes_and_then_finds_the_next(self):
        with FrameServer(self.root.endpoint("1_2")) as listening:
            client = self.start_client("echo")
            with listening.accept() as connection:
                self.assert_echoes(connection)
                before = client.resident_bytes()
                connection.send_bytes(MALFORMED["the length is less than a header"])
                client.stats_until(lambda stats: stats["malformed"] == 1)
                self.assert_bounded(client, connection, before)
            client.wait("disconnected")
            with listening.accept() as connection:
                client.wait("connected")
                self.assert_echoes(connection)
            self.assertIn("fatal error", client.trace()[0])
            self.assertLessEqual(len(client.trace()), MOST_LINES)


if __name__ == "__main__":
    unittest.main()
