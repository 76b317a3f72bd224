"""Reports to a fuzzer which branches of Python code an input takes."""

from __future__ import annotations

import inspect
import sys
from collections.abc import Callable, Iterator
from types import CodeType, ModuleType

TOOL = 4


def code_of(module: ModuleType) -> Iterator[CodeType]:
    """The code of every function and method that a module itself defines."""
    owners = [module, *(value for value in vars(module).values() if isinstance(value, type))]
    for owner in owners:
        for member in vars(owner).values():
            function = inspect.unwrap(getattr(member, "fget", None) or getattr(member, "__func__", member))
            if inspect.isfunction(function) and function.__module__ == module.__name__:
                yield function.__code__


def count(target: ModuleType, callback: Callable[[CodeType, int, int], None]) -> None:
    """Count the branches of the modules that the target names in TRACED."""
    monitoring = sys.monitoring
    monitoring.use_tool_id(TOOL, "fuzz")
    monitoring.register_callback(TOOL, monitoring.events.BRANCH, callback)
    for module in getattr(target, "TRACED", ()):
        for code in code_of(module):
            monitoring.set_local_events(TOOL, code, monitoring.events.BRANCH)
