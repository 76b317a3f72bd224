"""Server URLs: for what the policy accepts, both URL parsers name the same server, and http stays local."""

from __future__ import annotations

import ipaddress
import urllib.parse
from urllib.parse import urlsplit

from tessaline import _transport_security, auth

from ..hosted import load_rooms, outcome, text_of

TRACED = (_transport_security, urllib.parse, ipaddress)

rooms = load_rooms()


def one_input(data: bytes) -> None:
    text = text_of(data)
    got = outcome(auth._validate_server_url, text)
    by_policy = outcome(_transport_security.validate_bearer_transport_url, text)
    if isinstance(got, Exception):
        check_refusal(got, text, by_policy)
        return
    assert got == text == by_policy
    check_accepted(text)


def check_refusal(refusal: Exception, text: str, by_policy: object) -> None:
    assert isinstance(refusal, ValueError), repr(refusal)
    assert isinstance(by_policy, ValueError), text
    if not str(refusal).startswith("server_url is not a valid URL: "):
        assert not text or type(refusal) is ValueError


def check_accepted(text: str) -> None:
    parts = urlsplit(text)
    read = rooms.parse_url(text)
    assert read is not None, "accepted, but no request can be sent to it"
    sent, scheme, host, port = read
    assert sent == text
    assert scheme == parts.scheme
    assert host.strip("[]") == spelt_as_by_the_client(parts.hostname or "")
    assert int(port) == (parts.port or {"http": 80, "https": 443}[scheme])
    assert not (parts.username or parts.password or parts.query or parts.fragment)
    if scheme == "http":
        assert is_this_machine(host)


def spelt_as_by_the_client(host: str) -> str:
    """The client normalises an IPv6 address to its shortest form."""
    try:
        return str(ipaddress.IPv6Address(host)) if ":" in host else host
    except ValueError:
        return host


def is_this_machine(host: str) -> bool:
    if host == "localhost" or host.endswith(".localhost"):
        return True
    return ipaddress.ip_address(host.strip("[]")).is_loopback
