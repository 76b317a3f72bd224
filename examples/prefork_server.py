"""A prefork server: one login before the fork, and children that all go on with it.

    def work(listener: socket.socket, manager: AuthManager) -> None: ...   # what a child does

    manager = AuthManager(private_key, "https://service.example")
    manager.authenticate()
    sys.exit(run_children(4, lambda: work(listener, manager)))

A manager that has logged in goes on in a forked child: it serves the token at once, over connections of
the child's own, and the child renews it for itself. The same holds under gunicorn with `preload_app =
True` and in a `multiprocessing` pool with the "fork" method. An era must be announced in every process
that has a manager.

As a program of its own it is a small gateway, in which browsers name the wallet without ever seeing its
token: `GET /` tells which child answers, `POST /name` sets the wallet's display name to the text in the
body.

    TESSALINE_PRIVATE_KEY=... python prefork_server.py https://service.example --port 8000 --children 4
"""

from __future__ import annotations

import argparse
import json
import os
import signal
import socket
import sys
import traceback
import warnings
from collections.abc import Callable
from http import HTTPStatus
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from types import FrameType
from typing import Any, NoReturn, cast

from tessaline.auth import AuthError, AuthManager, NetworkError, ProfileError

STOP_SIGNALS = (signal.SIGTERM, signal.SIGINT)


def run_children(count: int, work: Callable[[], None]) -> int:
    """Run `work` in `count` forked children until a signal, or until one of them ends; then end them all.

    Call it on the main thread of a program without other children. SIGTERM leaves `work` as SystemExit, so
    that `with` and `finally` do their part. To start again after a failure is for the program's supervisor.

    Returns:
        The exit status: 0 after a signal if all children ended well, else 1.
    """
    # The manager mends in the child what its threads left behind: no deadlock threatens here.
    warnings.filterwarnings("ignore", "This process .* is multi-threaded", DeprecationWarning)
    children: list[int] = []
    stopping = False

    def stop(_number: int | None = None, _frame: FrameType | None = None) -> None:
        nonlocal stopping
        stopping = True
        for child in children:
            os.kill(child, signal.SIGTERM)

    for number in STOP_SIGNALS:
        signal.signal(number, stop)
    for _ in range(count):
        child = os.fork()
        if child == 0:
            _be_a_child(work, lambda: stopping)
        children.append(child)
    if stopping:
        stop()
    # The one that ends first is not collected yet: until then its number stays its own.
    os.waitid(os.P_ALL, 0, os.WEXITED | os.WNOWAIT)
    failed = not stopping
    stop()
    statuses = [os.waitpid(child, 0)[1] for child in children]
    children.clear()
    return 1 if failed or any(statuses) else 0


def _be_a_child(work: Callable[[], None], stopping: Callable[[], bool]) -> NoReturn:
    status = 1
    try:
        # Ctrl-C reaches all processes of a terminal; the parent alone decides.
        signal.signal(signal.SIGINT, _stay)
        signal.signal(signal.SIGTERM, _leave)
        if not stopping():
            work()
            print("a child has ended by itself", file=sys.stderr)
    except SystemExit:
        status = 0
    except BaseException:
        traceback.print_exc()
    finally:
        # What the parent has to do at its end is not for the child to do.
        sys.stderr.flush()
        os._exit(status)


def _leave(_number: int, _frame: FrameType | None) -> NoReturn:
    # A second signal changes nothing. SIG_IGN would have Python complain of one that is already on its way.
    signal.signal(signal.SIGTERM, _stay)
    raise SystemExit


def _stay(_number: int, _frame: FrameType | None) -> None:
    pass


class Gateway(ThreadingHTTPServer):
    """A child's server on the socket that all children share; left, it finishes the requests in hand."""

    daemon_threads = False

    def __init__(self, listener: socket.socket, manager: AuthManager) -> None:
        super().__init__(listener.getsockname(), Answer, bind_and_activate=False)
        self.socket.close()
        self.socket = listener
        self.manager = manager


class Answer(BaseHTTPRequestHandler):
    """One request to the gateway."""

    timeout = 10

    @property
    def _manager(self) -> AuthManager:
        return cast(Gateway, self.server).manager

    def do_GET(self) -> None:
        self._send(HTTPStatus.OK, {"child": os.getpid(), "wallet": self._manager.get_wallet_address()})

    def do_POST(self) -> None:
        name = self.rfile.read(int(self.headers.get("Content-Length", 0))).decode()
        try:
            self._send(HTTPStatus.OK, self._manager.set_display_name(name))
        except (ValueError, ProfileError) as error:
            self._send(HTTPStatus.BAD_REQUEST, {"error": str(error)})
        except (AuthError, NetworkError) as error:
            self._send(HTTPStatus.BAD_GATEWAY, {"error": str(error)})

    def _send(self, status: HTTPStatus, body: dict[str, Any]) -> None:
        text = json.dumps(body).encode()
        self.send_response(status)
        self.send_header("Content-Type", "application/json")
        self.send_header("Content-Length", str(len(text)))
        self.end_headers()
        self.wfile.write(text)

    def log_message(self, format: str, *args: object) -> None:
        """A gateway in front of this one keeps the log."""


def serve(listener: socket.socket, manager: AuthManager) -> None:
    """What each child does until it is told to end."""
    with manager, Gateway(listener, manager) as gateway:
        gateway.serve_forever()


def main() -> int:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("server_url")
    parser.add_argument("--port", type=int, default=8000, help="0 for any; it is printed")
    parser.add_argument("--children", type=int, default=2)
    options = parser.parse_args()
    with AuthManager(os.environ.pop("TESSALINE_PRIVATE_KEY"), options.server_url) as manager:
        manager.authenticate()
        with socket.create_server(("127.0.0.1", options.port)) as listener:
            # A connection wakes all children, and those that come too late must not wait for the next.
            listener.setblocking(False)
            print(f"http://127.0.0.1:{listener.getsockname()[1]}", flush=True)
            return run_children(options.children, lambda: serve(listener, manager))


if __name__ == "__main__":
    sys.exit(main())
