"""`report_refused()`: one login for all reports of a token, at most every five minutes."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest

from tests.shared.clocks import HandClock
from tests.shared.threads import Worker, until

from .support.driving import pass_time
from .support.faults import FINAL, away
from .support.service import LIFETIME, Service

PAUSE = 300.0
FIRST = 2 * PAUSE


@pytest.fixture
def older(keeper: Any, clock: HandClock) -> Any:
    """A keeper whose token is some minutes old."""
    pass_time(keeper, clock, FIRST)
    return keeper


def test_the_current_token_is_replaced(older: Any, service: Service) -> None:
    refused = older.get_token()
    assert older.report_refused(refused) is True
    assert older.get_token(timeout=0) == service.granted[1].token != refused


def test_a_token_that_is_not_current_costs_nothing(older: Any, service: Service) -> None:
    first = older.get_token()
    assert older.report_refused(first) is True
    asked = len(service.asked)
    assert older.report_refused(first) is True
    assert len(service.asked) == asked


def test_a_text_that_was_never_a_token_costs_nothing(older: Any, service: Service) -> None:
    asked = len(service.asked)
    assert older.report_refused("nobody's token") is True
    assert len(service.asked) == asked


def test_many_who_report_cause_one_login(older: Any, service: Service) -> None:
    refused = older.get_token()
    gate = service.hold()
    reporting = [Worker(older.report_refused, refused) for _ in range(20)]
    gate.reached()
    # The old copy is better than none.
    assert older.get_token(timeout=0) == refused
    assert all(one.alive for one in reporting)
    service.let_go()
    assert [one.result() for one in reporting] == [True] * 20
    assert len(service.granted) == 2


def test_at_most_one_login_in_five_minutes(older: Any, service: Service, clock: HandClock) -> None:
    assert older.report_refused(older.get_token()) is True
    for _ in range(3):
        clock.now += PAUSE / 3 - 1
        assert older.report_refused(older.get_token()) is False
    assert len(service.granted) == 2
    clock.now += 4
    assert older.report_refused(older.get_token()) is True
    assert len(service.granted) == 3


def test_a_login_that_failed_counts_as_well(older: Any, service: Service, clock: HandClock) -> None:
    # Otherwise a program that gets 100 refusals a second would send the server as many logins.
    service.fault = away()
    refused = older.get_token()
    assert older.report_refused(refused) is False
    asked = len(service.asked)
    assert older.report_refused(refused) is False
    assert len(service.asked) == asked
    assert older.get_token(timeout=0) == refused


def test_a_login_that_fails_for_now_leaves_the_old_copy(
    older: Any, service: Service, clock: HandClock
) -> None:
    service.fault = away()
    refused = older.get_token()
    assert older.report_refused(refused) is False
    service.heal()
    pass_time(older, clock, 600.0)
    assert older.get_token(timeout=0) in [granted.token for granted in service.granted]


def test_a_final_refusal_is_told_by_false(older: Any, service: Service) -> None:
    service.fault = FINAL["verify 401"][0]
    refused = older.get_token()
    assert older.report_refused(refused) is False
    until(lambda: older.status().state == "stopped", "the stop")
    assert older.get_token(timeout=0) == refused


def test_one_wallet_of_a_fleet_alone(
    make_keeper: Callable[..., Any], service: Service, clock: HandClock
) -> None:
    keeper = make_keeper(4)
    keeper.start()
    pass_time(keeper, clock, FIRST)
    one, *others = keeper
    assert keeper[one].report_refused(keeper[one].get_token()) is True
    assert len(service.tokens(one)) == 2
    assert all(len(service.tokens(other)) == 1 for other in others)
    # Its five minutes are independent of the others'.
    assert keeper[others[0]].report_refused(keeper[others[0]].get_token()) is True


def test_a_report_joins_a_renewal_that_is_under_way(keeper: Any, service: Service, clock: HandClock) -> None:
    gate = service.hold()
    clock.now += 0.63 * LIFETIME + 1
    gate.reached()
    reporting = Worker(keeper.report_refused, keeper.get_token())
    service.let_go()
    assert reporting.result() is True
    assert len(service.granted) == 2


def test_after_the_end_there_is_no_other_token(older: Any, service: Service) -> None:
    refused = older.get_token()
    older.close()
    asked = len(service.asked)
    worker = Worker(older.report_refused, refused).finish()
    assert worker.value is not True
    assert len(service.asked) == asked


def test_a_close_ends_the_waiting(older: Any, service: Service) -> None:
    gate = service.hold()
    reporting = Worker(older.report_refused, older.get_token())
    gate.reached()
    older.close()
    assert reporting.finish(3.0).value is not True


def test_a_server_that_hangs_holds_nobody_for_long(hanging_report: Any) -> None:
    report, keeper, refused = hanging_report
    assert keeper.get_token(timeout=0) == refused
    assert report.result(15.0) is False
    assert 5.0 < report.seconds < 13.0
    assert keeper.get_token(timeout=0) == refused
