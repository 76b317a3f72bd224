"""The way to the server as a report tells it: its addresses, and what its certificate says."""

from __future__ import annotations

import base64
import http.client
import os
import re
import socket
import ssl
import threading
import time
from collections.abc import Iterable
from dataclasses import dataclass
from typing import Any, cast
from urllib.parse import urlsplit

from tessaline._check_proxy import Proxy, port_of

__all__ = ["Certificate", "Resolution", "Tls", "look_at_tls", "resolve"]

# As in the default transport, which looks there where Python's own places hold nothing.
_SYSTEM_FILES = (
    "/etc/ssl/certs/ca-certificates.crt",
    "/etc/pki/tls/certs/ca-bundle.crt",
    "/etc/pki/ca-trust/extracted/pem/tls-ca-bundle.pem",
    "/etc/ssl/ca-bundle.pem",
    "/etc/ssl/cert.pem",
)
_DAY = 86400.0
# The proxy chooses the words behind the status, and may repeat the credentials there.
_TUNNEL_FAILURE = re.compile(r"Tunnel connection failed: \d+")


@dataclass(frozen=True)
class Resolution:
    """What became of the server's name: its addresses, or an error; seconds that it took."""

    host: str
    addresses: tuple[str, ...]
    seconds: float
    error: str | None = None


@dataclass(frozen=True)
class Certificate:
    """A server's certificate, which is trusted: who issued it, and when it ends (Unix time, and in days)."""

    issuer: str
    not_after: float
    days_left: float


@dataclass(frozen=True)
class Tls:
    """What became of a TLS handshake; seconds from the first packet of the connection on."""

    version: str | None
    cipher: str | None
    certificate: Certificate | None
    seconds: float
    error: str | None = None


def resolve(url: str, timeout: float) -> Resolution:
    """Ask the system for the addresses of the server that a URL names, for `timeout` seconds at most."""
    server = urlsplit(url)
    host = server.hostname or ""
    found: list[tuple[str, ...] | OSError] = []

    def ask() -> None:
        try:
            asked = socket.getaddrinfo(host, port_of(server), type=socket.SOCK_STREAM)
            found.append(tuple(dict.fromkeys(str(address[0]) for *_, address in asked)))
        except (OSError, UnicodeError) as error:
            found.append(error if isinstance(error, OSError) else OSError("it cannot be a host's name"))

    started = time.monotonic()
    # The system's resolver cannot be told how long it may take.
    asker = threading.Thread(target=ask, name="tessaline-check", daemon=True)
    asker.start()
    asker.join(timeout)
    seconds = time.monotonic() - started
    if not found:
        return Resolution(host, (), seconds, f"no answer within {timeout:g} seconds")
    if isinstance(outcome := found[0], OSError):
        return Resolution(host, (), seconds, outcome.strerror or str(outcome))
    return Resolution(host, outcome, seconds)


def look_at_tls(url: str, proxy: Proxy | None, timeout: float, name: Resolution | None = None) -> Tls | None:
    """Make a TLS handshake with the server of an https URL, for `timeout` seconds at most.

    Returns:
        None for http. Nothing but an error where the name has no address, and behind a proxy through which
        Python's own client cannot go.
    """
    server = urlsplit(url)
    if server.scheme != "https":
        return None
    if name is not None and name.error is not None:
        return Tls(None, None, None, 0.0, "not looked at: the name has no address")
    if proxy is not None and proxy.scheme != "http":
        return Tls(
            None, None, None, 0.0, f"not looked at: behind a proxy of the kind {proxy.scheme or 'unknown'}"
        )
    host, port, started = server.hostname or "", port_of(server), time.monotonic()
    found: list[Tls] = []

    def look() -> None:
        try:
            found.append(_handshake(_connection(host, port, proxy, timeout), started))
        except Exception as error:  # of many kinds, and none of them ends the check
            found.append(Tls(None, None, None, time.monotonic() - started, _failure_text(error)))

    # A socket's time-out is for each of its bytes.
    looker = threading.Thread(target=look, name="tessaline-check", daemon=True)
    looker.start()
    looker.join(timeout)
    if not found:
        return Tls(None, None, None, time.monotonic() - started, f"no answer within {timeout:g} seconds")
    return found[0]


def _handshake(connection: http.client.HTTPSConnection, started: float) -> Tls:
    try:
        connection.connect()
        return _seen(cast("ssl.SSLSocket", connection.sock), started)
    finally:
        connection.close()


def _failure_text(error: Exception) -> str:
    if isinstance(error, ssl.SSLCertVerificationError):
        return error.verify_message
    if not isinstance(error, OSError):
        # What a proxy or the environment has said may be in its text.
        return type(error).__name__
    text = error.strerror or str(error) or type(error).__name__
    tunnel = _TUNNEL_FAILURE.match(text)
    return tunnel[0] if tunnel else text


def _connection(host: str, port: int, proxy: Proxy | None, timeout: float) -> http.client.HTTPSConnection:
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.set_alpn_protocols(["http/1.1"])
    # Without the strictness of ssl.create_default_context(), which the default transport does not have.
    context.verify_flags |= ssl.VERIFY_X509_PARTIAL_CHAIN
    context.load_default_certs()
    if (roots := _system_roots()) is not None:
        context.load_verify_locations(roots)
    if proxy is None:
        return http.client.HTTPSConnection(host, port, timeout=timeout, context=context)
    connection = http.client.HTTPSConnection(proxy.host, proxy.port, timeout=timeout, context=context)
    connection.set_tunnel(host, port, _proxy_headers(proxy))
    return connection


def _proxy_headers(proxy: Proxy) -> dict[str, str]:
    if proxy.user is None:
        return {}
    told = base64.b64encode(f"{proxy.user}:{proxy.password or ''}".encode(errors="surrogateescape")).decode()
    return {"Proxy-Authorization": f"Basic {told}"}


def _system_roots() -> str | None:
    paths = ssl.get_default_verify_paths()
    if os.environ.get("SSL_CERT_FILE") or os.environ.get("SSL_CERT_DIR") or paths.cafile:
        return None
    if paths.capath and os.listdir(paths.capath):
        return None
    return next((path for path in _SYSTEM_FILES if os.access(path, os.R_OK)), None)


def _seen(connection: ssl.SSLSocket, started: float) -> Tls:
    seconds = time.monotonic() - started
    cipher = connection.cipher()
    told = cast("dict[str, Any]", connection.getpeercert() or {})
    not_after = float(ssl.cert_time_to_seconds(told["notAfter"]))
    certificate = Certificate(_name(told["issuer"]), not_after, (not_after - time.time()) / _DAY)
    return Tls(connection.version(), cipher and cipher[0], certificate, seconds)


def _name(issuer: Iterable[Iterable[tuple[str, str]]]) -> str:
    parts = {name: value for attributes in issuer for name, value in attributes}
    known = [
        parts[name] for name in ("commonName", "organizationName", "organizationalUnitName") if name in parts
    ]
    return ", ".join(known) or ", ".join(parts.values())
