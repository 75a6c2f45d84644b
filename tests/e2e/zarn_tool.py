"""What the tests of the program zarn share: an install root of their own, the program as a process
whose JSON lines are awaited, and a plain socket that speaks the frame."""

import contextlib
import ctypes
import json
import os
import queue
import resource
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import threading
import time
import unittest
from pathlib import Path

from failing_calls import failing

TOOL = os.environ.get("ZARN_TOOL") or os.path.join(os.environ.get("ZARN_BIN_DIR", ""), "zarn")
PATIENCE = 40  # seconds for something that must come
LONGEST = 65523
HUGE = 1 << 30
# Options of a process of a user whom permissions keep out.
SOMEBODY = {"user": 65534, "group": 65534, "extra_groups": []} if os.geteuid() == 0 else {}


def frame(type_, tag, payload):
    return struct.pack(">HHII", type_, len(payload) + 12, tag, len(payload)) + payload


def read_exactly(connection, size):
    data = b""
    while len(data) < size:
        part = connection.recv(size - len(data))
        if not part:
            raise EOFError
        data += part
    return data


def read_frame(connection):
    type_, length, tag, size = struct.unpack(">HHII", read_exactly(connection, 12))
    assert length == size + 12
    return type_, tag, read_exactly(connection, size)


def ignore_endings():
    """For a process to come, as nohup and a shell script that runs it in the background do."""
    for ending in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(ending, signal.SIG_IGN)


def is_among(number, thread, kind):
    """Whether a thread, which may be gone, has that signal in that mask of its status."""
    with contextlib.suppress(OSError), open(f"/proc/{thread}/status", encoding="ascii") as status:
        for line in status:
            if line.startswith(kind + ":"):
                return bool(int(line.split()[1], 16) >> number - 1 & 1)
    return False


def send_twice(process, thread, number):
    """At once, so that both come: two that wait for the process would merge, so one is for the thread."""
    process.send_signal(signal.SIGSTOP)
    os.waitpid(process.pid, os.WUNTRACED)
    if ctypes.CDLL(None).tgkill(process.pid, thread, number) != 0:
        raise AssertionError(f"no thread {thread}")
    process.send_signal(number)
    process.send_signal(signal.SIGCONT)


def limit_memory():
    """For a process to come, which then finds no memory for what HUGE bytes need."""
    resource.setrlimit(resource.RLIMIT_AS, (HUGE // 4, HUGE // 4))


class Running:
    """The program in the background. Its lines come from threads that read all the time."""

    def __init__(self, arguments, env, **options):
        self.process = subprocess.Popen([TOOL, *arguments], env=env, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, **options)
        self._lines = {}
        self._readers = []
        for name in ("stdout", "stderr"):
            self._lines[name] = queue.Queue()
            reader = threading.Thread(target=self._read, args=(name,), daemon=True)
            reader.start()
            self._readers.append(reader)

    def _read(self, name):
        for line in getattr(self.process, name):
            self._lines[name].put(line.decode().rstrip("\n"))
        self._lines[name].put(None)

    def line(self, name="stdout"):
        """The next line, or None at the end."""
        return self._lines[name].get(timeout=PATIENCE)

    def line_with(self, text, name="stdout"):
        while (line := self.line(name)) is not None:
            if text in line:
                return line
        raise AssertionError(f"no line with {text!r}")

    def event(self, kind):
        """The next JSON object of that kind; others are passed over."""
        while (line := self.line()) is not None:
            event = json.loads(line)
            if event["event"] == kind:
                return event
        raise AssertionError(f"no {kind} event: {self.errors()}")

    def errors(self):
        text = []
        while (line := self.line("stderr")) is not None:
            text.append(line)
        self._lines["stderr"].put(None)
        return "\n".join(text)

    def wait_asleep(self):
        """Until it waits for something."""
        deadline = time.monotonic() + PATIENCE
        state = ""
        while state != "S":
            if time.monotonic() > deadline or self.process.poll() is not None:
                raise AssertionError(f"it does not wait: {state}")
            with open(f"/proc/{self.process.pid}/stat", encoding="ascii") as file:
                state = file.read().rpartition(")")[2].split()[0]

    def end(self, how=signal.SIGINT):
        """Ends it and gives the exit code."""
        self.process.send_signal(how)
        return self.process.wait(PATIENCE)

    def clean_up(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        for reader in self._readers:
            reader.join()
        for stream in (self.process.stdin, self.process.stdout, self.process.stderr):
            if stream is not None:
                stream.close()


class ToolTest(unittest.TestCase):
    scheme = "ipc"  # a subclass that says "shm" runs the same tests over shared memory

    def setUp(self):
        self.root = Path(tempfile.mkdtemp(prefix="zarn"))
        self.addCleanup(shutil.rmtree, self.root, ignore_errors=True)
        self.use_root(self.root)
        self.ipc = self.root / "system/zarn" / {"ipc": "ipc", "shm": "shmipc"}[self.scheme]
        self.url = f"{self.scheme}://1_2"

    def needs_plain_sockets(self):
        if self.scheme != "ipc":
            self.skipTest("only local IPC is spoken by plain sockets")

    def needs_little_memory(self):
        with open(TOOL, "rb") as program:
            code = program.read()
        if b"__asan_init" in code or b"__tsan_init" in code:
            self.skipTest("a sanitizer reserves terabytes")

    def make_huge(self, start=b""):
        """A file with that start and more bytes behind it than limit_memory leaves room for."""
        path = self.root / "huge"
        path.write_bytes(start)
        os.truncate(path, HUGE)
        return str(path)

    def use_root(self, root):
        (root / "system").mkdir(mode=0o700, parents=True, exist_ok=True)
        self.env = dict(os.environ, ZARN_ROOT=str(root))

    def make_ipc(self):
        for path in (self.ipc.parent, self.ipc):
            path.mkdir(mode=0o700, exist_ok=True)

    def run_tool(self, *arguments, env=None, **options):
        return subprocess.run([TOOL, *arguments], env=self.env if env is None else env, timeout=PATIENCE,
                              check=False, capture_output=True, text=True, **options)

    def run_events(self, *arguments, code=0, **options):
        """Runs with --json to the end; the objects printed."""
        result = self.run_tool(*arguments, "--json", **options)
        self.assertEqual(result.returncode, code, result.stdout + result.stderr)
        return [json.loads(line) for line in result.stdout.splitlines()]

    def failing(self, name, number, error, how="once"):
        """The environment of a process in which that system call fails."""
        return dict(self.env, **failing(TOOL, name, number, error, how))

    def run_without(self, stream, *arguments):
        """Runs with that standard stream closed, as in "2>&-"."""
        return subprocess.run(["bash", "-c", f'exec "$@" {stream}', "bash", TOOL, *arguments], env=self.env,
                              timeout=PATIENCE, check=False, capture_output=True, text=True)

    def start(self, *arguments, **options):
        running = Running(arguments, self.env, **options)
        self.addCleanup(running.clean_up)
        return running

    def wait_until(self, condition):
        end = time.monotonic() + PATIENCE
        while not condition():
            self.assertLess(time.monotonic(), end)

    def serve(self, *options, url=None):
        """A server that listens, with JSON output."""
        server = self.start("serve", url or self.url, "--json", *options)
        server.event("listening")
        return server

    def connect(self, name="1_2"):
        """A client that is not ours."""
        self.needs_plain_sockets()
        connection = socket.socket(socket.AF_UNIX)
        self.addCleanup(connection.close)
        connection.settimeout(PATIENCE)
        connection.connect(str(self.ipc / name))
        return connection

    def listen(self, name="1_2"):
        """A server that is not ours."""
        self.make_ipc()
        listener = socket.socket(socket.AF_UNIX)
        self.addCleanup(listener.close)
        listener.settimeout(PATIENCE)
        listener.bind(str(self.ipc / name))
        listener.listen()
        return listener

    def accept(self, listener):
        self.needs_plain_sockets()
        connection = listener.accept()[0]
        self.addCleanup(connection.close)
        connection.settimeout(PATIENCE)
        return connection

    def leave_stale(self, name):
        """An endpoint file that nobody serves any more."""
        self.listen(name).close()
