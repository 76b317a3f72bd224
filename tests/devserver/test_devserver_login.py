"""A wallet from registration to its display name."""

import base64
import http.client
import json
import ssl
import time
import urllib.request

import jwt
import pytest
from devserver_client import CHALLENGE, SECONDS, VERIFY, Client, claims_of, trusting
from eth_account import Account

from devserver.testing import DevServer


def test_a_wallet_logs_in_over_http_and_https(either: DevServer) -> None:
    with Client(either) as client:
        assert isinstance(client.register().json, dict)
        answer = client.verify()
        assert answer.status == 200
        assert set(answer.json) == {"token", "expires_at", "wallet_secret"}
        named = client.name("Ada L-1_x", answer.json["token"])
    assert named.status == 200
    assert named.json == {"wallet_address": client.account.address, "display_name": "Ada L-1_x"}


def test_the_token_carries_the_documented_claims(client: Client) -> None:
    before = int(time.time())
    answer = client.log_in().json
    claims = claims_of(answer["token"])
    assert set(claims) == {"sub", "iat", "exp", "era_number", "jti"}
    assert claims["sub"] == client.account.address
    assert before <= claims["iat"] <= time.time()
    assert claims["exp"] == answer["expires_at"] == claims["iat"] + 86400
    assert claims["era_number"] == 1
    assert jwt.get_unverified_header(answer["token"])["alg"] == "HS256"


def test_every_token_has_its_own_id(client: Client) -> None:
    client.register()
    ids = {claims_of(client.verify().json["token"])["jti"] for _ in range(3)}
    assert len(ids) == 3


def test_the_wallet_secret_is_32_bytes_and_stable_per_wallet(server: DevServer, client: Client) -> None:
    first = client.log_in().json["wallet_secret"]
    assert len(base64.b64decode(first, validate=True)) == 32
    server.reset()
    assert client.log_in().json["wallet_secret"] == first
    with Client(server) as other:
        assert other.log_in().json["wallet_secret"] != first


def test_the_challenge_is_text_of_several_lines_with_address_nonce_and_time(client: Client) -> None:
    client.register()
    first, second = client.challenge().json, client.challenge().json
    assert first["challenge_id"] != second["challenge_id"]
    assert first["message"] != second["message"]
    lines = first["message"].splitlines()
    assert f"Address: {client.account.address}" in lines
    assert any(line.startswith("Nonce: ") for line in lines)
    assert any(line.startswith("Issued at: ") for line in lines)


def test_a_login_takes_one_kept_alive_connection(server: DevServer, client: Client) -> None:
    client.log_in()
    assert server.state()["connections"] == {"accepted": 1, "open": 1}
    assert {request["connection"] for request in server.requests} == {server.requests[0]["connection"]}


def test_urllib_logs_in_too(server: DevServer) -> None:
    account = Account.create()
    body = json.dumps({"wallet_address": account.address}).encode()
    for path in ("/auth/register", CHALLENGE):
        request = urllib.request.Request(server.url + path, body, {"Content-Type": "application/json"})
        with urllib.request.urlopen(request, timeout=SECONDS) as response:
            assert response.status == 200


def test_an_untrusted_authority_is_noticed(https_server: DevServer) -> None:
    with Client(https_server) as client:
        client.connection = http.client.HTTPSConnection(
            "127.0.0.1", https_server.port, timeout=SECONDS, context=ssl.create_default_context()
        )
        with pytest.raises(ssl.SSLCertVerificationError):
            client.register()


def test_the_certificate_is_good_for_localhost_as_well(https_server: DevServer) -> None:
    url = f"https://localhost:{https_server.port}/_echo"
    with urllib.request.urlopen(url, timeout=SECONDS, context=trusting(https_server)) as response:
        assert response.status == 200


@pytest.mark.parametrize(
    ("options", "complaint"),
    [
        ({"tls_names": ["elsewhere.test"]}, "IP address mismatch"),
        ({"options": ["--tls-expired"]}, "certificate has expired"),
    ],
)
def test_a_bad_certificate_can_be_had(options: dict[str, list[str]], complaint: str) -> None:
    with DevServer(tls=True, **options) as server:  # type: ignore[arg-type]
        with Client(server) as client, pytest.raises(ssl.SSLCertVerificationError, match=complaint):
            client.register()
        assert server.state()["counts"]["register"] == 0
        assert server.stderr == ""


def test_the_message_in_the_challenge_is_what_is_verified(client: Client) -> None:
    client.register()
    challenge = client.challenge().json
    signature = client.sign(challenge["message"] + " ")
    answer = client.post(VERIFY, {"challenge_id": challenge["challenge_id"], "signature": signature})
    assert (answer.status, answer.error) == (401, "signature_mismatch")
