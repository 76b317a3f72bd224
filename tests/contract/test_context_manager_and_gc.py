"""The end of a manager: the `with` block that closes it, the garbage collector, and no growth with use."""

from __future__ import annotations

import gc
import os
import sys
import threading
import weakref
from collections.abc import Callable, Iterator
from typing import Any

import pytest

import canary
from tessaline import auth
from tests.sanitized import SANITIZER
from tests.shared.clocks import HandClock
from tests.shared.threads import Worker, until

from .support.host import ShortSleeps
from .support.managers import KEY, build, reason
from .support.service import BASE, CHALLENGE, VERIFY, Service, always_answers, always_raises
from .support.threads import ThreadCensus

DAY = 86400.0


# The block


def test_the_block_gets_the_manager_and_closes_it(service: Service, census: ThreadCensus) -> None:
    made = build(service)
    with made as manager:
        assert manager is made
        manager.authenticate()
        assert manager.get_token() == service.tokens[0]
    census.settle(0)
    assert made._state == "CLOSED" and made._private_key is None and made._token is None


@pytest.mark.parametrize(
    "error",
    [
        ValueError("host's own"),
        auth.AuthError(reason="unauthorized"),
        KeyboardInterrupt(),
        SystemExit(3),
        GeneratorExit(),
        StopIteration(4),
    ],
    ids=lambda error: type(error).__name__,
)
def test_the_block_leaves_exceptions_alone(service: Service, error: BaseException) -> None:
    manager = build(service)
    try:
        with manager:
            manager.authenticate()
            raise error
    except BaseException as caught:
        assert caught is error
        assert caught.__context__ is None and caught.__cause__ is None
    else:
        raise AssertionError("the error is gone")
    assert manager._state == "CLOSED"


def test_the_block_closes_a_manager_that_never_logged_in(service: Service) -> None:
    with build(service) as manager:
        pass
    assert manager._state == "CLOSED"
    assert service.paths == []


def test_a_manager_closed_inside_its_block(service: Service) -> None:
    with build(service) as manager:
        manager.authenticate()
        manager.close()
    assert manager._state == "CLOSED"


def test_a_closed_manager_stays_closed_in_a_block(service: Service) -> None:
    manager = build(service)
    manager.close()
    with manager as entered:
        assert entered is manager
        with pytest.raises(auth.AuthError) as caught:
            entered.authenticate()
    assert reason(caught.value) == "manager_closed"


def test_nested_blocks_close_at_the_first_end(service: Service) -> None:
    with build(service) as manager:
        with manager:
            manager.authenticate()
        assert manager._state == "CLOSED"


def test_returning_from_the_block_closes(service: Service) -> None:
    made: list[Any] = []

    def log_in() -> str:
        with build(service) as manager:
            made.append(manager)
            manager.authenticate()
            return manager.get_token()

    assert log_in() == service.tokens[0]
    assert made[0]._state == "CLOSED"


def test_the_block_closes_through_a_subclass(service: Service) -> None:
    class Sub(auth.AuthManager):
        closed = 0

        def close(self) -> None:
            type(self).closed += 1
            super().close()

    with Sub(KEY, BASE, _transport=service, clock=HandClock()) as manager:
        manager.authenticate()
    assert Sub.closed == 1 and manager._state == "CLOSED"


def test_an_error_of_close_is_raised_with_the_blocks_own_as_its_context(service: Service) -> None:
    class Sub(auth.AuthManager):
        def close(self) -> None:
            super().close()
            raise LookupError("late")

    own = ValueError("host's own")
    with pytest.raises(LookupError) as caught, Sub(KEY, BASE, _transport=service):
        raise own
    assert caught.value.__context__ is own


def test_the_block_wakes_who_waits(service: Service) -> None:
    with build(service) as manager:
        manager.authenticate()
        gate = service.hold(VERIFY)
        manager.notify_era_change(2)
        gate.reached()
        caller = Worker(manager.get_token)
        event = manager._auth_event
        until(lambda: event._cond._waiters, "the waiting caller")
    assert reason(caller.failure()) == "manager_closed"
    service.let_go()


# The collector


class Host:
    """Whatever a program keeps with a manager."""

    manager: Any = None
    other: Any = None


def in_a_cycle_with_another(service: Service) -> list[Any]:
    one, two = build(service), build(service)
    one.peer, two.peer = two, one
    for manager in (one, two):
        manager.authenticate()
        manager.close()
    return [one, two]


def referring_to_itself(service: Service) -> list[Any]:
    manager = build(service)
    manager.authenticate()
    manager.itself = manager
    manager._clock = manager._get_time
    manager._transport = manager.close
    manager._auth_error = [manager]
    manager.close()
    return [manager]


def with_a_transport_that_knows_it(service: Service) -> list[Any]:
    host = Host()

    def transport(*asked: Any, **more: Any) -> Any:
        assert host.manager is not None
        return service(*asked, **more)

    host.manager = auth.AuthManager(KEY, BASE, _transport=transport, clock=HandClock())
    host.manager.authenticate()
    host.manager.notify_era_change(1)
    until(host.manager._auth_event.is_set)
    host.manager.close()
    return [host.manager, host]


def with_patched_methods(service: Service) -> list[Any]:
    manager = build(service)
    manager._get_time = lambda: auth.AuthManager._get_time(manager)
    manager._do_refresh = manager._do_refresh
    manager.authenticate()
    manager.close()
    return [manager]


def with_an_error_that_knows_it(service: Service) -> list[Any]:
    manager = build(service)
    service.fault = always_raises(LookupError("no"))
    try:
        manager.authenticate()
    except LookupError as error:
        manager.kept = error
    manager.close()
    service.fault = None
    return [manager]


def never_closed_and_never_logged_in(service: Service) -> list[Any]:
    manager = build(service)
    manager.itself = manager
    return [manager]


def failed_and_never_closed(service: Service) -> list[Any]:
    manager = build(service)
    manager.itself = manager
    service.fault = always_answers(CHALLENGE, 401)
    with pytest.raises(auth.AuthError):
        manager.authenticate()
    service.fault = None
    return [manager]


@pytest.mark.parametrize(
    "life",
    [
        in_a_cycle_with_another,
        referring_to_itself,
        with_a_transport_that_knows_it,
        with_patched_methods,
        with_an_error_that_knows_it,
        never_closed_and_never_logged_in,
        failed_and_never_closed,
    ],
    ids=lambda life: life.__name__,
)
def test_the_collector_takes_what_nobody_holds(
    life: Callable[[Service], list[Any]], service: Service, census: ThreadCensus
) -> None:
    left = [weakref.ref(thing) for thing in life(service)]
    census.settle(0)
    gc.collect()
    assert [ref() for ref in left] == [None] * len(left)


def test_a_closed_manager_goes_with_its_last_reference(
    service: Service, census: ThreadCensus, no_collection: None
) -> None:
    service.era = 1
    manager = build(service)
    manager.authenticate()
    manager.notify_era_change(1)
    assert manager.get_token()
    manager.close()
    census.settle(0)
    left = weakref.ref(manager)
    del manager
    assert left() is None


def test_a_manager_whose_refresh_failed_goes_with_its_last_reference(
    service: Service, clock: HandClock, census: ThreadCensus, no_collection: None
) -> None:
    # Its thread has ended with the failure, and nothing else refers to the manager.
    manager = build(service, clock)
    manager.authenticate()
    service.fault = always_answers(CHALLENGE, 401)
    clock.now += 0.9 * DAY
    census.settle(0)
    left = weakref.ref(manager)
    del manager
    assert left() is None


def test_the_active_manager_is_held_and_let_go(service: Service, no_collection: None) -> None:
    manager = build(service)
    left = weakref.ref(manager)
    auth._set_active_auth_manager(manager)
    del manager
    assert left() is auth._active_auth_manager
    auth._set_active_auth_manager(None)
    assert left() is None


def test_a_manager_dropped_by_its_own_refresh_thread(
    service: Service, clock: HandClock, census: ThreadCensus
) -> None:
    # The last reference is released on the background thread itself.
    host = Host()
    host.manager = build(service, clock)
    host.manager.authenticate()
    left = weakref.ref(host.manager)

    def let_go(path: str) -> None:
        if host.manager is not None:
            manager, host.manager = host.manager, None
            manager.close()

    service.fault = let_go
    clock.now += 0.9 * DAY
    census.settle(0)
    gc.collect()
    assert left() is None


# Nothing grows


def once(service: Service, clock: HandClock, round_number: int) -> None:
    """A whole life, with successes and failures."""
    service.era, service.fault = 1, None
    manager = build(service, clock)
    manager.authenticate()
    manager.get_token()
    manager.get_token_expiry()
    manager.get_wallet_secret()
    manager.set_display_name("Ada")
    service.era = 2
    manager.notify_era_change(2)
    manager.get_token()
    service.fault = always_answers(CHALLENGE, 401)
    for call in (
        manager.authenticate,
        lambda: manager.notify_era_change(0),
        lambda: manager.set_display_name("?"),
    ):
        try:
            call()
        except (auth.AuthError, ValueError):
            continue
        raise AssertionError("not refused")
    manager.notify_era_change(3)
    event = manager._auth_event
    assert event.wait(10.0)
    assert "RE_AUTHENTICATING" not in repr(manager)
    service.fault = always_raises(ConnectionResetError("gone"))
    if round_number % 2:
        clock.now += 0.9 * DAY
        until(lambda: manager._auth_event is not event and manager._auth_event.is_set(), "the failed refresh")
    manager.close()
    for refused in (lambda: auth.AuthManager("", BASE), lambda: auth.AuthManager(KEY, "")):
        try:
            refused()  # type: ignore[no-untyped-call]
        except (auth.InvalidKeyError, ValueError):
            continue
        raise AssertionError("not refused")
    service.paths.clear()
    service.tokens.clear()
    service.signatures.clear()


def open_descriptors() -> int:
    return len(os.listdir("/proc/self/fd"))


def resident_kilobytes() -> int:
    with open("/proc/self/statm") as statm:
        return int(statm.read().split()[1]) * os.sysconf("SC_PAGE_SIZE") // 1024


def mapped_regions() -> int:
    with open("/proc/self/maps") as maps:
        return len(maps.readlines())


@pytest.fixture
def untraced_threads() -> Iterator[None]:
    """Line coverage keeps something of every thread that it traces."""
    tracer = threading.gettrace()
    threading.settrace(None)
    yield
    threading.settrace(tracer)


def test_nothing_grows_with_use(
    service: Service,
    clock: HandClock,
    census: ThreadCensus,
    untraced_threads: None,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    monkeypatch.setattr(auth, "_time", ShortSleeps())
    rounds = 25

    def live() -> None:
        with canary.resting():
            for round_number in range(rounds):
                once(service, clock, round_number)
                auth._time.sleeps.clear()
        census.settle(0)
        gc.collect()

    live()
    live()
    blocks, descriptors = sys.getallocatedblocks(), open_descriptors()
    resident, regions, objects = resident_kilobytes(), mapped_regions(), len(gc.get_objects())
    live()
    live()
    grown = sys.getallocatedblocks() - blocks
    # One block per life would make 50; the interpreter's own caches vary a little.
    assert grown < 2 * rounds
    assert len(gc.get_objects()) - objects < 2 * rounds
    # Pooled connections of other tests may be closed meanwhile.
    assert open_descriptors() <= descriptors
    assert threading.active_count() == 1 + len([t for t in census._known if t is not threading.main_thread()])
    # A sanitizer keeps freed blocks.
    assert SANITIZER or resident_kilobytes() - resident < 4096
    assert mapped_regions() - regions < 16


def test_errors_raised_again_do_not_grow(logged_in: Any, service: Service) -> None:
    service.fault = always_answers(CHALLENGE, 401)
    logged_in.notify_era_change(4)
    until(logged_in._auth_event.is_set, "the end of the flow")

    def ask(times: int) -> None:
        for _ in range(times):
            try:
                logged_in.get_token()
            except auth.AuthError:
                continue
            raise AssertionError("served")

    ask(200)
    gc.collect()
    before = sys.getallocatedblocks()
    ask(2000)
    gc.collect()
    assert sys.getallocatedblocks() - before < 100


def test_serving_allocates_nothing_that_stays(make_manager: Callable[..., Any]) -> None:
    for default_clock in (True, False):
        manager = make_manager(default_clock=default_clock)
        manager.authenticate()

        def ask(times: int, manager: Any = manager) -> None:
            for _ in range(times):
                manager.get_token()

        ask(500)
        token = manager._token
        references, before = sys.getrefcount(token), sys.getallocatedblocks()
        ask(20_000)
        assert sys.getrefcount(token) == references
        assert sys.getallocatedblocks() - before < 100
