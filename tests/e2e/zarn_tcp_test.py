"""zarn over tcp://, with itself and with plain sockets at the other end."""

import os
import signal
import socket
import struct
import subprocess
import threading
import unittest

from zarn_tool import LONGEST, PATIENCE, ToolTest, frame, read_frame

MALFORMED = {
    "the length does not match the payload's": struct.pack(">HHII", 1, 20, 2, 4) + bytes(8),
    "the length is nothing": struct.pack(">HHII", 1, 0, 2, 0),
    "the length is less than a header": struct.pack(">HHII", 1, 11, 2, 0),
    "the length of the payload is huge": struct.pack(">HHII", 1, 16, 2, 0x7FFFFFFF) + bytes(4),
    "the length of the payload wraps": struct.pack(">HHII", 1, 11, 2, 0xFFFFFFFF),
    "a request of another protocol": b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n".ljust(0x5420),
}


def ends(connection):
    """Waits for the other side to end the connection; whether it sent nothing before."""
    try:
        return connection.recv(1) == b""
    except ConnectionResetError:
        return True


class TcpTest(ToolTest):
    def setUp(self):
        super().setUp()
        self.env.pop("ZARN_ROOT")  # nothing of it is needed
        with socket.create_server(("127.0.0.1", 0)) as probe:
            self.address = probe.getsockname()
        self.url = f"tcp://127.0.0.1:{self.address[1]}"

    def connect(self, name=""):
        connection = socket.create_connection(self.address, PATIENCE)
        self.addCleanup(connection.close)
        return connection

    def listen(self, name=""):
        listener = socket.create_server(self.address)
        self.addCleanup(listener.close)
        listener.settimeout(PATIENCE)
        return listener

    def accept(self, listener):
        connection = listener.accept()[0]
        self.addCleanup(connection.close)
        connection.settimeout(PATIENCE)
        return connection


class Exchange(TcpTest):
    """Both ends are ours."""

    def test_send_and_serve_show_each_other(self):
        server = self.serve("--echo")
        message, summary = self.run_events("send", self.url, "--type", "7", "--tag", "4294967295", "--data",
                                           "hello", "--replies", "1")
        self.assertEqual((message["type"], message["tag"], message["text"]), (7, 4294967295, "hello"))
        self.assertEqual((summary["sent"], summary["replies"]), (1, 1))
        connected = server.event("connected")
        self.assertRegex(connected["peer"], r"^127\.0\.0\.1:\d+#1$")
        self.assertEqual((connected["pid"], connected["user"]), (None, None), "TCP does not tell them")
        gone = server.event("gone")
        self.assertEqual((gone["peer"], gone["reason"], gone["messages"], gone["bytes"]),
                         (connected["peer"], "closed", 1, 17))
        self.assertEqual(server.end(), 0)

    def test_text_output_says_who_connected(self):
        server = self.start("serve", self.url)
        server.line_with(f"listening at {self.url}")
        self.run_tool("send", self.url, "--data", "x")
        self.assertRegex(server.line(), r"^127\.0\.0\.1:\d+#1 connected$")
        self.assertRegex(server.line(), r'^127\.0\.0\.1:\d+#1 type=0 tag=0 size=1 "x"$')
        self.assertEqual(server.end(), 0)

    def test_lines_longer_than_the_system_buffers_all_arrive(self):
        server = self.serve()
        lines = "\n".join(f"{number} " + "x" * 2000 for number in range(10000))
        self.run_events("send", self.url, "-", input=lines)
        gone = server.event("gone")  # the sender is through when the system has everything
        self.assertEqual((gone["reason"], gone["messages"], gone["bytes"]),
                         ("closed", 10000, len(lines) - 9999 + 12 * 10000))

    def test_ping_of_all_sizes_with_and_without_spin(self):
        self.serve("--echo")
        for options in (("-s", "0"), ("-s", str(LONGEST)), ("--spin", "50")):
            summary = self.run_events("ping", self.url, "-i", "0", "-c", "200", *options)[-1]
            self.assertEqual((summary["received"], summary["lost"], summary["altered"]), (200, 0, 0))

    def test_ping_survives_a_restart_of_the_server_which_has_its_port_at_once(self):
        server = self.serve("--echo")
        ping = self.start("ping", self.url, "-i", "0.05", "--json")
        for how in (signal.SIGKILL, signal.SIGTERM):
            ping.event("reply")
            server.end(how)
            ping.event("gone")
            server = self.serve("--echo")
            ping.event("back")
        ping.event("reply")
        self.assertEqual(ping.end(), 0)

    def test_bench_measures(self):
        self.serve("--echo", "--max-queue", "100000000")
        *results, summary = self.run_events("bench", self.url, "--sizes", "0,1000,65523", "--seconds", "0.05")
        self.assertEqual([result["size"] for result in results], [0, 1000, 65523])
        self.assertTrue(all(result["messages_per_s"] > 0 for result in results))
        self.assertTrue(summary["complete"])

    def test_a_name_stands_for_its_address(self):
        self.serve("--echo")
        self.run_events("ping", f"tcp://localhost:{self.address[1]}", "-c", "1")


class Unreachable(TcpTest):
    def assert_fails(self, code, text, *arguments):
        result = self.run_tool(*arguments)
        self.assertEqual((result.returncode, result.stdout), (code, ""), result.stderr)
        self.assertIn(text, result.stderr)

    def test_nobody_listens(self):
        self.assert_fails(3, "nobody listens there", "ping", self.url, "--timeout", "0.3")
        self.assert_fails(3, "nobody listens there", "send", self.url, "--timeout", "0.3", "--data", "x")

    def test_a_client_that_comes_first_finds_the_server(self):
        ping = self.start("ping", self.url, "-c", "1", "--timeout", "20", "--json")
        listener = self.listen()  # whether the first attempt comes before it or after
        connection = self.accept(listener)
        connection.sendall(frame(*read_frame(connection)))
        self.assertEqual(ping.process.wait(PATIENCE), 0)

    def test_a_port_that_is_served_is_refused(self):
        server = self.serve()
        self.assert_fails(1, "somebody listens at port", "serve", self.url)
        self.assertEqual(server.end(), 0)

    def test_an_address_of_another_machine_is_refused(self):
        self.assert_fails(1, "'192.0.2.1' is not an address of this machine", "serve", "tcp://192.0.2.1:7000")

    def test_a_name_that_does_not_resolve_is_named(self):
        for subcommand in ("ping", "serve"):
            self.assert_fails(1, "'no-such-host.invalid' is neither", subcommand,
                              "tcp://no-such-host.invalid:7000")

    def test_urls_that_are_none_are_wrong_usage(self):
        for address in ("", "host", "host:", ":1", "host:0", "host:65536", "host:x", "a:b:1", "1_2", "host:1/x"):
            result = self.run_tool("ping", f"tcp://{address}")
            self.assertEqual(result.returncode, 2, address)
            self.assertIn("tcp://host:port", result.stderr)


class ForeignClient(TcpTest):
    """Python speaks the frame to our server."""

    def test_messages_of_all_sizes_come_back(self):
        server = self.serve("--echo")
        client = self.connect()
        sent = [(size % 65536, size, os.urandom(size)) for size in (0, 1, 4084, 4096, LONGEST)]
        client.sendall(b"".join(frame(*message) for message in sent))
        self.assertEqual([read_frame(client) for _ in sent], sent)
        self.assertEqual(server.end(), 0)

    def test_frames_in_single_bytes_are_whole_messages(self):
        self.serve("--echo")
        client = self.connect()
        client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for byte in frame(1, 2, b"in pieces") + frame(3, 4, b""):
            client.send(bytes([byte]))
        self.assertEqual([read_frame(client) for _ in range(2)], [(1, 2, b"in pieces"), (3, 4, b"")])

    def test_half_a_frame_is_no_message(self):
        server = self.serve()
        with self.connect() as client:
            client.sendall(frame(1, 1, b"half")[:-1])
        self.assertEqual(server.event("gone")["messages"], 0)

    def test_a_reset_is_told_from_an_orderly_end(self):
        server = self.serve()
        client = self.connect()
        client.sendall(frame(1, 1, b"x"))
        server.event("message")
        client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        client.close()
        self.assertEqual(server.event("gone")["reason"], "Connection reset by peer")

    def test_a_client_that_has_finished_sending_still_gets_its_answer(self):
        self.serve("--echo")
        client = self.connect()
        client.sendall(frame(1, 1, b"last words"))
        self.assertEqual(read_frame(client), (1, 1, b"last words"))
        client.shutdown(socket.SHUT_WR)
        self.assertEqual(client.recv(1), b"")

    def test_a_malformed_frame_ends_that_client_only(self):
        server = self.serve("--echo")
        good = self.connect()
        for number, (name, bad_frame) in enumerate(MALFORMED.items(), 1):
            with self.subTest(name):
                bad = self.connect()
                bad.sendall(frame(1, number, b"first") + bad_frame)
                self.assertEqual(read_frame(bad), (1, number, b"first"))
                self.assertTrue(ends(bad))
                gone = server.event("gone")
                self.assertEqual((gone["messages"], gone["malformed"]), (1, True))
                self.assertRegex(server.line("stderr"), r"^zarn: 127\.0\.0\.1:\d+: malformed frame, pdulen=")
                good.sendall(frame(5, number, b"good"))
                self.assertEqual(read_frame(good), (5, number, b"good"))
        self.assertEqual(server.end(), 0)

    def test_a_flood_behind_a_malformed_frame_ends_the_flooder(self):
        server = self.serve("--echo")
        bad = self.connect()
        bad.sendall(MALFORMED["the length is nothing"])
        with self.assertRaises(OSError):
            for _ in range(10000):  # far more than socket buffers hold
                bad.sendall(frame(1, 9, b"f" * 60000))
        self.assertTrue(server.event("gone")["malformed"])
        self.assertEqual(server.end(), 0)

    def test_a_client_that_never_reads_is_dropped_and_others_are_not(self):
        server = self.serve("--echo", "--max-queue", "200000")
        deaf = self.connect()
        flood = frame(1, 1, b"x" * 60000)
        with self.assertRaises(OSError):
            for _ in range(10000):  # far more than socket buffers hold
                deaf.sendall(flood)
        self.assertGreater(server.event("dropped")["waiting"], 200000)
        server.event("gone")
        other = self.connect()
        other.sendall(frame(1, 1, b"still here"))
        self.assertEqual(read_frame(other), (1, 1, b"still here"))
        self.assertEqual(server.end(), 0)
        self.assertEqual(server.event("summary")["dropped"], 1)

    def test_hundred_clients_at_once(self):
        server = self.serve("--echo")
        clients = [self.connect() for _ in range(100)]
        for number, client in enumerate(clients):
            client.sendall(frame(1, number, str(number).encode()))
        for number, client in enumerate(clients):
            self.assertEqual(read_frame(client), (1, number, str(number).encode()))
        self.assertEqual(server.end(), 0)
        self.assertEqual(server.event("summary")["clients"], 100)


class ForeignServer(TcpTest):
    """Our clients speak to Python."""

    def test_the_frame_on_the_wire_is_the_documented_one(self):
        listener = self.listen()
        sender = self.start("send", self.url, "--type", "258", "--tag", "50595078", "--data", "ab")
        connection = self.accept(listener)
        received = b""
        while part := connection.recv(100):
            received += part
        self.assertEqual(received, bytes([1, 2, 0, 14, 3, 4, 5, 6, 0, 0, 0, 2]) + b"ab")
        self.assertEqual(sender.process.wait(PATIENCE), 0)

    def test_lines_reach_a_server_that_reads_late(self):
        listener = self.listen()
        sender = self.start("send", self.url, "-", "--json", stdin=subprocess.PIPE)
        connection = self.accept(listener)
        lines = [b"%d " % number + b"x" * 60000 for number in range(200)]
        feeder = threading.Thread(target=self.feed, args=(sender.process.stdin, b"\n".join(lines)))
        feeder.start()
        threading.Event().wait(0.3)
        self.assertEqual([read_frame(connection)[2] for _ in lines], lines)
        feeder.join()
        self.assertEqual(sender.process.wait(PATIENCE), 0)

    @staticmethod
    def feed(stream, data):
        stream.write(data)
        stream.close()

    def test_a_server_that_cuts_the_connection_fails_a_sender(self):
        listener = self.listen()
        sender = self.start("send", self.url, "--data", "x", "--replies", "1")
        connection = self.accept(listener)
        read_frame(connection)
        connection.sendall(frame(1, 1, b"half an answer")[:-5])
        connection.close()
        self.assertEqual(sender.process.wait(PATIENCE), 1)
        self.assertIn("the peer closed the connection", sender.errors())

    def test_half_an_answer_does_not_reach_the_next_connection(self):
        listener = self.listen()
        ping = self.start("ping", self.url, "-c", "3", "-i", "1.5", "--json")  # back after 1 s
        first = self.accept(listener)
        first.sendall(frame(*read_frame(first)))
        first.sendall(frame(*read_frame(first))[:-1])
        first.close()
        ping.event("gone")
        second = self.accept(listener)
        ping.event("back")
        second.sendall(frame(*read_frame(second)))
        self.assertEqual(ping.process.wait(PATIENCE), 0)
        summary = ping.event("summary")
        self.assertEqual((summary["received"], summary["lost"], summary["altered"]), (2, 1, 0))

    def test_a_malformed_answer_is_a_loss(self):
        listener = self.listen()
        ping = self.start("ping", self.url, "-c", "1", "--timeout", "0.3", "--json")
        connection = self.accept(listener)
        read_frame(connection)
        connection.sendall(MALFORMED["the length does not match the payload's"])
        self.assertTrue(ends(connection))
        self.assertEqual(ping.process.wait(PATIENCE), 1)
        self.assertEqual(ping.event("summary")["lost"], 1)
        self.assertIn("malformed frame, pdulen=20, datasize=4", ping.errors())


if __name__ == "__main__":
    unittest.main()
