"""Each system call of one side of an exchange fails in turn, once and for ever, over each transport:
nobody crashes or hangs, no message arrives changed, twice or out of order, what fails is told with a
reason, and after one failure the exchange is completed or the side that cannot start says why.

ZARN_FAULT_SEED chooses what a short run picks. ZARN_FAULT_ONLY="tcp server sendmsg 3 32 once" runs one."""

import errno
import os
import random
import threading
import time
import unittest
from concurrent.futures import ThreadPoolExecutor

from certificates import Authority
from failing_calls import preload
from programs import InstallRoot, Program
from proof_scale import proof_count

TRANSPORTS = ("ipc", "shm", "tcp", "tls", "ptcp", "ptls")
SIDES = ("server", "client")
ALL = 800
PICKED = proof_count(ALL)  # in a short run
EACH = 30  # of the calls of one name the first so many, and then ever fewer
AT_ONCE = 8
HEALED = 15  # seconds that it may take until an exchange is completed; each attempt takes one
TOLD = 20  # until a failure that lasts has been told: a silent peer is given up after ten or so

# What the system may answer. Waiting for events is interrupted and nothing else.
ERRORS = {
    "socket": (errno.EMFILE, errno.ENOBUFS),
    "bind": (errno.EADDRINUSE, errno.ENOBUFS),
    "listen": (errno.EADDRINUSE,),
    "accept4": (errno.EMFILE, errno.ECONNABORTED, errno.ENOBUFS, errno.EINTR),
    "connect": (errno.ECONNREFUSED, errno.ENETUNREACH, errno.EINTR),
    "getsockname": (errno.ENOBUFS,),
    "getpeername": (errno.ENOBUFS,),
    "getsockopt": (errno.ENOBUFS,),
    "setsockopt": (errno.ENOBUFS, errno.ENOPROTOOPT),
    "send": (errno.ENOBUFS, errno.ENOMEM, errno.EINTR),
    "sendmsg": (errno.EPIPE, errno.ECONNRESET, errno.ENOBUFS, errno.EPERM, errno.EINTR),
    "recv": (errno.ECONNRESET, errno.ENOMEM, errno.EINTR),
    "recvmsg": (errno.ECONNRESET, errno.ENOMEM, errno.EINTR),
    "read": (errno.EIO, errno.EINTR),
    "write": (errno.EIO, errno.EINTR),
    "epoll_create1": (errno.EMFILE,),
    "epoll_ctl": (errno.ENOMEM, errno.ENOSPC),
    "epoll_wait": (errno.EINTR,),
    "epoll_pwait2": (errno.EINTR, errno.ENOSYS),
    "poll": (errno.EINTR,),
    "eventfd": (errno.EMFILE,),
    "mmap": (errno.ENOMEM,),
    "munmap": (errno.ENOMEM,),
    "memfd_create": (errno.EMFILE, errno.ENOMEM),
    "ftruncate": (errno.ENOMEM,),
    "fallocate": (errno.ENOSPC, errno.EINTR),
    "fstat": (errno.ENOMEM,),
    "stat": (errno.EACCES,),
    "lstat": (errno.EACCES, errno.ENOENT),
    "fstatat": (errno.EACCES, errno.ENOENT),
    "fchmod": (errno.EPERM,),
    "mkdir": (errno.ENOSPC, errno.EACCES),
    "unlink": (errno.EACCES, errno.ENOENT),
    "unlinkat": (errno.EACCES, errno.ENOENT),
    "readdir": (errno.EIO,),
    "flock": (errno.EWOULDBLOCK, errno.ENOLCK, errno.EINTR),
    "getrandom": (errno.EINTR, errno.ENOSYS),
    "realpath": (errno.EACCES,),
    "pthread_create": (errno.EAGAIN,),
    "close": (errno.EIO, errno.EINTR),
    "open": (errno.EMFILE, errno.EACCES, errno.EINTR),
    "fcntl": (errno.EMFILE, errno.ENOMEM),
    "getaddrinfo": (errno.EAGAIN,),
}
ONLY_ONCE = ("epoll_wait", "poll")
AT_START = ("realpath",)  # what then is not known is missed by each attempt


class Fault:
    def __init__(self, transport, side, name, number, error, how):
        self.transport, self.side, self.name = transport, side, name
        self.number, self.error, self.how = int(number), int(error), how

    def __str__(self):
        return f"{self.transport} {self.side} {self.name} {self.number} {self.error} {self.how}"


class Exchange:
    """A server and a client of their own, of which one has a fault; None: nothing fails."""

    addresses = iter(range(1 << 20))
    lock = threading.Lock()

    def __init__(self, proof, transport, side, fault=None):
        self.proof, self.transport, self.side, self.fault = proof, transport, side, fault
        self.root = InstallRoot()
        self.report = os.path.join(self.root.top, "report")
        self.programs = {}
        self.lasting = fault is not None and fault.how == "ever"
        with Exchange.lock:
            number = next(Exchange.addresses)
        local = transport in ("ipc", "shm")
        self.url = f"{transport}://" + ("1_2" if local else proof.address(number))

    def start(self, side, *arguments):
        variables = {"ZARN_FAULT_REPORT": self.report}
        if self.fault is not None:
            fault = self.fault
            variables["ZARN_FAULT"] = f"{fault.name} {fault.number} {fault.error} {fault.how}"
        preload = self.proof.preload if side == self.side else ""
        program = Program(self.root, "exchange_peer", *arguments,
                          variables={**variables, "LD_PRELOAD": preload} if preload else {})
        self.programs[side] = program
        return program

    def run(self):
        """What went wrong, in words; None when nothing did."""
        try:
            problem = self.converse()
            return problem or self.end()
        except AssertionError as failure:
            return str(failure)
        finally:
            for program in self.programs.values():
                if program.process.returncode is None:
                    program.kill()
                program.errors.close()
            self.root.remove()

    def converse(self):
        security = self.transport in ("tls", "ptls")
        server = self.start("server", "serve", self.url, *(self.proof.identity if security else ()))
        event = server.wait("ready", "start_failed", "no_thread", "listen_failed")
        if event["event"] != "ready":
            return self.check_told(server)
        client = self.start("client", "connect", self.url,
                            *((self.proof.authority.certificate,) if security else ()))
        event = client.wait("ready", "start_failed", "no_thread")
        if event["event"] != "ready":
            return self.check_told(client)
        self.completed = self.wait_done(client, server)
        if self.lasting:
            return self.check_lasting()
        if not self.completed and not (self.downs and self.fault.name in AT_START):
            return f"not healed: {self.traces()}"
        return self.check_reason() or self.check_last(client, server)

    def wait_done(self, client, server):
        """Whether the exchange was completed. What fails for ever need not be waited for once it is told."""
        self.downs = 0
        end = time.monotonic() + (TOLD if self.lasting else HEALED)
        while time.monotonic() < end and not (self.lasting and server.reasons):
            try:
                event = client.wait("done", "down", limit=max(0.01, end - time.monotonic()))
            except AssertionError:
                if client.process.poll() is not None:
                    raise
                return False
            if event["event"] == "done":
                return True
            self.downs += 1
            if self.lasting and self.downs == 2:
                return False
        return False

    def check_told(self, program):
        if self.fault is None or program is not self.programs[self.side]:
            return f"not started: {self.traces()}"
        return None

    def check_reason(self):
        """A connection that was lost by a failure did not end as if all were well."""
        victim = self.programs[self.side]
        told = any(program.reasons for program in self.programs.values()) or victim.trace()
        if self.downs and not told:
            return f"lost without a reason: {self.traces()}"
        return None

    def check_lasting(self):
        victim = self.programs[self.side]
        if not any(program.reasons for program in self.programs.values()) and not victim.trace():
            if self.downs or not self.completed:
                return f"no reason is told: {self.traces()}"
        share = victim.cpu_share(0.2)
        return f"keeps a processor busy: {share:.2f} {self.traces()}" if share > 0.5 else None

    def check_last(self, client, server):
        """What was sent before an orderly end arrives, unless that is what fails."""
        certain = self.fault is None or self.has_failed() or self.fault.error == errno.EINTR
        client.ask("stop")
        last = self.last_end(server) if certain else None
        if last and not last["whole"] and not last["reason"]:
            return f"the last messages are lost: {self.traces()}"
        return None

    @staticmethod
    def last_end(server):
        """How the last connection that the server had has ended."""
        peers, event = 0, None
        for told in server.take_events_by_now():
            if told["event"] in ("peer", "gone"):
                peers += 1 if told["event"] == "peer" else -1
                event = told
        while peers:
            event = server.wait("gone")
            peers -= 1
        return event

    def end(self):
        for side, program in self.programs.items():
            start = time.monotonic()
            code = program.end()
            if code != 0:
                return f"{side} ended with {code}: {self.traces()}"
            if program.complaints:
                return f"{side}: {program.complaints}"
            took = time.monotonic() - start
            if took > 8:
                return f"{side} took {took:.1f} s to end"
        return None

    def traces(self):
        return {side: program.trace()[-12:] for side, program in self.programs.items()}

    def counts(self):
        with open(self.report, encoding="ascii") as file:
            lines = [line.split() for line in file]
        return {name: int(count) for what, name, count in lines if what == "count"}

    def has_failed(self):
        try:
            with open(self.report, encoding="ascii") as file:
                return any(line.startswith("failed") for line in file)
        except FileNotFoundError:
            return False


def chosen_numbers(count):
    """1 to EACH, and then in growing steps to the last."""
    numbers, step = list(range(1, min(count, EACH) + 1)), 2.0
    place = float(EACH)
    while (place := place + step) < count:
        numbers.append(int(place))
        step *= 1.1
    return numbers


class SystemCalls(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        directory = os.environ["ZARN_BIN_DIR"]
        cls.preload = preload(os.path.join(directory, "exchange_peer"))
        cls.certificates = InstallRoot()
        cls.addClassCleanup(cls.certificates.remove)
        cls.authority = Authority(cls.certificates.top)
        cls.identity = cls.authority.issue("server")

    @staticmethod
    def address(number):
        """One of the loopback network that nobody else is likely to use just now."""
        process = os.getpid()
        return f"127.{1 + process % 250}.{1 + process // 250 % 250}.{1 + number // 20000}:{10000 + number % 20000}"

    def faults(self):
        """All that there are to try, by what an exchange without one calls."""
        for transport in TRANSPORTS:
            for side in SIDES:
                exchange = Exchange(self, transport, side)
                counts = {}
                remove, exchange.root.remove = exchange.root.remove, lambda: None
                self.assertIsNone(exchange.run(), f"{transport} {side}")
                counts = exchange.counts()
                remove()
                for name, count in sorted(counts.items()):
                    for number in chosen_numbers(count):
                        for error in ERRORS[name]:
                            yield Fault(transport, side, name, number, error, "once")
                            if name not in ONLY_ONCE and error != errno.EINTR:
                                yield Fault(transport, side, name, number, error, "ever")

    def test_each_fails_in_turn(self):
        only = os.environ.get("ZARN_FAULT_ONLY")
        seed = int(os.environ.get("ZARN_FAULT_SEED") or random.randrange(1 << 32))
        faults = [Fault(*only.split())] if only else self.pick(list(self.faults()), seed)
        start = time.monotonic()
        problems = []
        with ThreadPoolExecutor(AT_ONCE) as pool:
            for fault, problem in zip(faults, pool.map(self.try_fault, faults)):
                if problem is not None:
                    problems.append(f"{fault}: {problem}")
                    print(problems[-1], flush=True)
        print(f"{len(faults)} faults in {time.monotonic() - start:.1f} s, seed {seed}")
        self.assertEqual(problems, [])

    @staticmethod
    def pick(faults, seed):
        """All in a full run. A short one does without those that are told by silence only."""
        if PICKED == ALL:
            return faults
        brief = [fault for fault in faults if fault.how == "once" or fault.transport not in ("ptcp", "ptls")]
        return random.Random(seed).sample(brief, PICKED)

    def try_fault(self, fault):
        try:
            return Exchange(self, fault.transport, fault.side, fault).run()
        except Exception as failure:  # told with the fault
            return f"{type(failure).__name__}: {failure}"


if __name__ == "__main__":
    unittest.main()
