"""The requests to the server, without secrets."""

import asyncio
import time
from collections import Counter, deque
from dataclasses import asdict, dataclass
from typing import Any

from .endpoints import ENDPOINTS

# Limits the memory of a server that is left running.
_REMEMBERED = 10_000
_BODY_KEYS = frozenset({"wallet_address", "invite_code", "challenge_id", "signature", "display_name"})


def known_keys(body: dict[str, Any] | None) -> list[str] | None:
    """The keys of a request's JSON object, in order; those that are not in the protocol as "?"."""
    return None if body is None else [key if key in _BODY_KEYS else "?" for key in body]


@dataclass
class Entry:
    """One request, as the control endpoint returns it.

    time: Unix seconds of its arrival. duration: seconds until its response was sent or its connection
    ended, None before that. status: of the response, None if there is none (yet).
    header_names: in lowercase, in the order of arrival. body_keys: see `known_keys`.
    """

    endpoint: str
    method: str
    path: str
    time: float
    connection: int
    header_names: list[str]
    body_bytes: int
    body_keys: list[str] | None
    status: int | None = None
    fault: str | None = None
    duration: float | None = None


class Journal:
    """The latest requests since the start or the last reset, and how many there were of each kind."""

    def __init__(self) -> None:
        self._entries: deque[Entry] = deque(maxlen=_REMEMBERED)
        self._counts: Counter[str] = Counter()
        self._grown = asyncio.Event()

    def clear(self) -> None:
        """Forget every request, including those in progress."""
        self._entries.clear()
        self._counts.clear()

    def add(self, entry: Entry) -> None:
        """Record a request whose whole body has arrived."""
        self._entries.append(entry)
        self._counts[entry.endpoint] += 1
        self._grown.set()
        self._grown = asyncio.Event()

    async def wait(self, endpoint: str, count: float, timeout: float) -> int:
        """Wait at most `timeout` seconds for `count` requests at `endpoint`; returns how many there are."""
        try:
            async with asyncio.timeout(timeout):
                while self._counts[endpoint] < count:
                    await self._grown.wait()
        except TimeoutError:
            pass
        return self._counts[endpoint]

    def as_json(self) -> dict[str, Any]:
        """The counters by endpoint and the requests, oldest first."""
        return {
            "counts": {name: self._counts[name] for name in (*ENDPOINTS.values(), *self._counts)},
            "requests": [asdict(entry) for entry in self._entries],
        }


class Stopwatch:
    """When a request arrived, and the time since then."""

    def __init__(self) -> None:
        self.started_at = time.time()
        self._started = time.monotonic()

    def elapsed(self) -> float:
        """Seconds since the start."""
        return time.monotonic() - self._started
