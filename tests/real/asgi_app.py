"""The service as an ASGI application."""

from __future__ import annotations

from collections.abc import Awaitable, Callable
from typing import Any

from tests.real.python_service import answered

type Receive = Callable[[], Awaitable[dict[str, Any]]]
type Send = Callable[[dict[str, Any]], Awaitable[None]]


async def app(scope: dict[str, Any], receive: Receive, send: Send) -> None:
    if scope["type"] == "lifespan":
        for step in ("startup", "shutdown"):
            await receive()
            await send({"type": f"lifespan.{step}.complete"})
        return
    body, more = b"", True
    while more:
        event = await receive()
        body += event.get("body", b"")
        more = event.get("more_body", False)
    status, answer = answered(scope["path"], body, scope["client"][1])
    headers = [(b"content-type", b"application/json"), (b"content-length", str(len(answer)).encode())]
    await send({"type": "http.response.start", "status": status, "headers": headers})
    await send({"type": "http.response.body", "body": answer})
