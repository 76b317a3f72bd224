"""Redirects, compared with Python's URL library on the same server."""

from __future__ import annotations

import json
from collections.abc import Callable
from typing import Any

import pytest

from devserver.testing import DevServer

from .raw import RawServer
from .reference import by_url_library, transport

Raw = Callable[..., RawServer]

STATUSES = [300, 301, 302, 303, 304, 305, 306, 307, 308, 309]
METHODS = ["GET", "HEAD", "POST", "PUT", "DELETE", "PATCH"]
# Headers that every client adds as it likes.
OWN_HEADERS = {"host", "user-agent", "accept", "accept-encoding", "connection"}


def redirect(server: DevServer, source: str, target: str, status: int = 302, **more: Any) -> None:
    server.faults(source, [{"kind": "redirect", "status": status, "location": target, "times": None, **more}])


def seen(server: DevServer) -> list[Any]:
    """The requests at the server since the last call: method, path, size of the body, headers."""
    told = [
        (
            entry["method"],
            entry["path"],
            entry["body_bytes"],
            sorted(set(entry["header_names"]) - OWN_HEADERS),
        )
        for entry in server.requests
    ]
    return told


def both(server: DevServer, *args: Any, set_up: Callable[[], None]) -> tuple[Any, Any]:
    """The status, body and requests of each client."""
    outcomes = []
    for client in (transport, by_url_library):
        server.reset()
        set_up()
        status, headers, body = client(*args)
        location = {name.lower(): value for name, value in headers.items()}.get("location")
        outcomes.append((status, location, without_own_headers(body), seen(server)))
    return outcomes[0], outcomes[1]


def without_own_headers(body: bytes) -> Any:
    if not body:
        return body
    told = json.loads(body)
    told["headers"] = sorted(pair for pair in told["headers"] if pair[0] not in OWN_HEADERS)
    return told


@pytest.mark.parametrize("status", STATUSES)
@pytest.mark.parametrize(
    ("method", "body"),
    [(method, None) for method in METHODS] + [(method, "{}") for method in METHODS[2:]],
)
def test_method_and_body(status: int, method: str, body: str | None, server: DevServer) -> None:
    headers = {"Content-Type": "application/json", "X-Own": "1", "Authorization": "Bearer x"}
    ours, theirs = both(
        server,
        method,
        server.url + "/_echo/from",
        headers,
        body,
        set_up=lambda: redirect(server, "/_echo/from", "/_echo/to", status),
    )
    assert ours == theirs
    followed = status in (301, 302, 303) and method in ("GET", "HEAD", "POST")
    followed |= status in (307, 308) and method in ("GET", "HEAD")
    assert ours[0] == (200 if followed else status)
    assert len(ours[3]) == 1 + followed
    if followed:
        assert ours[3][1][:3] == ("HEAD" if method == "HEAD" else "GET", "/_echo/to", 0)
        assert "content-type" not in ours[3][1][3]
        assert "authorization" in ours[3][1][3]


@pytest.mark.parametrize("status", [307, 308])
def test_a_post_that_must_keep_its_body_comes_back(status: int, server: DevServer) -> None:
    redirect(server, "/_echo/from", "/_echo/to", status)
    answered, headers, body = transport("POST", server.url + "/_echo/from", {}, "{}")
    assert (answered, headers["Location"], body) == (status, "/_echo/to", b"")


@pytest.mark.parametrize(
    "target",
    [
        "/_echo/to",
        "to",
        "./to",
        "../_echo/to",
        "?query=1",
        "/_echo/to?a=b#fragment",
        "#fragment",
        "/_echo/%7Eto/%2e",
        "/_echo/a/../to",
        "/_echo/a/./to",
    ],
)
def test_where_a_reference_leads(target: str, server: DevServer) -> None:
    ours, theirs = both(
        server,
        "GET",
        server.url + "/_echo/from",
        set_up=lambda: server.faults("/_echo/from", [{"kind": "redirect", "location": target, "times": 1}]),
    )
    assert ours == theirs
    assert ours[0] == 200
    assert len(ours[3]) == 2


def test_an_absolute_reference_and_one_without_scheme(server: DevServer) -> None:
    for start in (server.url, server.url.removeprefix("http:")):
        ours, theirs = both(
            server,
            "GET",
            server.url + "/_echo/from",
            set_up=lambda start=start: redirect(server, "/_echo/from", f"{start}/_echo/to"),  # type: ignore[misc]
        )
        assert ours == theirs
        assert ours[0] == 200


def test_a_redirect_without_a_place_comes_back(server: DevServer) -> None:
    ours, theirs = both(
        server,
        "GET",
        server.url + "/_echo/from",
        set_up=lambda: server.faults("/_echo/from", [{"kind": "empty_body", "status": 302}]),
    )
    assert ours == theirs
    assert (ours[0], len(ours[3])) == (302, 1)


def test_a_page_that_leads_to_itself(server: DevServer) -> None:
    ours, theirs = both(
        server, "GET", server.url + "/_echo/a", set_up=lambda: redirect(server, "/_echo/a", "/_echo/a")
    )
    assert ours == theirs
    assert ours[:2] == (302, "/_echo/a")
    assert len(ours[3]) > 1


@pytest.mark.parametrize("length", [2, 3, 4])
def test_a_circle_of_pages(length: int, server: DevServer) -> None:
    def set_up() -> None:
        for page in range(length):
            redirect(server, f"/_echo/{page}", f"/_echo/{(page + 1) % length}", 301)

    ours, theirs = both(server, "GET", server.url + "/_echo/0", set_up=set_up)
    assert ours == theirs
    assert ours[0] == 301


@pytest.mark.parametrize("length", [9, 10, 11, 12])
def test_a_chain_of_pages(length: int, server: DevServer) -> None:
    def set_up() -> None:
        for page in range(length):
            redirect(server, f"/_echo/{page}", f"/_echo/{page + 1}", 303)

    ours, theirs = both(server, "POST", server.url + "/_echo/0", {"Content-Type": "x/y"}, "{}", set_up=set_up)
    assert ours == theirs
    assert ours[0] == (200 if length <= 10 else 303)
    assert len(ours[3]) == min(length, 10) + 1


@pytest.mark.parametrize(
    "target", ["file:///etc/hostname", "ftp://127.0.0.1:1/x", "gopher://127.0.0.1:1/", "data:,x"]
)
def test_other_schemes_are_not_followed(target: str, server: DevServer) -> None:
    redirect(server, "/_echo/from", target)
    status, headers, _ = transport("GET", server.url + "/_echo/from")
    assert (status, headers["Location"]) == (302, target)
    assert len(server.requests) == 1


@pytest.mark.parametrize(
    "target", ["http://", "http://127.0.0.1:99999/", "http://[::1/", "http:///x", "http://%A2/"]
)
def test_places_that_cannot_be_reached_come_back(target: str, server: DevServer) -> None:
    redirect(server, "/_echo/from", target)
    assert transport("GET", server.url + "/_echo/from")[0] == 302
    assert len(server.requests) == 1


def test_encryption_is_not_given_up(server: DevServer, trusted: DevServer) -> None:
    target = server.url + "/_echo/to"
    redirect(trusted, "/_echo/from", target)
    status, headers, _ = transport("GET", trusted.url + "/_echo/from", {"Authorization": "Bearer x"})
    assert (status, headers["Location"]) == (302, target)
    assert server.requests == []


def test_encryption_may_begin(server: DevServer, trusted: DevServer) -> None:
    redirect(server, "/_echo/from", trusted.url + "/_echo/to")
    assert transport("GET", server.url + "/_echo/from")[0] == 200
    assert [entry["path"] for entry in trusted.requests] == ["/_echo/to"]


@pytest.mark.parametrize(
    "name", ["Authorization", "authorization", "AUTHORIZATION", "Cookie", "Proxy-Authorization"]
)
@pytest.mark.parametrize("change", ["port", "host", "scheme"])
def test_credentials_do_not_travel_to_another_origin(
    name: str, change: str, server: DevServer, trusted: DevServer, raw: Raw
) -> None:
    other = raw()
    target = {
        "port": f"{other.url}/to",
        "host": f"http://localhost:{server.port}/_echo/to",
        "scheme": f"{trusted.url}/_echo/to",
    }[change]
    redirect(server, "/_echo/from", target)
    headers = {name: "Bearer x", "X-Own": "1"}
    assert transport("GET", server.url + "/_echo/from", headers)[0] == 200
    if change == "port":
        names = {line.partition(":")[0].lower() for line in other.header_lines()}
    else:
        names = set((server if change == "host" else trusted).requests[-1]["header_names"])
    assert name.lower() not in names
    assert "x-own" in names


def test_credentials_do_not_come_back_with_a_detour(server: DevServer, raw: Raw) -> None:
    detour = raw(
        f"HTTP/1.1 302 Found\r\nLocation: {server.url}/_echo/to\r\nContent-Length: 0\r\n\r\n".encode()
    )
    redirect(server, "/_echo/from", detour.url)
    assert transport("GET", server.url + "/_echo/from", {"Authorization": "Bearer x"})[0] == 200
    assert "authorization" not in server.requests[-1]["header_names"]


def test_the_host_header_of_the_caller_stays_with_its_origin(server: DevServer, raw: Raw) -> None:
    other = raw()
    redirect(server, "/_echo/from", other.url + "/to")
    transport("GET", server.url + "/_echo/from", {"Host": "elsewhere.test"})
    assert f"Host: {other.peer}" in other.header_lines()


def test_the_headers_are_those_of_the_last_answer(server: DevServer) -> None:
    server.faults("/_echo/from", [{"kind": "redirect", "location": "/_echo/to"}])
    server.faults(
        "/_echo/to", [{"kind": "status", "status": 404, "headers": {"X-Last": "1"}, "body": "gone"}]
    )
    status, headers, body = transport("GET", server.url + "/_echo/from")
    assert (status, headers["X-Last"], body) == (404, "1", b"gone")
    assert "Location" not in headers


def test_the_body_of_a_redirect_that_comes_back(raw: Raw) -> None:
    server = raw(b"HTTP/1.1 307 Later\r\nLocation: /to\r\nContent-Length: 5\r\n\r\nlater")
    assert transport("POST", server.url, {}, "{}")[2] == b"later"
