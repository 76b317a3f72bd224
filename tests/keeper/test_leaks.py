"""Keepers that are created and closed leave nothing behind, and one that stays does not grow."""

from __future__ import annotations

import contextlib
import gc
import logging
import sys
import tracemalloc
from collections.abc import Iterator
from typing import Any

import pytest

import canary
from tessaline import auth
from tessaline.keeper import Keeper
from tests.contract.support.threads import ThreadCensus
from tests.integration.support import descriptors
from tests.sanitized import searches_all_memory
from tests.shared.clocks import HandClock

from .support.driving import has_failed, pass_time, settle
from .support.faults import away
from .support.service import LIFETIME, Service
from .support.wallets import key

KEEPERS = 200
WARM = 20
# Two hundred leaked objects of any kind would exceed this.
BYTES = 100 * KEEPERS
BLOCKS = KEEPERS


class Forgetful(Service):
    """A service without records, which would grow."""

    def __call__(self, *args: Any, **more: Any) -> Any:
        try:
            return super().__call__(*args, **more)
        finally:
            self.asked.clear()
            self.granted.clear()


@pytest.fixture(autouse=True)
def nobody_looks() -> Iterator[None]:
    """The canary remembers the texts it has seen, and pytest the log."""
    logging.disable(logging.CRITICAL)
    with canary.resting():
        yield
    logging.disable(logging.NOTSET)


def managers(service: Service, clock: HandClock) -> list[Any]:
    # Without those that the canary watches.
    return [
        auth.AuthManager(key(number), "https://auth.example.test", clock=clock, _transport=service)
        for number in range(2)
    ]


def idle(keeper: Any, service: Service, clock: HandClock) -> None:
    keeper.start()


def unused(keeper: Any, service: Service, clock: HandClock) -> None:
    pass


def retrying(keeper: Any, service: Service, clock: HandClock) -> None:
    service.fault = away()
    keeper.start(wait=False)
    has_failed(keeper)
    with contextlib.suppress(auth.NetworkError):
        keeper[next(iter(keeper))].get_token(timeout=0)
    service.heal()


def meeting_an_era(keeper: Any, service: Service, clock: HandClock) -> None:
    keeper.start()
    service.era += 1
    keeper.notify_era_change(service.era)


def used_memory() -> tuple[int, int]:
    gc.collect()
    return tracemalloc.get_traced_memory()[0], sys.getallocatedblocks()


@searches_all_memory
@pytest.mark.parametrize("life", [unused, idle, retrying, meeting_an_era])
def test_many_that_come_and_go(life: Any, clock: HandClock, census: ThreadCensus) -> None:
    service = Forgetful(clock)

    def one_life() -> None:
        with Keeper(managers(service, clock), on_event=lambda event: None) as keeper:
            life(keeper, service, clock)

    for _ in range(WARM):
        one_life()
    census.settle(0)
    open_before = descriptors()
    tracemalloc.start()
    try:
        before = used_memory()
        for _ in range(KEEPERS):
            one_life()
        census.settle(0)
        grown = used_memory()[0] - before[0]
    finally:
        tracemalloc.stop()
    assert grown < BYTES
    assert descriptors() <= open_before


@searches_all_memory
def test_one_that_stays(clock: HandClock, census: ThreadCensus) -> None:
    service = Forgetful(clock)
    with Keeper(managers(service, clock)) as keeper:
        keeper.start()
        one = keeper[next(iter(keeper))]

        def one_day() -> None:
            service.fault = away()
            pass_time(keeper, clock, 0.63 * LIFETIME + 1)
            pass_time(keeper, clock, LIFETIME)
            with contextlib.suppress(auth.NetworkError):
                one.get_token(timeout=0)
            service.heal()
            service.era += 1
            keeper.notify_era_change(service.era)
            one.get_token()
            settle(keeper, clock)
            one.report_refused(one.get_token())
            keeper.status()

        for _ in range(WARM):
            one_day()
        before = sys.getallocatedblocks()
        for _ in range(KEEPERS):
            one_day()
        gc.collect()
        assert sys.getallocatedblocks() - before < BLOCKS
        census.settle(1)
