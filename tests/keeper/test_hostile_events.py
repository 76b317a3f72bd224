"""The program's handlers of events and log records may raise, block or call the keeper: it continues."""

from __future__ import annotations

import asyncio
import logging
import threading
from collections.abc import Callable, Iterator
from typing import Any

import pytest

from tessaline import auth
from tests.shared.clocks import HandClock
from tests.shared.threads import until

from .support import programs
from .support.driving import Heard, has_failed, pass_time, settle, to_next_attempt
from .support.faults import away
from .support.looks import SCHEDULER, WatchedClock
from .support.service import LIFETIME, LOGIN_THREAD, Service

HOUR = 3600.0
RENEWAL = 0.63 * LIFETIME + 1
EXITS = [SystemExit(3), asyncio.CancelledError(), KeyboardInterrupt(), GeneratorExit()]

LOGGER = logging.getLogger("tessaline.keeper")


@pytest.fixture
def clock() -> WatchedClock:
    return WatchedClock()


@pytest.mark.parametrize("error", EXITS, ids=repr)
def test_what_on_event_raises_ends_no_scheduler(
    error: BaseException,
    keeper: Any,
    service: Service,
    clock: HandClock,
    heard: Heard,
    caplog: pytest.LogCaptureFixture,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    monkeypatch.setattr("tessaline.keeper.scheduler._PAUSE_AFTER_FAILURE", 0.01)
    raised_on: list[str] = []

    def leave(event: Any) -> None:
        if event.kind == "running out":
            raised_on.append(threading.current_thread().name)
            raise error

    heard.then = leave
    service.fault = away()
    clock.now = keeper.status().expiry - HOUR / 2
    until(lambda: raised_on, "the event")
    assert raised_on == [SCHEDULER]
    service.heal()
    settle(keeper, clock)
    to_next_attempt(keeper, clock)
    assert keeper.get_token(timeout=0) == service.granted[1].token
    # It is logged.
    told = [
        record
        for record in caplog.records
        if type(error).__name__ in record.getMessage() or (record.exc_info and record.exc_info[1] is error)
    ]
    assert [record.levelno for record in told] == [logging.ERROR]


class Broken(logging.Handler):
    """Fails for every record as if its disk were full; as a filter too."""

    def __init__(self) -> None:
        super().__init__()
        self.met: set[str] = set()

    def handle(self, record: logging.LogRecord) -> bool:
        self.met.add(threading.current_thread().name)
        raise OSError("No space left on device")

    filter = handle


@pytest.fixture(params=["handler", "filter"])
def broken(request: pytest.FixtureRequest) -> Iterator[Broken]:
    made = Broken()
    add, remove = {
        "handler": (LOGGER.addHandler, LOGGER.removeHandler),
        "filter": (LOGGER.addFilter, LOGGER.removeFilter),
    }[request.param]
    before = LOGGER.level
    LOGGER.setLevel(logging.DEBUG)
    add(made)
    yield made
    remove(made)
    LOGGER.setLevel(before)


def test_a_log_that_raises_ends_no_thread(
    broken: Broken, make_keeper: Callable[..., Any], service: Service, clock: WatchedClock, heard: Heard
) -> None:
    def complain(event: Any) -> None:
        raise ZeroDivisionError("the host's own trouble")

    heard.then = complain
    keeper = make_keeper()
    keeper.start()
    pass_time(keeper, clock, RENEWAL)
    service.fault = away()
    clock.now = keeper.status().expiry - HOUR / 2
    heard.wait_for("running out")
    clock.error = OSError("the clock is away")
    clock.await_looks()
    clock.error = None
    service.heal()
    settle(keeper, clock)
    to_next_attempt(keeper, clock)
    assert keeper.get_token(timeout=0) == service.granted[2].token
    assert broken.met == {SCHEDULER, LOGIN_THREAD}
    # No event is lost because of it.
    heard.wait_for("renewed", 2)
    assert heard.kinds()[:2] == ["logged in", "renewed"]


@pytest.mark.parametrize(("kind", "thread"), [("attempt failed", LOGIN_THREAD), ("running out", SCHEDULER)])
def test_on_event_that_waits_for_a_token_does_not_wait_for_itself(
    kind: str, thread: str, make_keeper: Callable[..., Any], service: Service, clock: HandClock, heard: Heard
) -> None:
    outcomes: list[Any] = []
    keeper = make_keeper(at_once=1)

    def ask(event: Any) -> None:
        if event.kind != kind:
            return
        try:
            outcomes.append(keeper.get_token(timeout=None))
        except Exception as error:
            outcomes.append(error)

    keeper.start()
    heard.then = ask
    service.fault = away()
    clock.now += LIFETIME
    heard.wait_for(kind)
    until(lambda: outcomes, "the end of the call")
    assert isinstance(outcomes[0], auth.NetworkError)
    assert heard.threads[heard.kinds().index(kind)] == thread
    has_failed(keeper)
    service.heal()
    to_next_attempt(keeper, clock)
    assert keeper.get_token(timeout=0) == service.granted[1].token


@pytest.mark.process
def test_a_log_handler_asks_for_the_status_while_a_clock_fails() -> None:
    # One thread is in the handler, and calls; the keeper reports its clock, and waits for the handler.
    program = """
        import logging
        logging.disable(logging.NOTSET)
        keeper = Keeper(fleet(service, clock, 1))
        keeper.start()
        inside, told = threading.Event(), threading.Event()
        class Health(logging.Handler):
            def emit(self, record):
                if record.name == "app":
                    inside.set()
                    assert told.wait(10)
                keeper.status()
        def tell(record):
            told.set()
            return True
        logging.getLogger("tessaline.keeper").addFilter(tell)
        logging.getLogger().addHandler(Health())
        writing = threading.Thread(target=logging.getLogger("app").warning, args=("x",), daemon=True)
        writing.start()
        assert inside.wait(10)
        clock.error = OSError("the clock is away")
        writing.join(10)
        if writing.is_alive():
            os._exit(3)
        clock.error = None
        assert keeper.get_token() == service.granted[0].token
        keeper.close()
        print(time.monotonic(), flush=True)
    """
    programs.run(program)
