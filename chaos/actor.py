"""A manager over real sockets on its own clock, with a record of everything it does."""

from __future__ import annotations

import hashlib
import threading
from collections import Counter
from collections.abc import Callable
from typing import Any
from urllib.parse import urlsplit

from devserver.testing import DevServer
from tessaline import auth
from tests.integration.support import ENDPOINTS

from .contract import GOOD, Fault, Plan
from .stage import PATIENT_SECONDS, STALL_SECONDS, Stage

START = 1_700_000_000.0
_BACKOFF_STEP = 0.05
_POLL_STEP = 0.1
_DEADLINE = 20.0


class Actor:
    """The manager of one flow.

    attempts, asked, slept: requests by endpoint, and the waits between them, as requested and as elapsed.
    on_first_request: called on the thread of the flow before its first request is sent.
    on_wait: called on that thread at the beginning of each wait.
    """

    def __init__(self, stage: Stage, server: DevServer, seed: str) -> None:
        self._stage = stage
        self.server = server
        self.now = START
        self._ahead: dict[int, float] = {}
        self._lock = threading.Lock()
        self.on_first_request: Callable[[], None] | None = None
        self.on_wait: Callable[[], None] | None = None
        self.polls_go_on = threading.Event()
        self.polling: set[int] = set()
        self.plan({})
        key = hashlib.sha256(seed.encode()).hexdigest()
        self.manager = auth.AuthManager(key, server.url, clock=self.clock, _transport=self.transport)
        self.manager._wait_with_clock = self.wait

    def plan(self, plan: Plan) -> None:
        """Apply `plan` to the next requests, and start a new record."""
        self._plan = {endpoint: list(faults) for endpoint, faults in plan.items()}
        self.attempts: Counter[str] = Counter()
        self.asked: list[Any] = []
        self.slept: list[float] = []
        scripts = {
            endpoint: [fault.script or {"kind": "pass"} for fault in faults if fault.reaches]
            for endpoint, faults in plan.items()
        }
        if scripts:
            self.server.script(scripts)

    def forget_plan(self) -> None:
        """Discard the rest of the plan."""
        if self._plan:
            self.server.script({endpoint: [] for endpoint in self._plan})
        self.plan({})

    # Injected into the manager

    def clock(self) -> float:
        return self.now + self._ahead.get(threading.get_ident(), 0.0)

    def transport(self, method: str, url: str, headers: Any = None, body: Any = None) -> Any:
        endpoint = ENDPOINTS[urlsplit(url).path]
        with self._lock:
            first, self.on_first_request = self.on_first_request, None
            planned = self._plan.get(endpoint)
            fault = planned.pop(0) if planned else GOOD
            self.attempts[endpoint] += 1
        if first is not None:
            first()
        url, headers = self._way(fault, url, headers)
        self._stage.seams.time_out_after(STALL_SECONDS if fault.stalls else PATIENT_SECONDS)
        return auth._default_http_transport(method, url, headers=headers, body=body)

    def _way(self, fault: Fault, url: str, headers: Any) -> tuple[str, Any]:
        """The URL of the request: a connection with a fault is a separate one."""
        address = urlsplit(url)
        if fault.refused:
            return f"{address.scheme}://127.0.0.1:{self._stage.refused_port}{address.path}", headers
        if fault.connect is None:
            return url, headers
        self.server.faults("connect", [fault.connect])
        return f"{self.server.gate_url}{address.path}", {**headers, "Connection": "close"}

    def wait(self, seconds: Any) -> None:
        """The manager's own wait, which advances the clock instead of sleeping."""
        self.asked.append(seconds)
        if self.on_wait is not None:
            self.on_wait()
        began = self.now
        self._stage.seams.sleep_by(lambda step: self._pass_time(step, began + seconds))
        try:
            auth.AuthManager._wait_with_clock(self.manager, seconds)
        finally:
            self._stage.seams.sleep_by(None)
        self.slept.append(self.now - began)

    def _pass_time(self, step: float, until: float) -> None:
        assert step == _BACKOFF_STEP
        # In steps that a float can represent exactly.
        self.now += max(0.25, (until - self.now) // 4)

    # Callers with their own clock

    def get_token_ahead(self, seconds: float) -> str:
        """`get_token` of a caller whose clock is ahead, and whose poll lasts until `polls_go_on`."""
        me = threading.get_ident()
        self._ahead[me] = seconds
        self._stage.seams.sleep_by(self._poll)
        try:
            return self.manager.get_token()
        finally:
            self._stage.seams.sleep_by(None)
            del self._ahead[me]

    def _poll(self, step: float) -> None:
        assert step == _POLL_STEP
        self.polling.add(threading.get_ident())
        assert self.polls_go_on.wait(_DEADLINE)
