"""Kills writers of the stores and holders of a segment's lock at random moments. What was acknowledged is
there, nothing is there by half, the store opens; the survivor gets the lock and is told."""

import json
import os
import random
import shutil
import subprocess
import tempfile
import time
import unittest

from proof_scale import proof_count

KILLS = proof_count(200)
PEER = os.path.join(os.environ["ZARN_BIN_DIR"], "store_peer")
LIMIT = 60  # seconds


class StoresProof(unittest.TestCase):
    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="zarn")
        self.addCleanup(shutil.rmtree, self.root, ignore_errors=True)
        os.mkdir(os.path.join(self.root, "system"))
        self.env = dict(os.environ, ZARN_ROOT=self.root)

    def start(self, *arguments):
        process = subprocess.Popen([PEER, *arguments], env=self.env, stdin=subprocess.PIPE,
                                   stdout=subprocess.PIPE)
        self.addCleanup(self.end, process)
        return process

    @staticmethod
    def end(process):
        if process.poll() is None:
            process.kill()
        process.wait(LIMIT)
        process.stdin.close()
        process.stdout.close()

    def write_until_killed(self, kind, path, first):
        """How many writes are acknowledged by now."""
        writer = self.start("write", kind, path, str(first))
        time.sleep(random.random() ** 2 * 0.25)
        writer.kill()
        lines = writer.stdout.read().splitlines(keepends=True)
        self.assertTrue(all(line.endswith(b"\n") for line in lines))
        self.end(writer)
        return int(lines[-1]) + 1 if lines else first

    def prove_writer(self, kind):
        path = os.path.join(self.root, "store")
        count = 0
        for _ in range(KILLS):
            count = self.write_until_killed(kind, path, count)
            checked = subprocess.run([PEER, "check", kind, path, str(count)], env=self.env, check=False,
                                     capture_output=True, text=True, timeout=LIMIT)
            self.assertEqual(checked.returncode, 0, f"{count} writes: {checked.stderr}")
        print(f"{kind}: {KILLS} kills, {count} acknowledged writes")
        self.assertGreater(count, 0)

    def test_sqlite_store_keeps_what_it_acknowledged(self):
        self.prove_writer("sqlite")

    def test_leveldb_store_keeps_what_it_acknowledged_with_sync(self):
        self.prove_writer("leveldb")

    def test_survivor_gets_the_lock_of_a_dead_holder_and_is_told(self):
        survivor = self.start("survive", "cfg")
        self.assertEqual(survivor.stdout.readline(), b"ready\n")

        def ask():
            survivor.stdin.write(b"lock\n")
            survivor.stdin.flush()

        for kill in range(KILLS):
            holder = self.start("hold", "cfg")
            self.assertEqual(holder.stdout.readline(), b"held\n")
            if kill % 2 == 0:
                ask()  # waits for the lock when the holder dies
            time.sleep(random.random() * 0.005)
            holder.kill()
            if kill % 2 == 1:
                holder.wait(LIMIT)
                ask()
            found = json.loads(survivor.stdout.readline())
            self.assertEqual((found["result"], found["abandoned"]), (0, True))
            self.end(holder)
            ask()
            found = json.loads(survivor.stdout.readline())
            self.assertEqual(found, {"result": 0, "abandoned": False, "whole": True})


if __name__ == "__main__":
    unittest.main()
