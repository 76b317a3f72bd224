"""Squid with a port for each way to use it."""

from __future__ import annotations

import contextlib
import hashlib
from collections.abc import Iterator, Mapping
from pathlib import Path

from .certificates import Certificate
from .programs import free_ports, own_folder, running

USER = "somebody-of-the-proxy"
# With characters that a URL must escape.
PASSWORD = "s3cret:of/the@proxy?0123"
ESCAPED = "s3cret%3Aof%2Fthe%40proxy%3F0123"
# Its response to a request for a port of that name.
REFUSALS: tuple[int, ...] = (403, 429, 502, 504)
# Only Squid resolves that name.
NAME = "service.test"
# Its address towards servers.
CLIENT = "127.0.0.3"

ALWAYS = """
pid_filename {folder}/pid
coredump_dir {folder}
cache_log {folder}/cache.log
access_log none
hosts_file {folder}/hosts
cache deny all
tcp_outgoing_address {client}
pinger_enable off
netdb_filename none
shutdown_lifetime 0 seconds
negative_ttl 0 seconds
auth_param basic program /usr/lib/squid/basic_ncsa_auth {folder}/passwords
auth_param basic children 2 startup=2
auth_param basic realm tests
acl guarded myportname guarded guarded-tls
acl known proxy_auth REQUIRED
"""


class Squid:
    """A running one. port: by the way to use it. refusing: ports of servers, by the status for those."""

    def __init__(self, port: Mapping[str, int], refusing: Mapping[int, int]) -> None:
        self.port = port
        self.refusing = refusing

    def peer(self, way: str = "open") -> str:
        return f"127.0.0.1:{self.port[way]}"

    def url(self, way: str = "open", user: str = "") -> str:
        """The proxy's URL. user: "name:password", as in a URL."""
        return f"{'https' if way.endswith('tls') else 'http'}://{user}{'@' * bool(user)}{self.peer(way)}"


@contextlib.contextmanager
def squid(trusted: Certificate, foreign: Certificate) -> Iterator[Squid]:
    """One whose TLS ports use these certificates."""
    certificates = {"tls": trusted, "guarded-tls": trusted, "foreign-tls": foreign}
    ways = ("open", "guarded", *certificates)
    ports = free_ports(len(ways) + len(REFUSALS))
    port = dict(zip(ways, ports, strict=False))
    refusing = dict(zip(REFUSALS, ports[len(ways) :], strict=True))
    with own_folder() as folder:
        lines = [ALWAYS.format(folder=folder, client=CLIENT)]
        for way, number in port.items():
            shown = certificates.get(way)
            tls = f" tls-cert={shown.chain} tls-key={shown.key}" if shown else ""
            lines.append(f"http{'s' * bool(shown)}_port 127.0.0.1:{number} name={way}{tls}")
        for status, number in refusing.items():
            lines += [f"acl refused{status} port {number}"]
            lines += [f"deny_info {status}:ERR_ACCESS_DENIED refused{status}"] * (status != 403)
            lines += [f"http_access deny refused{status}"]
        lines += ["http_access deny guarded !known", "http_access allow all", ""]
        (folder / "squid.conf").write_text("\n".join(lines))
        (folder / "hosts").write_text(f"127.0.0.1 {NAME}\n")
        # The helper also accepts MD5 of the password alone.
        digest = hashlib.md5(PASSWORD.encode(), usedforsecurity=False).hexdigest()
        (folder / "passwords").write_text(f"{USER}:{digest}\n")
        service = f"tests{port['open']}"
        command: list[str | Path] = ["squid", "-N", "-n", service, "-f", folder / "squid.conf"]
        with running(command, folder, list(port.values()), gently=True):
            yield Squid(port, refusing)
