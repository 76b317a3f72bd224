"""One GET over a separate connection, by each client that the network benchmarks compare.

Imports almost nothing; each client imports what it needs when it is created, as part of a first
connection.
"""

from __future__ import annotations

import os
import time

TYPE_CHECKING = False
if TYPE_CHECKING:
    import ssl
    from collections.abc import Callable

BARE = "bare libcurl"
BARE_SHARING = "bare libcurl, roots read once"


def trusting_context() -> ssl.SSLContext:
    """Python's own, with the file and the directory that the component trusts."""
    import ssl

    return ssl.create_default_context(
        cafile=os.environ["SSL_CERT_FILE"], capath=os.environ.get("SSL_CERT_DIR")
    )


def root_store() -> object:
    """The same for `floors`."""
    import floors

    return floors.root_store(os.environ["SSL_CERT_FILE"], os.environ.get("SSL_CERT_DIR", ""))


def by_tessaline(url: str) -> Callable[[], object]:
    from tessaline import auth

    return lambda: auth._default_http_transport("GET", url)


def by_http_client(url: str) -> Callable[[], object]:
    import http.client

    context = trusting_context()
    host = url.split("/")[2]

    def get() -> None:
        connection = http.client.HTTPSConnection(host, timeout=30, context=context)
        connection.request("GET", "/")
        connection.getresponse().read()
        connection.close()

    return get


def by_ssl(url: str) -> Callable[[], object]:
    import socket

    context = trusting_context()
    host, port = url.split("/")[2].split(":")
    request = f"GET / HTTP/1.1\r\nHost: {host}:{port}\r\n\r\n".encode()

    def get() -> None:
        with (
            socket.create_connection((host, int(port)), 30) as plain,
            context.wrap_socket(plain, server_hostname=host) as secured,
        ):
            secured.sendall(request)
            while secured.recv(65536):
                pass

    return get


def by_libcurl(url: str) -> Callable[[], object]:
    import floors

    return lambda: floors.bare_connections(0, url)


GETTERS: dict[str, Callable[[str], Callable[[], object]]] = {
    "tessaline": by_tessaline,
    "http.client": by_http_client,
    "ssl": by_ssl,
    BARE: by_libcurl,
}


def connections_cpu(client: str, url: str, times: int) -> float:
    """Seconds of processor time for that many connections, after a warm-up."""
    if client in (BARE, BARE_SHARING):
        import floors

        # Over one handle, so that a session may be resumed.
        return floors.bare_connections(times, url, root_store() if client == BARE_SHARING else None)
    get = GETTERS[client](url)
    get()
    begin = time.process_time()
    for _ in range(times):
        get()
    return time.process_time() - begin
