"""Register, challenge, sign, verify."""

from __future__ import annotations

import base64
import binascii
import random
from collections.abc import Callable
from traceback import walk_tb
from typing import Any

import pytest
from eth_account import Account
from eth_account.messages import encode_defunct
from hypothesis import given, settings
from hypothesis import strategies as st

from tessaline import auth
from tests.shared.threads import Worker

from .helpers.managers import ADDRESS, KEY, build, changes, reason_of, snapshot
from .helpers.server import CHALLENGE, REGISTER, VERIFY, Answer, FakeServer

PROPERTY = settings(deadline=None, database=None, derandomize=True, max_examples=150)
FULL_LOGIN = [REGISTER, CHALLENGE, VERIFY]


# The wire


def test_a_login_is_one_registration_one_challenge_and_one_verify(manager: Any, server: FakeServer) -> None:
    server.recover = True
    token, expires_at, secret = manager._do_auth_flow()
    assert server.paths == FULL_LOGIN
    assert [call.method for call in server.calls] == ["POST"] * 3
    assert token == server.tokens[0]
    assert expires_at == 4_000_000_001
    assert secret == server.secret
    assert server.signers == [ADDRESS]


def test_the_bodies_on_the_wire(manager: Any, server: FakeServer) -> None:
    manager._do_auth_flow()
    register, challenge, verify = (call.body for call in server.calls)
    assert register == {"wallet_address": ADDRESS}
    assert challenge == {"wallet_address": ADDRESS}
    assert list(verify) == ["challenge_id", "signature"]
    assert verify["challenge_id"] == "challenge-1"
    signed = Account.sign_message(encode_defunct(text="Sign in to the service\nnonce 1"), bytes.fromhex(KEY))
    assert verify["signature"] == "0x" + bytes(signed.signature).hex()
    for call in server.calls:
        assert call.headers == {"Content-Type": "application/json"}
        assert type(call.raw_body) is str


def test_without_invite_code_the_registration_body_has_exactly_one_key(
    manager: Any, server: FakeServer
) -> None:
    manager._do_auth_flow()
    assert list(server.calls[0].body) == ["wallet_address"]


def test_with_invite_code_the_registration_body_carries_it_last(
    make_manager: Callable[..., Any], server: FakeServer
) -> None:
    make_manager(invite_code=" CODE-9 ")._do_auth_flow()
    assert list(server.calls[0].body.items()) == [("wallet_address", ADDRESS), ("invite_code", "code-9")]
    assert "invite_code" not in server.last(CHALLENGE).body


def test_an_empty_invite_code_written_to_the_field_is_still_sent(manager: Any, server: FakeServer) -> None:
    manager._invite_code = ""
    manager._do_auth_flow()
    assert server.calls[0].body == {"wallet_address": ADDRESS, "invite_code": ""}


def test_without_register_wallet_nothing_is_registered_nor_acknowledged(
    make_manager: Callable[..., Any], server: FakeServer
) -> None:
    manager = make_manager(register_wallet=False)
    manager._do_auth_flow()
    assert server.paths == [CHALLENGE, VERIFY]
    assert manager._registration_acknowledged is False


def test_registration_is_acknowledged_when_the_call_returns(manager: Any, server: FakeServer) -> None:
    seen: list[bool] = []

    def challenge(call: Any) -> None:
        seen.append(manager._registration_acknowledged)

    server.script(CHALLENGE, challenge)
    assert manager._registration_acknowledged is False
    manager._do_auth_flow()
    assert seen == [True]
    assert manager._registration_acknowledged is True


def test_registration_is_repeated_at_every_flow(manager: Any, server: FakeServer) -> None:
    manager._do_auth_flow()
    manager._do_auth_flow()
    assert server.paths == FULL_LOGIN * 2


def test_the_registration_answer_is_not_examined(manager: Any, server: FakeServer) -> None:
    for body in (b"", b"plain", [1], {"error": "invite_invalid"}):
        server.script(REGISTER, Answer(200, body))
        manager._do_auth_flow()
    assert server.count(VERIFY) == 4


@pytest.mark.parametrize(
    ("answer", "error", "text"),
    [
        (Answer(403, {"error": "invite_required"}), auth.RegistrationError, "invite_required"),
        (Answer(400, {"error": "invite_revoked"}), auth.RegistrationError, "invite_revoked"),
        (Answer(400, {"error": "other"}), auth.AuthError, "invalid_address"),
        (Answer(403, b"no"), auth.AuthError, "unauthorized"),
        (Answer(401, {}), auth.AuthError, "unauthorized"),
    ],
)
def test_a_refused_registration_ends_the_flow_unacknowledged(
    manager: Any, server: FakeServer, answer: Answer, error: type[Exception], text: str
) -> None:
    server.script(REGISTER, answer)
    with pytest.raises(error) as caught:
        manager._do_auth_flow()
    assert type(caught.value) is error
    assert str(caught.value) == text
    assert server.paths == [REGISTER]
    assert manager._registration_acknowledged is False


# Calls of the retry layer


class RetryRecorder:
    def __init__(self, manager: Any, **bodies: Any) -> None:
        self.calls: list[tuple[tuple[Any, ...], dict[str, Any]]] = []
        self.results: dict[str, list[Any]] = {
            REGISTER: [(200, {}, None)],
            CHALLENGE: [(200, {}, {"challenge_id": "c", "message": "m"})],
            VERIFY: [(200, {}, {"token": "t", "expires_at": 5, "wallet_secret": "AAEC"})],
        }
        manager._request_with_retry = self

    def __call__(self, *args: Any, **kwargs: Any) -> Any:
        self.calls.append((args, kwargs))
        queue = self.results[args[1]]
        result = queue.pop(0) if len(queue) > 1 else queue[0]
        if isinstance(result, BaseException):
            raise result
        return result

    @property
    def paths(self) -> list[str]:
        return [args[1] for args, _ in self.calls]


def test_every_request_goes_through_the_retry_layer_with_three_attempts(manager: Any) -> None:
    recorder = RetryRecorder(manager)
    assert manager._do_auth_flow() == ("t", 5, b"\x00\x01\x02")
    signature = recorder.calls[2][1]["body_dict"]["signature"]
    assert recorder.calls == [
        (("POST", REGISTER), {"body_dict": {"wallet_address": ADDRESS}, "max_attempts": 3}),
        (("POST", CHALLENGE), {"body_dict": {"wallet_address": ADDRESS}, "max_attempts": 3}),
        (
            ("POST", VERIFY),
            {
                "body_dict": {"challenge_id": "c", "signature": signature},
                "is_verify": True,
                "max_attempts": 3,
            },
        ),
    ]


def test_the_attempt_limit_is_read_from_the_module(manager: Any, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(auth, "_AUTH_FLOW_HTTP_MAX_ATTEMPTS", 7)
    recorder = RetryRecorder(manager)
    manager._do_auth_flow()
    assert [kwargs["max_attempts"] for _, kwargs in recorder.calls] == [7, 7, 7]


@pytest.mark.parametrize("place", [REGISTER, CHALLENGE, VERIFY])
@pytest.mark.parametrize(
    "error",
    [
        auth.NetworkError("Server unreachable after 3 attempts"),
        auth.AuthError(reason="unauthorized"),
        auth.RegistrationError("invite_invalid"),
        ValueError("odd"),
        KeyboardInterrupt(),
    ],
    ids=lambda error: type(error).__name__,
)
def test_an_error_of_the_retry_layer_passes_as_the_same_object(
    manager: Any, place: str, error: BaseException
) -> None:
    recorder = RetryRecorder(manager)
    recorder.results[place] = [error]
    with pytest.raises(type(error)) as caught:
        manager._do_auth_flow()
    assert caught.value is error
    assert recorder.paths == FULL_LOGIN[: FULL_LOGIN.index(place) + 1]


def test_the_wallet_address_field_is_what_is_sent(manager: Any) -> None:
    recorder = RetryRecorder(manager)
    manager._wallet_address = "0x" + "0" * 40
    manager._do_auth_flow()
    assert recorder.calls[0][1]["body_dict"] == {"wallet_address": "0x" + "0" * 40}


def test_retries_through_the_transport_are_three_per_request(manager: Any, server: FakeServer) -> None:
    waits: list[float] = []
    manager._wait_with_clock = waits.append
    server.always(VERIFY, Answer(500, b""))
    with pytest.raises(auth.NetworkError) as caught:
        manager._do_auth_flow()
    assert str(caught.value) == "Server unreachable after 3 attempts"
    assert server.paths == [REGISTER, CHALLENGE, VERIFY, VERIFY, VERIFY]
    assert waits == [1, 2]


# Stale challenges


@pytest.mark.parametrize("status", [404, 409, 410])
def test_verify_answered_stale_once_then_success_yields_the_token_of_the_second_cycle(
    manager: Any, server: FakeServer, status: int
) -> None:
    server.recover = True
    server.script(VERIFY, Answer(status, {"error": "stale"}))
    token, _, _ = manager._do_auth_flow()
    assert server.paths == [REGISTER, CHALLENGE, VERIFY, CHALLENGE, VERIFY]
    assert token == server.tokens[0]
    assert [call.body["challenge_id"] for call in server.calls if call.path == VERIFY] == [
        "challenge-1",
        "challenge-2",
    ]


def test_two_stale_answers_leave_the_third_cycle(manager: Any, server: FakeServer) -> None:
    server.script(VERIFY, Answer(404), Answer(410))
    manager._do_auth_flow()
    assert server.paths == [REGISTER] + [CHALLENGE, VERIFY] * 3


def test_three_stale_answers_send_six_requests_after_registration_and_fail(
    manager: Any, server: FakeServer
) -> None:
    server.script(VERIFY, Answer(409), Answer(404, b"text"), Answer(410, [1]))
    with pytest.raises(auth.NetworkError) as caught:
        manager._do_auth_flow()
    assert caught.value.args == ("stale authentication challenge after 3 attempts",)
    assert server.paths == [REGISTER] + [CHALLENGE, VERIFY] * 3


@pytest.mark.parametrize("cycles", [1, 2, 5])
def test_the_cycle_limit_is_read_from_the_module(
    manager: Any, server: FakeServer, monkeypatch: pytest.MonkeyPatch, cycles: int
) -> None:
    monkeypatch.setattr(auth, "_AUTH_FLOW_CHALLENGE_MAX_CYCLES", cycles)
    server.always(VERIFY, Answer(404))
    with pytest.raises(auth.NetworkError) as caught:
        manager._do_auth_flow()
    assert str(caught.value) == f"stale authentication challenge after {cycles} attempts"
    assert server.count(CHALLENGE) == server.count(VERIFY) == cycles


def test_401_on_verify_is_a_signature_mismatch_without_another_cycle(
    manager: Any, server: FakeServer
) -> None:
    server.script(VERIFY, Answer(401, {"error": "no"}))
    with pytest.raises(auth.AuthError) as caught:
        manager._do_auth_flow()
    assert reason_of(caught.value) == "signature_mismatch"
    assert server.paths == FULL_LOGIN


# Closing


def test_closed_before_the_challenge_is_manager_closed(manager: Any) -> None:
    recorder = RetryRecorder(manager)
    manager._close_event.set()
    with pytest.raises(auth.AuthError) as caught:
        manager._do_auth_flow()
    assert reason_of(caught.value) == "manager_closed"
    assert recorder.paths == [REGISTER]


def test_closed_after_the_challenge_is_manager_closed_before_its_body_is_read(manager: Any) -> None:
    recorder = RetryRecorder(manager)

    def retry(*args: Any, **kwargs: Any) -> Any:
        recorder(*args, **kwargs)
        if args[1] == CHALLENGE:
            manager._close_event.set()
        return 200, {}, None

    manager._request_with_retry = retry
    with pytest.raises(auth.AuthError) as caught:
        manager._do_auth_flow()
    assert reason_of(caught.value) == "manager_closed"
    assert recorder.paths == [REGISTER, CHALLENGE]


def test_closed_between_stale_cycles_is_manager_closed(manager: Any) -> None:
    recorder = RetryRecorder(manager)

    def retry(*args: Any, **kwargs: Any) -> Any:
        result = recorder(*args, **kwargs)
        if args[1] == VERIFY:
            manager._close_event.set()
            return 404, {}, None
        return result

    manager._request_with_retry = retry
    with pytest.raises(auth.AuthError) as caught:
        manager._do_auth_flow()
    assert reason_of(caught.value) == "manager_closed"
    assert recorder.paths == FULL_LOGIN


def test_a_wiped_key_is_manager_closed_when_signing(manager: Any, server: FakeServer) -> None:
    manager._private_key = None
    with pytest.raises(auth.AuthError) as caught:
        manager._do_auth_flow()
    assert reason_of(caught.value) == "manager_closed"
    assert server.paths == [REGISTER, CHALLENGE]


def test_the_challenge_is_read_before_the_key(manager: Any, server: FakeServer) -> None:
    manager._private_key = None
    server.script(CHALLENGE, Answer(200, {}))
    with pytest.raises(KeyError):
        manager._do_auth_flow()


# Missing and malformed responses


@pytest.mark.parametrize(
    ("body", "missing"),
    [({}, "challenge_id"), ({"message": "m"}, "challenge_id"), ({"challenge_id": "c"}, "message")],
)
def test_challenge_without_a_key_is_the_key_error(
    manager: Any, server: FakeServer, body: Any, missing: str
) -> None:
    server.script(CHALLENGE, Answer(200, body))
    with pytest.raises(KeyError) as caught:
        manager._do_auth_flow()
    assert caught.value.args == (missing,)
    assert server.count(VERIFY) == 0


@pytest.mark.parametrize("body", [b"", b"text", [1], 5])
def test_challenge_that_is_no_object_is_the_type_error(manager: Any, server: FakeServer, body: Any) -> None:
    server.script(CHALLENGE, Answer(200, body))
    with pytest.raises(TypeError):
        manager._do_auth_flow()


@pytest.mark.parametrize(
    ("drop", "missing"),
    [
        (("token", "expires_at", "wallet_secret"), "token"),
        (("expires_at", "wallet_secret"), "expires_at"),
        (("wallet_secret",), "wallet_secret"),
    ],
)
def test_verify_without_a_key_is_the_key_error_in_reading_order(
    manager: Any, server: FakeServer, drop: tuple[str, ...], missing: str
) -> None:
    body = {"token": "t", "expires_at": 1, "wallet_secret": "AA=="}
    server.script(VERIFY, Answer(200, {name: value for name, value in body.items() if name not in drop}))
    with pytest.raises(KeyError) as caught:
        manager._do_auth_flow()
    assert caught.value.args == (missing,)


@pytest.mark.parametrize("body", [b"", b"text", [1], 5])
def test_verify_that_is_no_object_is_the_type_error(manager: Any, server: FakeServer, body: Any) -> None:
    server.script(VERIFY, Answer(200, body))
    with pytest.raises(TypeError):
        manager._do_auth_flow()


@pytest.mark.parametrize("challenge_id", [17, None, ["a"], {"k": 1}, "ü", 1.5, True])
def test_challenge_id_is_echoed_whatever_it_is(manager: Any, server: FakeServer, challenge_id: Any) -> None:
    server.script(CHALLENGE, Answer(200, {"challenge_id": challenge_id, "message": "m"}))
    server.script(VERIFY, Answer(200, server.verified(ADDRESS)))
    manager._do_auth_flow()
    assert server.last(VERIFY).body["challenge_id"] == challenge_id


@pytest.mark.parametrize("expires_at", [None, "2030-01-01T00:00:00Z", -5, {"at": 1}])
def test_expiry_is_returned_as_the_server_states_it(
    manager: Any, server: FakeServer, expires_at: Any
) -> None:
    server.script(VERIFY, Answer(200, server.verified(ADDRESS, expires_at=expires_at)))
    assert manager._do_auth_flow()[1] == expires_at


@pytest.mark.parametrize("token", ["any.text.at.all", "", 5, None])
def test_token_is_returned_unchecked(manager: Any, server: FakeServer, token: Any) -> None:
    server.script(VERIFY, Answer(200, server.verified(ADDRESS, token=token)))
    assert manager._do_auth_flow()[0] == token


@pytest.mark.parametrize("message", [5, None, ["m"], {"m": 1}, True])
def test_message_that_is_not_text_is_an_error_of_the_host(
    manager: Any, server: FakeServer, message: Any
) -> None:
    server.script(CHALLENGE, Answer(200, {"challenge_id": "c", "message": message}))
    with pytest.raises((TypeError, ValueError, AttributeError)):
        manager._do_auth_flow()
    assert server.count(VERIFY) == 0


def test_message_with_a_lone_surrogate_cannot_be_encoded(manager: Any, server: FakeServer) -> None:
    server.script(CHALLENGE, Answer(200, {"challenge_id": "c", "message": "\ud800"}))
    with pytest.raises(UnicodeEncodeError):
        manager._do_auth_flow()


# Wallet secret


def secret_of(text: Any) -> bytes:
    server = FakeServer()
    server.script(VERIFY, Answer(200, server.verified(ADDRESS, wallet_secret=text)))
    return build(server)._do_auth_flow()[2]


@pytest.mark.parametrize(
    ("text", "secret"),
    [("", b""), ("AA==", b"\0"), ("+/+/", b"\xfb\xff\xbf"), ("AAEC\nAwQ=", bytes(range(5)))],
)
def test_wallet_secret_is_standard_base64(text: str, secret: bytes) -> None:
    assert secret_of(text) == secret


@pytest.mark.parametrize("text", ["A", "AA", "AAA", "=", "AAAAA"])
def test_wallet_secret_that_is_not_base64_is_the_decoding_error(text: str) -> None:
    if text == "=":
        assert secret_of(text) == base64.b64decode(text)
        return
    with pytest.raises(binascii.Error):
        secret_of(text)


@pytest.mark.parametrize("value", [None, 5, ["AA=="], {"a": 1}])
def test_wallet_secret_that_is_not_text_is_the_type_error(value: Any) -> None:
    with pytest.raises(TypeError):
        secret_of(value)


def test_wallet_secret_outside_ascii_is_the_value_error_with_nothing_of_it_in_context_or_frames() -> None:
    with pytest.raises(ValueError, match="ASCII") as caught:
        secret_of("AAÄ=")
    assert caught.value.__context__ is None
    assert base64.__file__ not in {
        frame.f_code.co_filename for frame, _ in walk_tb(caught.value.__traceback__)
    }


@PROPERTY
@given(st.binary(max_size=80))
def test_every_wallet_secret_survives_the_way(secret: bytes) -> None:
    assert secret_of(base64.b64encode(secret).decode("ascii")) == secret


@PROPERTY
@given(st.text(alphabet="ABab01+/=-_ \n!ä", max_size=12))
def test_every_wallet_secret_text_is_decoded_as_the_host_decodes_it(text: str) -> None:
    try:
        wanted = base64.b64decode(text)
    except ValueError as error:
        with pytest.raises(type(error)):
            secret_of(text)
    else:
        assert secret_of(text) == wanted


# Signatures


def signature_of(key: str, message: str) -> tuple[str, str]:
    """Address and signature that a manager with this key sends for this challenge message."""
    sent: dict[str, Any] = {}

    def transport(method: str, url: str, headers: Any, body: str) -> Any:
        import json

        decoded = json.loads(body)
        sent.update(decoded)
        if url.endswith(CHALLENGE):
            answer = {"challenge_id": 1, "message": message}
        else:
            answer = {"token": "t", "expires_at": 0, "wallet_secret": ""}
        return 200, {}, json.dumps(answer).encode("utf-8")

    build(transport, key=key, register_wallet=False)._do_auth_flow()
    return sent["wallet_address"], sent["signature"]


PUBLISHED = [
    (
        "b25c7db31feed9122727bf0939dc769a96564b2de4c4726d035b36ecf1e5b364",
        "I\u2665SF",
        "0x5ce9454909639d2d17a3f753ce7d93fa0b9ab12e",
        "0xe6ca9bba58c88611fad66a6ce8f996908195593807c4b38bd528d2cff09d4eb3"
        "3e5bfbbf4d3e39b1a2fd816a7680c19ebebaf3a141b239934ad43cb33fcec8ce1c",
    ),
    (
        "4c0883a69102937d6231471b5dbb6204fe5129617082792ae468d01a3f362318",
        "Some data",
        "0x2c7536e3605d9c16a7a3d7b1898e529396a65c23",
        "0xb91467e570a6466aa9e9876cbcd013baba02900b8979d43fe208a4a4f339f5fd"
        "6007e74cd82e037b800186422fc2da167c747ef045e5d18a5f5d4300f8e1a0291c",
    ),
]


@pytest.mark.parametrize(("key", "message", "address", "signature"), PUBLISHED)
def test_signature_of_a_published_vector(key: str, message: str, address: str, signature: str) -> None:
    assert signature_of(key, message) == (address, signature)


def oracle(key: str, message: str) -> tuple[str, str]:
    account = Account.from_key(bytes.fromhex(key))
    signed = account.sign_message(encode_defunct(text=message))
    return account.address.lower(), "0x" + bytes(signed.signature).hex()


ORDER = 0xFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFEBAAEDCE6AF48A03BBFD25E8CD0364141


@pytest.mark.parametrize(
    "message",
    [
        "",
        "one line",
        "several\nlines\r\nwith\ttabs\n",
        "Grüße, 世界 \U0001f511 e\u0301",
        "nul \0 inside",
        "x" * 100_000,
        "é" * 50_000,
        "0x" + "ab" * 32,
        "\x19Ethereum Signed Message:\n5hello",
        *("p" * length for length in (8, 9, 10, 98, 99, 100, 107, 108, 109, 110, 135, 136, 137, 999, 1000)),
    ],
    ids=lambda message: f"{len(message)} {message[:12]!r}",
)
@pytest.mark.parametrize("value", [1, ORDER - 1, int(KEY, 16)], ids=["first", "last", "usual"])
def test_signature_equals_the_account_library(message: str, value: int) -> None:
    key = f"{value:064x}"
    assert signature_of(key, message) == oracle(key, message)


@pytest.mark.parametrize("batch", range(10))
def test_signatures_and_addresses_of_random_keys_equal_the_account_library(batch: int) -> None:
    source = random.Random(f"signatures {batch}")
    alphabet = "abc XYZ\n09-_äß€世\U0001f511\0"
    seen = set()
    for _ in range(110):
        key = f"{source.randrange(1, ORDER):064x}"
        message = "".join(source.choices(alphabet, k=source.choice([0, 1, 7, 30, 66, 120, 500])))
        got = signature_of(key, message)
        assert got == oracle(key, message), (batch, message)
        assert got[1][-2:] in ("1b", "1c")
        assert int(got[1][66:130], 16) <= ORDER // 2
        seen.add(got)
    assert len(seen) == 110


def test_a_signature_is_sent_with_one_prefix_in_lower_case(manager: Any, server: FakeServer) -> None:
    manager._do_auth_flow()
    signature = server.last(VERIFY).body["signature"]
    assert len(signature) == 132
    assert signature[:2] == "0x" and "0x" not in signature[2:]
    assert signature == signature.lower()


def test_the_key_field_is_what_signs(manager: Any, server: FakeServer) -> None:
    server.message = "fixed"
    manager._private_key = "1".zfill(64)
    manager._do_auth_flow()
    assert server.last(VERIFY).body["signature"] == oracle("1".zfill(64), "fixed")[1]


# Side effects that a flow must not have


def test_a_flow_changes_no_field_but_the_acknowledgement(manager: Any) -> None:
    before = snapshot(manager)
    manager._do_auth_flow()
    assert changes(before, snapshot(manager)) == {"_registration_acknowledged"}


def test_a_failed_flow_changes_no_field_but_the_acknowledgement(manager: Any, server: FakeServer) -> None:
    server.always(VERIFY, Answer(401))
    before = snapshot(manager)
    with pytest.raises(auth.AuthError):
        manager._do_auth_flow()
    assert changes(before, snapshot(manager)) == {"_registration_acknowledged"}


def test_a_flow_runs_without_the_lock(manager: Any, server: FakeServer) -> None:
    with manager._lock:
        Worker(manager._do_auth_flow).result(5.0)
    assert server.paths == FULL_LOGIN


# Secrets


@pytest.mark.parametrize("path", [REGISTER, CHALLENGE, VERIFY])
@pytest.mark.parametrize("status", [409, 503])
def test_a_whole_float_is_as_good_a_status_as_an_integer(path: str, status: int) -> None:
    asked = []
    for answered in (status, float(status)):
        server = FakeServer()
        server.script(path, Answer(answered))  # type: ignore[arg-type]
        manager = build(server)
        manager._wait_with_clock = lambda seconds: None
        manager.authenticate()
        manager.close()
        asked.append(server.paths)
    assert asked[0] == asked[1]
    assert len(asked[0]) > 3
