"""Driving a keeper by its clock: every wait has a deadline, and none has a fixed length."""

from __future__ import annotations

import threading
from collections.abc import Callable
from typing import Any

from tessaline.keeper import KeeperEvent
from tests.shared.clocks import HandClock
from tests.shared.threads import until

ENDED = ("not started", "stopped", "closed")


def is_idle(keeper: Any, now: float) -> bool:
    """Whether every wallet that has not ended waits for its next attempt; during one it has no next."""
    return all(
        wallet.state in ENDED or (wallet.next_attempt is not None and wallet.next_attempt > now)
        for wallet in keeper.status().wallets.values()
    )


def has_failed(keeper: Any, times: int = 1) -> None:
    """Wait until each wallet has that many consecutive failures, and waits for its next attempt."""
    until(
        lambda: all(
            wallet.failures >= times and wallet.next_attempt is not None
            for wallet in keeper.status().wallets.values()
        ),
        "failures",
    )


def settle(keeper: Any, clock: HandClock) -> None:
    """Wait until the keeper has done everything that is due."""
    until(lambda: is_idle(keeper, clock.now), "an idle keeper")


def pass_time(keeper: Any, clock: HandClock, seconds: float) -> None:
    clock.now += seconds
    settle(keeper, clock)


def next_attempt(keeper: Any) -> float:
    """When the first of its wallets is due."""
    times = [one.next_attempt for one in keeper.status().wallets.values() if one.next_attempt is not None]
    assert times, "no attempt is to come"
    return min(times)


def to_next_attempt(keeper: Any, clock: HandClock) -> float:
    """Advance to the next attempt and complete it; returns how long it took to come."""
    seconds = next_attempt(keeper) - clock.now
    assert seconds > 0
    pass_time(keeper, clock, seconds)
    return seconds


class Heard:
    """An `on_event` that records events. then: called with each event afterwards."""

    def __init__(self) -> None:
        self.events: list[KeeperEvent] = []
        self.threads: list[str] = []
        self.then: Callable[[KeeperEvent], object] | None = None

    def __call__(self, event: KeeperEvent) -> None:
        self.events.append(event)
        self.threads.append(threading.current_thread().name)
        if self.then is not None:
            self.then(event)

    def kinds(self) -> list[str]:
        return [event.kind for event in self.events]

    def of(self, kind: str) -> list[KeeperEvent]:
        return [event for event in self.events if event.kind == kind]

    def wait_for(self, kind: str, count: int = 1) -> KeeperEvent:
        until(lambda: len(self.of(kind)) >= count, f"event {kind!r}")
        return self.of(kind)[count - 1]
