"""A server that sends scripted bytes over TLS, and reports the result of each handshake."""

from __future__ import annotations

import contextlib
import socket
import ssl
from collections.abc import Callable, Iterator
from typing import Any

import trustme

from .raw import DEADLINE, RawServer

type Serve = Callable[..., TlsServer]

NAMES = ("127.0.0.1", "::1", "localhost")


def context_of(
    authority: trustme.CA,
    *names: str,
    version: ssl.TLSVersion | None = None,
    tickets: bool = True,
    **certificate: Any,
) -> ssl.SSLContext:
    """A server context with a new certificate.

    names: those in the certificate; by default this machine's. version: the only one that is accepted.
    certificate: further arguments for trustme.
    """
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    authority.issue_cert(*(names or NAMES), **certificate).configure_cert(context)
    if version is not None:
        context.minimum_version = context.maximum_version = version
    if not tickets:
        context.options |= ssl.OP_NO_TICKET
        context.num_tickets = 0
    return context


class TlsServer(RawServer):
    """RawServer behind TLS.

    Attributes: context (for new connections), resumed (for each successful handshake, whether it resumed a
    session).
    """

    def __init__(self, context: ssl.SSLContext, *answers: Any, **options: Any) -> None:
        self.resumed: list[bool] = []
        self.context = context
        super().__init__(*answers, **options)
        self.url = f"https://{self.peer}"

    def _serve(self, connection: socket.socket) -> None:
        connection.settimeout(DEADLINE)
        # Otherwise a response waits for the client to acknowledge the tickets.
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        try:
            secured = self.context.wrap_socket(connection, server_side=True, do_handshake_on_connect=False)
        except OSError:
            # Closed before it began.
            with self._lock:
                self._open.remove(connection)
            return
        with self._lock:
            self._open[self._open.index(connection)] = secured
        with contextlib.suppress(OSError):
            secured.do_handshake()
            self.resumed.append(secured.session_reused is True)
            return super()._serve(secured)
        with self._lock:
            self._open.remove(secured)
        secured.close()


@contextlib.contextmanager
def serving() -> Iterator[Serve]:
    """Starts servers, and stops them at the end."""
    with contextlib.ExitStack() as stack:

        def start(*args: Any, **options: Any) -> TlsServer:
            server = TlsServer(*args, **options)
            stack.callback(server.stop)
            return server

        yield start
