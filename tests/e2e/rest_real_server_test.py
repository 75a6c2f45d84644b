"""zarn rest over TLS, and with nginx."""

import shutil
import ssl
import tempfile
import unittest
from pathlib import Path

from certificates import Authority
from http_servers import Nginx, answer, send
from rest_tool import BODY_LIMIT, RestTest


class Tls(RestTest):
    @classmethod
    def setUpClass(cls):
        directory = tempfile.TemporaryDirectory(prefix="zarnrest")
        cls.addClassCleanup(directory.cleanup)
        cls.authority = Authority(directory.name)
        cls.other = Authority(directory.name, "other")
        cls.own = cls.authority.issue("server")
        cls.elsewhere = cls.authority.issue("elsewhere", names="DNS:elsewhere,IP:127.0.0.9")

    def serve_tls(self, handle, own=None):
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        key, certificate = own or self.own
        context.load_cert_chain(certificate, key)
        return self.serve(handle, context=context)

    def trust(self, authority=None):
        return "--ca", (authority or self.authority).certificate

    def test_request_over_tls(self):
        server = self.serve_tls(send(answer(b"secret")))
        for host in ("127.0.0.1", "localhost"):
            self.assertEqual(self.ask(server.url(host=host), *self.trust())["body"], "secret")
        self.env["SSL_CERT_FILE"] = self.authority.certificate
        self.assertEqual(self.ask(server.url())["body"], "secret")

    def test_bad_authority_is_refused(self):
        server = self.serve_tls(send(answer(b"secret")))
        for options in ((), self.trust(self.other)):
            result = self.rest(server.url(), *options)
            self.assertEqual(result.returncode, 1)
            self.assertRegex(result.stderr, "authority")
        self.assertEqual(server.requests, [])

    def test_bad_name_is_refused(self):
        server = self.serve_tls(send(answer(b"secret")), self.elsewhere)
        for host in ("127.0.0.1", "localhost"):
            result = self.rest(server.url(host=host), *self.trust())
            self.assertEqual(result.returncode, 1)
            self.assertRegex(result.stderr, "name")
        self.assertEqual(server.requests, [])

    def test_server_without_tls(self):
        server = self.serve(send(b"HTTP/1.1 400 No\r\n\r\n"), early=True)
        result = self.rest(server.url().replace("http:", "https:"), *self.trust())
        self.assertEqual(result.returncode, 1, result.stderr)

    def test_silent_server(self):
        server = self.serve(lambda *_: server.wait_stopped(60), early=True)
        self.assert_fails(server.url().replace("http:", "https:"),
                          "no connection within the time limit", "--timeout", "0.3", code=3)

    def test_end_without_notice_is_no_end_of_an_answer_without_length(self):
        def cut(connection, _):
            connection.sendall(b"HTTP/1.1 200 OK\r\n\r\nhalf")
            connection.close()
        result = self.rest(self.serve_tls(cut).url(), *self.trust())
        self.assertEqual((result.returncode, result.stdout), (1, ""), result.stderr)
        server = self.serve_tls(send(b"HTTP/1.1 200 OK\r\n\r\nall of it"))
        self.assertEqual(self.ask(server.url(), *self.trust())["body"], "all of it")

    def test_file_without_certificates_is_a_failure(self):
        result = self.rest("https://127.0.0.1:1/zarn/tcpchannel", "--ca", self.write("no", "x"))
        self.assertEqual(result.returncode, 1)


class RealServer(RestTest):
    """nginx."""

    def serve_nginx(self, server, **options):
        directory = Path(tempfile.mkdtemp(prefix="zarnnginx"))
        self.addCleanup(shutil.rmtree, directory, ignore_errors=True)
        self.files = directory / "files/zarn/tcpchannel"
        self.files.mkdir(parents=True)
        (directory / "htpasswd").write_text("alice:{PLAIN}open sesame\n")
        nginx = Nginx(str(directory), server, **options)
        self.addCleanup(nginx.stop)
        scheme = "https" if options.get("tls") else "http"
        return f"{scheme}://127.0.0.1:{nginx.port}/zarn/tcpchannel"

    def test_statuses_and_errors(self):
        url = self.serve_nginx("location = /zarn/tcpchannel { return 202 'taken'; }"
                               "location = /zarn/tcpchannel/moved { return 302 /elsewhere; }")
        self.assertEqual(self.ask(url), {"event": "answer", "status": 202, "size": 5, "body": "taken"})
        self.assertEqual(self.get(url + "/moved")["status"], 302)
        self.assertEqual(self.get(url + "/missing", code=1)["status"], 404)

    def test_what_is_put_can_be_had_back(self):
        url = self.serve_nginx("dav_methods PUT DELETE;") + "/order"
        put, delete = self.write("put", "PUT"), self.write("delete", "DELETE")
        self.assertEqual(self.ask(url, "--setting", put, data='{"id": 7}')["status"], 201)
        self.assertEqual(self.get(url)["body"], '{"id": 7}')
        self.assertEqual(self.ask(url, "--setting", delete, data="")["status"], 204)
        self.assertEqual(self.get(url, code=1)["status"], 404)

    def test_gzip_and_chunked(self):
        url = self.serve_nginx("gzip on; gzip_types *; gzip_min_length 1;")
        text = "hello, world\n" * 10000
        (self.files / "text").write_text(text)
        self.assertEqual(self.get(url + "/text")["body"], text)
        self.assertEqual(self.ask(url + "/text", "--setting", self.write(
            "plain", "GET\nAccept-Encoding: identity"), data="")["body"], text)

    def test_password(self):
        url = self.serve_nginx("auth_basic realm; auth_basic_user_file htpasswd;"
                               "location /zarn/tcpchannel { try_files /none =204; }")
        self.env["ZARN_REST_PASSWORD"] = "open sesame"
        self.assertEqual(self.get(url, "--user", "alice")["status"], 204)
        self.env["ZARN_REST_PASSWORD"] = "wrong"
        self.assertEqual(self.get(url, "--user", "alice", code=1)["status"], 401)
        self.assertEqual(self.get(url, code=1)["status"], 401)

    def test_64_mib_and_a_byte_more(self):
        url = self.serve_nginx("")
        (self.files / "most").write_bytes(b"x" * BODY_LIMIT)
        (self.files / "more").write_bytes(b"x" * (BODY_LIMIT + 1))
        setting = ("--setting", self.write("get", "GET"))
        result = self.rest(url + "/most", *setting, data="")
        self.assertEqual((result.returncode, len(result.stdout)),
                         (0, BODY_LIMIT + len("status 200\n\n")))
        self.assert_fails(url + "/more", "the answer is larger than its limit", *setting)

    def test_tls(self):
        with tempfile.TemporaryDirectory(prefix="zarnrest") as directory:
            authority = Authority(directory)
            key, certificate = authority.issue("server")
            url = self.serve_nginx(f"ssl_certificate {certificate}; ssl_certificate_key {key};"
                                   "location / { return 200 'secret'; }", tls=True)
            self.assertEqual(self.ask(url, "--ca", authority.certificate)["body"], "secret")
            self.assertEqual(self.rest(url).returncode, 1)


if __name__ == "__main__":
    unittest.main()
