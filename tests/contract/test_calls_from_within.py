"""Code that the manager runs calls the manager: it gets an error, and does not wait for itself."""

from __future__ import annotations

import json
import signal
import threading
from collections.abc import Callable, Iterator
from typing import Any

import pytest

from tessaline import auth
from tests.shared.clocks import HandClock
from tests.shared.threads import DEADLINE, Worker

from .support.managers import reason
from .support.service import CHALLENGE, REGISTER, Service, answer

DAY = 86400.0


@pytest.fixture
def alarm() -> Iterator[None]:
    """Ends a test that waits for itself."""

    def give_up(*_: Any) -> None:
        raise AssertionError("it waits for itself")

    before = signal.signal(signal.SIGALRM, give_up)
    signal.alarm(int(DEADLINE))
    yield
    signal.alarm(0)
    signal.signal(signal.SIGALRM, before)


def called_at_a_reading(clock: HandClock, call: Callable[[], Any]) -> list[Any]:
    """The result of a call that the clock makes at its next reading."""
    seen: list[Any] = []

    def before() -> None:
        clock.before = None
        try:
            seen.append(call())
        except Exception as error:
            seen.append(error)

    clock.before = before
    return seen


@pytest.mark.usefixtures("alarm")
@pytest.mark.parametrize("call", ["get_token", "get_token_expiry", "get_wallet_secret", "authenticate"])
def test_a_clock_that_calls_the_manager_under_its_lock_is_refused(
    manager: Any, clock: HandClock, call: str
) -> None:
    seen = called_at_a_reading(clock, getattr(manager, call))
    manager.authenticate()
    (refusal,) = seen
    assert type(refusal) is RuntimeError
    assert "while it holds its lock" in str(refusal)
    assert manager._state == "AUTHENTICATED"
    assert not manager._lock.locked()


@pytest.mark.usefixtures("alarm")
def test_a_close_from_under_the_lock_is_done_when_the_lock_is_free(manager: Any, clock: HandClock) -> None:
    seen = called_at_a_reading(clock, manager.close)
    manager.authenticate()
    assert seen == [None]
    assert manager._state == "CLOSED"
    assert manager._private_key is None
    assert manager._token is None
    with pytest.raises(auth.AuthError) as refused:
        manager.get_token()
    assert reason(refused.value) == "manager_closed"


@pytest.mark.usefixtures("alarm")
def test_a_signal_handler_that_closes_while_a_result_is_stored(
    make_manager: Any, monkeypatch: pytest.MonkeyPatch
) -> None:
    manager = make_manager()
    original = auth.random.uniform

    def uniform(low: float, high: float) -> float:
        signal.raise_signal(signal.SIGUSR1)
        return original(low, high)

    before = signal.signal(signal.SIGUSR1, lambda *_: manager.close())
    try:
        monkeypatch.setattr(auth.random, "uniform", uniform)
        manager.authenticate()
    finally:
        signal.signal(signal.SIGUSR1, before)
    assert manager._state == "CLOSED"
    assert manager._private_key is None


def errors_at_the_challenge(service: Service, call: Callable[[], object]) -> list[BaseException]:
    """What the call raises if the transport makes it during its first request for a challenge."""
    seen: list[BaseException] = []

    def fault(path: str) -> None:
        if path == CHALLENGE and not seen:
            try:
                call()
            except BaseException as error:
                seen.append(error)

    service.fault = fault
    return seen


def check_refusal(seen: list[BaseException]) -> None:
    (refusal,) = seen
    assert type(refusal) is RuntimeError
    assert "its own authentication" in str(refusal)


@pytest.mark.usefixtures("alarm")
@pytest.mark.parametrize("call", ["get_token", "authenticate"])
def test_a_transport_that_waits_for_its_own_login_is_refused(
    manager: Any, service: Service, call: str
) -> None:
    seen = errors_at_the_challenge(service, getattr(manager, call))
    manager.authenticate()
    check_refusal(seen)
    assert manager.get_token() == service.tokens[-1]


@pytest.mark.usefixtures("alarm")
@pytest.mark.parametrize("run", ["_do_refresh", "_background_reauth"])
def test_a_transport_that_waits_for_its_own_renewal_is_refused(
    logged_in: Any, service: Service, run: str
) -> None:
    seen = errors_at_the_challenge(service, logged_in.authenticate)
    if run == "_background_reauth":
        logged_in._state, logged_in._auth_event = "RE_AUTHENTICATING", threading.Event()
    getattr(logged_in, run)()
    check_refusal(seen)


@pytest.mark.usefixtures("alarm")
def test_a_log_handler_that_takes_a_token_does_not_stop_the_login(
    logged_in: Any, service: Service, monkeypatch: pytest.MonkeyPatch
) -> None:
    seen: list[Any] = []

    def log(*_: Any, **__: Any) -> None:
        try:
            seen.append(logged_in.get_token())
        except Exception as error:
            seen.append(error)

    monkeypatch.setattr(auth, "log_library_surface_event", log)
    logged_in._wait_with_clock = lambda seconds: None
    answers = [answer(429, None, Retry_After="soon")]
    service.fault = lambda path: answers.pop() if path == REGISTER and answers else None
    logged_in.authenticate()
    assert [type(value) for value in seen] == [RuntimeError]
    assert logged_in.get_token() == service.tokens[-1]


def test_another_thread_still_waits_while_a_flow_runs(logged_in: Any, service: Service) -> None:
    gate = service.hold(CHALLENGE)
    runner = Worker(logged_in.authenticate)
    gate.reached()
    waiter = Worker(logged_in.get_token)
    service.let_go()
    runner.result()
    assert waiter.result() == service.tokens[-1]


def test_the_finalizer_of_what_is_replaced_may_call_the_manager(manager: Any) -> None:
    seen: list[Any] = []

    class Leftover:
        def __del__(self) -> None:
            try:
                manager.get_wallet_secret()
            except Exception as error:
                seen.append(error)

    manager._auth_error = Leftover()
    manager.authenticate()
    assert [reason(error) for error in seen] == ["not_authenticated"]


# Secrets in the errors


def test_a_secret_that_cannot_be_decoded_is_not_in_the_error(manager: Any, service: Service) -> None:
    def fault(path: str) -> Any:
        if not path.endswith("/verify"):
            return None
        granted = {**service.grant(manager.get_wallet_address()), "wallet_secret": "geheimniß"}
        return 200, {}, json.dumps(granted).encode()

    service.fault = fault
    with pytest.raises(ValueError) as caught:
        manager.authenticate()
    assert caught.value.__context__ is None
    assert caught.value.__cause__ is None
    names = []
    traceback = caught.value.__traceback__
    while traceback is not None:
        names.append(traceback.tb_frame.f_code.co_filename)
        traceback = traceback.tb_next
    assert not any("base64" in name for name in names), names


def test_a_stored_error_of_a_foreign_type_is_a_type_error(logged_in: Any) -> None:
    logged_in._auth_error = "text"
    logged_in._pending_era_number = 5
    with pytest.raises(TypeError, match="must derive from BaseException"):
        logged_in.get_token()


class Joining:
    """Calls the manager on another thread when released, and waits for the result."""

    def __init__(self, manager: Any) -> None:
        self.manager, self.workers = manager, manager.__dict__.setdefault("workers", [])

    def __del__(self) -> None:
        worker = Worker(self.manager.get_wallet_secret)
        self.workers.append(worker)
        worker.finish(2.0)


def refused(manager: Any, *_owned: Any) -> None:
    with pytest.raises(auth.AuthError):
        manager.get_token()


def test_what_a_refused_caller_owned_goes_when_the_lock_is_free(logged_in: Any) -> None:
    logged_in._pending_era_number, logged_in._auth_error = 7, auth.AuthError(reason="gone")
    refused(logged_in, Joining(logged_in))
    refused(logged_in)
    assert [worker.value for worker in logged_in.workers] == [logged_in.get_wallet_secret()]


def test_ctrl_c_while_the_identity_is_asked_for_is_raised(
    logged_in: Any, monkeypatch: pytest.MonkeyPatch
) -> None:
    def interrupted() -> int:
        raise KeyboardInterrupt

    with monkeypatch.context() as patch:
        patch.setattr(threading, "get_ident", interrupted)
        with pytest.raises(KeyboardInterrupt):
            logged_in.get_wallet_secret()
    assert logged_in.get_wallet_secret()
