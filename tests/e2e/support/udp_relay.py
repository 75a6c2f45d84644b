"""A path between UDP sockets that loses, delays, doubles and damages datagrams, with a fixed seed."""

import heapq
import random
import select
import socket
import threading
import time


class UdpRelay:
    """Stands in for `server`: what comes in at `address` goes there, and answers go back. Shares are
    of all datagrams."""

    def __init__(self, server, seed, loss=0.0, late=0.0, doubled=0.0, flipped=0.0):
        self._server = server
        self._random = random.Random(seed)
        self._loss, self._late, self._doubled, self._flipped = loss, late, doubled, flipped
        self._front = self._socket(("127.0.0.1", 0))
        self.address = self._front.getsockname()
        self._behind = {}  # of each client
        self._clients = {}
        self._waiting = []
        self._order = 0
        self.carried = self.lost = 0
        self.silent = False  # set: all is lost
        self.longest_answer = 65536  # longer datagrams from the server are lost
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run)
        self._thread.start()

    def close(self):
        self._stop.set()
        self._thread.join()
        for each in (self._front, *self._behind.values()):
            each.close()

    @staticmethod
    def _socket(address):
        made = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        made.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
        made.bind(address)
        made.setblocking(False)
        return made

    def _run(self):
        while not self._stop.is_set():
            pause = 0.05
            if self._waiting:
                pause = max(0.0, min(pause, self._waiting[0][0] - time.monotonic()))
            ready = select.select([self._front, *self._clients], [], [], pause)[0]
            for each in ready:
                self._read(each)
            now = time.monotonic()
            while self._waiting and self._waiting[0][0] <= now:
                self._send(*heapq.heappop(self._waiting)[2:])

    def _read(self, source):
        for _ in range(64):
            try:
                data, sender = source.recvfrom(65536)
            except OSError:  # no more, or a port that is closed
                return
            if source is self._front:
                if sender not in self._behind:
                    behind = self._behind[sender] = self._socket(("127.0.0.1", 0))
                    self._clients[behind] = sender
                self._carry(self._behind[sender], self._server, data)
            elif len(data) <= self.longest_answer:
                self._carry(self._front, self._clients[source], data)

    def _carry(self, by, to, data):
        self.carried += 1
        chance = self._random.random
        if chance() < self._loss or self.silent:
            self.lost += 1
            return
        if chance() < self._flipped:
            data = bytearray(data)
            bit = self._random.randrange(len(data) * 8)
            data[bit // 8] ^= 1 << bit % 8
        for _ in range(2 if chance() < self._doubled else 1):
            if chance() < self._late:
                self._order += 1
                due = time.monotonic() + 0.001 + 0.01 * chance()
                heapq.heappush(self._waiting, (due, self._order, by, to, bytes(data)))
            else:
                self._send(by, to, data)

    @staticmethod
    def _send(by, to, data):
        try:
            by.sendto(data, to)
        except OSError:  # as if it had been lost
            pass
