"""The life of one manager: a program that uses it, day after day, and what must hold meanwhile.

Time and the server are simulated. The manager, its locks, its threads and its signatures are real.
Each manager has its own clock, which advances in two ways: the driver advances it from one event of the day
to the next, and a thread in back-off advances it to the end of its wait, since everything that could happen
meanwhile concerns this manager and can be triggered on the way. The refresh loop is woken whenever its clock
has passed its refresh point instead of polling twenty times a second. So the time between events costs
nothing, and their order is deterministic, except for races of threads at one event.

Not simulated, and so not tested here: sockets, and the program's own load. The program is simple: it gets a
token a few times a day and around every refresh, and logs in if there is none. Two kinds of callers may get
a token that has expired: one that polled in vain while a refresh was pending, and one that saw the
expiry before a refresh began that then failed. Neither happens here, since no clock jumps by the hours
between the refresh point and the expiry; so here an expired token is always a fault.
"""

from __future__ import annotations

import random
import threading
import time
from collections.abc import Callable
from typing import Any

from tessaline import auth

from .waits import Activity, ParkingEvent, TimedEvent
from .world import DAY, World, era_of

START = 1_700_000_000.0
LIFETIME = 86400.0
MOST_ATTEMPTS = 3
# Three for the registration; three cycles of three for the challenge and three for the verification.
MOST_REQUESTS_OF_A_FLOW = 21
_BACKOFF_STEP = 0.05
_NETWORK = (auth.AuthError, auth.NetworkError, auth.RegistrationError, KeyError, TypeError, ValueError)

type Ask = Callable[["Life"], str]


class Broken(Exception):
    """An invariant is violated."""


class Simulated(auth.AuthManager):
    """A manager whose waits advance its own clock."""

    life: Life

    def _wait_with_clock(self, seconds: Any) -> None:
        with self.life.waiting(seconds):
            super()._wait_with_clock(seconds)

    def _compute_refresh_at(self, auth_time: float) -> float:
        self.life.sleeper.chance = self.life.chance
        return super()._compute_refresh_at(auth_time)

    def _do_auth_flow(self) -> Any:
        self.life.flow_begins()
        return super()._do_auth_flow()

    def _do_refresh(self) -> None:
        self.life.refresh_begins()
        super()._do_refresh()

    def _store_auth_result(self, token: str, secret: bytes) -> None:
        super()._store_auth_result(token, secret)
        self.life.stored(token)


class _Wait:
    """One back-off, on the thread that waits."""

    def __init__(self, life: Life, seconds: float) -> None:
        self._life = life
        self._seconds = seconds

    def __enter__(self) -> None:
        life = self._life
        life.back_off_begins(self._seconds)
        life.deadline = life.clock() + self._seconds
        life.sleeper.at_sleep = life.sleep

    def __exit__(self, *_details: object) -> None:
        self._life.sleeper.at_sleep = None


class Sleeper(threading.local):
    """Replaces `time.sleep` and `random.uniform`, by thread."""

    at_sleep: Callable[[float], None] | None = None
    chance: random.Random

    def uniform(self, low: float, high: float) -> float:
        return self.chance.uniform(low, high)

    def sleep(self, seconds: float) -> None:
        assert self.at_sleep is not None, "a thread sleeps that should not"
        self.at_sleep(seconds)


class Life:
    """One manager, its server and its program.

    seed: of everything that happens to it. sleeper: see there. ask: has another thread call `get_token`.
    """

    def __init__(self, seed: str, sleeper: Sleeper, ask: Ask) -> None:
        self.seed = seed
        self.sleeper = sleeper
        self._ask = ask
        self.chance = chance = random.Random(seed)
        self.now = 0.0
        self._offset = chance.uniform(-300, 300)
        self.deadline = 0.0
        self.activity = Activity()
        self.world = World(chance, lambda: self.now)
        self._expiries: dict[str, float] = {}
        self._announced = 0
        self._latest = 0.0
        self.flows = 0
        self.allowed_flows = 0
        self.stores = 0
        self.refreshes = 0
        self.served = 0
        self.logins = 0
        self._requests_before_flow = 0
        self._looked = threading.Event()
        self._reading = False
        self._failed_logins = 0
        self.trouble: list[str] = []
        key = chance.randbytes(32).hex()
        manager = Simulated(key, "https://auth.example.test", clock=self.clock, _transport=self.request)
        manager.life = self
        manager._refresh_event = ParkingEvent(self.activity)  # type: ignore[assignment]
        self._refresh_done = manager._refresh_done = TimedEvent(lambda: self.now)  # type: ignore[assignment]
        self.manager = manager
        self.world.address = manager.get_wallet_address()

    def insist(self, condition: bool, what: str) -> None:
        """Record a violated invariant; a thread of the manager's would not report it."""
        if not condition:
            self.trouble.append(f"day {self.now / DAY:.3f}: {what}")
            raise Broken(what)

    # Injected into the manager

    def clock(self) -> float:
        return START + self.now + self._offset

    def request(self, method: str, url: str, headers: Any = None, body: Any = None) -> Any:
        path = url[url.index("/", 8) :]
        if path == "/api/profile/display_name":
            bearer = headers["Authorization"].removeprefix("Bearer ")
            self.insist(bearer in self._expiries, "a name asked for with a token from long ago")
        else:
            # No earlier than the manager was told, and no more often than a flow may.
            self.insist(self.clock() >= self._latest, "a request during back-off")
            sent = self.world.requests - self._requests_before_flow
            self.insist(sent < MOST_REQUESTS_OF_A_FLOW, "too many requests in a flow")
        try:
            return self.world.answer(path, body)
        except AssertionError as error:
            self.insist(False, f"a request that makes no sense: {error}")

    def flow_begins(self) -> None:
        self.flows += 1
        self._requests_before_flow = self.world.requests
        self.insist(self.flows <= self.allowed_flows, "a flow that nobody asked for")

    def refresh_begins(self) -> None:
        self.insist(self.clock() >= self.manager._refresh_at, "a refresh before its time")
        self.refreshes += 1
        self.insist(self.refreshes <= self.stores + self._failed_logins, "two refreshes of one token")
        self.allowed_flows += 1 if self.manager._pending_era_number is None else 2

    def stored(self, token: str) -> None:
        self.stores += 1
        self._expiries = {**dict(list(self._expiries.items())[-1:]), token: self.clock() + LIFETIME}
        self.world.spoiled = False

    def waiting(self, seconds: float) -> _Wait:
        return _Wait(self, seconds)

    def back_off_begins(self, seconds: float) -> None:
        self._latest = self.clock() + seconds
        manager = self.manager
        self._let_reader_wait()
        refreshing = manager._state == "RE_AUTHENTICATING" and manager._reauth_mode == "PROACTIVE"
        if refreshing and manager._token_expiry > self.clock() and self.chance.random() < 0.3:
            # Served at once, or this never returns and the watchdog acts.
            self._check(self._ask(self), self.clock())

    def _let_reader_wait(self) -> None:
        """Wait for a caller that needs a token before the time advances."""
        event = self.manager._auth_event
        while self._reading and self._refresh_done.due() is None and not event._cond._waiters:  # type: ignore[attr-defined]
            time.sleep(0.0002)

    def sleep(self, step: float) -> None:
        assert step == _BACKOFF_STEP
        chance = self.chance
        if chance.random() < 0.05:
            self._jump()
        left = self.deadline - self.clock()
        self._pass(left if chance.random() < 0.8 else chance.uniform(0, left))

    def _pass(self, seconds: float) -> None:
        """Advance the time on a thread in back-off."""
        until = self.now + max(_BACKOFF_STEP, seconds)
        while (due := self._refresh_done.due()) is not None and due <= until:
            # The program's own thread has waited long enough for the refresh.
            self.now = max(self.now, due)
            self._looked.clear()
            self._refresh_done.expire()
            self._looked.wait()
        self.now = until

    def _jump(self) -> None:
        minutes = self.chance.choice((-30, -5, -1, 1, 5, 30))
        # The clock was never so wrong that a token's age was unknown.
        if abs(self._offset + 60 * minutes) < 7200:
            self._offset += 60 * minutes

    # The program

    def be_born(self) -> None:
        """The first login, repeated until it succeeds."""
        while not self._log_in():
            self.now += 300

    def live(self, day: int) -> None:
        """One day of reads, jumps and announcements."""
        chance, world = self.chance, self.world
        doings: list[tuple[float, Callable[[], None]]] = []
        for _ in range(chance.choice((1, 2, 3))):
            doings.append((chance.random(), self._read))
        if chance.random() < 0.2:
            doings.append((chance.random(), self._jump_awake))
        if chance.random() < 0.05:
            doings.append((chance.random(), self._change_era))
        if chance.random() < 0.05:
            doings.append((chance.random(), self._rename))
        for share, act in sorted(doings, key=lambda doing: doing[0]):
            self._run_until((day + share) * DAY)
            act()
        self._run_until((day + 1) * DAY)
        most = MOST_REQUESTS_OF_A_FLOW * self.flows + MOST_ATTEMPTS * (day + 1)
        self.insist(world.requests <= most, "more requests than flows and names account for")

    def wait_for_good_weather(self) -> None:
        """Advance the time until the server works and the manager has a token."""
        while not self.world.is_well():
            self._run_until(self.now + 600)
        self._read()

    def die(self) -> None:
        self.manager.close()
        self.activity.wait_until_quiet()

    def _run_until(self, when: float) -> None:
        """Advance the time while the program sleeps."""
        manager = self.manager
        while manager._state == "AUTHENTICATED":
            refresh_at = manager._refresh_at
            due = refresh_at - START - self._offset
            if due > when:
                break
            # Rounding could leave it just short of the point for ever.
            self.now = max(self.now, due + 1e-6)
            refreshes, spoiled = self.refreshes, self.world.spoiled
            if self.chance.random() < 0.1:
                self._read()
            else:
                self._wake()
            self.insist(self.refreshes > refreshes or spoiled, "a refresh that did not come")
            if manager._refresh_at == refresh_at:
                break
        self.now = max(self.now, when)

    def _wake(self) -> None:
        """The refresh loop reads the clock, and does what is due."""
        self.manager._refresh_event.set()
        self.activity.wait_until_quiet()

    def _jump_awake(self) -> None:
        self._latest = 0.0
        self._jump()
        self._wake()

    def _read(self) -> None:
        """The program needs a token, and logs in if it gets none."""
        unspoiled = not self.world.spoiled and self._announced <= self.world.era
        try:
            token = self._get_token()
        except auth.AuthError as error:
            self.activity.wait_until_quiet()
            self.insist(
                not unspoiled or self.world.spoiled, f"no token, and the server was well: {error.reason}"
            )
            self._help()
        else:
            self._check(token, self.clock())
            self._looked.set()
            self.activity.wait_until_quiet()
        finally:
            self._looked.set()

    def _get_token(self) -> str:
        # A poll for an expired token lets the refresh loop read the time.
        self.sleeper.at_sleep = lambda _step: self.manager._refresh_event.set()
        self._reading = True
        try:
            return self.manager.get_token()
        finally:
            self._reading = False
            self.sleeper.at_sleep = None

    def _help(self) -> None:
        well = self.world.is_well() and self._announced <= self.world.era
        if self._log_in():
            self._check(self.manager.get_token(), self.clock())
        else:
            self.insist(not well, "a login failed, and the server was well")

    def _log_in(self) -> bool:
        self.allowed_flows += 1
        self.logins += 1
        try:
            self.manager.authenticate()
        except _NETWORK:
            self._failed_logins += 1
            return False
        finally:
            self.activity.wait_until_quiet()
        return True

    def _change_era(self) -> None:
        """The era ends; the program learns of it, sometimes before the server has noticed."""
        world, manager = self.world, self.manager
        early = self.chance.random() < 0.1
        if not early:
            world.era += 1
        era = world.era + int(early)
        # The manager rejects an announcement that comes too early, as it must.
        world.spoiled = world.spoiled or early
        if manager._state == "AUTHENTICATED":
            self.allowed_flows += 2
        auth._set_active_auth_manager(manager)
        try:
            auth.notify_era_change(era)
        except auth.AuthError as error:
            self.insist(error.reason == "not_authenticated" and manager._state == "UNINITIALIZED", "refused")
        else:
            self._announced = max(self._announced, era)
        finally:
            auth._set_active_auth_manager(None)
        if self.chance.random() < 0.5:
            self._read()
        self.activity.wait_until_quiet()
        if early:
            world.era += 1

    def _rename(self) -> None:
        try:
            self.manager.set_display_name(f"Number {self.stores}")
        except (*_NETWORK, auth.ProfileError):
            self.insist(
                self.world.spoiled or not self.world.is_well() or self.manager._token is None, "no name"
            )
        self.activity.wait_until_quiet()

    def _check(self, token: str, clock: float) -> None:
        self.served += 1
        self.insist(era_of(token) >= self._announced, "a token of an era that was announced to be over")
        self.insist(token in self._expiries, "a token from long ago")
        self.insist(clock < self._expiries[token], "a token that has expired")
