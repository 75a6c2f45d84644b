"""zarn serve, with clients of ours and plain sockets as clients."""

import errno
import fcntl
import os
import select
import shutil
import signal
import socket
import struct
import subprocess
import unittest

from zarn_tool import LONGEST, PATIENCE, TOOL, ToolTest, frame, ignore_endings, is_among, read_frame, send_twice


def threads_of(process):
    return [int(name) for name in os.listdir(f"/proc/{process}/task")]


class Serve(ToolTest):
    def test_prints_each_message_and_a_summary(self):
        server = self.serve()
        client = self.connect()
        client.sendall(frame(7, 4000000000, b"hello") + frame(0, 1, b""))
        connected = server.event("connected")
        self.assertEqual((connected["peer"], connected["pid"]), ("-#1", os.getpid()))
        first = server.event("message")
        del first["event"]
        self.assertEqual(first, {"peer": "-#1", "type": 7, "tag": 4000000000, "size": 5,
                                 "text": "hello", "cut": False})
        self.assertEqual(server.event("message")["size"], 0)
        client.close()
        gone = server.event("gone")
        self.assertEqual((gone["reason"], gone["messages"], gone["bytes"], gone["malformed"]),
                         ("closed", 2, 29, False))
        self.assertEqual(server.end(), 0)
        summary = server.event("summary")
        self.assertEqual((summary["clients"], summary["messages"], summary["bytes"]), (1, 2, 5))
        self.assertEqual(os.listdir(self.ipc), [], "the endpoint file is removed")

    def test_text_output_names_the_peer_and_escapes_control_bytes(self):
        server = self.start("serve", self.url)
        server.line_with(f"listening at {self.url}")
        payload = b"a\n\x1b[31m\xff\\\xc3\xa9\xc2\x9b"
        self.run_tool("send", self.url, "--as", "3_4", "--type", "7", "--tag", "9", "--data",
                      os.fsdecode(payload))
        self.assertEqual(server.line_with("type="),
                         '3_4#1 type=7 tag=9 size=13 "a\\n\\x1b[31m\\xff\\\\é\\xc2\\x9b"')
        self.assertEqual(server.end(signal.SIGTERM), 0)
        self.assertEqual(server.line_with("clients 1"), "clients 1, messages 1, payload 13 bytes, dropped 0")

    def test_characters_that_change_the_direction_of_text_are_escaped(self):
        server = self.start("serve", self.url)
        server.line_with("listening")
        payload = "\u061c\u200d\u200e\u200f\u2010\u202a\u202e\u2066\u2069\u206a"
        self.run_tool("send", self.url, "--data", payload)
        self.assertIn('"\\xd8\\x9c\u200d\\xe2\\x80\\x8e\\xe2\\x80\\x8f\u2010\\xe2\\x80\\xaa\\xe2\\x80\\xae'
                      '\\xe2\\x81\\xa6\\xe2\\x81\\xa9\u206a"', server.line_with("type="))

    def test_long_messages_are_cut_unless_in_full(self):
        for options, length in (((), 80), (("--full",), 5000)):
            server = self.serve(*options, url=f"{self.scheme}://1_{length}")
            client = self.connect(f"1_{length}")
            client.sendall(frame(1, 1, b"x" * 5000))
            message = server.event("message")
            self.assertEqual((len(message["text"]), message["cut"]), (length, length != 5000))

    def test_a_claimed_name_cannot_forge_output(self):
        self.needs_plain_sockets()
        server = self.serve()
        client = socket.socket(socket.AF_UNIX)
        self.addCleanup(client.close)
        client.bind(b"\0zarn-ipc/\n\x1b[2J/" + b"0" * 32)
        client.connect(str(self.ipc / "1_2"))
        self.assertEqual(server.event("connected")["peer"], "\\n\\x1b[2J#1")

    def test_echo_returns_messages_of_all_sizes_unchanged(self):
        server = self.serve("--echo")
        client = self.connect()
        sent = [(size % 65536, size, os.urandom(size)) for size in (0, 1, 4084, 4096, LONGEST)]
        client.sendall(b"".join(frame(*message) for message in sent))
        self.assertEqual([read_frame(client) for _ in sent], sent)
        self.assertEqual(server.end(), 0)
        self.assertEqual(server.event("summary")["messages"], len(sent))

    def test_quiet_prints_the_summary_only(self):
        server = self.start("serve", self.url, "--echo", "--quiet", "--json")
        self.assertEqual(self.run_tool("ping", self.url, "-c", "1").returncode, 0)
        server.end()
        self.assertIn('"summary"', server.line())
        self.assertIsNone(server.line())

    def test_frames_in_pieces_are_whole_messages(self):
        server = self.serve()
        client = self.connect()
        for byte in frame(1, 2, b"in pieces"):
            client.send(bytes([byte]))
        self.assertEqual(server.event("message")["text"], "in pieces")

    def test_a_malformed_frame_stops_that_client_only(self):
        server = self.serve("--echo")
        bad = self.connect()
        bad.sendall(frame(1, 1, b"good") + struct.pack(">HHII", 1, 20, 2, 4) + b"x" * 100000)
        self.assertEqual(server.event("message")["text"], "good")
        self.assertIn("fatal error", server.line_with("pdulen=20", "stderr"))
        good = self.connect()
        good.sendall(frame(5, 5, b"other"))
        self.assertEqual(read_frame(good), (5, 5, b"other"))
        bad.close()
        gone = server.event("gone")
        self.assertEqual((gone["peer"], gone["messages"], gone["malformed"]), ("-#1", 1, True))
        self.assertEqual(server.end(), 0)

    def test_half_a_frame_is_no_message(self):
        server = self.serve()
        client = self.connect()
        client.sendall(frame(1, 1, b"half")[:-1])
        client.close()
        self.assertEqual(server.event("gone")["messages"], 0)

    def test_a_client_that_never_reads_is_dropped_and_others_are_not(self):
        server = self.serve("--echo", "--max-queue", "200000")
        deaf = self.connect()
        try:
            for number in range(200):
                deaf.sendall(frame(1, number, b"x" * 60000))
        except OSError:
            pass  # it has been dropped
        dropped = server.event("dropped")
        self.assertEqual(dropped["peer"], "-#1")
        self.assertGreater(dropped["waiting"], 200000)
        server.event("gone")
        self.assertIn("-#1 dropped: it does not read", server.line_with("dropped", "stderr"))
        other = self.connect()
        other.sendall(frame(1, 1, b"still here"))
        self.assertEqual(read_frame(other), (1, 1, b"still here"))
        self.assertEqual(server.end(), 0)
        self.assertEqual(server.event("summary")["dropped"], 1)

    def test_a_client_that_sends_much_at_once_is_dropped_when_nothing_may_wait(self):
        server = self.serve("--echo", "--max-queue", "0")
        bench = self.run_tool("bench", self.url, "--sizes", "65523,65523,65523", "--seconds", "0.3")
        self.assertEqual(bench.returncode, 1)
        self.assertRegex(bench.stderr, rf"^zarn: {self.url}: (peer gone|cannot send): .*\n$")
        self.assertGreater(server.event("dropped")["waiting"], 0)
        server.event("gone")
        self.run_events("ping", self.url, "-c", "1")
        self.assertEqual(server.end(), 0)
        self.assertEqual(server.event("summary")["dropped"], 1)

    def test_a_client_that_cannot_be_answered_is_dropped(self):
        self.needs_plain_sockets()
        good, self.env = self.env, self.failing("sendmsg", 1, errno.ENOBUFS)
        server = self.serve("--echo")
        self.env = good
        client = self.connect()
        client.sendall(frame(1, 1, b"x" * LONGEST))
        self.assertEqual(server.event("dropped")["reason"], "cannot send: No buffer space available")
        self.assertEqual(client.recv(1), b"")
        self.run_events("ping", self.url, "-c", "1")
        self.assertEqual(server.end(), 0)

    def serve_unread(self):
        """A server that waits for its output to be read, and the end to read from."""
        reading, writing = os.pipe()
        self.addCleanup(os.close, reading)
        server = subprocess.Popen([TOOL, "serve", self.url, "--full"], env=self.env, stdout=writing)
        self.addCleanup(server.wait)
        self.addCleanup(server.kill)
        sender = self.start("send", self.url, "-", stdin=subprocess.PIPE)
        sender.process.stdin.write((b"x" * 60000 + b"\n") * 3)
        sender.process.stdin.flush()
        self.wait_until(lambda: not select.select([], [writing], [], 0)[1])
        os.close(writing)
        return server, reading

    def test_a_second_signal_ends_it_even_where_nobody_reads_its_output(self):
        server, _ = self.serve_unread()
        server.send_signal(signal.SIGINT)
        server.send_signal(signal.SIGTERM)
        self.assertEqual(server.wait(PATIENCE), 128 + signal.SIGTERM)

    def test_a_signal_that_is_sent_twice_at_once_counts_as_one(self):
        server, reading = self.serve_unread()
        (taker,) = (thread for thread in threads_of(server.pid) if not is_among(signal.SIGTERM, thread, "SigBlk"))
        send_twice(server, taker, signal.SIGTERM)
        self.wait_until(lambda: server.poll() is not None or
                        not any(is_among(signal.SIGTERM, taker, kind) for kind in ("SigPnd", "ShdPnd")))
        output = b""
        while part := os.read(reading, 65536):
            output += part
        self.assertEqual(server.wait(PATIENCE), 0)
        self.assertIn(b"clients 1, messages 3,", output)

    def test_hangups_and_nothing_else_are_ignored_when_it_was_started_so(self):
        for ending in (signal.SIGINT, signal.SIGTERM):
            server = self.start("serve", self.url, "--echo", "--json", preexec_fn=ignore_endings)
            server.event("listening")
            server.process.send_signal(signal.SIGHUP)
            self.run_events("ping", self.url, "-c", "1")
            self.assertEqual(server.end(ending), 0)
        server = self.serve()
        self.assertEqual(server.end(signal.SIGHUP), 0)

    def test_a_signal_that_means_nothing_to_it_has_its_ordinary_effect(self):
        server = self.serve()
        self.assertEqual(server.end(signal.SIGUSR1), -signal.SIGUSR1)

    def test_hundred_clients_at_once(self):
        server = self.serve("--echo")
        clients = [self.connect() for _ in range(100)]
        for number, client in enumerate(clients):
            client.sendall(frame(1, number, str(number).encode()))
        for number, client in enumerate(clients):
            self.assertEqual(read_frame(client), (1, number, str(number).encode()))
        self.assertEqual(server.end(), 0)
        self.assertEqual(server.event("summary")["clients"], 100)


class Listening(ToolTest):
    def assert_refused(self, pattern):
        result = self.run_tool("serve", self.url)
        self.assertEqual(result.returncode, 1, result)
        self.assertRegex(result.stderr, pattern)

    def test_a_served_endpoint_is_refused_and_its_owner_named(self):
        server = self.serve()
        self.assert_refused(rf"{self.url}: cannot listen: .*in use by process {server.process.pid} ")
        self.assertEqual(server.end(), 0)

    def test_the_name_of_the_program_that_serves_it_is_escaped(self):
        program = self.root / "evil\x1b[31m\nzarn: fine"
        shutil.copy(shutil.which("sleep"), program)
        listener = self.listen()
        with subprocess.Popen([program, "1000"], pass_fds=[listener.fileno()]) as other:
            listener.close()
            try:
                self.assert_refused(rf"in use by process {other.pid} \(evil\\x1b\[31m\\nzarn: fine\)\n$")
            finally:
                other.kill()

    def test_a_served_endpoint_is_refused_when_the_directory_is_free_again(self):
        server = self.serve()
        locked = os.open(self.ipc, os.O_RDONLY)
        self.addCleanup(os.close, locked)
        fcntl.flock(locked, fcntl.LOCK_EX)
        second = self.start("serve", self.url)
        second.line_with("listening at")  # or will be
        fcntl.flock(locked, fcntl.LOCK_UN)
        self.assertEqual(second.process.wait(PATIENCE), 1)
        self.assertRegex(second.errors(), rf"^zarn: {self.url}: cannot listen: .*in use by process "
                                          rf"{server.process.pid} \(zarn\)$")

    def test_a_stale_file_is_replaced(self):
        self.leave_stale("1_2")
        self.assertEqual(self.serve().end(), 0)

    def test_a_file_or_directory_in_the_way_is_left_alone(self):
        self.make_ipc()
        (self.ipc / "1_2").write_text("mine")
        self.assert_refused("1_2' is in the way: it is not an endpoint file")
        self.assertEqual((self.ipc / "1_2").read_text(), "mine")
        (self.ipc / "1_2").unlink()
        (self.ipc / "1_2").mkdir()
        self.assert_refused("is in the way")
        self.assertTrue((self.ipc / "1_2").is_dir())

    def test_a_file_in_place_of_the_directory_is_told(self):
        self.make_ipc()
        self.ipc.rmdir()
        self.ipc.write_text("")
        self.assert_refused(rf"{self.url}: cannot listen: '{self.ipc}/1_2': Not a directory")

    def test_a_directory_that_others_may_write_to_is_refused(self):
        self.make_ipc()
        self.ipc.chmod(0o777)
        self.assert_refused("can be written to by others: make it private")

    def test_a_root_that_disappears_is_told_and_clients_go_on(self):
        server = self.serve("--echo")
        client = self.connect()
        shutil.rmtree(self.root)
        self.assertIn("has been removed: no new client can come",
                      server.line_with(self.url, "stderr"))
        client.sendall(frame(1, 1, b"on"))
        self.assertEqual(read_frame(client), (1, 1, b"on"))
        self.assertEqual(server.end(), 0)

    def test_an_endpoint_that_is_taken_over_is_told_and_left_to_its_owner(self):
        server = self.serve()
        self.listen("9_9")
        os.rename(self.ipc / "9_9", self.ipc / "1_2")
        self.assertIn(f"1_2' has been taken over by process {os.getpid()} (",
                      server.line_with(self.url, "stderr"))
        self.assertEqual(server.end(), 0)
        self.assertTrue((self.ipc / "1_2").is_socket())

    def test_a_listener_that_had_to_wait_for_its_place_is_not_told_of_its_own_file(self):
        self.make_ipc()
        locked = os.open(self.ipc, os.O_RDONLY)
        self.addCleanup(os.close, locked)
        fcntl.flock(locked, fcntl.LOCK_EX)
        server = self.serve("--echo")  # or will
        fcntl.flock(locked, fcntl.LOCK_UN)
        self.run_events("ping", self.url, "-c", "6", "-i", "0.4")  # longer than from one look to the next
        self.assertEqual(server.end(), 0)
        self.assertNotIn("taken over", server.errors())

    def test_a_reader_that_went_away_ends_it(self):
        reading, writing = os.pipe()
        server = subprocess.Popen([TOOL, "serve", self.url], env=self.env, stdout=writing)
        self.addCleanup(server.kill)
        os.close(writing)
        os.read(reading, 1)  # it listens
        os.close(reading)
        self.connect()  # which it tells
        self.assertEqual(server.wait(PATIENCE), 1)
        self.assertEqual(os.listdir(self.ipc), [])


class ServeOverSharedMemory(Serve):
    scheme = "shm"


class ListeningOverSharedMemory(Listening):
    scheme = "shm"


if __name__ == "__main__":
    unittest.main()
