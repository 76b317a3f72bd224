"""The server's addresses and its certificate, for the report of a check."""

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

# As in the default transport, if Python's own locations have no certificates.
_SYSTEM_FILES = (
    "/etc/ssl/certs/ca-certificates.crt",
    "/etc/pki/tls/certs/ca-bundle.crt",
    "/etc/pki/ca-trust/extracted/pem/tls-ca-bundle.pem",
    "/etc/ssl/ca-bundle.pem",
    "/etc/ssl/cert.pem",
)
_DAY = 86400.0
# The proxy chooses the text after the status, which may repeat the credentials.
_TUNNEL_FAILURE = re.compile(r"Tunnel connection failed: \d+")


@dataclass(frozen=True)
class Resolution:
    """The result of resolving the server's name: its addresses, or an error; the seconds it took."""

    host: str
    addresses: tuple[str, ...]
    seconds: float
    error: str | None = None


@dataclass(frozen=True)
class Certificate:
    """A server's trusted certificate: its issuer and its expiry (Unix time, and in days)."""

    issuer: str
    not_after: float
    days_left: float


@dataclass(frozen=True)
class Tls:
    """The result of a TLS handshake; the seconds include the connection."""

    version: str | None
    cipher: str | None
    certificate: Certificate | None
    seconds: float
    error: str | None = None


def resolve(url: str, timeout: float) -> Resolution:
    """Resolve the host name of a URL, for at most `timeout` seconds."""
    server = urlsplit(url)
    host = server.hostname or ""
    found: list[tuple[str, ...] | OSError] = []

    def ask() -> None:
        try:
            asked = socket.getaddrinfo(host, port_of(server), type=socket.SOCK_STREAM)
            found.append(tuple(dict.fromkeys(str(address[0]) for *_, address in asked)))
        except (OSError, UnicodeError) as error:
            found.append(error if isinstance(error, OSError) else OSError("invalid host name"))

    started = time.monotonic()
    # The system's resolver has no time-out.
    thread = threading.Thread(target=ask, name="tessaline-check", daemon=True)
    thread.start()
    thread.join(timeout)
    seconds = time.monotonic() - started
    if not found:
        return Resolution(host, (), seconds, f"timed out after {timeout:g} seconds")
    if isinstance(outcome := found[0], OSError):
        return Resolution(host, (), seconds, outcome.strerror or str(outcome))
    return Resolution(host, outcome, seconds)


def look_at_tls(url: str, proxy: Proxy | None, timeout: float, name: Resolution | None = None) -> Tls | None:
    """Make a TLS handshake with the server of an https URL, for `timeout` seconds at most.

    Returns:
        None for http. Only an error if the name was not resolved, or for a proxy that Python's own client
        does not support.
    """
    server = urlsplit(url)
    if server.scheme != "https":
        return None
    if name is not None and name.error is not None:
        return Tls(None, None, None, 0.0, "skipped: the name was not resolved")
    if proxy is not None and proxy.scheme != "http":
        return Tls(None, None, None, 0.0, f"skipped: the proxy's type is {proxy.scheme or 'unknown'}")
    host, port, started = server.hostname or "", port_of(server), time.monotonic()
    found: list[Tls] = []

    def look() -> None:
        try:
            found.append(_handshake(_connection(host, port, proxy, timeout), started))
        except Exception as error:  # of many types, none of which ends the check
            found.append(Tls(None, None, None, time.monotonic() - started, _failure_text(error)))

    # A socket's time-out starts anew with each byte.
    thread = threading.Thread(target=look, name="tessaline-check", daemon=True)
    thread.start()
    thread.join(timeout)
    if not found:
        return Tls(None, None, None, time.monotonic() - started, f"timed out after {timeout:g} seconds")
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
        # Its text may quote a proxy or the environment.
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
    login = f"{proxy.user}:{proxy.password or ''}".encode(errors="surrogateescape")
    return {"Proxy-Authorization": f"Basic {base64.b64encode(login).decode()}"}


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
