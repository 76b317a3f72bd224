"""Each kind of fault as seen by the client, and the recovery from it."""

import base64
import socket
import ssl
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from typing import Any

import pytest
from devserver_client import REGISTER, SECONDS, Client, Reply, claims_of, raw_exchange, trusting

from devserver.testing import DevServer

Script = list[dict[str, Any]]


def verify_with(server: DevServer, client: Client, *script: dict[str, Any]) -> Reply:
    client.register()
    server.faults("verify", script)
    return client.verify()


@pytest.mark.parametrize("status", [200, 204, 206, 299, 304, 400, 404, 418, 429, 500, 502, 599])
def test_any_status_keeps_the_connection(server: DevServer, client: Client, status: int) -> None:
    server.faults("register", [{"kind": "status", "status": status}])
    assert client.register().status == status
    assert client.register().status == 200
    assert server.state()["connections"]["accepted"] == 1


def test_header_names_keep_their_spelling_and_may_repeat(server: DevServer) -> None:
    headers = {"rEtry-aFter": ["1", "2"], "Connection": "close", "Content-Type": "x/y"}
    server.faults("register", [{"kind": "status", "status": 429, "body": "späť", "headers": headers}])
    received, end = raw_exchange(server)
    head, _, body = received.partition(b"\r\n\r\n")
    assert b"\r\nrEtry-aFter: 1\r\nrEtry-aFter: 2\r\n" in head
    assert head.count(b"Content-Type") == 1
    assert (body.decode(), end) == ("späť", "closed")


def test_a_body_of_bytes(server: DevServer, client: Client) -> None:
    raw = base64.b64encode(b"\x00\xff").decode()
    server.faults("register", [{"kind": "status", "status": 400, "body_base64": raw}])
    assert client.register().body == b"\x00\xff"


@pytest.mark.parametrize("script", [[{"kind": "delay", "seconds": 0.2}], [{"kind": "pass", "delay": 0.2}]])
def test_a_delay_before_the_headers(server: DevServer, client: Client, script: Script) -> None:
    server.faults("register", script)
    started = time.monotonic()
    assert client.register().status == 200
    assert 0.2 <= time.monotonic() - started < SECONDS
    assert server.requests[0]["duration"] >= 0.2


def test_half_of_the_body_comes_before_a_delay_in_it(server: DevServer) -> None:
    server.faults("register", [{"kind": "delay", "seconds": 60, "at": "body"}])
    with socket.create_connection(("127.0.0.1", server.port), SECONDS) as connection:
        connection.sendall(b"POST /auth/register HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\n\r\n")
        whole = b'{"error":"invalid_content_type"}'
        received = b""
        while not received.endswith(b"\r\n\r\n" + whole[:16]):
            received += connection.recv(1)
        connection.settimeout(0.05)
        with pytest.raises(TimeoutError):
            connection.recv(1)


def test_a_client_that_leaves_a_delay_is_let_go(server: DevServer) -> None:
    server.faults("register", [{"kind": "delay", "seconds": 60}])
    with Client(server) as client:
        client.connection.request("POST", REGISTER, b"{}")
        server.wait_for("register", 1)
        assert server.requests[0]["duration"] is None
    deadline = time.monotonic() + SECONDS
    while server.requests[0]["duration"] is None:
        assert time.monotonic() < deadline
    assert (server.requests[0]["status"], server.requests[0]["fault"]) == (None, "delay")


def test_a_held_request_goes_on_at_the_release(server: DevServer) -> None:
    server.faults("register", [{"kind": "hold", "times": 2}])

    def register(_number: int) -> int:
        with Client(server) as client:
            return client.register().status

    with ThreadPoolExecutor(2) as pool:
        held = [pool.submit(register, number) for number in range(2)]
        server.wait_for("register", 2)
        assert server.state()["wallets"] == 0
        assert not any(future.done() for future in held)
        server.release()
        assert [future.result(5) for future in held] == [200, 200]


def test_a_reset_of_the_server_releases_what_is_held(server: DevServer, client: Client) -> None:
    server.faults("register", [{"kind": "status", "status": 500, "hold": True}])
    with ThreadPoolExecutor(1) as pool:
        held = pool.submit(client.register)
        server.wait_for("register", 1)
        server.reset()
        assert held.result(5).status == 500


def test_a_close_sends_nothing_and_is_no_reset(server: DevServer) -> None:
    server.faults("register", [{"kind": "close"}])
    assert raw_exchange(server) == (b"", "closed")


def test_a_reset_before_the_headers(server: DevServer) -> None:
    server.faults("register", [{"kind": "reset"}])
    assert raw_exchange(server) == (b"", "reset")


def test_a_reset_over_tls(https_server: DevServer) -> None:
    https_server.faults("register", [{"kind": "reset"}])
    with Client(https_server) as client, pytest.raises(ConnectionResetError):
        client.register()


def test_an_end_of_tls_without_a_farewell(https_server: DevServer) -> None:
    https_server.faults("register", [{"kind": "close", "close_notify": False}])
    with socket.create_connection(("127.0.0.1", https_server.port), SECONDS) as plain:
        context = trusting(https_server)
        connection = context.wrap_socket(plain, server_hostname="127.0.0.1", suppress_ragged_eofs=False)
        with connection:
            connection.sendall(b"POST /auth/register HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\n\r\n")
            with pytest.raises(ssl.SSLEOFError):
                connection.recv(1)


def test_garbage_bytes_go_out_as_given(server: DevServer) -> None:
    raw = b"HTTP/1.1 200 OK\r\n\x00\xff"
    server.faults("register", [{"kind": "garbage", "body_base64": base64.b64encode(raw).decode()}])
    assert raw_exchange(server) == (raw, "closed")


def test_a_connection_closed_after_a_whole_answer(server: DevServer) -> None:
    server.faults(REGISTER, [])
    server.faults("register", [{"kind": "close_after"}])
    received, end = raw_exchange(server)
    assert end == "closed"
    assert received.startswith(b"HTTP/1.1 400 ")
    assert received.endswith(b'{"error":"invalid_address"}')
    assert b"connection: close" not in received.lower()


def test_a_cut_chunked_body(server: DevServer) -> None:
    server.faults("register", [{"kind": "cut_chunked", "body": "abcdef", "sent": 4}])
    received, end = raw_exchange(server)
    assert received.endswith(b"Transfer-Encoding: chunked\r\n\r\n5\r\nabcd")
    assert end == "closed"


def test_a_reset_in_the_body_is_one_at_the_socket(server: DevServer) -> None:
    server.faults("register", [{"kind": "cut_body", "reset": True}])
    assert raw_exchange(server)[1] == "reset"


def test_a_whole_answer_in_chunks(server: DevServer, client: Client) -> None:
    server.faults("register", [{"kind": "chunked"}, {"kind": "chunked", "status": 500, "body": "abcdef"}])
    answer = client.register()
    assert answer.headers["Transfer-Encoding"] == "chunked"
    assert answer.json == {"wallet_address": client.account.address}
    answer = client.register()
    assert (answer.status, answer.body) == (500, b"abcdef")
    assert server.state()["connections"]["accepted"] == 1


def test_changed_claims(server: DevServer, client: Client) -> None:
    fault = {"kind": "claims", "set": {"exp": 1, "extra": "é"}, "drop": ["jti", "iat"]}
    token = verify_with(server, client, fault).json["token"]
    assert claims_of(token) == {
        "sub": client.account.address,
        "exp": 1,
        "era_number": 1,
        "extra": "é",
    }
    assert client.name("abc", token).error == "token_expired"


def test_a_fault_of_the_answer_leaves_a_refusal_as_it_is(server: DevServer, client: Client) -> None:
    client.register()
    server.faults("verify", [{"kind": "wrong_subject"}, {"kind": "bad_token"}, {"kind": "changed_secret"}])
    for _ in range(3):
        answer = client.answer({"challenge_id": "nothing", "message": ""})
        assert (answer.status, answer.json) == (404, {"error": "challenge_unknown"})


def test_a_huge_body_that_is_still_the_answer(server: DevServer, client: Client) -> None:
    answer = verify_with(server, client, {"kind": "huge_body", "bytes": 3_000_000})
    assert len(answer.body) == 3_000_000
    assert claims_of(answer.json["token"])["sub"] == client.account.address


def test_a_huge_body_that_is_no_answer(server: DevServer, client: Client) -> None:
    server.faults("register", [{"kind": "huge_body", "json": False}])
    assert client.register().body == b"x" * (8 << 20)


def test_faults_come_in_order_as_often_as_asked_and_then_the_service_recovers(
    server: DevServer, client: Client
) -> None:
    script: Script = [
        {"kind": "pass"},
        {"kind": "status", "status": 503, "times": 2},
        {"kind": "status", "status": 500},
    ]
    server.faults("register", script)
    assert [client.register().status for _ in range(6)] == [200, 503, 503, 500, 200, 200]
    assert [entry["fault"] for entry in server.requests] == ["pass", "status", "status", "status", None, None]
    assert server.state()["faults"] == {}


def test_a_fault_for_ever_lasts_until_its_script_is_taken_away(server: DevServer, client: Client) -> None:
    server.faults("register", [{"kind": "status", "status": 503, "times": None}])
    assert {client.register().status for _ in range(20)} == {503}
    assert server.state()["faults"] == {"register": [{"kind": "status", "times": None}]}
    server.faults("register", [])
    assert client.register().status == 200


def test_a_script_meets_its_own_endpoint_only(server: DevServer, client: Client) -> None:
    server.faults("challenge", [{"kind": "status", "status": 500, "times": None}])
    assert client.register().status == 200
    assert client.challenge().status == 500


def test_any_path_can_have_a_script(server: DevServer, client: Client) -> None:
    server.faults("/made/up", [{"kind": "status", "status": 200, "json": [1]}])
    assert client.request("GET", "/made/up?x=y").json == [1]
    assert client.request("GET", "/made/up").status == 404


def test_the_star_meets_what_has_no_script_of_its_own(server: DevServer, client: Client) -> None:
    server.faults("register", [{"kind": "status", "status": 500, "times": None}])
    server.faults("*", [{"kind": "status", "status": 503, "times": None}])
    assert (client.register().status, client.challenge().status) == (500, 503)


def test_the_answer_to_head_has_no_body(server: DevServer, client: Client) -> None:
    server.faults("/x", [{"kind": "status", "status": 200, "body": "abc"}])
    assert client.request("HEAD", "/x").body == b""
    assert client.register().status == 200


def test_faults_are_shared_out_among_clients_at_once(server: DevServer) -> None:
    server.faults("register", [{"kind": "status", "status": 503, "times": 5}])
    start = threading.Barrier(8, timeout=5)

    def register(_number: int) -> int:
        with Client(server) as client:
            start.wait()
            return client.register().status

    with ThreadPoolExecutor(8) as pool:
        statuses = list(pool.map(register, range(8), timeout=10))
    assert sorted(statuses) == [200] * 3 + [503] * 5
