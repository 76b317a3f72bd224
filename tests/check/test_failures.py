"""Failed checks: the exit code, and the text on standard error."""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest

import canary
from devserver.testing import DevServer
from tessaline import auth
from tests.transport.raw import RawServer, keep_silent

from .conftest import Check

PERMANENT = "permanent error: a retry fails until something is changed"
TRANSIENT = "transient error: a retry may help"


# 3: the key


def test_a_file_that_others_may_read(check: Check, server: DevServer, key_file: Path) -> None:
    key_file.chmod(0o640)
    done = check(server.url)
    assert done.code == 3
    assert "its mode is 0640, and should be 0600 or 0400" in done.errors
    assert "chmod 600" in done.errors
    assert ", --readable-by says who" in done.errors and "readable_by" not in done.errors
    assert server.requests == []


@pytest.mark.parametrize(
    ("options", "told"),
    [
        (["--key-file", "none/wallet.key"], "FileNotFoundError: "),
        (["--key-file", "/dev/null"], "neither a regular file nor a pipe"),
        (
            ["--key-variable", "TESSALINE_NONE"],
            "KeyError: 'TESSALINE_NONE'\n  there is no environment variable",
        ),
    ],
)
def test_no_key_there(run: Check, server: DevServer, options: list[str], told: str) -> None:
    done = run(server.url, *options)
    assert done.code == 3
    assert done.errors.startswith("failed: ")
    assert told in done.errors
    assert server.requests == []


def test_a_file_without_a_key(check: Check, server: DevServer, key_file: Path, key: str) -> None:
    key_file.write_text(key[:-1])
    done = check(server.url, "--json")
    assert done.code == 3
    error = done.report["error"]
    assert (error["step"], error["type"], error["final"]) == ("key", "InvalidKeyError", True)
    assert error["text"] == "Private key must be 32 bytes (64 hex chars), got 63 hex chars"
    assert f"it was read from the file {key_file}" in error["notes"]
    assert done.report["address"] is None


# 4: the network


def test_nobody_listens(check: Check, unused_port: int) -> None:
    done = check(f"http://127.0.0.1:{unused_port}")
    assert done.code == 4
    assert done.errors.splitlines() == [
        "failed: NetworkError: Server unreachable after 3 attempts",
        "  the last attempt, POST /auth/register, ended in ConnectionRefusedError: it is safe to try again",
        f"  caused by ConnectionRefusedError: [Errno 111] connection refused by 127.0.0.1:{unused_port}",
        "  nothing listens there: check host and port, and whether the server is running",
        f"  {TRANSIENT}",
    ]
    assert len(done.lines("register")) == 3


def test_the_same_failure_as_json(check: Check, unused_port: int) -> None:
    done = check(f"http://127.0.0.1:{unused_port}", "--json")
    error = done.report["error"]
    assert (done.code, done.report["exit_code"], done.report["ok"]) == (4, 4, False)
    assert (error["step"], error["type"], error["final"]) == ("login", "NetworkError", False)
    assert [cause["type"] for cause in error["causes"]] == ["ConnectionRefusedError"]
    assert [one["error"] for one in done.report["exchanges"]] == ["ConnectionRefusedError"] * 3
    assert (done.report["expiry"], done.report["seconds_left"]) == (None, None)


def test_a_name_that_nobody_knows(check: Check) -> None:
    # The resolver itself rejects this name (RFC 6761), so nothing leaves the machine.
    report = check("https://nobody.invalid", "--json").report
    assert report["exit_code"] == 4
    assert report["name"]["addresses"] == [] and report["name"]["error"]
    assert report["tls"]["error"] == "skipped: the name was not resolved"
    notes = [note for cause in report["error"]["causes"] for note in cause["notes"]]
    assert "check the spelling of the host, and this machine's DNS" in notes


def test_a_server_that_is_silent(check: Check, raw: Callable[..., RawServer]) -> None:
    done = check(raw(keep_silent).url, "--timeout", "0.05")
    assert done.code == 4
    assert "ended in TimeoutError" in done.errors


# 5: TLS


def test_an_authority_that_is_not_trusted(check: Check, https_server: DevServer) -> None:
    done = check(https_server.url)
    assert done.code == 5
    assert done.errors.startswith("failed: SSLCertVerificationError: ")
    assert "trusted were the roots in " in done.errors
    assert PERMANENT in done.errors
    assert done.lines("certificate") == []
    (line,) = done.lines("tls")
    assert "unable to get local issuer certificate" in line


def test_no_tls_at_that_port(check: Check, server: DevServer) -> None:
    done = check(server.url.replace("http:", "https:"))
    assert done.code == 5
    assert done.errors.startswith("failed: SSLError: ")


# 6: refused


@pytest.mark.parametrize(
    ("endpoint", "status", "reason"),
    [
        ("register", 400, "invalid_address"),
        ("register", 403, "unauthorized"),
        ("challenge", 401, "unauthorized"),
        ("challenge", 400, "invalid_request"),
        ("verify", 401, "signature_mismatch"),
    ],
)
def test_a_refusal(check: Check, server: DevServer, endpoint: str, status: int, reason: str) -> None:
    server.faults(endpoint, [{"kind": "status", "status": status, "times": None}])
    done = check(server.url, "--json")
    error = done.report["error"]
    assert done.code == 6
    assert (error["type"], error["reason"], error["text"]) == ("AuthError", reason, reason)
    with pytest.raises(auth.AuthError) as caught, auth.AuthManager("1".zfill(64), server.url) as manager:
        manager.authenticate()
    assert error["notes"] == caught.value.__notes__
    assert done.report["exchanges"][-1]["status"] == status
    plain = check(server.url)
    assert plain.errors.splitlines()[0] == f"failed: AuthError: {reason}"
    assert plain.errors.splitlines()[-1] == f"  {PERMANENT}"


def test_an_invitation_is_missing(check: Check, server: DevServer) -> None:
    server.settings(invite_only=True)
    done = check(server.url)
    assert done.code == 6
    assert done.errors.startswith("failed: RegistrationError: invite_required\n")
    assert "pass a code as --invite-code\n" in done.errors and "invite_code" not in done.errors
    assert "as --invite-code" in check(server.url, "--json").report["error"]["notes"][0]


# 7: unexpected responses


@pytest.mark.parametrize(
    ("fault", "kind"),
    [
        ({"kind": "status", "status": 404}, "NetworkError"),
        ({"kind": "status", "status": 503}, "NetworkError"),
        ({"kind": "status", "status": 429, "headers": {"Retry-After": "86400"}}, "NetworkError"),
        ({"kind": "missing_key", "key": "message"}, "KeyError"),
        ({"kind": "set_key", "key": "message", "value": 5}, "TypeError"),
        ({"kind": "non_json"}, "TypeError"),
        ({"kind": "garbage", "body": "no HTTP"}, "BadStatusLine"),
    ],
)
def test_another_service(check: Check, server: DevServer, fault: dict[str, Any], kind: str) -> None:
    server.faults("challenge", [{**fault, "times": None}])
    done = check(server.url, "--json")
    assert (done.code, done.report["error"]["type"]) == (7, kind)
    assert done.report["error"]["notes"]


def test_an_address_that_may_be_wrong_is_not_worth_another_attempt(check: Check, server: DevServer) -> None:
    server.faults("register", [{"kind": "status", "status": 404, "times": None}])
    done = check(server.url)
    assert done.code == 7
    assert done.errors.splitlines()[-1].endswith("check that server_url names the right server")
    assert TRANSIENT not in done.errors


@pytest.mark.parametrize("fault", [{"kind": "wrong_subject"}, {"kind": "bad_token"}])
def test_another_wallets_token(check: Check, server: DevServer, fault: dict[str, Any]) -> None:
    server.faults("verify", [fault])
    done = check(server.url)
    assert done.code == 7
    assert done.errors.startswith("failed: AuthError: wallet_mismatch\n")


# 1 and 130: this process


def test_what_nobody_has_foreseen(check: Check, server: DevServer, monkeypatch: pytest.MonkeyPatch) -> None:
    def transport(*_: object, **__: object) -> object:
        raise MemoryError("none left")

    monkeypatch.setattr("tessaline._check.transport", lambda **_: transport)
    done = check(server.url)
    assert done.code == 1
    assert done.errors.startswith("failed: MemoryError: none left\n")


def test_ctrl_c(check: Check, server: DevServer, monkeypatch: pytest.MonkeyPatch) -> None:
    def transport(*_: object, **__: object) -> object:
        raise KeyboardInterrupt

    monkeypatch.setattr("tessaline._check.transport", lambda **_: transport)
    done = check(server.url)
    assert (done.code, done.errors) == (130, "interrupted\n")


# Texts of the server


def test_a_server_that_gives_secrets_and_controls_back_is_not_repeated(
    check: Check, server: DevServer, monkeypatch: pytest.MonkeyPatch
) -> None:
    def transport(*_: object, **__: object) -> object:
        raise ValueError("not \x1b[31mthis: " + "ab" * 32 + " nor eyJ" + "a" * 20 + ".eyJ" + "b" * 20 + ".c")

    monkeypatch.setattr("tessaline._check.transport", lambda **_: transport)
    with canary.overheard():
        texts = [check(server.url).errors, check(server.url, "--json").report["error"]["text"]]
    for told in texts:
        assert "not \\x1b[31mthis: … nor …" in told
