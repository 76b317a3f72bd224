"""Request targets, byte for byte, as given and as resolved from references."""

from __future__ import annotations

from collections.abc import Callable
from urllib.parse import urljoin

import pytest

from .raw import OK, RawServer
from .reference import transport
from .tls_server import Serve

Raw = Callable[..., RawServer]

# What follows host and port in a URL, and the target that is sent.
TARGETS = {
    "": "/",
    "/": "/",
    "?q": "/?q",
    "?": "/?",
    "#frag": "/",
    "/#frag": "/",
    "/x?": "/x?",
    "/x?#frag": "/x?",
    "/x#frag?q": "/x",
    "/x?q#": "/x?q",
    "/a;b=c": "/a;b=c",
    "/;": "/;",
    "/%7Eto/%2e": "/%7Eto/%2e",
    "/%7eto": "/%7eto",
    "/~to/%2E%2E/": "/~to/%2E%2E/",
    "/%2f%2F%00%ff": "/%2f%2F%00%ff",
    "/%": "/%",
    "/%zz": "/%zz",
    "/a//b/./../c": "/a//b/./../c",
    "//a": "//a",
    "/..": "/..",
    "/../..": "/../..",
    "/.": "/.",
    "/./x?y=/../z": "/./x?y=/../z",
    "/a?b?c": "/a?b?c",
    "/a?http://x/": "/a?http://x/",
    "/(a)!$&'*+,:@=b|^`{}\"<>\\": "/(a)!$&'*+,:@=b|^`{}\"<>\\",
}

# The references of RFC 3986, section 5.4, to the same server, with its base.
BASE = "/b/c/d;p?q"
REFERENCES = [
    *("g", "./g", "g/", "/g", "?y", "g?y", "#s", "g#s", "g?y#s", ";x", "g;x", "g;x?y#s", "", ".", "./"),
    *("..", "../", "../g", "../..", "../../", "../../g", "../../../g", "../../../../g", "/./g", "/../g"),
    *("g.", ".g", "g..", "..g", "./../g", "./g/.", "g/./h", "g/../h", "g;x=1/./y", "g;x=1/../y"),
    *("g?y/./x", "g?y/../x", "g#s/./x", "g#s/../x"),
]


@pytest.mark.parametrize("given", TARGETS)
def test_as_given(given: str, raw: Raw) -> None:
    server = raw(OK, keep_alive=True)
    for which in range(2):
        assert transport("GET", server.url + given)[0] == 200
        assert server.request_line(which) == f"GET {TARGETS[given]} HTTP/1.1"
    assert server.connections == 1


def test_as_given_under_tls(secured: Serve) -> None:
    server = secured(keep_alive=True)
    for given, sent in TARGETS.items():
        assert transport("POST", server.url + given, {}, "{}")[0] == 200
        assert server.request_line() == f"POST {sent} HTTP/1.1"
    assert server.connections == 1


def redirect(target: str) -> bytes:
    return f"HTTP/1.1 302 Found\r\nLocation: {target}\r\nContent-Length: 0\r\n\r\n".encode()


def followed(raw: Raw, reference: str, base: str = BASE) -> tuple[RawServer, str]:
    """The server after a redirect from the base, and the target of that."""
    server = raw(redirect(reference), OK, keep_alive=True)
    assert transport("GET", server.url + base)[::2] == (200, b"ok")
    first, second = (server.request_line(which) for which in range(2))
    assert first == f"GET {base} HTTP/1.1"
    assert len(server.requests) == 2
    method, target, version = second.split(" ")
    assert (method, version) == ("GET", "HTTP/1.1")
    return server, target


@pytest.mark.parametrize("reference", REFERENCES)
def test_where_a_reference_leads(reference: str, raw: Raw) -> None:
    server, target = followed(raw, reference)
    wanted = urljoin(server.url + BASE, reference).partition("#")[0]
    assert server.url + target == wanted


@pytest.mark.parametrize("base", ["/", "", "/b/", "/b", "?q", "/b/c?d/e", "/%7Eto/%2e;x/y"])
@pytest.mark.parametrize("reference", ["g", "../g", "?y", "/g", "./g;x?y=%2f"])
def test_from_where_it_leads(base: str, reference: str, raw: Raw) -> None:
    server = raw(redirect(reference), OK)
    assert transport("GET", server.url + base)[0] == 200
    wanted = urljoin(server.url + base, reference).removeprefix(server.url)
    assert len(server.requests) == 2
    assert server.request_line() == f"GET {'' if wanted[0] == '/' else '/'}{wanted} HTTP/1.1"


@pytest.mark.parametrize(
    ("location", "sent"),
    [
        ("/%7Eto/%2e;x?y=%2f", "/%7Eto/%2e;x?y=%2f"),
        ("/%7eto/%2E%2e/", "/%7eto/%2E%2e/"),
        ("/x?", "/x?"),
        ("/x#frag", "/x"),
        ("/a?b/../c", "/a?b/../c"),
    ],
)
@pytest.mark.parametrize("absolute", [False, True])
def test_a_location_goes_out_as_it_came(location: str, sent: str, absolute: bool, raw: Raw) -> None:
    last = raw()
    first = raw(redirect(last.url + location if absolute else f"//{last.peer}{location}"))
    assert transport("GET", first.url + "/from")[0] == 200
    assert last.request_line() == f"GET {sent} HTTP/1.1"


@pytest.mark.parametrize("location", ["/%7Eto/%2e;x?y=%2f", "/%7eto", "/a;b=c"])
def test_a_location_at_the_same_place_goes_out_as_it_came(location: str, raw: Raw) -> None:
    assert followed(raw, location)[1] == location
