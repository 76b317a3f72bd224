"""A user's program: it logs in, renews, follows an era, is interrupted by Ctrl-C, and closes.

Needs only the wheel, is passed as text, and trusts what the system trusts. Argument: the URL of a development
server that nothing else uses.
"""

import json
import os
import re
import secrets
import signal
import socket
import subprocess
import sys
import threading
import time
from collections.abc import Callable

from tessaline import _native, auth

DEADLINE = 60.0
PAST_REFRESH = 80_000.0


def until(condition: Callable[[], object]) -> None:
    limit = time.monotonic() + DEADLINE
    while not condition():
        assert time.monotonic() < limit, "it did not come about"
        time.sleep(0.005)


def live(url: str) -> None:
    ahead = [0.0]
    manager = auth.AuthManager(secrets.token_hex(32), url, clock=lambda: time.time() + ahead[0])
    with manager:
        manager.authenticate()
        tokens = {manager.get_token()}
        ahead[0] += PAST_REFRESH
        until(lambda: manager.get_token() not in tokens)
        tokens.add(manager.get_token())
        told = {"Content-Type": "application/json"}
        assert auth._default_http_transport("POST", f"{url}/_control/settings", told, '{"era": 2}')[0] == 200
        manager.notify_era_change(2)
        until(lambda: manager.get_token() not in tokens)
    try:
        manager.get_token()
    except auth.AuthError as error:
        assert error.reason == "manager_closed"
    else:
        raise AssertionError("a closed manager gives tokens")


def interrupt() -> None:
    """By Python's handler for Ctrl-C, while a server does not respond."""
    with socket.create_server(("127.0.0.1", 0)) as silent:

        def press() -> None:
            connection, _ = silent.accept()
            with connection:
                assert connection.recv(1)
                os.kill(os.getpid(), signal.SIGINT)
                ended.wait(DEADLINE)

        ended = threading.Event()
        presser = threading.Thread(target=press, daemon=True)
        presser.start()
        try:
            auth._default_http_transport("GET", f"http://127.0.0.1:{silent.getsockname()[1]}/")
        except KeyboardInterrupt:
            ended.set()
        assert ended.is_set(), "Ctrl-C does not end a request"
        presser.join(DEADLINE)


def c_library() -> str:
    """Its name and version."""
    try:
        return str(os.confstr("CS_GNU_LIBC_VERSION"))
    except OSError:
        # musl knows the name, and has no value.
        pass
    said = subprocess.run(
        [f"/lib/ld-musl-{os.uname().machine}.so.1"], capture_output=True, text=True, timeout=DEADLINE
    ).stderr
    (version,) = re.findall(r"^Version (\S+)$", said, re.MULTILINE)
    return f"musl {version}"


def main() -> None:
    live(sys.argv[1])
    # The parent process may ignore Ctrl-C, which is inherited.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    interrupt()
    print(json.dumps([_native.bundled, sys.version.split()[0], c_library()]))


if __name__ == "__main__":
    main()
