"""The example programs do what their first lines say."""

import errno
import os
import shutil
import signal
import socket
import ssl
import subprocess
import tempfile
import threading
import unittest

import failing_calls
import programs
from certificates import Authority
from http_servers import ScriptServer, answer

LIMIT = 20  # seconds that one step may take


class Examples(unittest.TestCase):
    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="zarn-examples-")
        self.addCleanup(shutil.rmtree, self.root)
        os.mkdir(os.path.join(self.root, "system"))

    def start(self, *command, root=None, variables=None):
        program = subprocess.Popen(
            [os.path.join(os.environ["ZARN_BIN_DIR"], command[0]), *command[1:]],
            env={**os.environ, "ZARN_ROOT": root or self.root, **(variables or {})}, text=True,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(self.end, program)
        return program

    @staticmethod
    def end(program):
        if program.poll() is None:
            program.kill()
        program.communicate(timeout=LIMIT)

    def serve(self):
        server = self.start("echo_server", "1", "2")
        self.assertEqual(server.stdout.readline(), "listening at 1_2\n")
        return server

    def test_client_gets_its_line_back_and_server_stops_in_order(self):
        server = self.serve()
        output, errors = self.start("echo_client", "3", "4", "1", "2", "hello").communicate(
            timeout=LIMIT)
        self.assertEqual((output, errors), ("connected\ntype 1 tag 1: hello\n", ""))
        self.assertEqual(server.stdout.readline(), "a client has come, 1 now\n")
        server.send_signal(signal.SIGTERM)
        output, errors = server.communicate(timeout=LIMIT)
        self.assertEqual((server.returncode, output, errors), (0, "stopped\n", ""))
        self.assertEqual(os.listdir(os.path.join(self.root, "system/zarn/ipc")), [])

    def test_client_whose_server_closes_says_so(self):
        endpoints = os.path.join(self.root, "system/zarn/ipc")
        os.makedirs(endpoints, 0o700)
        with socket.socket(socket.AF_UNIX) as server:
            server.bind(os.path.join(endpoints, "1_2"))
            server.listen()
            client = self.start("echo_client", "3", "4", "1", "2", "hello")
            with server.accept()[0] as connection:
                frame = connection.recv(17, socket.MSG_WAITALL)
            self.assertEqual(frame[12:], b"hello")
            self.assertEqual(client.stdout.readline(), "connected\n")
            self.assertEqual(client.stdout.readline(), "not connected: the peer has closed\n")

    def test_shared_memory_carries_the_same_messages(self):
        server = self.start("shm_echo", "serve", "1", "2")
        self.assertEqual(server.stdout.readline(), "listening\n")
        output, errors = self.start("shm_echo", "ask", "1", "2", "1000").communicate(timeout=LIMIT)
        self.assertRegex(output, r"^1000 answers in [0-9.]+ s\n$")
        self.assertEqual(errors, "")
        second = self.start("shm_echo", "serve", "1", "2")
        self.assertIn("cannot listen: Address already in use", second.communicate(timeout=LIMIT)[1])
        server.communicate(timeout=LIMIT)
        self.assertEqual(server.returncode, 0)
        self.assertEqual(os.listdir(os.path.join(self.root, "system/zarn/shmipc")), [])

    def serve_tcp(self):
        server = self.start("tcp_echo", "serve", "127.0.0.1", "0")
        line = server.stdout.readline()
        self.assertRegex(line, r"^listening at port [1-9]\d*\n$")
        return server, int(line.split()[-1])

    def test_tcp_carries_lines_to_clients_that_are_ours_or_not(self):
        server, port = self.serve_tcp()
        ask = ("tcp_echo", "ask", "127.0.0.1", str(port), "1000")
        output, errors = self.start(*ask).communicate(timeout=LIMIT)
        self.assertRegex(output, r"^1000 answers in [0-9.]+ s\n$")
        self.assertEqual(errors, "")
        lines = b"".join(b"%d\n" % number * (number % 50) for number in range(2000))
        with socket.create_connection(("127.0.0.1", port), LIMIT) as plain:
            sender = threading.Thread(target=plain.sendall, args=(lines + b"half a line",))
            sender.start()
            received = b""
            while len(received) < len(lines):
                received += plain.recv(1 << 16)
            sender.join()
            self.assertEqual(received, lines)
        second = self.start("tcp_echo", "serve", "127.0.0.1", str(port))
        self.assertIn("cannot listen: Address already in use", second.communicate(timeout=LIMIT)[1])
        self.assertEqual(server.communicate(timeout=LIMIT), ("", ""))
        self.assertEqual(server.returncode, 0)
        output, errors = self.start(*ask).communicate(timeout=LIMIT)
        self.assertEqual((output, errors), (
            "", "tcp_echo: 1000 answers are missing: Connection refused\n"))

    def test_tcp_ends_a_client_whose_line_does_not_end(self):
        server, port = self.serve_tcp()
        with socket.create_connection(("127.0.0.1", port), LIMIT) as plain:
            plain.sendall(b"x" * 65535)
            self.assertEqual(plain.recv(1), b"")
        self.assertIsNone(server.poll())

    def test_pseudo_tcp_carries_lines(self):
        server = self.start("ptcp_echo", "serve", "127.0.0.1", "0")
        port = server.stdout.readline().split()[-1]
        ask = ("ptcp_echo", "ask", "127.0.0.1", port, "1000")
        output, errors = self.start(*ask).communicate(timeout=LIMIT)
        self.assertRegex(output, r"^1000 answers in [0-9.]+ s\n$")
        self.assertEqual(errors, "")
        self.assertEqual(server.communicate(timeout=LIMIT), ("", ""))
        self.assertEqual(server.returncode, 0)
        output, errors = self.start(*ask).communicate(timeout=LIMIT)
        self.assertEqual((output, errors), (
            "", "ptcp_echo: 1000 answers are missing: Connection refused\n"))

    def test_client_that_comes_first_finds_the_server_later(self):
        client = self.start("echo_client", "3", "4", "1", "2", "early")
        self.assertEqual(client.stdout.readline(), "not connected: No such file or directory\n")
        self.serve()
        output, _ = client.communicate(timeout=LIMIT)
        self.assertTrue(output.endswith("connected\ntype 1 tag 1: early\n"), output)

    def test_second_server_at_an_endpoint_and_a_missing_root_are_told(self):
        self.serve()
        _, errors = self.start("echo_server", "1", "2").communicate(timeout=LIMIT)
        self.assertEqual(errors, "echo_server: cannot listen at 1_2: Address already in use\n")
        for command in (("echo_server", "1", "2"), ("echo_client", "3", "4", "1", "2", "x")):
            program = self.start(*command, root=os.path.join(self.root, "none"))
            _, errors = program.communicate(timeout=LIMIT)
            self.assertEqual(program.returncode, 1)
            self.assertIn("ZARN_ROOT", errors)

    def test_client_whose_text_is_too_long_says_so(self):
        self.serve()
        client = self.start("echo_client", "3", "4", "1", "2", "x" * 65524)
        self.assertEqual(client.communicate(timeout=LIMIT), (
            "connected\n", "echo_client: cannot send 65524 bytes: Failure\n"))
        self.assertEqual(client.returncode, 1)

    def test_missing_network_thread_is_told(self):
        peer = ("ask", "127.0.0.1", "1")
        for loops, *command in (
                (0, "tcp_echo", *peer, "5"), (0, "ptcp_echo", *peer, "5"),
                (0, "tls_echo", *peer, "authorities", "5"), (0, "shm_echo", "ask", "1", "2", "5"),
                (1, "post_json", "http://127.0.0.1:1/zarn/tcpchannel", "{}")):
            with self.subTest(command=command):
                path = os.path.join(os.environ["ZARN_BIN_DIR"], command[0])
                program = self.start(*command, variables=failing_calls.failing(
                    path, "eventfd", loops + 1, errno.EMFILE, "ever"))
                output, errors = program.communicate(timeout=LIMIT)
                self.assertEqual((program.returncode, output), (1, ""))
                self.assertEqual(errors.splitlines()[-1],
                                 f"{command[0]}: the network thread cannot be started")

    def test_what_is_no_number_is_told(self):
        for wrong, most, *command in (
                ("70000", 65535, "echo_server", "70000", "1"),
                ("x", 65535, "echo_client", "3", "4", "1", "x", "hello"),
                ("65536", 65535, "shm_echo", "serve", "1", "65536"),
                ("0", 2**31 - 1, "shm_echo", "ask", "1", "2", "0"),
                ("notaport", 65535, "tcp_echo", "serve", "127.0.0.1", "notaport"),
                ("1x", 2**31 - 1, "tcp_echo", "ask", "127.0.0.1", "1", "1x"),
                ("", 65535, "ptcp_echo", "serve", "127.0.0.1", ""),
                ("9999999999", 2**31 - 1, "ptcp_echo", "ask", "127.0.0.1", "1", "9999999999"),
                ("-1", 65535, "tls_echo", "serve", "-1", "key", "certificate"),
                ("five", 2**31 - 1, "tls_echo", "ask", "127.0.0.1", "1", "authorities", "five"),
                ("3037000500", 3037000499, "modules", "7", "3037000500")):
            with self.subTest(command=command):
                program = self.start(*command)
                output, errors = program.communicate(timeout=LIMIT)
                self.assertEqual((program.returncode, output), (2, ""))
                self.assertRegex(errors, f"^{command[0]}: '{wrong}' is not a number from .* "
                                         f"to {most}\n$")

    def test_shared_memory_client_tells_that_there_is_no_server(self):
        client = self.start("shm_echo", "ask", "1", "2", "5")
        self.assertEqual(client.stdout.readline(), "not connected: No such file or directory\n")

    def test_tls_tells_which_file_is_wrong(self):
        none = os.path.join(self.root, "none.pem")
        told = f"tls_echo: '{none}': No such file or directory\n"
        for command in (("serve", "0", none, none), ("ask", "127.0.0.1", "1", none, "5")):
            program = self.start("tls_echo", *command)
            _, errors = program.communicate(timeout=LIMIT)
            self.assertEqual(program.returncode, 1)
            self.assertTrue(errors.startswith(told), errors)

    def serve_tls(self):
        """The server and a function that connects a client to it."""
        authority = Authority(self.root)
        server = self.start("tls_echo", "serve", "0", *authority.issue("server"))
        port = int(server.stdout.readline().split()[-1])
        context = ssl.create_default_context(cafile=authority.certificate)

        def connect():
            plain = socket.create_connection(("127.0.0.1", port), LIMIT)
            return context.wrap_socket(plain, server_hostname="127.0.0.1")
        return server, connect

    @staticmethod
    def send_lines(connection, megabytes):
        """As many as the server takes, so many at most."""
        line = b"x" * 99 + b"\n"
        try:
            for _ in range(megabytes):
                connection.sendall(line * 10_000)
        except OSError:
            pass  # it has ended the connection

    def test_tls_ends_a_client_whose_line_does_not_end(self):
        server, connect = self.serve_tls()
        with connect() as client:
            client.sendall(b"x" * 65535)
            self.assertEqual(client.recv(1), b"")
        self.assertIsNone(server.poll())

    def test_tls_ends_a_client_that_does_not_read(self):
        _, connect = self.serve_tls()
        with connect() as client:
            self.send_lines(client, 40)  # more than may wait and than sockets hold
            answered = 0
            try:
                while answered < 40_000_000 and (answer := client.recv(1 << 16)):
                    answered += len(answer)
            except OSError:
                pass
            self.assertLess(answered, 40_000_000)

    def test_tls_keeps_nothing_of_clients_that_have_gone(self):
        server, connect = self.serve_tls()
        before = programs.resident_bytes(server.pid)
        for _ in range(20):
            with connect() as client:
                self.send_lines(client, 12)  # fewer than may wait
        with connect() as client:
            client.sendall(b"hello\n")
            self.assertEqual(client.recv(6), b"hello\n")
        if not programs.is_sanitized(server.pid):
            self.assertLess(programs.resident_bytes(server.pid) - before, 32 << 20)

    def test_tls_tells_how_many_answers_an_early_end_has_cost(self):
        authority = Authority(self.root)
        key, certificate = authority.issue("server")
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(certificate, key)
        with socket.create_server(("127.0.0.1", 0)) as server:
            client = self.start("tls_echo", "ask", "127.0.0.1", str(server.getsockname()[1]),
                                authority.certificate, "3")
            with context.wrap_socket(server.accept()[0], server_side=True) as connection:
                connection.sendall(connection.recv(6))
                self.assertEqual(connection.recv(6), b"hello\n")
                connection.unwrap().close()
        output, errors = client.communicate(timeout=LIMIT)
        self.assertEqual((client.returncode, output, errors), (
            1, "", "tls_echo: 2 answers are missing: the peer has closed\n"))

    def test_modules_ask_and_answer_in_order(self):
        program = self.start("modules", "7", "12", "-3")
        output, errors = program.communicate(timeout=LIMIT)
        self.assertEqual((program.returncode, errors), (0, ""))
        self.assertEqual(output.splitlines(), [
            "calculator: ready", "asker: 7 * 7 = 49", "asker: 12 * 12 = 144", "asker: -3 * -3 = 9",
            "calculator: over"])

    def test_json_is_posted_and_the_answer_printed(self):
        server = ScriptServer(lambda connection, request: connection.sendall(
            answer(b"got " + request.body, "201 Created")))
        self.addCleanup(server.stop)
        output, errors = self.start("post_json", server.url("/orders"), '{"id": 7}').communicate(
            timeout=LIMIT)
        self.assertEqual((output, errors), ('201\ngot {"id": 7}\n', ""))
        refused = self.start("post_json", "http://127.0.0.1:1/zarn/tcpchannel", "{}")
        self.assertEqual(refused.communicate(timeout=LIMIT)[1], "post_json: Connection refused\n")
        self.assertEqual(refused.returncode, 1)


if __name__ == "__main__":
    unittest.main()
