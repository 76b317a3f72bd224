"""A limit on the `Retry-After` of a server."""

from __future__ import annotations

import re
from typing import Any

__all__ = ["bounded_answer"]

_FIELD = "retry-after"
_LENGTH = len(_FIELD)
_ANSWERS: tuple[type[Any], ...] = (tuple, list)
# What `int` parses, without its limit on the number of digits. The pattern never backtracks.
_WHOLE_NUMBER = re.compile(r"\s*+\+?0*+((?:_?\d++)*+)\s*+")


def bounded_answer(answer: Any, seconds: int) -> Any:
    """A transport's response with a `Retry-After` of at most `seconds`.

    Args:
        answer: Status, headers and body.
        seconds: The longest `Retry-After`. Only a larger integer is replaced; dates and invalid values, which
            a manager ignores, stay.

    Returns:
        The same object if nothing is replaced.
    """
    # The manager itself rejects what is not a response.
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
    # Preserves the type: a mapping may be case-insensitive, or have a name twice.
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
