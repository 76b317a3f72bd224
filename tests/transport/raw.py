"""A server that sends scripted bytes, and records what it has read."""

from __future__ import annotations

import contextlib
import socket
import struct
import threading
from collections.abc import Callable

DEADLINE = 20.0
OK = b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"
CLOSE = b""

type Answer = bytes | Callable[[socket.socket, threading.Event], None]


def keep_silent(_connection: socket.socket, stopped: threading.Event) -> None:
    """Never respond."""
    stopped.wait(DEADLINE)


def reset(connection: socket.socket, _stopped: threading.Event) -> None:
    """Close the connection with a TCP reset."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def trickle(start: bytes, every: float) -> Callable[[socket.socket, threading.Event], None]:
    """Send `start` and then one more byte at intervals, for ever."""

    def write(connection: socket.socket, stopped: threading.Event) -> None:
        with contextlib.suppress(OSError):
            connection.sendall(start)
            while not stopped.wait(every):
                connection.sendall(b"x")

    return write


class RawServer:
    """Sends the responses in turn, one per request, and then repeats the last one.

    A response is sent as it is, or is a function that gets the connection, which is then
    closed. keep_alive: whether a connection serves further requests after a response in bytes.

    Attributes: requests (the bytes of each, head and body), connections (how many were accepted).
    """

    def __init__(self, *answers: Answer, keep_alive: bool = False, host: str = "127.0.0.1") -> None:
        self.requests: list[bytes] = []
        self.connections = 0
        self._answers = answers or (OK,)
        self._keep_alive = keep_alive
        self._stopped = threading.Event()
        self._lock = threading.Lock()
        family = socket.AF_INET6 if ":" in host else socket.AF_INET
        self._listener = socket.create_server((host, 0), family=family, backlog=64)
        self._threads: list[threading.Thread] = []
        self._open: list[socket.socket] = []
        self.port: int = self._listener.getsockname()[1]
        shown = f"[{host}]" if ":" in host else host
        self.peer = f"{shown}:{self.port}"
        self.url = f"http://{self.peer}"
        self._accepting = threading.Thread(target=self._accept, daemon=True)
        self._accepting.start()

    def stop(self) -> None:
        self._stopped.set()
        with contextlib.suppress(OSError):
            self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        with self._lock:
            for connection in self._open:
                with contextlib.suppress(OSError):
                    connection.shutdown(socket.SHUT_RDWR)
        for thread in [self._accepting, *self._threads]:
            thread.join(DEADLINE)
            assert not thread.is_alive()

    def header_lines(self, which: int = -1) -> list[str]:
        head = self.requests[which].partition(b"\r\n\r\n")[0]
        return head.decode("latin-1").split("\r\n")[1:]

    def request_line(self, which: int = -1) -> str:
        return self.requests[which].partition(b"\r\n")[0].decode("latin-1")

    def body(self, which: int = -1) -> bytes:
        return self.requests[which].partition(b"\r\n\r\n")[2]

    def _accept(self) -> None:
        while not self._stopped.is_set():
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            with self._lock:
                self.connections += 1
                self._open.append(connection)
            thread = threading.Thread(target=self._serve, args=(connection,), daemon=True)
            self._threads.append(thread)
            thread.start()

    def _serve(self, connection: socket.socket) -> None:
        connection.settimeout(DEADLINE)
        try:
            while (request := self._read(connection)) is not None:
                with self._lock:
                    self.requests.append(request)
                    answer = self._answers[min(len(self.requests), len(self._answers)) - 1]
                if callable(answer):
                    answer(connection, self._stopped)
                    return
                connection.sendall(answer)
                if not self._keep_alive or not answer:
                    return
        except OSError:
            pass
        finally:
            with self._lock:
                self._open.remove(connection)
            connection.close()

    def _read(self, connection: socket.socket) -> bytes | None:
        data = b""
        while b"\r\n\r\n" not in data:
            more = connection.recv(65536)
            if not more:
                return None
            data += more
        head, _, rest = data.partition(b"\r\n\r\n")
        missing = self._length(head) - len(rest)
        while missing > 0:
            more = connection.recv(65536)
            if not more:
                return None
            data += more
            missing -= len(more)
        return data

    def _length(self, head: bytes) -> int:
        for line in head.split(b"\r\n")[1:]:
            name, _, value = line.partition(b":")
            if name.strip().lower() == b"content-length":
                return int(value)
        return 0
