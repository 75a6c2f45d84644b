"""Two processes exchange numbered messages of random sizes, each with its hash, as fast as they can: all
arrive, whole and in order, whether their loops sleep, spin, or one does the one and one the other."""

import time
import unittest

from programs import ProgramTest
from proof_scale import proof_count

SECONDS = proof_count(600)


class ShmOrdering(ProgramTest):
    def exchange(self, server_options, client_options):
        root = self.new_root()
        server = self.start_server("flood", "shm", *server_options, root=root)
        client = self.start_client("flood", "shm", *client_options, root=root)
        client.wait("connected")
        time.sleep(SECONDS / 3)
        for program in (server, client):
            program.tell("quiet")
        sent = {program: program.ask("stats")["sent"] for program in (server, client)}
        for program, other in ((server, client), (client, server)):
            stats = program.stats_until(lambda stats: stats["received"] >= sent[other])
            self.assertEqual(stats["received"], sent[other])
            self.assertEqual(stats["wrong"], 0)
            self.assertEqual(program.trace(), [])
            print(f"{stats['received']} messages, {stats['received_bytes'] >> 20} MiB")
            self.assertGreater(stats["received"], 1000)

    def test_sleeping_loops(self):
        self.exchange((), ())

    def test_spinning_loops(self):
        self.exchange(("spin=50",), ("spin=50",))

    def test_one_of_each(self):
        self.exchange(("spin=50",), ())


if __name__ == "__main__":
    unittest.main()
