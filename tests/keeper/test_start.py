"""`start()`: what it waits for, what it raises, and what calling it again does."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest

from tessaline import auth
from tests.contract.support.managers import reason
from tests.contract.support.service import VERIFY
from tests.shared.clocks import HandClock
from tests.shared.threads import Worker, until, within

from .support.driving import has_failed, settle, to_next_attempt
from .support.faults import FINAL, TRANSIENT, answers, away
from .support.service import Service
from .support.wallets import manager

LARGE = 30


def notes(error: BaseException) -> str:
    return "\n".join(getattr(error, "__notes__", []))


def test_it_returns_once_every_wallet_has_a_token(make_keeper: Callable[..., Any], service: Service) -> None:
    keeper = make_keeper(LARGE)
    assert keeper.start() is None
    assert [keeper[one].get_token(timeout=0) for one in keeper] == [service.newest(one) for one in keeper]
    assert len(service.granted) == LARGE


def test_without_waiting_it_returns_at_once(make_keeper: Callable[..., Any], service: Service) -> None:
    gate = service.hold()
    keeper = make_keeper()
    within(2.0, keeper.start, wait=False)
    gate.reached()
    assert keeper.status().state == "logging in"
    asker = Worker(keeper.get_token)
    service.let_go()
    assert asker.result() == service.granted[0].token


def test_without_waiting_it_raises_nothing(make_keeper: Callable[..., Any], service: Service) -> None:
    service.fault, _ = FINAL["verify 401"]
    keeper = make_keeper()
    keeper.start(wait=False)
    until(lambda: keeper.status().state == "stopped", "the stop")


@pytest.mark.parametrize("name", TRANSIENT)
def test_it_goes_on_trying_what_is_transient(
    name: str, make_keeper: Callable[..., Any], service: Service, clock: HandClock
) -> None:
    service.fault, words = TRANSIENT[name]
    keeper = make_keeper()
    starting = Worker(keeper.start)
    has_failed(keeper)
    for _ in range(3):
        to_next_attempt(keeper, clock)
    assert starting.alive
    status = keeper.status()
    assert status.failures == 4
    assert status.reason in (words, "MemoryError")
    service.heal()
    to_next_attempt(keeper, clock)
    starting.result()
    assert keeper.get_token(timeout=0) == service.granted[0].token


@pytest.mark.parametrize("name", FINAL)
def test_it_raises_what_is_final_with_the_address(
    name: str, make_keeper: Callable[..., Any], service: Service
) -> None:
    service.fault, text = FINAL[name]
    keeper = make_keeper()
    (address,) = keeper
    with pytest.raises((auth.AuthError, auth.RegistrationError)) as caught:
        within(5.0, keeper.start)
    assert str(caught.value) == text
    assert address in notes(caught.value)
    assert keeper.status().state == "stopped"


def test_one_wallet_that_fails_does_not_keep_the_others(
    make_keeper: Callable[..., Any], service: Service
) -> None:
    keeper = make_keeper(5, at_once=2)
    bad, *good = keeper
    service.wallet_faults[bad] = answers(401, path=VERIFY)
    with pytest.raises(auth.AuthError) as caught:
        within(5.0, keeper.start)
    assert reason(caught.value) == "signature_mismatch"
    assert bad in notes(caught.value)
    assert [keeper[one].get_token(timeout=0) for one in good] == [service.newest(one) for one in good]
    with pytest.raises(auth.AuthError, match="signature_mismatch"):
        keeper[bad].get_token(timeout=None)


def test_several_that_fail_come_as_a_group(make_keeper: Callable[..., Any], service: Service) -> None:
    keeper = make_keeper(6)
    first, second, third, *_ = keeper
    service.wallet_faults = {
        first: FINAL["verify 401"][0],
        second: FINAL["invite_revoked"][0],
        third: FINAL["register 400"][0],
    }
    with pytest.raises(ExceptionGroup) as caught:
        within(5.0, keeper.start)
    found = {str(error): error for error in caught.value.exceptions}
    assert set(found) == {"signature_mismatch", "invite_revoked", "invalid_address"}
    assert first in notes(found["signature_mismatch"])
    assert second in notes(found["invite_revoked"])
    assert third in notes(found["invalid_address"])


def test_a_wallet_that_waits_for_the_server_keeps_start_waiting(
    make_keeper: Callable[..., Any], service: Service, clock: HandClock
) -> None:
    keeper = make_keeper(2)
    slow, bad = keeper
    service.wallet_faults = {slow: away(), bad: FINAL["verify 401"][0]}
    keeper.start(wait=False)
    until(lambda: keeper[bad].status().state == "stopped", "the stop")
    until(lambda: keeper[slow].status().next_attempt is not None, "a first failure")
    del service.wallet_faults[slow]
    starting = Worker(keeper.start)
    until(lambda: keeper[bad].status().last_failure is not None, "its failure")
    settle(keeper, clock)
    to_next_attempt(keeper, clock)
    assert isinstance(starting.failure(), auth.AuthError)
    assert keeper[slow].get_token(timeout=0) == service.newest(slow)


def test_started_again_it_does_nothing(keeper: Any, service: Service) -> None:
    before = len(service.asked)
    within(2.0, keeper.start)
    within(2.0, keeper.start, wait=False)
    assert len(service.asked) == before


def test_several_threads_that_start_cause_one_login(
    make_keeper: Callable[..., Any], service: Service
) -> None:
    gate = service.hold()
    keeper = make_keeper()
    starting = [Worker(keeper.start) for _ in range(8)]
    gate.reached()
    service.let_go()
    for one in starting:
        one.result()
    assert len(service.granted) == 1


def test_started_again_it_tries_those_that_have_stopped(
    make_keeper: Callable[..., Any], service: Service
) -> None:
    keeper = make_keeper(3)
    bad, *good = keeper
    service.wallet_faults[bad] = FINAL["verify 401"][0]
    for _ in range(2):
        with pytest.raises(auth.AuthError, match="signature_mismatch"):
            within(5.0, keeper.start)
    service.heal()
    within(5.0, keeper.start)
    assert keeper[bad].get_token(timeout=0) == service.newest(bad)
    assert keeper[bad].status().state == "good"
    assert [len(service.tokens(one)) for one in good] == [1, 1]


def test_a_manager_that_has_logged_in_before_is_taken_over(
    make_keeper: Callable[..., Any], service: Service, clock: HandClock
) -> None:
    before = manager(service, clock)
    before.authenticate()
    keeper = make_keeper(managers=before)
    keeper.start()
    assert keeper.get_token(timeout=0) == service.granted[-1].token


def test_after_the_end_it_says_so(make_keeper: Callable[..., Any]) -> None:
    keeper = make_keeper()
    keeper.close()
    for wait in (True, False):
        with pytest.raises(auth.AuthError) as caught:
            keeper.start(wait=wait)
        assert reason(caught.value) == "manager_closed"


def test_a_close_ends_the_waiting(make_keeper: Callable[..., Any], service: Service) -> None:
    service.fault = away()
    keeper = make_keeper()
    starting = Worker(keeper.start)
    has_failed(keeper)
    keeper.close()
    assert reason(starting.failure(3.0)) == "manager_closed"


@pytest.mark.parametrize(
    "options",
    [
        {"renew_at": 0.0},
        {"renew_at": -0.5},
        {"renew_at": 1.0},
        {"renew_at": float("nan")},
        {"at_once": 0},
        {"at_once": -1},
    ],
    ids=str,
)
def test_numbers_that_make_no_sense_are_refused(
    make_keeper: Callable[..., Any], options: dict[str, Any]
) -> None:
    with pytest.raises(ValueError):
        make_keeper(**options)


def test_nothing_happens_before_the_start(
    make_keeper: Callable[..., Any], service: Service, census: Any
) -> None:
    keeper = make_keeper(3)
    assert keeper.status().state == "not started"
    assert census.newcomers() == []
    assert service.asked == []
