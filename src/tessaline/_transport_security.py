"""Which URLs may carry a bearer token."""

from __future__ import annotations

import ipaddress
import re
from urllib.parse import SplitResult, urlsplit

__all__ = ["validate_bearer_transport_url"]

_BLANK_OR_CONTROL = re.compile(r"[\s\x00-\x20\x7f-\xa0]")
_LABEL = re.compile(r"(?!-)[a-z0-9_-]{1,63}(?<!-)", re.IGNORECASE)
_BRACKETED = re.compile(r"\[[^\[\]]*\](?::[^\[\]]*)?")
_LONGEST_NAME = 253


def validate_bearer_transport_url(url: str) -> str:
    """Check that a URL is fit to carry a bearer token and return it as given.

    Allowed are https to any host, and http to this machine only (`localhost`, `*.localhost`, 127.0.0.0/8,
    `::1`).

    Args:
        url: Absolute URL of a server; a path is allowed.

    Returns:
        The same text.

    Raises:
        ValueError: Another scheme, no or a malformed host, a bad port, user info, query, fragment, spaces,
            control characters or non-ASCII characters, or http to another machine. The message shows no
            credentials.
    """
    if _BLANK_OR_CONTROL.search(url) or not url.isascii():
        raise ValueError("server URL must not contain spaces, control characters or characters outside ASCII")
    if "\\" in url:
        raise ValueError("server URL must not contain a backslash")
    parts = _split(url)
    if parts.scheme not in ("http", "https"):
        raise ValueError("server URL must use https, or http to this machine")
    if "@" in parts.netloc:
        raise ValueError("server URL must not contain user info")
    # The parts do not show an empty query or fragment.
    if "?" in url:
        raise ValueError("server URL must not contain a query")
    if "#" in url:
        raise ValueError("server URL must not contain a fragment")
    host = _host(parts)
    _check_port(parts)
    if parts.scheme == "http" and not _is_loopback(host):
        raise ValueError(f"server URL must use https: {host} is not this machine")
    return url


def _split(url: str) -> SplitResult:
    try:
        return urlsplit(url)
    except ValueError:
        pass
    # Raised outside the handler: the parser's own message may show user info.
    raise ValueError("server URL has a malformed host")


def _host(parts: SplitResult) -> str:
    host = parts.hostname or ""
    if "[" in parts.netloc or "]" in parts.netloc:
        # The parser takes the host from the brackets, wherever they are.
        bracketed = _BRACKETED.fullmatch(parts.netloc) is not None
        valid = bracketed and "%" not in host and _address(host) is not None
    elif ":" in host or _looks_numeric(host):
        valid = _address(host) is not None
    else:
        name = host.removesuffix(".")
        valid = len(name) <= _LONGEST_NAME and all(_LABEL.fullmatch(label) for label in name.split("."))
    if not valid:
        raise ValueError("server URL has no valid host")
    return host


def _looks_numeric(host: str) -> bool:
    """Whether resolvers may parse the host as an IPv4 address, in any notation."""
    last = host.removesuffix(".").rpartition(".")[2]
    return last.isdigit() or last.lower().startswith("0x")


def _address(host: str) -> ipaddress.IPv4Address | ipaddress.IPv6Address | None:
    try:
        return ipaddress.ip_address(host)
    except ValueError:
        return None


def _check_port(parts: SplitResult) -> None:
    _, colon, port = parts.netloc.rpartition("]")[2].partition(":")
    if not colon:
        return
    if not (port.isdigit() and 0 < int(port[:6]) < 65536 and len(port) < 6):
        raise ValueError("server URL has a bad port: it must be a number from 1 to 65535")


def _is_loopback(host: str) -> bool:
    address = _address(host)
    if address is None:
        # A name with a trailing dot goes to DNS, which may resolve it to any address.
        name = host.lower()
        return name == "localhost" or name.endswith(".localhost")
    if address.version == 6:
        return address == ipaddress.IPv6Address("::1")
    return address in ipaddress.IPv4Network("127.0.0.0/8")
