"""A Python whose TLS library finds no certificates trusts what the system trusts, in any of its locations.

In a mount namespace, with the test's own /etc.
"""

from __future__ import annotations

import functools
import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

from devserver.testing import DevServer

pytestmark = pytest.mark.process

PROGRAM = """
import ssl, sys
from tessaline import auth
*places, url = [text or None for text in sys.argv[1:]]
paths = ssl.DefaultVerifyPaths(*places, "SSL_CERT_FILE", "none", "SSL_CERT_DIR", "none")
ssl.get_default_verify_paths = lambda: paths
try:
    print(auth._default_http_transport("GET", url)[0])
except OSError as error:
    print(type(error).__name__)
"""
REFUSED = "SSLCertVerificationError"
KEPT = ["ld.so.cache", "hosts", "nsswitch.conf", "passwd", "localtime"]


@functools.cache
def unshare() -> list[str]:
    """How this user gets a mount namespace."""
    for user in ([], ["--user", "--map-root-user"]):
        command = ["unshare", *user, "--mount"]
        if (
            shutil.which("unshare")
            and subprocess.run([*command, "true"], capture_output=True, timeout=60).returncode == 0
        ):
            return command
    pytest.skip("this user cannot have a mount namespace")


@pytest.fixture
def etc(tmp_path: Path) -> Path:
    folder = tmp_path / "etc"
    folder.mkdir()
    for name in KEPT:
        if Path("/etc", name).exists():
            shutil.copy(Path("/etc", name), folder / name)
    return folder


def put(etc: Path, place: str, server: DevServer) -> None:
    assert server.ca_file is not None
    (etc / place).parent.mkdir(parents=True)
    shutil.copy(server.ca_file, etc / place)


def told(etc: Path, server: DevServer, cafile: str = "", capath: str = "", **environment: str) -> str:
    """The result of a request if Python's TLS library has these default locations."""
    inside = f'mount --bind {etc} /etc && exec "$@"'
    program = [sys.executable, "-c", PROGRAM, cafile, capath, server.url + "/_echo"]
    kept = {
        name: value for name, value in os.environ.items() if name not in ("SSL_CERT_FILE", "SSL_CERT_DIR")
    }
    done = subprocess.run(
        [*unshare(), "sh", "-c", inside, "sh", *program],
        env=kept | environment,
        capture_output=True,
        text=True,
        timeout=60,
    )
    assert (done.returncode, done.stderr) == (0, "")
    return done.stdout.strip()


@pytest.mark.parametrize(
    "place", ["ssl/certs/ca-certificates.crt", "pki/tls/certs/ca-bundle.crt", "ssl/cert.pem"], ids=str
)
def test_the_place_of_a_distribution(place: str, etc: Path, https_server: DevServer) -> None:
    put(etc, place, https_server)
    assert told(etc, https_server) == "200"


def test_a_system_without_certificates(etc: Path, https_server: DevServer) -> None:
    assert told(etc, https_server) == REFUSED


def test_a_directory_that_was_made_with_the_interpreter_and_is_empty(
    etc: Path, https_server: DevServer, tmp_path: Path
) -> None:
    put(etc, "ssl/cert.pem", https_server)
    (tmp_path / "certs").mkdir()
    assert told(etc, https_server, capath=str(tmp_path / "certs")) == "200"
    # If it has any content, it is the program's choice.
    (tmp_path / "certs/0a1b2c3d.0").write_text("another authority")
    assert told(etc, https_server, capath=str(tmp_path / "certs")) == REFUSED


def test_what_the_host_names_is_all_that_is_trusted(
    etc: Path, https_server: DevServer, tmp_path: Path
) -> None:
    put(etc, "ssl/cert.pem", https_server)
    (tmp_path / "own.pem").write_text("no certificate")
    assert told(etc, https_server, cafile=str(tmp_path / "own.pem")) != "200"


@pytest.mark.parametrize("name", ["SSL_CERT_FILE", "SSL_CERT_DIR"])
def test_a_place_that_the_environment_names_and_that_is_not_there(
    name: str, etc: Path, https_server: DevServer
) -> None:
    put(etc, "ssl/cert.pem", https_server)
    assert told(etc, https_server, **{name: "/nowhere"}) == REFUSED
