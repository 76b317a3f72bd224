"""Responses of nginx itself, and what it makes of the responses of the service behind it."""

from __future__ import annotations

import gzip
import json
import socket
import urllib.request
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

from devserver.testing import DevServer
from tests.integration.support import Harness, wire
from tests.shared.threads import until

from .certificates import Certificate
from .nginx import Nginx, before, nginx
from .outcomes import discreet, failure, log_in, transport, unreachable

Make = Callable[..., Harness]

SECRET = "s3cret-value-that-must-not-show"
LANDED = "location /landed { return 200 '$request_method $http_content_length.'; }"
# 30 KB in one line, in pieces because nginx limits the words of its configuration.
LARGE = f"set $piece '{'x' * 3000}'; add_header X-Large '{'$piece' * 10}';"
GZIP = "gzip on; gzip_min_length 1; gzip_types *; gzip_proxied any;"


@pytest.fixture(scope="module")
def silent_port() -> Iterator[int]:
    """One that accepts connections and never responds."""
    with socket.create_server(("127.0.0.1", 0), backlog=64) as listener:
        yield listener.getsockname()[1]


@pytest.fixture(scope="module")
def closed_port() -> Iterator[int]:
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        yield taken.getsockname()[1]


@pytest.fixture(scope="module")
def sites(
    http_process: DevServer, silent_port: int, closed_port: int, folder: Path, certificate: Certificate
) -> Iterator[Nginx]:
    (folder / "told.json.gz").write_bytes(gzip.compress(b'{"told": 1}'))
    port = http_process.port
    with nginx(
        {
            "redirects": LANDED
            + "".join(f"location /{code} {{ return {code} /landed; }}" for code in (301, 302, 303, 307, 308)),
            "small": "client_max_body_size 10;" + before(port),
            "502": before(closed_port),
            "504": before(silent_port, "proxy_read_timeout 100ms;"),
            "444": "location / { return 444; }",
            "gzip": GZIP + before(port),
            "gzipped": f"root {folder}; gzip_static always;",
            "behind": before(port),
            "large": before(port, LARGE),
            "unbuffered": before(port, "proxy_request_buffering off; proxy_buffering off;"),
            "twice": "keepalive_requests 2;" + before(port),
        },
        certificate,
    ) as running:
        yield running


@pytest.mark.parametrize("code", [301, 302, 303])
def test_a_redirect_of_a_post_becomes_a_get(code: int, sites: Nginx) -> None:
    status, _, body = transport("POST", sites.url("redirects") + f"/{code}", {}, "{}")
    assert (status, body) == (200, b"GET .")


@pytest.mark.parametrize("code", [307, 308])
def test_a_redirect_that_would_repeat_a_post_is_the_answer(code: int, sites: Nginx) -> None:
    status, headers, _ = transport("POST", sites.url("redirects") + f"/{code}", {}, "{}")
    assert (status, headers["Location"]) == (code, sites.url("redirects") + "/landed")


@pytest.mark.parametrize("code", [301, 302, 303, 307, 308])
def test_a_redirect_of_a_get_is_followed(code: int, sites: Nginx) -> None:
    assert transport("GET", sites.url("redirects") + f"/{code}")[::2] == (200, b"GET .")


@pytest.mark.parametrize("size", [100, 3_000_000])
def test_a_body_that_is_too_large(size: int, sites: Nginx) -> None:
    assert transport("POST", sites.url("small") + "/_echo", {}, "x" * size)[0] == 413


@pytest.mark.parametrize("code", [502, 504])
def test_a_service_that_is_away(code: int, sites: Nginx, harness: Make) -> None:
    assert transport("POST", sites.url(str(code)), {}, "{}")[0] == code
    assert unreachable(harness(sites.url(str(code)))).__context__ is None


def test_a_connection_that_is_closed_without_an_answer(sites: Nginx, harness: Make) -> None:
    error = failure("POST", f"{sites.url('444')}/{SECRET}", {"Authorization": SECRET}, SECRET)
    assert isinstance(discreet(error, [SECRET]), ConnectionError)
    assert f"127.0.0.1:{sites.port['444']}" in str(error)
    assert isinstance(unreachable(harness(sites.url("444"))).__context__, ConnectionError)


def test_compression_is_not_asked_for(sites: Nginx, server: DevServer, harness: Make) -> None:
    status, headers, body = transport("POST", sites.url("gzip") + "/_echo", {}, "{}")
    assert status == 200
    assert "content-encoding" not in {name.lower() for name in headers}
    assert "accept-encoding" not in {name.lower() for name, _ in json.loads(body)["headers"]}
    log_in(harness(sites.url("gzip")))


def test_what_comes_compressed_all_the_same_arrives_as_it_was_sent(sites: Nginx, folder: Path) -> None:
    status, headers, body = transport("GET", sites.url("gzipped") + "/told.json")
    assert (status, headers["Content-Encoding"]) == (200, "gzip")
    assert body == (folder / "told.json.gz").read_bytes()


def test_chunked_answers(sites: Nginx, server: DevServer, harness: Make) -> None:
    server.faults("*", [{"kind": "chunked", "times": None}])
    _, headers, _ = transport("POST", sites.url("behind") + "/_echo", {}, "{}")
    assert headers["Transfer-Encoding"] == "chunked"
    log_in(harness(sites.url("behind")))


def test_a_large_header(sites: Nginx, server: DevServer, harness: Make) -> None:
    assert transport("POST", sites.url("large") + "/_echo", {}, "{}")[1]["X-Large"] == "x" * 30_000
    log_in(harness(sites.url("large")))


def test_a_server_that_passes_on_what_it_has_so_far(sites: Nginx, server: DevServer, harness: Make) -> None:
    log_in(harness(sites.url("unbuffered")))


def test_connections_that_end_after_two_requests(sites: Nginx, server: DevServer, harness: Make) -> None:
    log_in(harness(sites.url("twice")), 10)
    visits = sites.visits("twice", 30)
    assert len(visits) == 30
    assert len({visit.connection for visit in visits}) == 15
    assert wire(server) == {"register": 10, "challenge": 10, "verify": 10}


def _connected(port: int) -> int:
    """How many connections nginx has, including that of this request."""
    with urllib.request.urlopen(f"http://127.0.0.1:{port}/", timeout=10) as answer:
        return int(answer.readline().rpartition(b":")[2])


def test_connections_that_end_when_they_are_idle(
    server: DevServer, certificate: Certificate, harness: Make
) -> None:
    made = {
        "brief": "keepalive_timeout 50ms;" + before(server.port),
        "status": "location / { stub_status; }",
    }
    with nginx(made, certificate, plain=["status"]) as running:
        one = harness(running.url("brief"))
        for _ in range(5):
            log_in(one)
            until(lambda: _connected(running.port["status"]) == 1, "the end of the connection")
        visits = running.visits("brief", 15)
    assert len(visits) == 15
    assert len({visit.connection for visit in visits}) >= 5
    assert wire(server) == {"register": 5, "challenge": 5, "verify": 5}
