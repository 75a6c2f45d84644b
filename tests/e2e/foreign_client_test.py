"""A client that is not ours: Python speaks the frame over a plain Unix socket to our server."""

import random
import unittest

from frames import MAX_PAYLOAD, encode
from programs import ProgramTest


class ForeignClient(ProgramTest):
    def setUp(self):
        super().setUp()
        self.server = self.start_server("echo")
        self.client = self.connect()
        self.server.wait("accepted")

    def test_messages_of_all_sizes_come_back(self):
        payloads = [b"Gr\xc3\xbc\xc3\x9fe", b"", b"x", bytes(range(256)) * 16, b"z" * MAX_PAYLOAD]
        for tag, payload in enumerate(payloads):
            self.client.send(0xFFFF - tag, 0xFFFFFFFF - tag, payload)
            self.assertEqual(self.client.receive(), (0xFFFF - tag, 0xFFFFFFFF - tag, payload))

    def test_a_burst_comes_back_in_order(self):
        messages = 20000
        for first in range(0, messages, 1000):
            tags = range(first, first + 1000)
            self.client.send_bytes(b"".join(encode(3, tag, b"%d" % tag) for tag in tags))
            for tag in tags:
                self.assertEqual(self.client.receive(), (3, tag, b"%d" % tag))

    def test_frames_in_single_bytes(self):
        for byte in encode(1, 2, b"slow") + encode(3, 4) + encode(5, 6, b"done"):
            self.client.send_bytes(bytes([byte]))
        self.assertEqual(self.client.receive(), (1, 2, b"slow"))
        self.assertEqual(self.client.receive(), (3, 4, b""))
        self.assertEqual(self.client.receive(), (5, 6, b"done"))

    def test_frames_cut_anywhere(self):
        cut = random.Random(11)
        sizes = [cut.randrange(5000) for _ in range(300)] + [MAX_PAYLOAD] * 5
        stream = b"".join(encode(9, tag, b"c" * size) for tag, size in enumerate(sizes))
        place = 0
        for tag, size in enumerate(sizes):
            end = sum(sizes[: tag + 1]) + 12 * (tag + 1)
            while place < end:
                step = cut.randrange(1, 9000)
                self.client.send_bytes(stream[place : place + step])
                place += step
            self.assertEqual(self.client.receive(), (9, tag, b"c" * size))

    def test_half_a_frame_is_never_delivered(self):
        self.client.send_bytes(encode(1, 1, b"whole") + encode(1, 2, b"half of it")[:15])
        self.assertEqual(self.client.receive(), (1, 1, b"whole"))
        self.client.close()
        self.server.wait("disconnected", clients=0)
        self.assertEqual(self.server.ask("stats")["received"], 1)

    def test_half_a_header_is_never_delivered(self):
        self.client.send_bytes(encode(1, 1)[:7])
        self.client.close()
        self.server.wait("disconnected", clients=0)
        self.assertEqual(self.server.ask("stats")["received"], 0)

    def test_an_empty_message_of_the_server_is_twelve_bytes(self):
        self.server.tell("send 1 0")
        self.server.wait("sent", failed=0)
        self.assertEqual(self.client.socket.recv(100), encode(1, 0))

    def test_a_longer_message_than_the_frame_holds_is_not_sent(self):
        self.server.tell(f"send 1 {MAX_PAYLOAD + 1}")
        self.server.wait("sent", failed=1)
        self.assert_echoes(self.client)


if __name__ == "__main__":
    unittest.main()
