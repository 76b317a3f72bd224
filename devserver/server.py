"""Start, announcement and shutdown."""

import asyncio
import contextlib
import json
import logging
import os
import socket
import ssl
import sys
import tempfile
import threading
from collections.abc import Callable, Mapping
from pathlib import Path
from types import FrameType
from typing import cast

import uvicorn

from .accesslog import tell
from .app import Endpoints, make_app
from .control import Control
from .faultlayer import FaultLayer
from .gate import Gate
from .journal import Journal
from .openapi import description_route
from .options import Options
from .plan import Plan
from .protocol import Connections, connection_class
from .service import Service
from .tls import make_context, make_flawed_contexts

_GRACE_SECONDS = 1
_FRAMES = 1000


class _Server(uvicorn.Server):
    """uvicorn's server, which announces when it listens, and exits with status 0 on a signal."""

    def __init__(
        self,
        config: uvicorn.Config,
        announcement: dict[str, object],
        stopping: asyncio.Event,
        gate: Gate | None,
        access_log: bool,
    ) -> None:
        super().__init__(config)
        self._access_log = access_log
        self._announcement = announcement
        self._stopping = stopping
        self._gate = gate

    async def startup(self, sockets: list[socket.socket] | None = None) -> None:
        await super().startup(sockets)
        if self._gate is not None:
            self._gate.open(self._make_protocol)
        print(json.dumps(self._announcement), flush=True)
        if self._access_log:
            tell(_told(self._announcement))

    async def shutdown(self, sockets: list[socket.socket] | None = None) -> None:
        self._stopping.set()
        if self._gate is not None:
            self._gate.close()
        await super().shutdown(sockets)

    def handle_exit(self, sig: int, frame: FrameType | None) -> None:
        # The inherited handler would raise the signal again at the end, and kill the process.
        self.should_exit = True

    def _make_protocol(self) -> asyncio.Protocol:
        make = cast(Callable[..., asyncio.Protocol], self.config.http_protocol_class)
        return make(config=self.config, server_state=self.server_state, app_state=self.lifespan.state)


def run(options: Options, listener: socket.socket, gate_listener: socket.socket | None) -> None:
    """Serve on `listener` until SIGTERM, SIGINT or, as an option, the end of standard input.

    gate_listener: the same service behind `devserver.gate`.
    OSError: the CA certificate cannot be written.
    """
    # eth_account raises the limit so far that deeply nested JSON overflows the stack of Python 3.11.
    sys.setrecursionlimit(_FRAMES)
    with contextlib.ExitStack() as stack:
        context = None
        ca_file = None
        if options.tls:
            ca_file = options.ca_file
            if ca_file is None:
                directory = stack.enter_context(tempfile.TemporaryDirectory(prefix="devserver-"))
                ca_file = Path(directory, "ca.pem")
            context = make_context(ca_file, options.tls_names, expired=options.tls_expired)
        flawed = (
            {} if ca_file is None or not options.gate else make_flawed_contexts(ca_file, options.tls_names)
        )
        plan = Plan(options.scripts)
        gate = None if gate_listener is None else Gate(gate_listener, plan, context, flawed)
        scheme = "https" if options.tls else "http"
        announcement: dict[str, object] = {
            "url": _url(listener, scheme),
            "ca_file": None if ca_file is None else str(ca_file.absolute()),
            "pid": os.getpid(),
        }
        if gate_listener is not None:
            announcement["gate_url"] = _url(gate_listener, scheme)
        asyncio.run(_serve(options, listener, context, announcement, plan, gate))


async def _serve(
    options: Options,
    listener: socket.socket,
    context: ssl.SSLContext | None,
    announcement: dict[str, object],
    plan: Plan,
    gate: Gate | None,
) -> None:
    connections = Connections()
    stopping = asyncio.Event()
    config = uvicorn.Config(
        _application(options, connections, stopping, plan, gate),
        http=connection_class(connections),
        ws="none",
        lifespan="off",
        interface="asgi3",
        log_config=None,
        log_level="critical",
        access_log=False,
        proxy_headers=False,
        server_header=False,
        timeout_keep_alive=options.keep_alive,
        timeout_graceful_shutdown=_GRACE_SECONDS,
        ssl_context_factory=None if context is None else lambda _config, _default: context,
    )
    # Broken connections are intended here; asyncio's warnings about them are noise.
    logging.getLogger("asyncio").setLevel(logging.ERROR)
    server = _Server(config, announcement, stopping, gate, options.access_log)
    if options.exit_with_stdin:
        threading.Thread(target=_end_with_stdin, args=(server,), daemon=True).start()
    await server.serve([listener])


def _application(
    options: Options, connections: Connections, stopping: asyncio.Event, plan: Plan, gate: Gate | None
) -> FaultLayer:
    service = Service(options.settings, options.invites, options.secret)
    journal = Journal()
    control = Control(service, plan, journal, connections, gate)
    app = make_app([*Endpoints(service).routes(), *control.routes(), description_route()])
    return FaultLayer(app, service, plan, journal, connections, stopping, options.access_log)


def _told(announcement: Mapping[str, object]) -> str:
    """The announcement for people."""
    line = f"serving {announcement['url']}"
    if "gate_url" in announcement:
        line += f" and, behind the gate, {announcement['gate_url']}"
    if announcement["ca_file"] is not None:
        line += f"; clients trust it with {announcement['ca_file']}"
    return line


def _url(listener: socket.socket, scheme: str) -> str:
    host, port = listener.getsockname()[:2]
    return f"{scheme}://[{host}]:{port}" if ":" in host else f"{scheme}://{host}:{port}"


def _end_with_stdin(server: _Server) -> None:
    try:
        while os.read(0, 4096):
            pass
    except OSError:
        pass
    server.should_exit = True
