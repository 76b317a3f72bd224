"""What the service rejects, and how."""

import json
from typing import Any

import jwt
import pytest
from devserver_client import CHALLENGE, DISPLAY_NAME, REGISTER, VERIFY, Client, claims_of

from devserver.testing import DevServer

NAME_RULE = "Display name must be 3-32 characters: letters, numbers, spaces, hyphens, underscores"
VALID = "0x5aAeb6053F3E94C9b9A09f33669435E7Ef1BeAed"


@pytest.mark.parametrize(
    "address",
    [
        None,
        5,
        "",
        "0x",
        VALID[2:],
        VALID[:-1],
        VALID + "0",
        "0x" + "g" * 40,
        VALID.replace("aA", "Aa"),
        [VALID],
    ],
)
@pytest.mark.parametrize("path", [REGISTER, CHALLENGE])
def test_a_malformed_address_is_400(client: Client, path: str, address: Any) -> None:
    answer = client.post(path, {"wallet_address": address})
    assert (answer.status, answer.error) == (400, "invalid_address")


@pytest.mark.parametrize("address", [VALID, VALID.lower()])
def test_an_address_may_be_lower_case_or_checksummed(client: Client, address: str) -> None:
    assert client.post(REGISTER, {"wallet_address": address}).json == {"wallet_address": VALID}


@pytest.mark.parametrize("path", [REGISTER, CHALLENGE, VERIFY])
@pytest.mark.parametrize(
    ("content_type", "body", "error"),
    [
        ("text/plain", b"{}", "invalid_content_type"),
        ("", b"{}", "invalid_content_type"),
        ("application/json", b"", "invalid_json"),
        ("application/json", b"{", "invalid_json"),
        ("application/json", b'{"a": "\xff"}', "invalid_json"),
        ("application/json", b"[" * 200_000, "invalid_json"),
        ("application/json", b"[]", "invalid_request"),
        ("application/json", b"null", "invalid_request"),
    ],
)
def test_a_body_that_is_no_json_object_is_400(
    client: Client, path: str, content_type: str, body: bytes, error: str
) -> None:
    answer = client.request("POST", path, body, {"Content-Type": content_type})
    assert (answer.status, answer.error) == (400, error)


def test_a_charset_in_the_content_type_is_fine(client: Client) -> None:
    body = json.dumps({"wallet_address": client.address}).encode()
    headers = {"Content-Type": "Application/JSON; charset=utf-8"}
    assert client.request("POST", REGISTER, body, headers).status == 200


def test_unknown_paths_and_methods_are_refused_in_json(client: Client) -> None:
    missing = client.post("//auth/register", {})
    assert (missing.status, missing.error) == (404, "not_found")
    wrong = client.request("GET", REGISTER)
    assert (wrong.status, wrong.error, wrong.headers["Allow"]) == (405, "method_not_allowed", "POST")


def test_a_request_that_is_not_http_is_400_in_json(server: DevServer) -> None:
    with Client(server) as client:
        answer = client.request("POST", REGISTER, None, {"Content-Length": "1", "Transfer-Encoding": "x"})
    assert answer.status in (400, 501)
    assert isinstance(answer.error, str)


def test_a_body_over_a_mebibyte_is_413(client: Client) -> None:
    answer = client.post(REGISTER, {"wallet_address": "x" * (1 << 20)})
    assert (answer.status, answer.error) == (413, "request_too_large")


def test_an_unregistered_wallet_gets_no_challenge(client: Client) -> None:
    answer = client.challenge()
    assert (answer.status, answer.error) == (401, "not_registered")


def test_an_unregistered_wallet_logs_in_where_that_is_allowed(server: DevServer, client: Client) -> None:
    server.settings(allow_unregistered=True)
    assert client.verify().status == 200
    assert server.state()["wallets"] == 0


def test_an_unknown_challenge_is_404(client: Client) -> None:
    answer = client.answer({"challenge_id": "nothing", "message": "anything"})
    assert (answer.status, answer.error) == (404, "challenge_unknown")


def test_an_expired_challenge_is_410(server: DevServer, client: Client) -> None:
    client.register()
    challenge = client.challenge().json
    server.settings(clock_skew=301)
    answer = client.answer(challenge)
    assert (answer.status, answer.error) == (410, "challenge_expired")


def test_the_challenge_lifetime_can_be_set(server: DevServer, client: Client) -> None:
    client.register()
    server.settings(challenge_lifetime=0)
    assert client.verify().status == 410


def test_a_challenge_is_used_once(client: Client) -> None:
    client.register()
    challenge = client.challenge().json
    assert client.answer(challenge).status == 200
    answer = client.answer(challenge)
    assert (answer.status, answer.error) == (409, "challenge_used")


def test_a_wrong_answer_spends_the_challenge(server: DevServer, client: Client) -> None:
    client.register()
    challenge = client.challenge().json
    with Client(server) as stranger:
        assert stranger.answer(challenge).error == "signature_mismatch"
    assert client.answer(challenge).status == 409


@pytest.mark.parametrize(
    ("added_to_v", "status"), [(0, 200), (-27, 200), (-25, 401), (2, 401), (8, 401), (200, 401)]
)
def test_v_is_27_or_28_or_without_the_27(client: Client, added_to_v: int, status: int) -> None:
    client.register()
    challenge = client.challenge().json
    *r_and_s, v = bytes.fromhex(client.sign(challenge["message"])[2:])
    signature = "0x" + bytes([*r_and_s, v + added_to_v]).hex()
    answer = client.post(VERIFY, {"challenge_id": challenge["challenge_id"], "signature": signature})
    assert answer.status == status


@pytest.mark.parametrize(
    "signature", ["", "0x", "0x" + "0" * 130, "0x" + "f" * 130, "0x" + "1" * 128, "1" * 130, "0x" + "g" * 130]
)
def test_a_text_that_is_no_signature_is_401(client: Client, signature: str) -> None:
    client.register()
    challenge_id = client.challenge().json["challenge_id"]
    answer = client.post(VERIFY, {"challenge_id": challenge_id, "signature": signature})
    assert (answer.status, answer.error) == (401, "signature_mismatch")


@pytest.mark.parametrize("body", [{}, {"challenge_id": 1, "signature": "0x"}, {"challenge_id": "x"}])
def test_verify_without_its_two_texts_is_400(client: Client, body: dict[str, Any]) -> None:
    answer = client.post(VERIFY, body)
    assert (answer.status, answer.error) == (400, "invalid_request")


def test_an_invite_only_service_tells_each_reason(server: DevServer, client: Client) -> None:
    server.settings(invite_only=True, invites=["good", "gone"], revoke_invites=["gone"])
    assert client.register().error == "invite_required"
    assert client.register(invite_code="").error == "invite_required"
    assert client.register(invite_code="bad").error == "invite_invalid"
    revoked = client.register(invite_code="gone")
    assert (revoked.status, revoked.error) == (403, "invite_revoked")
    assert client.challenge().status == 401
    assert client.register(invite_code=" GOOD ").status == 200
    assert client.verify().status == 200


def test_an_invite_is_redeemed_once(server: DevServer, client: Client) -> None:
    server.settings(invite_only=True, invites=["good"])
    assert client.register(invite_code="good").status == 200
    with Client(server) as other:
        answer = other.register(invite_code="good")
    assert (answer.status, answer.error) == (403, "invite_already_redeemed")
    assert server.state()["invites"] == {"known": 1, "redeemed": 1, "revoked": 0}


def test_a_registered_wallet_registers_again_without_an_invite(server: DevServer, client: Client) -> None:
    server.settings(invite_only=True, invites=["good"])
    client.register(invite_code="good")
    assert client.register().status == 200
    assert client.register(invite_code="good").status == 200
    assert client.register(invite_code="whatever").status == 200


def test_a_refused_registration_does_not_spend_the_invite(server: DevServer, client: Client) -> None:
    server.settings(invite_only=True, invites=["good"])
    bad = client.post(REGISTER, {"wallet_address": "0x", "invite_code": "good"})
    assert bad.error == "invalid_address"
    assert client.register(invite_code="good").status == 200


def test_an_invite_is_ignored_where_none_is_needed(client: Client) -> None:
    assert client.register(invite_code="whatever").status == 200


@pytest.mark.parametrize("name", ["abc", "a" * 32, "A b-_9", None])
def test_a_display_name_that_obeys_the_rule_is_taken(client: Client, name: str | None) -> None:
    token = client.log_in().json["token"]
    assert client.name(name, token).json["display_name"] == name


@pytest.mark.parametrize("name", ["", "ab", "a" * 33, "abc!", "abc\n", "äöü", 123, ["abc"], True])
def test_a_display_name_that_breaks_the_rule_is_400(client: Client, name: Any) -> None:
    answer = client.name(name, client.log_in().json["token"])
    assert (answer.status, answer.error) == (400, NAME_RULE)


def test_a_request_without_a_display_name_is_400(client: Client) -> None:
    headers = {"Authorization": f"Bearer {client.log_in().json['token']}"}
    assert client.post(DISPLAY_NAME, {}, headers).status == 400


@pytest.mark.parametrize(
    "authorization", [None, "", "Bearer", "Bearer ", "Bearer x.y.z", "Basic {token}", "{token}"]
)
def test_a_missing_or_malformed_bearer_is_401(client: Client, authorization: str | None) -> None:
    token = client.log_in().json["token"]
    headers = {} if authorization is None else {"Authorization": authorization.format(token=token)}
    answer = client.post(DISPLAY_NAME, {"display_name": "abc"}, headers)
    assert (answer.status, answer.error) == (401, "unauthorized")


def test_a_token_of_another_service_is_401(client: Client) -> None:
    claims = claims_of(client.log_in().json["token"])
    foreign = jwt.encode(claims, "another key of thirty-two bytes or more", "HS256")
    unsigned = jwt.encode(claims, "", "none")
    assert client.name("abc", foreign).status == 401
    assert client.name("abc", unsigned).status == 401


def test_a_tampered_token_is_401(client: Client) -> None:
    header, payload, signature = client.log_in().json["token"].split(".")
    with_other_payload = f"{header}.{payload[:-2]}{'AA' if payload[-2:] != 'AA' else 'BB'}.{signature}"
    assert client.name("abc", with_other_payload).status == 401


def test_an_expired_token_is_401(server: DevServer, client: Client) -> None:
    token = client.log_in().json["token"]
    server.settings(clock_skew=86_399 - 60)
    assert client.name("abc", token).status == 200
    server.settings(clock_skew=86_401)
    assert client.name("abc", token).error == "token_expired"


def test_a_token_of_a_past_era_is_401(server: DevServer, client: Client) -> None:
    token = client.log_in().json["token"]
    server.settings(era=2)
    assert client.name("abc", token).error == "era_over"
    assert client.name("abc", client.verify().json["token"]).status == 200
