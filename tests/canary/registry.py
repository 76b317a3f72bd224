"""What must not appear: every key, token, signature and wallet secret that the suite is known to use."""

from __future__ import annotations

import base64
import contextlib
import re
import weakref
from collections.abc import Iterator
from typing import Any

# That many characters from the beginning or end of a secret are a finding.
WINDOW = 16
# The suite uses keys like "1" * 64 for readability; with so few different characters they are no secrets.
FEWEST_DIFFERENT = 5

HEX = re.compile(r"(?:0[xX])?([0-9a-fA-F]{64,})")
TOKEN = re.compile(r"eyJ[\w-]{8,}\.eyJ[\w-]{8,}")
SIGNATURE = re.compile(r"(?<![0-9a-fA-F])[0-9a-fA-F]{130}(?![0-9a-fA-F])")

findings: list[str] = []
at_rest = False

_planted: set[str | bytes] = set()
_windows: dict[str, str] = {}
_watched: list[weakref.ref[Any]] = []
_seen: set[int] = set()


def plant(kind: str, secret: object) -> None:
    """Search for `secret` (text or bytes) in all its notations from now on; ignores anything else."""
    if at_rest or not isinstance(secret, str | bytes) or secret in _planted:
        return
    _planted.add(secret)
    fresh = [
        window
        for form in _forms(kind, secret)
        for window in _parts("".join(form.split()))
        if window not in _windows
    ]
    if fresh:
        _windows.update(dict.fromkeys(fresh, kind))
        _seen.clear()


@contextlib.contextmanager
def resting() -> Iterator[None]:
    """Nothing is planted or searched for inside, where a test counts the memory in use."""
    global at_rest
    before, at_rest = at_rest, True
    try:
        yield
    finally:
        at_rest = before


def watch(manager: Any) -> Any:
    """At the end of the test, examine what `manager` shows, if it still exists; returns it."""
    # Without dead ones: a test may count what its managers leave behind.
    _watched[:] = [weakref.ref(manager), *(other for other in _watched if other() is not None)]
    return manager


def watched() -> list[Any]:
    """The managers since the last call that are alive."""
    references, _watched[:] = _watched[:], []
    return [manager for reference in references if (manager := reference()) is not None]


@contextlib.contextmanager
def overheard() -> Iterator[list[str]]:
    """Expected findings: they are added to the list, not to the run's findings."""
    global findings
    kept, findings = findings, []
    try:
        yield findings
    finally:
        findings = kept
        # The same text is not found again.
        _seen.clear()


def known(secret: str) -> bool:
    """Whether all of the text has been planted."""
    return all(part in _windows for part in _parts(secret))


def found_in(text: str) -> str | None:
    """The kind of secret of which the text has a part."""
    mark = hash(text)
    if mark in _seen:
        return None
    bare = "".join(text.split())
    if TOKEN.search(text):
        return "token"
    if SIGNATURE.search(text):
        return "signature"
    for start in range(len(bare) - WINDOW + 1):
        if (part := bare[start : start + WINDOW]) in _windows:
            return _windows[part]
    _seen.add(mark)
    return None


def _parts(form: str) -> Iterator[str]:
    for start in (*range(0, len(form) - WINDOW + 1, WINDOW), len(form) - WINDOW):
        part = form[max(start, 0) : start + WINDOW]
        if start >= 0 and len(set(part)) >= FEWEST_DIFFERENT:
            yield part


def _forms(kind: str, secret: str | bytes) -> Iterator[str]:
    if isinstance(secret, bytes):
        yield from _forms_of_bytes(secret)
        return
    yield secret
    if kind == "token":
        yield from secret.split(".")
    elif digits := HEX.fullmatch(secret):
        yield from _forms_of_bytes(bytes.fromhex(digits[1][: len(digits[1]) // 2 * 2]))
        yield base64.b64encode(digits[1].encode()).decode()


def _forms_of_bytes(secret: bytes) -> Iterator[str]:
    yield secret.hex()
    yield secret.hex().upper()
    yield repr(secret)[2:-1]
    yield str(list(secret))[1:-1]
    yield base64.b64encode(secret).decode()
    yield base64.urlsafe_b64encode(secret).decode()
    yield str(int.from_bytes(secret, "big"))
    yield str(int.from_bytes(secret, "little"))
