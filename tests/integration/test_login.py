"""The whole login over real sockets, through the default transport."""

from __future__ import annotations

import secrets
import ssl
import threading
from collections.abc import Callable

import pytest

from devserver.testing import DevServer
from tessaline import auth
from tests.shared.threads import Worker

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
    # Pooled connections of other tests may be closed meanwhile.
    assert descriptors() <= files


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


def test_a_name_is_set_and_reset(either: DevServer, harness: Make) -> None:
    one = harness(either)
    one.manager.authenticate()
    assert one.manager.set_display_name("  Ada Lovelace ")["display_name"] == "Ada Lovelace"
    assert one.manager.set_display_name(None)["display_name"] is None
    assert wire(either)["display_name"] == 2


def test_managers_do_not_get_in_each_others_way(server: DevServer, harness: Make) -> None:
    several = [harness(server) for _ in range(8)]
    for worker in [Worker(one.manager.authenticate) for one in several for _ in range(4)]:
        worker.result()
    assert len({one.manager._token for one in several}) == len(several)
    subjects = {auth._decode_jwt_payload_unverified(one.manager._token)["sub"].lower() for one in several}
    assert subjects == {one.manager.get_wallet_address() for one in several}


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
    """The trusted roots may change between two logins."""

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
