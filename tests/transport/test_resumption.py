"""TLS sessions are resumed by any thread, with the same origin, trust and process, and with no other."""

from __future__ import annotations

import ssl
from collections.abc import Callable
from pathlib import Path

import pytest
import trustme

from tests.shared.threads import Worker

from .authorities import ACCEPTED, REFUSED, outcome, outcome_elsewhere, pem, replace, rewrite
from .programs import FORKING, told_by
from .tls_server import Serve, TlsServer, context_of

VERSIONS = {"1.2": ssl.TLSVersion.TLSv1_2, "1.3": ssl.TLSVersion.TLSv1_3}
BOTH = pytest.mark.parametrize("version", VERSIONS.values(), ids=VERSIONS)


@pytest.fixture
def server(version: ssl.TLSVersion, serve: Serve, roots: Path, authority: trustme.CA) -> TlsServer:
    """Speaks only that version, and closes each connection after its response."""
    return serve(context_of(authority, version=version))


@BOTH
class TestResumed:
    def test_each_connection_after_the_first(self, server: TlsServer) -> None:
        for _ in range(6):
            assert outcome(server.url) == ACCEPTED
        assert server.resumed == [False, True, True, True, True, True]

    def test_by_other_threads(self, server: TlsServer) -> None:
        for _ in range(3):
            assert outcome_elsewhere(server.url) == ACCEPTED
        assert outcome(server.url) == ACCEPTED
        assert server.resumed == [False, True, True, True]

    def test_at_the_same_time(self, server: TlsServer) -> None:
        for worker in [Worker(outcome, server.url) for _ in range(16)]:
            assert worker.result() == ACCEPTED
        assert outcome(server.url) == ACCEPTED
        assert server.resumed[-1]
        assert len(server.requests) == 17

    def test_for_another_path(self, server: TlsServer) -> None:
        assert outcome(server.url) == outcome(server.url + "/elsewhere?query") == ACCEPTED
        assert server.resumed == [False, True]

    def test_by_each_configuration_on_its_own(
        self,
        server: TlsServer,
        roots: Path,
        authority: trustme.CA,
        tmp_path: Path,
        monkeypatch: pytest.MonkeyPatch,
    ) -> None:
        second = tmp_path / "second.pem"
        second.write_bytes(pem(authority))
        for _ in range(2):
            for path in (roots, second):
                monkeypatch.setenv("SSL_CERT_FILE", str(path))
                assert outcome(server.url) == ACCEPTED
        assert server.resumed == [False, False, True, True]


@BOTH
class TestNotResumed:
    @pytest.mark.parametrize("change", [rewrite, replace])
    def test_after_the_trusted_file_has_changed(
        self, change: Callable[[Path, bytes], None], server: TlsServer, roots: Path, authority: trustme.CA
    ) -> None:
        assert outcome(server.url) == ACCEPTED
        change(roots, pem(authority) + pem(trustme.CA()))
        assert outcome(server.url) == ACCEPTED
        assert outcome(server.url) == ACCEPTED
        assert server.resumed == [False, False, True]

    def test_where_the_authority_was_withdrawn(
        self, server: TlsServer, roots: Path, authority: trustme.CA
    ) -> None:
        other = pem(trustme.CA())
        for _ in range(3):
            assert outcome(server.url) == outcome(server.url) == ACCEPTED
            rewrite(roots, other)
            sent = len(server.requests)
            assert outcome(server.url) == outcome_elsewhere(server.url) == REFUSED
            assert len(server.requests) == sent
            rewrite(roots, pem(authority))

    def test_where_another_configuration_does_not_trust(
        self, server: TlsServer, roots: Path, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
    ) -> None:
        second = tmp_path / "second.pem"
        second.write_bytes(pem(trustme.CA()))
        for _ in range(3):
            monkeypatch.setenv("SSL_CERT_FILE", str(roots))
            assert outcome(server.url) == ACCEPTED
            monkeypatch.setenv("SSL_CERT_FILE", str(second))
            assert outcome(server.url) == REFUSED
        assert len(server.requests) == 3

    def test_at_another_port(self, server: TlsServer, serve: Serve) -> None:
        # Its context would accept the tickets of the first.
        second = serve(server.context)
        assert outcome(server.url) == outcome(second.url) == outcome(server.url) == ACCEPTED
        assert (server.resumed, second.resumed) == ([False, True], [False])

    def test_under_another_name(self, server: TlsServer) -> None:
        by_name = f"https://localhost:{server.port}"
        for url in (server.url, by_name, server.url, by_name):
            assert outcome(url) == ACCEPTED
        assert server.resumed == [False, False, True, True]

    def test_under_a_name_that_the_certificate_does_not_have(
        self, version: ssl.TLSVersion, serve: Serve, roots: Path, authority: trustme.CA
    ) -> None:
        server = serve(context_of(authority, "127.0.0.1", version=version))
        for _ in range(2):
            assert outcome(server.url) == ACCEPTED
            assert outcome(f"https://localhost:{server.port}") == REFUSED

    def test_by_a_forked_child(self, server: TlsServer, roots: Path) -> None:
        told = told_by(
            """
            (url,) = arguments
            def ask():
                return auth._default_http_transport("GET", url)[0]

            before = [ask(), ask()]
            code = code_of_child(lambda: (ask(), ask()) == (200, 200))
            print(json.dumps([*before, code, ask()]))
            """,
            server.url,
            helpers=FORKING,
        )
        assert told == [200, 200, 0, 200]
        assert server.resumed == [False, True, False, True, True]

    def test_where_the_server_has_forgotten_it(self, server: TlsServer, authority: trustme.CA) -> None:
        version = server.context.minimum_version
        for _ in range(3):
            assert outcome(server.url) == outcome(server.url) == ACCEPTED
            server.context = context_of(authority, version=version)
        assert server.resumed == [False, True] * 3

    def test_where_the_server_has_changed_its_certificate(self, server: TlsServer) -> None:
        version = server.context.minimum_version
        assert outcome(server.url) == outcome(server.url) == ACCEPTED
        server.context = context_of(trustme.CA(), version=version)
        assert outcome(server.url) == REFUSED
        assert len(server.requests) == 2

    def test_where_the_server_has_changed_its_version(self, server: TlsServer, authority: trustme.CA) -> None:
        for version in (ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3, ssl.TLSVersion.TLSv1_2):
            server.context = context_of(authority, version=version)
            assert outcome(server.url) == outcome(server.url) == ACCEPTED
        assert server.resumed == [False, True] * 3


@BOTH
def test_a_server_without_tickets(
    version: ssl.TLSVersion, serve: Serve, roots: Path, authority: trustme.CA
) -> None:
    server = serve(context_of(authority, version=version, tickets=False))
    for _ in range(4):
        assert outcome(server.url) == ACCEPTED
    # With TLS 1.2 it may keep its own sessions.
    assert version == ssl.TLSVersion.TLSv1_2 or server.resumed == [False] * 4
