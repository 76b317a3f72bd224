"""Reading the clock, and waiting by it."""

from __future__ import annotations

import time
from collections.abc import Callable
from typing import Any

import pytest

from tessaline import auth
from tests.shared.clocks import HandClock
from tests.shared.threads import Worker, until

from .helpers.clocks import FakeTime, ScriptedClock


@pytest.fixture
def fake_time(monkeypatch: pytest.MonkeyPatch) -> FakeTime:
    fake = FakeTime()
    monkeypatch.setattr(auth, "_time", fake)
    return fake


# Reading


def test_time_is_the_clock_result_unchanged(make_manager: Callable[..., Any]) -> None:
    reading = object()
    assert make_manager(clock=lambda: reading)._get_time() is reading


def test_clock_is_called_without_arguments(make_manager: Callable[..., Any]) -> None:
    calls: list[Any] = []

    def clock(*args: Any, **kwargs: Any) -> float:
        calls.append((args, kwargs))
        return 5.0

    assert make_manager(clock=clock)._get_time() == 5.0
    assert calls == [((), {})]


def test_failure_of_the_clock_passes_as_the_same_object(make_manager: Callable[..., Any]) -> None:
    error = RuntimeError("no time")
    with pytest.raises(RuntimeError) as caught:
        make_manager(clock=ScriptedClock(error))._get_time()
    assert caught.value is error


def test_the_clock_field_is_read_at_every_reading(manager: Any) -> None:
    manager._clock = lambda: 77.0
    assert manager._get_time() == 77.0


def test_the_default_clock_is_the_wall_clock(make_manager: Callable[..., Any]) -> None:
    manager = make_manager()
    default = auth.AuthManager("1".zfill(64), "https://auth.example.test")
    assert default._clock is time.time
    before = time.time()
    reading = default._get_time()
    assert before <= reading <= time.time()
    assert manager._get_time() == 1000.0


# Waiting


@pytest.mark.parametrize("seconds", [0, 0.0, -1, -0.001, -1e9])
def test_zero_or_negative_seconds_return_without_sleeping(
    manager: Any, fake_time: FakeTime, seconds: float
) -> None:
    assert manager._wait_with_clock(seconds) is None
    assert fake_time.sleeps == []


def test_zero_seconds_return_without_sleeping_even_when_closed(manager: Any, fake_time: FakeTime) -> None:
    manager._close_event.set()
    assert manager._wait_with_clock(0) is None


def test_the_poll_step_is_a_twentieth_of_a_second(
    manager: Any, fake_time: FakeTime, clock: HandClock
) -> None:
    fake_time.on_sleep = lambda count: clock.advance(0.25)
    assert manager._wait_with_clock(1) is None
    assert fake_time.sleeps == [0.05] * 4


def test_a_reading_equal_to_the_deadline_ends_the_wait(
    manager: Any, fake_time: FakeTime, clock: HandClock
) -> None:
    fake_time.on_sleep = lambda count: clock.advance(1.0)
    manager._wait_with_clock(5)
    assert clock.now == 1005.0
    assert len(fake_time.sleeps) == 5


def test_a_reading_just_below_the_deadline_goes_on(
    make_manager: Callable[..., Any], fake_time: FakeTime
) -> None:
    manager = make_manager(clock=ScriptedClock(0.0, 4.999999, 4.9999999, 5.0))
    manager._wait_with_clock(5)
    assert len(fake_time.sleeps) == 1


def test_every_pass_begins_with_a_fresh_reading(
    make_manager: Callable[..., Any], fake_time: FakeTime
) -> None:
    # Start, first poll, after the sleep; the next poll has reached the deadline.
    clock = ScriptedClock(0.0, 0.0, 1.0, 9.0)
    make_manager(clock=clock)._wait_with_clock(5)
    assert len(fake_time.sleeps) == 1
    assert clock.taken == 4


def test_a_reading_after_the_sleep_does_not_end_the_wait_by_itself(
    make_manager: Callable[..., Any], fake_time: FakeTime
) -> None:
    # The reading after the sleep is past the deadline, the next is not: the wait continues.
    clock = ScriptedClock(0.0, 0.0, 9.0, 1.0, 9.0, 9.0)
    make_manager(clock=clock)._wait_with_clock(5)
    assert len(fake_time.sleeps) == 2


def test_close_event_set_before_returns_without_sleeping(manager: Any, fake_time: FakeTime) -> None:
    manager._close_event.set()
    assert manager._wait_with_clock(60) is None
    assert fake_time.sleeps == []


def test_close_event_set_during_a_sleep_ends_the_wait_after_it(manager: Any, fake_time: FakeTime) -> None:
    fake_time.on_sleep = lambda count: manager._close_event.set() if count == 3 else None
    manager._wait_with_clock(60)
    assert len(fake_time.sleeps) == 3


def test_a_wait_too_long_for_a_number_of_the_clock_ends_by_the_close_event(
    manager: Any, fake_time: FakeTime, clock: HandClock
) -> None:
    fake_time.on_sleep = lambda count: manager._close_event.set() if count == 3 else None
    clock.now = float(clock.now)
    manager._wait_with_clock(10**400)
    assert len(fake_time.sleeps) == 3


def test_a_wait_that_is_over_by_more_than_a_number_of_the_clock_is_none(
    manager: Any, fake_time: FakeTime, clock: HandClock
) -> None:
    clock.now = float(clock.now)
    manager._wait_with_clock(-(10**400))
    assert fake_time.sleeps == []


def test_a_clock_that_never_moves_ends_a_wait_of_60_after_1_to_1_05_seconds(
    manager: Any, fake_time: FakeTime
) -> None:
    assert manager._wait_with_clock(60) is None
    assert 1.0 < fake_time.elapsed <= 1.0501


def test_exactly_one_second_without_movement_is_not_stuck_yet(manager: Any, fake_time: FakeTime) -> None:
    fake_time.step = 0.25
    manager._wait_with_clock(60)
    assert len(fake_time.sleeps) == 5


def test_every_movement_of_the_clock_begins_the_stuck_time_anew(
    manager: Any, fake_time: FakeTime, clock: HandClock
) -> None:
    fake_time.step = 0.25
    fake_time.on_sleep = lambda count: clock.advance(1.0) if count % 4 == 0 and count <= 40 else None
    manager._wait_with_clock(1000)
    assert clock.now == 1010.0
    assert len(fake_time.sleeps) == 45


def test_a_clock_that_goes_backwards_is_moving(manager: Any, fake_time: FakeTime, clock: HandClock) -> None:
    fake_time.step = 0.5
    fake_time.on_sleep = lambda count: clock.advance(-1.0) if count <= 20 else clock.advance(100.0)
    manager._wait_with_clock(5)
    assert len(fake_time.sleeps) == 21


def test_the_first_reading_is_the_one_compared_with(
    make_manager: Callable[..., Any], fake_time: FakeTime
) -> None:
    # 0 at the start, 1 at the first poll, 0 after every sleep: it never moves as far as the wait can see.
    readings = [0.0] + [1.0, 0.0] * 30
    fake_time.step = 0.25
    make_manager(clock=ScriptedClock(*readings))._wait_with_clock(60)
    assert len(fake_time.sleeps) == 5


@pytest.mark.parametrize("place", [0, 1, 2, 3])
def test_failure_of_the_clock_at_any_reading_passes_through(
    make_manager: Callable[..., Any], fake_time: FakeTime, place: int
) -> None:
    error = RuntimeError("no time")
    readings: list[Any] = [0.0] * place + [error]
    with pytest.raises(RuntimeError) as caught:
        make_manager(clock=ScriptedClock(*readings))._wait_with_clock(5)
    assert caught.value is error


@pytest.mark.parametrize("error", [KeyboardInterrupt(), RuntimeError("sleepless")], ids=repr)
def test_failure_of_the_sleep_passes_through(manager: Any, fake_time: FakeTime, error: BaseException) -> None:
    def on_sleep(count: int) -> None:
        raise error

    fake_time.on_sleep = on_sleep
    with pytest.raises(type(error)) as caught:
        manager._wait_with_clock(5)
    assert caught.value is error


def test_the_wait_holds_no_lock(manager: Any, fake_time: FakeTime, clock: HandClock) -> None:
    locked: list[bool] = []

    def on_sleep(count: int) -> None:
        locked.append(manager._lock.locked())
        clock.advance(10)

    fake_time.on_sleep = on_sleep
    with_lock = Worker(manager._wait_with_clock, 5)
    with_lock.result(5.0)
    assert locked == [False]


def test_a_clock_advanced_by_10_on_a_second_thread_ends_a_wait_of_5_at_the_next_poll(
    manager: Any, clock: HandClock
) -> None:
    worker = Worker(manager._wait_with_clock, 5)
    until(lambda: clock.readings >= 3, what="the first poll")
    clock.advance(10)
    moved = time.monotonic()
    assert worker.result(5.0) is None
    assert time.monotonic() - moved < 0.5


def test_another_thread_ends_the_wait_by_the_close_event(make_manager: Callable[..., Any]) -> None:
    manager = make_manager()
    manager._clock = time.time
    worker = Worker(manager._wait_with_clock, 60)
    time.sleep(0.01)
    manager._close_event.set()
    signalled = time.monotonic()
    assert worker.result(5.0) is None
    assert time.monotonic() - signalled < 0.5


def test_the_default_clock_waits_its_span_of_real_time() -> None:
    manager = auth.AuthManager("1".zfill(64), "https://auth.example.test")
    begun = time.time()
    manager._wait_with_clock(0.12)
    assert 0.12 <= time.time() - begun < 2.0


@pytest.mark.parametrize("args", [(), (1, 2)])
def test_wrong_arguments(manager: Any, args: tuple[Any, ...]) -> None:
    with pytest.raises(TypeError, match="_wait_with_clock"):
        manager._wait_with_clock(*args)
    with pytest.raises(TypeError, match="_get_time"):
        manager._get_time(*args, 1)
