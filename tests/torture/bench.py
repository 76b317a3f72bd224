"""A manager for the torture, its service and clock, and its invariants afterwards."""

from __future__ import annotations

import gc
import sys
import threading
import time
import types
import weakref
from collections.abc import Callable
from typing import Any

import _torture

from tests.contract.support.service import BASE, Service
from tests.shared.clocks import HandClock
from tests.shared.threads import native_threads

KEY = "8f2a55949038a9610f50fb23b5883af3b4ecb3c3bb792cbcefbd1542c692be63"
LIFETIME = 86400.0
DEADLINE = 10.0
AT_REST = ("UNINITIALIZED", "AUTHENTICATED", "CLOSED")

Problems = list[str]


def until(condition: Callable[[], Any], deadline: float = DEADLINE) -> bool:
    end = time.monotonic() + deadline
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.0005)
    return True


def fast_time() -> types.SimpleNamespace:
    """A `time` whose sleeps are short and whose monotonic time jumps, so that no back-off takes real time."""
    leaps = iter(range(0, 1 << 60, 2))
    return types.SimpleNamespace(
        time=time.time,
        monotonic=_torture.host(lambda: float(next(leaps))),
        sleep=_torture.host(lambda seconds: time.sleep(0.001)),
    )


class Complaints:
    """What reached the hooks for unhandled errors."""

    def __init__(self) -> None:
        self.texts: Problems = []
        sys.unraisablehook = self._unraisable
        threading.excepthook = self._of_thread

    def _unraisable(self, unraisable: Any) -> None:
        self.texts.append(f"unraisable {unraisable.exc_value!r} in {unraisable.object!r}")

    def _of_thread(self, args: Any) -> None:
        self.texts.append(f"thread ended with {args.exc_value!r}")


class Waiter:
    """A call on a separate thread, on which nothing fails."""

    def __init__(self, call: Callable[[], Any]) -> None:
        self.error: BaseException | None = None
        self._call: Callable[[], Any] | None = call
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self) -> None:
        try:
            assert self._call is not None
            self._call()
        except BaseException as error:
            self.error = error.with_traceback(None)
        self._call = None

    def problems(self, allowed: tuple[str, ...]) -> Problems:
        self._thread.join(DEADLINE)
        if self._thread.is_alive():
            return ["a waiter waits for ever"]
        if self.error is not None and type(self.error).__name__ not in allowed:
            return [f"a waiter got {self.error!r}"]
        return []


def is_waited_for(event: Any) -> bool:
    return event is not None and len(event._cond._waiters) > 0


class Bench:
    """One manager of a service in memory, or of a server if an address is given."""

    def __init__(self, address: str | None = None, *, default_clock: bool = False) -> None:
        self.service = Service()
        self.clock = HandClock()
        self.waiters: list[Waiter] = []
        self._given = {
            "invite_code": "INVITE",
            "clock": None if default_clock else _torture.host(self.clock),
            "_transport": None if address else _torture.host(self.service),
        }
        self._address = address or BASE
        self.manager: Any = None

    def construct(self) -> None:
        from tessaline import auth

        self.manager = auth.AuthManager(KEY, self._address, **self._given)

    def waiter_at_first_request(self, call: str) -> None:
        """Has another thread make that call while the flow makes its first request; it waits."""
        manager, service = self.manager, self.service

        def fault(path: str) -> None:
            service.fault = None
            event = manager._auth_event
            self.waiters.append(Waiter(getattr(manager, call)))
            until(lambda: is_waited_for(event) or event.is_set())

        service.fault = fault

    def settled(self) -> bool:
        return self.manager._state in AT_REST

    def problems(self) -> Problems:
        """Violated invariants, after the failures."""
        found: Problems = []
        if not until(self.settled):
            found.append(f"the state stays {self.manager._state}")
        if not until(lambda: not self.manager._lock.locked()):
            return [*found, "the lock is held"]
        for waiter in self.waiters:
            found += waiter.problems(("AuthError", "NetworkError", "MemoryError"))
        if found:
            return found
        self.service.fault = None
        found += self._half_stored()
        if self.manager._state != "CLOSED":
            found += self._cannot_go_on()
        return found + self._cannot_close()

    def _half_stored(self) -> Problems:
        manager = self.manager
        if manager._state == "CLOSED":
            return []
        stored = (manager._token, manager._token_iat, manager._token_expiry, manager._auth_time)
        if all(value is None for value in stored):
            return [] if manager._state == "UNINITIALIZED" else [f"{manager._state} without a token"]
        whole = (
            None not in stored
            and manager._token_expiry == manager._auth_time + LIFETIME
            and manager._token_iat == manager._auth_time
            and manager._wallet_secret is not None
            and 0.75 * LIFETIME < manager._refresh_at - manager._auth_time < 0.85 * LIFETIME
        )
        return [] if whole else [f"half a result is stored: {stored[1:]!r}"]

    def _cannot_go_on(self) -> Problems:
        try:
            self.manager.authenticate()
            token = self.manager.get_token()
        except BaseException as error:
            return [f"it cannot log in afterwards: {error!r}"]
        found: Problems = []
        if self.service.tokens and token != self.service.tokens[-1]:
            found.append("it serves another token than the last")
        thread = self.manager._refresh_thread
        if thread is None or not thread.is_alive():
            found.append("no refresh thread lives after a login")
        return found

    def _cannot_close(self) -> Problems:
        manager = self.manager
        try:
            manager.close()
        except BaseException as error:
            return [f"it cannot be closed: {error!r}"]
        secrets = (manager._private_key, manager._token, manager._wallet_secret)
        if manager._state != "CLOSED" or any(value is not None for value in secrets):
            return ["closed, it holds secrets still"]
        return []

    def discard(self) -> Problems:
        """Releases all references; what stays alive nevertheless is a leak."""
        watched = [
            (what, weakref.ref(thing))
            for what, thing in (("manager", self.manager), ("service", self.service), ("clock", self.clock))
            if thing is not None
        ]
        self.manager = None
        self.waiters.clear()
        del self.service, self.clock
        self._given.clear()

        def gone() -> bool:
            gc.collect()
            return all(ref() is None for _, ref in watched)

        if until(gone, 1.0):
            return []
        # Where the interpreter keeps threads between the call of start() and their first line.
        threading._limbo.clear()  # type: ignore[attr-defined]
        if gone():
            return ["a thread that did not start is kept by the host"]
        return [f"the {what} is still referred to" for what, ref in watched if ref() is not None]


def stack_of(frame: types.FrameType | None) -> str:
    names = []
    while frame is not None:
        names.append(frame.f_code.co_name)
        frame = frame.f_back
    return " < ".join(names)


def left_behind() -> Problems:
    """Of all managers of this process."""
    found: Problems = []
    if not until(lambda: native_threads() == 1, 4.0):
        here = threading.get_ident()
        stacks = [stack_of(frame) for thread, frame in sys._current_frames().items() if thread != here]
        found.append(f"threads are left: {stacks}")
    pages, not_zero, taken = _torture.secrets()
    if not_zero or taken:
        found.append(f"of {pages} pages for secrets {taken} slots are taken and {not_zero} bytes not wiped")
    return found
