"""zarn rest against servers that misbehave, in every way there is, or send too much."""

import errno
import gzip
import os
import socket
import struct
import time
import unittest

from http_servers import answer, send
from rest_tool import BODY_LIMIT, RestTest


class BadServers(RestTest):
    def test_nobody_listens(self):
        with socket.create_server(("127.0.0.1", 0)) as probe:
            port = probe.getsockname()[1]
        self.assert_fails(f"http://127.0.0.1:{port}/zarn/tcpchannel", "Connection refused", code=3)
        self.assert_fails(f"https://127.0.0.1:{port}/zarn/tcpchannel", "Connection refused", code=3)

    def test_name_that_nobody_has(self):
        self.assert_fails("http://no-such-host.invalid/zarn/tcpchannel",
                          "the host name does not resolve", code=3)

    def test_silent_before_the_connection_is_there(self):
        # A listener whose queue is full answers no more connects.
        with socket.create_server(("127.0.0.1", 0), backlog=0) as listener:
            port = listener.getsockname()[1]
            waiting = []
            for _ in range(8):
                waiting.append(socket.socket())
                waiting[-1].setblocking(False)
                waiting[-1].connect_ex(("127.0.0.1", port))
            self.assert_fails(f"http://127.0.0.1:{port}/zarn/tcpchannel",
                              "no connection within the time limit", "--timeout", "0.3", code=3)
            for one in waiting:
                one.close()

    def test_silent_and_slow_ones(self):
        def slow(connection, _):
            connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n")
            while not server.wait_stopped(0.05):
                connection.sendall(b"x")

        for handle in (lambda *_: server.wait_stopped(60), slow):
            for early in (False, True):
                server = self.serve(handle, early=early)
                start = time.monotonic()
                self.assert_fails(server.url(), "no answer within the time limit",
                                  "--timeout", "0.5")
                self.assertLess(time.monotonic() - start, 10)

    def test_one_that_does_not_read(self):
        server = self.serve(lambda *_: server.wait_stopped(60), early=True)
        body = self.write("body", b"x" * (32 << 20))
        result = self.run_tool("rest", server.url(), "--file", body, "--timeout", "0.5")
        self.assertEqual(result.returncode, 1)
        self.assertIn("no answer within the time limit", result.stderr)

    def test_header_of_a_megabyte_is_refused(self):
        for lines in (1, 1000):
            field = b"X: " + b"x" * ((1 << 20) // lines) + b"\r\n"
            server = self.serve(send(b"HTTP/1.1 200 OK\r\n" + field * lines + b"\r\n"))
            self.assert_fails(server.url(), "the answer is larger than its limit")

    def test_header_below_the_limit_is_taken(self):
        fields = ["X: " + "x" * 1000] * 200
        self.assertEqual(self.ask(self.serve(send(answer(b"hi", "200 OK", *fields))).url())["body"],
                         "hi")

    def test_reset_in_the_middle(self):
        def handle(connection, _):
            connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\nhalf")
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.assert_fails(self.serve(handle).url(), os.strerror(errno.ECONNRESET))

    def test_answer_of_one_that_does_not_read_the_body(self):
        def handle(connection, _):
            # The end, with bytes that are not read, is a reset behind the answer.
            connection.recv(1000)
            connection.sendall(answer(b"too large", "413 Payload Too Large", "Connection: close"))
        body = self.write("body", b"x" * (8 << 20))
        server = self.serve(handle, early=True)
        result = self.run_tool("rest", server.url(), "--file", body)
        self.assertEqual((result.stdout, result.stderr), ("status 413\ntoo large\n", ""))

    def test_answer_without_a_length_of_one_that_ends_and_does_not_read_the_body(self):
        def handle(connection, _):
            connection.recv(1000)
            connection.sendall(b"HTTP/1.0 503 Busy\r\n\r\nbusy")
            connection.shutdown(socket.SHUT_WR)
        body = self.write("body", b"x" * (8 << 20))
        server = self.serve(handle, early=True)
        result = self.run_tool("rest", server.url(), "--file", body)
        self.assertEqual((result.stdout, result.stderr), ("status 503\nbusy\n", ""))

    def test_end_in_the_middle(self):
        for wire in (b"", b"HTTP/1.1 200", b"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhalf",
                     b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n",
                     b"HTTP/1.1 100 Continue\r\n\r\n"):
            self.assert_fails(self.serve(send(wire)).url(), ".*before its answer was whole")

    def test_garbage(self):
        for wire in (os.urandom(4096) + b"\r\n\r\n", b"220 mail.example ESMTP ready\r\n\r\n",
                     b"HTTP/3.0 200 OK\r\n\r\n", b"HTTP/1.1 abc\r\n\r\n",
                     b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n",
                     b"HTTP/1.1 101 Switching Protocols\r\n\r\n",
                     answer(b"no gzip", "200 OK", "Content-Encoding: gzip")):
            self.assert_fails(self.serve(send(wire)).url(), "what came is no HTTP answer")

    def test_unknown_coding(self):
        server = self.serve(send(answer(b"x", "200 OK", "Content-Encoding: br")))
        self.assert_fails(server.url(), ".*coded in a way that is not understood")


class Sizes(RestTest):
    """The bound of a body holds after unpacking."""

    def test_body_of_the_limit_is_taken_and_a_byte_more_is_refused(self):
        def handle(connection, request):
            size = BODY_LIMIT + int(request.target[-1])
            connection.sendall(b"HTTP/1.1 200 OK\r\n\r\n")
            connection.sendall(b"x" * size)
        server = self.serve(handle)
        result = self.rest(server.url("/0"))
        self.assertEqual((result.returncode, len(result.stdout)),
                         (0, BODY_LIMIT + len("status 200\n\n")))
        self.assert_fails(server.url("/1"), "the answer is larger than its limit")

    def test_length_beyond_the_limit_is_refused_before_it_comes(self):
        def handle(connection, _):
            connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % (BODY_LIMIT + 1))
            server.wait_stopped(60)
        server = self.serve(handle)
        self.assert_fails(server.url(), "the answer is larger than its limit")

    def test_small_bytes_that_unpack_to_too_many_are_refused(self):
        for size, text in ((BODY_LIMIT, None), (BODY_LIMIT + 1, "the answer is larger.*")):
            packed = gzip.compress(b"\0" * size)
            server = self.serve(send(answer(packed, "200 OK", "Content-Encoding: gzip")))
            if text:
                self.assert_fails(server.url(), text)
            else:
                self.assertEqual(self.rest(server.url()).returncode, 0)


if __name__ == "__main__":
    unittest.main()
