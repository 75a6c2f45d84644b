"""zarn send, to servers of ours and to plain sockets."""

import errno
import os
import signal
import subprocess
import time
import unittest

from zarn_tool import LONGEST, PATIENCE, ToolTest, frame, read_exactly, read_frame


class Send(ToolTest):
    def test_sends_text_and_prints_the_answer(self):
        server = self.serve("--echo")
        message, summary = self.run_events("send", self.url, "--as", "3_4", "--type", "7", "--tag",
                                           "4294967295", "--data", "hello", "--replies", "1")
        self.assertEqual(message, {"event": "message", "peer": "1_2", "type": 7, "tag": 4294967295,
                                   "size": 5, "text": "hello", "cut": False})
        self.assertEqual(summary, {"event": "summary", "sent": 1, "bytes": 5, "skipped": 0,
                                   "replies": 1})
        self.assertEqual(server.event("connected")["peer"], "3_4#1")

    def test_the_frame_on_the_wire_is_the_documented_one(self):
        listener = self.listen()
        sender = self.start("send", self.url, "--type", "258", "--tag", "50595078", "--data", "ab")
        connection = self.accept(listener)
        received = b""
        while part := connection.recv(100):
            received += part
        self.assertEqual(received, bytes([1, 2, 0, 14, 3, 4, 5, 6, 0, 0, 0, 2]) + b"ab")
        self.assertEqual(sender.process.wait(), 0)

    def test_an_empty_message_and_the_longest_file(self):
        server = self.serve()
        self.run_events("send", self.url, "--data", "")
        self.assertEqual(server.event("message")["size"], 0)
        path = self.root / "file"
        path.write_bytes(os.urandom(LONGEST))
        self.run_events("send", self.url, "--file", str(path))
        self.assertEqual(server.event("message")["size"], LONGEST)

    def test_one_byte_more_than_a_message_holds_is_refused(self):
        self.serve()
        path = self.root / "file"
        path.write_bytes(b"x" * (LONGEST + 1))
        for content in (("--file", str(path)), ("--data", "x" * (LONGEST + 1))):
            result = self.run_tool("send", self.url, *content)
            self.assertEqual(result.returncode, 1)
            self.assertIn("a message holds 65523 at most", result.stderr)

    def test_a_file_that_cannot_be_read_is_named(self):
        for path in (self.root / "none", self.root):
            result = self.run_tool("send", self.url, "--file", str(path))
            self.assertEqual(result.returncode, 1)
            self.assertIn(f"'{path}'", result.stderr)

    def test_standard_input_as_one_message(self):
        server = self.serve()
        self.assertEqual(self.run_tool("send", self.url, "--file", "-", input="one\ntwo\n").returncode, 0)
        self.assertEqual(server.event("message")["text"], "one\\ntwo\\n")

    def test_a_bare_text_is_refused_with_a_word_how_it_is_sent(self):
        result = self.run_tool("send", self.url, "hello")
        self.assertEqual((result.returncode, result.stdout), (2, ""))
        self.assertIn("what is sent stands in --data TEXT or --file FILE, or is '-' for the lines of "
                      "standard input; 'hello' is none of these", result.stderr)

    def test_each_line_is_a_message_in_order(self):
        listener = self.listen()
        sender = self.start("send", self.url, "-", "--json", stdin=subprocess.PIPE)
        connection = self.accept(listener)
        lines = [b"", b"one", b"\xff\x00\r", b"x" * LONGEST, b"unended"]
        sender.process.stdin.write(b"\n".join(lines))
        sender.process.stdin.close()
        self.assertEqual([read_frame(connection)[2] for _ in lines], lines)
        self.assertEqual(sender.process.wait(), 0)
        self.assertEqual(sender.event("summary")["sent"], len(lines))

    def test_a_line_that_is_too_long_is_told_and_the_rest_is_sent(self):
        server = self.serve()
        text = "before\n" + "x" * (5 * LONGEST) + "\nafter"
        result = self.run_tool("send", self.url, "-", input=text)
        self.assertEqual(result.returncode, 1)
        self.assertIn("line 2 is longer than 65523 bytes", result.stderr)
        self.assertEqual([server.event("message")["text"] for _ in range(2)], ["before", "after"])

    def test_many_lines_to_a_peer_that_reads_late_all_arrive(self):
        listener = self.listen()
        count = 3000
        with open(self.root / "lines", "wb") as lines:
            for number in range(count):
                lines.write(b"%d %s\n" % (number, b"x" * 2000))
        with open(self.root / "lines", "rb") as lines:
            sender = self.start("send", self.url, "-", stdin=lines)
        connection = self.accept(listener)
        # 6 MB are more than the socket and the sender hold, so it has to wait for us.
        numbers = [int(read_frame(connection)[2].split()[0]) for _ in range(count)]
        self.assertEqual(numbers, list(range(count)))
        self.assertEqual(sender.process.wait(), 0)

    def test_a_peer_that_never_reads_is_a_failure(self):
        listener = self.listen()
        sender = self.start("send", self.url, "-", "--timeout", "0.5", stdin=subprocess.PIPE)
        self.accept(listener)
        sender.process.stdin.write(b"x" * 60000 + b"\n")
        for _ in range(15):
            sender.process.stdin.write(b"x" * 60000 + b"\n")
        sender.process.stdin.close()
        self.assertEqual(sender.process.wait(), 1)
        self.assertIn("the peer takes nothing", sender.errors())

    def test_a_peer_that_stops_reading_while_lines_still_come_is_a_failure(self):
        server = self.serve()
        reading, writing = os.pipe()
        sender = self.start("send", self.url, "-", "--timeout", "0.5", stdin=reading)
        os.close(reading)
        server.event("connected")
        server.process.send_signal(signal.SIGSTOP)
        endless = subprocess.Popen(["yes", "x" * 200], stdout=writing)
        self.addCleanup(endless.wait)
        self.addCleanup(endless.kill)
        os.close(writing)
        self.assertEqual(sender.process.wait(PATIENCE), 1)
        self.assertIn("the peer takes nothing: ", sender.errors())

    def test_a_peer_that_reads_slowly_is_waited_for(self):
        listener = self.listen()
        count = 60  # more than is queued before the sender waits for room
        (self.root / "lines").write_bytes((b"x" * 60000 + b"\n") * count)
        with open(self.root / "lines", "rb") as lines:
            sender = self.start("send", self.url, "-", "--timeout", "3", stdin=lines)
        connection = self.accept(listener)
        for _ in range(4):  # longer than the timeout in all
            time.sleep(1)
            read_exactly(connection, 150000)
        read_exactly(connection, count * 60012 - 600000)
        self.assertEqual(connection.recv(1), b"")
        self.assertEqual(sender.process.wait(PATIENCE), 0)

    def test_missing_answers_are_a_failure(self):
        self.serve()
        result = self.run_tool("send", self.url, "--data", "x", "--replies", "2", "--timeout", "0.3")
        self.assertEqual(result.returncode, 1)
        self.assertIn("0 of 2 answers within 0.3 s", result.stderr)

    def test_a_peer_that_goes_while_answers_are_due_is_a_failure(self):
        listener = self.listen()
        sender = self.start("send", self.url, "--data", "x", "--replies", "2")
        connection = self.accept(listener)
        connection.sendall(frame(*read_frame(connection)))
        sender.line_with("type=0")
        connection.close()
        self.assertEqual(sender.process.wait(), 1)
        self.assertIn("peer gone after 1 messages and 1 answers", sender.errors())

    def test_what_cannot_be_sent_is_a_failure(self):
        self.needs_plain_sockets()
        self.serve()
        path = self.root / "file"
        path.write_text("x" * LONGEST)
        for content in (("--file", str(path)), ("-",)):
            with open(path, "rb") as file:
                result = self.run_tool("send", self.url, *content, stdin=file,
                                       env=self.failing("sendmsg", 1, errno.ENOBUFS))
            self.assertEqual((result.returncode, result.stderr),
                             (1, f"zarn: {self.url}: cannot send: No buffer space available\n"))
            self.assertEqual(result.stdout, "messages sent 0 (0 bytes), answers 0\n")

    def test_standard_input_that_cannot_be_read_is_a_failure(self):
        server = self.serve()
        directory = os.open(self.root, os.O_RDONLY)
        self.addCleanup(os.close, directory)
        result = self.run_tool("send", self.url, "-", stdin=directory)
        self.assertEqual((result.returncode, result.stderr), (1, "zarn: standard input: Is a directory\n"))
        result = self.run_without("<&-", "send", self.url, "-")
        self.assertEqual((result.returncode, result.stderr),
                         (1, "zarn: standard input: Bad file descriptor\n"))
        self.assertEqual(server.end(), 0)
        self.assertEqual(server.event("summary")["messages"], 0)

    def test_sigint_ends_it_with_its_summary(self):
        server = self.serve()
        sender = self.start("send", self.url, "-", "--json", stdin=subprocess.PIPE)
        sender.process.stdin.write(b"first\n")
        sender.process.stdin.flush()
        server.event("message")
        self.assertEqual(sender.end(), 1)
        self.assertEqual(sender.event("summary")["sent"], 1)
        self.assertIn("interrupted", sender.errors())


class Unreachable(ToolTest):
    def assert_unreachable(self, pattern):
        result = self.run_tool("send", self.url, "--data", "x", "--timeout", "0.2")
        self.assertEqual(result.returncode, 3, result)
        self.assertRegex(result.stderr, rf"{self.url}: not reachable within 0.2 s: .*{pattern}")

    def test_without_endpoint(self):
        self.assert_unreachable("nobody listens there, '.*/1_2' does not exist")

    def test_with_a_stale_endpoint(self):
        self.leave_stale("1_2")
        self.assert_unreachable("is stale")

    def test_with_a_regular_file_in_the_way(self):
        self.make_ipc()
        (self.ipc / "1_2").write_text("mine")
        self.assert_unreachable("in the way: it is not an endpoint file")
        self.assertEqual((self.ipc / "1_2").read_text(), "mine")

    def test_with_a_file_in_place_of_the_directory(self):
        self.make_ipc()
        self.ipc.rmdir()
        self.ipc.write_text("")
        self.assert_unreachable("'.*/1_2': Not a directory")

    def test_a_peer_that_comes_in_time_is_found(self):
        for timeout in ("30", "0"):  # 0: there is time for ever
            sender = self.start("send", self.url, "--data", "late", "--timeout", timeout)
            server = self.serve()
            self.assertEqual(server.event("message")["text"], "late")
            self.assertEqual(sender.process.wait(PATIENCE), 0)
            self.assertEqual(server.end(), 0)


class SendOverSharedMemory(Send):
    scheme = "shm"


class UnreachableOverSharedMemory(Unreachable):
    scheme = "shm"


if __name__ == "__main__":
    unittest.main()
