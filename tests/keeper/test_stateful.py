"""A keeper of two wallets through random histories, compared with a model of its guarantees."""

from __future__ import annotations

import contextlib
import dataclasses
from collections import Counter
from collections.abc import Callable
from typing import Any, ClassVar

import pytest
from hypothesis import strategies as st
from hypothesis.stateful import (
    RuleBasedStateMachine,
    initialize,
    invariant,
    precondition,
    rule,
)

from tessaline import auth
from tessaline.keeper import Keeper
from tests.contract.support import histories
from tests.contract.support.managers import reason
from tests.contract.support.service import VERIFY
from tests.contract.support.threads import ThreadCensus
from tests.shared.threads import Worker, until

from .support.driving import ENDED, settle
from .support.faults import FINAL, FINAL_AT_FIRST, TRANSIENT, answers
from .support.looks import WatchedClock
from .support.service import LIFETIME, Fault, Service
from .support.wallets import fleet

WALLETS = 2
LONGEST_PAUSE = 300.0
REFUSALS: list[Fault] = [fault for fault, _ in FINAL.values()]
PASSING: list[Fault] = [
    *(fault for fault, _ in TRANSIENT.values()),
    *(fault for fault, _ in FINAL_AT_FIRST.values()),
    answers(429, path=VERIFY, Retry_After="86400"),
]


@dataclasses.dataclass
class Held:
    """The latest token of a wallet, until when it must be served and until when it may be."""

    token: str
    era: int
    must_until: float
    may_until: float


def is_open(machine: Machine) -> bool:
    return machine.is_open


def is_free(machine: Machine) -> bool:
    """No request is held."""
    return machine.is_open and machine.service.gate is None


class Machine(RuleBasedStateMachine):
    seen: ClassVar[Counter[str]] = Counter()

    @initialize()
    def build(self) -> None:
        self.census = ThreadCensus()
        self.clock = WatchedClock()
        self.service = Service(self.clock)
        self.keeper = Keeper(fleet(self.service, self.clock, WALLETS), at_once=WALLETS)
        self.held: dict[str, Held] = {}
        self.booked = 0
        self.announced = 1
        self.stopped: set[str] = set()
        self.is_open = True
        self.keeper.start()
        self.come_to_rest()

    def teardown(self) -> None:
        if hasattr(self, "keeper"):
            self.service.let_go()
            self.keeper.close()
            self.census.settle(0)

    # The model

    def come_to_rest(self) -> None:
        """Wait until each wallet waits for its next attempt, has stopped, or is held at the gate."""
        if self.service.gate is None:
            settle(self.keeper, self.clock)
        else:
            until(self.all_rest_or_are_held, "rest")
        for one in self.service.granted[self.booked :]:
            expiry = one.at + LIFETIME
            self.held[one.address] = Held(one.token, one.era, expiry, expiry)
            self.booked += 1
        now = {address for address in self.keeper if self.keeper[address].status().state == "stopped"}
        # Only a permanent error stops a wallet that has logged in, and only `start` restarts it.
        assert now == self.stopped or (now > self.stopped and self.service.fault in REFUSALS)
        self.stopped = now

    def all_rest_or_are_held(self) -> bool:
        for address in self.keeper:
            status = self.keeper[address].status()
            rests = status.next_attempt is not None and status.next_attempt > self.clock.now
            if not (status.state in ENDED or rests or address in self.service.under_way):
                return False
        return True

    def must_be_served(self, address: str) -> bool:
        held = self.held[address]
        return held.era >= self.announced and self.clock.now < held.must_until

    def may_be_served(self, address: str) -> bool:
        held = self.held[address]
        return held.era >= self.announced and self.clock.now < held.may_until

    @invariant()
    def a_token_is_served_if_and_only_if_one_is_good(self) -> None:
        if not hasattr(self, "keeper"):
            return
        for address in self.keeper:
            try:
                token = self.keeper[address].get_token(timeout=0)
            except Exception as error:
                assert not (self.is_open and self.must_be_served(address))
                assert self.is_open or error.reason == "manager_closed"  # type: ignore[attr-defined]
                self.seen["refused"] += 1
            else:
                assert self.is_open and self.may_be_served(address)
                assert token == self.held[address].token
                self.seen["served"] += 1

    @invariant()
    def the_status_agrees(self) -> None:
        if not hasattr(self, "keeper"):
            return
        for address in self.keeper:
            status = self.keeper[address].status()
            self.seen[status.state] += 1
            if not self.is_open:
                assert status.state == "closed"
                continue
            served = self.must_be_served(address)
            assert (status.state == "stopped") == (address in self.stopped)
            assert status.state != "expired" or not served
            assert status.state != "good" or self.may_be_served(address)
            assert (status.seconds_left > 0) >= served

    # The server

    @precondition(is_free)
    @rule(fault=st.sampled_from(PASSING))
    def the_server_ails(self, fault: Fault) -> None:
        self.service.fault = fault

    @precondition(is_free)
    @rule(fault=st.sampled_from(REFUSALS))
    def the_server_refuses(self, fault: Fault) -> None:
        self.service.fault = fault

    @precondition(is_free)
    @rule(fault=st.sampled_from(REFUSALS))
    def a_renewal_is_refused(self, fault: Fault) -> None:
        self.service.fault = fault
        self.clock.now += 0.65 * LIFETIME
        self.come_to_rest()

    @precondition(is_free)
    @rule()
    def the_server_recovers(self) -> None:
        self.service.heal()

    @precondition(is_open)
    @rule(rise=st.integers(1, 2))
    def the_server_enters_an_era(self, rise: int) -> None:
        self.service.era += rise

    @precondition(is_free)
    @rule()
    def the_server_falls_silent(self) -> None:
        self.service.hold()

    @precondition(is_free)
    @rule()
    def the_server_falls_silent_before_a_renewal(self) -> None:
        self.service.hold()
        self.clock.now += 0.65 * LIFETIME
        self.come_to_rest()

    @precondition(lambda self: self.service.gate is not None)
    @rule()
    def the_server_speaks_again(self) -> None:
        self.service.let_go()
        if self.is_open:
            self.come_to_rest()
        self.seen["spoke again"] += 1

    # Time

    @precondition(is_open)
    @rule(seconds=st.sampled_from([1.0, 60.0, LONGEST_PAUSE, 0.3 * LIFETIME, 0.7 * LIFETIME, LIFETIME]))
    def time_passes(self, seconds: float) -> None:
        self.clock.now += seconds
        self.come_to_rest()

    @precondition(is_free)
    @rule()
    def good_weather_brings_tokens(self) -> None:
        self.service.heal()
        self.service.era = max(self.service.era, self.announced)
        self.clock.now += LONGEST_PAUSE + 1.0
        self.come_to_rest()
        for address in self.keeper:
            assert address in self.stopped or self.must_be_served(address)
        self.seen["good weather"] += 1

    @precondition(is_open)
    @rule(seconds=st.sampled_from([-1.0, -600.0, -3600.0, -LIFETIME, -10 * LIFETIME, 3600.0, 3 * LIFETIME]))
    def the_clock_is_set(self, seconds: float) -> None:
        self.clock.now += seconds
        for held in self.held.values():
            # The keeper may subtract what the clock was set back by.
            held.must_until += min(0.0, seconds)
        self.clock.await_looks()
        self.come_to_rest()

    # The program

    @precondition(is_open)
    @rule(ahead=st.integers(-1, 2))
    def an_era_is_announced(self, ahead: int) -> None:
        era = max(1, self.service.era + ahead)
        self.keeper.notify_era_change(era)
        self.announced = max(self.announced, era)
        # At once, whatever the result of the logins that it starts.
        for address in self.keeper:
            with contextlib.suppress(Exception):
                assert self.era_served(address) >= self.announced
        self.come_to_rest()

    def era_served(self, address: str) -> int:
        token = self.keeper[address].get_token(timeout=0)
        return next(one.era for one in self.service.granted if one.token == token)

    @precondition(is_free)
    @rule(number=st.integers(0, WALLETS - 1))
    def a_token_is_reported(self, number: int) -> None:
        address = list(self.keeper)[number]
        if not self.must_be_served(address):
            return
        before = self.held[address].token
        changed = self.keeper[address].report_refused(before)
        self.come_to_rest()
        assert changed == (self.held[address].token != before)
        self.seen[f"reported: {changed}"] += 1

    @precondition(is_free)
    @rule(wait=st.booleans())
    def it_is_started_again(self, wait: bool) -> None:
        self.service.heal()
        self.service.era = max(self.service.era, self.announced)
        brought_back, self.stopped = self.stopped, set()
        starting = Worker(self.keeper.start, wait=wait)
        if not wait:
            starting.result()
            until(lambda: not self.has_stopped(), "a new attempt")
        self.come_to_rest()
        if wait:
            self.clock.now += LONGEST_PAUSE + 1.0
            starting.result()
            self.come_to_rest()
        assert self.stopped == set()
        self.seen["brought back"] += bool(brought_back)

    def has_stopped(self) -> bool:
        return any(self.keeper[address].status().state == "stopped" for address in self.keeper)

    @precondition(is_open)
    @rule(earnest=st.integers(0, 9))
    def it_is_closed(self, earnest: int) -> None:
        # Prevents histories that end at once.
        if earnest:
            return
        waiting = [
            Worker(self.keeper[address].get_token, timeout=None)
            for address in self.keeper
            if address not in self.stopped
        ]
        self.keeper.close()
        self.is_open = False
        for one in waiting:
            one.finish()
            assert one.error is None or isinstance(one.error, auth.AuthError)
        self.seen["closed by hand"] += 1

    @precondition(lambda self: not self.is_open)
    @rule()
    def the_end_is_the_end(self) -> None:
        asked = len(self.service.asked)
        calls: list[Callable[[], Any]] = [self.keeper.start, lambda: self.keeper.notify_era_change(99)]
        for call in calls:
            with pytest.raises(auth.AuthError) as caught:
                call()
            assert reason(caught.value) == "manager_closed"
        self.keeper.close()
        assert len(self.service.asked) == asked


WORTH_SEEING = [
    "served", "refused", "good", "retrying", "expired", "stopped", "renewing", "closed", "spoke again",
    "reported: True", "reported: False", "brought back", "good weather", "closed by hand",
]  # fmt: skip


def test_random_histories() -> None:
    histories.play(Machine, 120, 30, WORTH_SEEING)
