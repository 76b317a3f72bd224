"""Proxies that refuse, fail or do not exist: permanent and transient errors, and their texts."""

from __future__ import annotations

import base64
import ssl
from collections.abc import Callable, Iterator

import pytest

from tests.integration.support import Harness

from . import squid, tinyproxy
from .nginx import Nginx
from .outcomes import discreet, failure, transport, unreachable
from .squid import REFUSALS, Squid

Make = Callable[..., Harness]

SECRET = "s3cret-value-that-must-not-show"
USER = "nobody-that-it-knows"
WRONG = "wrong-s3cret-of-a-proxy"
SECRETS = [
    SECRET,
    *(USER, squid.USER, tinyproxy.USER),
    *(WRONG, squid.PASSWORD, squid.ESCAPED, tinyproxy.PASSWORD),
    base64.b64encode(f"{USER}:{WRONG}".encode()).decode(),
]
# Their credentials, as in a URL.
STRANGERS = {
    "nobody": "",
    "stranger": f"{USER}:{WRONG}",
    "mistyped": f"{squid.USER}:{WRONG}",
    "without_a_password": USER,
}


@pytest.fixture(scope="module")
def guarded_tinyproxy() -> Iterator[str]:
    with tinyproxy.tinyproxy(f"BasicAuth {tinyproxy.USER} {tinyproxy.PASSWORD}") as peer:
        yield peer


@pytest.fixture(scope="module")
def tinyproxy_for_other_ports() -> Iterator[str]:
    with tinyproxy.tinyproxy("ConnectPort 1") as peer:
        yield peer


def failed(url: str, peer: str) -> BaseException:
    """The error of a request that is full of secrets; it names that peer."""
    error = failure("POST", f"{url}/{SECRET}", {"Authorization": SECRET}, SECRET)
    discreet(error, SECRETS)
    assert peer in str(error)
    return error


def check_ends_at_once(harness: Make, url: str, peer: str) -> BaseException:
    """A permanent error: a login ends with it. The value is the error of a single request."""
    error, one = failed(url, peer), harness(url)
    last = discreet(one.failure(one.manager.authenticate), SECRETS)
    assert (one.spy.attempts, one.delays) == ({"register": 1}, [])
    assert peer in str(last)
    for each in (error, last):
        assert isinstance(each, OSError)
        assert not isinstance(each, ConnectionError | TimeoutError | ssl.SSLError)
    return error


def check_gives_up(harness: Make, url: str, peer: str) -> BaseException:
    """A transient error: a login fails after its last try. The value is the error of a request."""
    error = failed(url, peer)
    last = discreet(unreachable(harness(url)), SECRETS).__context__
    assert peer in str(last)
    for each in (error, last):
        assert isinstance(each, ConnectionError)
    return error


class TestThatRefuse:
    @pytest.mark.parametrize("site", ["plain", "tls"])
    @pytest.mark.parametrize("stranger", STRANGERS)
    @pytest.mark.parametrize("way", ["guarded", "guarded-tls"])
    def test_who_does_not_know_the_password_of_squid(
        self,
        way: str,
        stranger: str,
        site: str,
        proxy: Squid,
        origin: Nginx,
        harness: Make,
        monkeypatch: pytest.MonkeyPatch,
    ) -> None:
        for scheme in ("http", "https"):
            monkeypatch.setenv(f"{scheme}_proxy", proxy.url(way, STRANGERS[stranger]))
        check_ends_at_once(harness, origin.url(site), proxy.peer(way))

    @pytest.mark.parametrize("site", ["plain", "tls"])
    def test_whoever_does_not_tell_tinyproxy_a_password(
        self,
        site: str,
        guarded_tinyproxy: str,
        origin: Nginx,
        harness: Make,
        monkeypatch: pytest.MonkeyPatch,
    ) -> None:
        # Without TLS it does not read the body, so a reset directly follows its response.
        for scheme in ("http", "https"):
            monkeypatch.setenv(f"{scheme}_proxy", f"http://{guarded_tinyproxy}")
        check_ends_at_once(harness, origin.url(site), guarded_tinyproxy)

    @pytest.mark.parametrize("name", [USER, tinyproxy.USER])
    def test_who_tells_tinyproxy_a_wrong_password(
        self,
        name: str,
        guarded_tinyproxy: str,
        origin: Nginx,
        harness: Make,
        monkeypatch: pytest.MonkeyPatch,
    ) -> None:
        # It returns 401, which without TLS looks like a response of the server.
        monkeypatch.setenv("https_proxy", f"http://{name}:{WRONG}@{guarded_tinyproxy}")
        check_ends_at_once(harness, origin.url("tls"), guarded_tinyproxy)

    @pytest.mark.parametrize("scheme", ["http", "https"])
    def test_a_destination_that_squid_forbids(
        self, scheme: str, proxy: Squid, harness: Make, monkeypatch: pytest.MonkeyPatch
    ) -> None:
        monkeypatch.setenv(f"{scheme}_proxy", proxy.url())
        check_ends_at_once(harness, f"{scheme}://127.0.0.1:{proxy.refusing[403]}", proxy.peer())

    def test_a_destination_that_tinyproxy_forbids(
        self, tinyproxy_for_other_ports: str, origin: Nginx, harness: Make, monkeypatch: pytest.MonkeyPatch
    ) -> None:
        monkeypatch.setenv("https_proxy", f"http://{tinyproxy_for_other_ports}")
        check_ends_at_once(harness, origin.url("tls"), tinyproxy_for_other_ports)

    def test_a_refusal_of_the_server_is_none_of_the_proxy(
        self, proxy: Squid, origin: Nginx, monkeypatch: pytest.MonkeyPatch
    ) -> None:
        monkeypatch.setenv("http_proxy", proxy.url())
        status, headers, body = transport("POST", origin.url("forbidden"), {}, "{}")
        assert (status, body) == (403, b"origin")
        assert "Via" in headers


class TestThatMayComeRound:
    @pytest.mark.parametrize("status", [status for status in REFUSALS if status != 403])
    def test_an_answer_of_squid(
        self, status: int, proxy: Squid, harness: Make, monkeypatch: pytest.MonkeyPatch
    ) -> None:
        monkeypatch.setenv("https_proxy", proxy.url())
        url = f"https://127.0.0.1:{proxy.refusing[status]}"
        assert str(status) in str(check_gives_up(harness, url, proxy.peer()))

    def test_a_server_that_squid_does_not_reach(
        self, proxy: Squid, unused_port: int, harness: Make, monkeypatch: pytest.MonkeyPatch
    ) -> None:
        monkeypatch.setenv("https_proxy", proxy.url())
        check_gives_up(harness, f"https://127.0.0.1:{unused_port}", proxy.peer())

    @pytest.mark.parametrize("way", ["squid", "tinyproxy"])
    def test_a_server_that_neither_reaches_without_tls(
        self,
        way: str,
        proxy: Squid,
        open_tinyproxy: str,
        unused_port: int,
        harness: Make,
        monkeypatch: pytest.MonkeyPatch,
    ) -> None:
        monkeypatch.setenv("http_proxy", proxy.url() if way == "squid" else f"http://{open_tinyproxy}")
        unreachable(harness(f"http://127.0.0.1:{unused_port}"))

    def test_a_server_that_tinyproxy_does_not_reach(
        self, open_tinyproxy: str, unused_port: int, monkeypatch: pytest.MonkeyPatch
    ) -> None:
        # It returns 500, so it is unknown whether a retry would help.
        monkeypatch.setenv("https_proxy", f"http://{open_tinyproxy}")
        error = failed(f"https://127.0.0.1:{unused_port}", open_tinyproxy)
        assert isinstance(error, OSError)
        assert "500" in str(error)

    @pytest.mark.parametrize("scheme", ["http", "https"])
    @pytest.mark.parametrize("site", ["plain", "tls"])
    def test_one_that_is_not_there(
        self,
        site: str,
        scheme: str,
        unused_port: int,
        origin: Nginx,
        harness: Make,
        monkeypatch: pytest.MonkeyPatch,
    ) -> None:
        peer = f"127.0.0.1:{unused_port}"
        for name in ("http_proxy", "https_proxy"):
            monkeypatch.setenv(name, f"{scheme}://{USER}:{WRONG}@{peer}")
        assert type(check_gives_up(harness, origin.url(site), peer)) is ConnectionRefusedError


class TestThatCannotBeUsed:
    @pytest.mark.parametrize("site", ["plain", "tls"])
    @pytest.mark.parametrize("user", ["", f"{USER}:{WRONG}@"], ids=["nobody", "stranger"])
    def test_a_scheme_that_is_none_of_a_proxy(
        self, user: str, site: str, origin: Nginx, harness: Make, monkeypatch: pytest.MonkeyPatch
    ) -> None:
        for name in ("http_proxy", "https_proxy"):
            monkeypatch.setenv(name, f"ftp://{user}127.0.0.1:1")
        assert type(check_ends_at_once(harness, origin.url(site), "127.0.0.1:1")) is OSError

    @pytest.mark.parametrize("site", ["plain", "tls"])
    def test_a_certificate_that_nobody_trusts(
        self, site: str, proxy: Squid, origin: Nginx, harness: Make, monkeypatch: pytest.MonkeyPatch
    ) -> None:
        for name in ("http_proxy", "https_proxy"):
            monkeypatch.setenv(name, proxy.url("foreign-tls", f"{USER}:{WRONG}"))
        error = failed(origin.url(site), proxy.peer("foreign-tls"))
        assert type(error) is ssl.SSLCertVerificationError
        # As for a server: the CA is unknown, or the root is not trusted.
        assert error.verify_code in (19, 20)
        assert f"certificate of 127.0.0.1:{origin.port[site]}" not in str(error)
        one = harness(origin.url(site))
        assert type(one.failure(one.manager.authenticate)) is ssl.SSLCertVerificationError
        assert (one.spy.attempts, one.delays) == ({"register": 1}, [])

    @pytest.mark.parametrize("site", ["plain", "tls"])
    def test_tls_that_it_does_not_speak(
        self, site: str, proxy: Squid, origin: Nginx, monkeypatch: pytest.MonkeyPatch
    ) -> None:
        for name in ("http_proxy", "https_proxy"):
            monkeypatch.setenv(name, f"https://{proxy.peer()}")
        assert type(failed(origin.url(site), proxy.peer())) is ssl.SSLError

    def test_a_server_whose_certificate_nobody_trusts(
        self, proxy: Squid, origin: Nginx, monkeypatch: pytest.MonkeyPatch
    ) -> None:
        monkeypatch.setenv("https_proxy", proxy.url())
        server = origin.url("foreign").removeprefix("https://")
        error = failed(origin.url("foreign"), server)
        assert type(error) is ssl.SSLCertVerificationError
        assert proxy.peer() not in str(error)
