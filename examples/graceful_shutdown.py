"""Graceful shutdown on SIGTERM and Ctrl-C: finish the current work, then wipe the wallet's secrets.

    def work(keeper: Keeper, stopping: threading.Event) -> None:
        while not stopping.is_set():
            trade_with(keeper.get_token())

    keeper = Keeper(AuthManager(private_key, "https://service.example"))
    sys.exit(run_until_stopped(keeper, work, threads=4, patience=20))

On the signal the threads are asked to stop and get `patience` seconds to finish. Then
`close()` wipes the key and wakes every thread that still waits for a token or a login with
`AuthError("manager_closed")`. Choose a shorter patience than the sender of the signal (Kubernetes: 30 s,
systemd: 90 s, Docker: 10 s), which then kills the process.

Nothing is done inside a signal handler: it would run on top of whatever the main thread was doing, locks
included. The signals arrive as bytes in a socket that the main thread reads. In asyncio,
`loop.add_signal_handler()` does the same for you.

As a program of its own it keeps one wallet logged in until it is stopped:

    WALLET_KEY=... python graceful_shutdown.py https://service.example
"""

from __future__ import annotations

import contextlib
import signal
import socket
import sys
import threading
import time
import traceback
from collections.abc import Callable, Generator
from types import FrameType

from tessaline.auth import AuthManager
from tessaline.keeper import Keeper
from tessaline.keys import from_environment

STOP_SIGNALS = (signal.SIGTERM, signal.SIGINT)
# For the threads that close() has woken to clean up.
FAREWELL_SECONDS = 1.0


def run_until_stopped(
    keeper: Keeper,
    work: Callable[[Keeper, threading.Event], None],
    *,
    threads: int = 1,
    patience: float = 10.0,
) -> int:
    """Log in and run `work` until a signal; call it on the main thread.

    Args:
        keeper: Not started; closed at the end.
        work: Called on every thread after the login; it should return soon after the event is set.
        threads: The number of threads.
        patience: Seconds that the threads get to finish after they were asked to stop.

    Returns:
        The exit status: 0 after a signal, 1 after a permanent error of the login or if a thread ended early.
    """
    stopping = threading.Event()
    ended_early = threading.Event()
    receiver, sender = socket.socketpair()
    sender.setblocking(False)

    def watched(call: Callable[[], None]) -> None:
        try:
            call()
        except Exception:
            # After the keeper was closed, a failure is expected.
            if not stopping.is_set():
                traceback.print_exc()
        finally:
            if not stopping.is_set():
                ended_early.set()
                sender.send(b"\0")

    def begin() -> None:
        keeper.start()
        for worker in workers[1:]:
            worker.start()
        work(keeper, stopping)

    # Daemon threads, so that one which ignores the event cannot keep the program alive.
    calls = [begin, *[lambda: work(keeper, stopping)] * (threads - 1)]
    workers = [threading.Thread(target=watched, args=[call], daemon=True) for call in calls]

    with receiver, sender, _signals_as_bytes(sender), keeper:
        workers[0].start()
        # Other signals that the program handles arrive here too.
        while receiver.recv(1)[0] not in (0, *STOP_SIGNALS):
            pass
        stopping.set()
        _join(workers, patience)
        keeper.close()
        _join(workers, FAREWELL_SECONDS)
    return 1 if ended_early.is_set() else 0


def _join(workers: list[threading.Thread], seconds: float) -> None:
    deadline = time.monotonic() + seconds
    for worker in workers:
        if worker.is_alive():
            worker.join(max(0.0, deadline - time.monotonic()))


@contextlib.contextmanager
def _signals_as_bytes(sender: socket.socket) -> Generator[None]:
    previous = {number: signal.signal(number, _leave_it_to_the_socket) for number in STOP_SIGNALS}
    previous_descriptor = signal.set_wakeup_fd(sender.fileno())
    try:
        yield
    finally:
        signal.set_wakeup_fd(previous_descriptor)
        for number, handler in previous.items():
            signal.signal(number, handler)


def _leave_it_to_the_socket(_number: int, _frame: FrameType | None) -> None:
    pass


def _stay_logged_in(keeper: Keeper, stopping: threading.Event) -> None:
    print(f"{', '.join(keeper)} has logged in", flush=True)
    stopping.wait()


if __name__ == "__main__":
    wallet = AuthManager(from_environment("WALLET_KEY"), sys.argv[1])
    sys.exit(run_until_stopped(Keeper(wallet), _stay_logged_in))
