"""TLS with peers that are not ours: the openssl program and Python's ssl module, both ways."""

import socket
import ssl
import struct
import subprocess
import tempfile
import time
import unittest

from certificates import Authority
from programs import ProgramTest

ANY_VERSION = ["-cipher", "DEFAULT@SECLEVEL=0"]  # what the old versions need

# Reasons of sslutils/CAWSSLError.h.
HANDSHAKE, VERSION, PEER_REFUSED = 10101, 10103, 10106
EXPIRED, NAME, UNKNOWN_AUTHORITY, MISSING = 10111, 10113, 10114, 10115
RECORD, CUT, KEY_MISMATCH = 10121, 10122, 10133
RESET = 104


class TlsTest(ProgramTest):
    @classmethod
    def setUpClass(cls):
        directory = tempfile.TemporaryDirectory(prefix="zarntls")
        cls.addClassCleanup(directory.cleanup)
        cls.authority = Authority(directory.name)
        cls.other = Authority(directory.name, "other")
        cls.server_key, cls.server_certificate = cls.authority.issue("server")
        cls.client_key, cls.client_certificate = cls.authority.issue("client", usage="clientAuth")


class ForeignClient(TlsTest):
    def serve(self, *authorities):
        server = self.start("tls_peer", "serve", self.server_key, self.server_certificate, *authorities)
        self.port = server.wait("listening")["port"]
        return server

    def s_client(self, *arguments, text="hello\n"):
        """Runs it until it has sent its text, and maybe has it back."""
        return subprocess.run(
            ["openssl", "s_client", "-connect", f"127.0.0.1:{self.port}", "-quiet",
             "-no_ign_eof", "-verify_return_error", "-CAfile", self.authority.certificate,
             *arguments], input=text, text=True, timeout=60, check=False,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def interactive(self, *arguments):
        process = subprocess.Popen(
            ["openssl", "s_client", "-connect", f"127.0.0.1:{self.port}", "-quiet", "-no_ign_eof",
             "-CAfile", self.authority.certificate, *arguments],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(process.wait, 20)
        self.addCleanup(process.stderr.close)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.kill)
        self.addCleanup(process.stdin.close)
        return process

    def connect_by_python(self):
        context = ssl.create_default_context(cafile=self.authority.certificate)
        plain = socket.create_connection(("127.0.0.1", self.port), timeout=20)
        client = context.wrap_socket(plain, server_hostname="localhost",
                                     suppress_ragged_eofs=False)
        self.addCleanup(client.close)
        return client

    def assert_serves(self, server):
        with self.connect_by_python() as client:
            server.wait("accepted")
            client.sendall(b"still here")
            self.assertEqual(client.recv(100), b"still here")
            client.unwrap()
        server.wait("ended", reason=0)

    def test_s_client_speaks_both_versions(self):
        server = self.serve()
        for version in ("-tls1_2", "-tls1_3"):
            with self.subTest(version):
                self.s_client(version)
                server.wait("accepted")
                server.wait("ended", reason=0)

    def test_s_client_with_and_without_a_certificate(self):
        server = self.serve(self.authority.certificate)
        for version in ("-tls1_2", "-tls1_3"):
            with self.subTest(version):
                self.s_client(version, "-key", self.client_key, "-cert", self.client_certificate)
                server.wait("accepted")
                server.wait("ended")
                self.s_client(version)
                server.wait("refused", reason=MISSING)

    def test_client_of_another_authority_is_refused(self):
        server = self.serve(self.authority.certificate)
        key, certificate = self.other.issue("stranger", usage="clientAuth")
        self.s_client("-key", key, "-cert", certificate)
        server.wait("refused", reason=UNKNOWN_AUTHORITY)

    def test_old_versions_are_refused(self):
        server = self.serve()
        for version in ("-tls1", "-tls1_1"):
            with self.subTest(version):
                self.assertNotEqual(self.s_client(version, *ANY_VERSION).returncode, 0)
                server.wait("refused", reason=VERSION)
        self.assert_serves(server)

    def test_renegotiation_is_refused_and_ends_that_client_only(self):
        server = self.serve()
        kept = self.connect_by_python()
        server.wait("accepted")
        result = self.s_client("-tls1_2", text="R\n")  # the program's command for it
        self.assertIn("no renegotiation", result.stderr)
        server.wait("accepted")
        server.wait("ended")
        kept.sendall(b"unharmed")
        self.assertEqual(kept.recv(100), b"unharmed")

    def test_keys_are_changed_when_the_peer_asks_for_it(self):
        server = self.serve()
        client = self.interactive("-tls1_3")
        server.wait("accepted")
        for text in (b"before\n", b"K\n", b"after\n"):  # K is the program's command for it
            client.stdin.write(text)
            client.stdin.flush()
            if text == b"K\n":
                while b"KEYUPDATE" not in client.stderr.readline():
                    pass
            else:
                self.assertEqual(client.stdout.readline(), text)

    def test_no_early_data_is_taken(self):
        server = self.serve()
        with tempfile.TemporaryDirectory() as directory:
            session, early = directory + "/session", directory + "/early"
            with open(early, "wb") as file:
                file.write(b"too early")
            client = self.interactive("-tls1_3", "-sess_out", session)
            client.stdin.write(b"x\n")
            client.stdin.flush()
            client.stdout.readline()  # tickets have come before it
            client.stdin.close()
            client.wait(20)
            shown = subprocess.run(["openssl", "sess_id", "-in", session, "-noout", "-text"], check=True,
                                   timeout=20, stdout=subprocess.PIPE).stdout
            self.assertIn(b"Max Early Data: 0", shown)
            server.wait("ended")
            client = self.interactive("-sess_in", session, "-early_data", early)
            client.stdin.write(b"in time\n")
            client.stdin.flush()
            self.assertEqual(client.stdout.readline(), b"in time\n")

    def test_megabytes_come_back(self):
        server = self.serve()
        client = self.connect_by_python()
        server.wait("accepted")
        sent = bytes(range(256)) * 4096 * 4
        received = bytearray()
        for start in range(0, len(sent), 1 << 18):
            piece = sent[start : start + (1 << 18)]
            client.sendall(piece)
            while len(received) < start + len(piece):
                received += client.recv(1 << 20)
        self.assertEqual(bytes(received), sent)

    def test_orderly_end_and_cut_are_told_apart(self):
        server = self.serve()
        self.assert_serves(server)
        client = self.connect_by_python()
        server.wait("accepted")
        client.sendall(b"x")
        client.recv(1)
        client.close()
        server.wait("ended", reason=CUT)
        client = self.connect_by_python()
        server.wait("accepted")
        client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        client.close()
        server.wait("ended", reason=RESET)

    def test_our_end_is_orderly_for_the_peer(self):
        server = self.serve()
        client = self.connect_by_python()
        server.wait("accepted")
        client.sendall(b"x")
        self.assertEqual(client.recv(1), b"x")
        server.tell("close")
        self.assertEqual(client.recv(1), b"")  # a cut raises

    def test_garbage_ends_that_connection_only(self):
        server = self.serve()
        kept = self.connect_by_python()
        server.wait("accepted")
        with socket.create_connection(("127.0.0.1", self.port), timeout=20) as plain:
            plain.sendall(b"GET / HTTP/1.1\r\n\r\n")
            server.wait("refused", reason=HANDSHAKE)
        client = self.connect_by_python()
        server.wait("accepted")
        with socket.socket(fileno=client.detach()) as plain:
            plain.sendall(b"\x17\x03\x03\x00\x20" + b"g" * 32)
            server.wait("ended", reason=RECORD)
        kept.sendall(b"unharmed")
        self.assertEqual(kept.recv(100), b"unharmed")
        self.assert_serves(server)

    def test_key_that_does_not_match_stops_the_listen(self):
        server = self.start("tls_peer", "serve", self.client_key, self.server_certificate)
        server.wait("listen_failed", reason=KEY_MISMATCH)


class ForeignServer(TlsTest):
    def serve(self, *arguments, key=None, certificate=None):
        """A server for one connection, which sends what it is given, and its port."""
        process = subprocess.Popen(
            ["openssl", "s_server", "-accept", "127.0.0.1:0", "-naccept", "1",
             "-key", key or self.server_key, "-cert", certificate or self.server_certificate,
             *arguments], stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(process.wait, 20)
        self.addCleanup(process.stderr.close)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.kill)
        self.addCleanup(process.stdin.close)
        for line in process.stdout:
            if line.startswith(b"ACCEPT "):
                return process, line.split(b":")[-1].strip().decode()
        raise AssertionError("s_server does not listen")

    @staticmethod
    def read_until(process, text):
        """It prints what it receives between what it has to say itself."""
        seen = b""
        while text not in seen:
            byte = process.stdout.read(1)
            if not byte:
                raise AssertionError(seen)
            seen += byte

    def connect_to(self, port, *identity, authority=None):
        return self.start("tls_peer", "connect", port, authority or self.authority.certificate, *identity)

    def test_s_server_of_both_versions(self):
        for version in ("-tls1_2", "-tls1_3"):
            with self.subTest(version):
                process, port = self.serve(version)
                client = self.connect_to(port)
                client.wait("connected")
                client.tell("send 5")
                self.read_until(process, b"xxxxx")
                process.stdin.write(b"answer\n")
                process.stdin.flush()
                client.wait("received", bytes=7)
                client.tell("close")
                self.assertEqual(process.wait(20), 0)

    def test_renegotiation_that_the_server_asks_for_is_refused(self):
        process, port = self.serve("-tls1_2")
        client = self.connect_to(port)
        client.wait("connected")
        process.stdin.write(b"r\n")  # the program's command for it
        process.stdin.flush()
        self.assertNotEqual(client.wait("ended")["reason"], 0)  # it takes a no for an error
        self.assertIn(b"no renegotiation", process.stderr.read())

    def test_s_server_that_wants_a_certificate(self):
        for version in ("-tls1_2", "-tls1_3"):
            for identity, event in (((self.client_key, self.client_certificate), "received"),
                                    ((), "ended")):
                with self.subTest(version=version, event=event):
                    process, port = self.serve(version, "-Verify", "2", "-verify_return_error",
                                               "-CAfile", self.authority.certificate)
                    client = self.connect_to(port, *identity)
                    if event == "received":
                        client.wait("connected")
                        process.stdin.write(b"in\n")
                        process.stdin.flush()
                        client.wait("received")
                    else:
                        # The alert of TLS 1.2 says no more than that the handshake has failed.
                        reason = client.wait("ended")["reason"]
                        self.assertIn(reason, (PEER_REFUSED, 10105))

    def assert_refused(self, reason, *arguments, authority=None, **identity):
        _, port = self.serve(*arguments, **identity)
        self.connect_to(port, authority=authority).wait("ended", reason=reason)

    def test_server_of_tls_1_1_only_is_refused(self):
        self.assert_refused(VERSION, "-tls1_1", *ANY_VERSION)

    def test_expired_certificate_is_refused(self):
        key, certificate = self.authority.issue("expired", days=-1)
        self.assert_refused(EXPIRED, key=key, certificate=certificate)

    def test_wrong_name_is_refused(self):
        key, certificate = self.authority.issue("elsewhere", names="DNS:elsewhere,IP:127.0.0.2")
        self.assert_refused(NAME, key=key, certificate=certificate)

    def test_unknown_authority_is_refused(self):
        self.assert_refused(UNKNOWN_AUTHORITY, authority="-")
        self.assert_refused(UNKNOWN_AUTHORITY, authority=self.other.certificate)

    def test_key_that_does_not_match_is_refused_before_anything_is_sent(self):
        _, port = self.serve()
        client = self.connect_to(port, self.server_key, self.client_certificate)
        client.wait("ended", reason=KEY_MISMATCH)

    def shake_hands(self, plain):
        """The server's side of a connection, by hand: tickets wait in the second buffer."""
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(self.server_certificate, self.server_key)
        incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
        server = context.wrap_bio(incoming, outgoing, server_side=True)
        while True:
            try:
                server.do_handshake()
                return server, incoming, outgoing
            except ssl.SSLWantReadError:
                plain.sendall(outgoing.read())
                incoming.write(plain.recv(1 << 16))

    @staticmethod
    def wait_for_close(port):
        """Until the socket of this machine that has this port is no longer established."""
        end = time.monotonic() + 20
        while time.monotonic() < end:
            with open("/proc/net/tcp", encoding="ascii") as file:
                sockets = [line.split() for line in file][1:]
            if ["01"] != [fields[3] for fields in sockets if fields[1].endswith(f":{port:04X}")]:
                return
            time.sleep(0.01)
        raise AssertionError("the client does not close")

    def test_tickets_that_come_while_the_client_ends_cost_nothing_of_what_it_sent(self):
        with socket.create_server(("127.0.0.1", 0)) as listening:
            # What does not fit in is still with the client when that has closed.
            listening.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 16384)
            listening.settimeout(20)
            client = self.connect_to(str(listening.getsockname()[1]))
            plain, peer = listening.accept()
        with plain:
            plain.settimeout(20)
            server, incoming, outgoing = self.shake_hands(plain)
            client.wait("connected")
            client.tell("send 200000")
            client.process.stdin.close()
            self.wait_for_close(peer[1])
            plain.sendall(outgoing.read())
            while piece := plain.recv(1 << 16):
                incoming.write(piece)
            received = b""
            while piece := server.read(1 << 16):
                received += piece
        self.assertEqual(len(received), 200000)
        self.assertEqual(client.wait_exit(), 0)

    def test_cut_of_a_server_that_died_is_told_apart(self):
        process, port = self.serve()
        client = self.connect_to(port)
        client.wait("connected")
        client.tell("send 5")
        self.read_until(process, b"xxxxx")
        process.kill()
        client.wait("ended", reason=CUT)


if __name__ == "__main__":
    unittest.main()
