"""Processes that run out of descriptors again and again: what needs one fails or waits, nothing else is
disturbed, none leaks, and all goes on when there are descriptors again.

Not for sanitized builds, whose own checks need descriptors."""

import errno
import unittest

from programs import ProgramTest
from proof_scale import proof_count

ROUNDS = proof_count(40)


class OutOfDescriptors(ProgramTest):
    def test_a_server_lets_new_clients_wait(self):
        server = self.start_server("echo")
        early = self.connect()
        self.assert_echoes(early)
        descriptors = server.descriptors()
        for _ in range(ROUNDS):
            self.assertTrue(server.ask("no-descriptors")["done"])
            late = [self.connect() for _ in range(20)]
            for connection in late:
                connection.send(7, 8, b"waiting")
            self.assert_echoes(early)
            self.assert_idle(server)
            self.assertEqual(server.ask("stats")["clients"], 1)
            self.assertTrue(server.ask("descriptors")["done"])
            for connection in late:
                self.assertEqual(connection.receive(), (7, 8, b"waiting"))
                connection.close()
            server.stats_until(lambda stats: stats["clients"] == 1)
            self.assertEqual(server.descriptors(), descriptors)

    def test_a_client_that_waits_takes_the_place_of_one_that_leaves(self):
        server = self.start_server("echo")
        connection = self.connect()
        self.assert_echoes(connection)
        server.ask("no-descriptors")
        for _ in range(ROUNDS):
            late = self.connect()
            self.assert_echoes(connection)
            connection.close()
            self.assert_echoes(late)
            connection = late

    def test_a_client_that_cannot_open_a_socket_says_why_and_recovers(self):
        client = self.start_client("echo")  # nobody listens yet, so it holds no connection
        client.wait("failed", reason=errno.ENOENT)
        descriptors = client.descriptors()
        for _ in range(max(1, ROUNDS // 4)):
            client.ask("no-descriptors")
            client.wait("failed", reason=errno.EMFILE)
            self.assert_idle(client)
            client.ask("descriptors")
            client.wait("failed", reason=errno.ENOENT)
            self.assertEqual(client.descriptors(), descriptors)
        client.ask("no-descriptors")
        self.start_server("echo")
        client.wait("failed", reason=errno.EMFILE)
        client.ask("descriptors")
        client.wait("connected")


if __name__ == "__main__":
    unittest.main()
