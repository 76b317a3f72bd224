"""Whether an error shows a secret: in its texts, or in the variables of the package's own frames."""

from __future__ import annotations

import traceback
from types import ModuleType

from canary.telling import chain, text_of
from tessaline import _private_file, keys

MODULES: list[ModuleType] = [keys, _private_file]


def shows(error: BaseException, secret: str) -> bool:
    """Searches for the secret and its halves."""
    half = len(secret) // 2
    parts = [secret, secret[:half], secret[half:]]
    told = "".join(map(_told_by, chain(error)))
    return any(part.lower() in told.lower() for part in parts)


def _told_by(error: BaseException) -> str:
    files = {module.__file__ for module in MODULES}
    frames = [frame for frame, _ in traceback.walk_tb(error.__traceback__)]
    variables = [repr(frame.f_locals) for frame in frames if frame.f_code.co_filename in files]
    printed = "".join(traceback.format_exception(error))
    return " ".join([text_of(error), printed, str(error), repr(error), repr(vars(error)), *variables])
