"""Announced eras over real HTTP."""

from __future__ import annotations

import threading
from collections.abc import Callable, Iterator
from typing import Any

import pytest

from devserver.testing import DevServer
from tessaline import auth
from tests.shared.threads import DEADLINE, Worker, until, waiters

from .support import Harness, reason_of, wire

Make = Callable[..., Harness]


def era_of(token: str) -> Any:
    return auth._jwt_era_number(token)


@pytest.fixture
def one(either: DevServer, harness: Make) -> Harness:
    logged_in = harness(either)
    logged_in.manager.authenticate()
    assert era_of(logged_in.manager.get_token()) == 1
    logged_in.forget()
    return logged_in


@pytest.fixture
def active() -> Iterator[Callable[[Any], None]]:
    yield auth._set_active_auth_manager
    auth._set_active_auth_manager(None)


def test_the_next_token_carries_the_announced_era(one: Harness, either: DevServer) -> None:
    either.settings(era=7)
    one.manager.notify_era_change(7)
    assert era_of(one.manager.get_token()) == 7
    assert one.manager._pending_era_number is None
    assert one.manager._reauth_mode is None
    assert wire(either) == {"register": 2, "challenge": 2, "verify": 2}
    until(lambda: one.manager._refresh_thread.is_alive())


def test_a_later_era_than_the_announced_one_will_do(one: Harness, either: DevServer) -> None:
    either.settings(era=9)
    one.manager.notify_era_change(7)
    assert era_of(one.manager.get_token()) == 9


def test_the_announcement_does_not_wait(one: Harness, either: DevServer) -> None:
    either.settings(era=2)
    either.faults("register", [{"kind": "hold"}])
    Worker(one.manager.notify_era_change, 2).result(timeout=2.0)
    assert (one.manager._state, one.manager._reauth_mode) == ("RE_AUTHENTICATING", "ERA_CHANGE")
    event = one.manager._auth_event
    readers = [Worker(one.manager.get_token) for _ in range(8)]
    until(lambda: waiters(event) == len(readers))
    either.wait_for("register", 2)
    either.release()
    assert {era_of(reader.result()) for reader in readers} == {2}


def test_no_old_token_is_served_once_an_era_has_been_announced(one: Harness, either: DevServer) -> None:
    manager = one.manager
    for era in range(2, 8):
        either.settings(era=era)
        manager.notify_era_change(era)
        readers = [Worker(manager.get_token) for _ in range(4)]
        assert {era_of(reader.result()) for reader in readers} == {era}


def test_one_token_of_the_old_era_is_made_good(one: Harness, either: DevServer) -> None:
    either.settings(era=2)
    either.faults("verify", [{"kind": "era_old"}])
    one.manager.notify_era_change(2)
    assert era_of(one.manager.get_token()) == 2
    assert wire(either) == {"register": 3, "challenge": 3, "verify": 3}


@pytest.mark.parametrize(
    "fault", [{"kind": "era_old"}, {"kind": "era_missing"}, {"kind": "era", "value": True}]
)
def test_tokens_that_stay_in_the_old_era(fault: dict[str, Any], one: Harness, either: DevServer) -> None:
    manager = one.manager
    old = manager._token
    either.settings(era=2)
    either.faults("verify", [{**fault, "times": 2}])
    manager.notify_era_change(2)
    error = one.failure(Worker(manager.get_token).result)
    assert reason_of(error) == "era_mismatch"
    assert manager._auth_error is error
    assert one.failure(manager.get_token) is error
    assert (manager._state, manager._pending_era_number, manager._token) == ("AUTHENTICATED", 2, old)
    assert wire(either) == {"register": 3, "challenge": 3, "verify": 3}
    # The fault is used up, and asking for a login mends it.
    manager.authenticate()
    assert era_of(manager.get_token()) == 2
    assert manager._pending_era_number is None


def test_a_malformed_era_ends_the_attempt_at_once(one: Harness, either: DevServer) -> None:
    either.faults("verify", [{"kind": "era", "value": "soon"}])
    one.manager.notify_era_change(2)
    assert reason_of(one.failure(Worker(one.manager.get_token).result)) == "era_mismatch"
    assert wire(either)["verify"] == 2


def test_a_server_that_is_away_keeps_the_era_pending(one: Harness, either: DevServer) -> None:
    manager = one.manager
    either.faults("challenge", [{"kind": "reset", "times": None}])
    manager.notify_era_change(3)
    error = one.failure(Worker(manager.get_token).result)
    assert reason_of(error) == "Server unreachable after 3 attempts"
    assert one.delays[-2:] == [1, 2]
    assert (manager._state, manager._pending_era_number) == ("AUTHENTICATED", 3)
    either.faults("challenge", [])
    either.settings(era=3)
    manager.notify_era_change(3)
    assert era_of(Worker(manager.get_token).result()) == 3


def test_a_permanent_refusal_is_remembered(one: Harness, either: DevServer) -> None:
    either.faults("verify", [{"kind": "status", "status": 401}])
    one.manager.notify_era_change(2)
    assert reason_of(one.failure(Worker(one.manager.get_token).result)) == "signature_mismatch"
    assert one.manager._permanent_refresh_error is True


def test_an_announcement_during_a_refresh_is_met_by_that_refresh(one: Harness, either: DevServer) -> None:
    manager = one.manager
    either.faults("register", [{"kind": "hold"}])
    one.trigger_refresh()
    either.wait_for("register", 2)
    threads = threading.active_count()
    manager.notify_era_change(4)
    manager.notify_era_change(3)
    assert threading.active_count() == threads
    assert (manager._reauth_mode, manager._pending_era_number) == ("ERA_CHANGE", 4)
    either.settings(era=4)
    either.release()
    assert era_of(Worker(manager.get_token).result()) == 4
    assert wire(either)["verify"] == 2


def test_an_announcement_between_verify_and_its_answer_costs_a_second_flow(
    one: Harness, either: DevServer
) -> None:
    manager = one.manager
    # Answered with the token of the first era, whenever the announcement comes.
    either.faults("verify", [{"kind": "era", "value": 1, "hold": True}])
    one.trigger_refresh()
    either.wait_for("verify", 2)
    manager.notify_era_change(2)
    either.settings(era=2)
    either.release()
    assert era_of(Worker(manager.get_token).result()) == 2
    assert wire(either)["verify"] == 3


def test_an_announcement_during_a_first_login(either: DevServer, harness: Make) -> None:
    one = harness(either)
    either.faults("verify", [{"kind": "era", "value": 1, "hold": True}])
    runner = Worker(one.manager.authenticate)
    either.wait_for("verify", 1)
    one.manager.notify_era_change(2)
    either.release()
    assert reason_of(one.discreet(runner.failure())) == "era_mismatch"
    assert (one.manager._state, one.manager._token) == ("UNINITIALIZED", None)
    either.settings(era=2)
    one.manager.authenticate()
    assert era_of(one.manager.get_token()) == 2


def test_a_storm_of_announcements_makes_one_flow_at_a_time(one: Harness, either: DevServer) -> None:
    manager = one.manager
    either.settings(era=50)
    either.faults("register", [{"kind": "hold"}])
    together = threading.Barrier(8)

    def announce(first: int) -> None:
        together.wait(DEADLINE)
        for era in range(first, 51, 8):
            manager.notify_era_change(era)

    for worker in [Worker(announce, first) for first in range(1, 9)]:
        worker.result()
    either.wait_for("register", 2)
    assert manager._pending_era_number == 50
    either.release()
    assert era_of(Worker(manager.get_token).result()) == 50
    assert wire(either) == {"register": 2, "challenge": 2, "verify": 2}


def test_an_announcement_to_the_process_reaches_the_active_manager(
    one: Harness, either: DevServer, active: Callable[[Any], None]
) -> None:
    active(one.manager)
    either.settings(era=5)
    auth.notify_era_change(5)
    assert era_of(one.manager.get_token()) == 5
    one.manager.close()
    assert reason_of(one.failure(auth.notify_era_change, 6)) == "manager_closed"
