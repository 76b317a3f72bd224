"""Settings, counters and what the control endpoint does not show."""

import base64
import json
import socket
import threading
from concurrent.futures import ThreadPoolExecutor
from typing import Any

import pytest
from devserver_client import REGISTER, SECONDS, Client, claims_of

from devserver.testing import DevServer, DevServerError


def test_the_era_of_new_tokens_follows_the_setting(server: DevServer, client: Client) -> None:
    client.register()
    for era in (1, 7, 123456789012345678901):
        server.settings(era=era)
        assert claims_of(client.verify().json["token"])["era_number"] == era
    server.settings(era=None)
    token = client.verify().json["token"]
    assert "era_number" not in claims_of(token)
    assert client.name("abc", token).status == 200


def test_extra_claims_are_added_and_replace_standard_ones(server: DevServer, client: Client) -> None:
    server.settings(claims={"roles": ["a"], "jti": "mine"})
    claims = claims_of(client.log_in().json["token"])
    assert (claims["roles"], claims["jti"], claims["sub"]) == (["a"], "mine", client.account.address)


def test_the_token_lifetime_can_be_set(server: DevServer, client: Client) -> None:
    server.settings(token_lifetime=60)
    answer = client.log_in().json
    assert claims_of(answer["token"])["exp"] - claims_of(answer["token"])["iat"] == 60


@pytest.mark.parametrize(
    "changes",
    [
        {"nonsense": 1},
        {"era": "1"},
        {"era": True},
        {"claims": []},
        {"invite_only": 1},
        {"clock_skew": "1"},
        {"token_lifetime": 0},
        {"invites": "code"},
        {"revoke_invites": [1]},
    ],
)
def test_a_bad_setting_is_refused_and_changes_nothing(server: DevServer, changes: dict[str, Any]) -> None:
    before = server.state()["settings"]
    with pytest.raises(DevServerError, match="settings refused: "):
        server.settings(**{"allow_unregistered": True, **changes})
    assert server.state()["settings"] == before


def test_a_reset_returns_to_the_start(server: DevServer, client: Client) -> None:
    first = server.state()
    server.settings(era=9, invite_only=True, invites=["x"], claims={"a": 1}, clock_skew=5)
    server.faults("verify", [{"kind": "reset"}])
    client.register(invite_code="x")
    client.connection.close()
    server.reset()
    after = server.state()
    assert after["connections"]["accepted"] == 0
    assert {**after, "connections": None} == {**first, "connections": None}
    assert client.challenge().error == "not_registered"


def test_each_request_is_counted_and_recorded(server: DevServer, client: Client) -> None:
    client.log_in()
    client.request("GET", "/elsewhere?token=abc")
    state = server.state()
    assert state["counts"] == {"register": 1, "challenge": 1, "verify": 1, "display_name": 0, "/elsewhere": 1}
    assert [entry["path"] for entry in state["requests"]] == [
        "/auth/register",
        "/auth/challenge",
        "/auth/verify",
        "/elsewhere",
    ]
    verify = state["requests"][2]
    assert (verify["endpoint"], verify["method"], verify["status"]) == ("verify", "POST", 200)
    assert verify["body_keys"] == ["challenge_id", "signature"]
    assert "content-type" in verify["header_names"]
    assert 0 < verify["duration"] < 5
    assert [entry["time"] for entry in state["requests"]] == sorted(
        entry["time"] for entry in state["requests"]
    )


def test_the_state_shows_no_secrets(server: DevServer, client: Client) -> None:
    server.settings(invite_only=True, invites=["hidden-code"], claims={"hidden": "hidden-claim"})
    client.register(invite_code="hidden-code")
    challenge = client.challenge().json
    answer = client.answer(challenge).json
    client.name("Hidden Name", answer["token"])
    client.post(REGISTER, {"hidden-key": "hidden-value"}, {"X-Header": "hidden-header"})
    client.request("GET", "/x?hidden-query")
    shown = json.dumps(server.state())
    secret = answer["wallet_secret"]
    for hidden in (
        client.sign(challenge["message"])[2:],
        challenge["challenge_id"],
        challenge["message"].splitlines()[3],
        answer["token"],
        answer["token"].split(".")[2],
        secret,
        base64.b64decode(secret).hex(),
        client.address,
        client.account.address,
        "Hidden Name",
        "hidden-",
    ):
        assert hidden not in shown


def test_control_connections_are_not_counted(server: DevServer) -> None:
    for _ in range(3):
        server.state()
    assert server.state()["connections"] == {"accepted": 0, "open": 0}


def test_connections_are_counted_as_they_open_and_close(server: DevServer) -> None:
    with Client(server) as first, Client(server) as second:
        first.register()
        second.register()
        assert server.state()["connections"] == {"accepted": 2, "open": 2}
        second.connection.close()
        assert server.state()["connections"]["accepted"] == 2
    first_number, second_number = (entry["connection"] for entry in server.requests)
    assert first_number != second_number


@pytest.mark.parametrize(
    ("endpoint", "script", "complaint"),
    [
        ("verify", {"kind": "reset"}, "must be a list"),
        ("verify", ["reset"], "a fault is an object"),
        ("verify", [{"kind": "nonsense"}], "a fault is an object"),
        ("verify", [{"kind": ["reset"]}], "a fault is an object"),
        ("verify", [{"kind": "reset", "nonsense": 1}], "has no field 'nonsense'"),
        ("verify", [{"kind": "reset", "times": 0}], "cannot take this 'times'"),
        ("verify", [{"kind": "reset", "delay": -1}], "cannot take this 'delay'"),
        ("verify", [{"kind": "status"}], "needs status"),
        ("verify", [{"kind": "status", "status": 100}], "cannot take this 'status'"),
        ("verify", [{"kind": "status", "status": 503, "headers": {"A": 1}}], "cannot take this 'headers'"),
        ("verify", [{"kind": "status", "status": 503, "headers": {"A": "b\r\nC: d"}}], "cannot take"),
        ("verify", [{"kind": "status", "status": 503, "headers": {"Content-length": "1"}}], "cannot take"),
        ("verify", [{"kind": "redirect", "location": ["/a"]}], "cannot take this 'location'"),
        ("verify", [{"kind": "stale_challenge", "status": 401}], "cannot take this 'status'"),
        ("verify", [{"kind": "not_utf8", "body_base64": "?"}], "cannot take this 'body_base64'"),
        ("register", [{"kind": "wrong_subject"}], "is for the endpoint 'verify'"),
    ],
)
def test_a_bad_script_is_refused_and_changes_nothing(
    server: DevServer, endpoint: str, script: Any, complaint: str
) -> None:
    server.faults("register", [{"kind": "reset"}])
    before = server.state()["faults"]
    with pytest.raises(DevServerError, match=complaint):
        server._control("POST", "faults", {"challenge": [{"kind": "close"}], endpoint: script})
    assert server.state()["faults"] == before


def test_control_refuses_what_it_does_not_know(server: DevServer, client: Client) -> None:
    assert client.post("/_control/nonsense", {}).status == 404
    assert client.post("/_control/state", {}).status == 405
    assert client.request("POST", "/_control/settings", b"settings").error == "invalid_json"
    assert client.post("/_control/wait", {"endpoint": "verify"}).status == 400


@pytest.mark.parametrize("headers", [{}, {"Content-Type": "application/x-www-form-urlencoded"}])
def test_control_takes_json_of_any_media_type(
    server: DevServer, client: Client, headers: dict[str, str]
) -> None:
    faults = client.request("POST", "/_control/faults", b'{"register": [{"kind": "reset"}]}', headers)
    assert faults.json == {"register": [{"kind": "reset", "times": 1}]}
    assert client.request("POST", "/_control/settings", b'{"era": 7}', headers).json["era"] == 7
    wait = b'{"endpoint": "verify", "count": 0, "timeout": 1}'
    assert client.request("POST", "/_control/wait", wait, headers).json == {"count": 0}
    assert client.request("POST", "/_control/release", None, headers).status == 200
    assert client.request("POST", "/_control/reset", None, headers).status == 200
    assert server.state()["faults"] == {}


def test_a_script_goes_by_the_endpoint_or_by_its_path(server: DevServer, client: Client) -> None:
    server.faults("/auth/register", [{"kind": "status", "status": 503}])
    assert (client.register().status, client.register().status) == (503, 200)


@pytest.mark.parametrize("name", ["verfy", "", "auth/verify", "/späť", "/\n", "/\ud800"])
def test_a_script_for_what_is_no_endpoint_is_refused(server: DevServer, name: str) -> None:
    with pytest.raises(DevServerError, match="none of: register, challenge"):
        server.faults(name, [{"kind": "reset"}])


@pytest.mark.parametrize(
    ("name", "asked"),
    [
        ("settings", b'{"claims": {"\\ud800": 1}}'),
        ("settings", b'{"clock_skew": 1e10, "token_lifetime": 1e10, "challenge_lifetime": -1e10}'),
        ("settings", b'{"clock_skew": -1e10, "era": 1' + 100 * b"0" + b"}"),
        ("wait", b'{"endpoint": "verify", "count": 1' + 400 * b"0" + b', "timeout": -1' + 400 * b"0" + b"}"),
        ("wait", b'{"endpoint": "/", "count": -1.0, "timeout": 1e308}'),
        ("settings", b'{"era": 7.0}'),
        ("faults", b'{"verify": [{"kind": "cut_body", "sent": 1.0, "times": 2.0}]}'),
    ],
)
def test_what_is_odd_but_right_breaks_nothing(
    server: DevServer, client: Client, name: str, asked: bytes
) -> None:
    assert client.request("POST", f"/_control/{name}", asked).status == 200
    assert server.state()["wallets"] == 0
    assert client.register().status == 200
    assert client.challenge().status == 200


@pytest.mark.parametrize(
    ("name", "asked"),
    [
        ("settings", b'{"clock_skew": 1e300}'),
        ("settings", b'{"clock_skew": 1' + 400 * b"0" + b"}"),
        ("settings", b'{"token_lifetime": NaN}'),
        ("settings", b'{"invites": ["\\ud800"]}'),
        ("wait", b'{"endpoint": "verify", "count": 1, "timeout": Infinity}'),
        ("wait", b'{"endpoint": "verify", "count": true, "timeout": 1}'),
        ("faults", b'{"verify": [{"kind": "garbage", "body": "\\ud800"}]}'),
        ("faults", b'{"verify": [{"kind": "delay", "seconds": 1' + 400 * b"0" + b"}]}"),
        ("faults", b'{"verify": [{"kind": "stale_challenge", "status": 404.0}]}'),
    ],
)
def test_what_cannot_be_kept_is_refused(client: Client, name: str, asked: bytes) -> None:
    assert client.request("POST", f"/_control/{name}", asked).status == 400


def test_waiting_ends_when_the_requests_have_come(server: DevServer) -> None:
    with ThreadPoolExecutor(1) as pool:
        waiting = pool.submit(server.wait_for, "register", 2, 5.0)
        with Client(server) as client:
            client.register()
            assert not waiting.done()
            client.register()
        waiting.result(5)


def test_waiting_in_vain_is_an_error(server: DevServer) -> None:
    with pytest.raises(DevServerError, match="0 of 1 requests"):
        server.wait_for("register", 1, timeout=0.05)


def test_the_echo_tells_what_was_sent(client: Client) -> None:
    body = bytes(range(256))
    told = client.request("PUT", "/_echo/a/%2e%2e/b?c=d", body, {"X-One": "1"}).json
    assert (told["method"], told["path"], told["query"]) == ("PUT", "/_echo/a/%2e%2e/b", "c=d")
    assert ["x-one", "1"] in told["headers"]
    assert base64.b64decode(told["body_base64"]) == body


def test_many_wallets_log_in_at_once(server: DevServer) -> None:
    start = threading.Barrier(16, timeout=5)

    def log_in(_number: int) -> int:
        with Client(server) as client:
            start.wait()
            return client.log_in().status

    with ThreadPoolExecutor(16) as pool:
        assert list(pool.map(log_in, range(16), timeout=10)) == [200] * 16
    assert server.state()["counts"]["verify"] == 16


def test_a_client_that_leaves_within_a_control_request_is_let_go(server: DevServer) -> None:
    with socket.create_connection(("127.0.0.1", server.port), SECONDS) as connection:
        connection.sendall(b"POST /_control/faults HTTP/1.1\r\nHost: x\r\nContent-Length: 9\r\n\r\n{")
    with socket.create_connection(("127.0.0.1", server.port), SECONDS) as connection:
        connection.sendall(b"POST /_control/faults HTTP/1.1\r\nHost: x\r\nContent-Length: 2\r\n\r\n{}")
        assert connection.recv(12) == b"HTTP/1.1 200"
