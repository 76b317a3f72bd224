"""The control endpoint, by which tests and people control the server itself."""

from dataclasses import dataclass
from typing import Any

from starlette.requests import Request
from starlette.routing import BaseRoute, Route

from .app import Json, object_in
from .endpoints import CONTROL_PREFIX
from .gate import Gate
from .journal import Journal
from .plan import Plan
from .protocol import Connections
from .refusal import Refusal
from .rules import TEXTS, is_number, is_text, is_whole
from .service import Service

LONGEST_WAIT = 60


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

    async def state(self, _request: Request) -> Json:
        """Counters, requests, connections, settings and the remaining faults."""
        return Json(
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

    async def reset(self, _request: Request) -> Json:
        """Restore the initial state; held requests resume."""
        self.service.reset()
        self.plan.reset()
        self.journal.clear()
        self.connections.clear()
        if self.gate is not None:
            self.gate.clear()
        return Json({})

    async def settings(self, request: Request) -> Json:
        """Change settings by name; "invites" and "revoke_invites" are lists of codes to add and to revoke."""
        changes = await object_in(request)
        added = _codes(changes, "invites")
        revoked = _codes(changes, "revoke_invites")
        try:
            self.service.settings.update(changes)
        except ValueError as error:
            raise Refusal(400, str(error)) from None
        self.service.invites.add(added)
        self.service.invites.revoke(revoked)
        return Json(self.service.settings.as_json())

    async def faults(self, request: Request) -> Json:
        """Replace the scripts of the endpoints named; an empty list removes a script."""
        scripts = await object_in(request)
        try:
            self.plan.replace(scripts)
        except ValueError as error:
            raise Refusal(400, str(error)) from None
        return Json(self.plan.as_json())

    async def release(self, _request: Request) -> Json:
        """Resume the requests that are held now."""
        self.plan.release()
        return Json({})

    async def wait(self, request: Request) -> Json:
        """Return the count once "endpoint" has had "count" requests or "timeout" seconds have passed."""
        asked = await object_in(request)
        endpoint, count, timeout = asked.get("endpoint"), asked.get("count"), asked.get("timeout")
        if not (is_text(endpoint) and is_whole(count) and is_number(timeout)):
            raise Refusal(400, "endpoint, count and timeout are needed")
        arrived = await self.journal.wait(endpoint, count, float(max(0, min(timeout, LONGEST_WAIT))))
        return Json({"count": arrived})


def _codes(changes: dict[str, Any], name: str) -> list[str]:
    codes: list[str] = changes.pop(name, [])
    if not TEXTS.fits(codes):
        raise Refusal(400, f"setting {name!r} must be {TEXTS.words}")
    return codes
