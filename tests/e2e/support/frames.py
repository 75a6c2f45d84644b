"""The message frame, written independently of the library, and a plain socket that speaks it."""

import os
import socket
import struct
import time

HEADER = struct.Struct(">HHII")  # type, length with header, tag, length of the payload
MAX_PAYLOAD = 65535 - HEADER.size
LIMIT = 20  # seconds that anything here may take


def encode(kind: int, tag: int, payload: bytes = b"") -> bytes:
    return HEADER.pack(kind, HEADER.size + len(payload), tag, len(payload)) + payload


def encode_raw(kind: int, pdulen: int, tag: int, datasize: int, rest: bytes = b"") -> bytes:
    """A frame whose lengths need not fit together."""
    return HEADER.pack(kind, pdulen, tag, datasize) + rest


class FrameSocket:
    """A connection that sends bytes and receives frames as (type, tag, payload)."""

    def __init__(self, connected: socket.socket):
        self.socket = connected
        self.socket.settimeout(LIMIT)
        self.received = bytearray()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self) -> None:
        self.socket.close()

    def send(self, kind: int, tag: int, payload: bytes = b"") -> None:
        self.socket.sendall(encode(kind, tag, payload))

    def send_bytes(self, data: bytes) -> None:
        self.socket.sendall(data)

    def receive(self):
        """The next frame; None at an orderly end on a frame's boundary."""
        while True:
            if len(self.received) >= HEADER.size:
                kind, length, tag, size = HEADER.unpack_from(self.received)
                assert length == size + HEADER.size, f"malformed: {length} {size}"
                if len(self.received) >= length:
                    payload = bytes(self.received[HEADER.size : length])
                    del self.received[:length]
                    return kind, tag, payload
            more = self.socket.recv(1 << 18)
            if not more:
                assert not self.received, "the connection ended within a frame"
                return None
            self.received += more

    def read_to_end(self) -> bytes:
        """All bytes until an orderly end, as fast as they come."""
        parts = []
        while part := self.socket.recv(1 << 20):
            parts.append(part)
        return b"".join(parts)

    def ends(self) -> bool:
        """Waits for the other side to end the connection; whether it sent nothing before."""
        try:
            return self.socket.recv(1) == b""
        except ConnectionResetError:
            return True

    def fill(self, data: bytes, most: int) -> int:
        """Sends `data` over and over while the other side takes it within 0.3 s, `most` bytes at
        most; how many bytes were taken. Ends within a frame, as a rule."""
        taken = 0
        self.socket.settimeout(0.3)
        try:
            while taken < most:
                taken += self.socket.send(data)
        except TimeoutError:
            pass
        self.socket.settimeout(LIMIT)
        return taken


def _at(path: str, use):
    """Calls `use` with a name for `path` that fits into a socket address, however long the path is."""
    directory, name = os.path.split(path)
    handle = os.open(directory, os.O_PATH | os.O_DIRECTORY)
    try:
        return use(f"/proc/self/fd/{handle}/{name}")
    finally:
        os.close(handle)


def connect(path: str) -> FrameSocket:
    plain = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    end = time.monotonic() + LIMIT
    while True:
        try:
            _at(path, plain.connect)
            return FrameSocket(plain)
        except BlockingIOError:  # its queue of new connections is full
            if time.monotonic() > end:
                raise
            time.sleep(0.01)
        except OSError:
            plain.close()
            raise


class FrameServer:
    """A listening socket at an endpoint."""

    def __init__(self, path: str):
        self.listening = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listening.settimeout(LIMIT)
        _at(path, self.listening.bind)
        self.listening.listen(64)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.listening.close()

    def accept(self) -> FrameSocket:
        return FrameSocket(self.listening.accept()[0])
