"""One exchange with the server: what the transport gets, and how its response is decoded."""

from __future__ import annotations

import json
import socket
import types
from collections import OrderedDict
from collections.abc import Callable
from typing import Any

import pytest
from hypothesis import example, given, settings
from hypothesis import strategies as st

from tessaline import auth
from tests.shared.threads import Worker

from .helpers.managers import build
from .helpers.server import BASE

PROPERTY = settings(deadline=None, database=None, derandomize=True, max_examples=300)


class Recorder:
    """A transport that records its calls and returns one prepared result."""

    def __init__(self, result: Any = (200, {}, b"")) -> None:
        self.result = result
        self.calls: list[tuple[tuple[Any, ...], dict[str, Any]]] = []

    def __call__(self, *args: Any, **kwargs: Any) -> Any:
        self.calls.append((args, kwargs))
        if isinstance(self.result, BaseException):
            raise self.result
        return self.result

    @property
    def only(self) -> tuple[tuple[Any, ...], dict[str, Any]]:
        assert len(self.calls) == 1
        return self.calls[0]


@pytest.fixture
def transport() -> Recorder:
    return Recorder()


@pytest.fixture
def requester(make_manager: Callable[..., Any], transport: Recorder) -> Any:
    return make_manager(_transport=transport)


def decoded(body: bytes) -> Any:
    transport = Recorder((200, {}, body))
    manager = build(_transport=transport)
    return manager._http_request("POST", "/x")[2]


def test_method_and_url_go_by_position_and_headers_and_body_by_keyword(
    requester: Any, transport: Recorder
) -> None:
    requester._http_request("POST", "/auth/challenge", {"a": 1}, {"X-Trace": "9"})
    assert transport.only == (
        ("POST", BASE + "/auth/challenge"),
        {"headers": {"Content-Type": "application/json", "X-Trace": "9"}, "body": '{"a": 1}'},
    )


def test_all_arguments_may_be_keywords(requester: Any, transport: Recorder) -> None:
    requester._http_request(method="PUT", path="/p", body_dict=[1], headers={"A": "b"})
    args, kwargs = transport.only
    assert args == ("PUT", BASE + "/p")
    assert kwargs["body"] == "[1]"
    assert kwargs["headers"]["A"] == "b"


@pytest.mark.parametrize("method", ["GET", "post", "PATCH", "X-ODD"])
def test_method_is_handed_over_unchanged(requester: Any, transport: Recorder, method: str) -> None:
    requester._http_request(method, "/x")
    assert transport.only[0][0] == method


def test_server_url_ending_in_a_slash_and_a_path_beginning_with_one_give_a_double_slash(
    requester: Any, transport: Recorder
) -> None:
    requester._server_url = "https://other.example.test/"
    requester._http_request("POST", "/auth/challenge")
    assert transport.only[0][1] == "https://other.example.test//auth/challenge"


def test_no_slash_is_added_to_a_path_without_one(requester: Any, transport: Recorder) -> None:
    requester._http_request("POST", "auth?x=1#f")
    assert transport.only[0][1] == BASE + "auth?x=1#f"


def test_content_type_is_sent_without_a_body_and_with_get_too(requester: Any, transport: Recorder) -> None:
    requester._http_request("GET", "/x")
    assert transport.only[1] == {"headers": {"Content-Type": "application/json"}, "body": None}


def test_headers_are_a_new_plain_mapping_at_every_call(requester: Any, transport: Recorder) -> None:
    requester._http_request("GET", "/x")
    requester._http_request("GET", "/x")
    first, second = (kwargs["headers"] for _, kwargs in transport.calls)
    assert type(first) is dict
    assert first == second and first is not second


def test_caller_content_type_replaces_the_json_one(requester: Any, transport: Recorder) -> None:
    mine = {"Content-Type": "text/plain", "Accept": "*/*"}
    requester._http_request("POST", "/x", {}, mine)
    assert transport.only[1]["headers"] == {"Content-Type": "text/plain", "Accept": "*/*"}
    assert list(transport.only[1]["headers"]) == ["Content-Type", "Accept"]
    assert mine == {"Content-Type": "text/plain", "Accept": "*/*"}


def test_caller_header_in_another_spelling_stands_beside_the_json_one(
    requester: Any, transport: Recorder
) -> None:
    requester._http_request("POST", "/x", None, {"content-type": "text/plain"})
    assert transport.only[1]["headers"] == {"Content-Type": "application/json", "content-type": "text/plain"}


def test_caller_mapping_is_neither_passed_on_nor_changed(requester: Any, transport: Recorder) -> None:
    mine = {"A": "1"}
    requester._http_request("POST", "/x", None, mine)
    assert transport.only[1]["headers"] is not mine
    assert mine == {"A": "1"}


@pytest.mark.parametrize("nothing", [None, {}])
def test_no_headers_or_an_empty_mapping_add_nothing(
    requester: Any, transport: Recorder, nothing: Any
) -> None:
    requester._http_request("POST", "/x", None, nothing)
    assert transport.only[1]["headers"] == {"Content-Type": "application/json"}


@pytest.mark.parametrize("wrap", [OrderedDict, types.MappingProxyType])
def test_any_mapping_serves_as_headers(
    requester: Any, transport: Recorder, wrap: Callable[[Any], Any]
) -> None:
    requester._http_request("POST", "/x", None, wrap({"A": "1"}))
    assert transport.only[1]["headers"] == {"Content-Type": "application/json", "A": "1"}


def test_no_authorization_header_of_its_own(requester: Any, transport: Recorder) -> None:
    requester._token = "a-token-that-must-not-travel"
    requester._http_request("POST", "/x", {"a": 1})
    assert "a-token-that-must-not-travel" not in repr(transport.only)
    assert "Authorization" not in transport.only[1]["headers"]


@pytest.mark.parametrize(
    ("value", "text"),
    [
        (None, None),
        ({}, "{}"),
        ([], "[]"),
        (0, "0"),
        ("", '""'),
        (False, "false"),
        ({"b": 1, "a": [1, 2.5, None, True]}, '{"b": 1, "a": [1, 2.5, null, true]}'),
        ({"name": "Zoë \U0001f511"}, '{"name": "Zo\\u00eb \\ud83d\\udd11"}'),
        ({"n": float("nan"), 5: "five"}, '{"n": NaN, "5": "five"}'),
        ({"quote": '"\\\n'}, '{"quote": "\\"\\\\\\n"}'),
    ],
)
def test_body_is_json_text_with_the_encoder_defaults(
    requester: Any, transport: Recorder, value: Any, text: str | None
) -> None:
    requester._http_request("POST", "/x", value)
    assert transport.only[1]["body"] == text


@pytest.mark.parametrize("value", [{"a": object()}, {"a": b"bytes"}, {1, 2}, {("t",): 1}])
def test_body_that_cannot_be_serialised_fails_before_anything_is_sent(
    requester: Any, transport: Recorder, value: Any
) -> None:
    with pytest.raises(TypeError):
        requester._http_request("POST", "/x", value)
    assert transport.calls == []


@pytest.mark.parametrize("result", [(), (200,), (200, {}), (200, {}, b"", None)])
def test_result_of_another_length_is_the_unpacking_error(
    requester: Any, transport: Recorder, result: tuple[Any, ...]
) -> None:
    transport.result = result
    with pytest.raises(ValueError, match="values to unpack"):
        requester._http_request("POST", "/x")


@pytest.mark.parametrize("result", [None, 200, object()])
def test_result_that_cannot_be_unpacked_is_a_type_error(
    requester: Any, transport: Recorder, result: Any
) -> None:
    transport.result = result
    with pytest.raises(TypeError):
        requester._http_request("POST", "/x")


def test_any_iterable_of_three_serves_as_result(requester: Any, transport: Recorder) -> None:
    transport.result = [201, {"A": "1"}, b"[]"]
    assert requester._http_request("POST", "/x") == (201, {"A": "1"}, [])
    transport.result = iter((202, {}, b"{}"))
    assert requester._http_request("POST", "/x") == (202, {}, {})


def test_status_and_headers_come_back_unchanged(requester: Any, transport: Recorder) -> None:
    headers = {"retry-after": "7"}
    transport.result = (599, headers, b"")
    status, given_headers, body = requester._http_request("POST", "/x")
    assert status == 599
    assert given_headers is headers
    assert body is None


def test_result_is_a_tuple(requester: Any) -> None:
    assert type(requester._http_request("POST", "/x")) is tuple


@pytest.mark.parametrize("status", [204, 200, 404])
def test_empty_body_yields_none(requester: Any, transport: Recorder, status: int) -> None:
    transport.result = (status, {}, b"")
    assert requester._http_request("POST", "/x")[2] is None


@pytest.mark.parametrize(
    ("body", "value"),
    [
        (b'{"a": {"b": [1]}}', {"a": {"b": [1]}}),
        (b"[1, 2]", [1, 2]),
        (b"null", None),
        (b"3.5", 3.5),
        (b"true", True),
        (b'"text"', "text"),
        (b"  {}\n", {}),
        ('{"ä": 1}'.encode("utf-16"), {"ä": 1}),
        ('{"ä": 1}'.encode("utf-32-le"), {"ä": 1}),
        (b'\xef\xbb\xbf{"bom": 1}', {"bom": 1}),
    ],
)
def test_json_body_is_decoded(body: bytes, value: Any) -> None:
    assert decoded(body) == value


def test_body_holding_a_json_array_yields_a_list() -> None:
    assert decoded(b'["error"]') == ["error"]


@pytest.mark.parametrize(
    ("body", "text"),
    [
        (b"plain text", "plain text"),
        (b"<html>\xc3\xa4</html>", "<html>ä</html>"),
        (b"{'single': 1}", "{'single': 1}"),
        (b"{} trailing", "{} trailing"),
        (b" ", " "),
        (b"bad \xff\xfe byte", "bad \ufffd\ufffd byte"),
        (b"\xe2\x82", "\ufffd"),
        (b"\xf0\x9f\x94", "\ufffd"),
        (b'"\xff"', '"\ufffd"'),
        (b'{"a": "\xc3("}', '{"a": "\ufffd("}'),
        (b"\x80", "\ufffd"),
    ],
)
def test_body_that_is_not_json_yields_its_text_with_replacement_characters(body: bytes, text: str) -> None:
    assert decoded(body) == text


@PROPERTY
@given(st.binary(max_size=40) | st.text(max_size=20).map(lambda text: text.encode("utf-8", "surrogatepass")))
@example(b"\xed\xa0\x80")
@example(b'"\xed\xa0\x80"')
@example(b"\xff\xfe\x00")
@example(b"\x00\x00\x00")
def test_every_body_is_decoded_as_the_host_would(body: bytes) -> None:
    try:
        wanted = json.loads(body) if body else None
    except (json.JSONDecodeError, UnicodeDecodeError):
        wanted = body.decode("utf-8", errors="replace")
    result = decoded(body)
    assert type(result) is type(wanted)
    assert result == wanted or result != result


def test_body_nested_beyond_the_parser_passes_the_parser_error_on() -> None:
    with pytest.raises(RecursionError):
        decoded(b"[" * 200_000)


def test_body_with_an_integer_too_long_for_the_host_passes_the_error_on() -> None:
    with pytest.raises(ValueError) as caught:
        decoded(b"1" * 5000)
    assert not isinstance(caught.value, json.JSONDecodeError)


def test_any_other_failure_of_the_parse_passes_on(monkeypatch: pytest.MonkeyPatch) -> None:
    error = MemoryError("no room for the answer")

    def loads(*args: Any, **kwargs: Any) -> Any:
        raise error

    monkeypatch.setattr(json, "loads", loads)
    with pytest.raises(MemoryError) as caught:
        decoded(b"{}")
    assert caught.value is error


@pytest.mark.parametrize(
    "error",
    [
        ConnectionError("reset"),
        ConnectionRefusedError("refused"),
        TimeoutError("late"),
        OSError("other"),
        ValueError("odd"),
        KeyboardInterrupt(),
        SystemExit(3),
    ],
    ids=lambda error: type(error).__name__,
)
def test_failure_of_the_transport_passes_as_the_same_object(
    requester: Any, transport: Recorder, error: BaseException
) -> None:
    transport.result = error
    with pytest.raises(type(error)) as caught:
        requester._http_request("POST", "/x")
    assert caught.value is error
    assert len(transport.calls) == 1


def test_the_transport_field_is_read_at_every_request(requester: Any) -> None:
    later = Recorder((207, {}, b""))
    requester._transport = later
    assert requester._http_request("POST", "/x")[0] == 207


def test_the_request_holds_no_lock(requester: Any) -> None:
    seen: list[bool] = []

    def transport(method: str, url: str, headers: Any, body: Any) -> Any:
        seen.append(requester._lock.locked())
        return 200, {}, b""

    requester._transport = transport
    requester._http_request("POST", "/x")
    assert seen == [False]


def test_docstring_says_what_is_returned_and_raised() -> None:
    lines = auth.AuthManager._http_request.__doc__.splitlines()
    assert any("Raises ConnectionError/TimeoutError on network failures." in line for line in lines[1:])


@pytest.mark.parametrize(
    ("args", "kwargs"),
    [((), {}), (("POST",), {}), (("POST", "/x", None, None, 5), {}), (("POST", "/x"), {"json": 1})],
)
def test_wrong_arguments_send_nothing(
    requester: Any, transport: Recorder, args: tuple[Any, ...], kwargs: dict[str, Any]
) -> None:
    with pytest.raises(TypeError, match="_http_request"):
        requester._http_request(*args, **kwargs)
    assert transport.calls == []


def test_the_time_out_of_the_default_transport_is_asked_for_at_every_request(
    make_manager: Callable[..., Any], monkeypatch: pytest.MonkeyPatch
) -> None:
    asked: list[float] = []

    def seconds() -> float:
        asked.append(0.1)
        return 0.1

    monkeypatch.setattr(auth, "_auth_http_timeout_seconds", seconds)
    with socket.create_server(("127.0.0.1", 0)) as silent:
        manager = make_manager(_transport=auth._default_http_transport)
        manager._server_url = f"http://127.0.0.1:{silent.getsockname()[1]}"
        for _ in range(2):
            worker = Worker(manager._http_request, "GET", "/x")
            assert isinstance(worker.failure(5.0), TimeoutError)
            assert worker.seconds is not None and 0.09 <= worker.seconds < 3.0
    assert asked == [0.1, 0.1]


def test_the_default_time_out_is_the_constant_read_when_asked(monkeypatch: pytest.MonkeyPatch) -> None:
    assert auth._auth_http_timeout_seconds() == 30.0
    monkeypatch.setattr(auth, "_AUTH_HTTP_TIMEOUT_DEFAULT", 12.5)
    assert auth._auth_http_timeout_seconds() == 12.5
