"""zarn log: which lines are shown, how, in what order, and following files that grow or begin anew."""

import json
import os
import pty
import select
import signal
import socket
import subprocess
import time
import unittest
from datetime import datetime, timedelta, timezone

from zarn_tool import TOOL, ToolTest, PATIENCE


def line(second, level="INFO", function="main", text="message", place=""):
    """One line of the log, at that second of an hour; with a place one of the debug log."""
    time = f"2024-01-31T08:{second // 60:02}:{second % 60:02}.004711"
    middle = f"{place:>22} | " if place else ""
    return f"{time} | {level:<8} | {middle}{function:<18} | {text}\n"


class LogTest(ToolTest):
    def setUp(self):
        super().setUp()
        self.logs = self.root / "logs"
        self.logs.mkdir()

    def write(self, name, *lines, mode="w"):
        path = self.logs / name
        with open(path, mode, encoding="utf-8", newline="") as file:
            file.write("".join(lines))
        return str(path)

    def shown(self, *arguments, code=0):
        result = self.run_tool("log", *arguments)
        self.assertEqual(result.returncode, code, result.stderr)
        return result.stdout

    def complaint(self, *arguments, code=1):
        result = self.run_tool("log", *arguments)
        self.assertEqual(result.returncode, code, result.stdout)
        self.assertEqual(len(result.stderr.splitlines()), 1, result.stderr)
        return result.stderr


class Filters(LogTest):
    def setUp(self):
        super().setUp()
        self.lines = [
            line(0, "INFO", "main", "started"),
            line(1, "ERROR", "Open", "no file"),
            line(2, "DEBUG", "Open", "tried a|b", place="file.cpp[00042]"),
            line(3, "WARN", "operator[]", "slow"),
            line(60, "Notice", "Close", "done"),
        ]
        self.path = self.write("a.log", *self.lines)

    def assert_shown(self, wanted, *arguments):
        self.assertEqual(self.shown(self.path, *arguments),
                         "".join(self.lines[index] for index in wanted))

    def test_everything_as_it_is(self):
        self.assert_shown(range(5))

    def test_levels(self):
        self.assert_shown([1], "--level", "ERROR")
        self.assert_shown([1, 3], "--level", "ERROR,WARN")
        self.assert_shown([1, 4], "--level", "error", "--level", "notice")
        self.assert_shown([], "--level", "ERR")

    def test_functions(self):
        self.assert_shown([1, 2], "--function", "Open")
        self.assert_shown([3, 4], "--function", "operator[],Close")
        self.assert_shown([], "--function", "Ope")

    def test_plain_text(self):
        self.assert_shown([1], "--grep", "no file")
        self.assert_shown([2], "--grep", "file.cpp", "-F")
        self.assert_shown([2], "--grep", "a|b", "--fixed")
        self.assert_shown([], "--grep", "nothing of this")
        self.assert_shown(range(5), "--grep", "")

    def test_regular_expressions(self):
        self.assert_shown([0, 3], "--grep", "slow|st?arted")
        self.assert_shown([0], "--grep", "08:00:00.*started$")
        self.assert_shown([2], "--grep", r"\[0+42\]")
        self.assert_shown([1], "--grep", "no fx*ile")
        for pattern in ("nox+? file", "nox+* file", "nox?+ file", "no+? file"):
            self.assert_shown([1], "--grep", pattern)
        self.assert_shown([], "--grep", "^started")

    def test_a_long_line_gets_the_answer_that_a_short_one_gets(self):
        end = b"one two) three four\0five \xff six a)b end"
        start = line(0).encode().rstrip(b"\n")
        lines = b"".join(start + b" " + b"pad " * count + end + b"\n" for count in (2, 5000))
        path = self.logs / "long.log"
        path.write_bytes(lines)
        for pattern, found in {
                "t.*r": True, "z.*|six": True, "six|z.*": True, "z.*|zz": False, "pad.*(z|two)": True,
                "pad.*(z|q)": False, "Q+|a)b": True, "(Q+|a))b": True, "(two)[)] .*e": True, "four.+five": False,
                "four[^x]+five": True, "five.*six": True, "six.*end": True, "six.*end$": True, "six.*b$": False,
                "^2024.*one": True, "four.*^five": False, "^one.*": False, "(z*|^)one": True, "[^z]+end": True,
                "[^x]+x [a^]+": True, "(p.d )\\1+one": True, "(pad ){2}.*one": True, "three *four": True,
                "x*": True, "zx*": False, "pad+()": True, "z+(|x)": False, "[*]": False, "e[+n]d": True}.items():
            result = subprocess.run([TOOL, "log", str(path), "--grep", pattern], env=self.env, check=True,
                                    capture_output=True, timeout=PATIENCE)
            self.assertTrue(result.stdout == (lines if found else b""), pattern)

    def test_wrong_expression_is_wrong_usage(self):
        result = self.run_tool("log", self.path, "--grep", "a(")
        self.assertEqual(result.returncode, 2)
        self.assertIn("'a(': Unmatched (", result.stderr)
        self.assertIn("'a*(': Unmatched (", self.run_tool("log", self.path, "--grep", "a*(").stderr)
        self.assert_shown([], "--grep", "a(", "-F")

    def test_a_pattern_of_several_lines_is_wrong_usage(self):
        for options in ((), ("-F",)):
            for pattern in ("started\n2024", "start.d\n", "\n"):
                result = self.run_tool("log", self.path, "--grep", pattern, *options)
                self.assertEqual((result.returncode, result.stdout), (2, ""))
                self.assertIn("no line has a newline in it", result.stderr)

    def test_times(self):
        self.assert_shown([4], "--since", "2024-01-31T08:01")
        self.assert_shown([2, 3, 4], "--since", "2024-01-31 08:00:02.004711")
        self.assert_shown([3, 4], "--since", "2024-01-31T08:00:02.004712Z")
        self.assert_shown([0, 1, 2], "--until", "2024-01-31T08:00:02.004711")
        self.assert_shown([0, 1], "--until", "2024-01-31T08:00:02.00471")
        self.assert_shown([1, 2], "--since", "2024-01-31T08:00:01", "--until", "2024-01-31T08:00:03")
        self.assert_shown(range(5), "--since", "2024-01-31", "--until", "now")
        self.assert_shown([], "--since", "2024-02-01")

    def test_times_that_are_none_are_wrong_usage(self):
        for time in ("", "yesterday", "2024", "2024-13-01", "2024-02-30", "2024-01-31T25:00",
                     "10", "10 parsecs", "-5m", "2024-01-31T08:00:00.1234567", "2024-01-31T08"):
            result = self.run_tool("log", self.path, "--since", time)
            self.assertEqual(result.returncode, 2, time)

    def test_how_long_ago(self):
        now = datetime.now(timezone.utc)
        times = [now - timedelta(hours=3), now - timedelta(minutes=20), now - timedelta(seconds=20)]
        self.lines = [time.strftime("%Y-%m-%dT%H:%M:%S.%f") + " | INFO     | main | m\n"
                      for time in times]
        self.write("a.log", *self.lines)
        self.assert_shown([2], "--since", "10m")
        self.assert_shown([1, 2], "--since", "2 h ago")
        self.assert_shown([1, 2], "--since", "2 hours ago")
        self.assert_shown([0, 1, 2], "--since", "1 day")
        self.assert_shown([1], "--since", "2h", "--until", "5 min ago")
        self.assert_shown([], "--since", "now")

    def test_all_conditions_must_hold(self):
        self.assert_shown([1], "--function", "Open", "--level", "ERROR", "--grep", "file")
        self.assert_shown([], "--function", "Open", "--level", "WARN")


class OtherLines(LogTest):
    """Lines that are not in the format: marked, and with the line before them."""

    def setUp(self):
        super().setUp()
        self.lines = ["orphan\n", line(0, text="first"), "  of two\n", "  of three\n",
                      line(2, "ERROR", text="second"), "trace of it"]
        self.path = self.write("a.log", *self.lines)

    def marked(self, *indices):
        return "".join(("" if index in (1, 4) else "? ") + self.lines[index].rstrip("\n") + "\n"
                       for index in indices)

    def test_are_marked(self):
        self.assertEqual(self.shown(self.path), self.marked(0, 1, 2, 3, 4, 5))

    def test_share_the_fields_of_the_line_before(self):
        self.assertEqual(self.shown(self.path, "--level", "ERROR"), self.marked(4, 5))
        self.assertEqual(self.shown(self.path, "--level", "INFO"), self.marked(1, 2, 3))

    def test_are_looked_through_one_by_one(self):
        self.assertEqual(self.shown(self.path, "--grep", "of t"), self.marked(2, 3))
        self.assertEqual(self.shown(self.path, "--grep", "of", "--level", "ERROR"), self.marked(5))
        self.assertEqual(self.shown(self.path, "--grep", "orphan", "--level", "INFO"), "")

    def test_stay_together_when_merged(self):
        other = self.write("b.log", line(1, text="other"))
        shown = self.shown(self.path, other, "--no-name")
        self.assertEqual(shown, self.marked(0, 1, 2, 3) + line(1, text="other") + self.marked(4, 5))
        shown = self.shown(self.path, other, "--no-name", "--grep", "t")
        self.assertEqual(shown, self.marked(1, 2, 3) + line(1, text="other") + self.marked(5))

    def test_the_line_before_is_found_however_far(self):
        filler = ["x" * 99 + "\n"] * 20000  # several pieces of the file
        self.write("a.log", line(0, "WARN"), *filler, "needle\n", line(9, "INFO"), "needle\n")
        self.assertEqual(self.shown(self.path, "--grep", "needle", "--level", "WARN"), "? needle\n")

    def test_cut_files_and_odd_bytes_are_shown(self):
        with open(self.path, "wb") as file:
            file.write(b"\n\x00\xff\x1b[31m\n" + line(0).encode()[:40])
        result = subprocess.run([TOOL, "log", self.path], env=self.env, check=True,
                                capture_output=True, timeout=PATIENCE)
        self.assertEqual(result.stdout, b"? \n? \x00\xff\x1b[31m\n? " + line(0).encode()[:40] + b"\n")

    def test_a_line_longer_than_any_buffer_is_whole(self):
        text = "x" * 3000000
        self.write("a.log", line(0, text=text), line(1))
        self.assertEqual(self.shown(self.path), line(0, text=text) + line(1))
        self.assertEqual(self.shown(self.path, "--grep", "xx", "--level", "INFO"), line(0, text=text))


    def test_a_line_longer_than_16_mib_comes_in_pieces(self):
        whole = line(0, text="x" * (40 << 20))
        shown = self.shown(self.write("a.log", whole, line(1)), "--level", "INFO")
        *pieces, last = shown.splitlines()
        self.assertEqual(last + "\n", line(1))
        self.assertGreater(len(pieces), 1)
        self.assertTrue(all(piece.startswith("? ") for piece in pieces[1:]))
        self.assertTrue(all(len(piece) > 15 << 20 for piece in pieces[:-1]))
        self.assertTrue("".join([pieces[0], *(piece[2:] for piece in pieces[1:])]) + "\n" == whole)


class Merge(LogTest):
    def test_lines_of_several_files_come_by_their_times_and_bear_names(self):
        self.write("one.log", line(1, text="a"), line(5, text="b"))
        self.write("two_debug.log", line(2, text="c"), line(3, text="d"), line(9, text="e"))
        shown = self.shown(str(self.logs / "one.log"), str(self.logs / "two_debug.log"))
        self.assertEqual([(text[:12], text[-1]) for text in shown.splitlines()],
                         [("one       | ", "a"), ("two_debug | ", "c"), ("two_debug | ", "d"),
                          ("one       | ", "b"), ("two_debug | ", "e")])

    def test_a_dash_is_standard_input(self):
        other = self.write("other.log", line(1, text="from a file"))
        result = self.run_tool("log", "--no-name", "-", other, input=line(0) + line(2))
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertEqual(result.stdout, line(0) + line(1, text="from a file") + line(2))

    def test_standard_input_is_read_where_it_stands(self):
        path = self.write("read.log", line(0) + line(1))
        with open(path, encoding="utf-8") as read:
            os.lseek(read.fileno(), len(line(0)), os.SEEK_SET)
            result = self.run_tool("log", "-", stdin=read)
        self.assertEqual((result.returncode, result.stdout), (0, line(1)))

    def test_standard_input_may_be_a_socket(self):
        ours, theirs = socket.socketpair()
        with ours, theirs:
            ours.sendall(line(0).encode())
            ours.shutdown(socket.SHUT_WR)
            result = self.run_tool("log", "-", stdin=theirs)
        self.assertEqual((result.returncode, result.stdout), (0, line(0)))

    def test_standard_input_that_is_closed_is_a_failure(self):
        result = self.run_without("<&-", "log", "-")
        self.assertEqual((result.returncode, result.stderr),
                         (1, "zarn: '-': Bad file descriptor\n"))

    def test_standard_input_is_followed_by_no_name_of_its_own(self):
        result = self.run_tool("log", "--follow", "-")
        self.assertEqual(result.returncode, 2)
        self.assertIn("--follow: is for files, not for '-'", result.stderr)

    def test_files_of_one_name_bear_their_paths(self):
        (self.logs / "x").mkdir()
        first = self.write("a.log", line(0))
        second = self.write("x/a.log", line(1))
        shown = self.shown(first, second)
        self.assertTrue(shown.startswith(first), shown)
        self.assertIn(f"\n{second} | ", shown)

    def test_one_file_keeps_its_order(self):
        lines = [line(5), line(3), line(4)]
        self.assertEqual(self.shown(self.write("a.log", *lines)), "".join(lines))

    def test_without_files_the_logs_directory_is_shown(self):
        self.write("b.log", line(1, text="b"))
        self.write("a.log", line(2, text="a"))
        self.write("c.txt", line(0, text="c"))
        self.assertEqual(self.shown("--no-name"), line(1, text="b") + line(2, text="a"))

    def test_merges_many_lines_whole(self):
        lines = [line(second % 3600, text=f"{second}") for second in range(0, 3600)]
        for part in range(3):
            self.write(f"{part}.log", *lines[part::3])
        self.assertEqual(self.shown("--no-name"), "".join(lines))


class Places(LogTest):
    def test_unset_root_is_one_line(self):
        env = dict(self.env)
        del env["ZARN_ROOT"]
        result = self.run_tool("log", env=env)
        self.assertEqual(result.returncode, 1)
        self.assertRegex(result.stderr, r"^zarn: ZARN_ROOT is not set: .*\n$")

    def test_files_need_no_root(self):
        path = self.write("a.log", line(0))
        env = dict(self.env)
        del env["ZARN_ROOT"]
        self.assertEqual(self.run_tool("log", path, env=env).stdout, line(0))

    def test_logs_directory_that_is_missing_or_empty_is_said(self):
        self.assertIn("no log files in", self.complaint(code=0))
        self.logs.rmdir()
        self.assertIn("No such file", self.complaint())

    def test_file_that_is_missing_fails_and_the_others_are_shown(self):
        path = self.write("a.log", line(0))
        result = self.run_tool("log", str(self.logs / "no.log"), path, "--no-name")
        self.assertEqual(result.returncode, 1)
        self.assertEqual(result.stdout, line(0))
        self.assertIn("no.log': No such file", result.stderr)

    def test_file_that_is_the_output_is_left_out(self):
        path = self.write("a.log", line(0), line(1))
        together = self.logs / "all.log"
        for files in ((), (str(together), path)):
            with open(together, "w", encoding="utf-8") as output:
                result = subprocess.run([TOOL, "log", "--no-name", *files], env=self.env, stdout=output, timeout=PATIENCE,
                                        check=False, stderr=subprocess.PIPE, text=True)
            self.assertEqual(result.returncode, 1)
            self.assertIn("all.log': left out, since it is the output as well", result.stderr)
            self.assertEqual(together.read_text(), line(0) + line(1))

    def test_file_that_is_the_output_is_not_followed(self):
        self.write("a.log", line(0))
        with open(self.logs / "all.log", "w", encoding="utf-8") as output:
            running = subprocess.Popen([TOOL, "log", "--no-name", "--follow"], env=self.env, stdout=output,
                                       stderr=subprocess.PIPE)
            self.addCleanup(running.kill)
            self.assertIn(b"left out", running.stderr.readline())
            self.write("a.log", line(1), mode="a")
            self.wait_until(lambda: (self.logs / "all.log").read_text() == line(0) + line(1))
            running.send_signal(signal.SIGINT)
            self.assertEqual(running.wait(PATIENCE), 1)
            running.stderr.close()
        self.assertEqual((self.logs / "all.log").read_text(), line(0) + line(1))

    def test_directory_is_no_file(self):
        self.assertIn("Is a directory", self.complaint(str(self.logs)))

    def test_file_that_cannot_be_read_fails_and_the_others_are_shown(self):
        path = self.write("a.log", line(0))
        result = self.run_tool("log", "/proc/self/mem", path, "--no-name")  # starts with nothing
        self.assertEqual((result.returncode, result.stdout), (1, line(0)))
        self.assertEqual(result.stderr, "zarn: '/proc/self/mem': Input/output error\n")

    def test_output_that_somebody_has_made_non_blocking_is_waited_for(self):
        path = self.write("a.log", *[line(0)] * 10000)
        reading, writing = os.pipe()
        os.set_blocking(writing, False)
        with subprocess.Popen([TOOL, "log", path], env=self.env, stdout=writing) as process:
            end = time.monotonic() + PATIENCE
            while select.select([], [writing], [], 0)[1]:  # until no more goes in
                self.assertLess(time.monotonic(), end)
            os.close(writing)
            with open(reading, encoding="utf-8") as output:
                self.assertEqual(output.read(), line(0) * 10000)
            self.assertEqual(process.wait(PATIENCE), 0)

    def test_output_that_nobody_reads_ends_it(self):
        path = self.write("a.log", *[line(0)] * 100000)
        with subprocess.Popen([TOOL, "log", path], env=self.env, stdout=subprocess.PIPE) as process:
            process.stdout.readline()
            process.stdout.close()
            self.assertEqual(process.wait(PATIENCE), 1)


class Json(LogTest):
    def test_lines(self):
        path = self.write("a.log", line(0, text="back\\slash"), line(2, "DEBUG", "f", "t", "z.cpp[00042]"),
                          "other \x01\n")
        self.assertEqual(self.run_events("log", path), [
            {"event": "line", "log": path, "time": "2024-01-31T08:00:00.004711", "level": "INFO",
             "file": None, "line": None, "function": "main", "text": "back\\\\slash"},
            {"event": "line", "log": path, "time": "2024-01-31T08:00:02.004711", "level": "DEBUG",
             "file": "z.cpp", "line": 42, "function": "f", "text": "t"},
            {"event": "other", "log": path, "text": "other \\x01"},
        ])


class Terminal(LogTest):
    def on_terminal(self, *arguments, **variables):
        """What a terminal gets."""
        master, slave = pty.openpty()
        env = dict(self.env, TERM="xterm", **variables)
        with subprocess.Popen([TOOL, "log", *arguments], env=env, stdout=slave) as process:
            os.close(slave)
            shown = b""
            try:
                while part := os.read(master, 65536):
                    shown += part
            except OSError:  # the other end is closed
                pass
            os.close(master)
            self.assertEqual(process.wait(PATIENCE), 0)
        return shown.decode().replace("\r\n", "\n")

    def test_levels_have_colours(self):
        path = self.write("a.log", line(0, "ERROR"), line(1, "INFO"), "other\n")
        shown = self.on_terminal(path).splitlines()
        self.assertIn("\x1b[1;31mERROR\x1b[0m    | main", shown[0])
        self.assertIn(" | INFO     | main", shown[1])
        self.assertTrue(shown[0].startswith("\x1b[2m2024-01-31T08:00:00.004711\x1b[0m | "))
        self.assertEqual(shown[2], "\x1b[35m? \x1b[0mother")

    def test_no_color_is_respected(self):
        path = self.write("a.log", line(0, "ERROR"), "other\n")
        self.assertEqual(self.on_terminal(path, NO_COLOR="1"), line(0, "ERROR") + "? other\n")
        self.assertIn("\x1b[1;31m", self.on_terminal(path, NO_COLOR=""))

    def test_control_bytes_do_not_reach_it(self):
        path = self.write("a.log", line(0, text="\x1b[2J\u009b2J"))
        self.assertIn("| \\x1b[2J\\xc2\\x9b2J\n", self.on_terminal(path))

    def test_what_is_not_printable_does_not_reach_it(self):
        path = self.root / "b.log"
        for raw, shown in ((b"\x9b2J", "\\x9b2J"), ("\u202eabc".encode(), "\\xe2\\x80\\xaeabc"),
                           ("a\u200fb".encode(), "a\\xe2\\x80\\x8fb"), (b"caf\xe9", "caf\\xe9"),
                           ("a\\\tb \u20ac \u015b \u00e9".encode(), "a\\\tb \u20ac \u015b \u00e9")):
            path.write_bytes(line(0, text="").rstrip("\n").encode() + raw + b"\n")
            self.assertTrue(self.on_terminal(str(path)).endswith(f"| {shown}\n"), raw)


class Follow(LogTest):
    def follow(self, *arguments):
        return self.start("log", "--follow", *arguments)

    def assert_line(self, running, wanted):
        self.assertEqual(running.line(), wanted.rstrip("\n"))

    def test_new_lines_are_shown_and_interrupt_is_done(self):
        path = self.write("a.log", line(0))
        running = self.follow(path)
        self.assert_line(running, line(0))
        self.write("a.log", line(1), line(2), mode="a")
        self.assert_line(running, line(1))
        self.assert_line(running, line(2))
        self.assertEqual(running.end(), 0)

    def test_a_line_is_shown_when_it_is_whole(self):
        path = self.write("a.log", line(0), line(1)[:50])
        running = self.follow(path)
        self.assert_line(running, line(0))
        self.write("a.log", line(1)[50:], mode="a")
        self.assert_line(running, line(1))
        self.assertEqual(running.end(), 0)

    def test_filters_hold(self):
        path = self.write("a.log", line(0))
        running = self.follow(path, "--grep", "needle", "--level", "ERROR")
        self.write("a.log", line(1, text="needle"), line(2, "ERROR", text="needle"), mode="a")
        self.assert_line(running, line(2, "ERROR", text="needle"))
        self.assertEqual(running.end(), 0)

    def test_file_that_a_restart_cuts_is_read_from_its_start(self):
        path = self.write("a.log", line(0), line(1))
        running = self.follow(path)
        running.line_with("08:00:01")
        self.write("a.log", line(2))  # shorter
        self.assert_line(running, line(2))
        self.write("a.log", line(3), line(4), line(5))  # longer than before
        for second in (3, 4, 5):
            self.assert_line(running, line(second))
        self.assertIn("was begun anew", running.line("stderr"))
        self.assertEqual(running.end(), 0)

    def test_unfinished_line_of_the_run_before_is_shown(self):
        path = self.write("a.log", line(0), line(1).rstrip("\n"))
        running = self.follow(path, "--json")
        self.assertEqual(running.event("line")["time"][17:19], "00")
        self.write("a.log", line(2))
        self.assertEqual(running.event("line")["time"][17:19], "01")
        self.assertEqual(running.event("restart")["log"], path)
        self.assertEqual(running.event("line")["time"][17:19], "02")
        self.assertEqual(running.end(), 0)

    def test_file_that_is_replaced_is_read_from_its_start(self):
        path = self.write("a.log", line(0), line(1))
        running = self.follow(path)
        running.line_with("08:00:01")
        os.rename(self.write("new", line(0), line(1), line(2)), path)
        for second in (0, 1, 2):
            self.assert_line(running, line(second))
        self.assertEqual(running.end(), 0)

    def test_file_that_comes_after_a_directory_in_its_place_is_shown_once(self):
        path = self.write("a.log", line(0), line(1), line(2)[:50])
        running = self.follow(path)
        self.assert_line(running, line(0))
        self.assert_line(running, line(1))
        os.rename(path, path + ".1")
        os.mkdir(path)
        self.assert_line(running, "? " + line(2)[:50])
        self.assertIn("Is a directory", running.line("stderr"))
        os.rmdir(path)
        os.rename(self.write("new", line(3), line(4)), path)
        self.assert_line(running, line(3))
        self.assert_line(running, line(4))
        self.write("a.log", line(5), mode="a")
        self.assert_line(running, line(5))
        self.assertEqual(running.end(), 1)

    def test_file_that_comes_later_is_waited_for(self):
        running = self.follow(str(self.logs / "later.log"))
        self.assertIn("later.log': No such file or directory; waiting for it", running.line("stderr"))
        self.write("later.log", line(0))
        self.assert_line(running, line(0))
        self.assertEqual(running.end(), 0)

    def test_new_files_of_the_logs_directory_are_followed(self):
        running = self.follow("--json")
        self.write("a.log", line(0, text="first"))
        self.assertEqual(running.event("line")["text"], "first")
        self.write("b.log", line(0, text="second"))
        self.assertEqual(running.event("line")["text"], "second")
        self.assertEqual(running.end(), 0)

    def test_a_pipe_with_a_name_is_read_as_it_comes_from_one_writer_after_another(self):
        path = self.write("a.log", line(0))
        fifo = self.logs / "fifo"
        os.mkfifo(fifo)
        running = self.follow("--no-name", path, str(fifo))
        self.assert_line(running, line(0))
        for second in (1, 2):
            with open(fifo, "w", encoding="utf-8") as writer:
                writer.write(line(second))
                writer.flush()
                self.assert_line(running, line(second))
        self.assertEqual(running.end(), 0)

    def test_a_pipe_that_nobody_writes_to_does_not_keep_it(self):
        fifo = self.logs / "fifo"
        os.mkfifo(fifo)
        running = self.follow(str(self.logs / "later.log"), str(fifo))
        running.line_with("waiting for it", "stderr")
        self.assertEqual(running.end(), 0)

    def test_standard_input_that_says_nothing_does_not_keep_it(self):
        running = self.start("log", "--follow", "/dev/stdin", stdin=subprocess.PIPE)
        for second in (0, 1):
            running.process.stdin.write(line(second).encode())
            running.process.stdin.flush()
            self.assert_line(running, line(second))
        self.assertEqual(running.end(), 0)

    def test_a_device_that_never_pauses_does_not_keep_it(self):
        running = self.follow(str(self.logs / "later.log"), "/dev/zero", "--grep", "needle")
        running.line_with("waiting for it", "stderr")
        self.assertEqual(running.end(), 0)

    def test_a_reader_that_goes_away_amid_the_lines_ends_it_as_one_that_waited(self):
        path = self.write("a.log", *[line(0)] * 100000)
        with subprocess.Popen([TOOL, "log", "-f", path], env=self.env, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE) as process:
            process.stdout.readline()
            process.stdout.close()
            self.assertEqual(process.wait(PATIENCE), 0)
            self.assertEqual(process.stderr.read(), b"")

    def test_an_output_that_cannot_be_written_is_a_failure(self):
        path = self.write("a.log", line(0))
        with open("/dev/full", "w", encoding="ascii") as full:
            result = subprocess.run([TOOL, "log", "-f", path], env=self.env, stdout=full, check=False,
                                    stderr=subprocess.PIPE, timeout=PATIENCE)
        self.assertEqual((result.returncode, result.stderr),
                         (1, b"zarn: standard output: No space left on device\n"))

    def test_ends_when_nobody_reads_it(self):
        path = self.write("a.log", line(0))
        with subprocess.Popen([TOOL, "log", "-f", path], env=self.env, stdout=subprocess.PIPE) as process:
            process.stdout.readline()
            process.stdout.close()
            self.assertEqual(process.wait(PATIENCE), 0)


if __name__ == "__main__":
    unittest.main()
