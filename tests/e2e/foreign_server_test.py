"""A server that is not ours: Python accepts our client on a plain Unix socket and speaks the frame."""

import unittest

from frames import MAX_PAYLOAD, FrameServer, encode
from programs import ProgramTest


class ForeignServer(ProgramTest):
    def setUp(self):
        super().setUp()
        self.listening = FrameServer(self.root.endpoint("1_2"))
        self.addCleanup(self.listening.listening.close)
        self.client = self.start_client("echo")
        self.connection = self.listening.accept()
        self.addCleanup(self.connection.close)
        self.client.wait("connected", retries=0)

    def test_messages_of_all_sizes_come_back(self):
        for tag, payload in enumerate([b"text", b"", b"y" * MAX_PAYLOAD]):
            self.connection.send(6, tag, payload)
            self.assertEqual(self.connection.receive(), (6, tag, payload))

    def test_a_burst_comes_back_in_order(self):
        for first in range(0, 20000, 1000):
            tags = range(first, first + 1000)
            self.connection.send_bytes(b"".join(encode(3, tag, b"%d" % tag) for tag in tags))
            for tag in tags:
                self.assertEqual(self.connection.receive(), (3, tag, b"%d" % tag))

    def test_frames_in_single_bytes(self):
        for byte in encode(1, 2, b"slow") + encode(3, 4):
            self.connection.send_bytes(bytes([byte]))
        self.assertEqual(self.connection.receive(), (1, 2, b"slow"))
        self.assertEqual(self.connection.receive(), (3, 4, b""))

    def test_nothing_is_sent_on_connecting_and_nothing_longer_than_a_frame(self):
        self.client.tell(f"send 1 {MAX_PAYLOAD + 1}")
        self.client.wait("sent", failed=1)
        self.client.tell("send 1 0")
        self.client.wait("sent", failed=0)
        self.assertEqual(self.connection.receive(), (1, 0, b""))

    def test_half_a_frame_does_not_reach_the_next_connection(self):
        self.connection.send_bytes(encode(1, 1, b"half of it")[:15])
        self.connection.close()
        self.client.wait("disconnected")
        with self.listening.accept() as second:
            self.client.wait("connected")
            self.assert_echoes(second)
        self.assertEqual(self.client.ask("stats")["received"], 1)


if __name__ == "__main__":
    unittest.main()
