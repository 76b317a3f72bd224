"""How to test an application that uses `AuthManager`: no network, no waiting, and a day passes in a
moment.

    python -m pytest examples/test_application.py

The manager takes a clock and a transport. `FakeClock` moves only when the test says so; `FakeService` is
the server in a few lines, with a switch for each thing that can go wrong. `Bot` stands for the application
under test.
"""

from __future__ import annotations

import base64
import json
import threading
from collections.abc import Iterator, Mapping
from typing import TYPE_CHECKING, Any

import pytest

from tessaline.auth import AuthError, AuthManager, NetworkError, RegistrationError

if TYPE_CHECKING:
    from tessaline.auth import Clock, HttpTransport

# A key for tests, out of nobody's wallet.
KEY = f"{1:064x}"
URL = "https://service.example"
HOUR = 3600.0


class FakeClock:
    """A clock that is moved by hand.

    Back-off waits are measured with it too. A manager that finds it standing still gives such a wait up after
    a second; with `step` it moves a little whenever it is read, and back-off costs next to nothing.
    """

    def __init__(self, step: float = 0.0) -> None:
        self.now = 1_800_000_000.0
        self.step = step

    def __call__(self) -> float:
        self.now += self.step
        return self.now


class FakeService:
    """The server: a transport that answers by itself."""

    def __init__(self) -> None:
        self.era = 1
        self.logins = 0
        self.away = False
        self.invite_only = False
        self.names: dict[str, str] = {}
        self._address = ""

    def __call__(
        self, method: str, url: str, headers: Mapping[str, str] | None = None, body: str | bytes | None = None
    ) -> tuple[int, Mapping[str, str], bytes]:
        if self.away:
            raise ConnectionError("the service is away")
        status, answer = self._answer(url.removeprefix(URL), json.loads(body or "{}"))
        return status, {}, json.dumps(answer).encode()

    def _answer(self, path: str, asked: dict[str, Any]) -> tuple[int, dict[str, Any]]:
        match path:
            case "/auth/register" if self.invite_only and "invite_code" not in asked:
                return 403, {"error": "invite_required"}
            case "/auth/register":
                return 200, {}
            case "/auth/challenge":
                self._address = asked["wallet_address"]
                return 200, {"challenge_id": "1", "message": "Log in"}
            case "/auth/verify":
                self.logins += 1
                secret = base64.b64encode(bytes(32)).decode()
                return 200, {"token": self._token(), "expires_at": 0, "wallet_secret": secret}
            case "/api/profile/display_name":
                self.names[self._address] = asked["display_name"]
                return 200, asked
            case _:
                return 404, {}

    def _token(self) -> str:
        """A token as the manager reads it; it leaves the signature to the servers."""
        claims = {"sub": self._address, "era_number": self.era, "login": self.logins}
        parts = ({"alg": "none"}, claims)
        coded = [base64.urlsafe_b64encode(json.dumps(part).encode()).rstrip(b"=").decode() for part in parts]
        return ".".join([*coded, "signature"])


def claims_of(token: str) -> dict[str, Any]:
    payload = token.split(".")[1]
    claims: dict[str, Any] = json.loads(base64.urlsafe_b64decode(payload + "=" * (-len(payload) % 4)))
    return claims


class Bot:
    """The application: it heads its requests with the wallet's token, and has a name."""

    def __init__(
        self, key: str, *, clock: Clock | None = None, transport: HttpTransport | None = None
    ) -> None:
        self.manager = AuthManager(key, URL, clock=clock, _transport=transport)

    def start(self) -> None:
        self.manager.authenticate()
        self.manager.set_display_name("Ada")

    def headers(self) -> dict[str, str]:
        return {"Authorization": f"Bearer {self.manager.get_token()}"}

    def stop(self) -> None:
        self.manager.close()


@pytest.fixture
def clock() -> FakeClock:
    return FakeClock()


@pytest.fixture
def service() -> FakeService:
    return FakeService()


@pytest.fixture
def bot(clock: FakeClock, service: FakeService) -> Iterator[Bot]:
    bot = Bot(KEY, clock=clock, transport=service)
    yield bot
    # Ends the manager's thread, whatever the test did.
    bot.stop()


def login_of(bot: Bot) -> int:
    """The number of the login that the bot's token comes from."""
    login: int = claims_of(bot.headers()["Authorization"])["login"]
    return login


def test_the_bot_logs_in_and_names_itself(bot: Bot, service: FakeService) -> None:
    bot.start()
    assert service.names == {bot.manager.get_wallet_address(): "Ada"}
    assert claims_of(bot.headers()["Authorization"])["sub"] == bot.manager.get_wallet_address()


def test_the_token_is_kept_while_it_is_young(bot: Bot, clock: FakeClock) -> None:
    bot.start()
    clock.now += 18 * HOUR
    assert login_of(bot) == 1


def test_the_token_is_renewed_before_the_day_is_over(bot: Bot, clock: FakeClock) -> None:
    bot.start()
    # The renewal is due after some four fifths of a day; who asks then waits for it.
    clock.now += 21 * HOUR
    assert login_of(bot) == 2


def test_an_outage_does_not_touch_a_token_that_is_young(bot: Bot, service: FakeService) -> None:
    bot.start()
    service.away = True
    assert login_of(bot) == 1


def test_a_service_that_is_away_at_the_start_is_reported(service: FakeService) -> None:
    service.away = True
    bot = Bot(KEY, clock=FakeClock(step=0.5), transport=service)
    with pytest.raises(NetworkError):
        bot.start()
    service.away = False
    bot.start()
    assert login_of(bot) == 1
    bot.stop()


def test_without_an_invite_the_bot_does_not_start(bot: Bot, service: FakeService) -> None:
    service.invite_only = True
    with pytest.raises(RegistrationError, match="invite_required"):
        bot.start()


def test_an_announced_era_brings_a_token_of_that_era(bot: Bot, service: FakeService) -> None:
    bot.start()
    service.era = 2
    bot.manager.notify_era_change(2)
    assert claims_of(bot.headers()["Authorization"])["era_number"] == 2


def test_a_bot_that_was_stopped_gets_no_token_any_more(bot: Bot) -> None:
    bot.start()
    bot.stop()
    with pytest.raises(AuthError) as caught:
        bot.headers()
    assert caught.value.reason == "manager_closed"


def test_stopping_leaves_no_thread_behind(bot: Bot) -> None:
    before = set(threading.enumerate())
    bot.start()
    own = set(threading.enumerate()) - before
    bot.stop()
    for thread in own:
        thread.join(10)
    assert own
    assert not any(thread.is_alive() for thread in own)
