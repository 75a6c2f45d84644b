"""zarn shm: the segments of the root, who uses them, and what is not removed."""

import errno
import getpass
import mmap
import os
import pathlib
import subprocess
import tempfile
import unittest

from zarn_tool import TOOL, ToolTest

PEER = os.path.join(os.path.dirname(TOOL), "store_peer")


class Shm(ToolTest):
    def setUp(self):
        super().setUp()
        self.directory = self.root / "system/zarn/shm/zarnshmm"

    def use_segment(self, name):
        """A process that has the segment until it is killed."""
        process = subprocess.Popen([PEER, "survive", name], env=self.env, stdin=subprocess.PIPE,
                                   stdout=subprocess.PIPE)
        self.addCleanup(self.end, process)
        self.assertEqual(process.stdout.readline(), b"ready\n")
        return process

    @staticmethod
    def end(process):
        process.kill()
        process.wait()
        process.stdin.close()
        process.stdout.close()

    def fails(self, code, pattern, *arguments, **options):
        result = self.run_tool(*arguments, **options)
        self.assertEqual(result.returncode, code, result.stderr)
        self.assertRegex(result.stderr, pattern)

    def test_nothing_there(self):
        self.assertEqual(self.run_events("shm", "ls"), [])
        self.assertIn("no segments in", self.run_tool("shm", "ls").stdout)
        self.assertFalse(self.directory.exists(), "listing makes nothing")
        self.fails(1, "there is no such segment", "shm", "info", "cfg")
        self.fails(1, "there is no such segment", "shm", "rm", "cfg")

    def test_lists_segments_and_who_uses_them(self):
        user = self.use_segment("cfg")
        self.end(self.use_segment("left"))
        (self.directory / "other").write_text("")
        listed = self.run_events("shm", "ls")
        self.assertEqual([(e["name"], e["size"], e["user"], e["pids"]) for e in listed],
                         [("cfg", 16, getpass.getuser(), [user.pid]),
                          ("left", 16, getpass.getuser(), [])])
        self.assertEqual(listed[0]["path"], str(self.directory / "zarn_shm_cfg"))
        self.assertEqual(self.run_events("shm", "info", "cfg"), listed[:1])
        lines = self.run_tool("shm", "ls").stdout.splitlines()
        self.assertEqual(lines[1].split(), ["cfg", "16", getpass.getuser(), str(user.pid),
                                            "(store_peer)"])
        self.assertIn("bytes      16\n", self.run_tool("shm", "info", "cfg").stdout)

    def test_removes_what_nobody_uses_and_the_rest_only_when_forced(self):
        user = self.use_segment("cfg")
        self.end(self.use_segment("left"))
        self.assertEqual(self.run_tool("shm", "rm", "left").returncode, 0)
        self.fails(1, rf"in use by process {user.pid}", "shm", "rm", "cfg")
        self.assertEqual(os.listdir(self.directory), ["zarn_shm_cfg"])
        self.assertEqual(self.run_tool("shm", "rm", "cfg", "--force").returncode, 0)
        self.assertEqual(os.listdir(self.directory), [])

    def map_file(self, path):
        """This process has it mapped as long as the test lasts."""
        path.write_bytes(b"\0" * 8192)
        with open(path, "r+b") as file:
            self.addCleanup(mmap.mmap(file.fileno(), 0).close)

    def assert_kept(self, name):
        self.fails(1, rf"in use by process {os.getpid()} ", "shm", "rm", name)
        self.assertEqual(self.run_events("shm", "info", name)[0]["pids"], [os.getpid()])

    def test_whoever_uses_a_segment_is_seen_whatever_its_path_looks_like(self):
        other = self.root / "other\n\x1b[31m \\ root"
        link = self.root / "link"
        link.symlink_to(self.root)
        for root in (self.root, other, link):
            self.use_root(root)
            directory = root / "system/zarn/shm/zarnshmm"
            directory.mkdir(parents=True, exist_ok=True)
            for name in ("cfg", "a\nb", "a\\012c"):
                self.map_file(directory / f"zarn_shm_{name}")
                self.assert_kept(name)

    def test_whoever_came_by_another_name_of_the_file_is_seen(self):
        self.directory.mkdir(parents=True)
        self.map_file(self.root / "first")
        os.link(self.root / "first", self.directory / "zarn_shm_cfg")
        self.assert_kept("cfg")
        (self.directory / "zarn_shm_other").write_bytes(b"\0" * 8192)
        self.assertEqual(self.run_events("shm", "info", "other")[0]["pids"], [])

    def test_whoever_cannot_be_told_may_use_it(self):
        self.directory.mkdir(parents=True)
        self.map_file(self.directory / "zarn_shm_cfg")
        for call, error, reason in (("readdir", errno.EIO, "Input/output error"),
                                    ("open", errno.EMFILE, "Too many open files"),
                                    ("read", errno.EIO, "Input/output error")):
            for how in ("once", "ever"):
                env = self.failing(call, 1, error, how)
                for verb in ("rm", "info"):
                    self.fails(1, f"^zarn: 'cfg': cannot tell who uses it: {reason}\n$", "shm", verb, "cfg", env=env)
        env = self.failing("readdir", 20, errno.EIO)
        for verb in (("rm", "cfg"), ("ls",)):
            self.fails(1, "cannot tell who uses it: Input/output error\n$", "shm", *verb, env=env)
        self.assertEqual(os.listdir(self.directory), ["zarn_shm_cfg"])
        env = self.failing("readdir", 1, errno.EIO, "ever")
        self.assertEqual(self.run_tool("shm", "rm", "cfg", "--force", env=env).returncode, 0)
        self.assertEqual(os.listdir(self.directory), [])

    def test_a_process_that_has_ended_or_is_out_of_sight_is_passed_over(self):
        user = self.use_segment("cfg")
        for call, error in (("open", errno.ENOENT), ("open", errno.EACCES), ("read", errno.ESRCH)):
            events = self.run_events("shm", "info", "cfg", env=self.failing(call, 1, error))
            self.assertEqual(events[0]["pids"], [user.pid])

    def test_a_directory_that_cannot_be_read_to_its_end_is_told(self):
        self.directory.mkdir(parents=True)
        (self.directory / "zarn_shm_cfg").write_text("")
        for number in range(1, 5):  # of its two own entries, the file and the end
            self.fails(1, f"^zarn: '{self.directory}': Input/output error\n$", "shm", "ls",
                       env=self.failing("readdir", number, errno.EIO))

    def test_a_time_that_no_calendar_reaches_is_told_in_seconds(self):
        # Few file systems keep such a time; this one does.
        with tempfile.TemporaryDirectory(dir="/dev/shm") as root:
            self.env["ZARN_ROOT"] = root
            segment = pathlib.Path(root, "system/zarn/shm/zarnshmm/zarn_shm_far")
            segment.parent.mkdir(parents=True)
            segment.write_bytes(bytes(16))
            far = 9 * 10**17
            subprocess.run(["touch", "-d", f"@{far}", segment], check=True)
            self.assertIn(f"changed    @{far}\n", self.run_tool("shm", "info", "far").stdout)
            self.assertEqual(self.run_events("shm", "info", "far")[0]["changed"], far)

    def test_names_that_lead_elsewhere_are_refused(self):
        for name in ("../x", "a/b", "/x", "..", "a..b", ""):
            for verb in ("rm", "info"):
                self.fails(2, "is no name", "shm", verb, name)

    def test_a_directory_in_the_place_of_a_segment_is_left(self):
        (self.directory / "zarn_shm_cfg").mkdir(parents=True)
        self.fails(1, "not a regular file", "shm", "rm", "cfg")

    def test_a_name_that_no_file_can_have_is_told(self):
        self.directory.mkdir(parents=True)
        for verb in ("info", "rm"):
            self.fails(1, "x': File name too long$", "shm", verb, "x" * 300)

    def test_a_file_in_place_of_the_directory_is_told(self):
        self.directory.parent.mkdir(parents=True)
        self.directory.write_text("")
        self.fails(1, f"^zarn: '{self.directory}': Not a directory$", "shm", "ls")
        self.fails(1, "^zarn: 'cfg': Not a directory$", "shm", "info", "cfg")

    def test_wrong_usage_and_no_root(self):
        for arguments in (("shm",), ("shm", "rm"), ("shm", "nonsense"), ("shm", "ls", "x")):
            self.assertEqual(self.run_tool(*arguments).returncode, 2, arguments)
        env = dict(self.env)
        del env["ZARN_ROOT"]
        result = self.run_tool("shm", "ls", env=env)
        self.assertEqual(result.returncode, 1)
        self.assertIn("ZARN_ROOT is not set", result.stderr)


if __name__ == "__main__":
    unittest.main()
