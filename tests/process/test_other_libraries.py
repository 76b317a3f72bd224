"""A login with other copies of OpenSSL and libcurl in the process."""

import importlib.util
import json
import os
import subprocess
import sys
from collections.abc import Iterator

import pytest

from devserver.testing import DevServer

pytestmark = pytest.mark.process

# Packages with their own OpenSSL, and a call that uses it.
USES = {
    "ssl": "import ssl; ssl.create_default_context()",
    "grpc": "import grpc; grpc.secure_channel('127.0.0.1:1', grpc.ssl_channel_credentials()).close()",
    "psycopg": "import psycopg; psycopg.pq.version()",
    "pycurl": "import pycurl; pycurl.Curl().close()",
}
# `make test-wheel` installs two of these that other runs do not have.
INSTALLED = [name for name in USES if importlib.util.find_spec(name) is not None]
LOGIN = """
import json, secrets, sys
from tessaline.auth import AuthManager
def log_in():
    with AuthManager(secrets.token_hex(32), sys.argv[1]) as manager:
        manager.authenticate()
        return manager.get_token() is not None
def fetch():
    import ssl, urllib.request
    opener = urllib.request.build_opener(
        urllib.request.ProxyHandler({}), urllib.request.HTTPSHandler(context=ssl.create_default_context())
    )
    with opener.open(sys.argv[1] + "/_echo", timeout=30) as answer:
        return answer.status
"""


@pytest.fixture(scope="module")
def server() -> Iterator[DevServer]:
    with DevServer(tls=True) as running:
        yield running


@pytest.mark.parametrize("order", ["before", "after", "between"])
@pytest.mark.parametrize("name", INSTALLED)
def test_a_login_beside_another_copy(server: DevServer, name: str, order: str) -> None:
    steps = {
        "before": [USES[name], "served = log_in()"],
        "after": ["served = log_in()", USES[name], "served = served and log_in()"],
        "between": ["import tessaline.auth", USES[name], "served = log_in()"],
    }
    # Then the interpreter's own, which the other copy must not have changed.
    program = "\n".join([LOGIN, *steps[order], "print(json.dumps([served, fetch()]))"])
    assert server.ca_file is not None
    done = subprocess.run(
        [sys.executable, "-c", program, server.url],
        env=os.environ | {"SSL_CERT_FILE": server.ca_file},
        capture_output=True,
        text=True,
        timeout=60,
    )
    assert done.returncode == 0, done.stderr
    assert json.loads(done.stdout) == [True, 200]
