"""HAProxy in front of the service: it terminates TLS, closes idle connections, responds during an outage."""

from __future__ import annotations

import ssl
import urllib.request
from collections.abc import Callable, Iterator

import pytest

from devserver.testing import DevServer
from tests.integration.support import Harness, wire
from tests.shared.threads import until

from .certificates import Authority, Certificate
from .outcomes import discreet, failure, log_in, transport, unreachable
from .programs import free_ports, own_folder, running

Make = Callable[..., Harness]

SECRET = "s3cret-value-that-must-not-show"
VERSIONS = ("TLSv1.2", "TLSv1.3")
DEFAULTS = """
defaults
  mode http
  timeout connect 5s
  timeout client 20s
  timeout server 20s
"""


@pytest.fixture(scope="module")
def ports(
    http_process: DevServer, authority: Authority, certificate: Certificate
) -> Iterator[dict[str, int]]:
    """Where each front end listens. "brief-connections" returns how many connections "brief" has."""
    wanted = f"verify required ca-file {authority.file}"
    fronts = {
        "plain": ("", "default_backend service"),
        "tls": ("ssl", "default_backend service"),
        "brief": ("ssl", "timeout http-keep-alive 50ms\n  default_backend service"),
        "away": ("ssl", "default_backend away"),
        "busy": ("ssl", "http-request deny deny_status 429 hdr Retry-After 7"),
        "brief-connections": (
            "",
            "http-request return status 200 content-type text/plain lf-string %[fe_conn(brief)]",
        ),
        **{
            f"client-{version}": (
                f"ssl {wanted} ssl-min-ver {version} ssl-max-ver {version}",
                "default_backend service",
            )
            for version in VERSIONS
        },
    }
    port = dict(zip(fronts, free_ports(len(fronts)), strict=True))
    text = DEFAULTS
    for name, (bind, rules) in fronts.items():
        tls = bind.replace("ssl", f"ssl crt {certificate.both}", 1)
        text += f"frontend {name}\n  bind 127.0.0.1:{port[name]} {tls}\n  {rules}\n"
    text += f"backend service\n  server one 127.0.0.1:{http_process.port}\n"
    text += f"backend away\n  server one 127.0.0.1:{http_process.port} disabled\n"
    with own_folder() as folder:
        (folder / "haproxy.cfg").write_text(text)
        with running(["haproxy", "-db", "-q", "-f", folder / "haproxy.cfg"], folder, list(port.values())):
            yield port


def at(ports: dict[str, int], name: str) -> str:
    return f"{'http' if name == 'plain' else 'https'}://127.0.0.1:{ports[name]}"


@pytest.mark.parametrize("name", ["plain", "tls"])
def test_logins(name: str, ports: dict[str, int], server: DevServer, harness: Make) -> None:
    log_in(harness(at(ports, name)), 5)
    assert wire(server) == {"register": 5, "challenge": 5, "verify": 5}


def connected(ports: dict[str, int]) -> int:
    address = f"http://127.0.0.1:{ports['brief-connections']}/"
    with urllib.request.urlopen(address, timeout=10) as answer:
        return int(answer.read())


def test_connections_that_end_when_they_are_idle(
    ports: dict[str, int], server: DevServer, harness: Make
) -> None:
    one = harness(at(ports, "brief"))
    for _ in range(5):
        log_in(one)
        until(lambda: connected(ports) == 0, "the end of the connection")
    assert wire(server) == {"register": 5, "challenge": 5, "verify": 5}


def test_no_service_behind_it(ports: dict[str, int], harness: Make) -> None:
    assert transport("POST", at(ports, "away"), {}, "{}")[0] == 503
    unreachable(harness(at(ports, "away")))


def test_a_refusal_that_says_how_long_to_wait(ports: dict[str, int], harness: Make) -> None:
    status, headers, _ = transport("POST", at(ports, "busy"), {}, "{}")
    lower = {name.lower(): value for name, value in headers.items()}
    assert (status, lower["retry-after"]) == (429, "7")
    unreachable(harness(at(ports, "busy")), (7, 7))


@pytest.mark.parametrize("version", VERSIONS)
def test_a_handshake_without_the_certificate_that_it_requires(
    version: str, ports: dict[str, int], harness: Make
) -> None:
    url = at(ports, f"client-{version}")
    error = discreet(failure("POST", f"{url}/{SECRET}", {"Authorization": SECRET}, SECRET), [SECRET])
    assert type(error) is ssl.SSLError
    assert url.removeprefix("https://") in str(error)
    assert type(harness(url).failure(harness(url).manager.authenticate)) is ssl.SSLError
