"""Ending well on SIGTERM and Ctrl-C: work in hand is finished, then the wallet's secrets are forgotten.

    def work(keeper: Keeper, stopping: threading.Event) -> None:
        while not stopping.is_set():
            trade_with(keeper.get_token())

    keeper = Keeper(AuthManager(private_key, "https://service.example"))
    sys.exit(run_until_stopped(keeper, work, threads=4, patience=20))

On the signal the threads are asked to stop and get `patience` seconds for what they are doing. Then
`close()` wipes the key and wakes whoever still waits for a token or a login with
`AuthError("manager_closed")`. Choose a patience below that of whoever sends the signal (Kubernetes: 30 s,
systemd: 90 s, Docker: 10 s), who will kill.

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
# For the threads that close() has woken to put their things in order.
FAREWELL_SECONDS = 1.0


def run_until_stopped(
    keeper: Keeper,
    work: Callable[[Keeper, threading.Event], None],
    *,
    threads: int = 1,
    patience: float = 10.0,
) -> int:
    """Log in and run `work` until a signal; to be called on the main thread.

    Args:
        keeper: Not started; closed at the end.
        work: Called on every thread after the login; to return soon after the event is set.
        threads: How many of them.
        patience: Seconds that the threads get to finish once they have been asked to stop.

    Returns:
        The exit status: 0 after a signal, 1 when the login failed for good or a thread ended by itself.
    """
    stopping = threading.Event()
    ended_early = threading.Event()
    receiver, sender = socket.socketpair()
    sender.setblocking(False)

    def watched(call: Callable[[], None]) -> None:
        try:
            call()
        except Exception:
            # Once the keeper may have been closed under it, a failure is nothing new.
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

    # Daemons, so that one which ignores all this cannot keep the program alive.
    calls = [begin, *[lambda: work(keeper, stopping)] * (threads - 1)]
    workers = [threading.Thread(target=watched, args=[call], daemon=True) for call in calls]

    with receiver, sender, _signals_as_bytes(sender), keeper:
        workers[0].start()
        # Other signals that the program handles are told of as well.
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
