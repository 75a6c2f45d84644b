"""HTTP servers for tests: one in Python that does what it is told, and nginx."""

import os
import shutil
import socket
import ssl
import subprocess
import threading
import time

LIMIT = 20  # seconds that one step may take


class Request:
    """What a client has sent."""

    def __init__(self, head: bytes, body: bytes):
        lines = head.decode("latin-1").split("\r\n")
        self.method, self.target, self.version = lines[0].split(" ")
        self.fields = {}
        for line in lines[1:]:
            name, _, value = line.partition(": ")
            self.fields[name.lower()] = value
        self.body = body


def read_request(connection):
    data = b""
    while b"\r\n\r\n" not in data:
        part = connection.recv(65536)
        if not part:
            raise EOFError
        data += part
    head, _, body = data.partition(b"\r\n\r\n")
    request = Request(head, b"")
    size = int(request.fields.get("content-length", "0"))
    while len(body) < size:
        part = connection.recv(65536)
        if not part:
            raise EOFError
        body += part
    request.body = body
    return request


class ScriptServer:
    """Listens on a free port. `handle(connection, request)` answers; the connection is closed after
    it. With `early` nothing is read before, and request is None. `context`: speaks TLS."""

    def __init__(self, handle, early=False, context=None):
        self.requests = []
        self._handle, self._early, self._context = handle, early, context
        self._listener = socket.create_server(("127.0.0.1", 0), backlog=64)
        self.port = self._listener.getsockname()[1]
        self._connections = []
        self._stopped = threading.Event()
        self._threads = [threading.Thread(target=self._accept, daemon=True)]
        self._threads[0].start()

    def url(self, path="", host="127.0.0.1"):
        scheme = "https" if self._context else "http"
        return f"{scheme}://{host}:{self.port}/zarn/tcpchannel{path}"

    def wait_stopped(self, seconds):
        """For handlers: true when the server has been stopped meanwhile."""
        return self._stopped.wait(seconds)

    def stop(self):
        self._stopped.set()
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        for thread in self._threads:
            thread.join(LIMIT)

    def _accept(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            thread = threading.Thread(target=self._serve, args=(connection,), daemon=True)
            thread.start()
            self._threads.append(thread)

    def _serve(self, connection):
        connection.settimeout(LIMIT)
        try:
            with connection:
                if self._context:
                    connection = self._context.wrap_socket(connection, server_side=True)
                with connection:
                    self._answer(connection)
        except (OSError, EOFError, ssl.SSLError):
            pass  # the client has gone: it may

    def _answer(self, connection):
        request = None
        if not self._early:
            request = read_request(connection)
            self.requests.append(request)
        self._handle(connection, request)
        if self._context and connection.fileno() != -1:
            connection.unwrap()


def send(data):
    """A handler that answers with these bytes."""
    return lambda connection, request: connection.sendall(data)


def answer(body, status="200 OK", *fields):
    """The bytes of an answer with a length."""
    lines = [f"HTTP/1.1 {status}", *fields, f"Content-Length: {len(body)}", "", ""]
    return "\r\n".join(lines).encode() + body


class Nginx:
    """The real one, on a free port, its files in `directory`. `server` is what its configuration
    says of the server besides where it listens."""

    def __init__(self, directory, server, tls=False):
        self.directory = directory
        for _ in range(10):  # somebody may take the port before nginx does
            with socket.create_server(("127.0.0.1", 0)) as probe:
                self.port = probe.getsockname()[1]
            self._write_config(server, tls)
            self.process = subprocess.Popen(
                [self._program(), "-p", directory, "-c", os.path.join(directory, "nginx.conf"),
                 "-e", os.path.join(directory, "error.log")],
                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            if self._is_up():
                return
            self.stop()
        raise AssertionError(self.errors())

    @staticmethod
    def _program():
        return shutil.which("nginx", path=os.environ["PATH"] + ":/usr/sbin")

    def _write_config(self, server, tls):
        user = "user root;" if os.geteuid() == 0 else ""
        temporary = "\n".join(f"{kind}_temp_path {self.directory}/{kind};" for kind in
                              ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        with open(os.path.join(self.directory, "nginx.conf"), "w", encoding="ascii") as file:
            file.write(f"""
                {user} daemon off; master_process off; pid {self.directory}/nginx.pid;
                events {{ worker_connections 512; }}
                http {{
                  access_log off; {temporary}
                  client_max_body_size 100m; sendfile on; root {self.directory}/files;
                  server {{ listen 127.0.0.1:{self.port} {"ssl" if tls else ""}; {server} }}
                }}""")

    def _is_up(self):
        end = time.monotonic() + LIMIT
        while time.monotonic() < end and self.process.poll() is None:
            try:
                socket.create_connection(("127.0.0.1", self.port), timeout=LIMIT).close()
                return True
            except OSError:
                time.sleep(0.01)
        return False

    def errors(self):
        with open(os.path.join(self.directory, "error.log"), encoding="utf-8") as file:
            return file.read()

    def stop(self):
        self.process.terminate()
        self.process.wait(LIMIT)
