"""Errors that are raised to many."""

from __future__ import annotations

import copy


def twin_of[E: BaseException](error: E) -> E:
    """An equal error with a traceback and notes of its own; the same one where it cannot be copied.

    One object raised to many would gather the frames, contexts and notes of all of them.
    """
    try:
        twin = copy.copy(error)
        if type(twin) is not type(error) or twin.args != error.args:
            return error
        notes = getattr(error, "__notes__", None)
        if notes is not None:
            # The copy has the same list.
            twin.__notes__ = list(notes)
    except Exception:
        return error
    twin.__cause__ = error.__cause__
    twin.__context__ = error.__context__
    twin.__suppress_context__ = error.__suppress_context__
    return twin
