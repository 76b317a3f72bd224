"""One call of a source of tokens at a time, on a thread that exists only while callers wait."""

from __future__ import annotations

import contextlib
import threading
from collections.abc import Callable

__all__ = ["Asker"]

_CLOSING_SECONDS = 1.0

type Reply[Answer] = Callable[[Answer | None, Exception | None], None]


class Asker[Answer]:
    """Makes one call for all that wait; who arrives during a call gets the result of the next one.

    Args:
        question: The call. It may block; every waiting caller gets what it returns or raises.

    May be used from any thread of the process that made it.
    """

    def __init__(self, question: Callable[[], Answer]) -> None:
        self._question = question
        self._lock = threading.Lock()
        self._waiting: list[Reply[Answer]] = []
        self._thread: threading.Thread | None = None
        self._closed = False

    def ask(self, reply: Reply[Answer]) -> None:
        """Have `reply` called once with the result or an error: on the thread, or here if there is none."""
        failed: Exception | None = None
        with self._lock:
            together = [reply]
            if self._closed:
                failed = closed_error()
            else:
                self._waiting.append(reply)
                if self._thread is None:
                    try:
                        self._thread = threading.Thread(target=self._run, name="wallet-token", daemon=True)
                        self._thread.start()
                    except (RuntimeError, MemoryError) as error:
                        failed, self._thread = error, None
                        together, self._waiting = self._waiting, []
        if failed is not None:
            _tell(together, None, failed)

    def close(self) -> None:
        """Give all waiting callers an error, and wait at most a second for the current call."""
        with self._lock:
            self._closed = True
            together, self._waiting = self._waiting, []
            thread = self._thread
        _tell(together, None, closed_error())
        if thread is not None and thread is not threading.current_thread():
            thread.join(_CLOSING_SECONDS)

    def _run(self) -> None:
        while True:
            with self._lock:
                together, self._waiting = self._waiting, []
                if not together:
                    self._thread = None
                    return
            try:
                answer = self._question()
            except Exception as error:
                _tell(together, None, error)
            # Whatever it is: without a reply the callers would wait for ever.
            except BaseException as error:
                _tell(together, None, RuntimeError(f"the source of tokens raised {type(error).__name__}"))
            else:
                _tell(together, answer, None)


def closed_error() -> Exception:
    """The error of a closed one."""
    return RuntimeError("the credentials are closed")


def _tell[Answer](replies: list[Reply[Answer]], answer: Answer | None, error: Exception | None) -> None:
    for reply in replies:
        # A reply that fails must not affect the others.
        with contextlib.suppress(Exception):
            reply(answer, error)
