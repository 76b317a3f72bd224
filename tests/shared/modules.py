"""Replacements of modules."""

from __future__ import annotations

from types import ModuleType
from typing import Any


class StandIn:
    """A module with some of its names replaced."""

    def __init__(self, module: ModuleType | StandIn, **replaced: Any) -> None:
        self.__dict__.update(replaced, _module=module)

    def __getattr__(self, name: str) -> Any:
        return getattr(self.__dict__["_module"], name)
