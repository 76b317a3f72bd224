"""Everything concurrently, for TESSALINE_STRESS_SECONDS."""

from __future__ import annotations

import os
import random
import threading
import time
from collections import Counter
from collections.abc import Callable
from typing import Any

import pytest

from tessaline import auth
from tests.shared.threads import Worker, until

from .support.managers import REASONS, build
from .support.service import (
    CHALLENGE,
    DISPLAY_NAME,
    REGISTER,
    SECRET,
    VERIFY,
    Service,
    always_answers,
    always_raises,
    answer,
    era_of,
)
from .support.threads import ThreadCensus

SECONDS = float(os.environ.get("TESSALINE_STRESS_SECONDS", "20"))
LONGEST_CALL = 14.0  # ten seconds of one wait, three of another, and a margin for a busy machine
HOUR = 3600.0
DAY = 24 * HOUR

ROLES = {
    "ask": 12,
    "expiry": 2,
    "secret": 2,
    "rename": 3,
    "announce": 4,
    "log in": 4,
    "move the clock": 2,
    "break the service": 1,
    "close": 1,
    "look": 1,
}
assert sum(ROLES.values()) == 32

CABLE = "cable cut"
FAULTS: list[Callable[[str], Any] | None] = [
    None,
    None,
    None,
    always_raises(ConnectionResetError("reset")),
    always_raises(TimeoutError("too slow")),
    always_raises(OSError(CABLE)),
    lambda path: (503, {}, b""),
    lambda path: (429, {"Retry-After": "2"}, b""),
    always_answers(REGISTER, 403, {"error": "invite_revoked"}),
    always_answers(REGISTER, 400),
    always_answers(CHALLENGE, 401),
    always_answers(CHALLENGE, 400),
    always_answers(VERIFY, 401),
    always_answers(VERIFY, 410),
    always_answers(DISPLAY_NAME, 400, {"error": "taken"}),
    always_answers(DISPLAY_NAME, 401),
    lambda path: answer(200, {"challenge_id": 1, "message": "m"}) if path == VERIFY else None,
]

UNREACHABLE = "Server unreachable after 3 attempts"
STALE = "stale authentication challenge after 3 attempts"
# Waiters get a failure of another type as its text.
RECORDED = REASONS | {UNREACHABLE, STALE, CABLE, "invite_revoked", "'token'"}


class RunningClock:
    """Runs a thousand times as fast as real time, and jumps."""

    def __init__(self) -> None:
        self.offset = 1_000_000.0

    def __call__(self) -> float:
        return self.offset + 1000.0 * time.monotonic()


class Generation:
    """One manager from its making to its closing."""

    def __init__(self) -> None:
        self.service = Service(era=1)
        self.clock = RunningClock()
        self.manager = build(self.service, self.clock)
        self.lock = threading.Lock()
        self.announced = 0  # the highest whose announcement has returned
        self.closed = False  # true once a close has returned

    def announce(self, era: int, *, known_to_the_service: bool) -> None:
        if known_to_the_service:
            with self.lock:
                self.service.era = max(self.service.era or 1, era)
        self.manager.notify_era_change(era)
        with self.lock:
            self.announced = max(self.announced, era)


class Stress:
    def __init__(self) -> None:
        self.stop = threading.Event()
        self.generation = Generation()
        self.counts: Counter[str] = Counter()
        self.longest = 0.0

    def work(self, role: str, seed: int) -> None:
        chance = random.Random(f"{role} {seed}")
        act = getattr(self, role.replace(" ", "_"))
        while not self.stop.wait(chance.uniform(0.0005, 0.004)):
            generation = self.generation
            over = generation.closed
            begun = time.monotonic()
            try:
                act(generation, chance)
            except Exception as error:
                self.check_error(role, error)
            else:
                # The clock and the service may be changed at any time; a closed manager does nothing.
                assert not over or role in ("move the clock", "break the service", "close", "look"), role
                self.counts[role] += 1
            seconds = time.monotonic() - begun
            assert seconds < LONGEST_CALL, f"{role} took {seconds} s"
            self.longest = max(self.longest, seconds)

    def check_error(self, role: str, error: Any) -> None:
        kind = type(error)
        self.counts[f"{kind.__name__}: {error}"] += 1
        if kind is auth.AuthError:
            assert error.reason == str(error) and error.reason in RECORDED, repr(error)
            if error.reason not in REASONS:
                assert role in ("ask", "rename", "log in"), (role, error)
        elif kind is auth.NetworkError:
            assert role in ("log in", "rename") and str(error) in (UNREACHABLE, STALE), (role, error)
        elif kind is auth.RegistrationError:
            assert role == "log in" and error.args == ("invite_revoked",), (role, error)
        elif kind is auth.ProfileError:
            assert role == "rename" and error.reason in ("validation_failed", "rate_limited"), (role, error)
        elif kind is ValueError:
            assert role in ("rename", "announce"), (role, error)
        elif kind is KeyError:
            assert role == "log in" and error.args == ("token",), (role, error)
        else:
            assert kind is OSError and role in ("log in", "rename") and str(error) == CABLE, (role, error)

    # Roles

    def ask(self, generation: Generation, chance: random.Random) -> None:
        required = generation.announced
        token = generation.manager.get_token()
        assert era_of(token) >= required, f"era {era_of(token)} after the announcement of {required}"

    def expiry(self, generation: Generation, chance: random.Random) -> None:
        assert generation.manager.get_token_expiry() > 0.0

    def secret(self, generation: Generation, chance: random.Random) -> None:
        assert generation.manager.get_wallet_secret() == SECRET

    def rename(self, generation: Generation, chance: random.Random) -> None:
        name = chance.choice(("Ada", "Grace H", None, "", "x", "!!!", "n" * 33))
        assert generation.manager.set_display_name(name) == {"ok": True}

    def announce(self, generation: Generation, chance: random.Random) -> None:
        if chance.random() < 0.02:
            generation.manager.notify_era_change(chance.choice((0, -1)))
        step = chance.choice((-3, -1, 0, 1, 1, 2))
        era = max(1, (generation.service.era or 1) + step)
        generation.announce(era, known_to_the_service=chance.random() < 0.9)
        self.stop.wait(chance.uniform(0.0, 0.05))

    def log_in(self, generation: Generation, chance: random.Random) -> None:
        generation.manager.authenticate()
        self.stop.wait(chance.uniform(0.0, 0.05))

    def move_the_clock(self, generation: Generation, chance: random.Random) -> None:
        leap = chance.choice((0.1, 1.0, 6.0, 19.0, 24.0, 72.0, -1.0, -12.0)) * HOUR
        with generation.lock:
            generation.clock.offset += leap
        self.stop.wait(chance.uniform(0.0, 0.1))

    def break_the_service(self, generation: Generation, chance: random.Random) -> None:
        generation.service.fault = chance.choice(FAULTS)
        self.stop.wait(chance.uniform(0.0, 0.1))
        generation.service.fault = None
        # The service eventually learns of every era.
        with generation.lock:
            generation.service.era = max(generation.service.era or 1, generation.announced)
        self.stop.wait(chance.uniform(0.0, 0.15))

    def look(self, generation: Generation, chance: random.Random) -> None:
        assert generation.manager.get_wallet_address() in repr(generation.manager)

    def close(self, generation: Generation, chance: random.Random) -> None:
        if self.stop.wait(chance.uniform(0.2, 1.5)):
            return
        others = [Worker(generation.manager.close) for _ in range(chance.choice((0, 0, 3)))]
        begun = time.monotonic()
        generation.manager.close()
        assert time.monotonic() - begun < 3.0
        for other in others:
            other.result()
        generation.closed = True
        manager = generation.manager
        assert manager._state == "CLOSED" and manager._private_key is None
        self.generation = Generation()


@pytest.mark.usefixtures("eager_switching")
@pytest.mark.timeout(SECONDS + 120)
def test_everything_at_once(census: ThreadCensus) -> None:
    stress = Stress()
    workers = [
        (role, Worker(stress.work, role, seed)) for role, count in ROLES.items() for seed in range(count)
    ]
    assert len(workers) == 32
    limit = time.monotonic() + SECONDS
    most = 0
    # A worker that has ended early has found a bug.
    while time.monotonic() < limit and all(caller.alive for _, caller in workers):
        most = max(most, len(census.newcomers()))
        time.sleep(0.02)
    stress.stop.set()
    for role, caller in workers:
        if role == "move the clock":
            caller.result(LONGEST_CALL + 5.0)
    # If the clock is set back during a back-off, that lasts until the clock has caught up.
    stress.generation.clock.offset += DAY
    for _, caller in workers:
        caller.result(LONGEST_CALL + 5.0)

    last = stress.generation
    last.service.fault = None
    manager = last.manager
    until(lambda: manager._state not in ("AUTHENTICATING", "RE_AUTHENTICATING"), "the end of the last flow")
    with last.lock:
        last.service.era = 10_000
    manager.authenticate()
    assert era_of(manager.get_token()) >= last.announced
    # Superseded refresh loops notice it in their next wait.
    census.settle(1, "refresh loops in steady state")
    manager.close()
    census.settle(0)

    # The run was not idle.
    assert most < 100
    counts = stress.counts
    assert min(counts[role] for role in ROLES) >= 3, counts
    assert counts["ask"] >= 50 and counts["announce"] >= 20 and counts["log in"] >= 10, counts
    for reason in ("manager_closed", "not_authenticated", "unauthorized", "era_mismatch"):
        assert counts[f"AuthError: {reason}"] >= 1, counts
