"""The fleet as a program: all wallets are named, and those that cannot log in are left out."""

from __future__ import annotations

import secrets
from pathlib import Path

import pytest

from devserver.testing import DevServer
from examples.fleet import __file__ as PROGRAM
from tests.examples.programs import ended, program

WALLETS = 12


@pytest.fixture
def keys(tmp_path: Path) -> Path:
    """A folder with the keys of that many wallets."""
    for number in range(WALLETS):
        file = tmp_path / f"wallet-{number:02}"
        file.write_text(secrets.token_hex(32) + "\n")
        file.chmod(0o600)
    return tmp_path


def test_every_wallet_is_named(server: DevServer, keys: Path) -> None:
    with program(str(PROGRAM), server.url, "--keys", str(keys)) as process:
        status, output, complaints = ended(process)
    assert (status, complaints) == (0, "")
    lines = [line.split() for line in output.splitlines()]
    assert len({address for address, _ in lines}) == WALLETS
    assert {status for _, status in lines} == {"200"}
    assert server.state()["counts"]["verify"] == WALLETS


@pytest.mark.parametrize("refused", [1, 2])
def test_who_is_refused_is_left_out(server: DevServer, keys: Path, refused: int) -> None:
    server.faults("register", [{"kind": "status", "status": 403}] * refused)
    with program(str(PROGRAM), server.url, "--keys", str(keys)) as process:
        status, output, complaints = ended(process)
    assert status == 1
    assert len(output.splitlines()) == WALLETS - refused
    *logged, last = complaints.splitlines()
    assert last == f"{refused} of {WALLETS} wallets are left out"
    # The keeper's log names them.
    named = {line.split(":")[0] for line in logged if "unauthorized" in line}
    assert len(named) == refused
    assert not named & {line.split()[0] for line in output.splitlines()}


def test_an_outage_at_the_start_is_waited_for(server: DevServer, keys: Path) -> None:
    # The first request gets it.
    server.faults("register", [{"kind": "status", "status": 503}])
    with program(str(PROGRAM), server.url, "--keys", str(keys)) as process:
        status, output, _ = ended(process)
    assert (status, len(output.splitlines())) == (0, WALLETS)
