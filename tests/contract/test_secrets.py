"""Key, token, signature and wallet secret never appear in texts, errors, traces, logs or copies."""

from __future__ import annotations

import base64
import copy
import gc
import io
import json
import logging
import pickle
import sys
import threading
import traceback
from collections.abc import Callable
from typing import Any

import pytest

import canary
from tessaline import auth
from tests.shared.clocks import HandClock
from tests.shared.threads import Worker, until

from .support.host import unstartable_threads
from .support.managers import KEY, build
from .support.service import (
    BASE,
    CHALLENGE,
    DISPLAY_NAME,
    REGISTER,
    VERIFY,
    Service,
    always_answers,
    always_raises,
    answer,
    token_text,
)
from .support.threads import ThreadCensus

DAY = 86400.0


def forms_of(secret: bytes) -> set[str]:
    return {
        secret.hex(),
        secret.hex().upper(),
        repr(secret)[2:-1],
        str(list(secret))[1:-1],
        base64.b64encode(secret).decode(),
        str(int.from_bytes(secret, "big")),
    }


def secrets_of(service: Service) -> set[str]:
    """Whatever a reader could use; parts of 20 characters count too."""
    whole = forms_of(bytes.fromhex(KEY)) | forms_of(service.secret)
    whole |= set(service.tokens) | set(service.signatures)
    parts = set()
    for text in whole:
        parts |= {text[:20], text[-20:]} if len(text) > 20 else {text}
    # All tokens begin with the same header, which is no secret.
    return {part for part in parts if part and not part.startswith("eyJhbGciOiJub25lIn0")}


def assert_nothing_secret(text: str, service: Service) -> None:
    for secret in secrets_of(service):
        assert secret not in text, f"{secret!r} in {text!r}"


def everything_shown_of(error: BaseException) -> str:
    """The error as a person or a crash report would see it, without the locals of other packages' frames."""
    shown = [
        repr(error),
        str(error),
        repr(error.args),
        repr(vars(error)),
        repr(getattr(error, "__notes__", None)),
    ]
    shown.append("".join(traceback.format_exception(error)))
    seen = {id(error)}
    pending = [error.__context__, error.__cause__]
    while pending:
        linked = pending.pop()
        if linked is not None and id(linked) not in seen:
            seen.add(id(linked))
            shown += [repr(linked), repr(vars(linked))]
            pending += [linked.__context__, linked.__cause__]
    return "\n".join(shown)


def caught(call: Callable[..., Any], *args: Any, **kwargs: Any) -> BaseException:
    try:
        result = call(*args, **kwargs)
    except BaseException as error:
        return error
    raise AssertionError(f"no error but {result!r}")


# Texts of the manager


def test_what_a_manager_shows_of_itself(logged_in: Any, service: Service) -> None:
    for text in (repr(logged_in), str(logged_in), f"{logged_in}", f"{logged_in!a}", "%r" % (logged_in,)):  # noqa: UP031
        assert_nothing_secret(text, service)
        assert logged_in.get_wallet_address() in text
        assert BASE in text and "AUTHENTICATED" in text and "AuthManager" in text


@pytest.mark.parametrize("state", ["UNINITIALIZED", "AUTHENTICATING", "RE_AUTHENTICATING", "CLOSED"])
def test_what_a_manager_shows_in_every_state(logged_in: Any, service: Service, state: str) -> None:
    logged_in._state = state
    assert state in repr(logged_in)
    assert_nothing_secret(repr(logged_in), service)
    logged_in._state = "AUTHENTICATED"


def test_what_methods_and_dictionaries_show(logged_in: Any, service: Service) -> None:
    assert_nothing_secret(repr(vars(logged_in)), service)
    for name in dir(auth.AuthManager):
        if callable(getattr(logged_in, name)):
            assert_nothing_secret(repr(getattr(logged_in, name)), service)


def test_threads_and_events_show_nothing(logged_in: Any, service: Service) -> None:
    shown = [repr(thread) for thread in threading.enumerate()]
    shown += [repr(value) for value in gc.get_referents(logged_in) if not isinstance(value, str | bytes)]
    assert_nothing_secret("\n".join(shown), service)


def test_the_key_is_no_object_that_the_collector_or_a_debugger_meets(logged_in: Any) -> None:
    assert KEY not in [value for value in gc.get_referents(logged_in) if isinstance(value, str)]
    assert bytes.fromhex(KEY) not in [
        value for value in gc.get_referents(logged_in) if isinstance(value, bytes)
    ]


# Copies


COPIES: list[Any] = [
    pytest.param(copy.copy, id="copy"),
    pytest.param(copy.deepcopy, id="deepcopy"),
    *[
        pytest.param(lambda manager, version=version: pickle.dumps(manager, version), id=f"pickle {version}")
        for version in range(pickle.HIGHEST_PROTOCOL + 1)
    ],
    pytest.param(lambda manager: pickle.Pickler(io.BytesIO()).dump([manager]), id="pickle in a list"),
    pytest.param(lambda manager: copy.deepcopy({"manager": manager}), id="deepcopy in a mapping"),
    pytest.param(lambda manager: manager.__reduce__(), id="reduce"),
    pytest.param(lambda manager: manager.__reduce_ex__(2), id="reduce_ex"),
]


class Kept(auth.AuthManager):
    pass


@pytest.mark.parametrize("copying", COPIES)
@pytest.mark.parametrize("cls", [auth.AuthManager, Kept], ids=["class", "subclass"])
def test_a_manager_is_not_copied(copying: Callable[[Any], Any], cls: Any, service: Service) -> None:
    manager = cls(KEY, BASE, _transport=service)
    error = caught(copying, manager)
    assert type(error) is TypeError
    assert "AuthManager" in str(error) and "key" in str(error)
    assert_nothing_secret(everything_shown_of(error), service)


def test_a_manager_is_not_serialised(logged_in: Any, service: Service) -> None:
    error = caught(json.dumps, logged_in)
    assert type(error) is TypeError
    assert_nothing_secret(everything_shown_of(error), service)


# Errors of the arguments

BAD_KEYS: list[Any] = [
    pytest.param(KEY[:-1] + "g", id="letter"),
    pytest.param(KEY[:-1], id="short"),
    pytest.param(KEY + KEY, id="long"),
    pytest.param("0x0x" + KEY, id="two prefixes"),
    pytest.param(" " + KEY[1:], id="blank"),
    pytest.param(KEY[:-1] + "\u0660", id="digit of another script"),
    pytest.param(KEY[:-1] + "\0", id="zero"),
    pytest.param(KEY.encode(), id="bytes"),
    pytest.param(int(KEY, 16), id="number"),
    pytest.param([KEY], id="list"),
    pytest.param(bytearray.fromhex(KEY), id="bytearray"),
]
CONSUMERS: list[Any] = [
    pytest.param(lambda key: auth.AuthManager(key, BASE), id="constructor"),
    pytest.param(lambda key: auth._validate_private_key(key), id="function"),
    pytest.param(lambda key: setattr(auth.AuthManager("1" * 64, BASE), "_private_key", key), id="field"),
    pytest.param(lambda key: auth.AuthManager("1" * 64, BASE, key), id="one positional too many"),  # type: ignore[call-arg]
    pytest.param(lambda key: auth.AuthManager("1" * 64, BASE, private_key=key), id="given twice"),  # type: ignore[misc]
    pytest.param(lambda key: auth.AuthManager(key), id="no server"),  # type: ignore[call-arg]
    pytest.param(lambda key: auth.AuthManager(key, BASE, wallet=key), id="unknown keyword"),  # type: ignore[call-arg]
    pytest.param(lambda key: auth._validate_private_key(key, key), id="function with two"),  # type: ignore[call-arg]
    pytest.param(lambda key: auth._validate_private_key(nothing=key), id="function with another keyword"),  # type: ignore[call-arg]
]


@pytest.mark.parametrize("consume", CONSUMERS)
@pytest.mark.parametrize("key", BAD_KEYS)
def test_no_error_repeats_the_key(consume: Callable[[Any], Any], key: Any, service: Service) -> None:
    error = caught(consume, key)
    assert isinstance(error, auth.InvalidKeyError | TypeError)
    assert_nothing_secret(everything_shown_of(error), service)


@pytest.mark.parametrize(
    "call",
    [
        lambda manager, secret: manager.get_token(secret),
        lambda manager, secret: manager.authenticate(secret),
        lambda manager, secret: manager.set_display_name(name=secret),
        lambda manager, secret: manager.notify_era_change(1, secret),
        lambda manager, secret: manager._store_auth_result(secret),
        lambda manager, secret: manager._request_with_retry(secret),
        lambda manager, secret: manager._poll_for_reauth(token=secret),
        lambda manager, secret: auth._decode_jwt_payload_unverified(secret),
        lambda manager, secret: auth._jwt_era_number(secret),
        lambda manager, secret: auth._assert_token_subject_matches_wallet(secret, "0x"),
        lambda manager, secret: auth._decode_jwt_payload_unverified(secret, secret),  # type: ignore[call-arg]
        lambda manager, secret: auth._set_active_auth_manager(secret, secret),  # type: ignore[call-arg]
        lambda manager, secret: auth.notify_era_change(era=secret),  # type: ignore[call-arg]
    ],
    ids=range(13),
)
@pytest.mark.parametrize("kind", ["token", "key", "signature"])
def test_no_error_of_arguments_repeats_them(call: Any, kind: str, logged_in: Any, service: Service) -> None:
    secret = {"token": service.tokens[0][:-3] + "._", "key": KEY, "signature": service.signatures[0]}[kind]
    error = caught(call, logged_in, secret)
    assert isinstance(error, TypeError | auth.AuthError)
    assert_nothing_secret(everything_shown_of(error), service)


# Errors of the login

SUBJECT = "0x" + "ab" * 20


def granted(**changes: Any) -> Callable[[Service], Callable[[str], Any]]:
    def scripted(service: Service) -> Callable[[str], Any]:
        def fault(path: str) -> Any:
            if path != VERIFY:
                return None
            body = {**service.grant(build(service).get_wallet_address()), **changes}
            return answer(200, {name: value for name, value in body.items() if value is not ...})

        return fault

    return scripted


def raising(error: BaseException) -> Callable[[Service], Callable[[str], Any]]:
    return lambda service: always_raises(error)


def answering(path: str, status: int, value: Any = None) -> Callable[[Service], Callable[[str], Any]]:
    return lambda service: always_answers(path, status, value)


LOGIN_FAULTS: dict[str, Callable[[Service], Callable[[str], Any]]] = {
    **{f"register {status}": answering(REGISTER, status) for status in (400, 401, 403, 404, 429, 500, 503)},
    **{f"challenge {status}": answering(CHALLENGE, status) for status in (400, 401, 403, 404, 500, 503)},
    **{f"verify {status}": answering(VERIFY, status) for status in (400, 401, 403, 404, 409, 410, 500, 503)},
    "register invite": answering(REGISTER, 403, {"error": "invite_required"}),
    "challenge empty": answering(CHALLENGE, 200, {}),
    "challenge text": answering(CHALLENGE, 200, "later"),
    "challenge of a number": answering(CHALLENGE, 200, {"challenge_id": 1, "message": 7}),
    "challenge of a surrogate": answering(CHALLENGE, 200, {"challenge_id": 1, "message": "\ud800"}),
    "verify empty": answering(VERIFY, 200, {}),
    "verify list": answering(VERIFY, 200, []),
    "no token": granted(token=...),
    "no expiry": granted(expires_at=...),
    "no secret": granted(wallet_secret=...),
    "secret of a number": granted(wallet_secret=5),
    "secret of bad padding": granted(wallet_secret="c2VjcmV0a"),
    "token of another wallet": granted(token=token_text(SUBJECT, 1, None)),
    "token in two parts": granted(token="one.two"),
    "token of a number": granted(token=17),
    "refused": raising(ConnectionRefusedError("nobody listens")),
    "timed out": raising(TimeoutError("too slow")),
    "interrupted": raising(KeyboardInterrupt("stop")),
    "another error": raising(LookupError("somewhere")),
}


@pytest.fixture
def short_back_off(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(auth, "_BACKOFF_BASE", 0)
    monkeypatch.setattr(auth.AuthManager, "_wait_with_clock", lambda self, seconds: None)


@pytest.mark.usefixtures("short_back_off")
@pytest.mark.parametrize("before", ["fresh", "logged in"])
@pytest.mark.parametrize("name", LOGIN_FAULTS)
def test_no_error_of_a_login_tells(
    name: str,
    before: str,
    make_manager: Callable[..., Any],
    service: Service,
    capfd: pytest.CaptureFixture[str],
    caplog: pytest.LogCaptureFixture,
) -> None:
    caplog.set_level(logging.DEBUG)
    manager = make_manager()
    if before == "logged in":
        manager.authenticate()
    service.fault = LOGIN_FAULTS[name](service)
    error = caught(manager.authenticate)
    shown = [everything_shown_of(error), everything_shown_of(manager._auth_error), repr(manager), caplog.text]
    service.fault = None
    if before == "fresh":
        shown.append(everything_shown_of(caught(manager.get_token)))
    manager.close()
    shown += capfd.readouterr()
    assert_nothing_secret("\n".join(shown), service)


@pytest.mark.usefixtures("short_back_off")
@pytest.mark.parametrize("background", ["refresh", "era"])
@pytest.mark.parametrize("name", LOGIN_FAULTS)
def test_no_error_of_a_background_flow_tells(
    name: str,
    background: str,
    logged_in: Any,
    service: Service,
    capfd: pytest.CaptureFixture[str],
    caplog: pytest.LogCaptureFixture,
) -> None:
    caplog.set_level(logging.DEBUG)
    service.fault = LOGIN_FAULTS[name](service)
    if background == "refresh":
        logged_in._do_refresh()
    else:
        logged_in.notify_era_change(4)
        until(logged_in._auth_event.is_set, "the end of the flow")
    shown = [everything_shown_of(logged_in._auth_error), repr(logged_in), caplog.text]
    shown.append(everything_shown_of(caught(logged_in.get_token)))
    shown += capfd.readouterr()
    assert_nothing_secret("\n".join(shown), service)


@pytest.mark.usefixtures("short_back_off")
@pytest.mark.parametrize("status", [302, 400, 401, 403, 404, 429, 500, 503])
def test_no_error_of_the_profile_tells(
    status: int, logged_in: Any, service: Service, caplog: pytest.LogCaptureFixture
) -> None:
    caplog.set_level(logging.DEBUG)
    service.fault = lambda path: (status, {"Retry-After": "soon"}, b'{"error": "no"}')
    error = caught(logged_in.set_display_name, "Ada")
    assert_nothing_secret(everything_shown_of(error) + caplog.text, service)


def test_the_log_holds_what_is_documented_and_no_more(
    logged_in: Any, service: Service, monkeypatch: pytest.MonkeyPatch
) -> None:
    calls: list[tuple[Any, Any]] = []
    monkeypatch.setattr(
        auth, "log_library_surface_event", lambda *args, **kwargs: calls.append((args, kwargs))
    )
    service.fault = lambda path: (
        (429, {"Retry-After": service.tokens[0]}, b"") if path == DISPLAY_NAME else None
    )
    error = caught(logged_in.set_display_name, "Ada")
    assert type(error) is auth.ProfileError and error.retry_after == 60
    assert len(calls) == 1
    # The header came from the service and had a token in it; the log does not repeat it.
    assert_nothing_secret(repr(calls) + everything_shown_of(error), service)


def test_a_thread_that_cannot_be_started_tells_nothing(
    logged_in: Any, service: Service, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(auth, "threading", unstartable_threads())
    for call in (lambda: logged_in.notify_era_change(3), logged_in.authenticate):
        assert_nothing_secret(everything_shown_of(caught(call)), service)


def test_errors_after_close_tell_nothing(logged_in: Any, service: Service) -> None:
    logged_in.close()
    for call in (
        logged_in.get_token,
        logged_in.get_wallet_secret,
        logged_in.get_token_expiry,
        logged_in.authenticate,
        lambda: logged_in.set_display_name("Ada"),
    ):
        assert_nothing_secret(everything_shown_of(caught(call)), service)
    assert logged_in._private_key is None and logged_in._token is None and logged_in._wallet_secret is None
    assert_nothing_secret(repr(logged_in), service)


def test_a_trace_with_the_locals_of_the_component_holds_nothing(logged_in: Any, service: Service) -> None:
    # Native frames have no locals; a component frame in the traceback would show them in crash reports.
    service.fault = always_answers(VERIFY, 401)
    error = caught(logged_in.authenticate)
    frames = list(traceback.walk_tb(error.__traceback__))
    assert {frame.f_code.co_filename for frame, _ in frames} == {__file__}
    report = traceback.TracebackException.from_exception(error, capture_locals=True)
    assert_nothing_secret("".join(report.format()).replace(repr(service), ""), Service())


def test_errors_shared_by_callers_keep_no_frames_of_one_another(
    logged_in: Any, service: Service, clock: HandClock
) -> None:
    service.fault = always_answers(CHALLENGE, 401)
    logged_in.notify_era_change(5)
    until(logged_in._auth_event.is_set, "the end of the flow")

    def deep(levels: int) -> BaseException:
        return caught(logged_in.get_token) if levels == 0 else deep(levels - 1)

    first = deep(20)
    long = len(list(traceback.walk_tb(first.__traceback__)))
    assert deep(0) is first
    for _ in range(50):
        caught(logged_in.get_token)
    assert len(list(traceback.walk_tb(first.__traceback__))) <= long


def test_profiling_and_tracing_hooks_see_no_key(service: Service, census: ThreadCensus) -> None:
    seen: list[str] = []

    def hook(frame: Any, event: str, arg: Any) -> None:
        if frame.f_code.co_filename != __file__:
            seen.append(f"{event} {frame.f_code.co_name} {arg!r}")

    manager = build(service)
    sys.setprofile(hook)
    try:
        manager.authenticate()
    finally:
        sys.setprofile(None)
    manager.close()
    assert seen
    shown = "\n".join(seen)
    for form in forms_of(bytes.fromhex(KEY)):
        assert form not in shown


def test_a_waiter_is_told_nothing(manager: Any, service: Service) -> None:
    gate = service.hold(VERIFY)
    runner = Worker(manager.authenticate)
    gate.reached()
    waiter = Worker(manager.authenticate)
    service.fault = always_raises(OSError("broken"))
    service.let_go()
    shown = everything_shown_of(runner.failure()) + everything_shown_of(waiter.failure())
    assert_nothing_secret(shown, service)


def test_the_search_for_secrets_would_find_them(logged_in: Any, service: Service) -> None:
    spoken = [KEY, logged_in.get_token(), service.signatures[0], repr(service.secret), service.secret.hex()]
    for secret in spoken:
        with canary.overheard(), pytest.raises(AssertionError):
            assert_nothing_secret(f"before {secret} after", service)
    assert_nothing_secret("before and after", service)
