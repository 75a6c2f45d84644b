"""A process that shares memory with honest ones and writes values of every kind over all of it, before,
during and after sends, as a client and as a server. The honest ones disconnect or go on: they do not
crash, serve others all the while, use no processor time when it is stopped, and keep nothing of it."""

import os
import random
import signal
import time
import unittest

from programs import LIMIT, ProgramTest
from proof_scale import proof_count

SECONDS = proof_count(60)  # of each kind
CLIENTS = 8


def until(holds, what: str) -> None:
    end = time.monotonic() + LIMIT
    while not holds():
        if time.monotonic() > end:
            raise AssertionError(what)
        time.sleep(0.02)


class Scribbles(ProgramTest):
    def torment(self, scribbler, victims) -> None:
        """Lets them send for a while, and stops the scribbler now and then in the middle of it."""
        choice = random.Random(3)
        end = time.monotonic() + SECONDS
        while time.monotonic() < end:
            for _ in range(15):
                for victim in victims:
                    victim.tell(f"send 20 {choice.choice((0, 100, 5000, 65523))}")
                    victim.wait("sent")
                time.sleep(choice.random() * 0.05)
            scribbler.signal(signal.SIGSTOP)
            for victim in victims:
                victim.ask("stats")
            self.assert_idle(victims[0])
            scribbler.signal(signal.SIGCONT)
        rounds = scribbler.ask("stats")["rounds"]
        print(f"{rounds} rounds")
        self.assertGreater(rounds, 0)

    def serve(self, *options: str) -> None:
        root = self.new_root()
        server = self.start_server("echo", "shm", "bound=20000000", *options, root=root)
        polite = self.start_client("count", "shm", root=root)
        polite.wait("connected")
        server.wait("accepted")
        server.ask("stats")  # what accepting took is given back by now
        held = server.descriptors(), server.mappings()
        scribbler = self.start("scribbler_peer", "connect", "1_2", root=root)
        scribbler.wait("ready")
        self.torment(scribbler, [server])
        scribbler.end()
        server.stats_until(lambda stats: stats["clients"] == 1)
        self.assertEqual((server.descriptors(), server.mappings()), held)
        before = polite.ask("stats")["received"]
        polite.tell("send 100 1000")
        polite.stats_until(lambda stats: stats["received"] >= before + 100)

    def test_server_stands_a_scribbling_client(self):
        self.serve()

    def test_spinning_server_stands_a_scribbling_client(self):
        self.serve("spin=50")

    def test_clients_stand_a_scribbling_server(self):
        os.makedirs(os.path.join(self.root.path, "system", "zarn", "shmipc"), mode=0o700)
        clients = [self.start_client("echo", "shm") for _ in range(CLIENTS)]
        for client in clients:
            client.wait("failed")
        scribbler = self.start("scribbler_peer", "accept", "1_2")
        scribbler.wait("ready")
        self.torment(scribbler, clients)
        scribbler.end()
        for client in clients:
            client.stats_until(lambda stats: not stats["connected"])
            until(lambda: client.mappings() == 0, "a mapping is left")
        server = self.start_server("count", "shm")
        server.stats_until(lambda stats: stats["clients"] == CLIENTS)
        for client in clients:  # only then it has closed what it handed over
            client.stats_until(lambda stats: stats["connected"])
        descriptors = {client.descriptors() for client in clients}
        self.assertEqual(len(descriptors), 1, descriptors)  # each came by as many connections


if __name__ == "__main__":
    unittest.main()
