"""The servers under which Python programs run: logins work whether they keep connections or not."""

from __future__ import annotations

import json
import os
import sys
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import NamedTuple

import pytest

from tests.integration.support import Harness
from tests.shared.threads import Worker

from .certificates import Certificate
from .outcomes import log_in, transport
from .programs import free_ports, own_folder, running

Make = Callable[..., Harness]

ROOT = Path(__file__).resolve().parents[2]
LOGINS = 20
THREADS = 8


class Kind(NamedTuple):
    """How a server is started. address: how its port is passed. keeps: whether it keeps connections."""

    module: str
    options: tuple[str, ...]
    address: str
    keeps: bool = True


WSGI = "tests.real.wsgi_app:app"
ASGI = "tests.real.asgi_app:app"
# For files that gunicorn would write beside its working folder.
GUNICORN = ("--worker-tmp-dir", ".", "--no-control-socket")
KINDS = {
    "gunicorn-sync": Kind("gunicorn", (*GUNICORN, "-k", "sync", WSGI), "--bind=127.0.0.1:{}", False),
    "gunicorn-gthread": Kind(
        "gunicorn", (*GUNICORN, "-k", "gthread", "--threads", "16", WSGI), "--bind=127.0.0.1:{}"
    ),
    "uvicorn": Kind("uvicorn", ("--no-access-log", "--host", "127.0.0.1", ASGI), "--port={}"),
    "hypercorn": Kind("hypercorn", ("--workers", "0", ASGI), "--bind=127.0.0.1:{}"),
    "http.server": Kind("tests.real.http_server_app", ("length",), "{}", False),
    # The end of the connection ends the response; with TLS, the server does not send close_notify.
    "http.server-no-length": Kind("tests.real.http_server_app", ("no-length",), "{}", False),
}
CERTIFICATE = {
    "gunicorn": ("--certfile={0}", "--keyfile={1}"),
    "uvicorn": ("--ssl-certfile={0}", "--ssl-keyfile={1}"),
    "hypercorn": ("--certfile={0}", "--keyfile={1}"),
    "tests.real.http_server_app": ("{0}", "{1}"),
}


class Served(NamedTuple):
    url: str
    keeps: bool

    def connections(self) -> int:
        """How many connections logins have made."""
        counted: int = json.loads(transport("GET", f"{self.url}/connections")[2])
        return counted


@pytest.fixture(scope="module", params=[f"{name} {scheme}" for name in KINDS for scheme in ("http", "https")])
def served(request: pytest.FixtureRequest, certificate: Certificate) -> Iterator[Served]:
    name, scheme = request.param.split()
    kind = KINDS[name]
    (port,) = free_ports(1)
    command = [sys.executable, "-m", kind.module, *kind.options, kind.address.format(port)]
    if scheme == "https":
        command += [part.format(certificate.chain, certificate.key) for part in CERTIFICATE[kind.module]]
    path = os.pathsep.join([str(ROOT), *filter(None, [os.environ.get("TESSALINE_REAL_PACKAGES")])])
    with (
        own_folder() as folder,
        running(command, folder, [port], environment={"PYTHONPATH": path}, unprivileged=False),
    ):
        yield Served(f"{scheme}://127.0.0.1:{port}", kind.keeps)


def test_logins_in_a_row(served: Served, harness: Make) -> None:
    before = served.connections()
    log_in(harness(served.url), LOGINS)
    # The first connection is that of this request.
    assert served.connections() - before == (1 if served.keeps else 3 * LOGINS)


def test_logins_of_several_threads(served: Served, harness: Make) -> None:
    before = served.connections()
    for worker in [Worker(log_in, harness(served.url), 3) for _ in range(THREADS)]:
        worker.result()
    made = served.connections() - before
    assert made <= THREADS if served.keeps else made == 3 * 3 * THREADS
