"""What the tests of zarn rest share: servers, files and the one answer."""

from http_servers import ScriptServer
from zarn_tool import ToolTest

BODY_LIMIT = 64 << 20  # bytes of an answer's body, once unpacked


class RestTest(ToolTest):
    def setUp(self):
        super().setUp()
        self.env.pop("ZARN_REST_PASSWORD", None)

    def serve(self, handle, **options):
        server = ScriptServer(handle, **options)
        self.addCleanup(server.stop)
        return server

    def write(self, name, content):
        path = self.root / name
        path.write_bytes(content if isinstance(content, bytes) else content.encode())
        return str(path)

    def rest(self, url, *options, data="{}"):
        return self.run_tool("rest", url, "--data", data, *options)

    def ask(self, url, *options, code=0, data="{}"):
        """The one answer."""
        events = self.run_events("rest", url, "--data", data, *options, code=code)
        self.assertEqual([event["event"] for event in events], ["answer"])
        return events[0]

    def get(self, url, *options, code=0):
        return self.ask(url, "--setting", self.write("get", "GET\n"), *options, code=code, data="")

    def assert_fails(self, url, text, *options, code=1):
        result = self.rest(url, *options)
        self.assertEqual((result.returncode, result.stdout), (code, ""), result.stderr)
        self.assertRegex(result.stderr, f"^zarn: .*: {text}\n$")

    def assert_refused(self, url, text, *options):
        """Nothing was sent, since something that was asked for is not good."""
        result = self.rest(url, *options)
        self.assertEqual((result.returncode, result.stdout, result.stderr), (2, "", f"{text}\n"))
