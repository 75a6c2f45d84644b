"""zarn kv: what it prints, and which stores it refuses."""

import errno
import os
import subprocess
import unittest

from zarn_tool import PATIENCE, SOMEBODY, TOOL, ToolTest


class Kv(ToolTest):
    def setUp(self):
        super().setUp()
        self.path = self.root / "store"
        self.kv = ("kv", str(self.path))

    def run_ok(self, *arguments, **options):
        result = self.run_tool(*arguments, **options)
        self.assertEqual(result.returncode, 0, result.stderr)
        return result.stdout

    def fails(self, code, pattern, *arguments, **options):
        result = self.run_tool(*arguments, **options)
        self.assertEqual(result.returncode, code, result.stderr)
        self.assertRegex(result.stderr, pattern)

    def test_put_get_and_rm(self):
        self.assertEqual(self.run_ok(*self.kv, "put", "it's", "v"), "")
        self.assertEqual(self.run_ok(*self.kv, "get", "it's"), "v\n")
        self.run_ok(*self.kv, "put", "it's", "w")
        self.assertEqual(self.run_ok(*self.kv, "dump"), "it's\tw\n")
        self.run_ok(*self.kv, "rm", "it's")
        self.assertEqual(self.run_ok(*self.kv, "dump"), "")

    def test_any_bytes_are_kept(self):
        raw = bytes(range(256)) * 500
        (self.root / "raw").write_bytes(raw)
        self.run_ok(*self.kv, "put", "00ff", "--hex-key", "--file", str(self.root / "raw"))
        self.run_ok(*self.kv, "put", "empty", "")
        self.run_ok(*self.kv, "put", "k", "--hex", "0A5c")
        self.run_ok(*self.kv, "put", "none", "--hex", "")
        piped = subprocess.run([TOOL, *self.kv, "get", "00ff", "--hex-key", "--file", "-"], env=self.env,
                               check=True, capture_output=True, timeout=PATIENCE)
        self.assertEqual(piped.stdout, raw)
        self.assertEqual(self.run_ok(*self.kv, "get", "k"), "\\n\\\\\n")
        self.assertEqual(self.run_events(*self.kv, "dump", "--hex"), [
            {"event": "entry", "key": "00ff", "value": raw.hex(), "size": len(raw)},
            {"event": "entry", "key": b"empty".hex(), "value": "", "size": 0},
            {"event": "entry", "key": "6b", "value": "0a5c", "size": 2},
            {"event": "entry", "key": b"none".hex(), "value": "", "size": 0}])

    def test_absent_keys_and_stores_are_failures_and_nothing_is_made(self):
        for verb in (("get", "k"), ("rm", "k"), ("dump",)):
            self.fails(1, "there is no store", *self.kv, *verb)
        self.assertFalse(self.path.exists())
        self.run_ok(*self.kv, "put", "k", "v")
        self.fails(1, "no key 'l'", *self.kv, "get", "l")
        self.fails(1, "no key 'l'", *self.kv, "rm", "l")

    def test_a_value_is_not_written_into_the_store(self):
        self.run_ok(*self.kv, "put", "k", "v")
        (self.root / "link").symlink_to("store/CURRENT")
        before = (self.path / "CURRENT").read_bytes()
        for name in ("store/CURRENT", "store/new", "./store/../store/new", "link", str(self.path / "LOCK")):
            self.fails(1, f"^zarn: '{name}': belongs to the store\n$", *self.kv, "get", "k", "--file", name,
                       cwd=self.root)
        self.assertEqual(self.run_ok("kv", ".", "get", "k", "--file", "-", cwd=self.path), "v")
        self.run_ok("kv", ".", "get", "k", "--file", "../out", cwd=self.path)
        self.assertEqual((self.root / "out").read_text(), "v")
        self.assertEqual((self.path / "CURRENT").read_bytes()[:8], before[:8])
        self.assertFalse((self.path / "new").exists())

    def test_a_store_in_use_is_told_with_its_holder(self):
        self.run_ok(*self.kv, "put", "k", "v")
        peer = os.path.join(os.path.dirname(TOOL), "store_peer")
        with subprocess.Popen([peer, "write", "leveldb", str(self.path), "0"],
                              stdout=subprocess.PIPE) as holder:
            holder.stdout.readline()
            try:
                for verb in (("get", "k"), ("dump",)):
                    self.fails(1, rf"in use by process {holder.pid} \(store_peer\)", *self.kv, *verb)
            finally:
                holder.kill()
        self.assertEqual(self.run_ok(*self.kv, "get", "k"), "v\n")

    def test_what_is_no_store_is_refused(self):
        self.path.write_text("")
        self.fails(1, "there is no store: Not a directory", *self.kv, "dump")
        self.fails(1, "Not a directory", *self.kv, "put", "k", "v")

    def test_a_store_that_cannot_be_made_is_told_with_the_reason(self):
        self.root.chmod(0o555)
        self.addCleanup(self.root.chmod, 0o755)
        self.fails(1, f"^zarn: '{self.path}': cannot be made: Permission denied\n$", *self.kv, "put", "k", "v",
                   **SOMEBODY)

    def test_a_file_for_a_value_that_cannot_be_read_is_told_and_no_store_is_made(self):
        self.fails(1, f"^zarn: '{self.root}': Is a directory$", *self.kv, "put", "k", "--file", str(self.root))
        self.fails(1, "none': No such file", *self.kv, "put", "k", "--file", str(self.root / "none"))
        self.assertFalse(self.path.exists())

    def test_a_damaged_store_is_told(self):
        self.run_ok(*self.kv, "put", "k", "v")
        (self.path / "CURRENT").write_text("MANIFEST-999999\n")
        for verb in (("get", "k"), ("put", "k", "w"), ("rm", "k"), ("dump",)):
            self.fails(1, rf"^zarn: '{self.path}': cannot be opened; its file LOG may say why$",
                       *self.kv, *verb)

    def damage(self, pattern, old, new):
        """Changes bytes in the one file of that name."""
        (path,) = self.path.glob(pattern)
        whole = path.read_bytes()
        self.assertIn(old, whole)
        path.write_bytes(whole.replace(old, new))

    def test_a_dump_that_lacks_entries_or_shows_others_is_a_failure(self):
        self.run_ok(*self.kv, "put", "k", "needle")
        self.run_ok(*self.kv, "put", "l", "v")  # the first entry moves to a table
        self.damage("*.ldb", b"needle", b"noodle")
        for options in ((), ("--json",)):
            result = self.run_tool(*self.kv, "dump", *options)
            self.assertEqual((result.returncode, result.stdout.count("\n")), (1, 1), result)
            self.assertRegex(result.stdout, r"\bl\b")
            self.assertRegex(result.stderr, rf"^zarn: '{self.path}': not all of it can be read: Corruption: .*\n$")

    def test_a_value_that_was_altered_in_its_table_is_told_and_not_shown(self):
        self.run_ok(*self.kv, "put", "k", "needle")
        self.run_ok(*self.kv, "put", "l", "v")  # the first entry moves to a table
        self.damage("*.ldb", b"needle", b"noodle")
        for options in ((), ("--json",), ("--file", str(self.root / "out"))):
            result = self.run_tool(*self.kv, "get", "k", *options)
            self.assertEqual((result.returncode, result.stdout), (1, ""), result)
            self.assertRegex(result.stderr, rf"^zarn: '{self.path}': key 'k' cannot be read: Corruption: .*\n$")
        self.assertFalse((self.root / "out").exists())
        self.assertEqual(self.run_ok(*self.kv, "get", "l"), "v\n")

    def test_a_table_that_is_cut_is_told(self):
        self.run_ok(*self.kv, "put", "k", "v")
        self.assertEqual(self.run_ok(*self.kv, "dump"), "k\tv\n")
        (table,) = self.path.glob("*.ldb")
        os.truncate(table, table.stat().st_size - 8)
        self.fails(1, "not all of it can be read: ", *self.kv, "dump")

    def test_a_dump_does_not_open_a_store_whose_log_is_damaged_and_leaves_it_as_it_is(self):
        self.run_ok(*self.kv, "put", "k", "needle")
        self.damage("*.log", b"needle", b"noodle")
        for _ in range(2):
            self.fails(1, "cannot be opened; its file LOG may say why", *self.kv, "dump")
        self.assertRegex((self.path / "LOG").read_text(encoding="utf-8"), "checksum mismatch")
        self.damage("*.log", b"noodle", b"needle")
        self.assertEqual(self.run_ok(*self.kv, "dump"), "k\tneedle\n")

    def test_a_pipe_or_a_device_in_place_of_the_log_is_told(self):
        self.run_ok(*self.kv, "put", "k", "v")
        (log,) = self.path.glob("*.log")
        kept = log.rename(self.path / "kept")
        for make in (os.mkfifo, lambda path: os.symlink("/dev/zero", path)):
            make(log)
            for verb in (("get", "k"), ("put", "k", "w"), ("rm", "k"), ("dump",)):
                self.fails(1, "cannot be opened; its file LOG may say why", *self.kv, *verb)
            log.unlink()
        kept.rename(log)
        self.assertEqual(self.run_ok(*self.kv, "dump"), "k\tv\n")

    def test_a_directory_that_cannot_be_read_on_is_told_and_nothing_is_lost(self):
        self.run_ok(*self.kv, "put", "k", "v")
        for verb in (("get", "k"), ("put", "k", "w"), ("rm", "k"), ("dump",)):
            self.fails(1, "cannot be opened", *self.kv, *verb, env=self.failing("readdir", 1, errno.EIO))
        self.assertEqual(self.run_ok(*self.kv, "dump"), "k\tv\n")

    def test_without_a_thread_for_leveldb_is_told_and_nothing_is_made(self):
        env = self.failing("pthread_create", 1, errno.EAGAIN, "ever")
        self.fails(1, "cannot be opened: no thread can be started", *self.kv, "put", "k", "v", env=env)
        self.assertFalse(self.path.exists())
        self.run_ok(*self.kv, "put", "k", "v")
        for verb in (("get", "k"), ("rm", "k"), ("dump",)):
            self.fails(1, "cannot be opened: no thread can be started", *self.kv, *verb, env=env)

    def test_an_output_that_cannot_be_written_is_a_failure_and_the_store_stays_as_it_is(self):
        self.run_ok(*self.kv, "put", "k", "needle")
        for verb in (("dump",), ("get", "k"), ("get", "k", "--file", "-")):
            with open("/dev/full", "w", encoding="ascii") as full:
                result = subprocess.run([TOOL, *self.kv, *verb], env=self.env, stdout=full,
                                        stderr=subprocess.PIPE, text=True, check=False)
            self.assertEqual(result.returncode, 1, verb)
            self.assertIn("No space left", result.stderr)
            result = self.run_without(">&-", *self.kv, *verb)
            self.assertEqual(result.returncode, 1, verb)
            self.assertIn("Bad file descriptor", result.stderr)
            self.assertNotIn("needle", (self.path / "LOG").read_text(encoding="utf-8"))
        self.assertEqual(self.run_ok(*self.kv, "dump"), "k\tneedle\n")

    def test_a_dump_ends_when_its_output_cannot_be_written(self):
        peer = os.path.join(os.path.dirname(TOOL), "store_peer")
        with subprocess.Popen([peer, "write", "leveldb", str(self.path), "0"], stdout=subprocess.PIPE) as writer:
            for _ in range(100):
                writer.stdout.readline()
            writer.kill()
        self.run_ok(*self.kv, "dump")  # all entries move to one table
        (table,) = self.path.glob("*.ldb")
        whole = table.read_bytes()
        half = len(whole) // 2
        table.write_bytes(whole[:half] + bytes([whole[half] ^ 255]) + whole[half + 1:])
        self.fails(1, "not all of it can be read: ", *self.kv, "dump")
        result = self.run_without(">/dev/full", *self.kv, "dump")
        self.assertEqual((result.returncode, result.stderr),
                         (1, "zarn: standard output: No space left on device\n"), "it ends before the damage")

    def test_wrong_usage(self):
        for arguments in (("kv",), self.kv, (*self.kv, "get"), (*self.kv, "put", "k"),
                          (*self.kv, "put", "k", "--hex", "xx"), (*self.kv, "get", "0", "--hex-key"),
                          (*self.kv, "put", "0g", "v", "--hex-key"), (*self.kv, "rm", "0", "--hex-key")):
            self.assertEqual(self.run_tool(*arguments).returncode, 2, arguments)


if __name__ == "__main__":
    unittest.main()
