"""Setting and resetting the display name."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest
from hypothesis import example, given, settings
from hypothesis import strategies as st

from tessaline import auth
from tests.shared.threads import Worker, until, waiters

from .helpers.managers import ADDRESS, build, changes, reason_of, snapshot
from .helpers.server import CHALLENGE, DISPLAY_NAME, Answer, FakeServer

PROPERTY = settings(deadline=None, database=None, derandomize=True, max_examples=300)
MESSAGE = "Display name must be 3-32 characters: letters, numbers, spaces, hyphens, underscores"
ALLOWED = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_- "


@pytest.fixture
def named(manager: Any) -> Any:
    """A manager with a token and no thread."""
    return ready(manager)


def ready(manager: Any) -> Any:
    manager._state = "AUTHENTICATED"
    manager._token = "bearer-token"
    manager._token_expiry = 90000.0
    return manager


def refused(manager: Any, name: Any) -> None:
    with pytest.raises(ValueError) as caught:
        manager.set_display_name(name)
    assert type(caught.value) is ValueError
    assert caught.value.args == (MESSAGE,)


def test_the_request_on_the_wire(named: Any, server: FakeServer) -> None:
    assert named.set_display_name("Ada Lovelace") == {"ok": True}
    (call,) = server.calls
    assert (call.method, call.path) == ("POST", DISPLAY_NAME)
    assert call.body == {"display_name": "Ada Lovelace"}
    assert call.headers == {"Content-Type": "application/json", "Authorization": "Bearer bearer-token"}


def test_the_call_of_the_retry_layer(named: Any) -> None:
    calls: list[Any] = []
    named._request_with_retry = lambda *args, **kwargs: calls.append((args, kwargs)) or (200, {}, None)
    named.set_display_name(" Ada ")
    assert calls == [
        (
            ("POST", DISPLAY_NAME),
            {
                "body_dict": {"display_name": "Ada"},
                "headers": {"Authorization": "Bearer bearer-token"},
                "max_attempts": 3,
            },
        )
    ]


def test_the_token_comes_from_get_token_in_its_text_form(named: Any, server: FakeServer) -> None:
    class Text:
        def __str__(self) -> str:
            return "text-form"

    named.get_token = lambda: Text()
    named.set_display_name("Ada")
    assert server.calls[0].headers["Authorization"] == "Bearer text-form"


# State


@pytest.mark.parametrize(
    ("state", "reason"),
    [
        ("CLOSED", "manager_closed"),
        ("UNINITIALIZED", "not_authenticated"),
        ("AUTHENTICATING", "not_authenticated"),
    ],
)
@pytest.mark.parametrize("name", ["Ada", None, "!", 5])
def test_the_state_is_checked_before_the_name(
    named: Any, server: FakeServer, state: str, reason: str, name: Any
) -> None:
    named._state = state
    with pytest.raises(auth.AuthError) as caught:
        named.set_display_name(name)
    assert reason_of(caught.value) == reason
    assert server.calls == []
    named._state = "AUTHENTICATED"


def test_during_a_first_login_it_does_not_wait(manager: Any, server: FakeServer) -> None:
    gate = server.hold(CHALLENGE)
    runner = Worker(manager.authenticate)
    gate.reached()
    with pytest.raises(auth.AuthError) as caught:
        manager.set_display_name("Ada")
    assert reason_of(caught.value) == "not_authenticated"
    gate.release()
    runner.result()


def test_during_a_re_authentication_it_waits_for_the_new_token(logged_in: Any, server: FakeServer) -> None:
    gate = server.hold(CHALLENGE)
    server.era = 5
    logged_in.notify_era_change(5)
    gate.reached()
    worker = Worker(logged_in.set_display_name, "Ada")
    until(lambda: waiters(logged_in._auth_event) == 1, what="the waiting caller")
    gate.release()
    assert worker.result() == {"ok": True}
    assert server.last(DISPLAY_NAME).headers["Authorization"] == "Bearer " + server.tokens[1]


# Names


@pytest.mark.parametrize(
    ("name", "sent"),
    [
        ("Ada", "Ada"),
        ("  Ada  ", "Ada"),
        ("\tAda\n", "Ada"),
        ("a b", "a b"),
        ("a  b", "a  b"),
        ("___", "___"),
        ("- -", "- -"),
        ("x" * 32, "x" * 32),
        (" " * 50 + "x" * 32 + " ", "x" * 32),
        ("\u00a0Ada\u2003", "Ada"),
    ],
)
def test_an_allowed_name_is_sent_with_its_ends_stripped(
    named: Any, server: FakeServer, name: str, sent: str
) -> None:
    named.set_display_name(name)
    assert server.calls[0].body == {"display_name": sent}


@pytest.mark.parametrize(
    "name",
    [
        "  ab  ",
        "a",
        "ab",
        "x" * 33,
        "x" * 1000,
        "Ada!",
        "Zoë",
        "a.b",
        "a\tb",
        "a\nb",
        "\u0663\u0663\u0663",
        "   ",
        "\t\n",
        "a\u00a0b",
        "abc\0",
        "\ud800abc",
    ],
)
def test_a_refused_name_is_a_value_error_before_any_request(
    named: Any, server: FakeServer, name: str
) -> None:
    named.get_token = lambda: pytest.fail("a token was fetched")
    refused(named, name)
    assert server.calls == []


def test_a_two_letter_name_padded_with_spaces_fails_and_a_three_letter_one_is_sent_alone(
    named: Any, server: FakeServer
) -> None:
    refused(named, "  ab  ")
    named.set_display_name("  abc  ")
    assert server.calls[0].body == {"display_name": "abc"}


def test_32_characters_are_accepted_and_33_refused(named: Any, server: FakeServer) -> None:
    named.set_display_name("y" * 32)
    refused(named, "y" * 33)
    assert len(server.calls) == 1


def test_an_exclamation_mark_is_refused_without_fetching_a_token(named: Any, server: FakeServer) -> None:
    named.get_token = lambda: pytest.fail("a token was fetched")
    refused(named, "Ada!")


@pytest.mark.parametrize("name", [None, ""])
def test_none_and_the_empty_string_send_null(named: Any, server: FakeServer, name: Any) -> None:
    named.set_display_name(name)
    assert server.calls[0].body == {"display_name": None}
    assert '"display_name": null' in server.calls[0].raw_body


def test_a_name_of_spaces_is_no_reset(named: Any, server: FakeServer) -> None:
    refused(named, " ")
    assert server.calls == []


@PROPERTY
@given(
    st.text(max_size=36)
    | st.text(alphabet=ALLOWED, max_size=36)
    | st.text(alphabet="aé!-_ \n\t", min_size=2, max_size=34)
)
@example("abc\n")
@example("\x1cabc\x1f")
@example("a" * 33 + " ")
def test_any_text_is_sent_stripped_or_refused(name: str) -> None:
    server = FakeServer()
    manager = ready(build(server))
    stripped = name.strip()
    if name == "":
        manager.set_display_name(name)
        assert server.calls[0].body == {"display_name": None}
    elif 3 <= len(stripped) <= 32 and set(stripped) <= set(ALLOWED):
        manager.set_display_name(name)
        assert server.calls[0].body == {"display_name": stripped}
    else:
        refused(manager, name)
        assert server.calls == []


@pytest.mark.parametrize("name", [5, b"Ada", ["Ada"]])
def test_a_name_of_another_type_is_an_error_before_any_request(
    named: Any, server: FakeServer, name: Any
) -> None:
    with pytest.raises((TypeError, AttributeError, ValueError)):
        named.set_display_name(name)
    assert server.calls == []


# Responses


@pytest.mark.parametrize("reply", [{}, {"display_name": "Ada", "more": [1]}])
def test_an_object_is_returned_unchanged(named: Any, server: FakeServer, reply: dict[str, Any]) -> None:
    server.script(DISPLAY_NAME, Answer(200, reply))
    assert named.set_display_name("Ada") == reply


def test_the_very_mapping_of_the_retry_layer_is_returned(named: Any) -> None:
    reply = {"a": 1}
    named._request_with_retry = lambda *args, **kwargs: (200, {}, reply)
    assert named.set_display_name("Ada") is reply


@pytest.mark.parametrize("body", [b"", b"plain text", [1], 5, "text", None])
@pytest.mark.parametrize(("name", "shown"), [("  Ada ", "Ada"), (None, "None"), ("", "")])
def test_a_reply_that_is_no_object_yields_the_fallback(
    named: Any, server: FakeServer, body: Any, name: Any, shown: str
) -> None:
    server.script(DISPLAY_NAME, Answer(200, body))
    result = named.set_display_name(name)
    assert result == {"wallet_address": ADDRESS, "display_name": shown}
    assert type(result) is dict


@pytest.mark.parametrize(
    ("answer", "kind", "fields"),
    [
        (
            Answer(400, {"error": "taken"}),
            auth.ProfileError,
            {"reason": "validation_failed", "message": "taken"},
        ),
        (Answer(401), auth.AuthError, {"reason": "profile_unauthorized"}),
        (
            Answer(429, b"", {"Retry-After": "17"}),
            auth.ProfileError,
            {"reason": "rate_limited", "retry_after": 17},
        ),
        (Answer(429), auth.ProfileError, {"reason": "rate_limited", "retry_after": 60}),
    ],
)
def test_a_refusal_of_the_server(
    named: Any, server: FakeServer, answer: Answer, kind: type[Exception], fields: dict[str, Any]
) -> None:
    server.script(DISPLAY_NAME, answer)
    with pytest.raises(kind) as caught:
        named.set_display_name("Ada")
    assert vars(caught.value) == fields
    assert len(server.calls) == 1


def test_transient_failures_are_tried_three_times(named: Any, server: FakeServer) -> None:
    waits: list[float] = []
    named._wait_with_clock = waits.append
    server.always(DISPLAY_NAME, Answer(403))
    with pytest.raises(auth.NetworkError) as caught:
        named.set_display_name("Ada")
    assert str(caught.value) == "Server unreachable after 3 attempts"
    assert len(server.calls) == 3
    assert waits == [1, 2]


def test_whatever_get_token_raises_passes_as_the_same_object(named: Any, server: FakeServer) -> None:
    error = auth.AuthError(reason="era_mismatch")
    named._pending_era_number, named._auth_error = 5, error
    with pytest.raises(auth.AuthError) as caught:
        named.set_display_name("Ada")
    assert caught.value is error
    assert server.calls == []


@pytest.mark.parametrize("result", [(200, {}), (200, {}, {}, 1)])
def test_a_result_of_another_shape_is_the_unpacking_error(named: Any, result: Any) -> None:
    named._request_with_retry = lambda *args, **kwargs: result
    with pytest.raises(ValueError, match="values to unpack"):
        named.set_display_name("Ada")


@pytest.mark.parametrize("answer", [Answer(200, {}), Answer(400, {}), Answer(401)])
def test_nothing_in_the_manager_changes(named: Any, server: FakeServer, answer: Answer) -> None:
    server.script(DISPLAY_NAME, answer)
    before = snapshot(named)
    worker = Worker(named.set_display_name, "Ada").finish()
    assert worker.error is None or isinstance(worker.error, auth.AuthError | auth.ProfileError)
    assert changes(before, snapshot(named)) == set()


def test_the_lock_is_free_during_the_request(named: Any, server: FakeServer) -> None:
    locked: list[bool] = []
    server.script(DISPLAY_NAME, lambda call: locked.append(named._lock.locked()))
    named.set_display_name("Ada")
    assert locked == [False]


def test_the_pattern_is_the_module_constant(named: Any) -> None:
    assert auth._DISPLAY_NAME_ERR == MESSAGE
    refused(named, "a@b")


def test_no_token_in_a_refusal(named: Any, server: FakeServer) -> None:
    server.script(DISPLAY_NAME, Answer(401))
    with pytest.raises(auth.AuthError) as caught:
        named.set_display_name("Ada")
    assert "bearer-token" not in f"{caught.value!r}"


def test_name_may_be_a_keyword(named: Any, server: FakeServer) -> None:
    named.set_display_name(display_name="Ada")
    assert server.calls[0].body == {"display_name": "Ada"}


@pytest.mark.parametrize(("args", "kwargs"), [((), {}), (("a", "b"), {}), ((), {"name": "Ada"})])
def test_wrong_arguments(named: Any, args: tuple[Any, ...], kwargs: dict[str, Any]) -> None:
    with pytest.raises(TypeError, match="set_display_name"):
        named.set_display_name(*args, **kwargs)


def test_a_subclass_may_replace_get_token(make_manager: Callable[..., Any], server: FakeServer) -> None:
    class Own(auth.AuthManager):
        def get_token(self) -> str:
            return "own"

    manager = ready(make_manager(cls=Own))
    manager.set_display_name("Ada")
    assert server.calls[0].headers["Authorization"] == "Bearer own"
