"""One process of the soak: started, listened to and ended, by its own id."""

import asyncio
import json
import os
import signal
import time

REACTION = 30.0  # seconds that anything awaited may take, on a loaded machine under a sanitizer


class Trouble(Exception):
    """Why the soak has failed."""


class Peer:
    """A soak_peer. Its events stay until they are expected or forgotten; `on_trouble` hears of what
    may never happen, at any time."""

    def __init__(self, name: str, process, errors: str, on_trouble):
        self.name = name
        self.process = process
        self.pid = process.pid
        self.pulse = {"sent": 0, "received": 0, "bytes": 0, "connections": 0}
        self.pulse_time = self.progress_time = time.monotonic()
        self._errors = errors
        self._on_trouble = on_trouble
        self._is_ending = False
        self.has_ended_well = False  # as it was meant to, and without complaint
        self._events = []
        self._changed = asyncio.Condition()
        self._reader = asyncio.create_task(self._read())

    @classmethod
    async def start(cls, place: "Place", name: str, on_trouble, *arguments) -> "Peer":
        errors = place.new_errors_file(name)
        with open(errors, "wb") as file:
            process = await asyncio.create_subprocess_exec(
                place.program, *map(str, arguments),
                stdin=asyncio.subprocess.PIPE, stdout=asyncio.subprocess.PIPE, stderr=file,
                env=place.environment, start_new_session=True)  # not for the terminal's Ctrl-C
        peer = cls(name, process, errors, on_trouble)
        place.forget_ended()
        place.peers.append(peer)
        return peer

    # --- events ---

    async def _read(self) -> None:
        async for line in self.process.stdout:
            if not line.endswith(b"\n"):
                break  # cut by a kill
            await self._handle(json.loads(line))
        await self.process.wait()
        if not self._is_ending:
            self._on_trouble(f"{self.name} has ended by itself, {self.process.returncode}")
        async with self._changed:
            self._changed.notify_all()

    async def _handle(self, event: dict) -> None:
        if event["event"] == "wrong":
            self._on_trouble(f"{self.name}: a message that must not come: {event}")
        elif event["event"] == "listen_failed":
            self._on_trouble(f"{self.name} cannot listen: {event}")
        elif event["event"] == "pulse":
            self.pulse_time = time.monotonic()
            if event["received"] > self.pulse["received"] or event["connections"] == 0:
                self.progress_time = self.pulse_time
            self.pulse = event
        else:
            async with self._changed:
                self._events.append(event)
                self._changed.notify_all()

    def forget(self) -> None:
        self._events.clear()

    async def expect(self, name: str, holds=lambda event: True) -> dict:
        """The first event of this name for which `holds`; the others stay."""
        async def find():
            async with self._changed:
                while True:
                    for event in self._events:
                        if event["event"] == name and holds(event):
                            self._events.remove(event)
                            return event
                    if self.process.returncode is not None:
                        raise Trouble(f"{self.name} ended before '{name}'")
                    await self._changed.wait()
        try:
            return await asyncio.wait_for(find(), REACTION)
        except asyncio.TimeoutError:
            raise Trouble(f"{self.name}: no '{name}' within {REACTION:.0f} s,"
                          f" but {self._events[-5:]}, {self.pulse}") from None

    async def connections(self) -> tuple:
        """How many there are, and of each the client -> (generation, sent, received)."""
        self.process.stdin.write(b"connections\n")
        count = (await self.expect("connections"))["count"]
        told = [event for event in self._events if event["event"] == "connection"]
        self._events = [event for event in self._events if event["event"] != "connection"]
        return count, {event["client"]: (event["generation"], event["sent"], event["received"])
                       for event in told}

    def quiet(self) -> None:
        self.process.stdin.write(b"quiet\n")

    def check_progress(self, is_settled: bool) -> None:
        if self._is_ending:
            return
        now = time.monotonic()
        if now - self.pulse_time > REACTION:
            raise Trouble(f"{self.name} hangs: no pulse for {REACTION:.0f} s")
        if is_settled and now - self.progress_time > REACTION:
            raise Trouble(f"{self.name}: connected, but no message for {REACTION:.0f} s")

    # --- what it uses ---

    def measure(self) -> tuple:
        """Resident bytes, descriptors, threads."""
        numbers = {}
        with open(f"/proc/{self.pid}/status", encoding="ascii") as file:
            for line in file:
                if line.startswith(("VmRSS:", "Threads:")):
                    numbers[line.split(":")[0]] = int(line.split()[1])
        descriptors = len(os.listdir(f"/proc/{self.pid}/fd"))
        return numbers["VmRSS"] * 1024, descriptors, numbers["Threads"]

    # --- end ---

    async def kill(self) -> None:
        """Returns when the system has taken it away."""
        self._is_ending = True
        if self.process.returncode is None:
            self.process.send_signal(signal.SIGKILL)
        await self._reader
        self._check_errors()

    async def end(self) -> None:
        """Lets it end in order."""
        self._is_ending = True
        self.process.stdin.close()
        try:
            await asyncio.wait_for(asyncio.shield(self._reader), REACTION)
        except asyncio.TimeoutError:
            raise Trouble(f"{self.name} hangs: its end takes over {REACTION:.0f} s") from None
        if self.process.returncode != 0:
            raise Trouble(f"{self.name} ended with {self.process.returncode}")
        self._check_errors()

    async def discard(self) -> None:
        """At the very end, whatever state it is in."""
        self._is_ending = True
        self._reader.cancel()
        if self.process.returncode is None:
            self.process.kill()
            await self.process.wait()

    def complaints(self) -> str:
        if self.has_ended_well:
            return ""
        with open(self._errors, encoding="utf-8", errors="replace") as file:
            return file.read()

    def _check_errors(self) -> None:
        complaints = self.complaints()
        if complaints:
            raise Trouble(f"{self.name} has complained")
        os.unlink(self._errors)
        self.has_ended_well = True


class Place:
    """What all peers share: the program, an install root, and the list of those that were started."""

    def __init__(self, program: str, top: str):
        self.program = program
        self.top = top
        self.root = os.path.join(top, "root")
        os.makedirs(os.path.join(self.root, "system"))
        self.environment = {**os.environ, "ZARN_ROOT": self.root}
        # Freed memory that is kept from use, to catch later accesses, fills within the run.
        self._add_option("ASAN_OPTIONS", "quarantine_size_mb=8:thread_local_quarantine_size_kb=64")
        self.peers = []
        self._count = 0

    def _add_option(self, variable: str, option: str) -> None:
        present = self.environment.get(variable)
        self.environment[variable] = f"{present}:{option}" if present else option

    def forget_ended(self) -> None:
        self.peers = [peer for peer in self.peers if not peer.has_ended_well]

    def new_errors_file(self, name: str) -> str:
        self._count += 1
        return os.path.join(self.top, f"{self._count}-{name.replace(' ', '-')}.err")

    def endpoints(self) -> list:
        """The files of all endpoints."""
        top = os.path.join(self.root, "system", "zarn")
        return sorted(name for _, _, files in os.walk(top) for name in files)
