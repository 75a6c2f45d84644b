"""Kills servers and clients at random moments under load, many pairs at once. The survivor notices, the
client is back soon after its peer, what arrives is whole, in order and delivered once for each
connection, and neither descriptors nor memory grow."""

import unittest

from kills import run_kills
from programs import ProgramTest
from proof_scale import proof_count

KILLS = proof_count(200)


class Kills(ProgramTest):
    def test_what_is_killed_is_missed_and_found_again(self):
        run_kills(self, KILLS)


if __name__ == "__main__":
    unittest.main()
