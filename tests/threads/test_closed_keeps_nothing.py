"""A closed manager keeps no object alive from its last login, however that failed."""

from __future__ import annotations

import gc
import weakref
from collections.abc import Callable, Iterator
from typing import Any

import pytest

from tessaline import auth
from tests.contract.support import endings
from tests.contract.support.host import ShortSleeps, unstartable_threads
from tests.contract.support.managers import build
from tests.contract.support.service import CHALLENGE, Service
from tests.shared.clocks import HandClock
from tests.shared.threads import Worker, until
from tests.shared.threads import waiters as waiters_of

census, nothing_escapes = endings.census, endings.nothing_escapes


class Owned:
    """An object owned by a frame of the transport while it raises."""


class Failing(Service):
    """Raises in frames that own something; `seen` has references to what they owned."""

    def __init__(self, error: Callable[[], BaseException]) -> None:
        super().__init__(era=1)
        self.error = error
        self.fails = True
        self.seen: list[weakref.ref[Owned]] = []

    def __call__(self, method: str, url: str, headers: Any = None, body: Any = None) -> Any:
        made = super().__call__(method, url, headers, body)
        if self.fails and url.endswith(CHALLENGE):
            owned = Owned()
            self.seen.append(weakref.ref(owned))
            raise self.error()
        return made

    def kept(self) -> bool:
        gc.collect()
        assert self.seen
        return any(one() is not None for one in self.seen)


@pytest.fixture(autouse=True)
def no_sleep(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(auth, "_time", ShortSleeps())


def auth_error() -> BaseException:
    return auth.AuthError(reason="unauthorized")


# Errors that a background thread can get too, which is never interrupted.
BY_REQUEST = [auth_error, ValueError, ConnectionError]


@pytest.fixture(params=[*BY_REQUEST, KeyboardInterrupt], ids=lambda kind: kind.__name__)
def service(request: pytest.FixtureRequest) -> Iterator[Failing]:
    service = Failing(request.param)
    yield service
    service.let_go()


@pytest.fixture
def clock() -> HandClock:
    return HandClock()


@pytest.fixture
def manager(service: Failing, clock: HandClock) -> Iterator[Any]:
    made = build(service, clock)
    yield made
    made.close()


@pytest.fixture
def logged_in(manager: Any, service: Failing) -> Any:
    service.fails = False
    manager.authenticate()
    service.fails = True
    return manager


def fails(call: Callable[..., Any], *arguments: Any) -> None:
    """The caller releases the error and its frames."""
    try:
        call(*arguments)
    except BaseException as error:
        assert error.__traceback__ is not None
        return
    raise AssertionError("it did not fail")


def asks(manager: Any) -> weakref.ref[Owned]:
    """A caller of `get_token` whose frame owns something too."""
    owned = Owned()
    fails(lambda: (owned, manager.get_token()))
    return weakref.ref(owned)


def test_a_login(manager: Any, service: Failing) -> None:
    fails(manager.authenticate)
    asked = asks(manager)
    manager.close()
    assert not service.kept()
    assert asked() is None


def test_a_login_that_others_waited_for(manager: Any, service: Failing) -> None:
    gate = service.hold(CHALLENGE)
    runner = Worker(manager.authenticate)
    gate.reached()
    waiters = [Worker(call) for call in (manager.authenticate, manager.get_token)]
    until(lambda: waiters_of(manager._auth_event) == 2)
    service.let_go()
    assert all(one.failure() for one in (runner, *waiters))
    manager.close()
    del runner, waiters
    assert not service.kept()


@pytest.mark.parametrize("service", BY_REQUEST, indirect=True)
def test_a_renewal(logged_in: Any, service: Failing, clock: HandClock) -> None:
    clock.now += 80_000.0
    until(lambda: logged_in._state == "UNINITIALIZED")
    asked = asks(logged_in)
    logged_in.close()
    assert not service.kept()
    assert asked() is None


@pytest.mark.parametrize("service", BY_REQUEST, indirect=True)
def test_an_era(logged_in: Any, service: Failing) -> None:
    logged_in.notify_era_change(2)
    asked = [asks(logged_in)]
    until(lambda: logged_in._state == "AUTHENTICATED" and logged_in._auth_error is not None)
    # All callers get the stored error, as the same object.
    asked += [asks(logged_in) for _ in range(3)]
    logged_in.close()
    assert not service.kept()
    assert [one() for one in asked] == [None] * 4


def test_closed_while_it_runs(manager: Any, service: Failing) -> None:
    gate = service.hold(CHALLENGE)
    runner = Worker(manager.authenticate)
    gate.reached()
    manager.close()
    service.let_go()
    runner.failure()
    del runner
    assert not service.kept()


@pytest.mark.parametrize("service", BY_REQUEST, indirect=True)
def test_closed_while_an_era_is_fetched(logged_in: Any, service: Failing) -> None:
    gate = service.hold(CHALLENGE)
    logged_in.notify_era_change(2)
    gate.reached()
    logged_in.close()
    service.let_go()
    until(lambda: service.seen and not service.kept(), "that nothing is kept")


def test_closed_by_the_transport(manager: Any, service: Failing) -> None:
    service.fault = lambda path: manager.close() if path == CHALLENGE else None
    fails(manager.authenticate)
    assert not service.kept()


@pytest.mark.parametrize("service", [auth_error], indirect=True)
@pytest.mark.parametrize("way", ["authenticate", "notify_era_change"])
def test_a_thread_that_cannot_be_started(
    manager: Any, service: Failing, monkeypatch: pytest.MonkeyPatch, way: str
) -> None:
    owned, refusal = Owned(), RuntimeError("can't start new thread")
    refusal.owned = owned  # type: ignore[attr-defined]
    service.fails = False
    service.seen.append(weakref.ref(owned))
    era = (2,) if way == "notify_era_change" else ()
    if era:
        manager.authenticate()
    with monkeypatch.context() as patch:
        patch.setattr(auth, "threading", unstartable_threads(error=refusal))
        fails(getattr(manager, way), *era)
    if era:
        service.seen.append(asks(manager))
    manager.close()
    # The substitute refers to the error, and to itself.
    del owned, refusal, patch
    assert not service.kept()
