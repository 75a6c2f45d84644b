"""Endpoints in awkward places: something else is there already, the path is long, the root goes away."""

import errno
import os
import shutil
import unittest

from programs import ProgramTest


class SomethingElseIsThere(ProgramTest):
    def assert_left_alone(self):
        """Neither side gets anywhere, and neither does any harm."""
        before = os.lstat(self.root.endpoint("1_2"))
        server = self.start("server_peer", "1_2", "echo")
        server.wait("listen_failed", reason=errno.EADDRINUSE)
        client = self.start_client("echo")
        self.assertIn(client.wait("failed")["reason"], (errno.ECONNREFUSED, errno.ENOENT))
        client.wait("failed")  # and goes on trying
        self.assertEqual((server.end(), client.end()), (0, 0))
        after = os.lstat(self.root.endpoint("1_2"))
        self.assertEqual((after.st_ino, after.st_mode), (before.st_ino, before.st_mode))

    def test_a_regular_file(self):
        with open(self.root.endpoint("1_2"), "w", encoding="ascii") as file:
            file.write("keep me")
        self.assert_left_alone()
        with open(self.root.endpoint("1_2"), encoding="ascii") as file:
            self.assertEqual(file.read(), "keep me")

    def test_a_directory(self):
        os.mkdir(self.root.endpoint("1_2"))
        self.assert_left_alone()

    def test_a_symbolic_link_to_nothing(self):
        os.symlink("/nowhere", self.root.endpoint("1_2"))
        self.assert_left_alone()

    def test_a_live_server(self):
        server = self.start_server("echo")
        second = self.start("server_peer", "1_2", "echo")
        second.wait("listen_failed", reason=errno.EADDRINUSE)
        self.assertEqual(second.end(), 0)
        self.assert_echoes(self.connect())
        server.wait("accepted", clients=1)

    def test_a_directory_that_others_may_write_to(self):
        os.chmod(os.path.dirname(self.root.endpoint("1_2")), 0o777)
        server = self.start("server_peer", "1_2", "echo")
        server.wait("listen_failed", reason=errno.EPERM)


class LongRoot(ProgramTest):
    def test_a_root_of_two_hundred_characters(self):
        long_root = self.new_root("d" * (199 - len(self.root.top)))
        self.assertEqual(len(long_root.path), 200)
        server = self.start_server("load", root=long_root)
        client = self.start_client("load", root=long_root)
        client.wait("connected")
        for program in (server, client):
            program.stats_until(lambda stats: stats["received"] > 100 and not stats["wrong"])
        second = self.start("server_peer", "1_2", "echo", root=long_root)
        second.wait("listen_failed", reason=errno.EADDRINUSE)
        server.kill()
        client.wait("disconnected")
        self.start_server("load", root=long_root)  # in place of the stale file
        client.wait("connected")


class RootGoesAway(ProgramTest):
    def test_connections_go_on_and_clients_wait_for_a_new_root(self):
        server = self.start_server("echo")
        client = self.start_client("count")
        client.wait("connected")
        connection = self.connect()
        shutil.rmtree(self.root.path)
        self.assert_echoes(connection)
        late = self.start("client_peer", "5_6", "1_2", "count")
        late.wait("init_failed")
        client.tell("send 3 100")
        client.stats_until(lambda stats: stats["received"] == 3)
        server.kill()
        client.wait("disconnected")
        client.stats_until(lambda stats: stats["retries"] >= 2)
        os.makedirs(os.path.join(self.root.path, "system"))
        self.start_server("echo")
        client.wait("connected")
        client.tell("send 3 100")
        client.stats_until(lambda stats: stats["received"] == 6)

    def test_a_server_without_its_file_ends_well_and_leaves_the_next_one_alone(self):
        server = self.start_server("echo")
        shutil.rmtree(self.root.path)
        os.makedirs(os.path.join(self.root.path, "system"))
        self.start_server("echo")
        self.assertEqual(server.end(), 0)
        self.assert_echoes(self.connect())


if __name__ == "__main__":
    unittest.main()
