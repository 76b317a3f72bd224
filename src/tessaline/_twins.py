"""Errors that are raised in several threads or tasks."""

from __future__ import annotations

import copy


def twin_of[E: BaseException](error: E) -> E:
    """A copy of the error with its own traceback and notes; the error itself if it cannot be copied.

    One object raised several times would accumulate the frames, contexts and notes of all callers.
    """
    try:
        twin = copy.copy(error)
        if type(twin) is not type(error) or twin.args != error.args:
            return error
        notes = getattr(error, "__notes__", None)
        if notes is not None:
            # The copy shares the list.
            twin.__notes__ = list(notes)
    except Exception:
        return error
    twin.__cause__ = error.__cause__
    twin.__context__ = error.__context__
    twin.__suppress_context__ = error.__suppress_context__
    return twin
