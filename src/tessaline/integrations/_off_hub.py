"""A transport whose requests run on another thread: the part common to gevent and eventlet."""

from __future__ import annotations

from collections.abc import Callable, Mapping
from typing import TYPE_CHECKING, Any

if TYPE_CHECKING:
    from tessaline.auth import HttpTransport

__all__ = ["OffHub"]

type _Headers = Mapping[str, str]
type _Answer = tuple[int, _Headers, bytes]


class OffHub:
    """Has `run(call, *arguments)` make each request, and returns or raises its result.

    Args:
        inner: The transport that makes the requests.
        run: Makes the call, on a thread of its choice, and returns its result. The call never raises.
        name: The beginning of the `repr`.
    """

    __slots__ = ("_inner", "_name", "_run")

    def __init__(self, inner: HttpTransport, run: Callable[..., Any], name: str) -> None:
        if not callable(inner):
            raise TypeError(f"inner must be callable or None, not {type(inner).__name__}")
        self._inner, self._run, self._name = inner, run, name

    def __call__(
        self, method: str, url: str, headers: _Headers | None = None, body: str | bytes | None = None
    ) -> _Answer:
        answer: _Answer
        error: BaseException | None
        try:
            answer, error = self._run(_outcome, self._inner, method, url, headers, body)
        finally:
            # Error reports with the variables of the frames must not show a signature.
            del headers, body
        if error is None:
            return answer
        try:
            raise error
        finally:
            del error

    def __repr__(self) -> str:
        return f"{self._name}({self._inner!r})"


def _outcome(
    inner: HttpTransport, method: str, url: str, headers: _Headers | None, body: str | bytes | None
) -> tuple[_Answer | None, BaseException | None]:
    """Response or error, because pools print or lose exceptions of their threads."""
    try:
        return inner(method, url, headers=headers, body=body), None
    except BaseException as error:
        return None, error
    finally:
        del headers, body
