"""At the end of each test every keeper is closed and every thread has ended."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from typing import Any

import pytest

from tessaline import auth
from tessaline.keeper import Keeper
from tests.contract.support import endings
from tests.contract.support.threads import ThreadCensus
from tests.shared.clocks import HandClock
from tests.shared.threads import Worker

from .support.driving import Heard
from .support.looks import Sleepless, quick_looks
from .support.service import Service
from .support.wallets import fleet, manager

census, nothing_escapes = endings.census, endings.nothing_escapes


@pytest.fixture(scope="package", autouse=True)
def hanging_report() -> Iterator[tuple[Worker, Any, str]]:
    """A report of a refused token to a server that does not respond: the report, the keeper, the token.

    It takes seconds, so it is started before all tests and checked by one of the last.
    """
    clock = HandClock()
    service = Service(clock)
    with Keeper(manager(service, clock)) as keeper:
        keeper.start()
        clock.now += 600.0
        refused = keeper.get_token()
        gate = service.hold(patience=600.0)
        report = Worker(keeper.report_refused, refused)
        gate.reached()
        yield report, keeper, refused
        service.let_go()
        report.finish()


@pytest.fixture(autouse=True)
def short_pauses(monkeypatch: pytest.MonkeyPatch) -> None:
    """A manager's own back-off ends at once; the keeper's is not affected."""
    monkeypatch.setattr(auth, "_time", Sleepless())


@pytest.fixture(autouse=True)
def quickly() -> Iterator[None]:
    with quick_looks():
        yield


@pytest.fixture
def clock() -> HandClock:
    return HandClock()


@pytest.fixture
def service(clock: HandClock) -> Iterator[Service]:
    played = Service(clock)
    yield played
    played.let_go()


@pytest.fixture
def heard() -> Heard:
    return Heard()


@pytest.fixture
def make_keeper(
    nothing_escapes: None, census: ThreadCensus, service: Service, clock: HandClock, heard: Heard
) -> Iterator[Callable[..., Any]]:
    """A keeper of `count` wallets that reports to `heard`."""
    made: list[Any] = []

    def make(count: int = 1, *, managers: Any = None, **options: Any) -> Any:
        options.setdefault("on_event", heard)
        made.append(Keeper(managers or fleet(service, clock, count), **options))
        return made[-1]

    yield make
    service.let_go()
    clock.error = None
    for keeper in made:
        keeper.close()


@pytest.fixture
def keeper(make_keeper: Callable[..., Any]) -> Any:
    """A keeper of one wallet, started: it serves that wallet's first token."""
    made = make_keeper()
    made.start()
    return made


@pytest.fixture
def address(keeper: Any) -> str:
    (only,) = keeper
    return str(only)
