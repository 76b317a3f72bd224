"""The whole login over real sockets, through the default transport."""

from __future__ import annotations

import base64
import secrets
import ssl
import threading
from collections.abc import Callable
from typing import Any

import pytest

from devserver.testing import DevServer
from tessaline import auth
from tests.shared.threads import Worker, until, waiters

from .support import Harness, descriptors, reason_of, wire

Make = Callable[..., Harness]


def test_a_login_without_anything_injected(either: DevServer) -> None:
    with auth.AuthManager(secrets.token_hex(32), either.url) as manager:
        assert manager._transport is auth._default_http_transport
        manager.authenticate()
        token = manager.get_token()
        assert auth._decode_jwt_payload_unverified(token)["sub"].lower() == manager.get_wallet_address()
        assert len(manager.get_wallet_secret()) == 32
        assert manager.get_token_expiry() == manager._auth_time + 86400
        assert manager._refresh_thread.is_alive()
        assert wire(either) == {"register": 1, "challenge": 1, "verify": 1}
        assert either.state()["wallets"] == 1


def test_requests_carry_json_and_nothing_that_nobody_asked_for(either: DevServer, harness: Make) -> None:
    one = harness(either)
    one.manager.authenticate()
    one.manager.set_display_name("Ada")
    requests = either.requests
    assert [entry["path"] for entry in requests] == [
        "/auth/register",
        "/auth/challenge",
        "/auth/verify",
        "/api/profile/display_name",
    ]
    plain = {"host", "user-agent", "accept", "content-type", "content-length"}
    for entry in requests:
        expected = plain | ({"authorization"} if entry["endpoint"] == "display_name" else set())
        assert set(entry["header_names"]) - {"accept"} == expected - {"accept"}
        assert entry["method"] == "POST"
    assert [entry["body_keys"] for entry in requests] == [
        ["wallet_address"],
        ["wallet_address"],
        ["challenge_id", "signature"],
        ["display_name"],
    ]


def test_a_login_uses_one_connection(either: DevServer, harness: Make) -> None:
    one = harness(either)
    one.manager.authenticate()
    before = either.state()["connections"]["accepted"]
    one.manager.authenticate()
    assert either.state()["connections"]["accepted"] == before
    assert len({entry["connection"] for entry in either.requests}) == 1


def test_a_login_leaves_no_thread_and_no_descriptor(either: DevServer, harness: Make) -> None:
    def login() -> None:
        one = harness(either)
        one.manager.authenticate()
        one.manager.close()

    login()
    threads, files = threading.active_count(), descriptors()
    for _ in range(5):
        login()
    assert threading.active_count() == threads
    # Kept connections of other tests may end meanwhile.
    assert descriptors() <= files


def test_every_login_brings_a_new_token_and_the_same_secret(either: DevServer, harness: Make) -> None:
    one = harness(either)
    seen = set()
    for _ in range(3):
        one.manager.authenticate()
        seen.add((one.manager.get_token(), one.manager.get_wallet_secret()))
    assert len({token for token, _ in seen}) == 3
    assert len({secret for _, secret in seen}) == 1


def test_a_wallet_that_does_not_register(server: DevServer, harness: Make) -> None:
    one = harness(server, register_wallet=False)
    assert reason_of(one.failure(one.manager.authenticate)) == "unauthorized"
    server.settings(allow_unregistered=True)
    one.manager.authenticate()
    assert "register" not in wire(server)
    assert one.manager._registration_acknowledged is False


def test_a_server_url_with_a_path_and_slashes(server: DevServer, harness: Make) -> None:
    one = harness(server)
    assert auth.AuthManager("11" * 32, server.url + "/base///")._server_url == server.url + "/base"
    one.manager._server_url = server.url + "/base"
    one.manager._transport = auth._default_http_transport
    assert isinstance(one.failure(one.manager.authenticate), auth.NetworkError)
    assert wire(server) == {"/base/auth/register": 3}


class TestInvites:
    @pytest.fixture(autouse=True)
    def invite_only(self, server: DevServer) -> None:
        server.settings(invite_only=True, invites=["welcome"])

    def test_a_good_invite_lets_one_wallet_in(self, server: DevServer, harness: Make) -> None:
        one = harness(server, invite_code="  WELCOME ")
        one.manager.authenticate()
        assert one.manager._registration_acknowledged is True
        assert server.state()["invites"] == {"known": 1, "redeemed": 1, "revoked": 0}

    @pytest.mark.parametrize(
        ("code", "reason"),
        [
            (None, "invite_required"),
            ("   ", "invite_required"),
            ("unheard-of", "invite_invalid"),
            ("spent", "invite_already_redeemed"),
            ("gone", "invite_revoked"),
        ],
    )
    def test_a_bad_invite_is_refused_at_once(
        self, code: str | None, reason: str, server: DevServer, harness: Make
    ) -> None:
        server.settings(invites=["spent", "gone"], revoke_invites=["gone"])
        harness(server, invite_code="spent").manager.authenticate()
        before = wire(server)
        one = harness(server, invite_code=code)
        error = one.failure(one.manager.authenticate)
        assert type(error) is auth.RegistrationError
        assert error.args == (reason,)
        assert not hasattr(error, "reason")
        assert wire(server) == before | {"register": before["register"] + 1}
        assert one.manager._state == "UNINITIALIZED"
        assert one.manager._registration_acknowledged is False
        assert reason_of(one.manager._auth_error) == reason
        assert one.delays == []


class TestTrust:
    """A certificate that is not acceptable ends the login: nothing is retried and nothing gets through."""

    def check_refused(self, server: DevServer, harness: Make) -> None:
        files = None
        for _ in range(2):
            one = harness(server)
            error = one.failure(one.manager.authenticate)
            assert type(error) is ssl.SSLCertVerificationError
            assert f"127.0.0.1:{server.port}" in str(error)
            assert one.manager._state == "UNINITIALIZED"
            assert one.manager._token is None
            assert reason_of(one.manager._auth_error) == str(error)
            assert one.manager._auth_event.is_set()
            assert (one.spy.attempts, one.delays) == ({"register": 1}, [])
            assert wire(server) == {}
            assert files is None or descriptors() <= files
            files = descriptors()

    def test_untrusted(self, https_server: DevServer, harness: Make, monkeypatch: pytest.MonkeyPatch) -> None:
        monkeypatch.delenv("SSL_CERT_FILE", raising=False)
        self.check_refused(https_server, harness)

    def test_wrong_host_name(
        self, misnamed_server: DevServer, harness: Make, monkeypatch: pytest.MonkeyPatch
    ) -> None:
        assert misnamed_server.ca_file is not None
        monkeypatch.setenv("SSL_CERT_FILE", misnamed_server.ca_file)
        self.check_refused(misnamed_server, harness)

    def test_expired(self, expired_server: DevServer, harness: Make, monkeypatch: pytest.MonkeyPatch) -> None:
        assert expired_server.ca_file is not None
        monkeypatch.setenv("SSL_CERT_FILE", expired_server.ca_file)
        self.check_refused(expired_server, harness)

    def test_trusted_after_all(
        self, https_server: DevServer, harness: Make, monkeypatch: pytest.MonkeyPatch
    ) -> None:
        monkeypatch.delenv("SSL_CERT_FILE", raising=False)
        one = harness(https_server)
        assert type(one.failure(one.manager.authenticate)) is ssl.SSLCertVerificationError
        assert https_server.ca_file is not None
        monkeypatch.setenv("SSL_CERT_FILE", https_server.ca_file)
        one.manager.authenticate()
        assert one.manager._state == "AUTHENTICATED"

    def test_a_renewed_login_that_is_not_trusted_keeps_the_token(
        self, trusted: DevServer, harness: Make, monkeypatch: pytest.MonkeyPatch
    ) -> None:
        one = harness(trusted, close_connections=True)
        one.manager.authenticate()
        token = one.manager.get_token()
        monkeypatch.delenv("SSL_CERT_FILE")
        assert type(one.failure(one.manager.authenticate)) is ssl.SSLCertVerificationError
        assert one.manager._state == "AUTHENTICATED"
        assert one.manager.get_token() == token

    def test_waiters_hear_of_it(
        self, expired_server: DevServer, harness: Make, monkeypatch: pytest.MonkeyPatch
    ) -> None:
        one = harness(expired_server)
        entered, go_on = threading.Event(), threading.Event()

        def late(*args: Any, **options: Any) -> Any:
            entered.set()
            assert go_on.wait(20)
            return one.spy(*args, **options)

        one.manager._transport = late
        runner = Worker(one.manager.authenticate)
        assert entered.wait(20)
        event = one.manager._auth_event
        waiter = Worker(one.manager.authenticate)
        until(lambda: waiters(event) == 1)
        go_on.set()
        text = str(one.discreet(runner.failure()))
        assert reason_of(one.discreet(waiter.failure())) == text


def test_the_wallet_secret_is_what_the_server_sent(server: DevServer, harness: Make) -> None:
    one = harness(server)
    sent = base64.b64encode(bytes(range(32))).decode()
    server.faults("verify", [{"kind": "set_key", "key": "wallet_secret", "value": sent}])
    one.manager.authenticate()
    assert one.manager.get_wallet_secret() == bytes(range(32))
