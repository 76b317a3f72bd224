"""TLS trusts what Python trusts by default, and nothing else."""

from __future__ import annotations

import os
import shutil
import ssl
import subprocess
import sys
import urllib.error
from collections.abc import Iterator
from pathlib import Path

import pytest
import trustme

from devserver.testing import DevServer

from .reference import by_url_library, failure, transport


@pytest.fixture(autouse=True)
def nothing_set(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.delenv("SSL_CERT_FILE", raising=False)
    monkeypatch.delenv("SSL_CERT_DIR", raising=False)


@pytest.fixture(scope="module")
def other_authority(tmp_path_factory: pytest.TempPathFactory) -> str:
    path = tmp_path_factory.mktemp("authority") / "other.pem"
    trustme.CA().cert_pem.write_to_path(str(path))
    return str(path)


@pytest.fixture(scope="module")
def misnamed_server() -> Iterator[DevServer]:
    with DevServer(tls=True, tls_names=["elsewhere.test", "127.0.0.2"]) as server:
        yield server


@pytest.fixture(scope="module")
def expired_server() -> Iterator[DevServer]:
    with DevServer(tls=True, options=["--tls-expired"]) as server:
        yield server


def assert_refused(server: DevServer) -> None:
    error = failure("GET", server.url + "/_echo")
    assert type(error) is ssl.SSLCertVerificationError
    assert f"127.0.0.1:{server.port}" in str(error)
    assert not isinstance(error, ConnectionError | TimeoutError)
    assert server.state()["counts"].get("/_echo", 0) == 0


def test_an_authority_that_nobody_trusts(https_server: DevServer) -> None:
    assert_refused(https_server)


def test_the_file_of_the_environment(https_server: DevServer, monkeypatch: pytest.MonkeyPatch) -> None:
    assert https_server.ca_file is not None
    monkeypatch.setenv("SSL_CERT_FILE", https_server.ca_file)
    assert transport("GET", https_server.url + "/_echo")[0] == 200


def test_the_directory_of_the_environment(
    https_server: DevServer, monkeypatch: pytest.MonkeyPatch, tmp_path: Path
) -> None:
    openssl = shutil.which("openssl")
    if openssl is None:
        pytest.skip("needs the openssl program to name the certificate")
    assert https_server.ca_file is not None
    command = [openssl, "x509", "-noout", "-hash", "-in", https_server.ca_file]
    name = subprocess.run(command, check=True, capture_output=True, timeout=30, text=True).stdout.strip()
    shutil.copy(https_server.ca_file, tmp_path / f"{name}.0")
    monkeypatch.setenv("SSL_CERT_DIR", str(tmp_path))
    assert transport("GET", https_server.url + "/_echo")[0] == 200
    monkeypatch.setenv("SSL_CERT_DIR", str(tmp_path / "nowhere"))
    https_server.reset()
    assert_refused(https_server)


def test_trust_changes_while_the_program_runs(
    https_server: DevServer, other_authority: str, monkeypatch: pytest.MonkeyPatch
) -> None:
    assert https_server.ca_file is not None
    for _ in range(2):
        assert_refused(https_server)
        monkeypatch.setenv("SSL_CERT_FILE", https_server.ca_file)
        # The connection stays open, and must not be used by requests that do not trust it.
        assert transport("GET", https_server.url + "/_echo")[0] == 200
        https_server.reset()
        monkeypatch.setenv("SSL_CERT_FILE", other_authority)
        assert_refused(https_server)
        monkeypatch.delenv("SSL_CERT_FILE")


@pytest.mark.parametrize("content", [None, "", "no certificate\n"])
def test_a_file_without_certificates(
    content: str | None, https_server: DevServer, monkeypatch: pytest.MonkeyPatch, tmp_path: Path
) -> None:
    path = tmp_path / "authorities.pem"
    if content is not None:
        path.write_text(content)
    monkeypatch.setenv("SSL_CERT_FILE", str(path))
    error = failure("GET", https_server.url + "/_echo")
    assert isinstance(error, ssl.SSLError)
    assert https_server.requests == []


def test_a_file_that_is_renewed_under_its_name(
    https_server: DevServer, other_authority: str, monkeypatch: pytest.MonkeyPatch, tmp_path: Path
) -> None:
    assert https_server.ca_file is not None
    path = tmp_path / "authorities.pem"
    shutil.copy(other_authority, path)
    monkeypatch.setenv("SSL_CERT_FILE", str(path))
    assert_refused(https_server)
    path.write_bytes(path.read_bytes() + Path(https_server.ca_file).read_bytes())
    assert transport("GET", https_server.url + "/_echo")[0] == 200


def test_a_file_that_comes_while_the_program_runs(
    https_server: DevServer, monkeypatch: pytest.MonkeyPatch, tmp_path: Path
) -> None:
    assert https_server.ca_file is not None
    path = tmp_path / "authorities.pem"
    monkeypatch.setenv("SSL_CERT_FILE", str(path))
    for _ in range(2):
        assert_refused(https_server)
    shutil.copy(https_server.ca_file, path)
    assert transport("GET", https_server.url + "/_echo")[0] == 200


@pytest.mark.parametrize("has_file", [True, False])
def test_the_host_is_not_asked_for_every_request(
    has_file: bool, server: DevServer, monkeypatch: pytest.MonkeyPatch, tmp_path: Path
) -> None:
    # A location that was not used before.
    monkeypatch.setenv("SSL_CERT_DIR", str(tmp_path))
    asked = []

    def ask() -> ssl.DefaultVerifyPaths:
        asked.append("once")
        file = "authorities.pem" if has_file else None
        others = ("SSL_CERT_FILE", "none", "SSL_CERT_DIR", "none")
        # It is None for a file that does not exist, whatever the checker says.
        return ssl.DefaultVerifyPaths(file, str(tmp_path), *others)  # pyright: ignore[reportArgumentType]

    monkeypatch.setattr(ssl, "get_default_verify_paths", ask)
    for _ in range(3):
        assert transport("GET", server.url + "/_echo")[0] == 200
    assert asked == ["once"]


def test_a_certificate_for_another_name(misnamed_server: DevServer, monkeypatch: pytest.MonkeyPatch) -> None:
    assert misnamed_server.ca_file is not None
    monkeypatch.setenv("SSL_CERT_FILE", misnamed_server.ca_file)
    assert_refused(misnamed_server)


def test_a_certificate_that_has_expired(expired_server: DevServer, monkeypatch: pytest.MonkeyPatch) -> None:
    assert expired_server.ca_file is not None
    monkeypatch.setenv("SSL_CERT_FILE", expired_server.ca_file)
    assert_refused(expired_server)


@pytest.mark.parametrize("host", ["localhost", "127.0.0.1"])
def test_names_and_addresses_of_a_certificate(host: str, trusted: DevServer) -> None:
    assert transport("GET", f"https://{host}:{trusted.port}/_echo")[0] == 200


def test_the_url_library_agrees(
    https_server: DevServer, misnamed_server: DevServer, monkeypatch: pytest.MonkeyPatch
) -> None:
    for server in (https_server, misnamed_server):
        for file in (None, https_server.ca_file, misnamed_server.ca_file):
            if file is None:
                os.environ.pop("SSL_CERT_FILE", None)
            else:
                monkeypatch.setenv("SSL_CERT_FILE", file)
            outcomes = []
            for client in (transport, by_url_library):
                try:
                    outcomes.append(client("GET", server.url + "/_echo")[0])
                except urllib.error.URLError as error:
                    outcomes.append(type(error.reason))
                except OSError as error:
                    outcomes.append(type(error))
            assert outcomes[0] == outcomes[1]


def test_a_host_without_its_tls_library_still_speaks_plain_http(
    server: DevServer, monkeypatch: pytest.MonkeyPatch, tmp_path: Path
) -> None:
    # A location that was not used before, so Python is asked.
    monkeypatch.setenv("SSL_CERT_DIR", str(tmp_path))
    monkeypatch.setitem(sys.modules, "ssl", None)
    assert transport("GET", server.url + "/_echo")[0] == 200
