"""A caller that waited for a login reads its outcome only after another one has begun."""

from __future__ import annotations

import threading
from typing import Any

import pytest

from tessaline import auth
from tests.shared.threads import Worker, until, waiters

from .helpers.server import CHALLENGE, VERIFY, Answer, FakeServer


class LateEvent(threading.Event):
    """An event whose waiters return only after something else has happened."""

    def __init__(self) -> None:
        super().__init__()
        self.released = threading.Event()
        self.go_on = threading.Event()

    def wait(self, timeout: float | None = None) -> bool:
        result = super().wait(timeout)
        self.released.set()
        assert self.go_on.wait(10.0)
        return result


class LateThreading:
    """The module `threading` with such events for the attempts of a manager."""

    def __init__(self) -> None:
        self.events: list[LateEvent] = []

    def Event(self) -> LateEvent:
        self.events.append(LateEvent())
        return self.events[-1]

    def __getattr__(self, name: str) -> Any:
        return getattr(threading, name)


@pytest.fixture
def late(manager: Any, monkeypatch: pytest.MonkeyPatch) -> LateThreading:
    stand_in = LateThreading()
    monkeypatch.setattr(auth, "threading", stand_in)
    return stand_in


def test_a_waiter_of_a_failed_login_gets_its_failure_though_another_login_succeeded(
    manager: Any, server: FakeServer, late: LateThreading
) -> None:
    gate = server.hold(CHALLENGE)
    server.script(VERIFY, Answer(401))
    runner = Worker(manager.authenticate)
    gate.reached()
    waiter = Worker(manager.authenticate)
    event = late.events[0]
    until(lambda: waiters(event) == 1, what="the waiter")
    gate.release()
    failure = runner.failure()
    assert event.released.wait(10.0)
    second = server.hold(CHALLENGE)
    other = Worker(manager.authenticate)
    second.reached()
    assert manager._auth_error is None
    event.go_on.set()
    assert waiter.failure() is failure
    second.release()
    for made in late.events:
        made.go_on.set()
    other.result()
    assert manager._state == "AUTHENTICATED"
