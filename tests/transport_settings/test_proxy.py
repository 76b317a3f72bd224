"""The proxy of one transport, independent of the environment, or none."""

from __future__ import annotations

import base64
from collections.abc import Callable

import pytest

from tessaline import http
from tests.transport.proxies import PASSWORD, SERVER, USER, SetEnv, by_proxy, secretly
from tests.transport.raw import RawServer
from tests.transport.tls_server import Serve
from tests.transport.tunnel import says, tunnel_to

from .readings import failure, notes

Raw = Callable[..., RawServer]

NOTE = "the request went through the proxy that the transport was given"
# Each of these may be unescaped in a URL's user and password.
UNESCAPED = "azAZ09-._~!$&'()*+,;="


def credentials(server: RawServer) -> list[str]:
    lines = [line for line in server.header_lines() if line.lower().startswith("proxy-authorization:")]
    return [base64.b64decode(line.rpartition(" ")[2]).decode() for line in lines]


def discreet(error: BaseException) -> BaseException:
    text = "".join(map(str, (error, repr(error), error.args, vars(error), error.__context__)))
    if PASSWORD in text or USER in text:
        raise AssertionError("an error shows who asks")
    return error


def test_http_goes_through_it(raw: Raw) -> None:
    proxy = raw()
    transport = http.transport(proxy=proxy.url)
    assert transport("GET", f"http://{SERVER}/a?b")[0] == 200
    assert proxy.request_line() == f"GET http://{SERVER}/a?b HTTP/1.1"


def test_https_goes_through_it(raw: Raw, secured: Serve) -> None:
    server = secured()
    proxy = raw(tunnel_to(server.port))
    transport = http.transport(proxy=proxy.url)
    assert transport("POST", f"{server.url}/a", headers={"X-Own": "1"}, body="{}")[0] == 200
    assert proxy.request_line() == f"CONNECT {server.peer} HTTP/1.1"
    assert not any(line.startswith("X-Own") for line in proxy.header_lines())
    assert server.body() == b"{}"


@pytest.mark.parametrize("variable", ["http_proxy", "all_proxy", "ALL_PROXY"])
def test_the_environment_has_no_say(variable: str, raw: Raw, setenv: SetEnv) -> None:
    proxy, unwanted = raw(), raw()
    setenv(variable, unwanted.url)
    setenv("no_proxy", "*")
    assert http.transport(proxy=proxy.url)("GET", f"http://{SERVER}/")[0] == 200
    assert (len(proxy.requests), unwanted.connections) == (1, 0)


@pytest.mark.parametrize("variable", ["http_proxy", "all_proxy", "ALL_PROXY"])
def test_none_at_all(variable: str, raw: Raw, setenv: SetEnv) -> None:
    server, unwanted = raw(), raw()
    setenv(variable, unwanted.url)
    assert http.transport(proxy="")("GET", server.url)[0] == 200
    assert (len(server.requests), unwanted.connections) == (1, 0)


def test_without_it_the_environment_counts_at_each_request(
    raw: Raw, monkeypatch: pytest.MonkeyPatch, unused_port: int
) -> None:
    server, proxy = raw(), raw()
    transport = http.transport()
    assert transport("GET", server.url)[0] == 200
    monkeypatch.setenv("http_proxy", proxy.url)
    assert transport("GET", server.url)[0] == 200
    monkeypatch.setenv("no_proxy", "127.0.0.1")
    assert transport("GET", server.url)[0] == 200
    assert (len(server.requests), len(proxy.requests)) == (2, 1)
    monkeypatch.delenv("no_proxy")
    monkeypatch.setenv("http_proxy", f"http://127.0.0.1:{unused_port}")
    assert by_proxy("http_proxy") in notes(failure(transport, "GET", server.url))


def test_transports_keep_to_their_own_connections(raw: Raw) -> None:
    server = raw(keep_alive=True)
    transports = [http.transport(proxy=proxy) for proxy in ("", server.url, secretly(server.url))]
    for _ in range(3):
        for transport in transports:
            assert transport("GET", server.url)[0] == 200
    assert (len(server.requests), server.connections) == (9, 3)


@pytest.mark.parametrize("scheme", ["", "http://", "HTTP://"])
@pytest.mark.parametrize("host", ["127.0.0.1", "localhost"])
@pytest.mark.parametrize("end", ["", "/"])
def test_ways_to_write_it(scheme: str, host: str, end: str, raw: Raw) -> None:
    proxy = raw()
    transport = http.transport(proxy=f"{scheme}{host}:{proxy.port}{end}")
    assert transport("GET", f"http://{SERVER}/")[0] == 200
    assert len(proxy.requests) == 1


@pytest.mark.parametrize(
    ("written", "meant"),
    [
        (f"{USER}:{PASSWORD}", f"{USER}:{PASSWORD}"),
        (f"{USER}:s3cret%20of%3a%20the%2Fproxy%40", f"{USER}:s3cret of: the/proxy@"),
        (f"{UNESCAPED}:{UNESCAPED}:", f"{UNESCAPED}:{UNESCAPED}:"),
        ("caf%C3%A9:%7f", "caf\xe9:\x7f"),
        (USER, f"{USER}:"),
        (f":{PASSWORD}", f":{PASSWORD}"),
    ],
)
def test_user_and_password(written: str, meant: str, raw: Raw) -> None:
    proxy = raw()
    assert http.transport(proxy=f"http://{written}@{proxy.peer}")("GET", f"http://{SERVER}/")[0] == 200
    assert credentials(proxy) == [meant]


@pytest.mark.parametrize("scheme", ["http", "https", "socks4", "socks4a", "socks5", "socks5h"])
@pytest.mark.parametrize("host", ["127.0.0.1", "localhost", "[::1]", "a_b.localhost"])
@pytest.mark.parametrize("user", ["", f"{USER}:{PASSWORD}@", "@"], ids=["nobody", "somebody", "empty"])
def test_the_client_understands_what_is_taken(scheme: str, host: str, user: str, unused_port: int) -> None:
    transport = http.transport(proxy=f"{scheme}://{user}{host}:{unused_port}", timeout=10.0)
    error = discreet(failure(transport, "GET", f"http://{SERVER}/"))
    assert isinstance(error, ConnectionError)
    assert f"proxy {host}:{unused_port} for {SERVER}" in str(error)
    assert NOTE in notes(error)


@pytest.mark.parametrize("url", [f"http://{SERVER}/", f"https://{SERVER}/"])
@pytest.mark.parametrize(("status", "kind"), [(407, OSError), (503, ConnectionError)])
def test_one_that_refuses(url: str, status: int, kind: type[OSError], raw: Raw, setenv: SetEnv) -> None:
    proxy = raw(says(status, "Proxy-Status: p; error=destination_unavailable"))
    setenv("http_proxy", "http://127.0.0.1:9")
    setenv("https_proxy", "http://127.0.0.1:9")
    error = discreet(failure(http.transport(proxy=secretly(proxy.url)), "GET", url))
    assert type(error) is kind
    assert str(error) == f"proxy {proxy.peer} for {SERVER} answered {status}"
    assert notes(error)[-1] == NOTE
    assert len(notes(error)) == 2


def test_a_failure_of_the_server_does_not_blame_it(raw: Raw) -> None:
    proxy = raw(says(302, "Location: http://nowhere.test:99999/"))
    assert http.transport(proxy=proxy.url)("GET", f"http://{SERVER}/")[0] == 302
    assert NOTE not in notes(failure(http.transport(proxy=""), "GET", "http://127.255.255.255:9/"))
