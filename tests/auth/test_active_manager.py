"""The process-wide manager that era announcements reach."""

from __future__ import annotations

import gc
import threading
import weakref
from collections.abc import Iterator
from typing import Any

import pytest

from tessaline import auth
from tests.shared.threads import Worker, join, within

from .helpers.managers import build, reason_of


@pytest.fixture(autouse=True)
def empty_slot() -> Iterator[None]:
    assert auth._active_auth_manager is None
    yield
    auth._set_active_auth_manager(None)


class Listener:
    """Anything with `notify_era_change` may be registered."""

    def __init__(self, error: Exception | None = None) -> None:
        self.heard: list[Any] = []
        self.locked: list[bool] = []
        self.error = error

    def notify_era_change(self, *args: Any, **kwargs: Any) -> str:
        self.heard.append((args, kwargs))
        self.locked.append(auth._active_auth_manager_lock.locked())
        if self.error is not None:
            raise self.error
        return "ignored"


@pytest.mark.parametrize("number", [7, 0, -1, "seven", None])
def test_before_any_registration_a_notification_does_nothing_and_the_number_is_not_checked(
    number: Any,
) -> None:
    assert auth.notify_era_change(number) is None


def test_registering_stores_the_object_and_returns_none(manager: Any) -> None:
    assert auth._set_active_auth_manager(manager) is None
    assert auth._active_auth_manager is manager


def test_registering_none_after_a_manager_makes_later_notifications_no_ops() -> None:
    listener = Listener()
    auth._set_active_auth_manager(listener)
    auth._set_active_auth_manager(None)
    assert auth._active_auth_manager is None
    assert auth.notify_era_change(7) is None
    assert listener.heard == []


def test_a_notification_is_forwarded_with_its_number_and_returns_none() -> None:
    listener = Listener()
    auth._set_active_auth_manager(listener)
    number = 10**20
    assert auth.notify_era_change(number) is None
    assert listener.heard == [((number,), {})]
    assert listener.heard[0][0][0] is number


def test_a_notification_runs_with_the_module_lock_free() -> None:
    listener = Listener()
    auth._set_active_auth_manager(listener)
    auth.notify_era_change(7)
    assert listener.locked == [False]


def test_only_the_latest_registration_hears() -> None:
    first, second = Listener(), Listener()
    auth._set_active_auth_manager(first)
    auth._set_active_auth_manager(second)
    auth.notify_era_change(7)
    assert (first.heard, len(second.heard)) == ([], 1)


def test_arguments_may_be_keywords() -> None:
    listener = Listener()
    auth._set_active_auth_manager(manager=listener)
    assert auth.notify_era_change(new_era_number=7) is None
    assert listener.heard == [((7,), {})]


def test_with_a_closed_manager_registered_a_notification_is_manager_closed(manager: Any) -> None:
    manager.close()
    auth._set_active_auth_manager(manager)
    with pytest.raises(auth.AuthError) as caught:
        auth.notify_era_change(7)
    assert reason_of(caught.value) == "manager_closed"


def test_with_a_manager_that_never_logged_in_a_notification_is_not_authenticated(manager: Any) -> None:
    auth._set_active_auth_manager(manager)
    with pytest.raises(auth.AuthError) as caught:
        auth.notify_era_change(7)
    assert reason_of(caught.value) == "not_authenticated"


def test_with_a_manager_registered_the_number_is_checked_by_it(manager: Any) -> None:
    auth._set_active_auth_manager(manager)
    with pytest.raises(ValueError, match=r"^era_number must be > 0, got 0$"):
        auth.notify_era_change(0)


def test_whatever_the_manager_raises_passes_as_the_same_object() -> None:
    error = LookupError("odd")
    auth._set_active_auth_manager(Listener(error))
    with pytest.raises(LookupError) as caught:
        auth.notify_era_change(7)
    assert caught.value is error


def test_any_object_may_be_registered_and_fails_only_when_notified() -> None:
    auth._set_active_auth_manager(5)  # type: ignore[arg-type]
    assert auth._active_auth_manager == 5  # type: ignore[comparison-overlap]
    with pytest.raises(AttributeError):
        auth.notify_era_change(7)


def test_the_slot_is_a_module_name_that_may_be_written() -> None:
    listener = Listener()
    auth._active_auth_manager = listener
    auth.notify_era_change(7)
    assert len(listener.heard) == 1


def test_the_slot_keeps_its_manager_alive_until_replaced() -> None:
    manager = build()
    reference = weakref.ref(manager)
    auth._set_active_auth_manager(manager)
    del manager
    gc.collect()
    assert reference() is not None
    auth._set_active_auth_manager(None)
    gc.collect()
    assert reference() is None


def test_a_replaced_manager_may_register_another_from_its_finaliser() -> None:
    second = Listener()

    class First:
        def __del__(self) -> None:
            auth._set_active_auth_manager(second)

    auth._set_active_auth_manager(First())  # type: ignore[arg-type]
    within(5.0, auth._set_active_auth_manager, None)
    assert auth._active_auth_manager in (second, None)
    assert not auth._active_auth_manager_lock.locked()


def test_registration_and_copy_take_the_module_lock() -> None:
    listener = Listener()
    with auth._active_auth_manager_lock:
        setting = Worker(auth._set_active_auth_manager, listener)
        setting.thread.join(0.05)
        assert setting.alive
    setting.result(5.0)
    with auth._active_auth_manager_lock:
        notifying = Worker(auth.notify_era_change, 7)
        notifying.thread.join(0.05)
        assert notifying.alive and listener.heard == []
    notifying.result(5.0)
    assert len(listener.heard) == 1


def test_a_manager_may_register_another_while_it_is_notified() -> None:
    second = Listener()

    class Handing(Listener):
        def notify_era_change(self, *args: Any, **kwargs: Any) -> str:
            auth._set_active_auth_manager(second)
            return super().notify_era_change(*args, **kwargs)

    auth._set_active_auth_manager(Handing())
    within(5.0, auth.notify_era_change, 7)
    auth.notify_era_change(8)
    assert second.heard == [((8,), {})]


def test_racing_registrations_and_notifications_reach_one_registered_object_each() -> None:
    listeners = [Listener() for _ in range(4)]
    auth._set_active_auth_manager(listeners[0])

    def register(listener: Listener) -> None:
        for _ in range(300):
            auth._set_active_auth_manager(listener)

    def notify() -> None:
        for number in range(1, 301):
            auth.notify_era_change(number)

    threads = [threading.Thread(target=register, args=(listener,), daemon=True) for listener in listeners]
    threads += [threading.Thread(target=notify, daemon=True) for _ in range(3)]
    for thread in threads:
        thread.start()
    for thread in threads:
        join(thread)
    assert sum(len(listener.heard) for listener in listeners) == 900


def test_a_login_that_is_registered_follows_an_announced_era(logged_in: Any, server: Any) -> None:
    auth._set_active_auth_manager(logged_in)
    server.era = 6
    auth.notify_era_change(6)
    assert logged_in.get_token() == server.tokens[1]


def test_closing_does_not_touch_the_slot(logged_in: Any) -> None:
    auth._set_active_auth_manager(logged_in)
    logged_in.close()
    assert auth._active_auth_manager is logged_in


@pytest.mark.parametrize(
    ("name", "args", "kwargs"),
    [
        ("notify_era_change", (), {}),
        ("notify_era_change", (1, 2), {}),
        ("notify_era_change", (), {"era": 1}),
        ("notify_era_change", (1,), {"new_era_number": 2}),
        ("_set_active_auth_manager", (), {}),
        ("_set_active_auth_manager", (None, None), {}),
        ("_set_active_auth_manager", (), {"active": None}),
    ],
)
def test_wrong_arguments(name: str, args: tuple[Any, ...], kwargs: dict[str, Any]) -> None:
    with pytest.raises(TypeError, match=name):
        getattr(auth, name)(*args, **kwargs)
