"""Rejected certificates and handshakes, each with the same error as in Python's own `ssl` module."""

from __future__ import annotations

import datetime
import re
import socket
import ssl
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest

from tests.integration.support import Harness

from .certificates import Authority, Certificate, self_signed
from .nginx import Nginx, nginx
from .outcomes import discreet, failure, transport

Make = Callable[..., Harness]

SECRET = "s3cret-value-that-must-not-show"
ANSWER = "location / { return 200 good; }"
NOW = datetime.datetime.now(datetime.UTC)
DAY = datetime.timedelta(days=1)

# The codes are OpenSSL's X509_V_ERR_*; for None, those of the `ssl` module are expected.
CODES: dict[str, int | None] = {
    "expired": 10,
    "early": 9,
    "misnamed": 64,
    "self-signed": 18,
    "orphaned": 20,
    "foreign": None,
}


def made(folder: Path, authority: Authority, foreign: Authority) -> dict[str, Certificate]:
    """A certificate for each flaw, and a valid one with an intermediate CA."""
    between = authority.ca.create_child_ca()
    leaf = between.issue_cert("127.0.0.1")
    whole = authority.write("whole", leaf)
    first = leaf.cert_chain_pems[0].bytes()
    return {
        "expired": authority.certificate("expired", not_before=NOW - 9 * DAY, not_after=NOW - DAY),
        "early": authority.certificate("early", not_before=NOW + DAY, not_after=NOW + 9 * DAY),
        "misnamed": authority.certificate("misnamed", "elsewhere.test", "127.0.0.9"),
        "self-signed": self_signed(folder),
        "orphaned": Certificate.written(folder, "orphaned", leaf.private_key_pem.bytes(), first),
        "foreign": foreign.certificate("leaf"),
        "whole": whole,
    }


@pytest.fixture(scope="module")
def sites(
    folder: Path, authority: Authority, foreign: Authority, certificate: Certificate
) -> Iterator[Nginx]:
    blocks = {
        name: f"ssl_certificate {one.chain}; ssl_certificate_key {one.key};" + ANSWER
        for name, one in made(folder, authority, foreign).items()
    }
    blocks["old"] = "ssl_protocols TLSv1 TLSv1.1; ssl_ciphers ALL:@SECLEVEL=0;" + ANSWER
    blocks["plain"] = ANSWER
    with nginx(blocks, certificate, plain=["plain"]) as running:
        yield running


def said_by_python(host: str, port: int, authority: Authority) -> ssl.SSLError:
    """The error with which the `ssl` module rejects the same server."""
    context = ssl.create_default_context(cafile=str(authority.file))
    context.minimum_version = ssl.TLSVersion.TLSv1_2
    with (
        socket.create_connection(("127.0.0.1", port), 20) as connection,
        pytest.raises(ssl.SSLError) as raised,
    ):
        context.wrap_socket(connection, server_hostname=host)
    return raised.value


def refused(host: str, port: int) -> Any:
    """The transport's error, after checks that apply to every TLS failure."""
    url = f"https://{host}:{port}"
    error = failure("POST", f"{url}/{SECRET}", {"Authorization": SECRET}, SECRET)
    assert isinstance(error, ssl.SSLError)
    discreet(error, [SECRET])
    assert error.errno == 1
    assert error.library == "SSL"
    assert error.strerror == str(error)
    assert f"{host}:{port}" in str(error)
    assert not str(error).startswith(("(", "["))
    return error


def bare(message: str) -> str:
    """OpenSSL's text: for a wrong name, Python adds that name after a comma."""
    return message.partition(",")[0].lower()


def check_certificate_error(error: Any, oracle: Any) -> None:
    assert type(error) is ssl.SSLCertVerificationError
    assert error.reason == oracle.reason == "CERTIFICATE_VERIFY_FAILED"
    assert type(error.verify_code) is int
    assert error.verify_code == oracle.verify_code
    assert bare(error.verify_message) == bare(oracle.verify_message)


@pytest.mark.parametrize("flaw", CODES)
def test_a_certificate_that_is_refused(flaw: str, sites: Nginx, authority: Authority) -> None:
    port = sites.port[flaw]
    oracle: Any = said_by_python("127.0.0.1", port, authority)
    assert CODES[flaw] in (None, oracle.verify_code)
    check_certificate_error(refused("127.0.0.1", port), oracle)


def test_a_certificate_for_another_name(sites: Nginx, authority: Authority) -> None:
    oracle: Any = said_by_python("localhost", sites.port["misnamed"], authority)
    assert oracle.verify_code == 62
    check_certificate_error(refused("localhost", sites.port["misnamed"]), oracle)


@pytest.mark.parametrize("flaw", CODES)
def test_a_login_is_not_tried_again(flaw: str, sites: Nginx, harness: Make) -> None:
    one = harness(sites.url(flaw))
    assert type(one.failure(one.manager.authenticate)) is ssl.SSLCertVerificationError
    assert (one.spy.attempts, one.delays) == ({"register": 1}, [])


def test_a_whole_chain_is_accepted(sites: Nginx) -> None:
    assert transport("GET", sites.url("whole"))[0] == 200


def test_a_server_of_an_old_version(sites: Nginx, authority: Authority) -> None:
    oracle = said_by_python("127.0.0.1", sites.port["old"], authority)
    error = refused("127.0.0.1", sites.port["old"])
    assert type(error) is type(oracle) is ssl.SSLError
    # An alert of the server, so that every client has the same error.
    assert error.reason == oracle.reason == "TLSV1_ALERT_PROTOCOL_VERSION"


def test_a_server_without_tls(sites: Nginx, authority: Authority) -> None:
    oracle = said_by_python("127.0.0.1", sites.port["plain"], authority)
    error = refused("127.0.0.1", sites.port["plain"])
    assert type(error) is type(oracle) is ssl.SSLError
    assert re.fullmatch("[A-Z0-9_]{4,}", error.reason)
