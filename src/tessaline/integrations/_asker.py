"""One question at a time to a source of tokens, on a thread that is there only while somebody waits."""

from __future__ import annotations

import contextlib
import threading
from collections.abc import Callable

__all__ = ["Asker"]

_CLOSING_SECONDS = 1.0

type Reply[Answer] = Callable[[Answer | None, Exception | None], None]


class Asker[Answer]:
    """Asks for all that wait; who comes while a question is under way gets the answer to the next one.

    Args:
        question: What is asked. It may block; what it raises is every waiting caller's answer.

    May be used from any thread of the process that made it.
    """

    def __init__(self, question: Callable[[], Answer]) -> None:
        self._question = question
        self._lock = threading.Lock()
        self._waiting: list[Reply[Answer]] = []
        self._thread: threading.Thread | None = None
        self._closed = False

    def ask(self, reply: Reply[Answer]) -> None:
        """Have `reply` called with an answer or an error, once: on the thread, or here if there is none."""
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
        """Answer all that wait with an error, and wait for the question under way: a second at most."""
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
            # Whatever it is, the calls must end: without an answer they would wait for ever.
            except BaseException as error:
                _tell(together, None, RuntimeError(f"the source of tokens raised {type(error).__name__}"))
            else:
                _tell(together, answer, None)


def closed_error() -> Exception:
    """What a closed one answers."""
    return RuntimeError("the credentials are closed")


def _tell[Answer](replies: list[Reply[Answer]], answer: Answer | None, error: Exception | None) -> None:
    for reply in replies:
        # What becomes of one call is not the others' concern.
        with contextlib.suppress(Exception):
            reply(answer, error)
