"""`get_token` has a fast path for a healthy manager; its result must always equal that of the full path."""

from __future__ import annotations

import math
import random
import threading
import time
from collections import Counter
from collections.abc import Callable, Iterator
from typing import Any

import pytest

from tessaline import auth
from tests.shared.modules import StandIn
from tests.shared.pythons import looks_inside
from tests.shared.threads import Worker, until

from .serving import SERVE_WAYS, Answer, Fields, serve, write
from .support.host import ShortSleeps
from .support.managers import build, reason
from .support.service import Service

FAR = 5000.0


def copied(text: str) -> str:
    """An equal text that is another object."""
    return "".join(list(text))


STATES = ("UNINITIALIZED", "AUTHENTICATING", "AUTHENTICATED", "RE_AUTHENTICATING", "CLOSED")
UNKNOWN_STATES = ("authenticated", "AUTHENTICATED ", "", "OPEN", None, 3)
MODES = (None, "PROACTIVE", copied("PROACTIVE"), "ERA_CHANGE", "OTHER")
FLAGS: tuple[Any, ...] = (False, True, 0, 1, "", "yes", None, [], [0], 0.0)
ERRORS = (
    None,
    auth.AuthError(reason="unauthorized"),
    auth.NetworkError("Server unreachable after 3 attempts"),
)
TOKENS = (None, "", "a.b.c", copied("a.b.c"), "old.token.text")
ERAS = (None, None, None, 0, 1, 9)


def odd_or(usual: Any, odd: tuple[Any, ...], chance: random.Random) -> Any:
    """Mostly the usual value: states in which everything is odd hardly test the usual paths."""
    return chance.choice(odd) if chance.random() < 0.35 else usual


def state_of(chance: random.Random) -> Any:
    pick = chance.random()
    if pick < 0.5:
        return chance.choice(("AUTHENTICATED", copied("AUTHENTICATED"), auth._AUTHENTICATED))
    if pick < 0.75:
        return chance.choice(("RE_AUTHENTICATING", copied("RE_AUTHENTICATING")))
    return chance.choice(STATES + UNKNOWN_STATES)


def generated(chance: random.Random, instant: Callable[[], Any]) -> Fields:
    return Fields(
        state=state_of(chance),
        token=odd_or(TOKENS[4], TOKENS, chance),
        token_expiry=instant(),
        permanent_error=odd_or(False, FLAGS, chance),
        has_auth_event=chance.random() < 0.8,
        reauth_mode=odd_or("PROACTIVE", MODES, chance),
        pending_era=odd_or(None, ERAS, chance),
        auth_error=odd_or(None, ERRORS, chance),
        in_transient_backoff=odd_or(True, FLAGS, chance),
        auth_time=instant(),
        refresh_at=instant(),
        refresh_pending=chance.random() < 0.5,
    )


def fill(manager: Any, fields: Fields, chance: random.Random) -> None:
    write(manager, fields)
    if fields.has_auth_event and chance.random() < 0.5:
        manager._auth_event.set()


def contents(manager: Any) -> dict[str, Any]:
    names = [name for name in vars(auth.AuthManager) if name.startswith("_") and hasattr(manager, name)]
    held = {name: getattr(manager, name) for name in names if not callable(getattr(manager, name))}
    held.pop("_private_key")  # created at every reading
    return held


def called(manager: Any) -> tuple[Any, BaseException | None]:
    try:
        return manager.get_token(), None
    except Exception as error:
        return None, error


def check(manager: Any, expected: Answer, shown: Any) -> None:
    before = contents(manager)
    token, error = called(manager)
    after = contents(manager)
    assert all(after[name] is before[name] for name in before), shown
    assert manager._refresh_event.is_set() is expected.nudged, shown
    manager._refresh_event.clear()
    if expected.reason is not None:
        assert error is not None, shown
        assert reason(error) == expected.reason, shown
    elif expected.error is not None:
        assert error is expected.error, shown
    else:
        assert error is None and token is expected.token, (shown, error)


@pytest.fixture(autouse=True)
def shared_errors_forget() -> Iterator[None]:
    """They have been raised in thousands of calls, and would keep the frames of all of them."""
    yield
    for error in filter(None, ERRORS):
        error.__traceback__ = error.__context__ = None


@pytest.fixture
def no_sleep(monkeypatch: pytest.MonkeyPatch) -> ShortSleeps:
    sleeps = ShortSleeps()
    monkeypatch.setattr(auth, "_time", sleeps)
    return sleeps


@pytest.fixture
def plain(no_sleep: ShortSleeps) -> Iterator[Any]:
    """A manager on the wall clock, the only one that the fast path may serve."""
    manager = build(Service(), default_clock=True)
    yield manager
    manager._state, manager._auth_event, manager._refresh_thread = "AUTHENTICATED", None, None
    manager.close()


def take_long_way(manager: Any) -> None:
    manager._get_time = lambda: auth.AuthManager._get_time(manager)


def take_any_way(manager: Any) -> None:
    del manager._get_time


def healthy(manager: Any) -> None:
    now = time.time()
    write(
        manager,
        Fields(
            "AUTHENTICATED", "a.b.c", now + FAR, False, True, None, None, None, False, now, now + FAR, False
        ),
    )


@pytest.mark.parametrize("seed", range(8))
def test_both_ways_answer_as_the_contract_says(plain: Any, seed: int) -> None:
    chance = random.Random(seed)
    ways: Counter[str] = Counter()
    for number in range(600):
        now = time.time()
        moments = (now - FAR, now + FAR, now + FAR, now + FAR, int(now - FAR), int(now + FAR), None)
        fields = generated(chance, lambda moments=moments: chance.choice(moments))  # type: ignore[misc]
        fill(plain, fields, chance)
        expected = serve(fields, now)
        ways[expected.way] += 1
        shown = (seed, number, fields, expected)
        check(plain, expected, shown)
        take_long_way(plain)
        check(plain, expected, shown)
        take_any_way(plain)
    assert set(ways) == SERVE_WAYS
    assert ways["served"] >= 50


@looks_inside
def test_the_short_way_is_taken_and_can_be_left(plain: Any) -> None:
    # Only the full path reads `_auth_event`, and it fails if the field is missing.
    healthy(plain)
    del plain._auth_event
    assert plain.get_token() == "a.b.c"
    take_long_way(plain)
    with pytest.raises(AttributeError):
        plain.get_token()


@pytest.mark.parametrize("seed", range(4))
def test_each_boundary_is_met_exactly(plain: Any, seed: int) -> None:
    chance = random.Random(100 + seed)
    ways: Counter[str] = Counter()
    for number in range(400):
        now: Any = chance.choice((1_700_000_000.25, 1_700_000_000, 0.0, -5.5, 2.0**53))
        plain._clock = lambda now=now: now
        nearby = (
            math.nextafter(now, -math.inf),
            now,
            float(now),
            math.nextafter(now, math.inf),
            int(now),
            int(now) + 1,
            None,
        )
        fields = generated(chance, lambda nearby=nearby: chance.choice(nearby))  # type: ignore[misc]
        fill(plain, fields, chance)
        expected = serve(fields, now)
        ways[expected.way] += 1
        check(plain, expected, (seed, number, now, fields, expected))
    assert {"expired", "due: token", "served", "old token during back-off"} <= set(ways)


def test_a_token_that_expires_at_this_instant_has_expired(plain: Any) -> None:
    for _ in range(200):
        healthy(plain)
        plain._token_expiry = time.time()
        token, error = called(plain)
        assert token is None and error is not None and reason(error) == "token_expired"


def test_a_refresh_due_at_this_instant_is_asked_for(plain: Any) -> None:
    for _ in range(200):
        healthy(plain)
        plain._refresh_at = time.time()
        assert plain.get_token() == "a.b.c"
        assert plain._refresh_event.is_set()


@pytest.mark.parametrize("field", ["_token_expiry", "_refresh_at"])
def test_a_time_that_is_no_number_is_never_reached(plain: Any, field: str) -> None:
    healthy(plain)
    setattr(plain, field, math.nan)
    assert plain.get_token() == "a.b.c"
    assert not plain._refresh_event.is_set()


def test_a_held_lock_is_respected(plain: Any) -> None:
    healthy(plain)
    assert plain.get_token() == "a.b.c"
    with plain._lock:
        caller = Worker(plain.get_token)
        # A caller that waits for a lock is not observable, only that it does not return.
        caller.thread.join(0.2)
        assert caller.alive
        plain._state = "CLOSED"
    assert reason(caller.failure()) == "manager_closed"


def test_a_lock_of_another_kind_is_taken(plain: Any) -> None:
    class CountingLock:
        taken = 0

        def __enter__(self) -> None:
            self.taken += 1

        def __exit__(self, *ending: Any) -> None:
            assert self.taken

    healthy(plain)
    lock = plain._lock
    plain._lock = counting = CountingLock()
    assert plain.get_token() == "a.b.c"
    assert counting.taken > 0
    plain._lock = lock


def test_a_class_patched_after_it_was_found_plain_is_asked(
    plain: Any, monkeypatch: pytest.MonkeyPatch
) -> None:
    healthy(plain)
    assert plain.get_token() == "a.b.c"
    with monkeypatch.context() as patch:
        patch.setattr(auth.AuthManager, "_get_time", lambda self: time.time() + 2 * FAR)
        token, error = called(plain)
        assert token is None and error is not None and reason(error) == "token_expired"
    assert plain.get_token() == "a.b.c"


def test_a_subclass_with_a_clock_of_its_own_is_asked_at_any_time(no_sleep: ShortSleeps) -> None:
    class Sub(auth.AuthManager):
        pass

    manager = Sub("7" * 64, "https://auth.example.test", _transport=Service())
    healthy(manager)
    assert manager.get_token() == "a.b.c"
    Sub._get_time = lambda self: time.time() + 2 * FAR
    token, error = called(manager)
    assert token is None and error is not None and reason(error) == "token_expired"
    del Sub._get_time
    assert manager.get_token() == "a.b.c"


@pytest.mark.parametrize("where", ["instance", "subclass", "class"])
def test_a_patched_guard_is_asked(plain: Any, where: str, monkeypatch: pytest.MonkeyPatch) -> None:
    class Sub(auth.AuthManager):
        pass

    refusal = auth.AuthError(reason="era_change_pending")

    def refuse(*ignored: Any) -> None:
        raise refusal

    manager = Sub("7" * 64, "https://auth.example.test", _transport=Service())
    healthy(manager)
    assert manager.get_token() == "a.b.c"
    owner = {"instance": manager, "subclass": Sub, "class": auth.AuthManager}[where]
    monkeypatch.setattr(owner, "_raise_if_pending_era_locked", refuse, raising=False)
    assert called(manager)[1] is refusal


def test_a_replaced_clock_is_read(plain: Any) -> None:
    healthy(plain)
    assert plain.get_token() == "a.b.c"
    plain._clock = lambda: time.time() + 2 * FAR
    assert reason(called(plain)[1] or RuntimeError()) == "token_expired"
    plain._clock = time.time
    assert plain.get_token() == "a.b.c"


def test_the_host_clock_handed_in_is_served_alike(no_sleep: ShortSleeps) -> None:
    manager = build(Service(), clock=time.time)
    healthy(manager)
    assert manager._uses_injected_clock is True
    assert manager.get_token() == "a.b.c"
    manager._token_expiry = time.time() - FAR
    assert reason(called(manager)[1] or RuntimeError()) == "token_expired"


def test_no_call_straddles_an_announcement_or_a_close(no_sleep: ShortSleeps) -> None:
    # A call after `close()` or the announcement sees the new state in every field.
    for ending in ("close", "era"):
        manager = build(Service(), default_clock=True)
        healthy(manager)
        stop = threading.Event()
        over = threading.Event()
        served_late: list[str] = []

        def hammer(
            manager: Any = manager, stop: Any = stop, over: Any = over, late: Any = served_late
        ) -> None:
            while not stop.is_set():
                begun_late = over.is_set()
                token, _ = called(manager)
                if token is not None and begun_late:
                    late.append(token)

        callers = [Worker(hammer) for _ in range(4)]
        until(lambda callers=callers: all(caller.alive for caller in callers))  # type: ignore[misc]
        if ending == "close":
            manager.close()
        else:
            with manager._lock:
                manager._pending_era_number = 5
        over.set()
        for _ in range(200):
            assert called(manager)[0] is None
        stop.set()
        for caller in callers:
            caller.result()
        assert served_late == []


def test_the_module_clock_can_be_replaced_for_new_managers(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(auth, "_time", StandIn(time, time=lambda: 5.0, sleep=lambda seconds: None))
    manager = build(Service(), default_clock=True)
    healthy(manager)
    manager._token_expiry, manager._refresh_at = 6.0, 6.0
    assert manager.get_token() == "a.b.c"
    manager._token_expiry = 5.0
    assert reason(called(manager)[1] or RuntimeError()) == "token_expired"
