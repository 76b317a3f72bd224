"""The texts of an error or another object, without running code of tests, which may have effects."""

from __future__ import annotations

import traceback
from collections.abc import Iterator
from types import MethodDescriptorType, WrapperDescriptorType
from typing import Any

DEEPEST = 4
NATIVE = (WrapperDescriptorType, MethodDescriptorType)


def chain(error: BaseException) -> Iterator[BaseException]:
    """The error, its causes and contexts."""
    if error.__context__ is None and error.__cause__ is None:
        yield error
        return
    seen: set[int] = set()
    todo: list[BaseException | None] = [error]
    while todo:
        link = todo.pop()
        if link is None or id(link) in seen:
            continue
        seen.add(id(link))
        yield link
        todo += [link.__cause__, link.__context__]


def text_of(error: BaseException) -> str:
    """All texts of the error: its message, arguments, attributes, notes."""
    said = [type(error).__name__, *_plain(error.args, 0), *_plain(error.__dict__, 0)]
    if type(type(error).__str__) in NATIVE and all(map(_is_harmless, error.args)):
        said.append(str(error))
    return " ".join(said)


def rendered(error: BaseException) -> str:
    """The error as it would be printed if unhandled."""
    if all(type(type(link).__str__) in NATIVE and all(map(_is_harmless, link.args)) for link in chain(error)):
        return "".join(traceback.format_exception(error))
    return ""


def shown(value: Any) -> str:
    """`repr` of anything, unless that would run code of the tests."""
    return " ".join(_plain(value, 0))


def _is_harmless(value: Any) -> bool:
    return value is None or type(value) in (str, bytes, int, float, bool)


def _plain(value: Any, depth: int) -> Iterator[str]:
    kind = type(value)
    if kind is str:
        yield value
    elif kind is int:
        # In decimal only within the interpreter's limit.
        yield str(value) if value.bit_length() < 4096 else hex(value)
    elif kind in (tuple, list, set, frozenset, dict):
        if depth < DEEPEST:
            items = value.items() if kind is dict else value
            for item in tuple(items):
                yield from _plain(item, depth + 1)
    elif type(kind.__repr__) in NATIVE:
        yield repr(value)
