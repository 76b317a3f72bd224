"""With the service without a network, a manager and a keeper behave as with the real one."""

from __future__ import annotations

import secrets
from collections.abc import Iterator

import pytest

from tessaline.auth import AuthError, AuthManager, NetworkError, RegistrationError
from tessaline.keeper import Keeper
from tessaline.testing import HOUR, KEY, URL, FakeClock, FakeService, claims_of
from tests.shared.threads import within

WALLETS = 20


@pytest.fixture
def clock() -> FakeClock:
    return FakeClock()


@pytest.fixture
def service() -> FakeService:
    return FakeService()


@pytest.fixture
def manager(clock: FakeClock, service: FakeService) -> Iterator[AuthManager]:
    with AuthManager(KEY, URL, clock=clock, _transport=service) as manager:
        yield manager


def test_a_wallet_logs_in(manager: AuthManager, service: FakeService) -> None:
    manager.authenticate()
    token = manager.get_token()
    assert claims_of(token) == {"sub": manager.get_wallet_address(), "login": 1, "era_number": 1}
    assert service.accepts(token)
    assert service.requests == ["/auth/register", "/auth/challenge", "/auth/verify"]


def test_a_server_url_may_have_a_path(service: FakeService) -> None:
    with AuthManager(KEY, f"{URL}/ape/v2", _transport=service) as manager:
        manager.authenticate()
        assert service.accepts(manager.get_token())


def test_a_name_is_kept_for_who_has_a_good_token(manager: AuthManager, service: FakeService) -> None:
    manager.authenticate()
    manager.set_display_name("Ada")
    assert service.names == {manager.get_wallet_address(): "Ada"}
    service.forget_tokens()
    with pytest.raises(AuthError, match="profile_unauthorized"):
        manager.set_display_name("Grace")
    assert service.names == {manager.get_wallet_address(): "Ada"}


def test_many_wallets_log_in_at_once(service: FakeService) -> None:
    managers = [AuthManager(secrets.token_hex(32), URL, _transport=service) for _ in range(WALLETS)]
    with Keeper(managers, at_once=8) as keeper:
        within(20.0, keeper.start)
        subjects = {address: claims_of(keeper[address].get_token())["sub"] for address in keeper}
    assert len(subjects) == service.logins == WALLETS
    assert all(subject == address for address, subject in subjects.items())


def test_while_it_is_away_nobody_gets_in(service: FakeService) -> None:
    service.away = True
    clock = FakeClock(step=0.5)
    with AuthManager(KEY, URL, clock=clock, _transport=service) as manager:
        with pytest.raises(NetworkError):
            manager.authenticate()
        assert service.requests == ["/auth/register"] * 3
        service.away = False
        manager.authenticate()
    assert service.logins == 1


def test_wallets_that_it_refuses_stay_outside(manager: AuthManager, service: FakeService) -> None:
    service.refuses.add(manager.get_wallet_address())
    with pytest.raises(AuthError) as caught:
        manager.authenticate()
    assert caught.value.reason == "unauthorized"
    service.refuses.clear()
    manager.authenticate()


def test_by_invitation_only(manager: AuthManager, service: FakeService) -> None:
    service.invite_only = True
    with pytest.raises(RegistrationError, match="invite_required"):
        manager.authenticate()
    with AuthManager(secrets.token_hex(32), URL, invite_code="code", _transport=service) as invited:
        invited.authenticate()
    assert service.logins == 1


def test_a_new_era_makes_older_tokens_worthless(manager: AuthManager, service: FakeService) -> None:
    manager.authenticate()
    old = manager.get_token()
    service.era = 2
    assert not service.accepts(old)
    manager.notify_era_change(2)
    assert service.accepts(manager.get_token())
    assert claims_of(manager.get_token())["era_number"] == 2


def test_there_may_be_no_eras(manager: AuthManager, service: FakeService) -> None:
    service.era = None
    manager.authenticate()
    assert "era_number" not in claims_of(manager.get_token())
    assert service.accepts(manager.get_token())


def test_the_clock_stands_still_until_it_is_moved(manager: AuthManager, clock: FakeClock) -> None:
    begun = clock()
    assert clock() == begun
    manager.authenticate()
    clock.advance(18 * HOUR)
    assert clock() - begun == 18 * HOUR
    assert claims_of(manager.get_token())["login"] == 1
    clock.advance(3 * HOUR)
    assert claims_of(manager.get_token())["login"] == 2


def test_with_a_step_it_moves_whenever_it_is_read() -> None:
    clock = FakeClock(step=0.5)
    assert clock() + 0.5 == clock()


def test_what_is_not_asked_for_by_logins_is_not_found(service: FakeService) -> None:
    assert service("GET", f"{URL}/health")[0] == 404
