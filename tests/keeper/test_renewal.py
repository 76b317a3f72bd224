"""When the keeper renews: early, with jitter, and before the managers would."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest

from tests.contract.support.threads import ThreadCensus
from tests.shared.clocks import HandClock
from tests.shared.threads import until

from .support.driving import Heard, pass_time, settle
from .support.service import LIFETIME, Service
from .support.wallets import fleet

WALLETS = 40
# In seconds of the wall clock.
SHORT = 1.0


@pytest.mark.parametrize("renew_at", [0.6, 0.3, 0.75])
def test_renewals_are_spread_around_their_time(
    renew_at: float, make_keeper: Callable[..., Any], service: Service, clock: HandClock
) -> None:
    keeper = make_keeper(WALLETS, renew_at=renew_at)
    keeper.start()
    began = clock.now
    earliest, latest = 0.95 * renew_at * LIFETIME, 1.05 * renew_at * LIFETIME
    pass_time(keeper, clock, earliest - SHORT)
    assert len(service.granted) == WALLETS
    middle = 0
    for part in range(1, 5):
        clock.now = began + earliest + (latest - earliest) * part / 5
        settle(keeper, clock)
        middle += 0 < len(service.granted) - WALLETS < WALLETS
    clock.now = began + latest + SHORT
    settle(keeper, clock)
    assert [len(service.tokens(one)) for one in keeper] == [2] * WALLETS
    # If all forty were within a fifth of the range, there would be no jitter.
    assert middle >= 2


def test_the_usual_time_is_three_fifths(
    make_keeper: Callable[..., Any], service: Service, clock: HandClock
) -> None:
    keeper = make_keeper(WALLETS)
    keeper.start()
    pass_time(keeper, clock, 0.57 * LIFETIME - SHORT)
    assert len(service.granted) == WALLETS
    pass_time(keeper, clock, 0.06 * LIFETIME + 2 * SHORT)
    assert len(service.granted) == 2 * WALLETS


def test_the_token_is_replaced_once_it_is_renewed(keeper: Any, service: Service, clock: HandClock) -> None:
    for day in range(1, 8):
        assert keeper.get_token(timeout=0) == service.granted[-1].token
        pass_time(keeper, clock, 0.63 * LIFETIME + SHORT)
        assert len(service.granted) == day + 1
        status = keeper.status()
        assert status.expiry == status.last_success + LIFETIME == clock.now + LIFETIME
    assert keeper.get_token(timeout=0) == service.granted[-1].token


def test_managers_run_no_renewal_of_their_own(
    make_keeper: Callable[..., Any], service: Service, clock: HandClock, census: ThreadCensus
) -> None:
    managers = fleet(service, clock, 12)
    keeper = make_keeper(managers=managers)
    keeper.start()
    for _ in range(2):
        until(lambda: len(census.newcomers()) == 1, "one thread for all")
        assert [thread.name for thread in census.newcomers()] == ["tessaline-keeper"]
        pass_time(keeper, clock, 0.63 * LIFETIME + SHORT)
    assert len(service.granted) == 36


def test_every_renewal_is_the_keepers(
    make_keeper: Callable[..., Any], service: Service, clock: HandClock, heard: Heard
) -> None:
    keeper = make_keeper()
    keeper.start()
    # In steps that are too large for either: past the managers' own renewal, and past the expiry.
    for hours in (20, 23, 30, 16):
        pass_time(keeper, clock, hours * 3600.0)
    assert len(service.granted) == 5
    assert heard.kinds().count("logged in") + heard.kinds().count("renewed") == 5
