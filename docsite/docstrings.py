"""Joins what the reference is made of: names and types from the stub, docstrings from the built module."""

from __future__ import annotations

import importlib
import inspect
from typing import Any

import griffe


class RuntimeDocstrings(griffe.Extension):
    """Gives what a stub declares the docstring that `help()` shows."""

    def on_object(self, *, obj: griffe.Object, **_: Any) -> None:
        # A constant, or an initialiser without one of its own, would answer with the docstring of its type.
        if obj.is_attribute or obj.name.startswith("__") or obj.docstring is not None:
            return
        if not str(obj.filepath).endswith(".pyi"):
            return
        found: Any = importlib.import_module(obj.module.path)
        for name in obj.path.removeprefix(obj.module.path).split(".")[1:]:
            found = getattr(found, name, None)
        if text := inspect.getdoc(found):
            obj.docstring = griffe.Docstring(text, parent=obj, parser=griffe.Parser.google)
