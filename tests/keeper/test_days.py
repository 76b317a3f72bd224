"""A few of the hundred days of `make chaos`, and whether they detect faults."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from typing import Any

import pytest

from chaos import run_keeper
from chaos.keeper_days import Days
from chaos.keeper_weather import DAY, HOUR, Change, drawn
from chaos.watchdog import Watchdog

from .support.faults import away
from .support.service import LIFETIME

SEED = "1"


@pytest.fixture(scope="module")
def watchdog() -> Iterator[Watchdog]:
    dog = Watchdog(60)
    yield dog
    dog.rest()


def test_days_with_a_third_of_outages(watchdog: Watchdog) -> None:
    figures = run_keeper.run(SEED, 5, watchdog)
    assert (figures.keeper_days, figures.violations) == (5, 0)
    assert figures.outages >= 5
    assert figures.eras >= 1
    assert figures.logins > 5 * 4
    assert figures.served > 1000


def test_a_third_of_a_hundred_days_is_bad_weather() -> None:
    changes = drawn(SEED, 100)
    outages = [(change.at, other.at) for change, other in both(changes)]
    away_for = sum(end - begin for begin, end in outages)
    assert 0.25 < away_for / (100 * DAY) < 0.4
    # Some are over in seconds, some outlast every token that was renewed at 60 % of its lifetime.
    assert min(end - begin for begin, end in outages) < 60
    assert max(end - begin for begin, end in outages) > 0.43 * LIFETIME
    assert {change.kind for change in changes} == {"away", "back", "era", "set clock", "refused"}
    assert [change.at for change in changes] == sorted(change.at for change in changes)


def both(changes: list[Change]) -> list[tuple[Change, Change]]:
    """The begin and end of each outage."""
    begins = [change for change in changes if change.kind == "away"]
    ends = [change for change in changes if change.kind == "back"]
    return list(zip(begins, ends, strict=False))


def test_the_same_seed_draws_the_same_days() -> None:
    assert drawn("3", 20) == drawn("3", 20)
    assert drawn("3", 20) != drawn("4", 20)


# They detect faults.

OUTAGE = [Change(at=12 * HOUR, kind="away", fault=away()), Change(at=44 * HOUR, kind="back")]
ERA = [Change(at=6 * HOUR, kind="era", number=2 * HOUR)]


def trouble_with(ask: Callable[[Days, str, str | None], str | None], changes: list[Change]) -> str:
    """The violations seen for a keeper that reports something else: `ask` changes what it returns."""

    class Other(Days):
        def _ask(self, address: str) -> str | None:
            return ask(self, address, super()._ask(address))

    days = Other(SEED)
    days.live(changes, 3 * DAY)
    return "\n".join(days.trouble)


def test_nothing_is_wrong_with_what_the_keeper_says() -> None:
    assert trouble_with(lambda days, address, said: said, [*ERA, *OUTAGE]) == ""


def test_a_refusal_while_a_token_is_good_is_seen() -> None:
    said = trouble_with(lambda days, address, said: said if days.true_time < DAY else None, OUTAGE)
    assert "none though one is good" in said or "refused while a token was good" in said


def first_token(days: Days, address: str, said: Any) -> str:
    return next(one.token for one in days.service.granted if one.address == address)


def test_an_expired_token_is_seen() -> None:
    outage = [Change(at=1 * HOUR, kind="away", fault=away()), Change(at=70 * HOUR, kind="back")]
    assert "a token that is not good" in trouble_with(first_token, outage)


def test_a_token_of_an_older_era_is_seen() -> None:
    said = trouble_with(first_token, ERA)
    assert "a token that is not good" in said or "a token of an older era" in said


def test_an_outage_that_is_not_slept_through_in_time_is_seen(monkeypatch: pytest.MonkeyPatch) -> None:
    # The server is up, but some wallets are still cut off from it.
    days = Days(SEED)
    monkeypatch.setattr(days.service, "heal", lambda: None)
    days.live([OUTAGE[0], Change(at=60 * HOUR, kind="back")], 3 * DAY)
    assert "after the server was back" in "\n".join(days.trouble)
