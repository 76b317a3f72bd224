"""The access log: a line for each request, on standard error."""

import os
import sys
from datetime import UTC, datetime

# A client chooses the path, and it goes to a terminal.
_LONGEST_PATH = 200


def tell(line: str) -> None:
    """Write a line and flush it; ignores a closed reader."""
    try:
        print(line, file=sys.stderr, flush=True)
    except OSError:
        # Otherwise the flush at exit would fail too, and change the exit code.
        with open(os.devnull, "wb") as nothing:
            os.dup2(nothing.fileno(), sys.stderr.fileno())


def tell_request(
    time: float,
    method: str,
    path: str,
    status: int | None,
    fault: str | None,
    duration: float,
    connection: int,
) -> None:
    """Write the line of a request.

    time: Unix seconds of its arrival. status: of the response, None if there was none. fault: its kind.
    """
    when = datetime.fromtimestamp(time, UTC).isoformat(timespec="milliseconds").replace("+00:00", "Z")
    shown = path if len(path) <= _LONGEST_PATH else f"{path[:_LONGEST_PATH]}..."
    line = f"{when} {method} {shown} {'-' if status is None else status} {duration * 1000:.1f} ms"
    tell(f"{line} connection {connection}" + (f" fault {fault}" if fault is not None else ""))
