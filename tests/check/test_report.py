"""The report of a successful login."""

from __future__ import annotations

import json
import os
import re
import secrets
import stat
import subprocess
import sys
import threading
import time
from pathlib import Path
from typing import Any

import pytest
from eth_account import Account

import canary
from devserver.testing import DevServer
from tessaline.http import transport

from .conftest import Check

PATHS = ["/auth/register", "/auth/challenge", "/auth/verify"]
TOKEN = re.compile(r"eyJ[\w-]+\.[\w-]+\.[\w-]+")


def test_each_step_has_its_line(check: Check, either: DevServer, key: str) -> None:
    done = check(either.url)
    assert (done.code, done.errors) == (0, "")
    assert done.lines("url") == [either.url]
    assert done.lines("wallet") == [Account.from_key(key).address.lower()]
    assert [line.partition(" (")[0] for line in done.lines("name")] == ["127.0.0.1: 127.0.0.1"]
    for path in PATHS:
        (line,) = done.lines(path.rpartition("/")[2])
        assert re.fullmatch(rf"POST {path}: 200 \(\d+\.\d ms\)", line)
    (line,) = done.lines("token")
    assert re.fullmatch(r"valid for 24\.0 hours, until \d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", line)
    secured = either.url.startswith("https")
    assert (len(done.lines("tls")), len(done.lines("certificate"))) == (secured, secured)
    assert [entry["path"] for entry in either.requests] == PATHS


def test_the_same_as_json(check: Check, trusted: DevServer, key: str) -> None:
    before = time.time()
    report = check(trusted.url, "--json").report
    after = time.time()
    assert (report["schema"], report["ok"], report["exit_code"], report["error"]) == (1, True, 0, None)
    assert (report["url"], report["address"]) == (trusted.url, Account.from_key(key).address.lower())
    assert report["proxy"] is None
    assert (report["name"]["host"], report["name"]["addresses"]) == ("127.0.0.1", ["127.0.0.1"])
    assert [one["path"] for one in report["exchanges"]] == PATHS
    assert [one["status"] for one in report["exchanges"]] == [200] * 3
    assert all(0 < one["seconds"] < after - before for one in report["exchanges"])
    assert before + 86400 <= report["expiry"] <= after + 86400
    assert before < report["expiry"] - report["seconds_left"] <= after
    assert "token" not in report


def test_the_certificate_is_told_of(check: Check, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    with DevServer(tls=True) as server:
        assert server.ca_file is not None
        monkeypatch.setenv("SSL_CERT_FILE", server.ca_file)
        tls = check(server.url, "--json").report["tls"]
        named = ["openssl", "x509", "-noout", "-subject", "-nameopt", "multiline", "-in", server.ca_file]
        authority = subprocess.run(named, check=True, capture_output=True, text=True, timeout=60).stdout
    (organization,) = re.findall(r"organizationName\s*= (.*)", authority)
    assert organization in tls["issuer"]
    assert tls["version"] == "TLSv1.3"
    assert tls["cipher"].startswith("TLS_")
    assert tls["error"] is None
    # The server's certificates last until the year 3000.
    assert time.gmtime(tls["not_after"])[:3] == (3000, 1, 1)
    assert tls["days_left"] == pytest.approx((tls["not_after"] - time.time()) / 86400, abs=0.01)


def test_plain_http_has_no_tls(check: Check, server: DevServer) -> None:
    assert check(server.url, "--json").report["tls"] is None


def test_the_token_only_where_it_is_asked_for(check: Check, server: DevServer) -> None:
    for options in ([], ["--json"]):
        assert TOKEN.search(check(server.url, *options).output) is None
    with canary.overheard():
        plain = check(server.url, "--print-token").output
        as_json = check(server.url, "--print-token", "--json").report["token"]
    tokens = [plain.splitlines()[-1].strip(), as_json]
    # So that a failure shows no token.
    assert [TOKEN.fullmatch(token) is not None for token in tokens] == [True, True]


def test_nothing_else_secret_is_told(check: Check, server: DevServer, key: str) -> None:
    output = check(server.url).output + check(server.url, "--json").output
    assert key not in output
    assert re.search(r"[0-9a-fA-F]{60}", output) is None
    assert "secret" not in output


def test_a_registration_can_be_left_out(check: Check, server: DevServer) -> None:
    server.settings(allow_unregistered=True)
    assert [one["path"] for one in check(server.url, "--no-register", "--json").report["exchanges"]] == PATHS[
        1:
    ]


def test_an_invite_code_is_sent(check: Check, server: DevServer) -> None:
    server.settings(invite_only=True, invites=["spring"])
    assert check(server.url).code == 6
    assert check(server.url, "--invite-code", "spring").code == 0


def test_a_path_of_the_url_is_kept(check: Check, server: DevServer) -> None:
    report = check(f"{server.url}/none", "--json").report
    assert [one["path"] for one in report["exchanges"]] == ["/none/auth/register"] * 3


def test_the_time_limit_is_the_transports(
    check: Check, server: DevServer, monkeypatch: pytest.MonkeyPatch
) -> None:
    seen = []

    def made(*, timeout: float) -> Any:
        seen.append(timeout)
        return transport(timeout=timeout)

    monkeypatch.setattr("tessaline._check.transport", made)
    assert check(server.url, "--timeout", "2.5").code == 0
    assert check(server.url, "--timeout", "86400").code == 0
    assert seen == [2.5, 3600.0]


def test_a_key_from_a_variable(
    run: Check, server: DevServer, key: str, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setenv("TESSALINE_TEST_KEY", key)
    assert run(server.url, "--key-variable", "TESSALINE_TEST_KEY").code == 0
    assert "TESSALINE_TEST_KEY" not in os.environ


def test_a_key_from_a_keystore(run: Check, server: DevServer, key: str, tmp_path: Path) -> None:
    password = secrets.token_hex(8)
    store, password_file = tmp_path / "keystore.json", tmp_path / "password"
    store.write_text(json.dumps(Account.encrypt(bytes.fromhex(key), password, kdf="pbkdf2", iterations=2)))
    password_file.touch(0o600)
    password_file.write_text(f"{password}\n")
    done = run(server.url, "--keystore", store, "--password-file", password_file)
    assert (done.code, done.lines("wallet")) == (0, [Account.from_key(key).address.lower()])
    password_file.chmod(0o644)
    done = run(server.url, "--keystore", store, "--password-file", password_file)
    assert done.code == 3
    assert "its mode is 0644" in done.errors
    assert password not in done.errors


def test_a_key_file_of_a_container(check: Check, server: DevServer, key_file: Path) -> None:
    key_file.chmod(0o444)
    assert check(server.url).code == 3
    assert check(server.url, "--readable-by", "all").code == 0
    assert stat.S_IMODE(key_file.stat().st_mode) == 0o444


@pytest.mark.process
def test_as_a_program_of_its_own(server: DevServer, key: str) -> None:
    command = [sys.executable, "-m", "tessaline", "check", server.url, "--key-file", "/dev/stdin"]
    done = subprocess.run(command, input=key, capture_output=True, text=True, timeout=60)
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout.splitlines()[-1].startswith("token")


def test_no_thread_is_left(check: Check, server: DevServer) -> None:
    before = set(threading.enumerate())
    check(server.url)
    assert set(threading.enumerate()) <= before
