"""Kills servers and clients that share memory at random moments under load, with loops that sleep and
loops that spin. The survivor notices, the client is back soon after its peer, what arrives is whole and
in order, and nothing is left over: no descriptor, no mapping, no file but the endpoint's."""

import unittest

from kills import run_kills
from programs import ProgramTest
from proof_scale import proof_count

KILLS = proof_count(500)  # of each kind


class ShmKills(ProgramTest):
    def test_what_is_killed_is_missed_and_found_again(self):
        run_kills(self, KILLS, "shm")

    def test_what_is_killed_while_both_spin_is_missed_and_found_again(self):
        run_kills(self, KILLS, "shm", "spin=50")


if __name__ == "__main__":
    unittest.main()
