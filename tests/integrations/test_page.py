"""The page on integrations: its blocks run in order, against the development server."""

from __future__ import annotations

import secrets
from typing import Any

import pytest

from devserver.testing import DevServer
from tests.docs.pages import DOCS, code_blocks, run

PAGE = DOCS / "integrations.md"


def test_its_blocks_run(server: DevServer, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("WALLET_KEY", secrets.token_hex(32))
    names: dict[str, Any] = {}
    blocks = code_blocks(PAGE)
    assert len(blocks) == 5
    try:
        for block in blocks:
            run(block, names, block.text.replace("https://service.example", server.url))
    finally:
        names["keeper"].close()
    asked = [entry for entry in server.requests if entry["path"] == "/api/orders"]
    assert len(asked) == 1 + 1 + 100 + 1
    assert all("authorization" in entry["header_names"] for entry in asked)
    assert server.state()["counts"]["verify"] == 1
    assert names["auth"]._source.get_token() == "token"
