"""Many wallets at the development server: bounded logins, failures by wallet, one era for all, one close."""

from __future__ import annotations

import secrets
from collections.abc import Iterator

import pytest

import canary
from devserver.testing import DevServer
from examples.test_application import claims_of
from examples.wallet_fleet import WalletFleet
from tessaline.auth import AuthError, AuthManager, InvalidKeyError
from tests.shared.threads import Worker

WALLETS = 12


@pytest.fixture
def fleet(server: DevServer, no_thread_left: None) -> Iterator[WalletFleet]:
    managers = (AuthManager(secrets.token_hex(32), server.url) for _ in range(WALLETS))
    with WalletFleet(managers, at_once=3) as fleet:
        yield fleet


def eras(fleet: WalletFleet) -> set[int]:
    tokens = [manager.get_token() for manager in fleet]
    for token in tokens:
        canary.plant("token", token)
    return {claims_of(token)["era_number"] for token in tokens}


def test_no_more_wallets_log_in_at_once_than_asked_for(server: DevServer, fleet: WalletFleet) -> None:
    server.faults("challenge", [{"kind": "hold"}] * 3)
    logging_in = Worker(fleet.log_in)
    server.wait_for("challenge", 3)
    assert server.state()["counts"]["register"] == 3
    server.release()
    assert logging_in.result() == {}
    assert server.state()["counts"]["verify"] == len(fleet) == WALLETS
    assert eras(fleet) == {1}


def test_failures_are_told_by_wallet_and_only_they_are_tried_again(
    server: DevServer, fleet: WalletFleet
) -> None:
    server.faults("register", [{"kind": "status", "status": 403}] * 2)
    failures = fleet.log_in()
    assert [str(failure) for failure in failures.values()] == ["unauthorized"] * 2
    for address in failures:
        with pytest.raises(AuthError, match="not_authenticated"):
            fleet[address].get_token()
    assert fleet.log_in() == {}
    assert server.state()["counts"]["verify"] == WALLETS
    assert eras(fleet) == {1}


def test_one_announcement_reaches_every_wallet(server: DevServer, fleet: WalletFleet) -> None:
    server.faults("register", [{"kind": "status", "status": 403}])
    (late,) = fleet.log_in()
    server.settings(era=2)
    fleet.notify_era_change(2)
    assert fleet.log_in() == {}
    assert fleet[late.upper().replace("0X", "0x")] is fleet[late]
    assert eras(fleet) == {2}
    with pytest.raises(ValueError, match="era_number"):
        fleet.notify_era_change(0)


def test_a_wallet_that_cannot_be_told_does_not_keep_it_from_the_others(
    server: DevServer, fleet: WalletFleet, monkeypatch: pytest.MonkeyPatch
) -> None:
    class Unstartable(AuthManager):
        def notify_era_change(self, new_era_number: int) -> None:
            raise RuntimeError("can't start new thread")

    fleet.log_in()
    server.settings(era=2)
    with WalletFleet([Unstartable(secrets.token_hex(32), server.url), *fleet]) as larger:
        with pytest.raises(ExceptionGroup) as caught:
            larger.notify_era_change(2)
        assert [str(error) for error in caught.value.exceptions] == ["can't start new thread"]
        assert eras(fleet) == {2}


def test_closing_ends_what_is_under_way(server: DevServer, fleet: WalletFleet) -> None:
    server.faults("challenge", [{"kind": "status", "status": 503, "times": None}])
    logging_in = Worker(fleet.log_in)
    server.wait_for("challenge", 3)
    fleet.close()
    failures = logging_in.result()
    assert len(failures) == WALLETS
    assert {str(failure) for failure in failures.values()} == {"manager_closed"}


def test_a_bad_key_closes_the_managers_before_it(server: DevServer) -> None:
    made: list[AuthManager] = []

    def managers() -> Iterator[AuthManager]:
        made.append(AuthManager(secrets.token_hex(32), server.url))
        yield made[0]
        yield AuthManager("no key", server.url)

    with pytest.raises(InvalidKeyError):
        WalletFleet(managers())
    with pytest.raises(AuthError, match="manager_closed"):
        made[0].get_token()
