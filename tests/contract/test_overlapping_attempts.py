"""An attempt that ends late leaves alone what another has begun."""

from __future__ import annotations

import threading
from typing import Any

import pytest

from tessaline import auth

from .support.clocks import HandClock, unstartable_threads
from .support.managers import reason
from .support.service import CHALLENGE, VERIFY, Service
from .support.threads import Caller, ThreadCensus, until

DAY = 86400.0


def test_a_login_that_fails_after_its_store_does_not_undo_the_next_one(
    make_manager: Any, service: Service
) -> None:
    class Slow(auth.AuthManager):
        """Stops between the store of a login and the start of its refresh thread."""

        def _start_refresh(self) -> None:
            if threading.current_thread() is first.thread:
                stored.set()
                go_on.wait(10)
                raise RuntimeError("too late")
            super()._start_refresh()

    stored, go_on = threading.Event(), threading.Event()
    started = threading.Event()
    manager = Slow(
        "8f2a55949038a9610f50fb23b5883af3b4ecb3c3bb792cbcefbd1542c692be63",
        "https://auth.example.test",
        clock=HandClock(),
        _transport=service,
    )
    with manager:
        first = Caller(lambda: (started.wait(10), manager.authenticate()))
        started.set()
        assert stored.wait(10)
        gate = service.hold(CHALLENGE)
        second = Caller(manager.authenticate)
        gate.reached()
        event = manager._auth_event
        go_on.set()
        assert str(first.failure()) == "too late"
        # The second login is still the one that runs, and an announcement leaves the era to it.
        assert manager._state == "AUTHENTICATING"
        assert manager._auth_event is event and not event.is_set()
        assert manager._auth_error is None
        manager.notify_era_change(2)
        assert service.count(CHALLENGE) == 2
        service.let_go()
        assert reason(second.failure()) == "era_mismatch"
        with pytest.raises(auth.AuthError):
            manager.get_token()


def test_a_refresh_thread_that_cannot_be_replaced_lives_on_and_renews(
    logged_in: Any, service: Service, clock: HandClock, census: ThreadCensus, monkeypatch: pytest.MonkeyPatch
) -> None:
    loop = logged_in._refresh_thread
    with monkeypatch.context() as patched:
        patched.setattr(auth, "threading", unstartable_threads(logged_in._refresh_loop))
        with pytest.raises(RuntimeError, match="can't start new thread"):
            logged_in.authenticate()
    assert loop.is_alive()
    before = service.count(VERIFY)
    clock.now += 0.9 * DAY
    until(lambda: service.count(VERIFY) == before + 1, "a renewal")
    until(
        lambda: logged_in._refresh_thread is not loop and logged_in._refresh_thread.is_alive(),
        "its successor",
    )
    census.settle(1)
    assert logged_in.get_token() == service.tokens[-1]
