"""Stores and segments on a disk that is full: a file system of its own, in a mount namespace that ends with
the test. Needs root, who alone can mount."""

import os
import subprocess
import unittest

from zarn_tool import PATIENCE, TOOL, ToolTest

PEER = os.path.join(os.path.dirname(TOOL), "store_peer")
SCRIPT = """
set -u
mount -t tmpfs -o size=256k tmpfs "$DISK" && cd "$DISK" && mkdir system || exit 9
"$TOOL" db s.db set k old && "$TOOL" kv st put k old || exit 8
head -c 400000 /dev/zero | "$TOOL" kv st put large --file -; echo "$?"
dd if=/dev/zero of=fill bs=4096 2>/dev/null
"$TOOL" db s.db set k new; echo "$?"
"$TOOL" db s.db set l new; echo "$?"
"$TOOL" db s.db ls
"$TOOL" db s.db export out; echo "$? $(ls out* 2>/dev/null)"
echo | "$PEER" survive cfg; echo "$?"
mount -o remount,size=4m "$DISK"
"$TOOL" db s.db set k new; echo "$?"
"$TOOL" db s.db ls
"$TOOL" kv st put l new; echo "$?"
"$TOOL" kv st dump
echo | "$PEER" survive cfg
"""


@unittest.skipUnless(os.geteuid() == 0, "not root")
class FullDisk(ToolTest):
    def test_is_a_code_the_old_data_stays_and_with_room_all_goes_on(self):
        disk = self.root / "disk"
        disk.mkdir()
        env = dict(self.env, DISK=str(disk), TOOL=TOOL, PEER=PEER, ZARN_ROOT=str(disk))
        result = subprocess.run(["unshare", "--mount", "bash", "-c", SCRIPT], env=env, check=False,
                                capture_output=True, text=True, timeout=PATIENCE)
        self.assertEqual(result.stdout.splitlines(), [
            "1", "1", "1", "k\told", "1 ", "1",  # no room
            "0", "k\tnew", "0", "k\told", "l\tnew", "ready",
            '{"result": 0, "abandoned": false, "whole": true}'], result.stderr)


if __name__ == "__main__":
    unittest.main()
