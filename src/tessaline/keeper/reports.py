"""Reports a wallet's events to the log and to the program."""

from __future__ import annotations

import contextlib
import logging
from collections.abc import Callable, Iterable
from dataclasses import fields
from typing import Final

from tessaline.auth import AuthError
from tessaline.errors import MANAGER_CLOSED

from .status import KeeperEvent

logger: Final = logging.getLogger("tessaline.keeper")

_LONGEST: Final = 500

# Log records have the other two themselves.
_FIELDS: Final = [field.name for field in fields(KeeperEvent) if field.name not in ("level", "message")]


class Reports:
    """Logs events and passes them to the program. Called without any lock, on the thread that caused them.

    Args:
        on_event: The program's callback, or None.
    """

    def __init__(self, on_event: Callable[[KeeperEvent], object] | None) -> None:
        self._on_event = on_event
        self._told_once: set[str] = set()

    def send(self, events: Iterable[KeeperEvent]) -> None:
        for event in events:
            # A filter or handler of the program that raises must not stop the keeper.
            with contextlib.suppress(Exception):
                _log(event)
            self._tell(event)

    def step_failed(self, failure: BaseException) -> None:
        with contextlib.suppress(BaseException):
            logger.error("a step of the keeper has failed; the keeper continues: %s", detail_of(failure))

    def clock_failed(self, failure: Exception) -> None:
        self._error_once("a manager's clock has failed; this is logged once: %s", detail_of(failure))

    def _tell(self, event: KeeperEvent) -> None:
        if self._on_event is None:
            return
        try:
            self._on_event(event)
        except (Exception, SystemExit):
            self._error_once("on_event has raised; this is logged once", exc_info=True)

    def _error_once(self, message: str, *arguments: object, exc_info: bool = False) -> None:
        if message in self._told_once:
            return
        self._told_once.add(message)
        with contextlib.suppress(Exception):
            logger.error(message, *arguments, exc_info=exc_info)


def _log(event: KeeperEvent) -> None:
    if not logger.isEnabledFor(event.level):
        return
    extra: dict[str, object] = {f"tessaline_{name}": getattr(event, name) for name in _FIELDS}
    extra["tessaline_event"] = event
    logger.log(event.level, "%s: %s", event.address, event.message, extra=extra)


def with_note(error: Exception, note: str) -> Exception:
    """Add the note to the error, unless it has it, and return the error."""
    if note not in getattr(error, "__notes__", ()):
        error.add_note(note)
    return error


def closed_error() -> Exception:
    """The error of every use of a closed keeper."""
    return with_note(AuthError(reason=MANAGER_CLOSED), "the keeper is closed: create a new one")


def words_of(error: BaseException) -> str:
    """The message of an error, of an `AuthError` the reason; limited, as it may quote a server."""
    return _plain(lambda: str(error)) or type(error).__name__


def detail_of(error: BaseException) -> str:
    """The same with its type and notes, for the log."""
    words = f"{type(error).__name__}: {words_of(error)}"
    notes = _plain(lambda: "; ".join(map(str, getattr(error, "__notes__", ()))))
    return f"{words} ({notes})"[:_LONGEST] if notes else words


def _plain(text_of: Callable[[], str]) -> str:
    """A text on one line, with a limited length; empty if making it raises."""
    try:
        text = text_of()
    except Exception:
        return ""
    return "".join(character if character.isprintable() else "?" for character in text)[:_LONGEST]


def duration(seconds: float) -> str:
    return f"{seconds / 3600:.1f} h" if seconds >= 3600 else f"{seconds / 60:.0f} min"
