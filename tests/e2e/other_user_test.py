"""Peers of another user: refused, and whoever refuses them goes on. Needs root, who alone can become
somebody else."""

import errno
import os
import unittest

from frames import FrameServer
from programs import ProgramTest

NOBODY = 65534


def as_nobody(work) -> int:
    """Runs work() in a child process of another user; its result, 0 to 100."""
    pid = os.fork()
    if pid == 0:
        result = 101
        try:
            os.setgroups([])
            os.setgid(NOBODY)
            os.setuid(NOBODY)
            result = work()
        finally:
            os._exit(result)
    return os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])


@unittest.skipUnless(os.geteuid() == 0, "not root")
class OtherUser(ProgramTest):
    def open_the_way(self):
        """Lets everybody through to the endpoint, as nobody should: the last check must hold."""
        os.chmod(self.root.endpoint("1_2"), 0o666)
        directory = self.root.endpoint("")
        while len(directory) >= len(self.root.top):
            os.chmod(directory, 0o755)
            directory = os.path.dirname(directory)

    def knock(self) -> int:
        """Connects and sends a message: 1 when the system refuses, 2 when the server hangs up, 3 when
        it answers."""
        try:
            connection = self.connect()
        except PermissionError:
            return 1
        try:
            connection.send(1, 2, b"let me in")
        except BrokenPipeError:
            return 2
        return 2 if connection.ends() else 3

    def test_a_client_cannot_even_reach_the_file(self):
        server = self.start_server("echo")
        self.assertEqual(as_nobody(self.knock), 1)
        self.assert_echoes(self.connect())
        server.wait("accepted", clients=1)

    def test_a_client_that_reaches_the_file_is_refused(self):
        server = self.start_server("echo")
        early = self.connect()
        self.open_the_way()
        self.assertEqual(as_nobody(self.knock), 2)
        self.assert_echoes(early)
        self.assert_echoes(self.connect())
        stats = server.ask("stats")
        self.assertEqual((stats["clients"], stats["received"]), (2, 2))

    def test_a_server_is_refused(self):
        """What listens as another user is not trusted, although it can be reached."""
        path = self.root.endpoint("1_2")
        os.chmod(os.path.dirname(path), 0o777)
        os.chmod(self.root.top, 0o755)
        for directory in ("system", "system/zarn"):
            os.chmod(os.path.join(self.root.top, directory), 0o755)
        ready, told = os.pipe()

        def listen():
            with FrameServer(path) as listening:
                os.write(told, b"!")
                with listening.accept() as connection:
                    return 0 if connection.ends() else 1

        pid = os.fork()
        if pid == 0:
            os._exit(as_nobody(listen))
        os.read(ready, 1)
        client = self.start_client("echo")
        client.wait("failed", reason=errno.EACCES)
        self.assertEqual(os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]), 0)
        os.unlink(path)
        os.chmod(os.path.dirname(path), 0o700)
        self.start_server("echo")
        client.wait("connected")


if __name__ == "__main__":
    unittest.main()
