"""Threads that cannot be started, and a signal during a start: the keeper continues when it can."""

from __future__ import annotations

import threading
from collections.abc import Callable
from typing import Any

import pytest

from tests.contract.support.threads import ThreadCensus
from tests.shared.clocks import HandClock
from tests.shared.threads import until

from .support import programs
from .support.driving import Heard, has_failed, pass_time, to_next_attempt
from .support.looks import SCHEDULER
from .support.service import LIFETIME, LOGIN_THREAD, Service

RENEWAL = 0.63 * LIFETIME + 1
LACKS = [MemoryError(), RuntimeError("can't start new thread")]


@pytest.fixture
def lack(monkeypatch: pytest.MonkeyPatch) -> dict[str, BaseException]:
    """By the name of a thread: what its start raises."""
    lacking: dict[str, BaseException] = {}
    genuine = threading.Thread.start

    def start(self: threading.Thread) -> None:
        if self.name in lacking:
            raise lacking[self.name]
        genuine(self)

    monkeypatch.setattr(threading.Thread, "start", start)
    return lacking


@pytest.mark.parametrize("error", LACKS, ids=repr)
def test_no_thread_for_a_login(
    error: BaseException,
    make_keeper: Callable[..., Any],
    service: Service,
    clock: HandClock,
    heard: Heard,
    lack: dict[str, BaseException],
    census: ThreadCensus,
) -> None:
    keeper = make_keeper(2)
    keeper.start()
    census.settle(1, "the scheduler alone")
    lack[LOGIN_THREAD] = error
    clock.now += RENEWAL
    has_failed(keeper)
    assert keeper.status().reason == (str(error) or type(error).__name__)
    to_next_attempt(keeper, clock)
    heard.wait_for("attempt failed", 3)
    assert len(service.granted) == 2
    lack.clear()
    pass_time(keeper, clock, 10.0)
    assert keeper.status().failures == 0
    assert [keeper[one].get_token(timeout=0) for one in keeper] == [service.newest(one) for one in keeper]
    assert len(service.granted) == 4


@pytest.mark.parametrize("error", LACKS, ids=repr)
def test_no_thread_at_the_start(
    error: BaseException, make_keeper: Callable[..., Any], service: Service, lack: dict[str, BaseException]
) -> None:
    keeper = make_keeper()
    lack[SCHEDULER] = error
    with pytest.raises(type(error)):
        keeper.start()
    lack.clear()
    # A call for a token starts another one.
    assert keeper.get_token() == service.granted[0].token
    keeper.start()
    assert len(service.granted) == 1


@pytest.mark.parametrize("error", LACKS, ids=repr)
def test_nothing_fails_where_no_thread_can_be_started_for_who_asks(
    error: BaseException, make_keeper: Callable[..., Any], service: Service, lack: dict[str, BaseException]
) -> None:
    keeper = make_keeper()
    lack[SCHEDULER] = error
    with pytest.raises(type(error)):
        keeper.start()
    with pytest.raises(Exception, match="not_authenticated"):
        keeper.get_token(timeout=0)
    service.era = 2
    keeper.notify_era_change(2)
    lack.clear()
    keeper.start()
    assert keeper.get_token(timeout=0) == service.granted[0].token
    until(lambda: keeper.status().state == "good", "a good keeper")


LACKING = """
lacking = []
genuine = threading.Thread.start
def start(self):
    if lacking and self.name.startswith("tessaline"):
        raise lacking[0]
    genuine(self)
threading.Thread.start = start
"""


@pytest.mark.process
@pytest.mark.parametrize("error", ["MemoryError()", "RuntimeError('no thread')"])
def test_no_thread_in_a_child_at_the_fork(error: str) -> None:
    program = f"""
        keepers = [Keeper(manager(service, clock, number)) for number in range(3)]
        for keeper in keepers:
            keeper.start()
        lacking.append({error})
        def child():
            assert all(keeper.get_token(timeout=0) for keeper in keepers)
            lacking.clear()
            clock.now += LIFETIME
            for keeper in keepers:
                assert keeper.get_token() == service.granted[-1].token
                keeper.close()
        in_child(child)
        lacking.clear()
        clock.now += LIFETIME
        for keeper in keepers:
            assert keeper.get_token()
            keeper.close()
    """
    programs.run(program, prelude=programs.PRELUDE + LACKING)


@pytest.mark.process
def test_a_signal_handler_asks_for_a_token_while_the_thread_is_started() -> None:
    program = """
        keeper = Keeper(fleet(service, clock, 1))
        got = []
        signal.signal(signal.SIGUSR1, lambda *_: got.append(keeper.get_token(timeout=10)))
        genuine = threading.Thread.start
        def start(self):
            genuine(self)
            if self.name == "tessaline-keeper":
                signal.raise_signal(signal.SIGUSR1)
        threading.Thread.start = start
        keeper.start()
        assert got == [service.granted[0].token] and len(service.granted) == 1
        keeper.close()
        print(time.monotonic(), flush=True)
    """
    programs.run(program)
