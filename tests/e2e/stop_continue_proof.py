"""Stops a peer with SIGSTOP under load and lets it go on: nothing is lost and order is kept."""

import random
import signal
import unittest

from programs import ProgramTest
from proof_scale import proof_count

STOPS = proof_count(100)


class StopAndContinue(ProgramTest):
    def stop_until_the_other_is_stuck(self, stopped, other):
        """The other side notices nothing but that nothing is taken any more."""
        stopped.signal(signal.SIGSTOP)
        last = -1

        def is_stuck(stats):
            nonlocal last
            stuck = stats["queued"] > 0 and stats["sent"] == last
            last = stats["sent"]
            return stuck

        other.stats_until(is_stuck)
        stopped.signal(signal.SIGCONT)

    def test_nothing_is_lost(self):
        self.stop_and_continue()

    def test_nothing_is_lost_over_shared_memory(self):
        self.stop_and_continue("shm")

    def stop_and_continue(self, *options):
        choice = random.Random(5)
        server = self.start_server("load", *options)
        client = self.start_client("load", *options)
        client.wait("connected")
        server.wait("accepted")
        for _ in range(STOPS):
            stopped, other = choice.sample([server, client], 2)
            received = stopped.ask("stats")["received"]
            self.stop_until_the_other_is_stuck(stopped, other)
            stopped.stats_until(lambda stats: stats["received"] > received + 100)
        for program in (server, client):
            program.tell("quiet")
        sent_by_server = server.ask("stats")["sent"]
        sent_by_client = client.ask("stats")["sent"]
        for program, sent in ((server, sent_by_client), (client, sent_by_server)):
            stats = program.stats_until(lambda stats: stats["received"] >= sent)
            self.assertEqual(stats["received"], sent)
            self.assertEqual(stats["wrong"], 0)
            self.assertEqual(program.trace(), [])
        print(f"{STOPS} stops: {sent_by_server + sent_by_client} messages, none lost")


if __name__ == "__main__":
    unittest.main()
