"""A program that exits, in some way, while the component is busy with something; test_exit.py runs it.

Arguments: the scenario, the way to end, and a JSON object with the servers' URLs and the CA to trust.
The last line of output is the monotonic time from which the program had nothing left to do.
"""

from __future__ import annotations

import atexit
import json
import multiprocessing
import os
import signal
import sys
import time
import warnings
from typing import Any

from tessaline import auth

from . import main_thread, scenarios
from .surroundings import CONFIG, DEADLINE, KEPT, print_time

WORDS = "what the program itself has to say"


def managers() -> list[Any]:
    return [one for one in KEPT if isinstance(one, auth.AuthManager)]


def falling_off() -> None:
    print_time()


def calling_exit() -> None:
    print_time()
    sys.exit(0)


def closing_at_exit() -> None:
    atexit.register(lambda: [manager.close() for manager in managers()])
    print_time()


def raising() -> None:
    print_time()
    raise RuntimeError(WORDS)


def leaving_at_once() -> None:
    print_time()
    os._exit(0)


def terminated() -> None:
    os.kill(os.getpid(), signal.SIGTERM)
    raise AssertionError("the signal's handler has not ended the program")


def forked() -> None:
    """The child exits as programs do, after using what it inherited; then this one does."""
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", DeprecationWarning)
        child = os.fork()
    if child == 0:
        for manager in managers():
            manager.get_wallet_address()
        return
    limit = time.monotonic() + DEADLINE
    while (ended := os.waitpid(child, os.WNOHANG)) == (0, 0):
        if time.monotonic() > limit:
            os.kill(child, signal.SIGKILL)
            os.waitpid(child, 0)
            raise AssertionError("the child does not end")
        time.sleep(0.001)
    assert os.waitstatus_to_exitcode(ended[1]) == 0
    print_time()


def use_in_worker() -> None:
    for manager in managers():
        manager.get_wallet_address()


def forked_by_multiprocessing() -> None:
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", DeprecationWarning)
        workers = [multiprocessing.get_context("fork").Process(target=use_in_worker) for _ in range(2)]
        for worker in workers:
            worker.start()
    for worker in workers:
        worker.join(DEADLINE)
        assert worker.exitcode == 0
    print_time()


def exit_on_signal(*_: Any) -> None:
    print_time()
    sys.exit(0)


ENDINGS = {
    ending.__name__: ending
    for ending in (
        falling_off,
        calling_exit,
        closing_at_exit,
        raising,
        leaving_at_once,
        terminated,
        forked,
        forked_by_multiprocessing,
    )
}


def main() -> None:
    scenario, ending, config = sys.argv[1:]
    CONFIG.update(json.loads(config))
    signal.signal(signal.SIGTERM, exit_on_signal)
    if ending == "in_the_main_thread":
        main_thread.SCENARIOS[scenario]()
        raise AssertionError("what the main thread does has not ended the program")
    scenarios.SCENARIOS[scenario]()
    ENDINGS[ending]()


if __name__ == "__main__":
    main()
