"""A client that was written in another language from the page of the wire protocol alone logs in."""

from __future__ import annotations

import hashlib
import json
import os
import secrets
import subprocess
from pathlib import Path

import pytest
from eth_account import Account
from eth_account.messages import encode_defunct

from devserver.testing import DevServer

PROGRAM = Path(__file__).with_name("javascript") / "login.mjs"


def log_in(server: DevServer, key: str) -> subprocess.CompletedProcess[str]:
    trust = {} if server.ca_file is None else {"NODE_EXTRA_CA_CERTS": server.ca_file}
    command = ["node", str(PROGRAM), server.url, key]
    return subprocess.run(command, env=os.environ | trust, capture_output=True, text=True, timeout=30)


@pytest.mark.parametrize("tls", [False, True])
def test_it_logs_in(tls: bool) -> None:
    with DevServer(tls=tls) as server:
        for key in ["1".zfill(64), secrets.token_hex(32), secrets.token_hex(32)]:
            ended = log_in(server, key)
            assert ended.returncode == 0, ended.stderr
            told = json.loads(ended.stdout)
            account = Account.from_key(key)
            signature = account.sign_message(encode_defunct(text=told["message"])).signature
            text = "0x" + bytes(signature).hex()
            assert told["signatureHash"] == hashlib.sha256(text.encode()).hexdigest()
            assert (told["wallet_address"], told["sub"]) == (account.address.lower(), account.address)
            assert told["secretBytes"] == 32
        assert server.state()["counts"]["verify"] == 3


def test_it_hears_of_a_refusal() -> None:
    with DevServer(invite_only=True) as server:
        ended = log_in(server, secrets.token_hex(32))
    assert ended.returncode == 1
    assert '/auth/register: 403 {"error":"invite_required"}' in ended.stderr
