"""Scripts of faults: which fault the next request meets."""

import asyncio
from collections import deque
from collections.abc import Mapping
from typing import Any

from .faults import CONNECT, Fault, parse_scripts


class Plan:
    """The scripts of all endpoints, used up from the front.

    initial: the scripts of the start, to which a reset returns.
    """

    def __init__(self, initial: Mapping[str, Any]) -> None:
        self._initial = initial
        self._scripts: dict[str, deque[tuple[Fault, int | None]]] = {}
        self._released = asyncio.Event()
        self.replace(initial)

    def reset(self) -> None:
        """Return to the scripts of the start and release what is held."""
        self._scripts.clear()
        self.replace(self._initial)
        self.release()

    def replace(self, scripts: Mapping[str, Any]) -> None:
        """Replace the scripts of the endpoints named, all or none; ValueError says what is wrong."""
        parsed = parse_scripts(scripts)
        self._scripts.update((endpoint, deque(script)) for endpoint, script in parsed.items())

    def take(self, endpoint: str) -> Fault | None:
        """The fault that the next request at `endpoint` meets, or None for a genuine answer."""
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
        """Set at the next release; to be read by a request when its hold begins."""
        return self._released

    def release(self) -> None:
        """Let every request that is held now go on."""
        self._released.set()
        self._released = asyncio.Event()

    def as_json(self) -> dict[str, list[dict[str, Any]]]:
        """What is still to come, by endpoint: kind and times."""
        return {
            endpoint: [{"kind": fault.kind, "times": times} for fault, times in script]
            for endpoint, script in self._scripts.items()
            if script
        }
