"""Used by several targets on the Python side."""

from __future__ import annotations

import importlib
import json
import sys
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

from tessaline import auth

ROOT = Path(__file__).resolve().parents[2]
KEY = "8f2a55949038a9610f50fb23b5883af3b4ecb3c3bb792cbcefbd1542c692be63"


def text_of(data: bytes) -> str:
    """Any bytes as a text; invalid UTF-8 becomes lone surrogates."""
    return data.decode("utf-8", "surrogateescape")


def outcome(call: Callable[..., Any], *args: Any, **kwargs: Any) -> Any:
    """The result of a call, or its exception."""
    try:
        return call(*args, **kwargs)
    except Exception as error:
        return error


def chain(error: BaseException) -> Iterator[BaseException]:
    """An exception with its causes and contexts."""
    waiting, seen = [error], set()
    while waiting:
        one = waiting.pop()
        if id(one) in seen:
            continue
        seen.add(id(one))
        yield one
        waiting += [linked for linked in (one.__cause__, one.__context__) if linked is not None]


def words_of(error: BaseException) -> str:
    """All that a report of an exception may show."""
    shown = []
    for one in chain(error):
        shown += [str(one), repr(one), repr(one.args), *getattr(one, "__notes__", ())]
        shown += [f"{value!r}" for name, value in vars(one).items() if name != "message"]
        # Attributes of Python's parser errors.
        shown += [f"{getattr(one, name, '')!r}" for name in ("doc", "object")]
    return "\n".join(shown)


def load_rooms() -> Any:
    """`http/` and `wallet/` as a module, from the build tree of the component."""
    package = Path(auth.__file__).resolve().parents[1]
    tree = package.parent if package.name == "package" else ROOT / "build/release"
    folder = str(tree / "tests/fuzz")
    if folder not in sys.path:
        sys.path.append(folder)
    return importlib.import_module("fuzz_rooms")


def manager_over(transport: Callable[..., Any], **options: Any) -> Any:
    return auth.AuthManager(
        KEY, "https://auth.example.test", _transport=transport, clock=lambda: 1e6, **options
    )


def decoded(body: bytes) -> Any:
    """The value of a body; a text if it is not JSON."""
    if not body:
        return None
    try:
        return json.loads(body)
    except RecursionError as error:
        return error
    except ValueError:
        return body.decode("utf-8", "replace")
