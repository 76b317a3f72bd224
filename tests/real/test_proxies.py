"""Logins through Squid and Tinyproxy, configured by the environment."""

from __future__ import annotations

import functools
from collections.abc import Callable, Iterator
from typing import NamedTuple

import pytest

import canary
from devserver.testing import DevServer
from tests.integration.support import Harness, wire

from . import squid, tinyproxy
from .nginx import Nginx
from .outcomes import log_in
from .squid import Squid

Make = Callable[..., Harness]
Clients = Callable[..., list[str]]


class Way(NamedTuple):
    """url: the proxy's, with its user. client: its address towards servers."""

    url: str
    client: str


@pytest.fixture(scope="module")
def ways(proxy: Squid, open_tinyproxy: str) -> Iterator[dict[str, Way]]:
    for password in (squid.PASSWORD, squid.ESCAPED, tinyproxy.PASSWORD):
        canary.plant("password", password)
    user = f"{squid.USER}:{squid.ESCAPED}"
    with tinyproxy.tinyproxy(f"BasicAuth {tinyproxy.USER} {tinyproxy.PASSWORD}") as guarded:
        yield {
            "squid": Way(proxy.url(), squid.CLIENT),
            "squid with a password": Way(proxy.url("guarded", user), squid.CLIENT),
            "squid over TLS": Way(proxy.url("tls"), squid.CLIENT),
            "squid over TLS with a password": Way(proxy.url("guarded-tls", user), squid.CLIENT),
            "tinyproxy": Way(f"http://{open_tinyproxy}", tinyproxy.CLIENT),
            "tinyproxy with a password": Way(
                f"http://{tinyproxy.USER}:{tinyproxy.PASSWORD}@{guarded}", tinyproxy.CLIENT
            ),
            "without a scheme": Way(open_tinyproxy, tinyproxy.CLIENT),
        }


WAYS = (
    "squid",
    "squid with a password",
    "squid over TLS",
    "squid over TLS with a password",
    "tinyproxy",
    "tinyproxy with a password",
    "without a scheme",
)


@pytest.fixture
def clients(origin: Nginx, server: DevServer, harness: Make) -> Clients:
    """Logs in twice at that site, by the same manager each time, and returns the clients of the requests."""
    manager = functools.cache(harness)

    def ask(site: str, *name: str) -> list[str]:
        so_far = len(origin.visits(site, 0))
        log_in(manager(origin.url(site, *name)), 2)
        return [visit.client for visit in origin.visits(site, so_far + 6)[so_far:]]

    return ask


@pytest.mark.parametrize("site", ["plain", "tls"])
@pytest.mark.parametrize("way", WAYS)
def test_logins(
    way: str,
    site: str,
    ways: dict[str, Way],
    clients: Clients,
    server: DevServer,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    monkeypatch.setenv("http_proxy" if site == "plain" else "https_proxy", ways[way].url)
    assert clients(site) == [ways[way].client] * 6
    assert wire(server) == {"register": 2, "challenge": 2, "verify": 2}


@pytest.mark.parametrize("way", ["squid", "squid over TLS"])
def test_a_name_that_the_proxy_alone_knows(
    way: str, ways: dict[str, Way], clients: Clients, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setenv("https_proxy", ways[way].url)
    assert clients("tls", squid.NAME) == [squid.CLIENT] * 6


@pytest.mark.parametrize("site", ["plain", "tls"])
def test_both_schemes_at_once(
    site: str, ways: dict[str, Way], clients: Clients, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setenv("all_proxy", ways["tinyproxy"].url)
    assert clients(site) == [tinyproxy.CLIENT] * 6


@pytest.mark.parametrize("site", ["plain", "tls"])
@pytest.mark.parametrize("exempt", ["127.0.0.1", "elsewhere.test,127.0.0.1", "*"])
def test_a_host_that_is_exempt(
    exempt: str, site: str, ways: dict[str, Way], clients: Clients, monkeypatch: pytest.MonkeyPatch
) -> None:
    for scheme in ("http", "https"):
        monkeypatch.setenv(f"{scheme}_proxy", ways["squid"].url)
    monkeypatch.setenv("no_proxy", exempt)
    assert clients(site) == ["127.0.0.1"] * 6


def test_proxies_that_change_while_the_program_runs(
    ways: dict[str, Way], clients: Clients, monkeypatch: pytest.MonkeyPatch
) -> None:
    for way in ("squid", "tinyproxy", "squid with a password"):
        monkeypatch.setenv("https_proxy", ways[way].url)
        assert clients("tls") == [ways[way].client] * 6
    monkeypatch.delenv("https_proxy")
    assert clients("tls") == ["127.0.0.1"] * 6
