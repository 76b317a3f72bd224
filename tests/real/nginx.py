"""nginx with a port for each of its sites."""

from __future__ import annotations

import contextlib
from collections.abc import Iterator, Mapping, Sequence
from pathlib import Path
from typing import NamedTuple

from tests.shared.threads import until

from .certificates import Certificate
from .programs import free_ports, own_folder, running


class Visit(NamedTuple):
    """A line of a site's log. client: its address. resumed: "r" for a resumed session, "." for a new one."""

    client: str
    tls: str
    resumed: str
    protocol: str
    connection: str
    status: str
    line: str


LOG_FORMAT = "$remote_addr|$ssl_protocol|$ssl_session_reused|$server_protocol|$connection|$status|$request"


def before(port: int, *directives: str) -> str:
    """Directives of a site that forwards everything to that port."""
    passing = f"proxy_pass http://127.0.0.1:{port}; proxy_http_version 1.1; proxy_set_header Connection '';"
    return f"location / {{ {passing} {' '.join(directives)} }}"


class Nginx:
    """A running one. port: by site."""

    def __init__(self, folder: Path, port: Mapping[str, int], tls: Sequence[str]) -> None:
        self.port = port
        self._folder = folder
        self._tls = tls

    def url(self, site: str, host: str = "127.0.0.1") -> str:
        scheme = "https" if site in self._tls else "http"
        return f"{scheme}://{host}:{self.port[site]}"

    def visits(self, site: str, count: int) -> list[Visit]:
        """The requests to that site so far, once there are `count`: each is logged after its response."""
        until(lambda: len(self._lines(site)) >= count, f"{count} visits")
        return [Visit(*line.split("|", 6)) for line in self._lines(site)]

    def _lines(self, site: str) -> list[str]:
        return (self._folder / f"{site}.log").read_text().splitlines()


@contextlib.contextmanager
def nginx(
    sites: Mapping[str, str],
    certificate: Certificate,
    *,
    plain: Sequence[str] = (),
    ports: Mapping[str, int] | None = None,
) -> Iterator[Nginx]:
    """Serve these sites, each given by the directives of its `server`; all but those of `plain` with TLS."""
    port = ports or dict(zip(sites, free_ports(len(sites)), strict=True))
    tls = [site for site in sites if site not in plain]
    with own_folder() as folder:
        blocks = [
            f"server {{ listen 127.0.0.1:{port[site]}{' ssl' * (site in tls)}; server_name {site};"
            f" access_log {folder}/{site}.log told; {directives} }}"
            for site, directives in sites.items()
        ]
        configuration = folder / "nginx.conf"
        configuration.write_text(_configuration(folder, certificate, blocks))
        command: list[str | Path] = ["nginx", "-p", folder, "-e", folder / "errors", "-c", configuration]
        with running(command, folder, list(port.values())):
            yield Nginx(folder, port, tls)


def _configuration(folder: Path, certificate: Certificate, blocks: list[str]) -> str:
    places = " ".join(
        f"{kind}_temp_path {folder}/{kind};" for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi")
    )
    return "\n".join(
        [
            f"daemon off; master_process off; pid {folder}/pid; events {{ }}",
            f"http {{ {places}",
            f"log_format told escape=none '{LOG_FORMAT}';",
            f"ssl_certificate {certificate.chain}; ssl_certificate_key {certificate.key};",
            "default_type application/json;",
            *blocks,
            "}\n",
        ]
    )
