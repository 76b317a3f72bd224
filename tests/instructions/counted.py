"""Runs under callgrind: marks what is counted, by name."""

from __future__ import annotations

import instructions
from tessaline import auth
from tests.shared.good_service import GoodService


def main(calls: int, signatures: int) -> None:
    manager = auth.AuthManager("1" * 64, "https://auth.example.test", _transport=GoodService())
    manager.authenticate()
    empty = instructions.Empty()
    for name, served in (("empty", empty), ("served", manager)):
        instructions.call_method("warm-up", served, "get_token", 1)
        instructions.call_method(name, served, "get_token", calls)
    for size in (32, 16384):
        instructions.bare_signing(f"bare {size}", size, signatures)
        instructions.login_signing(f"signed {size}", size, signatures)
    manager.close()
