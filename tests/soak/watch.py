"""Watches the processes that survive: their memory, descriptors and threads must not grow.

Samples are taken while all connections of a process's group are there. The first quarter of them is
left out: it is when everything that is made once gets made. Of the rest the medians of the first
third and of the last third are compared."""

import statistics
import time

from peers import Trouble

SETTLED = 0.1  # seconds after the last connection is there
FEWEST = 8  # samples that say anything
MOST_DESCRIPTORS = 1  # a connection whose end is under way may still have one
MOST_THREADS = 0


def most_memory(early: float, is_sanitized: bool) -> float:
    """How many bytes of growth are not called growth. A sanitizer keeps freed memory for a while,
    and remembers where memory was touched."""
    return max(16 << 20, 0.20 * early) if is_sanitized else max(4 << 20, 0.10 * early)


class Watch:
    def __init__(self, groups: list, is_sanitized: bool):
        self.groups = groups
        self.is_sanitized = is_sanitized
        self.samples = {}  # survivor -> [(bytes, descriptors, threads)]

    def sample(self) -> None:
        now = time.monotonic()
        for group in self.groups:
            if group.settled_since is None or now - group.settled_since < SETTLED:
                continue
            group.looks += 1
            for peer in group.survivors():
                try:
                    self.samples.setdefault(peer, []).append(peer.measure())
                except (FileNotFoundError, ProcessLookupError):
                    pass  # it has ended, which is noticed elsewhere

    def growth(self, group) -> tuple:
        """The largest growth of any survivor: bytes, descriptors, threads."""
        return tuple(max(column) for column in zip(*map(self._growth_of, group.survivors())))

    def check(self) -> None:
        for group in self.groups:
            for peer in group.survivors():
                memory, descriptors, threads = self._growth_of(peer)
                limit = most_memory(self._thirds(peer)[0][0], self.is_sanitized)
                if memory > limit:
                    raise Trouble(f"{peer.name}: {memory / (1 << 20):.1f} MiB more memory,"
                                  f" {limit / (1 << 20):.1f} MiB allowed: {self._course(peer)}")
                if descriptors > MOST_DESCRIPTORS or threads > MOST_THREADS:
                    raise Trouble(f"{peer.name}: {descriptors} more descriptors, {threads} more"
                                  f" threads: {self._course(peer)}")

    def _thirds(self, peer) -> tuple:
        samples = self.samples.get(peer, [])
        if len(samples) < FEWEST:
            raise Trouble(f"{peer.name}: seen in peace {len(samples)} times only")
        samples = samples[len(samples) // 4:]
        third = len(samples) // 3
        return tuple([statistics.median(column) for column in zip(*part)]
                     for part in (samples[:third], samples[-third:]))

    def _growth_of(self, peer) -> list:
        early, late = self._thirds(peer)
        return [after - before for before, after in zip(early, late)]

    def _course(self, peer) -> list:
        samples = self.samples[peer]
        return samples[:: max(1, len(samples) // 12)]
