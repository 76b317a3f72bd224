"""A loopback server with scripted bytes; one for the whole process."""

from __future__ import annotations

import contextlib
import os
import selectors
import socket
import threading
from collections.abc import Callable, Iterator

# The bytes, and whether the connection stays open.
type Answer = Callable[[bytes, bytes], tuple[bytes, bool] | None]


@contextlib.contextmanager
def kept_on_loopback(url: str) -> Iterator[None]:
    """Other names resolve to this server too, so that nothing leaves the machine."""
    proxies = ("http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY")
    usual = os.environ.copy()
    os.environ.update(dict.fromkeys(proxies, url) | {"no_proxy": "127.0.0.1", "NO_PROXY": "127.0.0.1"})
    try:
        yield
    finally:
        for name in (*proxies, "no_proxy", "NO_PROXY"):
            if name in usual:
                os.environ[name] = usual[name]
            else:
                del os.environ[name]


STOP = b"s"


class RawServer:
    """Sends scripted responses, and closes the connection after those that say so.

    A response is made from the head and the body of the request; None closes the connection.
    """

    # Seconds after which a connection is closed whose peer still waits for the rest of a response.
    SILENCE = 0.01

    def __init__(self) -> None:
        self._answer: Answer = lambda head, body: None
        self.heads: list[bytes] = []
        self._pending: dict[socket.socket, bytes] = {}
        self._fault: Exception | None = None
        self._left_waiting: set[socket.socket] = set()
        self._selector = selectors.DefaultSelector()
        self._listener = socket.create_server(("127.0.0.1", 0), backlog=64)
        self._selector.register(self._listener, selectors.EVENT_READ)
        self._wake, waking = socket.socketpair()
        self._selector.register(waking, selectors.EVENT_READ)
        self._waking = waking
        self._ended = threading.Event()
        self.url = f"http://127.0.0.1:{self._listener.getsockname()[1]}"
        self._thread: threading.Thread | None = None

    def begin(self, answer: Answer) -> None:
        if self._thread is None:
            self._thread = threading.Thread(target=self._serve, daemon=True)
            self._thread.start()
        self._answer = answer
        self.heads = []
        self._fault = None

    def end(self) -> list[bytes]:
        """Close every connection; returns the heads of the requests since `begin`."""
        self._ended.clear()
        self._wake.send(b"x")
        assert self._ended.wait(20.0)
        if self._fault is not None:
            raise self._fault
        return self.heads

    def stop(self) -> None:
        """End the thread; `begin` starts another."""
        if self._thread is not None:
            self._wake.send(STOP)
            self._thread.join(20.0)
            assert not self._thread.is_alive()
            self._thread = None

    def _serve(self) -> None:
        stopped = False
        while not stopped:
            ready = self._selector.select(self.SILENCE if self._left_waiting else None)
            if not ready:
                self._drop_all(list(self._left_waiting))
            ended = False
            for key, _ in ready:
                if key.fileobj is self._listener:
                    self._accept()
                elif key.fileobj is self._waking:
                    told = self._waking.recv(1)
                    ended, stopped = True, told == STOP
                elif isinstance(key.fileobj, socket.socket):
                    with contextlib.suppress(OSError):
                        if self._hear(key.fileobj):
                            continue
                    self._drop(key.fileobj)
            if ended:
                self._drop_all(list(self._pending))
                self._ended.set()

    def _accept(self) -> None:
        connection, _ = self._listener.accept()
        connection.settimeout(10.0)
        self._pending[connection] = b""
        self._selector.register(connection, selectors.EVENT_READ)

    def _drop(self, connection: socket.socket) -> None:
        del self._pending[connection]
        self._left_waiting.discard(connection)
        self._selector.unregister(connection)
        connection.close()

    def _drop_all(self, connections: list[socket.socket]) -> None:
        for connection in connections:
            self._drop(connection)

    def _hear(self, connection: socket.socket) -> bool:
        """False when the connection is to end."""
        more = connection.recv(65536)
        if not more:
            return False
        self._left_waiting.discard(connection)
        data = self._pending[connection] + more
        self._pending[connection] = data
        head, end, body = data.partition(b"\r\n\r\n")
        if data[:1] != b"\x16":
            if not end or len(body) < length_of(head):
                return True
            self.heads.append(head)
        self._pending[connection] = b""
        given = None
        try:
            given = self._answer(head, body)
        except Exception as error:
            self._fault = error
        if given is None:
            return False
        connection.sendall(given[0])
        self._left_waiting.add(connection)
        return given[1]


def length_of(head: bytes) -> int:
    for line in head.split(b"\r\n")[1:]:
        name, _, value = line.partition(b":")
        if name.lower() == b"content-length":
            return int(value)
    return 0
