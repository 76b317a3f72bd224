"""The layer between the connection and the service: records each request and applies the faults."""

import asyncio
import traceback
from dataclasses import dataclass

from starlette.requests import ClientDisconnect
from starlette.types import ASGIApp, Message, Receive, Scope, Send

from .accesslog import tell_request
from .answer import Answer
from .delivery import break_connection, breaks_connection, send_answer, send_in_halves, send_with_more
from .endpoints import CONTROL_PREFIX, DESCRIPTION_PATH, endpoint_name
from .faults import Fault
from .journal import Entry, Journal, Stopwatch, known_keys
from .plan import Plan
from .protocol import CONNECTION, Connection, Connections
from .service import Service
from .spoil import spoil

_LARGEST_REQUEST = 1 << 20
_FRAMING = frozenset({"content-length", "transfer-encoding"})


@dataclass
class FaultLayer:
    """The whole server as one ASGI application over `app`.

    stopping: set when the server shuts down; ends every wait here.
    access_log: whether each request is logged to standard error.
    """

    app: ASGIApp
    service: Service
    plan: Plan
    journal: Journal
    connections: Connections
    stopping: asyncio.Event
    access_log: bool

    async def __call__(self, scope: Scope, receive: Receive, send: Send) -> None:
        try:
            await self._dispatch(scope, receive, send)
        except ClientDisconnect:
            # The client closed the connection before the end of its request.
            return
        except Exception:
            # uvicorn's log is off, so this is the only place that reports our own bugs.
            traceback.print_exc()
            raise

    async def _dispatch(self, scope: Scope, receive: Receive, send: Send) -> None:
        connection: Connection = scope["state"][CONNECTION]
        path = scope["raw_path"].decode("latin-1")
        watch = Stopwatch()
        if path.startswith(CONTROL_PREFIX) or path == DESCRIPTION_PATH:
            self.connections.leave_out(connection.number)
            status = await self._unspoilt(scope, receive, send)
            self._tell(watch, scope, status)
            return
        body = await _read_body(receive)
        if body is None:
            return
        entry = Entry(
            endpoint=endpoint_name(path),
            method=scope["method"],
            path=path,
            time=watch.started_at,
            connection=connection.number,
            header_names=[name.decode("latin-1") for name, _ in scope["headers"]],
            body_bytes=len(body),
            body_keys=known_keys(Answer(body=body).json_object()),
        )
        fault = self.plan.take(entry.endpoint)
        held_until = self.plan.released
        # This wakes a waiting test, so it must be decided before whether the request is held.
        self.journal.add(entry)
        try:
            if fault is None:
                answer = await self._genuine(scope, body)
                entry.status = answer.status
                await send_answer(answer, send)
            else:
                entry.fault = fault.kind
                await self._faulty(fault, held_until, scope, receive, send, body, entry)
        finally:
            entry.duration = watch.elapsed()
            self._tell(watch, scope, entry.status, entry.fault)

    async def _unspoilt(self, scope: Scope, receive: Receive, send: Send) -> int | None:
        """Run the application without faults; returns the status."""
        status = None

        async def watched(message: Message) -> None:
            nonlocal status
            status = message.get("status", status)
            await send(message)

        await self.app(scope, receive, watched)
        return status

    def _tell(self, watch: Stopwatch, scope: Scope, status: int | None, fault: str | None = None) -> None:
        if self.access_log:
            path = scope["raw_path"].decode("latin-1")
            number = scope["state"][CONNECTION].number
            tell_request(watch.started_at, scope["method"], path, status, fault, watch.elapsed(), number)

    async def _faulty(
        self,
        fault: Fault,
        held_until: asyncio.Event,
        scope: Scope,
        receive: Receive,
        send: Send,
        body: bytes,
        entry: Entry,
    ) -> None:
        async def pause(seconds: float) -> bool:
            return await _pause(receive, self.stopping, seconds)

        if fault.delay and not await pause(fault.delay):
            return
        if fault.hold and not await _pause(receive, self.stopping, None, held_until):
            return
        genuine = await self._genuine(scope, body) if fault.runs_service else Answer()
        answer = spoil(fault, genuine, self.service)
        connection: Connection = scope["state"][CONNECTION]
        if breaks_connection(fault):
            break_connection(fault, answer, connection)
            return
        entry.status = answer.status
        if fault.kind == "trailing":
            send_with_more(fault, answer, connection)
            await _pause(receive, self.stopping, None)
            connection.forget_answer()
            return
        chunked = fault.kind == "chunked"
        if chunked or fault.body_delay:
            await send_in_halves(answer, send, chunked=chunked, delay=fault.body_delay, pause=pause)
        else:
            await send_answer(answer, send)
        if fault.kind == "close_after":
            connection.close(close_notify=fault.fields.get("close_notify", True))

    async def _genuine(self, scope: Scope, body: bytes) -> Answer:
        """The service's response, not sent."""
        if len(body) > _LARGEST_REQUEST:
            return Answer(413).with_json({"error": "request_too_large"})
        status = 500
        headers: list[tuple[str, str]] = []
        chunks: list[bytes] = []

        async def receive() -> Message:
            return {"type": "http.request", "body": body, "more_body": False}

        async def send(message: Message) -> None:
            nonlocal status
            if message["type"] == "http.response.start":
                status = message["status"]
                for raw_name, raw_value in message["headers"]:
                    name = raw_name.decode("latin-1")
                    if name.lower() not in _FRAMING:
                        headers.append((name.title(), raw_value.decode("latin-1")))
            else:
                chunks.append(message.get("body", b""))

        try:
            await self.app(scope, receive, send)
        except Exception:
            # The application has sent status 500 before it raised.
            traceback.print_exc()
        return Answer(status, tuple(headers), b"".join(chunks))


async def _read_body(receive: Receive) -> bytes | None:
    """The request's body, or None if the client disconnected before its end."""
    chunks: list[bytes] = []
    while True:
        message = await receive()
        if message["type"] != "http.request":
            return None
        chunks.append(message.get("body", b""))
        if not message.get("more_body", False):
            return b"".join(chunks)


async def _pause(
    receive: Receive, stopping: asyncio.Event, seconds: float | None, until: asyncio.Event | None = None
) -> bool:
    """Wait for the time or the event, whichever is first; False if the client has disconnected meanwhile."""
    left = asyncio.ensure_future(receive())
    waits = [left, asyncio.ensure_future(stopping.wait())]
    if until is not None:
        waits.append(asyncio.ensure_future(until.wait()))
    try:
        await asyncio.wait(waits, timeout=seconds, return_when=asyncio.FIRST_COMPLETED)
        return not left.done()
    finally:
        for wait in waits:
            wait.cancel()
