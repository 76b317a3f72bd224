"""On a Python with other internals of events, the component waits and wakes by calling their methods."""

from __future__ import annotations

import pytest

from .programs import run

pytestmark = pytest.mark.process

# Before anything imports it.
ANOTHER_THREADING = """
    import importlib.util, sys
    spec = importlib.util.find_spec("threading")
    source = spec.loader.get_source("threading")
    assert {old!r} in source
    sys.modules["threading"] = importlib.util.module_from_spec(spec)
    exec(compile(source.replace({old!r}, {new!r}), "another", "exec"), vars(sys.modules["threading"]))
"""

OTHERS = {
    "the condition": ("_cond", "_condition"),
    "the flag": ("_flag", "_is_now_set"),
    "the waiters": ("_waiters", "_waiting"),
    "the waiters' kind": ("self._waiters = _deque()", "self._waiters = []"),
}

PROGRAM = """
    from tessaline._native import set_event

    event, begun = threading.Event(), threading.Lock()
    def wait():
        begun.release()
        return event.wait(10)
    begun.acquire()
    waiting = Worker(wait)
    begun.acquire()
    set_event(event)
    assert waiting.result() is True and event.is_set()

    service = Service()
    manager = build(service)
    manager.authenticate()
    assert manager.get_token() == service.tokens[0]
    renewing = manager._refresh_thread
    assert renewing.is_alive()
    manager.close()
    until(lambda: not renewing.is_alive(), "the end of the refresh thread")
"""


@pytest.mark.parametrize("other", OTHERS)
def test_events_that_are_kept_otherwise(other: str) -> None:
    old, new = OTHERS[other]
    run(PROGRAM, before=ANOTHER_THREADING.format(old=old, new=new))
