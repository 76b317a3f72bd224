"""One manager through random histories, against a model of the contract."""

from __future__ import annotations

import random
import threading
import time
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
from tests.shared.clocks import HandClock
from tests.shared.modules import StandIn
from tests.shared.threads import Worker, until

from .model import AUTH, CLOSED, LIFETIME, REFRESH_AFTER, Contract, Failure
from .serving import serve
from .support import histories
from .support.host import ShortSleeps
from .support.managers import REASONS, build
from .support.service import (
    CHALLENGE,
    DISPLAY_NAME,
    REGISTER,
    VERIFY,
    Gate,
    Service,
    always_answers,
    always_raises,
    answer,
)
from .support.threads import ThreadCensus

SETTLED_WITHIN = 5.0
SECRETS = (b"first secret".ljust(32, b"."), b"other secret".ljust(32, b"."))
UNREACHABLE = Failure("NetworkError", "Server unreachable after 3 attempts")


def token_left_out(path: str) -> Any:
    return answer(200, {"expires_at": 0, "wallet_secret": ""}) if path == VERIFY else None


FAULTS: dict[str, tuple[Callable[[str], Any], Failure]] = {
    "down": (always_raises(ConnectionRefusedError("nobody listens")), UNREACHABLE),
    "slow": (always_raises(TimeoutError("too slow")), UNREACHABLE),
    "overloaded": (lambda path: (503, {}, b""), UNREACHABLE),
    "register 400": (always_answers(REGISTER, 400), Failure(AUTH, "invalid_address")),
    "challenge 401": (always_answers(CHALLENGE, 401), Failure(AUTH, "unauthorized")),
    "verify 401": (always_answers(VERIFY, 401), Failure(AUTH, "signature_mismatch")),
    "invite": (
        always_answers(REGISTER, 403, {"error": "invite_revoked"}),
        Failure("RegistrationError", "invite_revoked"),
    ),
    "no token": (token_left_out, Failure("KeyError", "'token'")),
    "interrupted": (always_raises(SystemExit("leave")), Failure("SystemExit", "leave")),
}
NAMES = {
    None: True,
    "": True,
    "Ada": True,
    " Ada ": True,
    "ab": False,
    "   ": False,
    "Ada!": False,
    "a" * 33: False,
}


def outcome(call: Callable[..., Any], *args: Any) -> Any:
    """The call's result or its error."""
    try:
        return call(*args)
    except BaseException as error:
        return failure_of(error)


def failure_of(error: BaseException) -> Failure:
    if isinstance(error, auth.AuthError):
        assert error.reason == str(error)
    return Failure(type(error).__name__, str(error))


def came_of(caller: Worker) -> Any:
    caller.finish()
    return caller.value if caller.error is None else failure_of(caller.error)


def idle(machine: Machine) -> bool:
    return machine.model.flight is None


def in_flight(machine: Machine) -> bool:
    return machine.model.flight is not None


def is_open(machine: Machine) -> bool:
    return machine.model.state != "CLOSED"


def authenticated(machine: Machine) -> bool:
    return machine.model.state == "AUTHENTICATED"


WORTH_SEEING = (
    "stored: login",
    "stored: era",
    "stored: refresh",
    "failed: login",
    "failed: era",
    "failed: refresh",
    "close",
    "close in the middle",
    "waited: token",
    "waited: login",
    "waited: rename",
    "waited and served",
    "waited and refused",
    "old token during back-off",
    "served",
    "authenticated: error of the era",
    "never logged in",
    "renamed",
    "refreshed by itself",
    "renewal brought back",
)


def has_room_for_waiters(machine: Machine) -> bool:
    """With a refresh due at the end of the flow, waiters might see either end of that."""
    model = machine.model
    return len(machine.waiters) < 6 and (model.flight == "refresh" or (in_flight(machine) and not model.due))


class Machine(RuleBasedStateMachine):
    """A rule starts the same thing on both sides, waits until it has ended, and compares."""

    seen: ClassVar[Counter[str]] = Counter()

    def saw(self, what: str) -> None:
        self.seen[what] += 1

    def end_flight(self) -> Failure | None:
        flight, had_loop = self.model.flight, self.model.loop
        failure = self.model.end_flight()
        self.saw(f"{'failed' if failure else 'stored'}: {flight}")
        if failure and flight == "login" and self.model.loop and not had_loop:
            self.saw("renewal brought back")
        return failure

    @initialize(log_in=st.sampled_from([True, True, True, False]))
    def build(self, log_in: bool) -> None:
        self.patch = pytest.MonkeyPatch()
        self.census = ThreadCensus()
        self.clock = HandClock()
        self.service = Service(era=1)
        self.service.secret = SECRETS[0]
        self.back_off_gate: Gate | None = None
        self.patch.setattr(auth, "_time", ShortSleeps(self.in_a_sleep))
        self.patch.setattr(auth, "random", StandIn(random, uniform=lambda low, high: 0.0))
        self.manager = build(self.service, self.clock)
        self.flows = 0
        self.manager._do_auth_flow = self.counted_flow
        self.model = Contract(self.clock.now)
        self.model.offered_secret = SECRETS[0]
        self.runner: Worker | None = None
        self.waiters: list[tuple[str, Worker]] = []
        self.main = threading.current_thread()
        if log_in:
            self.log_in()

    def teardown(self) -> None:
        if not hasattr(self, "manager"):
            return
        try:
            self.open_gates()
            auth.AuthManager.close(self.manager)
            for _, caller in self.waiters:
                caller.finish()
            self.census.settle(0)
        finally:
            self.patch.undo()

    def in_a_sleep(self, seconds: float) -> None:
        gate = self.back_off_gate
        if gate is not None and threading.current_thread() is not self.main:
            gate()

    def counted_flow(self) -> Any:
        self.flows += 1
        return auth.AuthManager._do_auth_flow(self.manager)

    def open_gates(self) -> None:
        gate, self.back_off_gate = self.back_off_gate, None
        self.service.let_go()
        if gate is not None:
            gate.open()

    # Waiting for what was started

    def has_settled(self) -> bool:
        manager, model = self.manager, self.model
        if model.state == "CLOSED":
            return self.census.newcomers() == []
        return (
            manager._state not in ("AUTHENTICATING", "RE_AUTHENTICATING")
            and self.flows == model.flows
            and manager._refresh_pending.is_set() is model.refresh_pending
            and len(self.census.newcomers()) == model.loop
        )

    def settle(self) -> None:
        before = self.model.flows
        self.model.run_what_is_due()
        if self.model.flows != before:
            self.saw("refreshed by itself")
        limit = time.monotonic() + SETTLED_WITHIN
        while not self.has_settled():
            assert time.monotonic() < limit, (
                f"not settled: {self.manager!r}, flows {self.flows} for {self.model.flows}, "
                f"threads {self.census.newcomers()!r} for {self.model.loop}"
            )
            # Only to save the loop's twentieth of a second; it would wake by itself.
            self.manager._refresh_event.set()
            time.sleep(0.0002)

    @invariant()
    def holds_what_the_model_holds(self) -> None:
        if not hasattr(self, "manager"):
            return
        manager, model = self.manager, self.model
        assert manager._state == model.state
        assert manager._token == self.text_of(model.token)
        assert manager._token_expiry == model.expiry
        assert manager._pending_era_number == model.pending
        assert manager._reauth_mode == model.mode
        assert manager._permanent_refresh_error is model.permanent
        if model.state != "CLOSED":
            assert manager._auth_time == model.auth_time
            assert manager._refresh_at == model.refresh_at
            assert manager._wallet_secret == model.secret
            assert (None if manager._auth_error is None else manager._auth_error.reason) == model.error
            assert manager._private_key is not None
        assert model.state == "CLOSED" or model.flight is not None or len(self.service.tokens) == model.grants

    @invariant()
    def answers_what_never_waits(self) -> None:
        if not hasattr(self, "manager"):
            return
        manager, model = self.manager, self.model
        assert manager.get_wallet_address() == manager._wallet_address
        refusal = model.credential()
        assert outcome(manager.get_token_expiry) == (refusal or model.expiry)
        assert outcome(manager.get_wallet_secret) == (refusal or model.secret)
        if not model.get_token_must_wait():
            self.check_token(outcome(manager.get_token), model.get_token())
            self.saw(serve(model.fields(), model.now).way)

    def text_of(self, grant: int | None) -> str | None:
        return None if grant is None else self.service.tokens[grant - 1]

    def check_token(self, got: Any, expected: int | Failure) -> None:
        if isinstance(expected, Failure):
            assert got == expected
            assert expected.text in REASONS or expected.text == self.model.error
        else:
            assert got == self.text_of(expected)

    # The service

    @rule(name=st.sampled_from(sorted(FAULTS)))
    def service_fails(self, name: str) -> None:
        self.service.fault, self.model.fault = FAULTS[name]

    @rule()
    def service_recovers(self) -> None:
        self.service.fault = self.model.fault = None

    @rule(rise=st.integers(1, 3))
    def service_enters_an_era(self, rise: int) -> None:
        self.service.era += rise
        self.model.era = self.service.era

    @rule(secret=st.sampled_from(SECRETS))
    def service_offers_a_secret(self, secret: bytes) -> None:
        self.service.secret = self.model.offered_secret = secret

    # With nothing running

    @precondition(idle)
    @rule(recovered=st.booleans())
    def log_in(self, recovered: bool = False) -> None:
        if recovered:
            self.service_recovers()
        expected: Failure | None = CLOSED
        if self.model.state != "CLOSED":
            self.model.begin_login()
            expected = self.end_flight()
        assert outcome(self.manager.authenticate) == expected
        self.settle()

    @precondition(lambda self: idle(self) and authenticated(self))
    @rule(ahead=st.integers(-2, 3))
    def announce(self, ahead: int) -> None:
        era = max(1, self.model.era + ahead)
        assert outcome(self.manager.notify_era_change, era) is self.model.announce(era) is None
        self.end_flight()
        self.settle()

    @rule(era=st.integers(-2, 2))
    def announce_in_vain(self, era: int) -> None:
        if self.model.state not in ("CLOSED", "UNINITIALIZED"):
            era = min(era, 0)
        assert outcome(self.manager.notify_era_change, era) == self.model.announce(era)

    @precondition(idle)
    @rule(seconds=st.sampled_from([1.0, 600.0, REFRESH_AFTER - 1.0, REFRESH_AFTER, LIFETIME, 3 * LIFETIME]))
    def time_passes(self, seconds: float) -> None:
        # Both at once: a refresh that is due begins at the new time.
        self.clock.now += seconds
        self.model.now += seconds
        self.settle()

    @precondition(lambda self: idle(self) and authenticated(self))
    @rule(short=st.sampled_from([0.0, 0.25]))
    def the_refresh_point_comes(self, short: float) -> None:
        assert self.model.refresh_at is not None
        if self.model.refresh_at - short > self.model.now:
            self.clock.now = self.model.now = self.model.refresh_at - short
            self.settle()

    @precondition(idle)
    @rule(name=st.sampled_from(list(NAMES)))
    def rename(self, name: str | None) -> None:
        got = outcome(self.manager.set_display_name, name)
        assert got == self.expected_of_rename(name, self.model.get_token())
        if not isinstance(got, Failure):
            self.saw("renamed")

    def expected_of_rename(self, name: str | None, token: int | Failure) -> Any:
        refusal = self.model.rename_refusal(name, NAMES[name])
        if refusal is not None:
            return refusal
        if isinstance(token, Failure):
            return token
        fault = self.model.fault
        if fault is not None and self.service.fault is not None and self.strikes_the_profile():
            return fault
        return {"ok": True}

    def strikes_the_profile(self) -> bool:
        try:
            return self.service.fault(DISPLAY_NAME) is not None
        except BaseException:
            return True

    @precondition(is_open)
    @rule(earnest=st.integers(0, 5))
    def close(self, earnest: int) -> None:
        # Prevents histories that end at once.
        if earnest:
            return
        self.saw("close in the middle" if self.model.flight else "close")
        closing = Worker(self.manager.close)
        until(lambda: self.manager._close_event.is_set() and self.manager._state == "CLOSED", "the closing")
        had_waiters = bool(self.waiters)
        self.model.close()
        if had_waiters:
            self.check_waiters(None)
        self.open_gates()
        closing.result()
        if self.runner is not None:
            # Whether its request failed or succeeded, the manager is closed before the result is stored.
            assert came_of(self.runner) in (Failure(AUTH, "manager_closed"), self.model.fault)
            self.runner = None
        self.census.settle(0)

    # Held in the middle

    @precondition(lambda self: idle(self) and is_open(self))
    @rule()
    def log_in_held(self) -> None:
        gate = self.service.hold(REGISTER)
        self.model.begin_login()
        self.runner = Worker(self.manager.authenticate)
        gate.reached()

    @precondition(lambda self: idle(self) and authenticated(self))
    @rule(ahead=st.integers(-2, 3))
    def announce_held(self, ahead: int) -> None:
        era = max(1, self.model.era + ahead)
        gate = self.service.hold(REGISTER)
        assert outcome(self.manager.notify_era_change, era) is self.model.announce(era) is None
        gate.reached()

    @precondition(lambda self: idle(self) and authenticated(self) and self.model.loop)
    @rule(late=st.sampled_from([0.0, 500.0, LIFETIME - REFRESH_AFTER]))
    def refresh_held(self, late: float) -> None:
        assert self.model.refresh_at is not None
        gate = self.service.hold(REGISTER)
        self.clock.now = self.model.now = self.model.refresh_at + late
        self.model.begin_refresh()
        gate.reached()

    @precondition(lambda self: idle(self) and authenticated(self) and self.model.loop)
    @rule(late=st.sampled_from([0.0, 500.0]))
    def refresh_backs_off(self, late: float) -> None:
        assert self.model.refresh_at is not None
        self.service.fault, self.model.fault = FAULTS["down"]
        gate = self.back_off_gate = Gate()
        self.clock.now = self.model.now = self.model.refresh_at + late
        self.model.begin_refresh()
        gate.reached()
        self.model.backing_off = True
        assert self.manager._in_transient_backoff is True

    @precondition(has_room_for_waiters)
    @rule()
    def somebody_asks_for_the_token(self) -> None:
        if self.model.get_token_must_wait():
            self.add_waiter("token", Worker(self.manager.get_token))

    @precondition(has_room_for_waiters)
    @rule()
    def somebody_else_logs_in(self) -> None:
        self.add_waiter("login", Worker(self.manager.authenticate))

    @precondition(has_room_for_waiters)
    @rule(name=st.sampled_from(["Ada", "ab"]))
    def somebody_renames(self, name: str) -> None:
        refusal = self.model.rename_refusal(name, NAMES[name])
        if refusal is not None:
            assert outcome(self.manager.set_display_name, name) == refusal
        elif self.model.get_token_must_wait():
            self.add_waiter("rename", Worker(self.manager.set_display_name, name))

    def add_waiter(self, kind: str, caller: Worker) -> None:
        self.waiters.append((kind, caller))
        event = self.manager._auth_event
        until(lambda: len(event._cond._waiters) == len(self.waiters), "the waiting caller")

    @precondition(in_flight)
    @rule(ahead=st.integers(-2, 3))
    def announce_during(self, ahead: int) -> None:
        era = max(1, self.model.era + ahead)
        assert outcome(self.manager.notify_era_change, era) is self.model.announce(era) is None

    @precondition(in_flight)
    @rule(seconds=st.sampled_from([1.0, 600.0, LIFETIME]))
    def time_passes_during(self, seconds: float) -> None:
        later = self.model.now + seconds
        overtaken = self.model.refresh_at is not None and later >= self.model.refresh_at
        if self.model.flight == "refresh" or not overtaken:
            self.clock.now = self.model.now = later

    @precondition(in_flight)
    @rule(recovered=st.booleans())
    def let_go(self, recovered: bool) -> None:
        if recovered:
            self.service_recovers()
        runner, self.runner = self.runner, None
        self.open_gates()
        failure = self.end_flight()
        if runner is not None:
            assert came_of(runner) == failure
        self.check_waiters(failure)
        self.settle()

    def check_waiters(self, failure: Failure | None) -> None:
        waiters, self.waiters = self.waiters, []
        for kind, caller in waiters:
            got = came_of(caller)
            self.saw(f"waited: {kind}")
            self.saw("waited and refused" if isinstance(got, Failure) else "waited and served")
            if kind == "login":
                assert got == self.model.authenticate_after_the_wait()
                continue
            expected = self.model.after_the_wait()
            if kind == "token":
                self.check_token(got, expected)
            elif isinstance(expected, Failure):
                assert got == expected
            else:
                assert got in ({"ok": True}, self.model.fault)


def test_random_histories() -> None:
    histories.play(Machine, 240, 50, WORTH_SEEING)
