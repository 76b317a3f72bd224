"""Scripts of faults: which fault the next request gets."""

import asyncio
from collections import deque
from collections.abc import Mapping
from typing import Any

from .faults import CONNECT, Fault, parse_scripts


class Plan:
    """The scripts of all endpoints, each a queue.

    initial: the scripts that a reset restores.
    """

    def __init__(self, initial: Mapping[str, Any]) -> None:
        self._initial = initial
        self._scripts: dict[str, deque[tuple[Fault, int | None]]] = {}
        self._released = asyncio.Event()
        self.replace(initial)

    def reset(self) -> None:
        """Restore the initial scripts and resume held requests."""
        self._scripts.clear()
        self.replace(self._initial)
        self.release()

    def replace(self, scripts: Mapping[str, Any]) -> None:
        """Replace the scripts of the endpoints named, all or none; ValueError if one is invalid."""
        parsed = parse_scripts(scripts)
        self._scripts.update((endpoint, deque(script)) for endpoint, script in parsed.items())

    def take(self, endpoint: str) -> Fault | None:
        """The fault for the next request to `endpoint`, or None for a genuine response."""
        script = self._scripts.get(endpoint) or (endpoint != CONNECT and self._scripts.get("*"))
        if not script:
            return None
        fault, times = script[0]
        if times is not None:
            script.popleft()
            if times > 1:
                script.appendleft((fault, times - 1))
        return fault

    @property
    def released(self) -> asyncio.Event:
        """Set at the next release; a request reads it when its hold begins."""
        return self._released

    def release(self) -> None:
        """Resume every request that is held now."""
        self._released.set()
        self._released = asyncio.Event()

    def as_json(self) -> dict[str, list[dict[str, Any]]]:
        """The remaining faults, by endpoint: kind and times."""
        return {
            endpoint: [{"kind": fault.kind, "times": times} for fault, times in script]
            for endpoint, script in self._scripts.items()
            if script
        }
