"""Processes of a test: started, listened to and ended, each by its own id; and where they meet."""

import json
import os
import resource
import shutil
import signal
import subprocess
import tempfile
import threading
import time
import unittest
from collections import deque

import frames

LIMIT = 20  # seconds that one event may take


class Program:
    """A program of programs/. It prints its events, one JSON object a line, and takes commands on its
    standard input, whose end ends it. What it writes to standard error is kept."""

    def __init__(self, root: "InstallRoot", *arguments: str, variables: dict = None):
        self.name = arguments[0]
        command = [os.path.join(os.environ["ZARN_BIN_DIR"], self.name), *arguments[1:]]
        self.errors = tempfile.TemporaryFile()
        self.process = subprocess.Popen(
            command,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=self.errors,
            env={**os.environ, "ZARN_ROOT": root.path, **(variables or {})},
        )
        self.pid = self.process.pid
        self.complaints = []  # all that it has found wrong with messages
        self.reasons = []  # all that it has told, but for orderly ends
        self._events = deque()
        self._ended = False
        self._changed = threading.Condition()
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self) -> None:
        for line in self.process.stdout:
            if not line.endswith(b"\n"):
                break  # cut by a kill
            event = json.loads(line)
            if event["event"] == "wrong":
                self.complaints.append(event)
            if event.get("reason"):
                self.reasons.append(event["reason"])
            with self._changed:
                self._events.append(event)
                self._changed.notify_all()
        with self._changed:
            self._ended = True
            self._changed.notify_all()

    # --- events and commands ---

    def wait(self, *names: str, limit: float = LIMIT, **fields) -> dict:
        """The next event of one of these names, or of any, whose fields have these values; drops those before."""
        end = time.monotonic() + limit
        with self._changed:
            while True:
                while self._events:
                    event = self._events.popleft()
                    if (not names or event["event"] in names) and fields.items() <= event.items():
                        return event
                if self._ended:
                    raise AssertionError(f"{self.name} ended before {names}: {self.trace()}")
                if not self._changed.wait(end - time.monotonic()):
                    raise AssertionError(f"{self.name}: no {names} {fields}: {self.trace()}")

    def take_events(self) -> list:
        """What has come and was not waited for."""
        with self._changed:
            events = list(self._events)
            self._events.clear()
        return events

    def take_events_by_now(self) -> list:
        """What was not waited for, with what the program has told but we have not read yet."""
        self.tell("stats")
        events = []
        while (event := self.wait())["event"] != "stats":
            events.append(event)
        return events

    def tell(self, command: str) -> None:
        self.process.stdin.write(command.encode() + b"\n")
        self.process.stdin.flush()

    def ask(self, command: str) -> dict:
        """Gives a command and waits for the event that is called like it."""
        self.tell(command)
        return self.wait(command)

    def stats_until(self, holds, limit: float = LIMIT) -> dict:
        """Asks for the stats again and again until `holds(stats)`."""
        end = time.monotonic() + limit
        while True:
            stats = self.ask("stats")
            if holds(stats):
                return stats
            if time.monotonic() > end:
                raise AssertionError(f"{self.name}: still {stats}: {self.trace()}")
            time.sleep(0.02)

    def trace(self) -> list:
        """The lines on standard error so far."""
        file = self.errors.fileno()  # the program writes at its offset, which must not be moved
        return os.pread(file, os.fstat(file).st_size, 0).decode(errors="replace").splitlines()

    # --- what it uses ---

    def descriptors(self) -> int:
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def mappings(self) -> int:
        """How many pieces of shared memory it maps."""
        with open(f"/proc/{self.pid}/maps", encoding="ascii") as file:
            return sum("zarn-shmipc" in line for line in file)

    def cpu_seconds(self) -> float:
        with open(f"/proc/{self.pid}/stat", encoding="ascii") as file:
            fields = file.read().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def cpu_share(self, seconds: float = 0.5) -> float:
        """The part of one processor that it uses while we watch."""
        before, start = self.cpu_seconds(), time.monotonic()
        time.sleep(seconds)
        return (self.cpu_seconds() - before) / (time.monotonic() - start)

    def resident_bytes(self) -> int:
        return resident_bytes(self.pid)

    def private_bytes(self) -> int:
        with open(f"/proc/{self.pid}/smaps_rollup", encoding="ascii") as file:
            return _kilobytes(file, "Private_Clean:", "Private_Dirty:")

    def is_sanitized(self) -> bool:
        return is_sanitized(self.pid)

    # --- end ---

    def kill(self) -> None:
        self.process.kill()
        self.process.wait(LIMIT)
        self._forget()

    def signal(self, number: int) -> None:
        self.process.send_signal(number)

    def wait_exit(self) -> int:
        self._reader.join(LIMIT)
        return self.process.wait(LIMIT)

    def end(self) -> int:
        """Lets it end in order; its exit code, which a sanitizer sets."""
        if self.process.returncode is None:
            self.signal(signal.SIGCONT)
            try:
                self.process.stdin.close()
            except BrokenPipeError:
                pass
            try:
                self.process.wait(LIMIT)
            except subprocess.TimeoutExpired:
                self.kill()
                raise
        self._forget()
        return self.process.returncode

    def _forget(self) -> None:
        self._reader.join(LIMIT)
        if not self.process.stdin.closed:
            try:
                self.process.stdin.close()
            except BrokenPipeError:
                pass
        self.process.stdout.close()


def _kilobytes(lines, *names: str) -> int:
    return 1024 * sum(int(line.split()[1]) for line in lines if line.startswith(names))


def resident_bytes(pid: int) -> int:
    with open(f"/proc/{pid}/status", encoding="ascii") as file:
        return _kilobytes(file, "VmRSS:")


def is_sanitized(pid: int) -> bool:
    """Whether a sanitizer's memory stands beside the process's own."""
    with open(f"/proc/{pid}/status", encoding="ascii") as file:
        return _kilobytes(file, "VmSize:") > 1 << 40  # they reserve terabytes


class InstallRoot:
    """A temporary install root with its system directory."""

    def __init__(self, path: str = ""):
        self.top = tempfile.mkdtemp(prefix="zarne2e")
        self.path = os.path.join(self.top, path) if path else self.top
        os.makedirs(os.path.join(self.path, "system"))

    def endpoint(self, name: str) -> str:
        """The endpoint's path, in a directory that exists afterwards."""
        directory = os.path.join(self.path, "system", "zarn", "ipc")
        os.makedirs(directory, mode=0o700, exist_ok=True)
        return os.path.join(directory, name)

    def endpoints(self) -> list:
        """The files of all endpoints."""
        top = os.path.join(self.path, "system", "zarn")
        return sorted(name for _, _, files in os.walk(top) for name in files)

    def remove(self) -> None:
        shutil.rmtree(self.top, ignore_errors=True)


class ProgramTest(unittest.TestCase):
    """A test with an install root of its own. What it starts has ended well when it is over."""

    def setUp(self):
        self.root = self.new_root()

    def new_root(self, path: str = "") -> InstallRoot:
        root = InstallRoot(path)
        self.addCleanup(root.remove)
        return root

    def start(self, *arguments: str, root: InstallRoot = None) -> Program:
        program = Program(root or self.root, *arguments)
        self.addCleanup(self._end, program)
        return program

    def start_server(self, mode: str, *options: str, root: InstallRoot = None) -> Program:
        """Listens at 1_2."""
        server = self.start("server_peer", "1_2", mode, *options, root=root)
        server.wait("listening")
        return server

    def start_client(self, mode: str, *options: str, root: InstallRoot = None) -> Program:
        """3_4, a client of 1_2."""
        return self.start("client_peer", "3_4", "1_2", mode, *options, root=root)

    def connect(self, root: InstallRoot = None) -> frames.FrameSocket:
        """A client that is not ours, of 1_2."""
        connection = frames.connect((root or self.root).endpoint("1_2"))
        self.addCleanup(connection.close)
        return connection

    def _end(self, program: Program) -> None:
        was_killed = program.process.returncode == -signal.SIGKILL
        with program.errors:
            code = program.end()
            self.assertEqual(program.complaints, [], program.name)
            if not was_killed:
                self.assertEqual(code, 0, f"{program.name}: {program.trace()}")

    def assert_idle(self, program: Program) -> None:
        share = program.cpu_share()
        self.assertLess(share, 0.1, f"{program.name} keeps a processor busy: {program.trace()}")

    def assert_echoes(self, connection, payload: bytes = b"still there?") -> None:
        connection.send(7, 8, payload)
        self.assertEqual(connection.receive(), (7, 8, payload))


def raise_descriptor_limit(wanted: int) -> None:
    """For this process and those that it starts."""
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    if most != resource.RLIM_INFINITY and most < wanted:
        resource.setrlimit(resource.RLIMIT_NOFILE, (wanted, wanted))
    else:
        resource.setrlimit(resource.RLIMIT_NOFILE, (wanted, most))
