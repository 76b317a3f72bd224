"""If a library of green threads makes the locks of `threading`, no thread waits for the interpreter's own."""

from __future__ import annotations

import importlib.util
import subprocess
import sys
import textwrap

import pytest

from tests.sanitized import moves_stacks, patience
from tests.shared.pythons import looks_inside

pytestmark = [pytest.mark.process, moves_stacks]

# The relevant part of what eventlet does: it keeps the class of events, but replaces their locks.
GREEN = """
    class GreenLock:
        def __init__(self):
            self.inner = plain()
        def acquire(self, blocking=True, timeout=-1):
            return self.inner.acquire(blocking, timeout)
        def release(self):
            self.inner.release()
        def locked(self):
            return self.inner.locked()
        def __enter__(self):
            return self.acquire()
        def __exit__(self, *_):
            self.release()

    plain = threading._allocate_lock
    threading._allocate_lock = threading.Lock = GreenLock
"""

BEGIN = """
    from tests.process import recursion
    def held(*arguments, **options):
        entered.set()
        assert leave.wait(20)
        return recursion.transport(*arguments, **options)
    entered, leave = threading.Event(), threading.Event()
    manager = recursion.manager()
"""

# The event of a login, while another thread waits for its outcome.
WAIT = """
    manager._transport = held
    running = threading.Thread(target=manager.authenticate)
    running.start()
    assert entered.wait(20)
    event = manager._auth_event
    waiting = threading.Thread(target=manager.authenticate)
    waiting.start()
    limit = time.monotonic() + 20
    while not event._cond._waiters:
        assert time.monotonic() < limit
        time.sleep(0.001)
    (waiter,) = event._cond._waiters
    print(type(event._cond._lock).__name__, type(waiter).__name__, type(manager._lock).__name__)
    leave.set()
    running.join(20)
    waiting.join(20)
    assert manager._token and not running.is_alive() and not waiting.is_alive()
    manager.close()
"""

# Waiting for a renewal does not block the greenlet that makes it.
HUB = """
    import eventlet
    now = [0.0]
    def slow(*arguments, **options):
        eventlet.sleep(0.002)
        return recursion.transport(*arguments, **options)
    manager._clock = lambda: now[0]
    manager.authenticate()
    manager._transport = slow
    old = manager._auth_time
    now[0] = manager._refresh_at + 1.0
    with eventlet.Timeout(5):
        manager.get_token()
    print(manager._auth_time > old)
    manager.close()
"""


def output_of(*parts: str) -> str:
    program = "import threading, time\n" + "".join(textwrap.dedent(part) for part in parts)
    done = subprocess.run(
        [sys.executable, "-W", "ignore", "-X", "faulthandler", "-c", program],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=patience(60.0),
    )
    assert (done.returncode, done.stderr) == (0, "")
    return done.stdout.strip()


@pytest.mark.parametrize(
    ("parts", "kinds"),
    [
        ((BEGIN, WAIT), "lock lock lock"),
        ((GREEN, BEGIN, WAIT), "GreenLock GreenLock GreenLock"),
        ((BEGIN, GREEN, WAIT), "GreenLock GreenLock lock"),
    ],
    ids=["never", "before the import", "after the import"],
)
def test_locks_replaced(parts: tuple[str, ...], kinds: str) -> None:
    assert output_of(*parts) == kinds


@looks_inside
def test_an_event_that_is_older_than_the_green_locks() -> None:
    program = """
        import tessaline.auth
        from tessaline._native import set_event
        old = threading.Event()
        asked = []
        old._cond.notify_all = lambda: asked.append(None)
        set_event(old)
        print(old.is_set(), asked, end=" ")
    """
    again = """
        old.clear()
        set_event(old)
        print(old.is_set(), asked)
    """
    assert output_of(program, GREEN, again) == "True [] True [None]"


@pytest.mark.parametrize("first", ["import tessaline.auth\n", ""], ids=["after the import", "before it"])
def test_eventlet(first: str) -> None:
    # The import changes the process.
    if importlib.util.find_spec("eventlet") is None:
        pytest.skip("eventlet is not installed")
    patch = "import eventlet\neventlet.monkey_patch()\n"
    assert output_of(first, patch, BEGIN, HUB) == "True"
