"""The control endpoint: what tests and people ask of the server itself."""

from dataclasses import dataclass
from typing import Any

from starlette.requests import Request
from starlette.responses import JSONResponse
from starlette.routing import BaseRoute, Route

from .app import json_object
from .faultlayer import CONTROL_PREFIX
from .faults import Plan
from .gate import Gate
from .journal import Journal
from .protocol import Connections
from .refusal import Refusal
from .service import Service

_LONGEST_WAIT = 60.0


@dataclass
class Control:
    """Routes that show and change the state of one server."""

    service: Service
    plan: Plan
    journal: Journal
    connections: Connections
    gate: Gate | None

    def routes(self) -> list[BaseRoute]:
        return [
            Route(CONTROL_PREFIX + "state", self.state, methods=["GET"]),
            Route(CONTROL_PREFIX + "reset", self.reset, methods=["POST"]),
            Route(CONTROL_PREFIX + "settings", self.settings, methods=["POST"]),
            Route(CONTROL_PREFIX + "faults", self.faults, methods=["POST"]),
            Route(CONTROL_PREFIX + "release", self.release, methods=["POST"]),
            Route(CONTROL_PREFIX + "wait", self.wait, methods=["POST"]),
        ]

    async def state(self, _request: Request) -> JSONResponse:
        """Counters, requests, connections, settings and what is left of the scripts."""
        return JSONResponse(
            {
                **self.journal.as_json(),
                "connections": self.connections.as_json(),
                "gate": [] if self.gate is None else self.gate.as_json(),
                "faults": self.plan.as_json(),
                "settings": self.service.settings.as_json(),
                "invites": self.service.invites.as_json(),
                "wallets": len(self.service.wallets),
            }
        )

    async def reset(self, _request: Request) -> JSONResponse:
        """Back to the state of the start; what is held goes on."""
        self.service.reset()
        self.plan.clear()
        self.journal.clear()
        self.connections.clear()
        if self.gate is not None:
            self.gate.clear()
        return JSONResponse({})

    async def settings(self, request: Request) -> JSONResponse:
        """Change settings by name; "invites" and "revoke_invites" are lists of codes to add and to revoke."""
        changes = await json_object(request)
        added = _codes(changes, "invites")
        revoked = _codes(changes, "revoke_invites")
        try:
            self.service.settings.update(changes)
        except ValueError as error:
            raise Refusal(400, str(error)) from None
        self.service.invites.add(added)
        self.service.invites.revoke(revoked)
        return JSONResponse(self.service.settings.as_json())

    async def faults(self, request: Request) -> JSONResponse:
        """Replace the scripts of the endpoints named; an empty list takes a script away."""
        scripts = await json_object(request)
        try:
            self.plan.replace(scripts)
        except ValueError as error:
            raise Refusal(400, str(error)) from None
        return JSONResponse(self.plan.as_json())

    async def release(self, _request: Request) -> JSONResponse:
        """Let the requests that are held now go on."""
        self.plan.release()
        return JSONResponse({})

    async def wait(self, request: Request) -> JSONResponse:
        """Answer with the count once "endpoint" has had "count" requests or "timeout" seconds have passed."""
        asked = await json_object(request)
        endpoint, count, timeout = asked.get("endpoint"), asked.get("count"), asked.get("timeout")
        if not (isinstance(endpoint, str) and isinstance(count, int) and isinstance(timeout, int | float)):
            raise Refusal(400, "endpoint, count and timeout are needed")
        arrived = await self.journal.wait(endpoint, count, min(float(timeout), _LONGEST_WAIT))
        return JSONResponse({"count": arrived})


def _codes(changes: dict[str, Any], name: str) -> list[str]:
    codes = changes.pop(name, [])
    if not isinstance(codes, list) or not all(isinstance(code, str) for code in codes):
        raise Refusal(400, f"setting {name!r} must be a list of texts")
    return codes
