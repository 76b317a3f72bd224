"""Which hosts no_proxy exempts, observed at the proxy and at the server: one of the two gets the request."""

from __future__ import annotations

import contextlib
from collections.abc import Callable, Iterator

import pytest

from .raw import RawServer
from .reference import transport
from .tls_server import Serve
from .tunnel import tunnel_to

Raw = Callable[..., RawServer]

# Names of this machine: none of them is resolved elsewhere.
NAME = "example.localhost"


@pytest.fixture(scope="module")
def proxy() -> Iterator[RawServer]:
    server = RawServer(b"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nproxy")
    yield server
    server.stop()


@pytest.fixture(scope="module")
def origins() -> Iterator[dict[int, RawServer]]:
    """The server at the same name by either version of IP."""
    started = {4: RawServer()}
    with contextlib.suppress(OSError):
        started[6] = RawServer(host="::1")
    yield started
    for server in started.values():
        server.stop()


@pytest.fixture(autouse=True)
def through_the_proxy(proxy: RawServer, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("http_proxy", proxy.url)


def is_exempt(host: str, origins: dict[int, RawServer]) -> bool:
    """Whether a request to that host bypasses the proxy."""
    version = 6 if ":" in host else 4
    if version not in origins:
        pytest.skip("no IPv6 on this machine")
    status, _, body = transport("GET", f"http://{host}:{origins[version].port}/")
    assert (status, body) in ((200, b"ok"), (200, b"proxy"))
    return body == b"ok"


EXEMPT = [
    ("*", "127.0.0.1"),
    ("*", "localhost"),
    ("*", "[::1]"),
    # Names.
    ("localhost", "localhost"),
    (NAME, NAME),
    (NAME, f"www.{NAME}"),
    (NAME, f"a.b.{NAME}"),
    (f".{NAME}", NAME),
    (f".{NAME}", f"www.{NAME}"),
    (f"{NAME}.", NAME),
    (f"{NAME}.", f"www.{NAME}"),
    (f".{NAME}.", f"www.{NAME}"),
    (NAME.upper(), NAME),
    (NAME, NAME.upper()),
    (NAME.title(), f"WWW.{NAME.upper()}"),
    # Addresses.
    ("127.0.0.1", "127.0.0.1"),
    ("127.0.0.0/8", "127.0.0.1"),
    ("127.0.0.1/32", "127.0.0.1"),
    ("127.0.0.0/31", "127.0.0.1"),
    ("127.255.0.0/8", "127.0.0.1"),
    ("0.0.0.0/0", "127.0.0.1"),
    ("::1", "[::1]"),
    ("[::1]", "[::1]"),
    ("0:0:0:0:0:0:0:1", "[::1]"),
    ("::1/128", "[::1]"),
    ("::/64", "[::1]"),
    ("::/0", "[::1]"),
    # Ports.
    ("localhost:PORT", "localhost"),
    (f"{NAME}:PORT", f"www.{NAME}"),
    ("127.0.0.1:PORT", "127.0.0.1"),
    ("[::1]:PORT", "[::1]"),
    # Lists.
    ("a.test,localhost", "localhost"),
    ("localhost,a.test", "localhost"),
    ("a.test, localhost", "localhost"),
    ("a.test localhost", "localhost"),
    ("a.test\tlocalhost", "localhost"),
    ("  localhost  ", "localhost"),
    (",,localhost,,", "localhost"),
    (" , ,a.test ,\tlocalhost , ", "localhost"),
    (f"10.0.0.0/8,fe80::/10,127.0.0.0/8,{NAME}", "127.0.0.1"),
    (f"10.0.0.0/8,fe80::/10,127.0.0.0/8,{NAME}", f"www.{NAME}"),
    # Valid entries among invalid ones.
    (":,/,[,],[],.,..,/8,::/,127.0.0.1/x,127.0.0.1/33,[::1,localhost:x,localhost:,localhost", "localhost"),
    ("999.0.0.0/8,1.2.3/8,127.0.0.1", "127.0.0.1"),
    ("x" * 5000 + ",localhost", "localhost"),
]
NOT_EXEMPT = [
    ("", "127.0.0.1"),
    (" , ", "localhost"),
    # Names.
    ("a.test", "localhost"),
    (NAME, f"not{NAME}"),
    (f".{NAME}", f"not{NAME}"),
    (f"www.{NAME}", NAME),
    (NAME, f"{NAME}.localhost"),
    ("example", NAME),
    ("ocalhost", "localhost"),
    ("localhostx", "localhost"),
    ("localhos", "localhost"),
    # Addresses.
    ("127.0.0.2", "127.0.0.1"),
    ("0.0.1", "127.0.0.1"),
    (".0.0.1", "127.0.0.1"),
    ("127.0.0", "127.0.0.1"),
    ("10.0.0.0/8", "127.0.0.1"),
    ("127.0.0.2/32", "127.0.0.1"),
    ("127.0.0.2/31", "127.0.0.1"),
    ("127.0.0.0/8", "[::1]"),
    ("127.0.0.0/8", "localhost"),
    ("127.0.0.1", "localhost"),
    ("::2", "[::1]"),
    ("::2/128", "[::1]"),
    ("fe80::/10", "[::1]"),
    ("fe80::/10", "127.0.0.1"),
    ("::/0", "127.0.0.1"),
    ("0.0.0.0/0", "[::1]"),
    # Ports.
    ("localhost:OTHER", "localhost"),
    (f"{NAME}:OTHER", f"www.{NAME}"),
    ("127.0.0.1:OTHER", "127.0.0.1"),
    ("[::1]:OTHER", "[::1]"),
    # Invalid entries.
    (":,/,[,],[],.,..,/8,::/,[::1", "localhost"),
    ("127.0.0.1/x", "127.0.0.1"),
    ("127.0.0.1/33", "127.0.0.1"),
    ("127.0.0.1/-1", "127.0.0.1"),
    ("127.0.0.0/", "127.0.0.1"),
    ("/8", "127.0.0.1"),
    ("::1/129", "[::1]"),
    ("[::1", "[::1]"),
    ("localhost:x", "localhost"),
]


def entries(text: str, host: str, origins: dict[int, RawServer]) -> str:
    """The list with the server's port and another one inserted."""
    port = origins[6 if ":" in host and 6 in origins else 4].port
    return text.replace("PORT", str(port)).replace("OTHER", str(port - 1))


@pytest.mark.parametrize(("listed", "host"), EXEMPT)
def test_exempt(
    listed: str, host: str, origins: dict[int, RawServer], monkeypatch: pytest.MonkeyPatch
) -> None:
    assert not is_exempt(host, origins)
    monkeypatch.setenv("no_proxy", entries(listed, host, origins))
    assert is_exempt(host, origins)


@pytest.mark.parametrize(("listed", "host"), NOT_EXEMPT)
def test_not_exempt(
    listed: str, host: str, origins: dict[int, RawServer], monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setenv("no_proxy", entries(listed, host, origins))
    assert not is_exempt(host, origins)


@pytest.mark.parametrize("variable", ["no_proxy", "NO_PROXY"])
def test_either_variable(
    variable: str, origins: dict[int, RawServer], monkeypatch: pytest.MonkeyPatch
) -> None:
    for _ in range(2):
        monkeypatch.setenv(variable, f"a.test,{NAME}")
        assert is_exempt(f"www.{NAME}", origins)
        monkeypatch.setenv(variable, "a.test")
        assert not is_exempt(f"www.{NAME}", origins)


def test_small_letters_come_first(origins: dict[int, RawServer], monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("NO_PROXY", "*")
    monkeypatch.setenv("no_proxy", "a.test")
    assert not is_exempt("localhost", origins)


@pytest.mark.parametrize(
    ("listed", "exempt"),
    [
        ("a.test", False),
        ("localhost", True),
        ("*", True),
        ("localhost:PORT", True),
        ("localhost:OTHER", False),
    ],
)
def test_https(listed: str, exempt: bool, raw: Raw, secured: Serve, monkeypatch: pytest.MonkeyPatch) -> None:
    server = secured()
    tunnel = raw(tunnel_to(server.port))
    monkeypatch.setenv("https_proxy", tunnel.url)
    monkeypatch.setenv("no_proxy", entries(listed, "localhost", {4: server}))
    assert transport("GET", f"https://localhost:{server.port}/")[0] == 200
    assert tunnel.connections == (0 if exempt else 1)
