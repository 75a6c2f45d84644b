"""Two servers race for one endpoint: exactly one gets it, and the other leaves it alone."""

import errno
import os
import socket
import time
import unittest

import frames
from programs import LIMIT, ProgramTest
from proof_scale import proof_count

RACES = proof_count(1000)


class Race(ProgramTest):
    def leave_stale_file(self, path):
        dead = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        dead.bind(path)
        dead.close()

    def loser(self, racers):
        """Which of the two has been refused: at once, or after it has waited for the other."""
        moment = time.monotonic() + 0.001
        for racer in racers:
            racer.tell(f"listen {moment:.9f}")
        results = [racer.wait("listen")["result"] for racer in racers]
        refused = [number for number in range(2) if results[number] != 0]
        self.assertLess(len(refused), 2, f"nobody listens: {results}")
        if refused:
            self.assertEqual(results[refused[0]], errno.EADDRINUSE)
            return refused[0]
        self.waits += 1
        end = time.monotonic() + LIMIT
        while time.monotonic() < end:
            for number, racer in enumerate(racers):
                for event in racer.take_events():
                    self.assertEqual(event["event"], "listen_failed")
                    self.assertEqual(event["reason"], errno.EADDRINUSE)
                    return number
            time.sleep(0.001)
        self.fail("both listen")

    def test_exactly_one_wins(self):
        path = self.root.endpoint("1_2")
        racers = [self.start("racer_peer", "1_2") for _ in range(2)]
        for racer in racers:
            racer.wait("ready")
        wins = [0, 0]
        self.waits = 0
        for race in range(RACES):
            if race % 2:
                self.leave_stale_file(path)
            lost = self.loser(racers)
            loser, winner = racers[lost], racers[1 - lost]
            wins[1 - lost] += 1
            file = os.stat(path).st_ino
            frames.connect(path).close()
            winner.wait("accepted")
            loser.ask("stop")
            self.assertEqual(os.stat(path).st_ino, file)
            frames.connect(path).close()
            winner.wait("accepted")
            self.assertEqual(loser.take_events(), [])
            winner.ask("stop")
            self.assertFalse(os.path.exists(path))
        print(f"{RACES} races, one winner each: {wins}; in {self.waits} the loser had to wait")


if __name__ == "__main__":
    unittest.main()
