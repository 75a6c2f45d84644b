"""zarn ls and its --clean."""

import errno
import fcntl
import getpass
import os
import pty
import signal
import socket
import subprocess
import unittest
from pathlib import Path

from zarn_tool import PATIENCE, TOOL, ToolTest


class Ls(ToolTest):
    def states(self, *options):
        return {event["name"]: event["state"] for event in self.run_events("ls", *options)}

    def test_nothing_there(self):
        self.assertEqual(self.run_events("ls"), [])
        self.assertIn(f"no endpoints in '{self.ipc}'", self.run_tool("ls").stdout)
        self.assertFalse(self.ipc.exists(), "listing makes nothing")

    def test_lists_who_serves_what(self):
        server = self.serve()
        self.leave_stale("30_4")
        self.leave_stale("5_6")
        listed = self.run_events("ls")
        self.assertEqual([event["name"] for event in listed], ["1_2", "5_6", "30_4"])
        self.assertEqual(listed[0], {
            "event": "endpoint", "name": "1_2", "url": "ipc://1_2", "path": str(self.ipc / "1_2"),
            "state": "listening", "pid": server.process.pid, "user": getpass.getuser(),
            "program": os.path.basename(TOOL)})
        self.assertEqual((listed[1]["state"], listed[1]["pid"], listed[1]["program"]),
                         ("stale", None, None))

    def test_table(self):
        server = self.serve()
        self.leave_stale("3_4")
        lines = self.run_tool("ls").stdout.splitlines()
        self.assertEqual(lines[0].split(), ["ENDPOINT", "STATE", "PID", "USER", "PROGRAM"])
        self.assertEqual(lines[1].split(), ["ipc://1_2", "listening", str(server.process.pid),
                                            getpass.getuser(), os.path.basename(TOOL)])
        self.assertEqual(lines[2].split()[:3], ["ipc://3_4", "stale", "-"])

    def test_endpoints_over_shared_memory_are_listed_behind_those_of_local_ipc(self):
        self.serve()
        server = self.serve(url="shm://0_1")
        listed = self.run_events("ls")
        self.assertEqual([event["url"] for event in listed], ["ipc://1_2", "shm://0_1"])
        self.assertEqual((listed[1]["state"], listed[1]["pid"]), ("listening", server.process.pid))
        self.assertEqual(server.end(signal.SIGKILL), -signal.SIGKILL)
        self.assertEqual(self.run_events("ls", "--clean")[1]["state"], "removed")
        self.assertEqual([event["url"] for event in self.run_events("ls")], ["ipc://1_2"])

    def test_a_listener_that_is_not_ours_is_found_and_not_disturbed(self):
        listener = self.listen()
        self.assertEqual(self.run_events("ls")[0]["pid"], os.getpid())
        listener.settimeout(0)
        with self.assertRaises(BlockingIOError):
            listener.accept()

    def test_a_listener_below_a_symbolic_link_is_found(self):
        server = self.serve()
        link = self.root / "link"
        link.symlink_to(self.root)
        self.env["ZARN_ROOT"] = str(link)
        self.assertEqual(self.run_events("ls")[0]["pid"], server.process.pid)

    def test_other_files_are_foreign(self):
        self.make_ipc()
        (self.ipc / "1_2").write_text("mine")
        (self.ipc / "3_4").mkdir()
        (self.ipc / "a\nb").symlink_to("nowhere")
        named = socket.socket(socket.AF_UNIX)
        self.addCleanup(named.close)
        named.bind(str(self.ipc / "name"))
        self.assertEqual(self.states(), {"1_2": "foreign", "3_4": "foreign", "a\\nb": "foreign",
                                         "name": "foreign"})

    def test_clean_removes_stale_endpoints_and_nothing_else(self):
        self.make_ipc()
        server = self.serve()
        self.leave_stale("3_4")
        self.leave_stale("name")
        (self.ipc / "5_6").write_text("mine")
        self.assertEqual(self.states("--clean"), {"1_2": "listening", "3_4": "removed",
                                                  "5_6": "foreign", "name": "foreign"})
        self.assertEqual(sorted(os.listdir(self.ipc)), ["1_2", "5_6", "name"])
        self.assertEqual(self.states()["1_2"], "listening")
        self.assertEqual(server.end(), 0)

    @unittest.skipUnless(os.geteuid() == 0, "only root can give files away")
    def test_clean_leaves_stale_endpoints_of_others(self):
        self.leave_stale("1_2")
        os.chown(self.ipc / "1_2", 65534, 65534)
        result = self.run_tool("ls", "--clean")
        self.assertEqual(result.returncode, 0)
        self.assertIn("was left: it belongs to nobody", result.stderr)
        self.assertTrue(self.ipc.joinpath("1_2").exists())

    def test_an_endpoint_that_cannot_be_asked_is_unknown_and_left(self):
        self.leave_stale("1_2")
        env = self.failing("socket", 1, errno.EMFILE, "ever")
        self.assertEqual(self.run_events("ls", "--clean", env=env)[0]["state"], "unknown")
        self.assertRegex(self.run_tool("ls", env=env).stdout, r"ipc://1_2 unknown +- ")
        self.assertTrue(self.ipc.joinpath("1_2").exists())

    def lock(self):
        """Has the directory for itself, as a server has while it takes an endpoint."""
        locked = os.open(self.ipc, os.O_RDONLY)
        self.addCleanup(os.close, locked)
        fcntl.flock(locked, fcntl.LOCK_EX)
        return locked

    def test_clean_waits_for_somebody_who_takes_an_endpoint(self):
        self.leave_stale("1_2")
        locked = self.lock()
        clean = self.start("ls", "--clean", "--json")
        with self.assertRaises(subprocess.TimeoutExpired):
            clean.process.wait(0.3)
        self.assertTrue(self.ipc.joinpath("1_2").exists())
        fcntl.flock(locked, fcntl.LOCK_UN)
        self.assertEqual(clean.event("endpoint")["state"], "removed")
        self.assertEqual(clean.process.wait(PATIENCE), 0)

    def test_clean_does_not_wait_for_ever(self):
        self.leave_stale("1_2")
        self.lock()
        result = self.run_tool("ls", "--clean")
        self.assertEqual((result.returncode, result.stderr),
                         (1, f"zarn: '{self.ipc}': Device or resource busy\n"))
        self.assertTrue(self.ipc.joinpath("1_2").exists())

    @unittest.skipUnless(os.geteuid() == 0, "only root can give files away")
    def test_a_user_without_a_name_is_a_number(self):
        self.leave_stale("1_2")
        os.chown(self.ipc / "1_2", 4000000000, 4000000000)
        self.assertEqual(self.run_events("ls")[0]["user"], "4000000000")

    def test_an_ipc_directory_that_is_a_file_is_a_failure(self):
        self.make_ipc()
        self.ipc.rmdir()
        self.ipc.write_text("")
        result = self.run_tool("ls")
        self.assertEqual(result.returncode, 1)
        self.assertIn("Not a directory", result.stderr)


class Completion(ToolTest):
    SCRIPT = Path(__file__).parents[2] / "tools/zarn/completion/zarn.bash"

    def complete(self, *words):
        """What bash offers for the last word; ':' does not break words here."""
        script = '''source "$1"; shift; COMP_WORDBREAKS=" "; COMP_WORDS=("$@")
            COMP_CWORD=$(($# - 1)); COMP_LINE="$*"; COMP_POINT=${#COMP_LINE}; _zarn
            printf '%s\\n' "${COMPREPLY[@]}"'''
        env = dict(self.env, PATH=os.path.dirname(TOOL) + ":" + os.environ["PATH"])
        result = subprocess.run(["bash", "-c", script, "bash", str(self.SCRIPT), *words], env=env, cwd=self.root,
                                check=True, capture_output=True, text=True)
        return result.stdout.splitlines()

    def type(self, line):
        """What an interactive bash shows that is given this line."""
        leader, follower = pty.openpty()
        self.addCleanup(os.close, leader)
        env = dict(self.env, PATH=os.path.dirname(TOOL) + ":" + os.environ["PATH"], PS1="ready> ",
                   TERM="dumb")
        with subprocess.Popen(["bash", "--noprofile", "--norc", "-i"], env=env, cwd=self.root, stdin=follower,
                              stdout=follower, stderr=follower, start_new_session=True):
            os.close(follower)
            for answer in (f". {self.SCRIPT}", line, "exit"):
                shown = ""
                while not shown.endswith("ready> "):
                    shown += os.read(leader, 65536).decode()
                os.write(leader, (answer + "\n").encode())
        return shown

    def make_segment(self, name):
        segments = self.root / "system/zarn/shm/zarnshmm"
        segments.mkdir(parents=True, exist_ok=True)
        (segments / f"zarn_shm_{name}").write_text("")
        return segments

    def test_subcommands(self):
        self.assertEqual(self.complete("zarn", "s"), ["serve", "send", "stat", "shm"])

    def test_options_of_a_subcommand(self):
        offered = self.complete("zarn", "ping", "--")
        self.assertLessEqual({"--count", "--interval", "--spin", "--json"}, set(offered))
        self.assertNotIn("--echo", offered)

    def test_log_takes_files_and_levels(self):
        (self.root / "a.log").touch()
        self.assertEqual(self.complete("zarn", "log", f"{self.root}/a"), [f"{self.root}/a.log"])
        self.assertEqual(self.complete("zarn", "log", "--level", "W"), ["WARN"])
        self.assertEqual(self.complete("zarn", "log", "--level", "N"), ["NOTICE"])
        self.assertEqual(self.complete("zarn", "log", "--gr"), ["--grep"])
        self.assertEqual(self.complete("zarn", "log", "--fi"), ["--fixed"])

    def test_verbs_options_and_names_of_the_stores(self):
        self.assertEqual(self.complete("zarn", "db", "some.db", "ex"), ["export"])
        self.assertEqual(self.complete("zarn", "kv", "store", ""), ["get", "put", "rm", "dump"])
        self.assertEqual(self.complete("zarn", "shm", "i"), ["info"])
        self.assertIn("--hex-key", self.complete("zarn", "db", "some.db", "set", "--h"))
        segments = self.make_segment("cfg")
        self.assertEqual(self.complete("zarn", "shm", "rm", "c"), ["cfg"])
        self.assertEqual(self.complete("zarn", "db", str(segments) + "/z"),
                         [str(segments / "zarn_shm_cfg")])

    def test_only_what_is_taken_is_offered(self):
        self.serve()
        self.make_segment("cfg")
        (self.root / "file").touch()
        offered = self.complete("zarn", "rest", "")
        self.assertIn("--setting", offered)
        self.assertNotIn(self.url, offered)
        for words in (("shm", "ls"), ("db", "some.db", "ls"), ("kv", "store", "dump")):
            self.assertEqual(self.complete("zarn", *words, ""), [""])
            self.assertIn("--json", self.complete("zarn", *words, "--"))

    def test_names_of_segments_and_files_are_not_run(self):
        self.make_segment("$(touch${IFS}ran)")
        self.make_segment("`touch ran`")
        self.assertEqual(self.complete("zarn", "shm", "info", ""),
                         [r"\$\(touch\$\{IFS\}ran\)", r"\`touch\ ran\`"])
        self.assertIn("name       $(touch${IFS}ran)\r\n", self.type("zarn shm info \\$\t"))
        logs = self.root / "other"
        logs.mkdir()
        (logs / "$(touch ran)").write_text("one line\n")
        self.assertIn("one line", self.type("zarn log other/\t"))
        self.assertFalse((self.root / "ran").exists())

    def test_urls_of_listening_endpoints(self):
        self.serve()
        self.leave_stale("3_4")
        self.assertEqual(self.complete("zarn", "ping", "ip"), ["ipc://1_2"])
        self.assertEqual(self.complete("zarn", "stat", ""), ["all", "1_2"])


if __name__ == "__main__":
    unittest.main()
