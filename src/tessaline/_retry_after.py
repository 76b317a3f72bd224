"""A bound on how long a server may silence a manager."""

from __future__ import annotations

import re
from typing import Any

__all__ = ["bounded_answer"]

_FIELD = "retry-after"
_LENGTH = len(_FIELD)
_ANSWERS: tuple[type[Any], ...] = (tuple, list)
# What `int` would read, were it not for its bound on the number of digits. No step of it is tried twice.
_WHOLE_NUMBER = re.compile(r"\s*+\+?0*+((?:_?\d++)*+)\s*+")


def bounded_answer(answer: Any, seconds: int) -> Any:
    """A transport's answer that asks to wait for `seconds` at most.

    Args:
        answer: Status, headers and body.
        seconds: The longest `Retry-After` that is let through. Anything but a larger whole number passes as
            it is: dates and garbage, which a manager ignores, too.

    Returns:
        The same object where there is nothing to bound.
    """
    # What is none is for the manager to refuse.
    if isinstance(answer, _ANSWERS) and len(answer) == 3 and hasattr(answer[1], "items"):
        for name in answer[1]:
            if isinstance(name, str) and len(name) == _LENGTH and name.lower() == _FIELD:
                return _bounded(answer, seconds)
    return answer


def _bounded(answer: Any, seconds: int) -> Any:
    status, headers, body = answer
    long = [name for name, value in headers.items() if _is_field(name) and _is_longer(value, seconds)]
    if not long:
        return answer
    # A mapping that ignores case, or holds a name twice, goes on doing so.
    copied = headers.copy() if hasattr(headers, "copy") else dict(headers.items())
    for name in long:
        copied[name] = str(seconds)
    return status, copied, body


def _is_field(name: Any) -> bool:
    return isinstance(name, str) and name.lower() == _FIELD


def _is_longer(value: Any, seconds: int) -> bool:
    try:
        return int(value) > seconds
    except ValueError:
        return _has_more_digits(value, seconds)
    except (TypeError, OverflowError):
        return False


def _has_more_digits(value: Any, seconds: int) -> bool:
    text = value.decode("latin-1") if isinstance(value, bytes) else value
    found = _WHOLE_NUMBER.fullmatch(text) if isinstance(text, str) else None
    return found is not None and len(found[1].replace("_", "")) > len(str(seconds))
