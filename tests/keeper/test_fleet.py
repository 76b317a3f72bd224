"""Many wallets: a few concurrent logins, one thread for all, and no wallet that delays the others."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest

from tests.contract.support.service import era_of
from tests.contract.support.threads import ThreadCensus
from tests.shared.clocks import HandClock
from tests.shared.threads import Worker, until

from .support.driving import has_failed, pass_time, settle, to_next_attempt
from .support.faults import FINAL, away
from .support.service import LIFETIME, LOGIN_THREAD, Service

WALLETS = 60
AT_ONCE = 4


def workers(census: ThreadCensus) -> int:
    return sum(thread.name.startswith(LOGIN_THREAD) for thread in census.newcomers())


def check_the_bound(service: Service, keeper: Any, census: ThreadCensus, at_once: int) -> None:
    """The gate holds the maximum number of logins, and no further one arrives."""
    until(lambda: len(service.under_way) == at_once, "a full gate")
    assert len(set(service.under_way)) == at_once
    assert workers(census) <= at_once
    service.let_go()
    until(lambda: all(one.state == "good" for one in keeper.status().wallets.values()), "good tokens")
    assert service.most_at_once == at_once
    assert max(asked.login_threads for asked in service.asked) <= at_once


def at_the_start(service: Service, keeper: Any, clock: HandClock) -> None:
    service.hold()
    keeper.start(wait=False)


def at_an_era(service: Service, keeper: Any, clock: HandClock) -> None:
    keeper.start()
    service.hold()
    service.era = 2
    keeper.notify_era_change(2)


def after_an_outage(service: Service, keeper: Any, clock: HandClock) -> None:
    keeper.start()
    service.fault = away()
    pass_time(keeper, clock, LIFETIME)
    service.hold()
    service.heal()
    clock.now += 1000.0


def after_a_long_sleep(service: Service, keeper: Any, clock: HandClock) -> None:
    keeper.start()
    service.hold()
    clock.now += 20 * 3600.0


@pytest.mark.parametrize("at_once", [1, AT_ONCE])
@pytest.mark.parametrize("set_off", [at_the_start, at_an_era, after_an_outage, after_a_long_sleep])
def test_so_many_log_in_at_once_and_no_more(
    set_off: Callable[..., None],
    at_once: int,
    make_keeper: Callable[..., Any],
    service: Service,
    clock: HandClock,
    census: ThreadCensus,
) -> None:
    keeper = make_keeper(WALLETS, at_once=at_once)
    set_off(service, keeper, clock)
    check_the_bound(service, keeper, census, at_once)


def test_eight_are_usual(
    make_keeper: Callable[..., Any], service: Service, clock: HandClock, census: Any
) -> None:
    keeper = make_keeper(WALLETS)
    at_the_start(service, keeper, clock)
    check_the_bound(service, keeper, census, 8)


def test_no_worker_idles(
    make_keeper: Callable[..., Any], service: Service, census: ThreadCensus, clock: HandClock
) -> None:
    keeper = make_keeper(WALLETS, at_once=AT_ONCE)
    assert census.newcomers() == []
    keeper.start()
    until(lambda: workers(census) == 0, "the workers' end")
    assert len(census.newcomers()) == 1
    pass_time(keeper, clock, LIFETIME)
    until(lambda: workers(census) == 0, "the workers' end")
    assert len(census.newcomers()) == 1


def test_one_busy_wallet_makes_one_worker(
    make_keeper: Callable[..., Any], service: Service, census: Any
) -> None:
    keeper = make_keeper(1, at_once=AT_ONCE)
    gate = service.hold()
    keeper.start(wait=False)
    gate.reached()
    assert workers(census) == 1


def test_wallets_that_hang_leave_the_rest_what_they_do_not_hold(
    make_keeper: Callable[..., Any], service: Service, clock: HandClock
) -> None:
    keeper = make_keeper(WALLETS, at_once=AT_ONCE)
    *slow, _ = list(keeper)[:AT_ONCE]
    for one in slow:
        service.hold(one)
    keeper.start(wait=False)
    others = [one for one in keeper if one not in slow]
    for _ in range(2):
        until(lambda: all(keeper[one].status().state == "good" for one in others), "the others' tokens")
        clock.now += 0.63 * LIFETIME + 1
        until(
            lambda: all(keeper[one].status().last_success == clock.now for one in others),
            "the others' renewals",
        )
    assert [service.tokens(one) for one in slow] == [[], [], []]


@pytest.mark.parametrize("kind", ["away", "final"])
def test_wallets_that_always_fail_do_not_starve_the_others(
    kind: str, make_keeper: Callable[..., Any], service: Service, clock: HandClock
) -> None:
    keeper = make_keeper(WALLETS, at_once=2)
    bad = list(keeper)[: WALLETS // 2]
    for one in bad:
        service.wallet_faults[one] = away() if kind == "away" else FINAL["verify 401"][0]
    keeper.start(wait=False)
    good = [one for one in keeper if one not in bad]
    until(lambda: all(keeper[one].status().state == "good" for one in good), "the others' tokens")
    settle(keeper, clock)
    for _ in range(3):
        pass_time(keeper, clock, 0.63 * LIFETIME + 1)
    assert all(len(service.tokens(one)) == 4 for one in good)


def test_due_wallets_take_turns(make_keeper: Callable[..., Any], service: Service, clock: HandClock) -> None:
    # Of wallets that are due at the same time, none is retried before all were tried once.
    service.fault = away()
    keeper = make_keeper(20, at_once=1)
    keeper.start(wait=False)
    has_failed(keeper)
    before = len(service.asked)
    pass_time(keeper, clock, 3600.0)
    order = [asked.address for asked in service.asked[before:]]
    firsts = list(dict.fromkeys(order))
    assert sorted(firsts) == sorted(keeper)
    assert len(order) == 3 * len(firsts)


def test_who_waits_for_one_wallet_is_not_kept_by_another(
    make_keeper: Callable[..., Any], service: Service, clock: HandClock
) -> None:
    keeper = make_keeper(2)
    one, other = keeper
    service.hold(one)
    keeper.start(wait=False)
    waiting = Worker(keeper[one].get_token, timeout=None)
    assert keeper[other].get_token() == service.newest(other)
    assert waiting.alive
    service.let_go()
    assert waiting.result() == service.newest(one)


def test_an_era_reaches_a_fleet_while_part_of_it_cannot_be_reached(
    make_keeper: Callable[..., Any], service: Service, clock: HandClock
) -> None:
    keeper = make_keeper(12, at_once=2)
    keeper.start()
    *bad, _ = list(keeper)[:5]
    service.wallet_faults = dict.fromkeys(bad, away())
    service.era = 2
    keeper.notify_era_change(2)
    for one in keeper:
        if one not in bad:
            assert era_of(keeper[one].get_token()) == 2
    service.heal()
    settle(keeper, clock)
    to_next_attempt(keeper, clock)
    pass_time(keeper, clock, 600.0)
    assert {era_of(keeper[one].get_token(timeout=0)) for one in keeper} == {2}
