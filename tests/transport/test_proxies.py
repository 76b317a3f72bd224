"""What a proxy receives of a request, and what the server behind it."""

from __future__ import annotations

import base64
from collections.abc import Callable

import pytest

from .proxies import PASSWORD, SERVER, USER, SetEnv, secretly
from .raw import RawServer
from .reference import transport
from .tls_server import Serve
from .tunnel import says, tunnel_to

Raw = Callable[..., RawServer]

SPOILT = "s3cret of: the/proxy@"
ESCAPED = "s3cret%20of%3a%20the%2Fproxy%40"


class TestGoesThrough:
    def test_a_tunnel_shows_the_proxy_nothing_but_the_host(
        self, either_raw: Raw, secured: Serve, setenv: SetEnv
    ) -> None:
        server = secured()
        proxy = either_raw(tunnel_to(server.port))
        setenv("https_proxy", secretly(proxy.url))
        for _ in range(2):
            assert transport("POST", f"{server.url}/way?query", {"X-Own": "1"}, "{}")[0] == 200
        for which in range(2):
            assert proxy.request_line(which) == f"CONNECT {server.peer} HTTP/1.1"
            assert not any(line.startswith("X-Own") for line in proxy.header_lines(which))
            assert server.request_line(which) == "POST /way?query HTTP/1.1"
            assert server.body(which) == b"{}"

    def test_a_tunnel_is_kept(self, raw: Raw, secured: Serve, setenv: SetEnv) -> None:
        server = secured(keep_alive=True)
        proxy = raw(tunnel_to(server.port))
        setenv("https_proxy", proxy.url)
        for _ in range(5):
            assert transport("GET", server.url)[0] == 200
        assert (proxy.connections, server.connections, len(server.requests)) == (1, 1, 5)

    def test_a_tunnel_is_not_for_those_who_ask_directly(
        self, raw: Raw, secured: Serve, monkeypatch: pytest.MonkeyPatch
    ) -> None:
        server = secured(keep_alive=True)
        proxy = raw(tunnel_to(server.port))
        for _ in range(3):
            monkeypatch.setenv("https_proxy", proxy.url)
            assert transport("GET", server.url)[0] == 200
            monkeypatch.delenv("https_proxy")
            assert transport("GET", server.url)[0] == 200
        assert (proxy.connections, server.connections, len(server.requests)) == (1, 2, 6)

    def test_a_tunnel_is_not_for_those_who_say_another_name(
        self, raw: Raw, secured: Serve, setenv: SetEnv
    ) -> None:
        server = secured(keep_alive=True)
        proxy = raw(tunnel_to(server.port))
        for name in ("one", "another"):
            setenv("https_proxy", f"http://{name}:{PASSWORD}@{proxy.peer}")
            assert transport("GET", server.url)[0] == 200
        assert (proxy.connections, server.connections) == (2, 2)

    @pytest.mark.parametrize(
        "url",
        [
            f"http://{SERVER}/",
            f"http://{SERVER}/a;b=c",
            f"http://{SERVER}/%7Eto/%2e;x?y=%2f",
            f"http://{SERVER}/%7eto",
            f"http://{SERVER}/a//b/./../c",
            f"http://{SERVER}/x?",
            "http://127.0.0.2/x",
            "http://127.0.0.2:80/x",
            "http://[::1]:9/x",
            "http://service.test/x",
            "http://SERVICE.test/x",
        ],
    )
    @pytest.mark.parametrize("fragment", ["", "#fragment"])
    def test_the_target_is_the_url_as_it_was_given(
        self, url: str, fragment: str, raw: Raw, setenv: SetEnv
    ) -> None:
        proxy = raw()
        setenv("http_proxy", proxy.url)
        assert transport("GET", url + fragment)[0] == 200
        assert proxy.request_line() == f"GET {url} HTTP/1.1"


class TestPassword:
    @staticmethod
    def told(server: RawServer, which: int = -1) -> list[str]:
        prefix = "proxy-authorization:"
        return [line for line in server.header_lines(which) if line.lower().startswith(prefix)]

    @staticmethod
    def wanted(password: str) -> list[str]:
        code = base64.b64encode(f"{USER}:{password}".encode()).decode()
        return [f"Proxy-Authorization: Basic {code}"]

    @pytest.mark.parametrize(("written", "meant"), [(PASSWORD, PASSWORD), (ESCAPED, SPOILT)])
    def test_of_a_plain_request(self, written: str, meant: str, raw: Raw, setenv: SetEnv) -> None:
        proxy = raw()
        setenv("http_proxy", f"http://{USER}:{written}@{proxy.peer}")
        assert transport("GET", f"http://{SERVER}/")[0] == 200
        assert self.told(proxy) == self.wanted(meant)
        assert PASSWORD not in proxy.request_line()

    @pytest.mark.parametrize(("written", "meant"), [(PASSWORD, PASSWORD), (ESCAPED, SPOILT)])
    def test_of_a_tunnel(self, written: str, meant: str, raw: Raw, secured: Serve, setenv: SetEnv) -> None:
        server = secured()
        proxy = raw(tunnel_to(server.port))
        setenv("https_proxy", f"http://{USER}:{written}@{proxy.peer}")
        assert transport("GET", server.url)[0] == 200
        assert self.told(proxy) == self.wanted(meant)
        assert self.told(server) == []

    def test_is_not_told_to_a_server_that_is_asked_directly(self, raw: Raw, setenv: SetEnv) -> None:
        server = raw()
        proxy = raw(says(302, f"Location: http://localhost:{server.port}/"))
        setenv("http_proxy", secretly(proxy.url))
        setenv("no_proxy", "localhost")
        assert transport("GET", f"http://{SERVER}/")[0] == 200
        assert self.told(proxy) == self.wanted(PASSWORD)
        assert self.told(server) == []
        assert len(server.requests) == 1

    def test_is_not_told_where_there_is_none(self, raw: Raw, setenv: SetEnv) -> None:
        proxy = raw()
        setenv("http_proxy", proxy.url)
        assert transport("GET", f"http://{SERVER}/")[0] == 200
        assert self.told(proxy) == []
