"""Responses of a proxy."""

from __future__ import annotations

import contextlib
import select
import socket
import ssl
import threading

from .raw import DEADLINE, Answer

ESTABLISHED = b"HTTP/1.1 200 Connection established\r\n\r\n"


def says(status: int, *fields: str, body: bytes = b"") -> bytes:
    """A plain response with that status and these header lines."""
    lines = [f"HTTP/1.1 {status} Whatever", *fields, f"Content-Length: {len(body)}", "", ""]
    return "\r\n".join(lines).encode() + body


def tunnel_to(port: int) -> Answer:
    """Accept the tunnel, and forward bytes from and to that port of this machine."""

    def relay(connection: socket.socket, _stopped: threading.Event) -> None:
        with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", port), DEADLINE) as there:
            connection.sendall(ESTABLISHED)
            other = {connection: there, there: connection}
            while True:
                for readable in ready(connection, there):
                    data = readable.recv(65536)
                    if not data:
                        return
                    other[readable].sendall(data)

    return relay


def ready(*both: socket.socket) -> list[socket.socket]:
    """Which of the two have something to read, within the deadline."""
    held: list[socket.socket] = [one for one in both if isinstance(one, ssl.SSLSocket) and one.pending()]
    return held or select.select(both, [], [], DEADLINE)[0]
