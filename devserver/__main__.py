"""``python -m devserver``."""

import contextlib
import socket
import sys

from .options import Options, parse


def main() -> int:
    """Serve until stopped; returns the process's exit code."""
    options = parse()
    try:
        with _listen(options, options.port) as listener, _listen_at_gate(options) as gate_listener:
            # Imported late, because it takes most of a second: errors so far are reported at once.
            from .server import run

            run(options, listener, gate_listener)
    except OSError as error:
        print(f"devserver: cannot serve on {options.host} port {options.port}: {error}", file=sys.stderr)
        return 1
    return 0


def _listen_at_gate(options: Options) -> contextlib.AbstractContextManager[socket.socket | None]:
    return _listen(options, 0) if options.gate else contextlib.nullcontext()


def _listen(options: Options, port: int) -> socket.socket:
    family = socket.AF_INET6 if ":" in options.host else socket.AF_INET
    return socket.create_server((options.host, port), family=family, backlog=512)


if __name__ == "__main__":
    sys.exit(main())
