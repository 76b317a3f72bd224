"""Connections that are counted, can be written to directly, and broken."""

import asyncio
import json
import socket
import struct
from typing import Any

from uvicorn.config import Config
from uvicorn.protocols.http.h11_impl import H11Protocol
from uvicorn.server import ServerState

CONNECTION = "connection"

_FAREWELL_SECONDS = 0.1


class Connections:
    """The connections accepted since the start or the last reset, without control connections."""

    def __init__(self) -> None:
        self._last = 0
        self._accepted: set[int] = set()
        self._open: set[int] = set()

    def clear(self) -> None:
        """Count accepted connections from zero."""
        self._accepted.clear()

    def opened(self) -> int:
        """Count a connection and return its number."""
        self._last += 1
        self._accepted.add(self._last)
        self._open.add(self._last)
        return self._last

    def closed(self, number: int) -> None:
        self._open.discard(number)

    def leave_out(self, number: int) -> None:
        """Exclude a control connection from the count."""
        self._accepted.discard(number)
        self._open.discard(number)

    def as_json(self) -> dict[str, int]:
        return {"accepted": len(self._accepted), "open": len(self._open)}


class Connection(H11Protocol):
    """An HTTP/1.1 connection; a request finds its own as scope["state"][CONNECTION]."""

    tally: Connections

    def __init__(
        self,
        config: Config,
        server_state: ServerState,
        app_state: dict[str, Any],
        _loop: asyncio.AbstractEventLoop | None = None,
    ) -> None:
        super().__init__(config, server_state, {**app_state, CONNECTION: self}, _loop)
        self.number = 0

    def connection_made(self, transport: asyncio.Transport) -> None:  # type: ignore[override]
        self.number = self.tally.opened()
        # asyncio does not set it for a listener made without a protocol number; every response would then
        # wait for a delayed acknowledgement.
        transport.get_extra_info("socket").setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        super().connection_made(transport)

    def connection_lost(self, exc: Exception | None) -> None:
        self.tally.closed(self.number)
        super().connection_lost(exc)

    def send_400_response(self, msg: str) -> None:
        body = json.dumps({"error": msg}).encode()
        head = (
            "HTTP/1.1 400 Bad Request\r\nContent-Type: application/json\r\n"
            f"Content-Length: {len(body)}\r\nConnection: close\r\n\r\n"
        )
        self.transport.write(head.encode() + body)
        self.transport.close()

    def shutdown(self) -> None:
        super().shutdown()
        # A TLS client that never sends its close_notify would keep the server from exiting.
        self.loop.call_later(_FAREWELL_SECONDS, self.transport.abort)

    def write(self, data: bytes) -> None:
        """Send `data` as it is, bypassing the HTTP layer."""
        self.transport.write(data)

    def close(self, *, close_notify: bool = True) -> None:
        """Close the connection after what was written; TLS may omit `close_notify`."""
        self.forget_answer()
        if close_notify:
            self.transport.close()
        else:
            self.transport.abort()

    def reset(self) -> None:
        """End the connection with a TCP reset."""
        self.forget_answer()
        sock = self.transport.get_extra_info("socket")
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.transport.abort()

    def forget_answer(self) -> None:
        """Keep the HTTP layer from sending anything more."""
        # Otherwise uvicorn would send an error response for the request that got none.
        self.cycle.disconnected = True


def connection_class(connections: Connections) -> type[Connection]:
    """A class of connections that are counted in `connections`."""
    return type("CountedConnection", (Connection,), {"tally": connections})
