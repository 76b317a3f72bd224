"""An attempt that ends late does not affect a newer one."""

from __future__ import annotations

import threading
from typing import Any
from unittest import mock

import pytest

from tessaline import auth
from tests.shared.clocks import HandClock
from tests.shared.modules import StandIn
from tests.shared.threads import Worker, until, waiters

from .support.host import unstartable_threads
from .support.managers import reason
from .support.service import CHALLENGE, VERIFY, Gate, Service, always_raises, era_of
from .support.threads import ThreadCensus

DAY = 86400.0


def test_a_login_that_fails_after_its_store_does_not_undo_the_next_one(
    make_manager: Any, service: Service
) -> None:
    class Slow(auth.AuthManager):
        """Blocks between the store of a login and the start of its refresh thread."""

        def _start_refresh(self) -> None:
            if threading.current_thread() is first.thread:
                stored.set()
                go_on.wait(10)
                raise RuntimeError("too late")
            super()._start_refresh()

    stored, go_on = threading.Event(), threading.Event()
    started = threading.Event()
    manager = Slow(
        "8f2a55949038a9610f50fb23b5883af3b4ecb3c3bb792cbcefbd1542c692be63",
        "https://auth.example.test",
        clock=HandClock(),
        _transport=service,
    )
    with manager:
        first = Worker(lambda: (started.wait(10), manager.authenticate()))
        started.set()
        assert stored.wait(10)
        gate = service.hold(CHALLENGE)
        second = Worker(manager.authenticate)
        gate.reached()
        event = manager._auth_event
        go_on.set()
        assert str(first.failure()) == "too late"
        # The second login is still running, and an announcement leaves the era to it.
        assert manager._state == "AUTHENTICATING"
        assert manager._auth_event is event and not event.is_set()
        assert manager._auth_error is None
        manager.notify_era_change(2)
        assert service.count(CHALLENGE) == 2
        service.let_go()
        assert reason(second.failure()) == "era_mismatch"
        with pytest.raises(auth.AuthError):
            manager.get_token()


def test_a_re_authentication_that_fails_late_does_not_undo_the_next_login(
    logged_in: Any, service: Service
) -> None:
    own = threading.Event()
    logins: list[Worker] = []

    def flow() -> Any:
        # Meanwhile the program gives it up and logs in itself.
        logged_in._state = "AUTHENTICATED"
        gate = service.hold(CHALLENGE)
        logins.append(Worker(logged_in.authenticate))
        gate.reached()
        raise ConnectionResetError("too late")

    logged_in._state, logged_in._auth_event = "RE_AUTHENTICATING", own
    logged_in._do_auth_flow_matching_pending_era = flow
    logged_in._background_reauth()
    # Its waiters are woken; the login is still the one that runs.
    assert own.is_set()
    assert logged_in._state == "AUTHENTICATING"
    assert not logged_in._auth_event.is_set()
    assert logged_in._auth_error is None
    service.let_go()
    logins[0].result()
    assert logged_in.get_token() == service.tokens[-1]


def test_a_renewal_does_not_bring_back_an_era_that_another_login_has_left(
    logged_in: Any, service: Service
) -> None:
    def flow() -> Any:
        # Announced and met meanwhile, by a result that the program stores.
        logged_in.notify_era_change(2)
        service.era = 2
        brought = service.grant(logged_in.get_wallet_address())
        with logged_in._lock:
            logged_in._store_auth_result(brought["token"], secret)
        return older, 0, secret

    older, secret = logged_in.get_token(), logged_in.get_wallet_secret()
    logged_in._do_auth_flow_matching_pending_era = flow
    logged_in._do_refresh()
    assert logged_in._token == service.tokens[-1]
    assert era_of(logged_in._token) == 2


def test_an_announcement_about_to_start_its_thread_is_not_taken_for_an_orphan(
    logged_in: Any, service: Service, monkeypatch: pytest.MonkeyPatch
) -> None:
    announcing = Gate()
    hosts: list[Worker] = []

    class Thread(threading.Thread):
        def start(self) -> None:
            if self._target == logged_in._background_reauth:  # type: ignore[attr-defined]
                announcing()
            elif self._target == logged_in._refresh_loop and not hosts:  # type: ignore[attr-defined]
                hosts.append(Worker(logged_in.notify_era_change, 2))
                announcing.reached()
                raise RuntimeError("can't start new thread")
            super().start()

    monkeypatch.setattr(auth, "threading", StandIn(threading, Thread=Thread))
    service.era = 2
    with pytest.raises(RuntimeError, match="can't start new thread"):
        logged_in.authenticate()
    assert logged_in._state == "RE_AUTHENTICATING"
    assert logged_in._reauth_mode == "ERA_CHANGE"
    assert logged_in._auth_error is None
    assert not logged_in._auth_event.is_set()
    announcing.open()
    hosts[0].result()
    assert logged_in.get_token() == service.tokens[-1]
    assert logged_in._auth_error is None


class Impatient(threading.Event):
    """A wait that polls for lost runners does its first polls at once."""

    looks = 0

    def wait(self, timeout: float | None = None) -> bool:
        if timeout is None or self.looks == 3:
            return super().wait(timeout)
        self.looks += 1
        return self.is_set()


@pytest.mark.parametrize("is_made", [True, False])
def test_a_slow_re_authentication_is_not_taken_for_a_lost_one(
    logged_in: Any,
    service: Service,
    census: ThreadCensus,
    monkeypatch: pytest.MonkeyPatch,
    is_made: bool,
) -> None:
    service.era = 2
    logged_in.notify_era_change(2)
    logged_in.get_token()
    census.settle(1)
    starting = Gate()

    class Thread(threading.Thread):
        def __init__(self, *, target: Any, daemon: bool) -> None:
            super().__init__(target=target, daemon=daemon)
            if not is_made and target == logged_in._background_reauth:
                starting()

    monkeypatch.setattr(auth, "threading", StandIn(threading, Thread=Thread, Event=Impatient))
    service.era = 3
    if is_made:
        starting = service.hold(CHALLENGE)
    host = Worker(logged_in.notify_era_change, 3)
    starting.reached()
    caller = Worker(logged_in.get_token)
    until(lambda: logged_in._auth_event.looks == 3, "a few looks")
    assert logged_in._state == "RE_AUTHENTICATING"
    assert not logged_in._auth_event.is_set()
    starting.open()
    host.result()
    assert caller.result() == service.tokens[-1]


def test_an_announcement_that_is_interrupted_once_its_thread_lives_is_settled_by_the_thread(
    logged_in: Any, service: Service, monkeypatch: pytest.MonkeyPatch
) -> None:
    class Thread(threading.Thread):
        def start(self) -> None:
            super().start()
            raise KeyboardInterrupt

    service.era = 2
    gate = service.hold(CHALLENGE)
    with monkeypatch.context() as patched:
        patched.setattr(auth, "threading", StandIn(threading, Thread=Thread))
        with pytest.raises(KeyboardInterrupt):
            logged_in.notify_era_change(2)
    gate.reached()
    assert logged_in._state == "RE_AUTHENTICATING"
    assert not logged_in._auth_event.is_set()
    assert logged_in._auth_error is None
    service.let_go()
    assert logged_in.get_token() == service.tokens[-1]


def test_a_failed_refresh_that_is_yet_to_be_settled_is_not_taken_for_an_orphan(
    logged_in: Any, service: Service, monkeypatch: pytest.MonkeyPatch
) -> None:
    seen: list[tuple[str, bool]] = []

    class Failure(Exception):
        """Its text is requested between the flow and the settlement."""

        def __str__(self) -> str:
            with monkeypatch.context() as patched:
                patched.setattr(auth, "threading", unstartable_threads())
                with pytest.raises(RuntimeError, match="can't start new thread"):
                    logged_in._start_refresh()
            seen.append((logged_in._state, logged_in._auth_event.is_set()))
            return "failed"

    service.fault = always_raises(Failure())
    logged_in._do_refresh()
    assert seen == [("RE_AUTHENTICATING", False)]
    assert logged_in._state == "UNINITIALIZED"
    assert reason(logged_in._auth_error) == "failed"


def test_a_re_authentication_that_has_ended_is_taken_for_an_orphan(
    logged_in: Any, monkeypatch: pytest.MonkeyPatch
) -> None:
    logged_in._state = "RE_AUTHENTICATING"
    monkeypatch.setattr(auth, "threading", unstartable_threads())
    with pytest.raises(RuntimeError, match="can't start new thread"):
        logged_in._start_refresh()
    assert logged_in._state == "AUTHENTICATED"


def test_a_re_authentication_whose_thread_ended_before_its_first_line_is_taken_for_an_orphan(
    logged_in: Any, monkeypatch: pytest.MonkeyPatch
) -> None:
    class Stillborn(threading.Thread):
        def start(self) -> None:
            super().start()
            self.join()

        def run(self) -> None:
            pass

    with monkeypatch.context() as patched:
        patched.setattr(auth, "threading", StandIn(threading, Thread=Stillborn))
        logged_in.notify_era_change(2)
    monkeypatch.setattr(auth, "threading", unstartable_threads())
    with pytest.raises(RuntimeError, match="can't start new thread"):
        logged_in._start_refresh()
    assert logged_in._state == "AUTHENTICATED"
    assert logged_in._auth_event.is_set()


def test_a_refresh_thread_that_cannot_be_replaced_lives_on_and_renews(
    logged_in: Any, service: Service, clock: HandClock, census: ThreadCensus, monkeypatch: pytest.MonkeyPatch
) -> None:
    loop = logged_in._refresh_thread
    with monkeypatch.context() as patched:
        patched.setattr(auth, "threading", unstartable_threads(logged_in._refresh_loop))
        with pytest.raises(RuntimeError, match="can't start new thread"):
            logged_in.authenticate()
    assert loop.is_alive()
    before = service.count(VERIFY)
    clock.now += 0.9 * DAY
    until(lambda: service.count(VERIFY) == before + 1, "a renewal")
    until(
        lambda: logged_in._refresh_thread is not loop and logged_in._refresh_thread.is_alive(),
        "its successor",
    )
    census.settle(1)
    assert logged_in.get_token() == service.tokens[-1]


@pytest.mark.parametrize("method", ["authenticate", "_do_refresh", "_background_reauth"])
def test_an_attempt_whose_event_the_host_replaced_settles_with_the_new_one(
    logged_in: Any, service: Service, method: str
) -> None:
    replaced = threading.Event()

    def fault(path: str) -> Any:
        if path == VERIFY:
            logged_in._auth_event = replaced
            raise auth.AuthError(reason="unauthorized")
        return None

    if method == "_background_reauth":
        logged_in._state = "RE_AUTHENTICATING"
    service.fault = fault
    if method == "authenticate":
        with pytest.raises(auth.AuthError):
            logged_in.authenticate()
    else:
        getattr(logged_in, method)()
    assert logged_in._state == ("UNINITIALIZED" if method == "_do_refresh" else "AUTHENTICATED")
    assert reason(logged_in._auth_error) == "unauthorized"
    assert replaced.is_set()


def test_a_mocked_thread_that_does_not_start_leaves_nobody_waiting(
    logged_in: Any, monkeypatch: pytest.MonkeyPatch
) -> None:
    thread = mock.MagicMock()
    thread.start.side_effect = RuntimeError("can't start new thread")
    with monkeypatch.context() as patched:
        patched.setattr(threading, "Thread", mock.MagicMock(return_value=thread))
        with pytest.raises(RuntimeError):
            logged_in.notify_era_change(2)
    assert logged_in._state == "AUTHENTICATED"
    assert logged_in._auth_event.is_set()


@pytest.mark.parametrize(
    ("before", "meanwhile", "brought", "told"),
    [
        ([], [2], 1, "era_mismatch"),
        ([], [2], 2, None),
        ([2], [3], 2, "era_mismatch"),
        ([], [3, 2], 2, "era_mismatch"),
    ],
)
def test_a_flow_that_began_before_an_announcement_has_to_meet_it_though_another_has_met_it(
    logged_in: Any, service: Service, before: list[int], meanwhile: list[int], brought: int, told: str | None
) -> None:
    def announce(eras: list[int]) -> None:
        for era in eras:
            service.era = max(eras)
            logged_in.notify_era_change(era)
            until(lambda: logged_in._pending_era_number is None, "the new era")

    announce(before)
    service.era = brought
    old = service.grant(logged_in.get_wallet_address())["token"]

    def flow() -> tuple[str, int, bytes]:
        # Meanwhile eras are announced, and other flows meet them.
        logged_in._state = "AUTHENTICATED"
        announce(meanwhile)
        return old, 0, service.secret

    logged_in._do_auth_flow = flow
    fresh = auth.AuthManager._do_auth_flow
    logged_in._do_auth_flow_matching_pending_era = lambda: fresh(logged_in)
    login = Worker(logged_in.authenticate)
    if told is None:
        login.result()
    else:
        assert reason(login.failure()) == told
    assert era_of(logged_in._token) == max(meanwhile)


@pytest.mark.parametrize(
    ("change", "told"),
    [
        ({"secret": b"another secret"}, "wallet_secret_changed"),
        ({"subject": "0x" + "22" * 20}, "wallet_mismatch"),
        ({}, "era_mismatch"),
    ],
)
def test_a_login_overtaken_by_an_era_is_refused_for_the_wallet_before_the_era(
    logged_in: Any, service: Service, change: dict[str, Any], told: str
) -> None:
    service.era = 1
    gate = service.hold(CHALLENGE)
    login = Worker(logged_in.authenticate)
    gate.reached()
    logged_in.notify_era_change(2)
    for name, value in change.items():
        setattr(service, name, value)
    service.let_go()
    assert reason(login.failure()) == told


def test_nobody_is_served_after_a_close_from_under_the_lock_has_returned(make_manager: Any) -> None:
    clock = HandClock()
    manager = make_manager(clock=clock)
    manager.authenticate()
    served: list[Any] = []
    callers: list[Worker] = []

    def closing(token: Any, wallet_address: Any) -> None:
        manager.close()
        # The caller waits for the lock from now on.
        callers.append(Worker(lambda: served.append(manager.get_token())))

    with pytest.MonkeyPatch.context() as patched:
        patched.setattr(auth, "_assert_token_subject_matches_wallet", closing)
        manager.authenticate()
    assert reason(callers[0].failure()) == "manager_closed"
    assert served == []


def test_an_event_that_can_only_be_waited_for_is_waited_for(logged_in: Any) -> None:
    class Plain:
        waited = 0

        def wait(self) -> None:
            self.waited += 1

    logged_in._state = "RE_AUTHENTICATING"
    logged_in._auth_event = plain = Plain()
    assert logged_in.get_token() == logged_in._token
    assert plain.waited == 1
    logged_in._auth_event = None
    logged_in._state = "AUTHENTICATED"


def test_the_field_decides_what_a_waiter_gets_while_its_event_is_the_managers(
    logged_in: Any, service: Service
) -> None:
    service.fault = lambda path: (_ for _ in ()).throw(auth.AuthError(reason="unauthorized"))
    with pytest.raises(auth.AuthError):
        logged_in.authenticate()
    service.fault = None
    logged_in._state = "RE_AUTHENTICATING"
    logged_in._auth_error = None
    logged_in.authenticate()
    logged_in._auth_error = other = auth.AuthError(reason="other")
    with pytest.raises(auth.AuthError) as raised:
        logged_in.authenticate()
    assert raised.value is other
    logged_in._state = "AUTHENTICATED"


def test_a_close_wakes_those_whose_event_has_been_deleted(logged_in: Any, service: Service) -> None:
    gate = service.hold(CHALLENGE)
    renewal = Worker(logged_in._do_refresh)
    gate.reached()
    waiter = Worker(logged_in.authenticate)
    until(lambda: waiters(logged_in._auth_event) > 0)
    del logged_in._auth_event
    with pytest.raises(AttributeError):
        logged_in.close()
    assert str(waiter.failure()) == "manager_closed"
    gate.open()
    renewal.finish()
