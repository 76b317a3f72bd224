"""`get_token` while its fields change wherever it waits or reads, compared with the model of its results."""

from __future__ import annotations

import random
import threading
from collections.abc import Callable
from typing import Any

import pytest

from tessaline import auth

from .serving import GetToken, Refused, Stored
from .support.managers import build, reason
from .support.service import Service

NOW = 1000.0


class OtherLock:
    """A lock that is not the interpreter's own, which disables the fast path."""

    def __init__(self) -> None:
        self._inner = threading.Lock()

    def acquire(self, blocking: bool = True, timeout: float = -1) -> bool:
        return self._inner.acquire(blocking, timeout)

    def release(self) -> None:
        self._inner.release()

    def locked(self) -> bool:
        return self._inner.locked()

    def __enter__(self) -> bool:
        return self.acquire()

    def __exit__(self, *exc: Any) -> None:
        self.release()


STORED = [auth.AuthError(reason=f"stored {number}") for number in range(2)]
CHOICES: dict[str, list[Any]] = {
    "_state": ["AUTHENTICATED"] * 6
    + ["RE_AUTHENTICATING"] * 3
    + ["AUTHENTICATING", "UNINITIALIZED", "CLOSED", "BOGUS"],
    "_token": ["token one"] * 4 + ["token two", None],
    "_token_expiry": [NOW + 86400, NOW + 86400, NOW + 0.001, NOW, NOW - 0.001],
    "_permanent_refresh_error": [False] * 4 + [True],
    "_reauth_mode": ["PROACTIVE", "PROACTIVE", "ERA_CHANGE", None],
    "_pending_era_number": [None] * 4 + [5],
    "_auth_error": [None, None, *STORED],
    "_in_transient_backoff": [False, True],
    "_auth_time": [NOW - 10, NOW - 10, NOW - 5],
    "_refresh_at": [NOW + 5, NOW + 0.001, NOW, NOW - 0.001],
}
EVENTS = [None, "clear", "clear", "set"]
# Rarely drawn, and most possible changes then make the caller wait.
OLD_TOKEN_DURING_BACK_OFF: dict[str, Any] = {
    "_state": "RE_AUTHENTICATING",
    "_token": "token one",
    "_token_expiry": NOW + 86400,
    "_permanent_refresh_error": False,
    "_reauth_mode": "PROACTIVE",
    "_pending_era_number": None,
    "_auth_error": None,
    "_in_transient_backoff": True,
}


class World:
    """One generated scenario: the fields at the start, and what changes at each wait or reading."""

    def __init__(self, seed: int) -> None:
        source = random.Random(seed)
        self.start = {name: source.choice(values) for name, values in CHOICES.items()}
        if source.random() < 0.5:
            self.start.update(_pending_era_number=None, _permanent_refresh_error=False)
        if source.random() < 0.2:
            self.start.update(OLD_TOKEN_DURING_BACK_OFF)
        for name in ("_token_expiry", "_auth_time", "_refresh_at"):
            if source.random() < 0.1:
                self.start[name] = None
        self.event = source.choice(EVENTS)
        self.refresh_pending = source.random() < 0.5
        self.changes = {
            place: [self._change(source) for _ in range(4)] for place in ("event", "done", "nudge", "clock")
        }
        if source.random() < 0.6:
            self.changes["clock"] = [{}] * 4
        if source.random() < 0.6:
            self.changes["nudge"] = [{}] * 4

    @staticmethod
    def _change(source: random.Random) -> dict[str, Any]:
        if source.random() < 0.3:
            return {}
        names = source.sample(sorted(CHOICES), source.randint(1, 4))
        change = {name: source.choice(CHOICES[name]) for name in names}
        if source.random() < 0.4:
            change["_auth_event"] = source.choice(EVENTS)
        return change

    def install(self, target: Any) -> dict[str, list[Any]]:
        """Set the target up; returns the record of its waits, nudges and polls."""
        record: dict[str, list[Any]] = {"event": [], "done": [], "nudge": [], "clock": []}

        def apply(place: str, what: Any = None) -> None:
            index = len(record[place])
            record[place].append(what)
            for name, value in self.changes[place][min(index, 3)].items():
                setattr(target, name, make_event(value) if name == "_auth_event" else value)

        class Event(threading.Event):
            place = ""

            def wait(self, *args: Any, **kwargs: Any) -> bool:
                apply(self.place, (args, tuple(kwargs.items())))
                threading.Event.set(self)
                if len(record[self.place]) > 50:
                    raise AssertionError("waits without end")
                return True

        class Nudge(threading.Event):
            def set(self) -> None:
                super().set()
                apply("nudge")

        def make_event(kind: str | None) -> Any:
            if kind is None:
                return None
            event = Event()
            event.place = "event"
            if kind == "set":
                threading.Event.set(event)
            return event

        def clock() -> float:
            apply("clock")
            return NOW

        for name, value in self.start.items():
            setattr(target, name, value)
        target._auth_event = make_event(self.event)
        target._refresh_done = Event()
        target._refresh_done.place = "done"
        target._refresh_event = Nudge()
        target._refresh_pending = threading.Event()
        if self.refresh_pending:
            target._refresh_pending.set()
        target._clock = clock
        return record


def wanted(world: World) -> tuple[tuple[Any, ...], Any]:
    model = GetToken()
    record = world.install(model)
    try:
        outcome: tuple[Any, ...] = ("token", model())
    except Refused as error:
        outcome = ("refused", error.reason)
    except Stored as error:
        outcome = ("stored", id(error.error))
    return (*outcome, record, model.polls), model.renewed


def observed(world: World, manager: Any) -> tuple[Any, ...]:
    polls: list[bool] = []
    record = world.install(manager)

    def poll(fallback_to_current_token: bool) -> str:
        polls.append(fallback_to_current_token)
        return "polled"

    manager._poll_for_reauth = poll
    try:
        outcome: tuple[Any, ...] = ("token", manager.get_token())
    except auth.AuthError as error:
        known = any(error is stored for stored in STORED)
        outcome = ("stored", id(error)) if known else ("refused", reason(error))
    assert not manager._lock.locked()
    return (*outcome, record, polls)


@pytest.mark.parametrize("lock", [threading.Lock, OtherLock], ids=["host lock", "other lock"])
@pytest.mark.parametrize("batch", range(4))
def test_generated_states_are_served_as_the_model_says(lock: Callable[[], Any], batch: int) -> None:
    manager = build(Service())
    wrong = []
    for seed in range(batch * 1500, (batch + 1) * 1500):
        world = World(seed)
        manager._lock = lock()
        (want, renewed), got = wanted(world), observed(world, manager)
        # A renewed token that is present when the poll begins may be served without it.
        if want != got and (renewed is None or got[:2] != ("token", renewed)):
            wrong.append((seed, world.start, world.event, want, got))
    manager._state = "UNINITIALIZED"
    for error in STORED:
        # It has been raised through the frames of thousands of calls, and would keep all of them.
        error.__traceback__ = None
    assert wrong == []


def test_the_generated_states_reach_every_kind_of_outcome() -> None:
    outcomes: set[tuple[Any, ...]] = set()
    for seed in range(6000):
        (kind, value, record, polls), _ = wanted(World(seed))
        outcomes.add((kind, value if kind == "refused" else "", bool(record["event"]), bool(record["done"])))
        outcomes.add(("polls", tuple(polls)))
    for why in ("manager_closed", "not_authenticated", "token_expired", "era_change_pending"):
        assert any(outcome[:2] == ("refused", why) for outcome in outcomes), why
    assert {("token", "", True, False), ("token", "", False, True), ("token", "", False, False)} <= outcomes
    assert {("stored", "", True, False), ("stored", "", False, True)} <= outcomes
    assert {("polls", (True,)), ("polls", (False,))} <= outcomes
