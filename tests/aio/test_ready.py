"""ready_token(): the token if get_token() would return it at once, and None in every other case."""

from __future__ import annotations

import sys
import threading
from collections.abc import Callable, Iterator
from types import FrameType
from typing import Any

import pytest

from tessaline import _ready
from tessaline._ready import ready_token
from tessaline.auth import AuthError, AuthManager
from tessaline.keeper import Keeper
from tessaline.testing import HOUR, KEY, URL, FakeClock, FakeService, claims_of
from tests.shared.threads import Worker, join, until

Make = Callable[..., AuthManager]


@pytest.fixture
def clock() -> FakeClock:
    return FakeClock()


@pytest.fixture
def keeper(service: FakeService, clock: FakeClock) -> Iterator[Keeper]:
    with Keeper(AuthManager(KEY, URL, clock=clock, _transport=service)) as keeper:
        keeper.start()
        yield keeper


class Held:
    """A service whose next requests wait."""

    def __init__(self, service: FakeService) -> None:
        self._service = service
        self.gate = threading.Event()
        self.gate.set()

    def __call__(self, *args: Any, **kwargs: Any) -> Any:
        assert self.gate.wait(20)
        return self._service(*args, **kwargs)


def test_a_manager_that_is_logged_in_is_ready(make_manager: Make) -> None:
    manager = make_manager()
    assert ready_token(manager) == manager.get_token()


def test_so_is_one_on_a_clock_of_its_own(make_manager: Make, clock: FakeClock) -> None:
    manager = make_manager(clock=clock)
    clock.advance(18 * HOUR)
    assert ready_token(manager) == manager.get_token()


def test_before_the_login_and_after_the_end_it_is_not(service: FakeService) -> None:
    manager = AuthManager(KEY, URL, _transport=service)
    assert ready_token(manager) is None
    manager.authenticate()
    assert ready_token(manager) is not None
    manager.close()
    assert ready_token(manager) is None


def frozen(manager: AuthManager) -> None:
    """Without its thread, which would renew the token meanwhile."""
    manager._refresh_stop.set()
    manager._refresh_event.set()
    assert manager._refresh_thread is not None
    join(manager._refresh_thread)


@pytest.mark.parametrize(("field", "is_ready"), [("_refresh_at", False), ("_token_expiry", False)])
def test_from_the_refresh_point_and_from_the_expiry_on_it_is_not(
    make_manager: Make, clock: FakeClock, field: str, is_ready: bool
) -> None:
    manager = make_manager(clock=clock)
    frozen(manager)
    setattr(manager, field, clock() + 60.0)
    clock.advance(59.0)
    assert ready_token(manager) is not None
    clock.advance(1.0)
    assert (ready_token(manager) is not None) is is_ready


def test_while_an_era_is_met_it_is_not(make_manager: Make, service: FakeService) -> None:
    manager = make_manager()
    manager._transport = held = Held(service)
    held.gate.clear()
    service.era = 2
    manager.notify_era_change(2)
    assert ready_token(manager) is None
    held.gate.set()
    assert claims_of(manager.get_token())["era_number"] == 2
    assert ready_token(manager) == manager.get_token()


def test_while_an_era_that_was_not_met_is_pending_it_is_not(make_manager: Make) -> None:
    manager = make_manager()
    manager.notify_era_change(2)
    with pytest.raises(AuthError):
        manager.get_token()
    assert manager._state == "AUTHENTICATED"
    assert ready_token(manager) is None


def test_while_it_logs_in_anew_it_is_not(make_manager: Make, service: FakeService) -> None:
    manager = make_manager()
    manager._transport = held = Held(service)
    held.gate.clear()
    login = Worker(manager.authenticate)
    until(lambda: manager._state != "AUTHENTICATED", "the beginning of the login")
    assert ready_token(manager) is None
    held.gate.set()
    login.result()
    assert ready_token(manager) == manager.get_token()


@pytest.mark.parametrize(
    ("field", "value"),
    [
        ("_permanent_refresh_error", True),
        ("_token", None),
        ("_refresh_at", None),
        ("_token_expiry", None),
        ("_state", "AUTHENTICATING"),
        ("_state", "no state"),
    ],
)
def test_nor_with_a_field_that_says_no(make_manager: Make, field: str, value: Any) -> None:
    manager = make_manager()
    before = getattr(manager, field)
    setattr(manager, field, value)
    assert ready_token(manager) is None
    setattr(manager, field, before)
    assert ready_token(manager) is not None


def test_while_a_thread_holds_the_lock_it_is_not_and_does_not_wait(make_manager: Make) -> None:
    manager = make_manager()
    with manager._lock:
        assert ready_token(manager) is None
    assert ready_token(manager) is not None


def renew(manager: AuthManager, service: FakeService) -> None:
    manager.authenticate()


def meet_an_era(manager: AuthManager, service: FakeService) -> None:
    service.era = 2
    manager.notify_era_change(2)
    assert claims_of(manager.get_token())["era_number"] == 2


def announce_an_era(manager: AuthManager, service: FakeService) -> None:
    manager.notify_era_change(7)


def close_while_an_era_is_pending(manager: AuthManager, service: FakeService) -> None:
    manager.notify_era_change(7)
    manager.close()


@pytest.mark.parametrize("happens", [renew, meet_an_era, announce_an_era, close_while_an_era_is_pending])
def test_what_happens_during_the_look_is_seen(
    make_manager: Make, service: FakeService, happens: Callable[[AuthManager, FakeService], None]
) -> None:
    clock = FakeClock()
    pending: list[Any] = []

    def meanwhile() -> float:
        if pending:
            Worker(pending.pop(), manager, service).result()
        return clock()

    manager = make_manager(clock=meanwhile)
    pending.append(happens)
    assert ready_token(manager) is None
    assert pending == []


class GatedEvent(threading.Event):
    """An event whose setting waits."""

    def __init__(self) -> None:
        super().__init__()
        self.reached, self.gate = threading.Event(), threading.Event()

    def set(self) -> None:
        self.reached.set()
        assert self.gate.wait(20)
        super().set()


def look_with(happens: Callable[[], None], *, at: int, manager: AuthManager) -> tuple[str | None, bool]:
    """The result if this happens before one of the steps; and whether there was such a step."""
    steps = 0

    def trace(frame: FrameType, event: str, argument: Any) -> Any:
        nonlocal steps
        if frame.f_code is not _ready._of_manager.__code__:
            return None
        frame.f_trace_opcodes = True
        if event == "opcode":
            if steps == at:
                happens()
            steps += 1
        return trace

    before = sys.gettrace()
    sys.settrace(trace)
    try:
        token = ready_token(manager)
    finally:
        sys.settrace(before)
    return token, steps > at


def test_an_old_token_stays_back_whenever_the_manager_is_closed(make_manager: Make) -> None:
    step, was_reached = 0, True
    while was_reached:
        manager = make_manager()
        manager.notify_era_change(7)
        with pytest.raises(AuthError):
            manager.get_token()
        manager._close_event = event = GatedEvent()
        closing: list[Worker] = []

        def close(
            manager: AuthManager = manager, event: Any = event, closing: list[Worker] = closing
        ) -> None:
            """Half-way: the pending era is cleared, and the token is still present."""
            closing.append(Worker(manager.close))
            assert event.reached.wait(20)
            assert (manager._pending_era_number, manager._token is None) == (None, False)

        token, was_reached = look_with(close, at=step, manager=manager)
        event.gate.set()
        assert token is None
        for worker in closing:
            worker.result()
        step += 1
    assert step > 20


class Plain(AuthManager):
    pass


class OtherTokens(AuthManager):
    def get_token(self) -> str:
        return "another token"


class OtherTime(AuthManager):
    def _get_time(self) -> float:
        return super()._get_time()


class OtherGuard(AuthManager):
    def _raise_if_pending_era_locked(self) -> None:
        raise AuthError("era_change_pending")


@pytest.mark.parametrize("kind", [OtherTokens, OtherTime])
def test_of_a_class_that_replaces_a_step_nothing_is_known(
    make_manager: Make, kind: type[AuthManager]
) -> None:
    assert ready_token(make_manager(Plain)) is not None
    assert ready_token(make_manager(kind)) is None


def test_nor_of_one_that_guards_eras_itself(service: FakeService) -> None:
    with OtherGuard(KEY, URL, _transport=service) as manager:
        manager.authenticate()
        assert ready_token(manager) is None


@pytest.mark.parametrize("step", ["get_token", "_get_time", "_raise_if_pending_era_locked"])
def test_nor_while_a_step_is_replaced_in_one_manager(
    make_manager: Make, monkeypatch: pytest.MonkeyPatch, step: str
) -> None:
    manager = make_manager()
    with monkeypatch.context() as patch:
        patch.setattr(manager, step, lambda: None)
        assert ready_token(manager) is None
    assert ready_token(manager) is not None


@pytest.mark.parametrize("answer", [ZeroDivisionError("the clock"), "noon"])
def test_a_clock_that_tells_no_time_is_left_to_get_token(make_manager: Make, answer: Any) -> None:
    clock = FakeClock()
    broken: list[Any] = []

    def tells() -> Any:
        if not broken:
            return clock()
        if isinstance(broken[0], Exception):
            raise broken[0]
        return broken[0]

    manager = make_manager(clock=tells)
    frozen(manager)
    broken.append(answer)
    assert ready_token(manager) is None
    broken.clear()
    assert ready_token(manager) is not None


def test_of_other_sources_nothing_is_known() -> None:
    class Source:
        def get_token(self) -> str:
            raise AssertionError("asked")

    assert ready_token(Source()) is None


def test_no_token_of_an_older_era_is_served_by_any_thread(make_manager: Make, service: FakeService) -> None:
    manager = make_manager()
    announced = 1
    ended = threading.Event()

    def look() -> int:
        served = 0
        while not ended.is_set():
            least = announced
            token = ready_token(manager)
            if token is not None:
                assert claims_of(token)["era_number"] >= least
                served += 1
        return served

    lookers = [Worker(look) for _ in range(3)]
    try:
        for era in range(2, 30):
            service.era = era
            manager.notify_era_change(era)
            announced = era
            manager.get_token()
    finally:
        ended.set()
    assert sum(looker.result() for looker in lookers) > 0


def test_a_keeper_is_ready_while_its_copy_is_good(
    keeper: Keeper, clock: FakeClock, service: FakeService
) -> None:
    assert ready_token(keeper) == keeper.get_token()
    (address,) = keeper
    assert ready_token(keeper[address]) == keeper.get_token()
    service.away = True
    clock.advance(23 * HOUR)
    assert ready_token(keeper) == keeper.get_token()
    clock.advance(HOUR)
    assert ready_token(keeper) is None


def test_a_keeper_that_has_not_begun_or_has_ended_is_not(service: FakeService) -> None:
    with Keeper(AuthManager(KEY, URL, _transport=service)) as keeper:
        assert ready_token(keeper) is None
        keeper.start()
        assert ready_token(keeper) is not None
    assert ready_token(keeper) is None


def test_a_keeper_drops_the_tokens_of_older_eras(keeper: Keeper, service: FakeService) -> None:
    service.away = True
    keeper.notify_era_change(2)
    assert ready_token(keeper) is None


def test_of_a_keeper_whose_get_token_is_replaced_nothing_is_known(
    keeper: Keeper, monkeypatch: pytest.MonkeyPatch
) -> None:
    with monkeypatch.context() as patch:
        patch.setattr(keeper, "get_token", lambda: "another token")
        assert ready_token(keeper) is None
    assert ready_token(keeper) is not None


def test_a_keeper_of_several_is_ready_wallet_by_wallet(service: FakeService) -> None:
    managers = [AuthManager(f"{place:064x}", URL, _transport=service) for place in (1, 2)]
    with Keeper(managers) as keeper:
        keeper.start()
        assert ready_token(keeper) is None
        for address in keeper:
            token = ready_token(keeper[address])
            assert token is not None
            assert claims_of(token)["sub"] == address
