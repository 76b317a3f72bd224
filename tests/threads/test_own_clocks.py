"""However a program provides its own clock, `get_token` uses it, at once and as long as it is set."""

from __future__ import annotations

import time
from collections.abc import Iterator
from typing import Any

import pytest

from tessaline import auth
from tests.contract.support.host import ShortSleeps
from tests.contract.support.managers import KEY
from tests.contract.support.service import BASE, Service

AHEAD = 200_000.0
TOKEN = "a.b.c"


class Sub(auth.AuthManager):
    """What a program may patch without changing every manager."""


@pytest.fixture(autouse=True)
def no_sleep(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(auth, "_time", ShortSleeps())


def serving(kind: Any) -> Any:
    """A manager on the wall clock, by which its token is valid and no refresh is due."""
    manager = kind(KEY, BASE, _transport=Service())
    now = time.time()
    manager._state, manager._token, manager._auth_time = "AUTHENTICATED", TOKEN, now
    manager._token_expiry, manager._refresh_at = now + AHEAD / 2, now + AHEAD / 2
    return manager


def check(manager: Any, ahead: float) -> None:
    """The manager's time is that far ahead, and its tokens are served accordingly."""
    assert abs(manager._get_time() - time.time() - ahead) < 1000.0
    now = manager._get_time()
    for _ in range(2):
        manager._token_expiry = manager._refresh_at = now + 5000.0
        assert manager.get_token() == TOKEN
        manager._token_expiry = now - 5000.0
        with pytest.raises(auth.AuthError) as refused:
            manager.get_token()
        assert refused.value.reason == "token_expired"
        # A refresh that is due is requested, and here it is done at once.
        manager._token_expiry, manager._refresh_at = now + 5000.0, now - 5000.0
        manager._refresh_done.set()
        manager._refresh_event.clear()
        assert manager.get_token() == TOKEN
        assert manager._refresh_event.is_set()


def ahead() -> float:
    return time.time() + AHEAD


class Property(auth.AuthManager):
    _clock: Any = property(lambda self: ahead, lambda self, given: None)


class Getattribute(auth.AuthManager):
    def __getattribute__(self, name: str) -> Any:
        return ahead if name == "_clock" else super().__getattribute__(name)


@pytest.mark.parametrize("kind", [Property, Getattribute])
def test_a_subclass_with_a_clock_of_its_own(kind: type[auth.AuthManager]) -> None:
    check(serving(kind), AHEAD)


@pytest.mark.parametrize("early", [False, True], ids=["at first", "after use"])
def test_a_subclass_that_makes_up_for_a_clock_that_is_gone(early: bool) -> None:
    class Getattr(auth.AuthManager):
        def __getattr__(self, name: str) -> Any:
            if name == "_clock":
                return ahead
            raise AttributeError(name)

    manager = serving(Getattr)
    if early:
        assert manager.get_token() == TOKEN
    del manager._clock
    check(manager, AHEAD)
    manager._clock = time.time
    check(manager, 0.0)


# Patches of a manager that has been used before


@pytest.fixture
def used() -> Any:
    manager = serving(Sub)
    for _ in range(3):
        assert manager.get_token() == TOKEN
    return manager


@pytest.fixture(params=["subclass", "class"])
def owner(request: pytest.FixtureRequest) -> Iterator[Any]:
    owner = {"subclass": Sub, "class": auth.AuthManager}[request.param]
    names = set(vars(owner))
    yield owner
    assert set(vars(owner)) == names


def getattribute(self: Any, name: str) -> Any:
    return ahead if name == "_clock" else object.__getattribute__(self, name)


@pytest.mark.parametrize(
    ("name", "value"),
    [
        ("_get_time", lambda self: ahead()),
        ("_get_time", property(lambda self: ahead)),
        ("_clock", property(lambda self: ahead)),
        ("__getattribute__", getattribute),
    ],
    ids=["function", "property", "clock", "attributes"],
)
def test_a_class_that_is_patched(
    used: Any, owner: Any, name: str, value: Any, monkeypatch: pytest.MonkeyPatch
) -> None:
    with monkeypatch.context() as patch:
        patch.setattr(owner, name, value, raising=False)
        check(used, AHEAD)
        check(serving(Sub), AHEAD)
    check(used, 0.0)


def test_a_manager_that_is_patched(used: Any) -> None:
    used._get_time = ahead
    check(used, AHEAD)
    del used._get_time
    check(used, 0.0)
    vars(used)["_get_time"] = ahead
    check(used, AHEAD)
    del vars(used)["_get_time"]
    # The field is removed before the dictionary.
    vars(used)["_clock"] = ahead
    check(used, 0.0)
    used._clock = ahead
    check(used, AHEAD)
