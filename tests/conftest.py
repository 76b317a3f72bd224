"""Rules for all tests."""

from __future__ import annotations

from collections.abc import Iterator
from typing import Any

import pytest

pytest_plugins = ["canary.plugin"]

# Folders whose every test runs programs and servers, which are slow.
OF_PROGRAMS = ("tests/examples/", "tests/integrations/")


@pytest.hookimpl(tryfirst=True)  # before plugins that select by the marks
def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    for item in items:
        if any(folder in item.path.as_posix() for folder in OF_PROGRAMS):
            item.add_marker(pytest.mark.process)
            item.add_marker(pytest.mark.timeout(60))
    # First, so that at the end no worker is left alone with one.
    items.sort(key=lambda item: item.get_closest_marker("long") is None)


def _errors_in(value: Any) -> Iterator[BaseException]:
    if isinstance(value, BaseException):
        yield value
    elif isinstance(value, list | tuple):
        for one in value:
            yield from _errors_in(one)


@pytest.fixture(autouse=True)
def parameters_forget(request: pytest.FixtureRequest) -> Iterator[None]:
    """An error that is a parameter would otherwise keep all frames that it was raised through."""
    yield
    call = getattr(request.node, "callspec", None)
    for error in _errors_in(list(call.params.values()) if call else []):
        error.__traceback__ = error.__context__ = error.__cause__ = None
