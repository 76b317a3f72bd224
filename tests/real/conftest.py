"""Fixtures for third-party servers: a trusted CA, a service behind them, and by default no proxy.

Only `make real` installs those servers, so without it these tests are not even collected.
"""

from __future__ import annotations

import os
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest

from devserver.testing import DevServer
from tests.integration.support import Harness
from tests.shared.servers import http_process, server, unused_port

from .certificates import Authority, Certificate
from .nginx import Nginx, before, nginx
from .programs import own_folder
from .squid import Squid, squid
from .tinyproxy import tinyproxy

# Fixtures.
__all__ = ["http_process", "server", "unused_port"]

PROXY_VARIABLES = ("http_proxy", "https_proxy", "all_proxy", "no_proxy")


def pytest_ignore_collect(collection_path: Path) -> bool | None:
    # None leaves the choice to other plugins.
    return None if os.environ.get("TESSALINE_REAL") else True


def pytest_report_header() -> str | None:
    # Only for a run that names this folder.
    return None if os.environ.get("TESSALINE_REAL") else "tests/real: not collected, `make real` runs them"


@pytest.hookimpl(tryfirst=True)
def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    for item in items:
        if "tests/real" in item.path.as_posix():
            item.add_marker(pytest.mark.process)


@pytest.fixture(scope="package")
def folder() -> Iterator[Path]:
    """For certificates."""
    with own_folder() as made:
        yield made


@pytest.fixture(scope="package")
def authority(folder: Path) -> Authority:
    """The CA that the tests trust."""
    return Authority(folder, "trusted")


@pytest.fixture(scope="package")
def foreign(folder: Path) -> Authority:
    """A CA that is not trusted."""
    return Authority(folder, "foreign")


@pytest.fixture(scope="package")
def certificate(authority: Authority) -> Certificate:
    """A valid one, for the loopback."""
    return authority.certificate("good")


@pytest.fixture(scope="package")
def no_roots(folder: Path) -> Path:
    """A folder without certificates. One for all: sessions are not kept across a change of trust."""
    made = folder / "no-roots"
    made.mkdir()
    return made


@pytest.fixture(autouse=True)
def surroundings(authority: Authority, no_roots: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    """Only that CA is trusted, and there is no proxy."""
    monkeypatch.setenv("SSL_CERT_FILE", str(authority.file))
    monkeypatch.setenv("SSL_CERT_DIR", str(no_roots))
    for name in PROXY_VARIABLES:
        monkeypatch.delenv(name, raising=False)
        monkeypatch.delenv(name.upper(), raising=False)


@pytest.fixture
def harness() -> Iterator[Callable[..., Harness]]:
    """Makes managers whose back-off delays are only recorded, and closes them."""
    made: list[Harness] = []

    def make(url: str, **options: Any) -> Harness:
        made.append(Harness(url, **options))
        return made[-1]

    yield make
    for one in made:
        one.manager.close()


@pytest.fixture(scope="package")
def proxy(certificate: Certificate, foreign: Authority) -> Iterator[Squid]:
    """One Squid for all."""
    with squid(certificate, foreign.certificate("proxy")) as running:
        yield running


@pytest.fixture(scope="package")
def open_tinyproxy() -> Iterator[str]:
    """The host:port of one without authentication."""
    with tinyproxy() as peer:
        yield peer


@pytest.fixture(scope="package")
def origin(http_process: DevServer, certificate: Certificate, foreign: Authority) -> Iterator[Nginx]:
    """The servers: the service with and without TLS, and sites with fixed responses."""
    behind = before(http_process.port)
    untrusted = foreign.certificate("origin")
    sites = {
        "tls": behind,
        "plain": behind,
        "forbidden": "location / { return 403 origin; }",
        "told": "location / { return 200 told; }",
        "told-tls": "location / { return 200 told; }",
        "foreign": f"ssl_certificate {untrusted.chain}; ssl_certificate_key {untrusted.key};",
    }
    with nginx(sites, certificate, plain=["plain", "forbidden", "told"]) as running:
        yield running
