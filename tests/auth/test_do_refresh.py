"""One attempt at a proactive refresh."""

from __future__ import annotations

import contextlib
import threading
from typing import Any

import pytest

from tessaline import auth
from tests.shared.clocks import HandClock

from .helpers.managers import ADDRESS, changes, reason_of, snapshot
from .helpers.server import CHALLENGE, REGISTER, VERIFY, Answer, FakeServer
from .helpers.tokens import issued

FULL_LOGIN = [REGISTER, CHALLENGE, VERIFY]


class OwnAuthError(auth.AuthError):
    pass


@pytest.fixture
def refreshing(manager: Any, server: FakeServer) -> Any:
    """A manager with a token and no refresh thread; starts of one are only counted."""
    manager._start_refresh = lambda: None
    manager.authenticate()
    manager.starts = []
    manager._start_refresh = lambda: manager.starts.append(manager._state)
    server.calls.clear()
    return manager


@pytest.mark.parametrize("state", ["CLOSED", "UNINITIALIZED", "AUTHENTICATING", "RE_AUTHENTICATING"])
def test_refresh_from_any_other_state_does_nothing(refreshing: Any, server: FakeServer, state: str) -> None:
    refreshing._state = state
    before = snapshot(refreshing)
    assert refreshing._do_refresh() is None
    assert changes(before, snapshot(refreshing)) == set()
    assert server.calls == []
    assert refreshing.starts == []


@pytest.mark.parametrize(("pending", "mode"), [(None, "PROACTIVE"), (5, "ERA_CHANGE")])
def test_refresh_begins_re_authenticating_with_a_new_event(
    refreshing: Any, server: FakeServer, pending: int | None, mode: str
) -> None:
    seen: list[Any] = []
    old_event = refreshing._auth_event
    refreshing._auth_error = auth.AuthError(reason="old")
    refreshing._pending_era_number = pending
    server.era = 5

    def look(call: Any) -> None:
        event = refreshing._auth_event
        seen.append((refreshing._state, refreshing._reauth_mode, refreshing._auth_error))
        seen.append((type(event), event is old_event, event.is_set(), refreshing._lock.locked()))

    server.script(REGISTER, look)
    refreshing._do_refresh()
    assert seen == [("RE_AUTHENTICATING", mode, None), (threading.Event, False, False, False)]


def test_refresh_stores_the_new_token_and_starts_the_next_cycle(
    refreshing: Any, server: FakeServer, clock: HandClock
) -> None:
    clock.advance(70000.0)
    refreshing._refresh_done.clear()
    assert refreshing._do_refresh() is None
    assert server.paths == FULL_LOGIN
    assert refreshing._token == server.tokens[1]
    assert refreshing._token_expiry == 71000.0 + 86400
    assert refreshing._state == "AUTHENTICATED"
    assert refreshing._reauth_mode is None
    assert refreshing._auth_event.is_set()
    assert refreshing._refresh_done.is_set()
    assert refreshing.starts == ["AUTHENTICATED"]


def test_refresh_uses_the_flow_that_matches_the_pending_era(refreshing: Any) -> None:
    stored: list[Any] = []
    refreshing._do_auth_flow_matching_pending_era = lambda: ("token", 5, b"secret")
    refreshing._store_auth_result = lambda *args: stored.append((args, refreshing._lock.locked()))
    refreshing._do_refresh()
    assert stored == [(("token", b"secret"), True)]
    assert refreshing.starts == ["RE_AUTHENTICATING"]


def test_refresh_with_a_pending_era_retries_once_for_a_newer_token(
    refreshing: Any, server: FakeServer
) -> None:
    refreshing._pending_era_number = 5
    server.script(
        VERIFY,
        Answer(200, server.verified(ADDRESS, token=issued(ADDRESS, 4))),
        Answer(200, server.verified(ADDRESS, token=issued(ADDRESS, 5))),
    )
    refreshing._do_refresh()
    assert server.paths == FULL_LOGIN * 2
    assert refreshing._token == issued(ADDRESS, 5)
    assert refreshing._pending_era_number is None


def fail_flow(manager: Any, error: BaseException) -> None:
    def flow() -> Any:
        raise error

    manager._refresh_done.clear()
    manager._do_auth_flow_matching_pending_era = flow


@pytest.mark.parametrize(("pending", "state"), [(None, "UNINITIALIZED"), (5, "AUTHENTICATED")])
@pytest.mark.parametrize(
    ("error", "permanent"),
    [
        (auth.AuthError(reason="unauthorized"), False),
        (auth.AuthError(reason="era_mismatch"), False),
        (auth.AuthError(reason="signature_mismatch"), True),
        (auth.AuthError(reason="invalid_address"), True),
        (OwnAuthError(reason="signature_mismatch"), True),
    ],
    ids=repr,
)
def test_refresh_failing_with_an_auth_error_records_it_and_chooses_the_state(
    refreshing: Any, pending: int | None, state: str, error: auth.AuthError, permanent: bool
) -> None:
    refreshing._pending_era_number = pending
    fail_flow(refreshing, error)
    assert refreshing._do_refresh() is None
    assert refreshing._auth_error is error
    assert refreshing._permanent_refresh_error is permanent
    assert refreshing._state == state
    assert refreshing._reauth_mode is None
    assert refreshing._auth_event.is_set()
    assert refreshing._refresh_done.is_set()
    assert refreshing._pending_era_number == pending
    assert refreshing.starts == []


@pytest.mark.parametrize(("pending", "state"), [(None, "UNINITIALIZED"), (5, "AUTHENTICATED")])
@pytest.mark.parametrize(
    ("error", "reason"),
    [
        (auth.NetworkError("Server unreachable after 3 attempts"), "Server unreachable after 3 attempts"),
        (auth.RegistrationError("invite_revoked"), "invite_revoked"),
        (auth.RegistrationError("signature_mismatch"), "signature_mismatch"),
        (KeyError("token"), "'token'"),
        (RuntimeError(), ""),
    ],
    ids=repr,
)
def test_refresh_failing_otherwise_records_an_auth_error_with_the_text(
    refreshing: Any, pending: int | None, state: str, error: Exception, reason: str
) -> None:
    refreshing._pending_era_number = pending
    fail_flow(refreshing, error)
    assert refreshing._do_refresh() is None
    assert reason_of(refreshing._auth_error) == reason
    assert refreshing._permanent_refresh_error is False
    assert refreshing._state == state
    assert refreshing._reauth_mode is None
    assert refreshing._auth_event.is_set()
    assert refreshing._refresh_done.is_set()
    assert refreshing.starts == []


@pytest.mark.parametrize("error", [RuntimeError("x"), auth.AuthError(reason="unauthorized")], ids=repr)
def test_refresh_failure_leaves_a_permanent_error_that_was_there(refreshing: Any, error: Exception) -> None:
    refreshing._permanent_refresh_error = True
    fail_flow(refreshing, error)
    refreshing._do_refresh()
    assert refreshing._permanent_refresh_error is True


def test_refresh_refused_by_the_store_is_recorded_and_keeps_the_old_token(
    refreshing: Any, server: FakeServer
) -> None:
    old = refreshing._token
    server.secret = b"changed"
    refreshing._do_refresh()
    assert reason_of(refreshing._auth_error) == "wallet_secret_changed"
    assert refreshing._state == "UNINITIALIZED"
    assert refreshing._token is old
    assert refreshing.starts == []


def test_refresh_whose_clock_raises_is_recorded(
    refreshing: Any, server: FakeServer, clock: HandClock
) -> None:
    server.script(VERIFY, lambda call: setattr(clock, "error", RuntimeError("no time")))
    refreshing._do_refresh()
    clock.error = None
    assert reason_of(refreshing._auth_error) == "no time"
    assert refreshing._state == "UNINITIALIZED"


def test_refresh_failure_without_an_event_sets_none(refreshing: Any) -> None:
    def flow() -> Any:
        refreshing._auth_event = None
        raise auth.AuthError(reason="unauthorized")

    refreshing._do_auth_flow_matching_pending_era = flow
    refreshing._do_refresh()
    assert refreshing._auth_event is None
    assert refreshing._refresh_done.is_set()


def test_an_era_announced_during_a_failing_refresh_keeps_the_manager_authenticated(refreshing: Any) -> None:
    def flow() -> Any:
        refreshing._pending_era_number = 9
        raise auth.AuthError(reason="unauthorized")

    refreshing._do_auth_flow_matching_pending_era = flow
    refreshing._do_refresh()
    assert refreshing._state == "AUTHENTICATED"


@pytest.mark.parametrize(
    "outcome", [None, auth.AuthError(reason="signature_mismatch"), RuntimeError("broke")], ids=repr
)
def test_closing_while_the_flow_runs_stores_nothing_and_sets_no_event(
    refreshing: Any, outcome: Exception | None
) -> None:
    old = refreshing._token

    def flow() -> Any:
        refreshing._state = "CLOSED"
        if outcome is not None:
            raise outcome
        return issued(ADDRESS), 1, bytes(range(32))

    refreshing._refresh_done.clear()
    refreshing._do_auth_flow_matching_pending_era = flow
    refreshing._do_refresh()
    assert refreshing._state == "CLOSED"
    assert refreshing._token is old
    assert refreshing._auth_error is None
    assert refreshing._permanent_refresh_error is False
    assert not refreshing._auth_event.is_set()
    assert not refreshing._refresh_done.is_set()
    assert refreshing.starts == []


@pytest.mark.parametrize("error", [KeyboardInterrupt("k"), SystemExit("s"), GeneratorExit("g")], ids=repr)
def test_refresh_ended_by_an_interruption_is_recorded_like_any_other_failure(
    refreshing: Any, error: BaseException
) -> None:
    fail_flow(refreshing, error)
    assert refreshing._do_refresh() is None
    assert reason_of(refreshing._auth_error) == str(error)
    assert refreshing._state == "UNINITIALIZED"
    assert refreshing._reauth_mode is None
    assert refreshing._auth_event.is_set()
    assert refreshing._refresh_done.is_set()


def test_an_auth_error_without_a_reason_leaves_no_refresh_under_way(refreshing: Any) -> None:
    class Bare(auth.AuthError):
        def __init__(self) -> None:
            pass

    fail_flow(refreshing, Bare())
    with contextlib.suppress(AttributeError):
        refreshing._do_refresh()
    assert refreshing._state == "UNINITIALIZED"
    assert refreshing._auth_event.is_set()
    assert refreshing._refresh_done.is_set()
