"""The retry layer: verdict per status, path and reason; back-off; Retry-After; the log."""

from __future__ import annotations

import ssl
import urllib.error
from collections.abc import Callable
from typing import Any

import pytest
from hypothesis import example, given, settings
from hypothesis import strategies as st

from tessaline import auth
from tests.shared.clocks import HandClock
from tests.shared.threads import Worker, until

from .helpers.clocks import FakeTime
from .helpers.managers import build, reason_of
from .helpers.server import CHALLENGE, DISPLAY_NAME, REGISTER, VERIFY

PROPERTY = settings(deadline=None, database=None, derandomize=True, max_examples=300)

INVITE_REASONS = ("invite_invalid", "invite_already_redeemed", "invite_revoked", "invite_required")
PATHS = (REGISTER, CHALLENGE, VERIFY, DISPLAY_NAME, "/somewhere/else")


class Harness:
    """A manager with scripted exchanges whose waits are only recorded."""

    def __init__(self, manager: Any, *answers: Any) -> None:
        self.manager = manager
        self.answers = list(answers)
        self.requests: list[tuple[tuple[Any, ...], dict[str, Any]]] = []
        self.waits: list[Any] = []
        self.flags: list[tuple[str, bool]] = []
        self.on_wait: Callable[[int], None] | None = None
        manager._http_request = self._request
        manager._wait_with_clock = self._wait

    def _request(self, *args: Any, **kwargs: Any) -> Any:
        self.requests.append((args, kwargs))
        self.flags.append(("request", self.manager._in_transient_backoff))
        if len(self.requests) > 500:
            raise AssertionError("the loop does not end")
        answer = self.answers[min(len(self.requests), len(self.answers)) - 1]
        if isinstance(answer, BaseException):
            raise answer
        return answer

    def _wait(self, seconds: Any) -> None:
        self.waits.append(seconds)
        self.flags.append(("wait", self.manager._in_transient_backoff))
        if self.on_wait is not None:
            self.on_wait(len(self.waits))

    def run(self, path: str = CHALLENGE, **kwargs: Any) -> Any:
        return self.manager._request_with_retry("POST", path, **kwargs)

    def fail(self, path: str = CHALLENGE, **kwargs: Any) -> BaseException:
        with pytest.raises(BaseException) as caught:
            self.run(path, **kwargs)
        return caught.value

    def close_at_wait(self, number: int) -> None:
        def close(count: int) -> None:
            if count == number:
                self.manager._close_event.set()

        self.on_wait = close


@pytest.fixture
def harness(manager: Any) -> Callable[..., Harness]:
    return lambda *answers: Harness(manager, *answers)


# The verdict table

BODIES: tuple[Any, ...] = (
    None,
    "plain text",
    "invite_invalid",
    ["error", "invite_invalid"],
    7,
    {},
    {"Error": "invite_invalid"},
    {"error": None},
    {"error": ""},
    {"error": "something_else"},
    {"error": ["invite_invalid"]},
    {"error": {"invite_invalid": 1}},
    {"error": 5},
    {"reason": "invite_required"},
    *({"error": reason} for reason in INVITE_REASONS),
)


def model(status: int, path: str, is_verify: bool, body: Any, hint: int) -> tuple[Any, ...]:
    """The expected result of one response, followed by two 503s, with at most three tries."""
    register, profile = path == REGISTER, path == DISPLAY_NAME
    gave_up = "Server unreachable after 3 attempts"
    if status in (400, 403) and register:
        said = body["error"] if isinstance(body, dict) and "error" in body else None
        if any(said == reason for reason in INVITE_REASONS):
            return "RegistrationError", said, {}, []
        return "AuthError", {400: "invalid_address", 403: "unauthorized"}[status], {}, []
    if status == 400 and profile:
        message = body.get("error", "") if isinstance(body, dict) else ""
        return "ProfileError", "validation_failed", {"message": message}, []
    if status == 400:
        return "AuthError", "invalid_request", {}, []
    if status == 401:
        named = {VERIFY: "signature_mismatch", DISPLAY_NAME: "profile_unauthorized"}
        return "AuthError", named.get(path, "unauthorized"), {}, []
    if status in (404, 409, 410) and is_verify:
        return "returned", status, {}, []
    if status == 429 and profile:
        return "ProfileError", "rate_limited", {"retry_after": hint}, []
    if status == 429:
        return "NetworkError", gave_up, {}, [hint, 1]
    if status // 100 == 2:
        return "returned", status, {}, []
    return "NetworkError", gave_up, {}, [1, 2]


def observed(harness: Harness, path: str, is_verify: bool, answer: Any) -> tuple[Any, ...]:
    harness.answers = [answer, (503, {}, None)]
    harness.requests.clear()
    harness.waits = []
    try:
        result = harness.run(path, max_attempts=3, is_verify=is_verify)
    except (auth.AuthError, auth.ProfileError) as error:
        extras = {name: value for name, value in vars(error).items() if name != "reason"}
        outcome: tuple[Any, ...] = (type(error).__name__, error.reason, extras)
        assert str(error) == error.reason
    except (auth.RegistrationError, auth.NetworkError) as error:
        outcome = (type(error).__name__, *error.args, vars(error))
    else:
        assert result[1] is answer[1] and result[2] is answer[2]
        outcome = ("returned", result[0], {})
    assert len(harness.requests) == len(harness.waits) + 1
    return (*outcome, harness.waits)


@pytest.mark.parametrize("path", PATHS)
@pytest.mark.parametrize("is_verify", [False, True])
def test_verdict_of_every_status_with_every_reason(
    harness: Callable[..., Harness], path: str, is_verify: bool
) -> None:
    one = harness()
    wrong = []
    for status in range(100, 600):
        for body in BODIES:
            answer = (status, {"Retry-After": "7"}, body)
            wanted = model(status, path, is_verify, body, 7)
            got = observed(one, path, is_verify, answer)
            if got != wanted:
                wrong.append((status, body, wanted, got))
    assert wrong == []


def test_the_asymmetries_of_the_table_are_in_the_model() -> None:
    assert model(403, REGISTER, False, None, 0)[1] == "unauthorized"
    assert model(403, CHALLENGE, False, None, 0)[0] == "NetworkError"
    assert model(404, VERIFY, True, None, 0)[0] == "returned"
    assert model(404, VERIFY, False, None, 0)[0] == "NetworkError"
    assert model(404, CHALLENGE, True, None, 0)[0] == "returned"
    assert model(401, VERIFY, True, None, 0)[1] == "signature_mismatch"
    assert model(299, "/x", False, None, 0)[0] == "returned"
    assert model(300, "/x", False, None, 0)[0] == "NetworkError"


# Named cases


def test_refused_connections_with_3_attempts_wait_1_and_2_seconds_and_end_unreachable(
    harness: Callable[..., Harness],
) -> None:
    one = harness(ConnectionRefusedError("refused"))
    error = one.fail(max_attempts=3)
    assert type(error) is auth.NetworkError
    assert error.args == ("Server unreachable after 3 attempts",)
    assert one.waits == [1, 2]
    assert len(one.requests) == 3


def test_without_max_attempts_503_is_retried_until_the_close_event_is_set(
    harness: Callable[..., Harness],
) -> None:
    one = harness((503, {}, None))
    one.close_at_wait(50)
    assert reason_of(one.fail()) == "manager_closed"
    assert len(one.requests) == 50
    assert one.waits == [1, 2, 4, 8, 16, 32] + [60] * 44


def test_429_on_challenge_with_retry_after_7_waits_7_counts_once_and_keeps_the_backoff(
    harness: Callable[..., Harness],
) -> None:
    one = harness((429, {"Retry-After": "7"}, None), (503, {}, None), (429, {"Retry-After": "7"}, None))
    error = one.fail(max_attempts=4)
    assert str(error) == "Server unreachable after 4 attempts"
    assert one.waits == [7, 1, 7]


def test_429_alone_uses_attempts_up(harness: Callable[..., Harness]) -> None:
    one = harness((429, {"Retry-After": "3"}, None))
    error = one.fail(max_attempts=3)
    assert type(error) is auth.NetworkError
    assert str(error) == "Server unreachable after 3 attempts"
    assert one.waits == [3, 3]


def test_429_without_the_header_waits_the_current_backoff(harness: Callable[..., Harness]) -> None:
    answers: list[Any] = [(429, {}, None), (503, {}, None), (429, {}, None), (429, {}, None), (503, {}, None)]
    one = harness(*answers, (200, {}, "done"))
    assert one.run() == (200, {}, "done")
    assert one.waits == [1, 1, 2, 2, 2]


def test_429_on_display_name_without_the_header_fails_at_once_with_retry_after_60(
    harness: Callable[..., Harness],
) -> None:
    one = harness((429, {}, None))
    error = one.fail(DISPLAY_NAME)
    assert type(error) is auth.ProfileError
    assert (error.reason, error.retry_after) == ("rate_limited", 60)
    assert one.waits == []
    assert len(one.requests) == 1


def test_404_from_verify_is_returned_with_is_verify(harness: Callable[..., Harness]) -> None:
    answer = (404, {"A": "b"}, {"error": "gone"})
    result = harness(answer).run(VERIFY, is_verify=True)
    assert result == answer
    assert all(one is other for one, other in zip(result, answer, strict=True))


def test_the_same_404_on_challenge_is_retried(harness: Callable[..., Harness]) -> None:
    one = harness((404, {}, {"error": "gone"}), (200, {}, "later"))
    assert one.run(CHALLENGE) == (200, {}, "later")
    assert one.waits == [1]


def test_204_with_an_empty_body_returns_none(manager: Any, server: Any) -> None:
    from .helpers.server import Answer

    server.script(CHALLENGE, Answer(204, b"", {"A": "b"}))
    assert manager._request_with_retry("POST", CHALLENGE) == (204, {"A": "b"}, None)


def test_400_from_register_with_a_text_body_is_invalid_address(harness: Callable[..., Harness]) -> None:
    assert reason_of(harness((400, {}, "invite_invalid")).fail(REGISTER)) == "invalid_address"


@pytest.mark.parametrize("status", [400, 403])
@pytest.mark.parametrize("reason", INVITE_REASONS)
def test_register_refused_with_an_invite_reason_is_a_registration_error(
    harness: Callable[..., Harness], status: int, reason: str
) -> None:
    error = harness((status, {}, {"error": reason, "more": 1})).fail(REGISTER)
    assert type(error) is auth.RegistrationError
    assert error.args == (reason,)


@pytest.mark.parametrize("said", [[], ["invite_invalid"], {}, {"a": []}, 5, None, True, 1.5])
@pytest.mark.parametrize(("status", "reason"), [(400, "invalid_address"), (403, "unauthorized")])
def test_error_value_that_is_not_text_is_no_invite_reason(
    harness: Callable[..., Harness], said: Any, status: int, reason: str
) -> None:
    assert reason_of(harness((status, {}, {"error": said})).fail(REGISTER)) == reason


@pytest.mark.parametrize(
    ("body", "message"),
    [
        ({"error": "name is taken"}, "name is taken"),
        ({"error": ["too", "short"]}, ["too", "short"]),
        ({"error": None}, None),
        ({}, ""),
        ("text", ""),
        (["error"], ""),
        (None, ""),
    ],
)
def test_400_on_display_name_is_validation_failed_with_the_server_message(
    harness: Callable[..., Harness], body: Any, message: Any
) -> None:
    error = harness((400, {}, body)).fail(DISPLAY_NAME)
    assert type(error) is auth.ProfileError
    assert error.reason == "validation_failed"
    assert error.message == message
    assert not hasattr(error, "retry_after")


# Network failures


class OwnReset(ConnectionResetError):
    pass


@pytest.mark.parametrize(
    "error",
    [
        ConnectionError("c"),
        ConnectionRefusedError("r"),
        ConnectionResetError("s"),
        ConnectionAbortedError("a"),
        BrokenPipeError("p"),
        TimeoutError("t"),
        OwnReset("o"),
    ],
    ids=lambda error: type(error).__name__,
)
def test_connection_and_time_out_failures_are_retried(
    harness: Callable[..., Harness], error: Exception
) -> None:
    one = harness(error, error, (200, {}, None))
    assert one.run(max_attempts=3) == (200, {}, None)
    assert one.waits == [1, 2]


@pytest.mark.parametrize(
    "error",
    [
        OSError("o"),
        ssl.SSLError("handshake"),
        ssl.SSLCertVerificationError("certificate"),
        urllib.error.URLError("u"),
        ValueError("v"),
        KeyError("k"),
        RuntimeError("r"),
        auth.AuthError(reason="inner"),
        KeyboardInterrupt(),
        SystemExit(1),
        GeneratorExit(),
    ],
    ids=lambda error: type(error).__name__,
)
def test_any_other_failure_passes_at_once_as_the_same_object(
    harness: Callable[..., Harness], error: BaseException
) -> None:
    one = harness(error)
    assert one.fail(max_attempts=3) is error
    assert one.waits == []
    assert len(one.requests) == 1


@pytest.mark.parametrize("attempts", [1, 2, 5, 12])
def test_the_network_exception_is_the_context_of_the_exhaustion(
    harness: Callable[..., Harness], attempts: int
) -> None:
    cause = TimeoutError("the last one")
    one = harness(*[ConnectionError("earlier")] * (attempts - 1), cause)
    error = one.fail(max_attempts=attempts)
    assert error.args == (f"Server unreachable after {attempts} attempts",)
    assert error.__context__ is cause
    assert error.__cause__ is None


def test_exhaustion_by_status_has_no_context(harness: Callable[..., Harness]) -> None:
    for status in (503, 500, 429):
        assert harness((status, {}, None)).fail(max_attempts=2).__context__ is None


def test_an_earlier_network_exception_is_not_the_context_of_a_later_verdict(
    harness: Callable[..., Harness],
) -> None:
    assert harness(ConnectionError("first"), (401, {}, None)).fail().__context__ is None
    assert harness(ConnectionError("first"), (503, {}, None)).fail(max_attempts=2).__context__ is None


@pytest.mark.parametrize("limit", [0, 1, -3])
def test_a_limit_of_one_or_less_allows_one_attempt_and_no_wait(
    harness: Callable[..., Harness], limit: int
) -> None:
    one = harness((503, {}, None))
    assert str(one.fail(max_attempts=limit)) == "Server unreachable after 1 attempts"
    assert one.waits == []


def test_success_after_failures_needs_no_attempts_left(harness: Callable[..., Harness]) -> None:
    one = harness((500, {}, None), ConnectionError("x"), (200, {}, {"ok": 1}))
    assert one.run(max_attempts=3) == (200, {}, {"ok": 1})


# Back-off


def test_waits_double_up_to_60_without_jitter(harness: Callable[..., Harness]) -> None:
    one = harness((502, {}, None))
    assert str(one.fail(max_attempts=9)) == "Server unreachable after 9 attempts"
    assert one.waits == [1, 2, 4, 8, 16, 32, 60, 60]
    assert {type(wait) for wait in one.waits} == {int}


def test_network_failures_503_and_other_statuses_share_one_backoff(harness: Callable[..., Harness]) -> None:
    one = harness(ConnectionError("x"), (503, {}, None), (500, {}, None), TimeoutError("y"), (200, {}, None))
    one.run()
    assert one.waits == [1, 2, 4, 8]


def test_backoff_starts_again_at_every_call(harness: Callable[..., Harness]) -> None:
    one = harness((503, {}, None))
    one.fail(max_attempts=3)
    one.fail(max_attempts=3)
    assert one.waits == [1, 2, 1, 2]


def test_backoff_base_and_cap_are_read_from_the_module(
    harness: Callable[..., Harness], monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(auth, "_BACKOFF_BASE", 3)
    monkeypatch.setattr(auth, "_BACKOFF_CAP", 10)
    one = harness((503, {}, None))
    one.fail(max_attempts=5)
    assert one.waits == [3, 6, 10, 10]


def test_fractional_backoff_constants_work(
    harness: Callable[..., Harness], monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(auth, "_BACKOFF_BASE", 0.25)
    monkeypatch.setattr(auth, "_BACKOFF_CAP", 0.75)
    one = harness((503, {}, None))
    one.fail(max_attempts=5)
    assert one.waits == [0.25, 0.5, 0.75, 0.75]


def test_the_backoff_flag_is_true_exactly_during_a_wait(harness: Callable[..., Harness]) -> None:
    one = harness((503, {}, None), (429, {"Retry-After": "1"}, None), ConnectionError("x"), (200, {}, None))
    one.run()
    assert one.flags == [("request", False), ("wait", True)] * 3 + [("request", False)]
    assert one.manager._in_transient_backoff is False


@pytest.mark.parametrize("answer", [(503, {}, None), (429, {}, None), ConnectionError("x")], ids=repr)
@pytest.mark.parametrize("error", [RuntimeError("wait broke"), KeyboardInterrupt(), SystemExit(2)], ids=repr)
def test_the_backoff_flag_is_false_again_after_an_exception_in_the_wait(
    harness: Callable[..., Harness], answer: Any, error: BaseException
) -> None:
    one = harness(answer)

    def wait_breaks(count: int) -> None:
        raise error

    one.on_wait = wait_breaks
    assert one.fail() is error
    assert one.flags[-1] == ("wait", True)
    assert one.manager._in_transient_backoff is False


# Closing


def test_a_set_close_event_fails_before_any_request(harness: Callable[..., Harness]) -> None:
    one = harness((200, {}, None))
    one.manager._close_event.set()
    assert reason_of(one.fail()) == "manager_closed"
    assert one.requests == []


def test_a_close_during_a_wait_ends_at_the_next_pass(harness: Callable[..., Harness]) -> None:
    for answer in [(503, {}, None), (429, {}, None), ConnectionError("x")]:
        one = harness(answer)
        one.manager._close_event.clear()
        one.close_at_wait(1)
        assert reason_of(one.fail(max_attempts=3)) == "manager_closed"
        assert len(one.requests) == 1


def test_a_close_during_the_request_does_not_take_its_answer_away(harness: Callable[..., Harness]) -> None:
    one = harness()

    def request(*args: Any, **kwargs: Any) -> Any:
        one.manager._close_event.set()
        return 200, {}, "answer"

    one.manager._http_request = request
    assert one.run() == (200, {}, "answer")


def test_another_thread_ends_a_real_backoff_wait_by_the_close_event(
    make_manager: Callable[..., Any], server: Any
) -> None:
    server.always(CHALLENGE, ConnectionRefusedError("refused"))
    manager = make_manager(clock=None)
    worker = Worker(manager._request_with_retry, "POST", CHALLENGE)
    until(lambda: manager._in_transient_backoff, what="the back-off")
    manager._close_event.set()
    assert reason_of(worker.failure(1.0)) == "manager_closed"


# Retry-After


def hint_of(headers: dict[str, Any], monkeypatch: pytest.MonkeyPatch | None = None) -> Any:
    manager = build()
    one = Harness(manager, (429, headers, None))
    error = one.fail(DISPLAY_NAME)
    assert type(error) is auth.ProfileError and error.reason == "rate_limited"
    waiting = Harness(manager, (429, headers, None), (200, {}, None))
    waiting.run()
    return error.retry_after, *waiting.waits


@pytest.fixture
def log(monkeypatch: pytest.MonkeyPatch) -> list[Any]:
    entries: list[Any] = []
    monkeypatch.setattr(
        auth, "log_library_surface_event", lambda *args, **kwargs: entries.append((args, kwargs))
    )
    return entries


@pytest.mark.parametrize(
    ("text", "seconds"),
    [
        ("7", 7),
        (" 7 ", 7),
        ("\t12\n", 12),
        ("0", 0),
        ("-5", -5),
        ("+3", 3),
        ("1_000", 1000),
        ("007", 7),
        ("100000000000000000000", 10**20),
        ("\u0667", 7),
    ],
)
def test_retry_after_is_read_as_the_host_reads_an_integer_without_clamp(
    log: list[Any], text: str, seconds: int
) -> None:
    hints = hint_of({"Retry-After": text})
    assert hints == (seconds, seconds)
    assert {type(hint) for hint in hints} == {int}
    assert log == []


def test_retry_after_in_lower_case_is_read(log: list[Any]) -> None:
    assert hint_of({"retry-after": "9"}) == (9, 9)
    assert log == []


def test_the_exact_spelling_of_retry_after_wins_over_the_lower_case_one() -> None:
    assert hint_of({"retry-after": "9", "Retry-After": "4"}) == (4, 4)


def test_an_empty_exact_header_hides_the_lower_case_one(log: list[Any]) -> None:
    assert hint_of({"Retry-After": "", "retry-after": "9"}) == (60, 1)
    assert log == []


@pytest.mark.parametrize("headers", [{}, {"RETRY-AFTER": "9"}, {"Retry-after": "9"}, {"Retry-After": ""}])
def test_a_missing_or_empty_retry_after_means_the_default_and_no_log(
    log: list[Any], headers: dict[str, str]
) -> None:
    assert hint_of(headers) == (60, 1)
    assert log == []


INVALID = ["abc", "7.5", "1e3", "Wed, 21 Oct 2026 07:28:00 GMT", " ", "--1", "7 s", "9" * 5000]


@pytest.mark.parametrize("text", INVALID, ids=lambda text: text[:12])
def test_an_invalid_retry_after_keeps_the_default_and_is_logged_with_its_scope(
    log: list[Any], text: str
) -> None:
    assert hint_of({"Retry-After": text}) == (60, 1)
    assert [kwargs["metadata"]["scope"] for _, kwargs in log] == ["profile", "request"]


@pytest.mark.parametrize(
    ("path", "scope", "line"), [(DISPLAY_NAME, "profile", 452), (CHALLENGE, "request", 461)]
)
def test_the_log_entry_of_an_invalid_retry_after(
    harness: Callable[..., Harness], log: list[Any], path: str, scope: str, line: int
) -> None:
    harness((429, {"Retry-After": "soon"}, None)).fail(path, max_attempts=1)
    assert log == [
        (
            ("Authentication and HTTP transport", "error"),
            {
                "sub_service": "auth",
                "component": "retry",
                "metadata": {"reason": "invalid_retry_after", "scope": scope},
                "source_function": "_request_with_retry",
                "source_file": "tessaline_library/src/tessaline/auth",
                "source_line": line,
            },
        )
    ]
    assert type(log[0][1]["source_line"]) is int


def test_the_entry_reaches_the_standard_log(
    harness: Callable[..., Harness], caplog: pytest.LogCaptureFixture
) -> None:
    caplog.set_level(0, logger="tessaline")
    harness((429, {"Retry-After": "soon"}, None)).fail(CHALLENGE, max_attempts=1)
    (record,) = [record for record in caplog.records if record.name.startswith("tessaline")]
    assert record.levelname == "ERROR"
    assert "soon" not in record.getMessage()


def test_an_invalid_retry_after_waits_the_current_backoff_and_leaves_it(
    harness: Callable[..., Harness], log: list[Any]
) -> None:
    bad = (429, {"Retry-After": "soon"}, None)
    one = harness((503, {}, None), bad, (503, {}, None), bad, (200, {}, None))
    one.run()
    assert one.waits == [1, 2, 2, 4]
    assert len(log) == 2


def test_the_result_of_the_log_is_ignored(
    harness: Callable[..., Harness], monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(auth, "log_library_surface_event", lambda *args, **kwargs: ValueError("ignored"))
    assert harness((429, {"Retry-After": "x"}, None)).fail(DISPLAY_NAME).retry_after == 60  # type: ignore[attr-defined]


def test_no_status_but_429_reads_retry_after_or_logs(harness: Callable[..., Harness], log: list[Any]) -> None:
    one = harness((503, {"Retry-After": "x"}, None), (502, {"Retry-After": "9"}, None), (200, {}, None))
    one.run()
    assert one.waits == [1, 2]
    assert log == []


@PROPERTY
@given(st.text(max_size=8) | st.integers().map(str) | st.integers().map(lambda n: f" {n}\n"))
@example("9" * 4301)
@example("\u0660")
def test_any_retry_after_text_is_an_integer_or_the_default(text: str) -> None:
    try:
        wanted = int(text) if text else None
    except ValueError:
        wanted = None
    hints = hint_of({"Retry-After": text})
    assert hints == ((60, 1) if wanted is None else (wanted, wanted))


# What is passed on


def test_arguments_are_handed_to_the_request_unchanged(harness: Callable[..., Harness]) -> None:
    body, headers = {"a": 1}, {"H": "v"}
    one = harness((503, {}, None), (200, {}, None))
    one.run("/p", body_dict=body, headers=headers, max_attempts=5)
    assert len(one.requests) == 2
    for args, kwargs in one.requests:
        assert args == ("POST", "/p")
        assert kwargs == {"body_dict": body, "headers": headers}
        assert kwargs["body_dict"] is body and kwargs["headers"] is headers


def test_body_and_headers_default_to_none(harness: Callable[..., Harness]) -> None:
    one = harness((200, {}, None))
    one.run("/p")
    assert one.requests == [(("POST", "/p"), {"body_dict": None, "headers": None})]


def test_all_arguments_may_go_by_position(harness: Callable[..., Harness]) -> None:
    one = harness((404, {}, None))
    assert one.manager._request_with_retry("GET", VERIFY, None, None, 3, True) == (404, {}, None)


def test_a_subclass_may_replace_the_request_and_the_wait(make_manager: Callable[..., Any]) -> None:
    class Patched(auth.AuthManager):
        def _http_request(self, method: str, path: str, body_dict: Any = None, headers: Any = None) -> Any:
            self.seen = [*getattr(self, "seen", []), path]
            return (503, {}, None) if len(self.seen) < 3 else (200, {}, "from the subclass")

        def _wait_with_clock(self, seconds: float) -> None:
            self.waited = [*getattr(self, "waited", []), seconds]

    manager = make_manager(cls=Patched)
    assert manager._request_with_retry("POST", CHALLENGE)[2] == "from the subclass"
    assert manager.seen == [CHALLENGE] * 3
    assert manager.waited == [1, 2]


def test_waits_follow_the_clock_through_the_real_wait(
    make_manager: Callable[..., Any], server: Any, clock: HandClock, monkeypatch: pytest.MonkeyPatch
) -> None:
    fake = FakeTime(on_sleep=lambda count: clock.advance(0.5))
    monkeypatch.setattr(auth, "_time", fake)
    server.script(CHALLENGE, ConnectionError("a"), ConnectionError("b"))
    manager = make_manager()
    assert manager._request_with_retry("POST", CHALLENGE, {"wallet_address": "0x0"})[0] == 200
    assert clock.now == 1003.0
    assert fake.sleeps == [0.05] * 6


def test_no_lock_is_taken(harness: Callable[..., Harness]) -> None:
    one = harness((503, {}, None), (200, {}, "done"))
    with one.manager._lock:
        assert Worker(one.run).result(5.0) == (200, {}, "done")


def test_docstring_names_the_errors() -> None:
    text = auth.AuthManager._request_with_retry.__doc__
    assert "AuthError" in text and "NetworkError" in text
    assert "(status, resp_headers, resp_body)" in text


@pytest.mark.parametrize(
    ("args", "kwargs"),
    [((), {}), (("POST",), {}), (("POST", "/x", 0, 0, 0, 0, 0), {}), (("POST", "/x"), {"retries": 1})],
)
def test_wrong_arguments_send_nothing(
    harness: Callable[..., Harness], args: tuple[Any, ...], kwargs: dict[str, Any]
) -> None:
    one = harness((200, {}, None))
    with pytest.raises(TypeError, match="_request_with_retry"):
        one.manager._request_with_retry(*args, **kwargs)
    assert one.requests == []
