"""Delays that no float can represent: negative ones end at once, the others last until the close."""

from __future__ import annotations

from fractions import Fraction
from typing import Any

import pytest

from tessaline import auth
from tests.contract.support.host import ShortSleeps
from tests.contract.support.managers import build, reason
from tests.contract.support.service import REGISTER, Service, answer
from tests.shared.clocks import HandClock

# The last one has too many digits to be printed.
HUGE = {"integer": 10**400, "fraction": Fraction(10**400, 3), "longer integer": 10**5000}
CLOCKS = ["of floats", "of integers", "of the machine"]


class MovingSleeps(ShortSleeps):
    """Sleeps that advance the hand clock (real time continues); the hundredth closes the manager."""

    def __init__(self, clock: HandClock) -> None:
        super().__init__()
        self.clock = clock
        self.manager: Any = None

    def sleep(self, seconds: float) -> None:
        super().sleep(seconds)
        self.clock.advance(1.0)
        if len(self.sleeps) == 100:
            self.manager.close()

    def monotonic(self) -> float:
        return len(self.sleeps) * 0.05


@pytest.fixture(params=CLOCKS)
def sleeps(request: pytest.FixtureRequest, monkeypatch: pytest.MonkeyPatch) -> MovingSleeps:
    clock = HandClock()
    sleeps = MovingSleeps(clock)
    monkeypatch.setattr(auth, "_time", sleeps)
    if request.param == "of the machine":
        sleeps.manager = build(Service(), default_clock=True)
    else:
        kind = {"of floats": float, "of integers": int}[request.param]
        sleeps.manager = build(Service(), lambda: kind(clock()))
    return sleeps


@pytest.mark.parametrize("seconds", HUGE.values(), ids=HUGE)
def test_a_pause_in_the_past_is_over_at_once(sleeps: MovingSleeps, seconds: Any) -> None:
    assert sleeps.manager._wait_with_clock(-seconds) is None
    assert sleeps.sleeps == []
    sleeps.manager.close()


@pytest.mark.parametrize("seconds", HUGE.values(), ids=HUGE)
def test_a_pause_without_end_lasts_until_the_close(sleeps: MovingSleeps, seconds: Any) -> None:
    assert sleeps.manager._wait_with_clock(seconds) is None
    assert len(sleeps.sleeps) == 100


@pytest.mark.parametrize("text", ["1" + "0" * 400, "-1" + "0" * 400], ids=["to come", "past"])
def test_a_server_that_asks_for_such_a_pause(sleeps: MovingSleeps, text: str) -> None:
    manager, service = sleeps.manager, sleeps.manager._transport
    refusals = [answer(429, None, Retry_After=text)]
    service.fault = lambda path: refusals.pop() if path == REGISTER and refusals else None
    if text.startswith("-"):
        manager.authenticate()
        assert sleeps.sleeps == []
        manager.close()
        return
    with pytest.raises(auth.AuthError) as refused:
        manager.authenticate()
    assert reason(refused.value) == "manager_closed"
    assert len(sleeps.sleeps) == 100
