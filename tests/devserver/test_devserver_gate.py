"""The second port: the faults of its connections, as seen by plain sockets and Python's TLS."""

import base64
import http.client
import socket
import ssl
import time
from collections.abc import Iterator
from contextlib import contextmanager
from urllib.parse import urlsplit

import pytest
from devserver_client import REGISTER, SECONDS, Client, end_of, trusting

from devserver.testing import DevServer, DevServerError
from tests.shared.servers import fresh, serve


@pytest.fixture(scope="module")
def plain_gate_process() -> Iterator[DevServer]:
    yield from serve(gate=True)


@pytest.fixture(scope="module")
def tls_gate_process() -> Iterator[DevServer]:
    yield from serve(tls=True, gate=True)


@pytest.fixture
def plain_gate(plain_gate_process: DevServer) -> DevServer:
    return fresh(plain_gate_process)


@pytest.fixture
def tls_gate(tls_gate_process: DevServer) -> DevServer:
    return fresh(tls_gate_process)


@contextmanager
def connected(server: DevServer) -> Iterator[socket.socket]:
    assert server.gate_url is not None
    port = urlsplit(server.gate_url).port
    with socket.create_connection(("127.0.0.1", port), SECONDS) as connection:
        yield connection


def register(server: DevServer) -> int:
    """One request at the gate on a separate connection."""
    assert server.gate_url is not None
    address = urlsplit(server.gate_url)
    assert address.hostname is not None
    connection: http.client.HTTPConnection
    if address.scheme == "https":
        context = trusting(server)
        connection = http.client.HTTPSConnection(
            address.hostname, address.port, timeout=SECONDS, context=context
        )
    else:
        connection = http.client.HTTPConnection(address.hostname, address.port, timeout=SECONDS)
    try:
        connection.request("POST", REGISTER, b"{}", {"Content-Type": "application/json"})
        return connection.getresponse().status
    finally:
        connection.close()


@pytest.fixture(params=["plain_gate", "tls_gate"])
def gate(request: pytest.FixtureRequest) -> DevServer:
    server = request.getfixturevalue(request.param)
    assert isinstance(server, DevServer)
    return server


def test_faults_come_in_order_and_then_connections_come_through(gate: DevServer) -> None:
    gate.faults("connect", [{"kind": "hang_up", "times": 2}, {"kind": "pass"}])
    for _ in range(2):
        with pytest.raises((OSError, http.client.HTTPException)):
            register(gate)
    assert [register(gate) for _ in range(2)] == [400, 400]
    assert gate.state()["gate"] == ["hang_up", "hang_up", "pass", "pass"]


def test_the_first_port_meets_none_of_it(gate: DevServer) -> None:
    gate.faults("connect", [{"kind": "hang_up", "times": None}])
    with Client(gate) as client:
        assert client.register().status == 200


def test_a_star_does_not_stand_for_connections(plain_gate: DevServer) -> None:
    plain_gate.faults("*", [{"kind": "status", "status": 503}])
    assert register(plain_gate) == 503


@pytest.mark.parametrize(("reset", "end"), [(False, "closed"), (True, "reset")])
def test_hang_up_after_the_connection(plain_gate: DevServer, reset: bool, end: str) -> None:
    plain_gate.faults("connect", [{"kind": "hang_up", "reset": reset}])
    try:
        with connected(plain_gate) as connection:
            assert end_of(connection) == (b"", end)
    except ConnectionResetError:
        # It may arrive before the client has used its new connection.
        assert reset


def test_hang_up_waits_for_the_client_to_speak_where_asked(plain_gate: DevServer) -> None:
    plain_gate.faults("connect", [{"kind": "hang_up", "at": "hello"}])
    with connected(plain_gate) as connection:
        connection.settimeout(0.05)
        with pytest.raises(TimeoutError):
            connection.recv(1)
        connection.settimeout(SECONDS)
        connection.sendall(b"x")
        assert end_of(connection) == (b"", "closed")


@pytest.mark.parametrize("reset", [False, True])
def test_hang_up_in_the_middle_of_the_handshake(tls_gate: DevServer, reset: bool) -> None:
    tls_gate.faults("connect", [{"kind": "hang_up", "at": "handshake", "reset": reset}])
    received, sent = ssl.MemoryBIO(), ssl.MemoryBIO()
    client = trusting(tls_gate).wrap_bio(received, sent, server_hostname="127.0.0.1")
    with pytest.raises(ssl.SSLWantReadError):
        client.do_handshake()
    with connected(tls_gate) as connection:
        connection.sendall(sent.read())
        flight, end = end_of(connection)
    assert end == ("reset" if reset else "closed")
    # A reset may overtake what was sent before it.
    assert reset or flight.startswith(b"\x16\x03")
    received.write(flight)
    with pytest.raises(ssl.SSLWantReadError):
        client.do_handshake()


@pytest.mark.parametrize("at", ["accept", "hello", "handshake"])
def test_a_stall_lasts_until_the_client_leaves(tls_gate: DevServer, at: str) -> None:
    tls_gate.faults("connect", [{"kind": "stall", "at": at}])
    with connected(tls_gate) as connection:
        connection.settimeout(0.1)
        with pytest.raises(TimeoutError):
            trusting(tls_gate).wrap_socket(connection, server_hostname="127.0.0.1")
    assert register(tls_gate) == 400


def test_babble_in_place_of_a_handshake(tls_gate: DevServer) -> None:
    alert = base64.b64encode(b"\x15\x03\x03\x00\x02\x02\x28").decode()
    tls_gate.faults("connect", [{"kind": "babble"}, {"kind": "babble", "body_base64": alert}])
    with pytest.raises(ssl.SSLError, match=r"WRONG_VERSION_NUMBER|RECORD_LAYER_FAILURE"):
        register(tls_gate)
    with pytest.raises(ssl.SSLError, match="HANDSHAKE_FAILURE"):
        register(tls_gate)


@pytest.mark.parametrize(
    ("flaw", "words"),
    [
        ("untrusted", "unable to get local issuer"),
        ("misnamed", "IP address mismatch"),
        ("expired", "expired"),
    ],
)
def test_a_flawed_certificate(tls_gate: DevServer, flaw: str, words: str) -> None:
    tls_gate.faults("connect", [{"kind": "certificate", "flaw": flaw}])
    with pytest.raises(ssl.SSLCertVerificationError, match=words):
        register(tls_gate)
    assert register(tls_gate) == 400


@pytest.mark.parametrize(
    ("endpoint", "fault"),
    [
        ("connect", {"kind": "status", "status": 500}),
        ("connect", {"kind": "hang_up", "at": "noon"}),
        ("connect", {"kind": "pass", "delay": 1}),
        ("connect", {"kind": "certificate", "flaw": "ugly"}),
        ("register", {"kind": "hang_up"}),
        ("*", {"kind": "stall"}),
    ],
)
def test_faults_at_the_wrong_place_are_refused(
    plain_gate: DevServer, endpoint: str, fault: dict[str, object]
) -> None:
    with pytest.raises(DevServerError):
        plain_gate.faults(endpoint, [fault])


def test_the_server_ends_while_connections_stall() -> None:
    with DevServer(tls=True, gate=True) as server:
        server.faults("connect", [{"kind": "stall", "times": None}])
        with connected(server), connected(server):
            deadline = time.monotonic() + SECONDS
            while len(server.state()["gate"]) < 2:
                assert time.monotonic() < deadline
            server.stop()
            assert (server.returncode, server.stderr) == (0, "")


def test_a_chunk_without_a_size(server: DevServer, client: Client) -> None:
    server.faults("register", [{"kind": "bad_chunk"}])
    with pytest.raises(http.client.IncompleteRead) as caught:
        client.register()
    assert caught.value.partial
    assert server.state()["wallets"] == 1
    assert client.register().status == 200


def test_bytes_that_nobody_asked_for(server: DevServer) -> None:
    server.faults("register", [{"kind": "trailing", "body": "HTTP/1.1 500 No\r\n\r\n"}])
    with socket.create_connection(("127.0.0.1", server.port), SECONDS) as connection:
        connection.sendall(b"POST /auth/register HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\n\r\n")
        received = b""
        while not received.endswith(b"HTTP/1.1 500 No\r\n\r\n"):
            received += connection.recv(65536)
        connection.settimeout(0.05)
        with pytest.raises(TimeoutError):
            connection.recv(1)
