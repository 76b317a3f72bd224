"""TLS with nginx: each version, HTTP/2 on offer, resumption, a requested client certificate."""

from __future__ import annotations

from collections.abc import Callable, Iterator

import pytest

from devserver.testing import DevServer
from tests.integration.support import Harness
from tests.shared.threads import within

from .certificates import Authority, Certificate
from .nginx import Nginx, before, nginx
from .outcomes import log_in, transport
from .programs import free_ports

Make = Callable[..., Harness]

VERSIONS = ("TLSv1.2", "TLSv1.3")
ANSWER = "location / { return 200 good; }"
# So that each request makes a new connection.
SHORT = "keepalive_requests 1;"
NO_RESUMPTION = "ssl_session_tickets off; ssl_session_cache off;"


@pytest.fixture(scope="module")
def sites(http_process: DevServer, authority: Authority, certificate: Certificate) -> Iterator[Nginx]:
    behind = before(http_process.port)
    asked = f"ssl_verify_client on; ssl_client_certificate {authority.file};"
    made = {}
    for version in VERSIONS:
        only = f"ssl_protocols {version};"
        made[f"login-{version}"] = only + behind
        made[f"same-{version}"] = made[f"other-{version}"] = only + SHORT + ANSWER
        made[f"never-{version}"] = only + SHORT + NO_RESUMPTION + ANSWER
        made[f"client-{version}"] = only + asked + ANSWER
    with nginx(made, certificate) as running:
        yield running


@pytest.mark.parametrize("version", VERSIONS)
def test_a_server_of_one_version(version: str, sites: Nginx, server: DevServer, harness: Make) -> None:
    log_in(harness(sites.url(f"login-{version}")), 2)
    visits = sites.visits(f"login-{version}", 6)
    assert {(visit.tls, visit.protocol, visit.status) for visit in visits} == {(version, "HTTP/1.1", "200")}
    assert len({visit.connection for visit in visits}) == 1


@pytest.mark.parametrize("version", VERSIONS)
def test_the_next_connection_resumes_the_session(version: str, sites: Nginx) -> None:
    site = f"same-{version}"
    for _ in range(3):
        assert transport("GET", sites.url(site))[0] == 200
    visits = sites.visits(site, 3)
    assert len({visit.connection for visit in visits}) == 3
    assert [visit.resumed for visit in visits] == [".", "r", "r"]


@pytest.mark.parametrize("version", VERSIONS)
def test_another_thread_resumes_it_too(version: str, sites: Nginx) -> None:
    site = f"other-{version}"
    for _ in range(2):
        assert within(20.0, transport, "GET", sites.url(site))[0] == 200
    assert [visit.resumed for visit in sites.visits(site, 2)] == [".", "r"]


@pytest.mark.parametrize("version", VERSIONS)
def test_a_server_that_resumes_nothing(version: str, sites: Nginx) -> None:
    site = f"never-{version}"
    for _ in range(3):
        assert transport("GET", sites.url(site))[0] == 200
    assert [visit.resumed for visit in sites.visits(site, 3)] == [".", ".", "."]


@pytest.mark.parametrize("version", VERSIONS)
def test_a_server_that_forgot_its_ticket_keys(version: str, certificate: Certificate) -> None:
    site = {"again": f"ssl_protocols {version};" + ANSWER}
    ports = dict(zip(site, free_ports(1), strict=True))
    for _ in range(2):
        with nginx(site, certificate, ports=ports) as restarted:
            assert transport("GET", restarted.url("again"))[0] == 200
            assert [visit.resumed for visit in restarted.visits("again", 1)] == ["."]


@pytest.mark.parametrize("version", VERSIONS)
def test_a_server_that_wants_a_certificate_of_the_client(version: str, sites: Nginx) -> None:
    status, _, body = transport("POST", sites.url(f"client-{version}"), {}, "{}")
    assert status == 400
    assert b"No required SSL certificate was sent" in body


def test_a_server_that_would_rather_speak_http_2(
    server: DevServer, certificate: Certificate, harness: Make
) -> None:
    (port,) = free_ports(1)
    both = f"listen 127.0.0.1:{port} ssl http2;" + before(server.port)
    with nginx({"both": both}, certificate) as offering:
        log_in(harness(f"https://127.0.0.1:{port}"))
        visits = offering.visits("both", 3)
    assert {visit.protocol for visit in visits} == {"HTTP/1.1"}
