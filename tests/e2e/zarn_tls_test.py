"""zarn over tls:// and ptls://: what it exchanges, whom it refuses, and what it says about it."""

import socket
import subprocess
import tempfile
import unittest

from certificates import Authority
from zarn_tool import LONGEST, ToolTest


class TlsToolTest(ToolTest):
    secured = "tls"

    @classmethod
    def setUpClass(cls):
        directory = tempfile.TemporaryDirectory(prefix="zarntls")
        cls.addClassCleanup(directory.cleanup)
        cls.authority = Authority(directory.name)
        cls.other = Authority(directory.name, "other")
        cls.server = cls.authority.issue("server")
        cls.client = cls.authority.issue("alice", usage="clientAuth")
        cls.directory = directory.name

    def setUp(self):
        super().setUp()
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            self.port = probe.getsockname()[1]
        self.url = f"{self.secured}://127.0.0.1:{self.port}"
        self.ca = ("--ca", self.authority.certificate)

    @staticmethod
    def identity(pair):
        return ("--key", pair[0], "--cert", pair[1])

    def listen(self, *options, own=None):
        return self.serve("--echo", *self.identity(own or self.server), *options)

    def assert_fails(self, text, *arguments, code=1):
        result = self.run_tool(*arguments)
        self.assertEqual(result.returncode, code, result.stdout + result.stderr)
        self.assertIn(text, result.stderr)
        if code == 1:
            self.assertEqual(len(result.stderr.splitlines()), 1, result.stderr)


class Exchange(TlsToolTest):
    def test_send_ping_and_bench_go_there_and_back(self):
        server = self.listen()
        reply = self.run_events("send", self.url, *self.ca, "--type", "7", "--tag", "1", "--data", "hello",
                                "--replies", "1")[0]
        self.assertEqual((reply["type"], reply["tag"], reply["text"]), (7, 1, "hello"))
        summary = self.run_events("ping", self.url, *self.ca, "-i", "0", "-c", "100", "-s", str(LONGEST))[-1]
        self.assertEqual((summary["received"], summary["altered"]), (100, 0))
        summary = self.run_events("bench", self.url, *self.ca, "--sizes", "64,65523", "--seconds", "0.2")[-1]
        self.assertTrue(summary["complete"])
        self.assertRegex(server.event("connected")["peer"], r"^127\.0\.0\.1:\d+#1$")
        self.assertEqual(server.end(), 0)
        summary = server.event("summary")
        self.assertEqual((summary["clients"], summary["dropped"], summary["refused"]), (3, 0, 0))

    def test_a_thousand_lines_arrive_before_the_end(self):
        server = self.listen()
        lines = "\n".join(str(number) for number in range(1000))
        self.run_events("send", self.url, *self.ca, "-", input=lines)
        server.event("gone")
        self.assertEqual(server.end(), 0)
        self.assertEqual(server.event("summary")["messages"], 1000)

    def test_ping_finds_the_server_again(self):
        server = self.listen()
        ping = self.start("ping", self.url, *self.ca, "-i", "0.05", "--json")
        ping.event("reply")
        server.end()
        ping.event("gone")
        self.listen()
        ping.event("back")
        ping.event("reply")
        self.assertEqual(ping.end(), 0)

    def test_name_of_the_url_is_the_name_that_is_checked(self):
        self.listen(own=self.authority.issue("named", names="DNS:localhost"))
        url = f"{self.secured}://localhost:{self.port}"
        self.run_events("ping", url, *self.ca, "-c", "1")
        self.assert_fails("is for another name", "ping", self.url, *self.ca)
        self.run_events("ping", self.url, *self.ca, "--server-name", "localhost", "-c", "1")

    def test_nobody_there_is_not_reachable(self):
        self.assert_fails("nobody listens there", "ping", self.url, *self.ca, "--timeout", "0.3", code=3)


class ExchangeOverPseudoTcp(Exchange):
    secured = "ptls"


class Refusals(TlsToolTest):
    """A refusal ends a client at once: another try would not end differently."""

    def test_unknown_authority(self):
        server = self.listen()
        self.assert_fails("unknown authority", "ping", self.url)
        self.assert_fails("unknown authority", "ping", self.url, "--ca", self.other.certificate)
        self.assertIn("does not accept our certificate", server.event("refused")["reason"])
        self.run_events("ping", self.url, *self.ca, "-c", "1")

    def test_expired_certificate(self):
        self.listen(own=self.authority.issue("expired", days=-1))
        self.assert_fails("has expired", "send", self.url, *self.ca, "--data", "x")

    def test_server_that_speaks_no_tls(self):
        with socket.create_server(("127.0.0.1", self.port)) as listener:
            ping = self.start("ping", self.url, *self.ca)
            with listener.accept()[0] as plain:
                plain.sendall(b"HTTP/1.1 400 Bad Request\r\n\r\n")
                self.assertEqual(ping.process.wait(20), 1)
        self.assertIn("does not speak TLS", ping.errors())

    def test_server_of_tls_1_1_only(self):
        key, certificate = self.server
        server = subprocess.Popen(
            ["openssl", "s_server", "-accept", f"127.0.0.1:{self.port}", "-key", key, "-cert", certificate,
             "-tls1_1", "-cipher", "DEFAULT@SECLEVEL=0"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.addCleanup(server.wait, 20)
        self.addCleanup(server.kill)
        self.addCleanup(server.stdin.close)
        self.addCleanup(server.stdout.close)
        while b"ACCEPT" not in server.stdout.readline():
            pass
        self.assert_fails("No TLS version in common", "ping", self.url, *self.ca)

    def test_garbage_ends_that_client_only(self):
        server = self.listen()
        ping = self.start("ping", self.url, *self.ca, "-i", "0.05", "--json")
        ping.event("reply")
        with socket.create_connection(("127.0.0.1", self.port)) as plain:
            plain.sendall(b"GET / HTTP/1.1\r\n\r\n")
            self.assertIn("does not speak TLS", server.event("refused")["reason"])
        ping.event("reply")
        self.assertEqual(ping.end(), 0)
        self.assertEqual(ping.event("summary")["lost"], 0)


class ClientCertificates(TlsToolTest):
    def test_client_is_asked_for_its_certificate_and_named(self):
        server = self.listen("--client-ca", self.authority.certificate)
        self.run_events("ping", self.url, *self.ca, *self.identity(self.client), "-c", "1")
        self.assertEqual(server.event("connected")["certificate"], "CN = alice")

    def test_client_without_one_is_refused(self):
        server = self.listen("--client-ca", self.authority.certificate)
        self.assert_fails("does not accept our certificate, or wants one", "ping", self.url, *self.ca)
        self.assertIn("has no certificate", server.event("refused")["reason"])

    def test_client_of_another_authority_is_refused(self):
        server = self.listen("--client-ca", self.authority.certificate)
        stranger = self.other.issue("stranger", usage="clientAuth")
        self.assert_fails("does not accept our certificate", "ping", self.url, *self.ca,
                          *self.identity(stranger))
        self.assertIn("unknown authority", server.event("refused")["reason"])
        self.assertEqual(server.end(), 0)
        self.assertEqual(server.event("summary")["refused"], 1)


class ClientCertificatesOverPseudoTcp(ClientCertificates):
    secured = "ptls"


class Usage(TlsToolTest):
    def test_each_bad_file_is_named_with_its_option(self):
        key, certificate = self.server
        nowhere = self.directory + "/nowhere.pem"
        for text, options in (
                (f"--key '{nowhere}': No such file", ("--key", nowhere, "--cert", certificate)),
                (f"--cert '{nowhere}': No such file", ("--key", key, "--cert", nowhere)),
                (f"--key '{certificate}': No private key", ("--key", certificate, "--cert", certificate)),
                (f"--cert '{key}': No usable certificate", ("--key", key, "--cert", key)),
                ("does not belong to the certificate", ("--key", self.client[0], "--cert", certificate))):
            with self.subTest(text):
                self.assert_fails(text, "serve", self.url, *options)
                self.assert_fails(text, "ping", self.url, *options)
        self.assert_fails(f"--ca '{nowhere}': No such file", "ping", self.url, "--ca", nowhere)
        self.assert_fails(f"--client-ca '{key}': No usable certificate", "serve", self.url,
                          *self.identity(self.server), "--client-ca", key)

    def test_an_empty_value_is_wrong_usage_and_nobody_is_served_without_a_check(self):
        for option, arguments in (("--client-ca", ("serve", self.url, *self.identity(self.server))),
                                  ("--ca", ("ping", self.url)), ("--server-name", ("ping", self.url)),
                                  ("--key", ("ping", self.url, "--cert", self.client[1])),
                                  ("--cert", ("ping", self.url, "--key", self.client[0]))):
            with self.subTest(option):
                self.assert_fails(f"{option}: must not be empty", *arguments, option, "", code=2)

    def test_options_that_do_not_fit_are_wrong_usage(self):
        key, certificate = self.server
        for text, arguments in (
                ("needs --key and --cert", ("serve", self.url)),
                ("--key requires --cert", ("ping", self.url, "--key", key)),
                ("--cert requires --key", ("serve", self.url, "--cert", certificate)),
                ("--ca: is for tls:// and ptls:// endpoints only", ("ping", "ipc://1_2", *self.ca)),
                ("--key: is for tls:// and ptls:// endpoints only",
                 ("serve", "tcp://127.0.0.1:7000", "--key", key, "--cert", certificate)),
                ("the form is tls://host:port", ("ping", "tls://nothing"))):
            with self.subTest(text):
                self.assert_fails(text, *arguments, code=2)

    def test_port_that_is_taken(self):
        self.listen()
        self.assert_fails(f"somebody listens at port {self.port} already", "serve", self.url,
                          *self.identity(self.server))


if __name__ == "__main__":
    unittest.main()
