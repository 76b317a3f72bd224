"""Start, announcement and shutdown."""

import http.client
import json
import os
import select
import signal
import socket
import subprocess
import sys
import time
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any

import jwt
import pytest
from devserver_client import Client

from devserver.testing import DevServer, DevServerError
from devserver.wallets import Wallets

pytestmark = pytest.mark.process

ROOT = Path(__file__).resolve().parents[2]
END_SECONDS = 2.0
KEY = "k" * 32


@contextmanager
def running(*options: str) -> Iterator[tuple[subprocess.Popen[bytes], dict[str, Any]]]:
    """The server as a shell would start it, and its announcement."""
    process = subprocess.Popen(
        [sys.executable, "-m", "devserver", *options],
        cwd=ROOT,
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
    )
    try:
        assert process.stdout is not None
        assert select.select([process.stdout], [], [], 20)[0], "no announcement"
        yield process, json.loads(process.stdout.readline())
    finally:
        process.kill()
        process.communicate(timeout=5)


def test_one_json_line_announces_the_server_and_the_end_of_standard_input_ends_it() -> None:
    with running("--exit-with-stdin") as (process, announced):
        assert set(announced) == {"url", "ca_file", "pid"}
        assert announced["pid"] == process.pid
        assert announced["ca_file"] is None
        assert announced["url"].startswith("http://127.0.0.1:")
        rest, errors = process.communicate(b"something", timeout=END_SECONDS)
        assert (rest, errors, process.returncode) == (b"", b"", 0)


@pytest.mark.parametrize(("how", "tls"), [(signal.SIGTERM, True), (signal.SIGINT, False)])
def test_a_signal_ends_it_cleanly_with_requests_under_way(how: signal.Signals, tls: bool) -> None:
    with DevServer(tls=tls) as server, Client(server) as idle, Client(server) as held:
        idle.register()
        server.faults("register", [{"kind": "hold"}])
        held.connection.request("POST", "/auth/register", b"{}")
        server.wait_for("register", 2)
        assert_ends(server, lambda pid: os.kill(pid, how))
        if server.ca_file is not None:
            assert not Path(server.ca_file).exists()
        with pytest.raises(DevServerError, match="no response to state"):
            server.state()


def assert_ends(server: DevServer, end: Any) -> None:
    process = server._process
    assert process is not None
    started = time.monotonic()
    end(process.pid)
    assert process.wait(END_SECONDS) == 0
    assert time.monotonic() - started < END_SECONDS
    assert server.stderr == ""


def test_stop_ends_a_server_that_hangs(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr("devserver.testing._STOP_SECONDS", 0.2)
    with DevServer() as server:
        assert server.pid is not None
        os.kill(server.pid, signal.SIGSTOP)
    assert server.returncode == -signal.SIGKILL


def test_before_its_start_it_has_no_url_and_nothing_to_stop() -> None:
    server = DevServer()
    server.stop()
    with pytest.raises(DevServerError, match="not been started"):
        _ = server.url


def test_a_port_in_use_is_reported() -> None:
    with socket.create_server(("127.0.0.1", 0)) as taken:
        port = taken.getsockname()[1]
        server = DevServer(options=[f"--port={port}"])
        with pytest.raises(DevServerError, match=f"cannot serve on 127.0.0.1 port {port}.*in use"):
            server.start()
    assert server.returncode == 1


@pytest.mark.parametrize(
    ("options", "complaint"),
    [
        (["--nonsense"], "unrecognized arguments"),
        (["--era=x"], "invalid era number value"),
        (["--claims=[]"], "invalid JSON object value"),
        (["--jwt-secret=short"], "at least 32 bytes"),
        (["--token-lifetime=0"], "must be a positive number"),
        (["--tls", "--ca-file=/nonexistent/ca.pem"], "no directory /nonexistent"),
    ],
)
def test_bad_options_are_reported(options: list[str], complaint: str) -> None:
    server = DevServer(options=options)
    with pytest.raises(DevServerError, match=complaint):
        server.start()
    assert server.returncode not in (0, None)


def test_a_server_that_does_not_come_up_in_time_is_reported_and_ended() -> None:
    server = DevServer(start_timeout=0.001)
    with pytest.raises(DevServerError, match="not listening after"):
        server.start()
    assert server.returncode is not None


def test_the_options_of_the_service(tmp_path: Path) -> None:
    ca_file = tmp_path / "ca.pem"
    options = [f"--ca-file={ca_file}", f"--jwt-secret={KEY}", "--host=::1", "--token-lifetime=90"]
    with (
        DevServer(
            tls=True, invite_only=True, invites=["one"], era=None, claims={"extra": 1}, options=options
        ) as server,
        Client(server) as client,
    ):
        assert server.url.startswith("https://[::1]:")
        assert server.ca_file == str(ca_file)
        assert client.register().error == "invite_required"
        assert client.register(invite_code="one").status == 200
        answer = client.verify().json
        claims = jwt.decode(answer["token"], KEY, ["HS256"])
        assert (claims["extra"], claims["exp"] - claims["iat"]) == (1, 90)
        assert "era_number" not in claims
        assert answer["wallet_secret"] == Wallets(KEY.encode()).secret_of(client.account.address)


@pytest.mark.parametrize("tls", [False, True])
def test_one_connection_can_be_kept_for_control_and_is_made_anew_when_lost(
    tls: bool, monkeypatch: pytest.MonkeyPatch
) -> None:
    made = []
    connect = DevServer._connect

    def counted(server: DevServer, timeout: float) -> http.client.HTTPConnection:
        made.append(connect(server, timeout))
        return made[-1]

    monkeypatch.setattr(DevServer, "_connect", counted)
    with DevServer(tls=tls, keep_control=True) as server:
        for number in range(1, 3):
            server.settings(era=number)
            server.reset()
            assert server.state()["settings"]["era"] == 1
            with pytest.raises(DevServerError):
                server.settings(era="x")
            assert len(made) == number
            made[-1].sock.shutdown(socket.SHUT_RDWR)
        assert server.state()["connections"] == {"accepted": 0, "open": 0}
    assert all(connection.sock is None for connection in made)
