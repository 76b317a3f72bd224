"""Tests of an application that uses a wallet: no network and no waiting, even for a token to expire.

    python -m pytest test_application.py

`tessaline.testing` has a clock that the test moves, a service with a switch for each kind of
failure, and fixtures that combine them. `Bot` is the application under test. It gets its token source
as an argument, so a test passes it a keeper with that clock and service.
"""

from __future__ import annotations

import threading

import pytest

from tessaline.auth import AuthError, AuthManager, RegistrationError
from tessaline.keeper import Keeper
from tessaline.testing import HOUR, KEY, URL, FakeClock, FakeService, claims_of

# In a project of your own: `tessaline_fixtures = true` among pytest's ini options.
pytest_plugins = ["tessaline.testing.fixtures"]


class Bot:
    """The application: it sends the wallet's token with its requests."""

    def __init__(self, keeper: Keeper) -> None:
        self.keeper = keeper

    def headers(self) -> dict[str, str]:
        return {"Authorization": f"Bearer {self.keeper.get_token()}"}

    def is_healthy(self) -> bool:
        return self.keeper.status().seconds_left > HOUR


@pytest.fixture
def bot(tessaline_keeper: Keeper) -> Bot:
    """One that has logged in."""
    return Bot(tessaline_keeper)


def login_of(bot: Bot) -> int:
    """The number of the login that the bot's token comes from."""
    login: int = claims_of(bot.headers()["Authorization"])["login"]
    return login


def test_the_bot_speaks_for_its_wallet(bot: Bot) -> None:
    assert claims_of(bot.headers()["Authorization"])["sub"] in bot.keeper


def test_the_token_is_kept_while_it_is_young(bot: Bot, tessaline_clock: FakeClock) -> None:
    tessaline_clock.advance(12 * HOUR)
    assert login_of(bot) == 1


def test_an_outage_of_ten_hours_does_no_harm(
    bot: Bot, tessaline_clock: FakeClock, tessaline_service: FakeService
) -> None:
    tessaline_service.away = True
    for _ in range(10):
        tessaline_clock.advance(HOUR)
        assert bot.is_healthy()
        assert login_of(bot) == 1


def test_when_the_day_is_over_the_bot_waits_for_the_service(
    bot: Bot, tessaline_clock: FakeClock, tessaline_service: FakeService
) -> None:
    tessaline_service.away = True
    tessaline_clock.advance(25 * HOUR)
    assert not bot.is_healthy()
    tessaline_service.away = False
    # The keeper retries after a back-off, which is measured on the clock too.
    tessaline_clock.step = 1.0
    assert login_of(bot) == 2


def test_an_announced_era_brings_a_token_of_that_era(bot: Bot, tessaline_service: FakeService) -> None:
    tessaline_service.era = 2
    bot.keeper.notify_era_change(2)
    assert claims_of(bot.headers()["Authorization"])["era_number"] == 2


def test_a_refused_token_is_replaced(bot: Bot, tessaline_service: FakeService) -> None:
    tessaline_service.forget_tokens()
    refused = bot.keeper.get_token()
    assert not tessaline_service.accepts(refused)
    assert bot.keeper.report_refused(refused)
    assert tessaline_service.accepts(bot.keeper.get_token())


def test_without_an_invite_the_bot_does_not_start(
    tessaline_manager: AuthManager, tessaline_service: FakeService
) -> None:
    tessaline_service.invite_only = True
    with Keeper(tessaline_manager) as keeper, pytest.raises(RegistrationError, match="invite_required"):
        keeper.start()


def test_a_bot_that_was_stopped_gets_no_token_any_more(bot: Bot) -> None:
    bot.keeper.close()
    with pytest.raises(AuthError) as caught:
        bot.headers()
    assert caught.value.reason == "manager_closed"


def test_stopping_leaves_no_thread_behind() -> None:
    before = set(threading.enumerate())
    with Keeper(AuthManager(KEY, URL, clock=FakeClock(), _transport=FakeService())) as keeper:
        keeper.start()
        own = set(threading.enumerate()) - before
    for thread in own:
        thread.join(10)
    assert own
    assert not any(thread.is_alive() for thread in own)
