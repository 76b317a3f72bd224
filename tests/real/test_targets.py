"""Request targets arrive byte for byte as given, through any proxy."""

from __future__ import annotations

import pytest

from . import squid, tinyproxy
from .nginx import Nginx
from .outcomes import transport
from .squid import Squid

# What follows host and port in a URL, and the target that must arrive.
TARGETS = {
    "/a;b=c": "/a;b=c",
    "/%7Eto/%2e": "/%7Eto/%2e",
    "/~to/%2E%2e/": "/~to/%2E%2e/",
    "/a//b/../c?x=%20&y;z#frag": "/a//b/../c?x=%20&y;z",
    "?q": "/?q",
    "": "/",
    "/?": "/?",
    "/x/./../a/.": "/x/./../a/.",
    "/a?b?c/../d//e": "/a?b?c/../d//e",
    "/(a)!$&'*+,:@=b": "/(a)!$&'*+,:@=b",
}


SCHEMES = ("http", "https")


def arrived(scheme: str, host: str, target: str, origin: Nginx) -> tuple[str, str]:
    """The client of that target, and its request line."""
    site = "told" if scheme == "http" else "told-tls"
    so_far = len(origin.visits(site, 0))
    assert transport("POST", origin.url(site, host) + target, {}, "{}")[::2] == (200, b"told")
    (visit,) = origin.visits(site, so_far + 1)[so_far:]
    return visit.client, visit.line


@pytest.mark.parametrize("scheme", SCHEMES)
@pytest.mark.parametrize("target", TARGETS)
def test_directly(target: str, scheme: str, origin: Nginx) -> None:
    wanted = "127.0.0.1", f"POST {TARGETS[target]} HTTP/1.1"
    assert arrived(scheme, "127.0.0.1", target, origin) == wanted


@pytest.mark.parametrize("scheme", SCHEMES)
@pytest.mark.parametrize("target", TARGETS)
def test_through_squid(
    target: str, scheme: str, origin: Nginx, proxy: Squid, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setenv(f"{scheme}_proxy", proxy.url())
    wanted = squid.CLIENT, f"POST {TARGETS[target]} HTTP/1.1"
    assert arrived(scheme, squid.NAME, target, origin) == wanted


@pytest.mark.parametrize("scheme", SCHEMES)
@pytest.mark.parametrize("target", TARGETS)
def test_through_tinyproxy(
    target: str, scheme: str, origin: Nginx, open_tinyproxy: str, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setenv(f"{scheme}_proxy", f"http://{open_tinyproxy}")
    wanted = tinyproxy.CLIENT, f"POST {TARGETS[target]} HTTP/1.1"
    assert arrived(scheme, "127.0.0.1", target, origin) == wanted
