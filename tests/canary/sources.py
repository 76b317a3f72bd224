"""Where secrets of the suite are created: each is planted there, before anything can show it."""

from __future__ import annotations

import functools
import re
import secrets
from collections.abc import Callable
from pathlib import Path
from typing import Any

import jwt
from eth_account.signers.local import LocalAccount

from .registry import plant

TESTS = Path(__file__).resolve().parents[1]
WRITTEN_KEY = re.compile(r"(?<![0-9a-fA-F])(?:0x)?[0-9a-fA-F]{64}(?![0-9a-fA-F])")


def plant_written_keys() -> None:
    """Every number of 32 bytes in the text of a test."""
    for path in TESTS.rglob("*.py"):
        for number in WRITTEN_KEY.findall(path.read_text()):
            plant("key", number)


def tap(owner: Any, name: str, note: Callable[..., None]) -> None:
    """Call `note` with a function's results and arguments."""
    original = getattr(owner, name)

    @functools.wraps(original)
    def tapped(*args: Any, **kwargs: Any) -> Any:
        result = original(*args, **kwargs)
        note(result, *args)
        return result

    setattr(owner, name, tapped)


def tap_makers() -> None:
    tap(jwt, "encode", lambda token, *_: plant("token", token))
    tap(secrets, "token_hex", lambda text, *_: plant("key", text))
    tap(secrets, "token_bytes", lambda made, *_: plant("key", made))
    tap(LocalAccount, "__init__", lambda _, account, *__: plant("key", bytes(account.key)))
    tap(
        LocalAccount,
        "sign_message",
        lambda signed, *_: plant("signature", "0x" + bytes(signed.signature).hex()),
    )
