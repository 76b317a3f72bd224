"""Scripted sources of tokens."""

from __future__ import annotations

import threading

from tests.sanitized import patience


class Source:
    """Returns its tokens one after the other, each until it is refused; the last one for ever."""

    def __init__(self, *tokens: str) -> None:
        self.tokens = list(tokens)
        self.reported: list[str] = []

    def get_token(self) -> str:
        return self.tokens[0]

    def report_refused(self, token: str) -> bool:
        self.reported.append(token)
        if token == self.tokens[0] and len(self.tokens) > 1:
            del self.tokens[0]
        return self.tokens[0] != token


class Moving:
    """Returns another token at each call, and has no `report_refused()`."""

    def __init__(self) -> None:
        self.given = 0

    def get_token(self) -> str:
        self.given += 1
        return f"token-{self.given}"


class Held:
    """Blocks callers until released, and counts them and their threads."""

    def __init__(self) -> None:
        self.asked = threading.Event()
        self.let_go = threading.Event()
        self.threads: list[str] = []

    def get_token(self) -> str:
        self.threads.append(threading.current_thread().name)
        self.asked.set()
        assert self.let_go.wait(patience(20.0))
        return "token"
