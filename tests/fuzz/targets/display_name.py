"""Display names: sent stripped when they keep the rule, refused otherwise; and what the profile answers."""

from __future__ import annotations

import json
import re
from typing import Any

from tessaline import auth

from ..hosted import decoded, manager_over, outcome, text_of

ALLOWED = re.compile(r"[a-zA-Z0-9_\- ]{3,32}")


class Profile:
    """Keeps what it was sent and answers with bytes of the fuzzer's."""

    def __init__(self, status: int, body: bytes) -> None:
        self.status = status
        self.body = body
        self.sent: list[Any] = []

    def __call__(self, method: str, url: str, headers: Any = None, body: Any = None) -> Any:
        assert (method, url) == ("POST", "https://auth.example.test/api/profile/display_name")
        assert headers["Authorization"] == "Bearer the-token"
        self.sent.append(json.loads(body))
        return self.status, {}, self.body


def one_input(data: bytes) -> None:
    """A byte for the status, a line with the name, then the body of the answer."""
    choice, _, rest = data[:1], 0, data[1:]
    first, _, body = rest.partition(b"\n")
    name = text_of(first)
    profile = Profile(400 if choice == b"\1" else 200, body)
    manager = manager_over(profile)
    manager._state, manager._token, manager._token_expiry = "AUTHENTICATED", "the-token", 2e6
    got = outcome(manager.set_display_name, name)

    stripped = name.strip()
    if name and not ALLOWED.fullmatch(stripped):
        assert type(got) is ValueError and str(got) == auth._DISPLAY_NAME_ERR
        assert profile.sent == []
        return
    assert profile.sent == [{"display_name": stripped or None}]
    value = decoded(body)
    if isinstance(value, RecursionError):
        assert type(got) is RecursionError
    elif profile.status == 400:
        check_refusal(got, value)
    else:
        fallback = {"wallet_address": manager.get_wallet_address(), "display_name": stripped}
        assert repr(got) == repr(value if isinstance(value, dict) else fallback)


def check_refusal(got: Any, value: Any) -> None:
    assert type(got) is auth.ProfileError and got.reason == "validation_failed", repr(got)
    message = value.get("error", "") if isinstance(value, dict) else ""
    assert repr(got.message) == repr(message)
