"""A second port of the same service, whose connections get faults before any HTTP is read."""

import asyncio
import contextlib
import socket
import ssl
import struct
from collections import deque
from collections.abc import Callable, Mapping
from typing import Any

from .faults import CONNECT, Fault
from .plan import Plan
from .spoil import scripted_bytes

MakeProtocol = Callable[[], asyncio.Protocol]

_IN_THE_CLEAR = b"HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"
_HELLO = 65536
_HANDSHAKE_SECONDS = 10.0
# Limits the memory of a server that is left running.
_REMEMBERED = 10_000


class Gate:
    """Accepts connections from `listener` and passes those without a fault to the service.

    context: of the handshake, None for plain HTTP. flawed: contexts by the flaw of their certificate.
    """

    def __init__(
        self,
        listener: socket.socket,
        plan: Plan,
        context: ssl.SSLContext | None,
        flawed: Mapping[str, ssl.SSLContext],
    ) -> None:
        self._listener = listener
        self._plan = plan
        self._context = context
        self._flawed = flawed
        self._make_protocol: MakeProtocol | None = None
        self._tasks: set[asyncio.Task[None]] = set()
        self._met: deque[str] = deque(maxlen=_REMEMBERED)

    def open(self, make_protocol: MakeProtocol) -> None:
        """Start to accept connections."""
        self._make_protocol = make_protocol
        self._listener.setblocking(False)
        self._begin(self._accept())

    def close(self) -> None:
        """Stop accepting connections and close those that have not been passed on."""
        for task in self._tasks:
            task.cancel()

    def clear(self) -> None:
        """Forget the connections so far."""
        self._met.clear()

    def as_json(self) -> list[str]:
        """The kinds of the connections' faults, oldest first; "pass" for none."""
        return list(self._met)

    def _begin(self, work: Any) -> None:
        task = asyncio.get_running_loop().create_task(work)
        self._tasks.add(task)
        task.add_done_callback(self._tasks.discard)

    async def _accept(self) -> None:
        loop = asyncio.get_running_loop()
        while True:
            sock, _ = await loop.sock_accept(self._listener)
            fault = self._plan.take(CONNECT) or Fault("pass", {})
            self._met.append(fault.kind)
            self._begin(self._serve(sock, fault))

    async def _serve(self, sock: socket.socket, fault: Fault) -> None:
        sock.setblocking(False)
        try:
            # Most of these faults make the client disconnect.
            with contextlib.suppress(OSError):
                if fault.kind in ("pass", "certificate"):
                    await self._hand_over(sock, self._flawed.get(fault.fields.get("flaw", ""), self._context))
                else:
                    await self._spoil(sock, fault)
        finally:
            sock.close()

    async def _hand_over(self, sock: socket.socket, context: ssl.SSLContext | None) -> None:
        assert self._make_protocol is not None
        seconds = None if context is None else _HANDSHAKE_SECONDS
        await asyncio.get_running_loop().connect_accepted_socket(
            self._make_protocol, sock.dup(), ssl=context, ssl_handshake_timeout=seconds
        )

    async def _spoil(self, sock: socket.socket, fault: Fault) -> None:
        loop = asyncio.get_running_loop()
        at = "hello" if fault.kind == "babble" else fault.fields.get("at", "accept")
        if at != "accept":
            hello = await loop.sock_recv(sock, _HELLO)
            if at == "handshake":
                flight = self._first_flight(hello)
                await loop.sock_sendall(sock, flight[: len(flight) // 2])
        if fault.kind == "stall":
            while await loop.sock_recv(sock, _HELLO):
                pass
        elif fault.kind == "babble":
            await loop.sock_sendall(sock, scripted_bytes(fault.fields, _IN_THE_CLEAR))
        elif fault.fields.get("reset", False):
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))

    def _first_flight(self, hello: bytes) -> bytes:
        """The TLS server's response to `hello`; empty without TLS."""
        if self._context is None:
            return b""
        received, answer = ssl.MemoryBIO(), ssl.MemoryBIO()
        received.write(hello)
        with contextlib.suppress(ssl.SSLWantReadError):
            self._context.wrap_bio(received, answer, server_side=True).do_handshake()
        return answer.read()
