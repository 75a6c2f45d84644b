"""One server and its clients over one transport, of which one side is killed or restarted at random
moments while the other is watched."""

import asyncio
import random
import socket
import time

from peers import REACTION, Peer, Trouble
from watch import FEWEST

TRANSPORTS = ("ipc", "shm", "tcp", "tls", "ptcp", "ptls")
OVER_UDP = ("ptcp", "ptls")


class Setting:
    """What all groups have in common."""

    def __init__(self, place, seed: int, seconds: float, clients: int, pace: int, authority):
        self.place = place
        self.seed = seed
        self.end = time.monotonic() + seconds
        # A new server at the address of a killed one keeps clients over UDP waiting for ten seconds.
        self.hurries_over_udp = seconds >= 120
        self.clients = clients
        self.pace = pace
        self.authority = authority
        self.key, self.certificate = authority.issue("server")
        self.trouble = asyncio.get_running_loop().create_future()

    def report(self, what: str) -> None:
        if not self.trouble.done():
            self.trouble.set_exception(Trouble(what))


class Group:
    def __init__(self, setting: Setting, transport: str, number: int, kills_server: bool):
        self.setting = setting
        self.transport = transport
        self.kills_server = kills_server
        self.number = number
        self.name = f"{transport}{'-server' if kills_server else '-clients'}"
        self.random = random.Random(f"{setting.seed} {self.name}")
        self.url = f"{transport}://{self._choose_address(number)}"
        self.incarnation = 0
        self.server = None
        self.clients = {}  # number -> Peer
        self.looks = 0  # of the watch, while all connections were there
        self.kills = self.restarts = 0
        self.noticed = []  # seconds from a kill to the survivor's event
        self.reconnected = []  # seconds from the new server's start to the tenth message
        self.settled_since = None
        self.done = {"received": 0, "bytes": 0}  # by those that have ended

    def _choose_address(self, number: int) -> str:
        if self.transport in ("ipc", "shm"):
            return f"1_{number}"
        kind = socket.SOCK_DGRAM if self.transport in OVER_UDP else socket.SOCK_STREAM
        while True:  # below those that the system gives to whoever asks for any
            port = random.randrange(20000, 32000)
            with socket.socket(socket.AF_INET, kind) as probe:
                try:
                    probe.bind(("127.0.0.1", port))
                except OSError:
                    continue
                return f"127.0.0.1:{port}"

    # --- the course of events ---

    async def run(self) -> None:
        await self._start_server()
        numbers = [self.number * 100 + i for i in range(1, self.setting.clients + 1)]
        await asyncio.gather(*map(self._start_client, numbers))
        await self._wait_flowing(numbers)
        # A short run on a slow machine is a little longer: growth is judged by so many looks.
        while time.monotonic() < self.setting.end or self.looks < FEWEST:
            self.settled_since = time.monotonic()
            await asyncio.sleep(self.random.uniform(0.1, 2.0))
            self.settled_since = None
            await (self._lose_server() if self.kills_server else self._lose_clients())
        await self._finish()

    async def _lose_server(self) -> None:
        for peer in self.clients.values():
            peer.forget()
        lost = await self._lose(self.server)
        may_hurry = self.setting.hurries_over_udp or self.transport not in OVER_UDP
        hurries = may_hurry and self.random.random() < 0.3
        if not hurries:
            await self._wait_noticed(self.clients.values(), lost)
            await asyncio.sleep(self.random.random() ** 2 * 1.5)  # clients may try in vain
        listening = await self._start_server()
        if self.random.random() < 0.2:  # the next one, too, while clients are connecting
            await asyncio.sleep(self.random.random() * 0.5)
            await self._lose(self.server)
            listening = await self._start_server()
        times = await self._wait_flowing(self.clients)
        if not hurries:
            self.reconnected += [moment - listening for moment in times]

    async def _lose_clients(self) -> None:
        self.server.forget()
        count = len(self.clients) if self.random.random() < 0.2 else 1
        numbers = self.random.sample(sorted(self.clients), count)
        for number in numbers:
            victim = self.clients[number].incarnation
            lost = await self._lose(self.clients[number])
            await self._wait_noticed(
                [self.server], lost, lambda event: event["generation"] >> 32 == victim)
            if self.random.random() < 0.3:  # and its successor, before or while it connects
                await self._start_client(number)
                await asyncio.sleep(self.random.random() * 0.5)
                await self._lose(self.clients[number])
            await self._start_client(number)
        await self._wait_flowing(numbers)

    async def _lose(self, peer: Peer) -> float:
        """Ends it this way or that; when."""
        begun = time.monotonic()
        if self.random.random() < 0.75:
            self.kills += 1
            await peer.kill()
        else:
            self.restarts += 1
            await peer.end()
        self._add_up(peer)
        return begun

    async def _wait_noticed(self, survivors, since: float, holds=lambda event: True) -> None:
        events = await asyncio.gather(*(peer.expect("down", holds) for peer in survivors))
        self.noticed += [event["time"] - since for event in events]

    async def _wait_flowing(self, numbers) -> list:
        """Until messages go both ways with each of these clients' processes; when they did."""
        async def one(number: int) -> float:
            client = self.clients[number]
            event = await self.server.expect(
                "flowing", lambda event: event["client"] == number and
                event["generation"] >> 32 == client.incarnation)
            await client.expect(
                "flowing", lambda other: other["generation"] == event["generation"])
            return event["time"]
        return await asyncio.gather(*map(one, numbers))

    # --- beginnings and ends ---

    async def _start(self, name: str, *arguments) -> Peer:
        self.incarnation += 1
        incarnation = self.incarnation  # others may start meanwhile
        command, *more = arguments
        peer = await Peer.start(
            self.setting.place, f"{self.name} {name}", self.setting.report, command, self.url,
            self.setting.seed, incarnation, self.setting.pace, *more)
        peer.incarnation = incarnation
        return peer

    async def _start_server(self) -> float:
        secured = self.transport in ("tls", "ptls")
        more = [self.setting.key, self.setting.certificate] if secured else []
        # Over TCP and TLS there are two kinds of streams for servers.
        blocks = self.transport in ("tcp", "tls") and not self.kills_server
        self.server = await self._start("server", "serve-blocks" if blocks else "serve", *more)
        return (await self.server.expect("listening"))["time"]

    async def _start_client(self, number: int) -> None:
        secured = self.transport in ("tls", "ptls")
        more = [self.setting.authority.certificate] if secured else []
        self.clients[number] = await self._start(f"client {number}", "connect", number, *more)

    async def _finish(self) -> None:
        everybody = [*self.clients.values(), self.server]
        for peer in everybody:
            peer.quiet()
        await self._wait_whole()
        for peer in everybody:
            await peer.end()
            self._add_up(peer)

    async def _wait_whole(self) -> None:
        """Until each side has received all that the other has sent."""
        end = time.monotonic() + REACTION
        while True:
            count, at_server = await self.server.connections()
            at_clients = {}
            for peer in self.clients.values():
                at_clients.update((await peer.connections())[1])
            crossed = {client: (generation, received, sent)
                       for client, (generation, sent, received) in at_clients.items()}
            if at_server == crossed and count == len(crossed) == len(self.clients):
                return
            if time.monotonic() > end:
                raise Trouble(f"{self.name}: not all that was sent has arrived, or somebody who is"
                              f" gone is still here: the server has {count}: {at_server},"
                              f" the clients {at_clients}")
            await asyncio.sleep(0.05)

    def _add_up(self, peer: Peer) -> None:
        for key in self.done:
            self.done[key] += peer.pulse[key]

    def survivors(self) -> list:
        if not self.kills_server:
            return [self.server] if self.server else []
        return list(self.clients.values())

    def living(self) -> list:
        return [*self.survivors(), *(self.clients.values() if not self.kills_server else []),
                *([self.server] if self.kills_server and self.server else [])]
