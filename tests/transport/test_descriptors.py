"""Without a free descriptor, a request fails with the system's own error, and the next one may succeed."""

from __future__ import annotations

import errno
from collections.abc import Callable, Iterator
from typing import Any

import pytest
import trustme

from devserver.testing import DevServer

from .authorities import pem
from .programs import told_by
from .raw import OK, RawServer
from .tls_server import context_of, serving

# Many more than the interpreter has open, and quickly used up.
HELPERS = """
import contextlib, resource
limit = 128
resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit))

@contextlib.contextmanager
def left(count):
    # Exactly this many descriptors can be opened meanwhile.
    taken = []
    try:
        with contextlib.suppress(OSError):
            while True:
                taken.append(os.open("/dev/null", os.O_RDONLY))
        for _ in range(count):
            os.close(taken.pop())
        yield
    finally:
        for one in taken:
            os.close(one)

def outcome(call, *args):
    try:
        return call(*args)[0]
    except BaseException as error:
        return [type(error).__name__, getattr(error, "errno", None)]

def ask(url):
    return outcome(auth._default_http_transport, "GET", url)
"""
# Afterwards the client has no descriptor of that connection.
LAST = b"HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 2\r\n\r\nok"
EXHAUSTED = ["OSError", errno.EMFILE]
# From none to more than a request needs.
COUNTS = range(6)


@pytest.fixture(scope="module")
def servers(
    authority: trustme.CA, tmp_path_factory: pytest.TempPathFactory
) -> Iterator[dict[str, RawServer]]:
    roots = tmp_path_factory.mktemp("authority") / "roots.pem"
    roots.write_bytes(pem(authority))
    plain = RawServer(LAST)
    with serving() as start, pytest.MonkeyPatch.context() as patch:
        patch.setenv("SSL_CERT_FILE", str(roots))
        yield {"http": plain, "https": start(context_of(authority), LAST)}
    plain.stop()


@pytest.fixture(params=["http", "https"])
def closing(request: pytest.FixtureRequest, servers: dict[str, RawServer]) -> RawServer:
    return servers[request.param]


def url_of(server: RawServer, host: str) -> str:
    return server.url.replace("127.0.0.1", host)


HOSTS = pytest.mark.parametrize("host", ["127.0.0.1", "localhost"])


@HOSTS
def test_a_process_that_has_asked_before(host: str, closing: RawServer) -> None:
    told = told_by(
        """
        url, counts = arguments
        told = [ask(url)]
        for count in counts:
            with left(count):
                short = ask(url)
            told.append([short, ask(url)])
        print(json.dumps(told))
        """,
        url_of(closing, host),
        list(COUNTS),
        helpers=HELPERS,
    )
    assert told.pop(0) == 200
    assert [later for _, later in told] == [200] * len(COUNTS)
    check_short([short for short, _ in told])


def test_trusted_certificates_that_have_to_be_read_again(servers: dict[str, RawServer]) -> None:
    told = told_by(
        """
        url, counts = arguments
        told = [ask(url)]
        for count in counts:
            with open(os.environ["SSL_CERT_FILE"], "a") as roots:
                roots.write("another line")
            with left(count):
                short = ask(url)
            told.append([short, ask(url)])
        print(json.dumps(told))
        """,
        servers["https"].url,
        list(COUNTS),
        helpers=HELPERS,
    )
    assert told.pop(0) == 200
    assert [later for _, later in told] == [200] * len(COUNTS)
    check_short([short for short, _ in told])


@HOSTS
def test_a_process_that_asks_for_the_first_time(host: str, closing: RawServer) -> None:
    program = """
        url, count = arguments
        with left(count):
            short = ask(url)
        print(json.dumps([short, ask(url)]))
    """
    told = [told_by(program, url_of(closing, host), count, helpers=HELPERS) for count in COUNTS]
    assert [later for _, later in told] == [200] * len(COUNTS)
    check_short([short for short, _ in told])


def check_short(short: list[Any]) -> None:
    """The results of requests with more and more free descriptors."""
    assert short[0] == EXHAUSTED
    assert short[-1] == 200
    assert [one for one in short if one not in (200, EXHAUSTED)] == []


def test_a_login(either: DevServer) -> None:
    told = told_by(
        """
        (url,) = arguments
        delays, asked = [], []
        def transport(*args, **options):
            asked.append(1)
            return auth._default_http_transport(*args, **{**options, "headers": {
                **options["headers"], "Connection": "close"}})
        manager = auth.AuthManager("66" * 32, url, _transport=transport)
        manager._wait_with_clock = delays.append
        told = []
        for _ in range(2):
            with left(0):
                told.append(outcome(manager.authenticate))
            told.append([len(asked), delays])
            manager.authenticate()
            told.append(bool(manager.get_token()))
            asked.clear()
        manager.close()
        print(json.dumps(told))
        """,
        either.url,
        helpers=HELPERS,
    )
    assert told == [EXHAUSTED, [1, []], True] * 2


def test_those_without_one_wait_for_those_with_a_connection(raw: Callable[..., RawServer]) -> None:
    told = told_by(
        """
        (url,) = arguments
        first, rest = ask(url), []
        threads = [threading.Thread(target=lambda: rest.append(ask(url))) for _ in range(60)]
        with left(60):
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join(30)
        print(json.dumps([first, rest]))
        """,
        raw(OK, keep_alive=True).url,
        helpers=HELPERS,
    )
    assert told == [200, [200] * 60]
