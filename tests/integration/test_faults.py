"""Every fault of the server at every endpoint of the login: what comes of it, and what is left behind."""

from __future__ import annotations

import binascii
import http.client
import json
import logging
from collections.abc import Callable, Mapping
from dataclasses import dataclass, field
from typing import Any

import pytest

from devserver.testing import DevServer
from tessaline import auth
from tests.shared.threads import Worker, until, waiters

from .support import Harness, at_a_new_name, descriptors, reason_of, wire

Make = Callable[..., Harness]
Fault = Mapping[str, Any]

FLOW = ("register", "challenge", "verify")
UNUSED = ("register", "challenge")
EXHAUSTED = "Server unreachable after 3 attempts"
STALE = "stale authentication challenge after 3 attempts"


@dataclass(frozen=True)
class Case:
    """A script at one endpoint, the delays that the manager asks for, and how the login ends.

    attempts: at that endpoint. cycles: challenges and verifications, where the flow starts over.
    error: type and text of the failure, None where the login succeeds.
    breaks: whether the fault ends connections.
    """

    name: str
    faults: tuple[Fault, ...]
    attempts: int = 1
    delays: tuple[int, ...] = ()
    error: tuple[type[BaseException], str] | None = None
    at: tuple[str, ...] = FLOW
    cycles: int = 1
    breaks: bool = False
    logged: bool = False
    options: dict[str, Any] = field(default_factory=dict)


def status(code: int, times: int | None = 1, **more: Any) -> Fault:
    return {"kind": "status", "status": code, "times": times, **more}


def network(name: str, *faults: Fault, **more: Any) -> list[Case]:
    """Once and then recovery; for good, until nothing is left to try."""
    return [
        Case(f"{name}_once", tuple({**fault, "times": 1} for fault in faults), 2, (1,), **more),
        Case(
            f"{name}_for_good",
            tuple({**fault, "times": None} for fault in faults),
            3,
            (1, 2),
            (auth.NetworkError, EXHAUSTED),
            **more,
        ),
    ]


def at_each(name: str, fault: Fault, **ends: tuple[type[BaseException], str] | None) -> list[Case]:
    """One attempt whose end depends on the endpoint; None is a success."""
    return [Case(f"{name}", (fault,), error=error, at=(endpoint,)) for endpoint, error in ends.items()]


NOT_SUBSCRIPTABLE = (TypeError, "'NoneType' object is not subscriptable")
NOT_A_MAPPING = (TypeError, "string indices must be integers, not 'str'")
NO_CHALLENGE = (KeyError, "'challenge_id'")
NO_TOKEN = (KeyError, "'token'")


def refused(reason: str) -> tuple[type[BaseException], str]:
    return (auth.AuthError, reason)


CASES = [
    # Answers that are waited out.
    *network("internal_error", {"kind": "status", "status": 500}),
    *network("unavailable", {"kind": "status", "status": 503}),
    *network("bad_gateway_with_a_page", {"kind": "non_json", "status": 502}),
    *network("method_not_allowed", {"kind": "status", "status": 405}),
    *network("unknown_status", {"kind": "status", "status": 599}),
    *network("see_other_without_a_place", {"kind": "status", "status": 303}),
    *network("temporary_redirect", {"kind": "redirect", "status": 307, "location": "/_echo/there"}),
    *network("forbidden", {"kind": "status", "status": 403}, at=("challenge", "verify")),
    *network("not_found", {"kind": "status", "status": 404}, at=UNUSED),
    *network("conflict", {"kind": "status", "status": 409}, at=UNUSED),
    *network("gone", {"kind": "status", "status": 410}, at=UNUSED),
    Case("two_errors_then_recovery", (status(500), status(503)), 3, (1, 2)),
    Case("rate_limited", (status(429, headers={"Retry-After": "7"}),), 2, (7,)),
    Case("rate_limited_in_lower_case", (status(429, headers={"retry-after": " 8 ".strip()}),), 2, (8,)),
    Case("rate_limited_twice_without_a_hint", (status(429, 2),), 3, (1, 1)),
    Case("rate_limited_after_an_error", (status(500), status(429)), 3, (1, 2)),
    Case(
        "rate_limited_with_an_unreadable_hint",
        (status(429, headers={"Retry-After": "soon"}),),
        2,
        (1,),
        logged=True,
    ),
    Case(
        "rate_limited_for_good",
        (status(429, None, headers={"Retry-After": "5"}),),
        3,
        (5, 5),
        (auth.NetworkError, EXHAUSTED),
    ),
    # Connections that break.
    *network("closed", {"kind": "close"}, breaks=True),
    *network("reset", {"kind": "reset"}, breaks=True),
    *network("cut_head", {"kind": "garbage", "body": "HTTP/1.1 200 OK\r\nContent-Le"}, breaks=True),
    *network("cut_body", {"kind": "cut_body", "declared": 5000, "sent": 20}, at=UNUSED, breaks=True),
    *network("cut_body_with_reset", {"kind": "cut_body", "reset": True}, at=UNUSED, breaks=True),
    *network("cut_chunk", {"kind": "cut_chunked", "sent": 10}, at=UNUSED, breaks=True),
    # The challenge is used although its answer is lost, so that the second try finds it stale.
    *[
        Case(f"{fault['kind']}_once", (fault,), 3, (1,), at=("verify",), cycles=2, breaks=True)
        for fault in (
            {"kind": "cut_body", "declared": 5000, "sent": 20},
            {"kind": "cut_chunked", "sent": 10},
            {"kind": "close", "processed": True},
            {"kind": "reset", "processed": True},
        )
    ],
    Case(
        "cut_body_for_good",
        ({"kind": "cut_body", "times": None},),
        3,
        (1, 2),
        (auth.NetworkError, EXHAUSTED),
        at=("verify",),
        breaks=True,
    ),
    Case("closed_after_the_answer", ({"kind": "close_after"},), breaks=True),
    Case(
        "garbage",
        ({"kind": "garbage", "body": "this is no HTTP at all\r\n\r\n"},),
        error=(http.client.BadStatusLine, "is not HTTP/1"),
        breaks=True,
    ),
    # Odd answers that are fine.
    Case("chunked", ({"kind": "chunked"},)),
    Case("slow", ({"kind": "delay", "seconds": 0.05},)),
    Case("slow_body", ({"kind": "delay", "seconds": 0.05, "at": "body"},)),
    Case("huge", ({"kind": "huge_body", "bytes": 3_000_000},)),
    Case("extra_key", ({"kind": "chunked", "headers": {"X-Padding": "x" * 4000}},)),
    Case("created", (status(201, processed=True),), at=("register",)),
    Case("no_content", ({"kind": "empty_body", "status": 204, "processed": True},), at=("register",)),
    # Answers that no login can use.
    *at_each(
        "empty",
        {"kind": "empty_body", "processed": True},
        register=None,
        challenge=NOT_SUBSCRIPTABLE,
        verify=NOT_SUBSCRIPTABLE,
    ),
    *at_each(
        "no_json",
        {"kind": "non_json", "processed": True},
        register=None,
        challenge=NOT_A_MAPPING,
        verify=NOT_A_MAPPING,
    ),
    *at_each(
        "not_utf8",
        {"kind": "not_utf8", "processed": True},
        register=None,
        challenge=NOT_A_MAPPING,
        verify=NOT_A_MAPPING,
    ),
    *at_each(
        "found_elsewhere",
        {"kind": "redirect", "status": 302, "location": "/_echo/there", "processed": True},
        register=None,
        challenge=NO_CHALLENGE,
        verify=NO_TOKEN,
    ),
    *at_each("no_id", {"kind": "missing_key", "key": "challenge_id"}, challenge=NO_CHALLENGE),
    *at_each("no_message", {"kind": "missing_key", "key": "message"}, challenge=(KeyError, "'message'")),
    *at_each("no_token", {"kind": "missing_key", "key": "token"}, verify=NO_TOKEN),
    *at_each("no_expiry", {"kind": "missing_key", "key": "expires_at"}, verify=(KeyError, "'expires_at'")),
    *at_each(
        "no_secret", {"kind": "missing_key", "key": "wallet_secret"}, verify=(KeyError, "'wallet_secret'")
    ),
    *at_each(
        "message_that_is_no_text",
        {"kind": "set_key", "key": "message", "value": ["a", "b"]},
        challenge=(TypeError, "challenge message must be str, not list"),
    ),
    *at_each(
        "secret_that_is_no_base64",
        {"kind": "set_key", "key": "wallet_secret", "value": "abc"},
        verify=(binascii.Error, "Incorrect padding"),
    ),
    # Refusals.
    *at_each(
        "bad_request",
        status(400),
        register=refused("invalid_address"),
        challenge=refused("invalid_request"),
        verify=refused("invalid_request"),
    ),
    *at_each(
        "unauthorized",
        status(401),
        register=refused("unauthorized"),
        challenge=refused("unauthorized"),
        verify=refused("signature_mismatch"),
    ),
    *at_each("forbidden", status(403), register=refused("unauthorized")),
    *at_each(
        "bad_request_without_json", {"kind": "non_json", "status": 400}, register=refused("invalid_address")
    ),
    *at_each(
        "refused_invite",
        status(400, json={"error": "invite_revoked"}),
        register=(auth.RegistrationError, "invite_revoked"),
    ),
    *at_each(
        "error_that_is_a_list",
        status(403, json={"error": ["invite_revoked"]}),
        register=refused("unauthorized"),
    ),
    # Challenges that have gone stale.
    *[
        Case(f"stale_{code}", ({"kind": "stale_challenge", "status": code},), 2, at=("verify",), cycles=2)
        for code in (404, 409, 410)
    ],
    Case("stale_twice", ({"kind": "stale_challenge", "times": 2},), 3, at=("verify",), cycles=3),
    Case(
        "stale_for_good",
        ({"kind": "stale_challenge", "times": None},),
        3,
        error=(auth.NetworkError, STALE),
        at=("verify",),
        cycles=3,
    ),
    # Tokens that are not this wallet's.
    *at_each("wrong_subject", {"kind": "wrong_subject"}, verify=refused("wallet_mismatch")),
    *at_each(
        "subject_that_is_no_text", {"kind": "wrong_subject", "subject": 7}, verify=refused("wallet_mismatch")
    ),
    *at_each("no_subject", {"kind": "claims", "drop": ["sub"]}, verify=refused("wallet_mismatch")),
    *at_each("bad_token", {"kind": "bad_token"}, verify=refused("wallet_mismatch")),
    *at_each("malformed_token", {"kind": "bad_token", "value": "a.b.c"}, verify=refused("wallet_mismatch")),
]

PARAMETERS = [
    pytest.param(endpoint, case, id=f"{endpoint}-{case.name}") for case in CASES for endpoint in case.at
]


def check_failure(error: BaseException, case: Case) -> None:
    assert case.error is not None
    kind, text = case.error
    assert type(error) is kind
    if kind is http.client.BadStatusLine:
        assert text in str(error)
    else:
        assert str(error) == text
    if kind is auth.NetworkError and text == EXHAUSTED and case.breaks:
        assert isinstance(error.__context__, ConnectionError)


def expected_attempts(endpoint: str, case: Case) -> dict[str, int]:
    counts = dict.fromkeys(FLOW, 1)
    if case.error is not None and endpoint != "verify":
        counts = {name: count for name, count in counts.items() if FLOW.index(name) <= FLOW.index(endpoint)}
    if case.cycles > 1:
        counts["challenge"] = case.cycles
    counts[endpoint] = case.attempts
    return counts


def run_case(one: Harness, endpoint: str, case: Case, server: DevServer) -> None:
    """A login that meets the fault, with a second caller waiting for it; then one that does not."""
    manager = one.manager
    token = manager._token
    already = server.state()["counts"][endpoint]
    first, *others = case.faults
    once = {**first, "times": 1, "hold": True}
    rest = first.get("times", 1)
    left = [] if rest == 1 else [{**first, "times": None if rest is None else rest - 1}]
    server.faults(endpoint, [once, *left, *others])
    one.forget()
    requests_before = wire(server)
    runner = Worker(manager.authenticate)
    server.wait_for(endpoint, already + 1)
    event = manager._auth_event
    waiter = Worker(manager.authenticate)
    until(lambda: waiters(event) == 1, "the second caller waits")
    server.release()
    runner.finish()
    waiter.finish()

    attempts = expected_attempts(endpoint, case)
    assert one.spy.attempts == attempts
    assert one.delays == list(case.delays)
    came = {name: count - requests_before.get(name, 0) for name, count in wire(server).items()}
    assert {name: came[name] for name in FLOW if came.get(name)} == attempts
    assert event.is_set()
    assert manager._auth_event is event
    assert manager._in_transient_backoff is False
    assert manager._lock.locked() is False
    if case.error is None:
        runner.result()
        waiter.result()
        assert manager._state == "AUTHENTICATED"
        assert manager._auth_error is None
        assert manager._token not in (None, token)
    else:
        error = one.discreet(runner.failure())
        check_failure(error, case)
        heard = one.discreet(waiter.failure())
        assert reason_of(heard) == str(error)
        assert manager._auth_error is heard
        assert (error is heard) == (type(error) is auth.AuthError)
        assert manager._state == ("UNINITIALIZED" if token is None else "AUTHENTICATED")
        assert manager._token == token
        assert manager._reauth_mode is None
        assert manager._permanent_refresh_error is False
        if token is not None:
            assert manager.get_token() == token
            assert manager._refresh_thread.is_alive()

    server.faults(endpoint, [])
    manager.authenticate()
    assert manager.get_token() not in (None, token)
    assert manager._auth_error is None


@pytest.mark.parametrize(("endpoint", "case"), PARAMETERS)
def test_fault(
    endpoint: str, case: Case, server: DevServer, harness: Make, caplog: pytest.LogCaptureFixture
) -> None:
    # Over a connection that was kept, the transport would try once more by itself.
    url = at_a_new_name(server) if case.breaks else server.url
    fresh = harness(url, close_connections=case.breaks)
    run_case(fresh, endpoint, case, server)
    assert [record.name for record in caplog.records] == ["tessaline"] * case.logged
    # Now a manager that has a token already, the one that has just got it.
    files = descriptors()
    run_case(fresh, endpoint, case, server)
    fresh.manager.close()
    assert descriptors() <= files


@pytest.mark.parametrize("endpoint", FLOW)
def test_an_unreadable_hint_is_logged(
    endpoint: str, server: DevServer, harness: Make, caplog: pytest.LogCaptureFixture
) -> None:
    server.faults(endpoint, [status(429, headers={"Retry-After": "soon"})])
    harness(server).manager.authenticate()
    (record,) = caplog.records
    assert (record.name, record.levelno) == ("tessaline", logging.ERROR)
    assert json.dumps(record.tessaline_metadata) == json.dumps(  # type: ignore[attr-defined]
        {"reason": "invalid_retry_after", "scope": "request"}
    )


class TestTimeOuts:
    @pytest.fixture(autouse=True)
    def impatient(self, monkeypatch: pytest.MonkeyPatch) -> None:
        monkeypatch.setattr(auth, "_auth_http_timeout_seconds", lambda: 0.6)

    @pytest.mark.parametrize("endpoint", FLOW)
    @pytest.mark.parametrize("at", ["headers", "body"])
    def test_one_late_answer_is_made_good(
        self, endpoint: str, at: str, server: DevServer, harness: Make
    ) -> None:
        one = harness(server)
        server.faults(endpoint, [{"kind": "delay", "seconds": 30, "at": at}])
        one.manager.authenticate()
        assert one.delays == [1]
        # Half an answer from verify: the challenge is used, and the flow starts over.
        used = endpoint == "verify" and at == "body"
        assert one.spy.attempts[endpoint] == (3 if used else 2)
        assert one.manager._state == "AUTHENTICATED"

    def test_a_server_that_never_answers(self, server: DevServer, harness: Make) -> None:
        one = harness(server)
        server.faults("verify", [{"kind": "hold", "times": None}])
        error = one.failure(one.manager.authenticate)
        assert (type(error), str(error)) == (auth.NetworkError, EXHAUSTED)
        assert isinstance(error.__context__, TimeoutError)
        assert (one.delays, one.spy.attempts["verify"]) == ([1, 2], 3)
        assert one.manager._state == "UNINITIALIZED"


def test_a_server_that_is_away(server: DevServer, harness: Make, unused_port: int) -> None:
    one = harness(f"http://127.0.0.1:{unused_port}")
    error = one.failure(one.manager.authenticate)
    assert (type(error), str(error)) == (auth.NetworkError, EXHAUSTED)
    assert type(error.__context__) is ConnectionRefusedError
    assert (one.delays, one.spy.attempts) == ([1, 2], {"register": 3})
    assert one.manager._state == "UNINITIALIZED"


def test_back_off_follows_a_clock_that_jumps(server: DevServer, harness: Make) -> None:
    one = harness(server)
    del one.manager._wait_with_clock
    readings: list[Any] = []

    def jumping() -> float:
        readings.append(None)
        one.clock.now += 30.0
        return one.clock.now

    one.manager._clock = jumping
    server.faults("challenge", [status(503, 2)])
    one.manager.authenticate()
    assert one.spy.attempts == {"register": 1, "challenge": 3, "verify": 1}
    # Two waits of two readings each, and one when the token is stored.
    assert len(readings) >= 5


def test_a_changed_wallet_secret_keeps_the_older_token(server: DevServer, harness: Make) -> None:
    one = harness(server)
    one.manager.authenticate()
    kept = one.manager.get_token(), one.manager.get_wallet_secret(), one.manager.get_token_expiry()
    one.clock.now += 10
    server.faults("verify", [{"kind": "changed_secret"}])
    assert reason_of(one.failure(one.manager.authenticate)) == "wallet_secret_changed"
    assert one.manager._state == "AUTHENTICATED"
    assert kept == (
        one.manager.get_token(),
        one.manager.get_wallet_secret(),
        one.manager.get_token_expiry(),
    )
    one.manager.authenticate()
    assert one.manager.get_token() != kept[0]


def test_a_claim_of_expiry_that_has_passed_is_not_looked_at(server: DevServer, harness: Make) -> None:
    one = harness(server)
    server.faults("verify", [{"kind": "claims", "set": {"exp": 1, "iat": 0}}])
    one.manager.authenticate()
    assert one.manager.get_token_expiry() == one.clock.now + 86400
