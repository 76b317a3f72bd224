"""Which proxy a request uses, by the rules of the default transport; for the report of a check only."""

from __future__ import annotations

import ipaddress
import os
import re
from dataclasses import dataclass
from urllib.parse import SplitResult, unquote, urlsplit

__all__ = ["Proxy", "port_of", "proxy_for"]

_VARIABLES = {
    # HTTP_PROXY is ignored: in a CGI program, it is the header "Proxy" of a request.
    "http": ("http_proxy", "all_proxy", "ALL_PROXY"),
    "https": ("https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"),
}

type _Address = ipaddress.IPv4Address | ipaddress.IPv6Address


@dataclass(frozen=True)
class Proxy:
    """A proxy that the environment names.

    Attributes:
        variable: The environment variable.
        scheme: "http", "https", "socks4", "socks4a", "socks5" or "socks5h"; "" if the variable has
            no valid URL.
        host: Its name or address.
        port: Its port.
        user: For the proxy's own login, or None. Never reported.
        password: The same.
    """

    variable: str
    scheme: str
    host: str
    port: int
    user: str | None = None
    password: str | None = None

    @property
    def resolves_names(self) -> bool:
        """Whether the proxy resolves the server's name."""
        return self.scheme not in ("socks4", "socks5")

    @property
    def address(self) -> str:
        """Scheme, host and port, the only parts that a report may show."""
        host = f"[{self.host}]" if ":" in self.host else self.host
        return f"{self.scheme}://{host}:{self.port}" if host else "invalid URL"


def proxy_for(url: str) -> Proxy | None:
    """The proxy that a request to that URL uses, if any."""
    server = urlsplit(url)
    variable = next((name for name in _VARIABLES[server.scheme] if os.environ.get(name)), None)
    if variable is None or _is_exempt(server, os.environ.get("no_proxy") or os.environ.get("NO_PROXY", "")):
        return None
    text = os.environ[variable]
    try:
        parts = urlsplit(text if "://" in text else f"http://{text}")
        port = parts.port or (443 if parts.scheme == "https" else 1080)
    except ValueError:
        return Proxy(variable, "", "", 0)
    # A password with an unescaped "/", "?" or "#": the user would be taken for the host.
    if not parts.hostname or "@" in parts.path + parts.query + parts.fragment:
        return Proxy(variable, "", "", 0)
    user, password = (
        None if part is None else unquote(part, errors="surrogateescape")
        for part in (parts.username, parts.password)
    )
    return Proxy(variable, parts.scheme, parts.hostname, port, user, password)


def port_of(server: SplitResult) -> int:
    """The port of a URL, or its scheme's default."""
    return server.port or (443 if server.scheme == "https" else 80)


def _is_exempt(server: SplitResult, hosts: str) -> bool:
    return any(_holds(entry, server) for entry in re.split(r"[, \t\r\n]+", hosts) if entry)


def _holds(entry: str, server: SplitResult) -> bool:
    host = (server.hostname or "").removesuffix(".")
    address = _address(host)
    if entry == "*" or (address is not None and _holds_address(entry, address)):
        return True
    name, colon, port = entry.rpartition(":")
    has_port = bool(colon) and port.isdigit() and (":" not in name or name.endswith("]"))
    if has_port and int(port) != port_of(server):
        return False
    if address is not None:
        return has_port and _holds_address(name, address)
    domain = (name if has_port else entry).lower().removeprefix(".").removesuffix(".")
    return bool(domain) and (host == domain or host.endswith(f".{domain}"))


def _holds_address(network: str, address: _Address) -> bool:
    base, slash, bits = network.partition("/")
    try:
        held = ipaddress.ip_network(base.strip("[]") + slash + bits, strict=False)
    except ValueError:
        return False
    return address.version == held.version and address in held


def _address(host: str) -> _Address | None:
    try:
        return ipaddress.ip_address(host)
    except ValueError:
        return None
