"""One flow from the first request to the last thread: run, and compared with the model."""

from __future__ import annotations

import threading
import time
from collections.abc import Callable
from typing import Any

from eth_utils.address import to_checksum_address

from tessaline import auth
from tests.integration.support import descriptors
from tests.shared.threads import Worker, until, waiters

from .actor import START, Actor
from .contract import RENAME, Manager, Record, Refused, Service
from .scenario import ERA as ERA_CHANGE
from .scenario import FIRST_LOGIN, LOGIN_AGAIN, NAMING, REFRESH, Scenario
from .stage import ERA, Stage

NAME = "Ada Lovelace"
# What the connection pool may keep for two requests at a time and a few origins: a connection and its waker.
_KEPT_DESCRIPTORS = 24
_SECONDS = 20.0
_LONGEST_TEXT = 1000


class Violation(Exception):
    """Something differs from the contract."""


def same(what: str, seen: Any, expected: Any) -> None:
    if seen != expected:
        raise Violation(f"{what}: {_short(seen)}, and it should be {_short(expected)}")


def _short(value: Any) -> str:
    text = repr(value)
    return text if len(text) <= _LONGEST_TEXT else text[:_LONGEST_TEXT] + " ..."


class Flow:
    """One scenario on a stage. `play` raises Violation."""

    def __init__(self, stage: Stage, scenario: Scenario, descriptors_before: int) -> None:
        self._stage = stage
        self._scenario = scenario
        self._descriptors_before = descriptors_before
        self._threads_before = set(threading.enumerate())
        self._server = stage.servers[scenario.scheme]
        self._server.reset()
        stage.seams.jitter = scenario.jitter
        self._actor = Actor(stage, self._server, scenario.seed)
        self._manager = self._actor.manager
        self._model = Manager(Service(ERA), START)
        self._old_token: str | None = None
        self._told: list[tuple[str, Worker, Any]] = []
        self._trouble: BaseException | None = None
        self._records: list[Record] = []
        self.requests = 0

    def play(self) -> None:
        try:
            if self._scenario.kind != FIRST_LOGIN:
                self._log_in()
            self._meet_the_plan()
            self._recover()
        finally:
            self._actor.polls_go_on.set()
            self._manager.close()
        self._check_remains()

    # The parts of a flow

    def _log_in(self) -> None:
        self._manager.authenticate()
        record = self._model.plan({})
        self._compare("login before", record, self._model.log_in())
        self._records.append(record)

    def _meet_the_plan(self) -> None:
        scenario, model, actor = self._scenario, self._model, self._actor
        self._old_token = self._manager._token
        held_tokens, held_expiry = model.tokens, None if model.auth_time is None else model.expiry
        actor.plan(scenario.plan)
        actor.on_first_request = self._enter_callers
        record = model.plan(scenario.plan)
        logged_before = self._stage.seams.logged
        early = self._begin(held_expiry)
        if scenario.overtaken or scenario.kind == ERA_CHANGE:
            model.service.era = ERA + 1
        if scenario.kind == NAMING:
            named = model.rename()
            self._check_caller("the one who renames", self._runner, named)
        else:
            failure = self._foretell()
            self._check_end(failure, held_tokens)
            self._check_callers(failure, early)
        same("entries in the log", self._stage.seams.logged - logged_before, record.logged)
        self._compare(scenario.kind, record, model.failure)
        self._records.append(record)
        self._check_records()
        self._check_serving()
        if scenario.kind == NAMING and model.token is not None:
            same("the token served after a rename", self._manager.get_token(), self._old_token)

    def _begin(self, expiry: float | None) -> list[tuple[str, Worker]]:
        """Start it; returns the callers that came before it."""
        scenario, manager, actor = self._scenario, self._manager, self._actor
        self._runner: Worker | None = None
        early: list[tuple[str, Worker]] = []
        if scenario.kind in (FIRST_LOGIN, LOGIN_AGAIN):
            self._runner = Worker(manager.authenticate)
        elif scenario.kind == NAMING:
            self._runner = Worker(manager.set_display_name, NAME)
        elif scenario.kind == ERA_CHANGE:
            self._server.settings(era=ERA + 1)
            manager.notify_era_change(ERA + 1)
        else:
            assert expiry is not None
            early = self._come_early()
            actor.now = self._model.refresh_at(scenario.jitter) + scenario.late
            self._model.now = actor.now
            actor.on_wait = lambda: self._look_during_back_off(expiry)
            manager._refresh_event.set()
        if self._runner is not None:
            self._runner.finish(_SECONDS)
        else:
            self._await_background()
        actor.on_wait = None
        if self._trouble is not None:
            raise self._trouble
        return early

    def _foretell(self) -> Refused | None:
        scenario, model = self._scenario, self._model
        announced = ERA + 1 if scenario.overtaken else None
        if scenario.kind in (FIRST_LOGIN, LOGIN_AGAIN):
            return model.log_in(announced)
        if scenario.kind == REFRESH:
            return model.refresh(announced)
        return model.change_era(ERA + 1)

    def _await_background(self) -> None:
        """Wait until the refresh or the re-authentication has ended, including its thread."""
        manager = self._manager
        before = self._refresh_thread_before = manager._refresh_thread

        def over() -> bool:
            event = manager._auth_event
            if event is None or not event.is_set() or self._actor.on_first_request is not None:
                return False
            if manager._state == "AUTHENTICATED" and manager._pending_era_number is None:
                return manager._refresh_thread is not before and manager._refresh_thread.is_alive()
            return manager._state != "RE_AUTHENTICATING"

        until(over, "the end of what runs in the background", _SECONDS)

    # Waiters

    def _come_early(self) -> list[tuple[str, Worker]]:
        """Callers that find the token due, or expired, before the refresh thread does."""
        scenario, manager, actor = self._scenario, self._manager, self._actor
        due, expired = 80_000.0, 90_000.0
        came = [("due", Worker(actor.get_token_ahead, due)) for _ in range(scenario.early)]
        came += [("expired", Worker(actor.get_token_ahead, expired)) for _ in range(scenario.expired)]
        until(lambda: waiters(manager._refresh_done) == scenario.early, "the early callers wait", _SECONDS)
        until(lambda: len(actor.polling) == scenario.expired, "the expired callers poll", _SECONDS)
        return came

    def _enter_callers(self) -> None:
        """On the thread of the flow, before it sends its first request."""
        try:
            self._enter()
        except BaseException as trouble:
            self._trouble = trouble

    def _enter(self) -> None:
        scenario, manager = self._scenario, self._manager
        if scenario.overtaken:
            self._server.settings(era=ERA + 1)
            manager.notify_era_change(ERA + 1)
        self._check_accessors()
        if scenario.kind == NAMING:
            for _ in range(scenario.getters):
                same("a token while a name is set", manager.get_token(), self._old_token)
            return
        event = manager._auth_event
        self._event = event
        self._told += [("getter", Worker(manager.get_token), None) for _ in range(scenario.getters)]
        self._told += [("login", Worker(manager.authenticate), None) for _ in range(scenario.logins)]
        renamers = [
            ("renamer", Worker(manager.set_display_name, NAME), None) for _ in range(scenario.renamers)
        ]
        self._told += renamers
        waiting = scenario.getters + scenario.logins + scenario.expired
        if self._in_background:
            waiting += scenario.renamers
        else:
            for _, worker, _ in renamers:
                worker.finish(_SECONDS)
        self._actor.polls_go_on.set()
        until(lambda: waiters(event) == waiting, f"{waiting} callers wait", _SECONDS)

    @property
    def _in_background(self) -> bool:
        return self._scenario.kind in (REFRESH, ERA_CHANGE)

    def _check_accessors(self) -> None:
        """These never wait."""
        manager = self._manager
        if self._scenario.kind in (FIRST_LOGIN, LOGIN_AGAIN):
            for accessor in (manager.get_token_expiry, manager.get_wallet_secret):
                _expect_reason("an accessor during a login", accessor, "not_authenticated")
        else:
            same("the expiry meanwhile", manager.get_token_expiry(), self._model.expiry)
            same("the length of the wallet secret meanwhile", len(manager.get_wallet_secret()), 32)

    def _look_during_back_off(self, expiry: float) -> None:
        """A caller during the refresh's back-off: it gets the token while it is valid, else it waits too."""
        manager = self._manager
        if threading.current_thread() is not manager._refresh_thread:
            return
        before = waiters(self._event)
        caller = Worker(manager.get_token)
        if self._actor.now < expiry and not self._scenario.overtaken:
            try:
                same("the token during back-off", caller.result(_SECONDS), self._old_token)
            except BaseException as trouble:
                self._trouble = self._trouble or trouble
        else:
            self._told.append(("getter", caller, None))
            until(lambda: waiters(self._event) == before + 1, "one more caller waits", _SECONDS)

    # The comparison

    def _check_end(self, failure: Refused | None, tokens_before: int) -> None:
        manager, model = self._manager, self._model
        if self._runner is not None:
            self._check_caller("the one who logs in", self._runner, failure)
        if failure is None:
            same("tokens", model.tokens, tokens_before + 1)
            if manager._token in (None, self._old_token):
                raise Violation("no new token")
        else:
            same("the token held", manager._token, self._old_token)

    def _check_callers(self, failure: Refused | None, early: list[tuple[str, Worker]]) -> None:
        reason = None if failure is None else self._model.recorded()
        renamed: Any = None
        for role, worker, _ in self._told:
            if role == "renamer" and not self._in_background:
                self._check_reason(role, worker, "not_authenticated")
            elif reason is not None:
                self._check_reason(role, worker, reason if failure is None or failure.exact else None)
            elif role == "renamer":
                renamed = self._model.rename()
                self._check_caller(role, worker, renamed)
            elif role == "getter":
                same("the token of one who waited", worker.result(_SECONDS), self._manager._token)
            else:
                same("the result of one who waited for a login", worker.result(_SECONDS), None)
        late_reason = None if failure is None else self._model.tells_late_caller()
        for role, worker in early:
            if late_reason is not None:
                exact = late_reason == "token_expired" or failure is None or failure.exact
                self._check_reason(role, worker, late_reason if exact else None)
            else:
                same(f"the token of one who found it {role}", worker.result(_SECONDS), self._manager._token)

    def _check_caller(self, who: str, worker: Worker, expected: Refused | bool | None) -> None:
        if isinstance(expected, Refused):
            _compare_error(who, worker.failure(_SECONDS), expected)
        elif expected is None:
            same(f"the result of {who}", worker.result(_SECONDS), None)
        else:
            # The service writes the address with its checksum, the component in lowercase.
            address = self._manager.get_wallet_address()
            wallet = to_checksum_address(address) if expected else address
            named = {"wallet_address": wallet, "display_name": NAME}
            result = worker.result(_SECONDS)
            same(f"what {who} gets", {key: result.get(key) for key in named}, named)

    def _check_reason(self, who: str, worker: Worker, reason: str | None) -> None:
        error: Any = worker.failure(_SECONDS)
        same(f"the error of a {who}", type(error), auth.AuthError)
        if reason is not None:
            same(f"the reason of a {who}", error.reason, reason)
        else:
            same(f"the reason of a {who}", error.reason, self._manager._auth_error.reason)

    def _compare(self, when: str, record: Record, failure: Refused | None) -> None:
        """The requests on the wire in their order, the delays, and the manager's fields."""
        manager, model, actor = self._manager, self._model, self._actor
        same(f"{when}: attempts", actor.attempts, record.attempts)
        same(f"{when}: delays asked for", actor.asked, record.delays)
        same(f"{when}: delays slept", actor.slept, [float(max(0, delay)) for delay in record.delays])
        same(f"{when}: clock", actor.now, model.now)
        same(f"{when}: state", manager._state, model.state)
        same(f"{when}: pending era", manager._pending_era_number, model.pending)
        same(f"{when}: permanent", manager._permanent_refresh_error, model.permanent)
        same(f"{when}: mode", manager._reauth_mode, None)
        same(f"{when}: back-off", manager._in_transient_backoff, False)
        same(f"{when}: lock", manager._lock.locked(), False)
        recorded = manager._auth_error
        if failure is None or failure.exact:
            same(f"{when}: recorded reason", recorded and recorded.reason, model.recorded())
        elif failure.text not in recorded.reason:
            raise Violation(f"{when}: recorded reason {recorded.reason!r} without {failure.text!r}")
        if model.auth_time is not None:
            same(f"{when}: expiry", manager._token_expiry, model.expiry)
            same(f"{when}: refresh point", manager._refresh_at, model.refresh_at(self._scenario.jitter))

    def _check_records(self) -> None:
        """The requests at the server since the beginning."""
        journal = [request for record in self._records for request in record.journal]
        limit = time.monotonic() + _SECONDS
        while True:
            state = self._server.state()
            # A request that its client has abandoned may be recorded late.
            if len(state["requests"]) >= len(journal) or time.monotonic() > limit:
                break
        came = [(entry["endpoint"], entry["fault"]) for entry in state["requests"]]
        named = [(endpoint, None if fault == "pass" else fault) for endpoint, fault in came]
        same("requests at the server", named, journal)
        connects = [connect for record in self._records for connect in record.connects]
        same("connections at the gate", state["gate"], connects)
        self.requests = len(came)

    def _check_serving(self) -> None:
        manager, model = self._manager, self._model
        reason = model.serves()
        if reason is None:
            same("the token served", manager.get_token(), manager._token)
        elif reason == model.recorded() and model.failure is not None and not model.failure.exact:
            _expect_reason("get_token", manager.get_token, manager._auth_error.reason)
        else:
            _expect_reason("get_token", manager.get_token, reason)
        alive = manager._refresh_thread is not None and manager._refresh_thread.is_alive()
        if self._scenario.kind == REFRESH and model.failure is not None:
            until(lambda: not manager._refresh_thread.is_alive(), "the refresh thread ends", _SECONDS)
            same("whether it announced its end", manager._refresh_done.is_set(), True)
        else:
            same("whether a refresh thread lives", alive, model.tokens > 0)

    def _recover(self) -> None:
        """The server works again, and so does the manager after one login."""
        model, actor, manager = self._model, self._actor, self._manager
        actor.forget_plan()
        record = model.plan({})
        failure = model.log_in()
        if failure is None:
            manager.authenticate()
        else:
            _compare_error("a login once all is well", _error_of(manager.authenticate), failure)
        self._compare("recovery", record, failure)
        self._records.append(record)
        if failure is None:
            same("the token after the recovery", manager.get_token(), manager._token)
            self._rename_once_more()
        self._check_records()

    def _rename_once_more(self) -> None:
        self._actor.plan({})
        record = self._model.plan({})
        named = self._model.rename()
        self._check_caller("the one who renames at last", Worker(self._manager.set_display_name, NAME), named)
        same("attempts to rename", self._actor.attempts, record.attempts)
        same("attempts to rename", self._actor.attempts, {RENAME: 1})
        self._records.append(record)

    def _check_remains(self) -> None:
        limit = time.monotonic() + _SECONDS
        for thread in set(threading.enumerate()) - self._threads_before:
            thread.join(max(0.0, limit - time.monotonic()))
            if thread.is_alive():
                raise Violation(f"a thread is left behind: {thread!r}")
        kept = descriptors() - self._descriptors_before
        if kept > _KEPT_DESCRIPTORS:
            raise Violation(f"{kept} descriptors are left behind")


def _error_of(call: Callable[[], Any]) -> BaseException:
    return Worker(call).failure(_SECONDS)


def _expect_reason(who: str, call: Callable[[], Any], reason: str) -> None:
    error = _error_of(call)
    same(f"the error of {who}", type(error), auth.AuthError)
    assert isinstance(error, auth.AuthError)
    same(f"the reason of {who}", error.reason, reason)


def _compare_error(who: str, error: BaseException, expected: Refused) -> None:
    if expected.exact:
        same(f"the error of {who}", (type(error), str(error)), (expected.kind, expected.text))
    elif not isinstance(error, expected.kind) or expected.text.lower() not in str(error).lower():
        raise Violation(f"the error of {who} is {error!r}, expected {expected.kind} with {expected.text!r}")
    if expected.kind in (auth.AuthError, auth.ProfileError):
        same(f"the reason of {who}", error.reason, expected.text)  # type: ignore[attr-defined]
    for name, value in expected.extras.items():
        same(f"the {name} of {who}", getattr(error, name), value)
    if expected.context is not None and not isinstance(error.__context__, expected.context):
        raise Violation(f"the context of {who} is {error.__context__!r}, expected {expected.context}")
