"""Validation of the settings of a transport."""

from __future__ import annotations

import ipaddress
import os
import re
from typing import NamedTuple, cast

LONGEST_TIMEOUT = 3600.0  # seconds
_LONGEST_NAME = 256  # characters
_YEAR = 31_536_000  # seconds

_NAME = re.compile(r"[!-~](?:[ -~]*[!-~])?")
_PROXY_SCHEMES = ("http", "https", "socks4", "socks4a", "socks5", "socks5h")
# Stricter than the HTTP client: what is accepted here never fails there.
_PROXY = re.compile(
    r"(?:(?P<scheme>[a-z][a-z0-9+.-]*)://)?"
    r"(?:(?P<user>(?:[a-z0-9._~!$&'()*+,;=:-]|%[2-9a-f][0-9a-f])*)@)?"
    r"(?P<host>\[[0-9a-f:.]+\]|[a-z0-9_](?:[a-z0-9._-]{0,251}[a-z0-9_])?)"
    r"(?::(?P<port>[0-9]{1,5}))?/?",
    re.IGNORECASE | re.ASCII,
)


class Checked(NamedTuple):
    """The settings as they are used, and as they may be shown."""

    timeout: float
    ca_file: bytes | None
    proxy: str | None
    user_agent: str
    longest_retry_after: int | None
    shown: str


def checked(
    timeout: object, ca_file: object, proxy: object, user_agent: object, longest_retry_after: object
) -> Checked:
    """The validated settings, or ValueError or TypeError with a text that shows none of them."""
    values = (
        _timeout(timeout),
        None if ca_file is None else _path(ca_file),
        None if proxy is None else _proxy(proxy),
        "" if user_agent is None else _name(user_agent),
        None if longest_retry_after is None else _wait(longest_retry_after),
    )
    seconds, path, url, name, wait = values
    shown = [f"timeout={seconds!r}"]
    if path is not None:
        shown.append(f"ca_file={os.fsdecode(path)!r}")
    if url is not None:
        shown.append(f"proxy={_without_user(url)!r}")
    if name:
        shown.append(f"user_agent={name!r}")
    if wait is not None:
        shown.append(f"longest_retry_after={wait}")
    return Checked(*values, f"tessaline.http.transport({', '.join(shown)})")


def _number(name: str, value: object) -> float:
    if isinstance(value, bool) or not isinstance(value, int | float):
        raise TypeError(f"{name} must be a number of seconds, not {type(value).__name__}")
    return value


def _timeout(value: object) -> float:
    seconds = _number("timeout", value)
    if not 0 < seconds <= LONGEST_TIMEOUT:
        raise ValueError(f"timeout must be more than 0 and at most {LONGEST_TIMEOUT:.0f} seconds")
    return float(seconds)


def _wait(value: object) -> int:
    seconds = _number("longest_retry_after", value)
    if not 1 <= seconds <= _YEAR:
        raise ValueError(f"longest_retry_after must be from 1 to {_YEAR} seconds")
    return int(seconds)


def _path(ca_file: object) -> bytes:
    if not isinstance(ca_file, str | os.PathLike):
        raise TypeError(f"ca_file must be a path or None, not {type(ca_file).__name__}")
    path = os.fsencode(cast("str | os.PathLike[str]", ca_file))
    if not path or b"\0" in path:
        raise ValueError("ca_file must be a path, neither empty nor with a null byte")
    return os.path.abspath(path)


def _name(user_agent: object) -> str:
    if not isinstance(user_agent, str):
        raise TypeError(f"user_agent must be a str or None, not {type(user_agent).__name__}")
    if len(user_agent) > _LONGEST_NAME or not _NAME.fullmatch(user_agent):
        raise ValueError(
            f"user_agent must be 1 to {_LONGEST_NAME} visible ASCII characters, with spaces only between them"
        )
    return user_agent


def _proxy(proxy: object) -> str:
    if not isinstance(proxy, str):
        raise TypeError(f"proxy must be a str or None, not {type(proxy).__name__}")
    found = _PROXY.fullmatch(proxy) if proxy else None
    if proxy and (found is None or not _is_host(found["host"]) or not 0 < int(found["port"] or 1) < 65536):
        raise ValueError(
            "proxy must be a URL of scheme, host and port, as in http://proxy.example:3128, "
            "with nothing but user and password before the host, and those escaped"
        )
    if found and (found["scheme"] or "http").lower() not in _PROXY_SCHEMES:
        raise ValueError(f"proxy must have one of the schemes {', '.join(_PROXY_SCHEMES)}")
    return proxy


def _without_user(proxy: str) -> str:
    """The URL of a validated proxy without its credentials."""
    if not proxy:
        return ""
    scheme, _, rest = proxy.rpartition("://")
    _, at, peer = rest.rpartition("@")
    return f"{scheme or 'http'}://{at and '***@'}{peer}"


def _is_host(host: str) -> bool:
    last = host.rpartition(".")[2].lower()
    try:
        if host.startswith("["):
            ipaddress.IPv6Address(host[1:-1])
        elif last.isdigit() or last.startswith("0x"):
            # Resolvers would parse it as an address in another notation.
            ipaddress.IPv4Address(host)
    except ValueError:
        return False
    return ".." not in host
