"""The days of a keeper: a program that calls it continuously, and what must hold in every outage.

Time and the server are simulated; the keeper, its managers and threads are real. The driver advances
the clock in steps and waits after each until no wallet is due. Tokens are requested after each step by the
driver, during each request by the server, and continuously by a thread that does nothing else.
"""

from __future__ import annotations

import random
import threading
import time
from collections import Counter
from dataclasses import dataclass, replace

from tessaline.keeper import Keeper
from tests.contract.support.service import era_of
from tests.keeper.support.driving import is_idle
from tests.keeper.support.looks import WatchedClock
from tests.keeper.support.service import LIFETIME, Asked, Service
from tests.keeper.support.wallets import fleet

from .keeper_weather import MINUTE, Change

START = 1_700_000_000.0
WALLETS = 4
AT_ONCE = 2
DEADLINE = 20.0
# The longest delay between two attempts, plus a step of the clock.
BACK_WITHIN = 5 * MINUTE + 1.0
STEPS = {"away": 4 * MINUTE, "back": 12 * MINUTE}


@dataclass(frozen=True)
class Held:
    """The token that a wallet must have.

    expiry: until when it is valid, on the clock. surely_good_until: earlier by what the clock was set back
        meanwhile, since the keeper may subtract that: the server's time has continued.
    """

    token: str
    era: int
    expiry: float
    surely_good_until: float


class Days:
    """One keeper from its start.

    trouble: violations. counted: events.
    """

    def __init__(self, seed: str) -> None:
        self.seed = seed
        self.chance = random.Random(f"{seed}, the host")
        self.clock = WatchedClock(START)
        self.service = Service(self.clock)
        self.service.on_request = self._ask_meanwhile
        self.trouble: list[str] = []
        self.counted: Counter[str] = Counter()
        self.announced = 1
        self.reaches: list[tuple[float, int]] = []
        self.true_time = 0.0
        self.is_away = False
        self.seconds_away = 0.0
        self.good_since: float | None = 0.0
        self._held: dict[str, Held] = {}
        self._booked = 0
        # Odd while the driver changes something.
        self._version = 0
        self._over = threading.Event()
        self.keeper = Keeper(fleet(self.service, self.clock, WALLETS), at_once=AT_ONCE)
        self._asker = threading.Thread(target=self._ask_all_the_time, daemon=True)

    def live(self, changes: list[Change], until: float) -> None:
        """From the login to the end, `until` seconds of true time later."""
        with self.keeper:
            self.keeper.start()
            self._keep_books()
            self._asker.start()
            try:
                for change in [*changes, None]:
                    self._pass_time(until if change is None else change.at)
                    if change is not None:
                        self._happen(change)
                    if self.trouble:
                        break
            finally:
                self._over.set()
                self._asker.join(DEADLINE)
        self.counted["logins"] = len(self.service.granted)
        self.counted["requests"] = len(self.service.asked)

    # Time

    def _pass_time(self, until: float) -> None:
        while self.true_time < until and not self.trouble:
            mean = STEPS["away" if self.is_away else "back"]
            step = min(self.chance.expovariate(1 / mean), until - self.true_time)
            if self.reaches:
                step = min(step, max(0.0, self.reaches[0][0] - self.true_time))
            self._version += 1
            self.true_time += step
            self.seconds_away += step if self.is_away else 0.0
            self.clock.now += step
            self._reach_eras()
            self._version += 1
            self._settle()
            self._look()

    def _reach_eras(self) -> None:
        while self.reaches and self.reaches[0][0] <= self.true_time:
            self.service.era = max(self.service.era, self.reaches.pop(0)[1])
            self._weather_has_changed()

    def _settle(self) -> None:
        limit = time.monotonic() + DEADLINE
        while not is_idle(self.keeper, self.clock.now):
            if time.monotonic() > limit:
                self._complain(f"no rest: {self.keeper.status()}")
                return
            time.sleep(0.0001)
        self._keep_books()

    # Events

    def _happen(self, change: Change) -> None:
        self.counted[change.kind] += 1
        self._version += 1
        match change.kind:
            case "away":
                self.is_away = True
                if change.only_some:
                    self.service.wallet_faults = dict.fromkeys(list(self.keeper)[::2], change.fault)
                else:
                    self.service.fault = change.fault
            case "back":
                self.is_away = False
                self.service.heal()
            case "set clock":
                self._set_clock(change.number)
            case "era":
                self._announce(change.number)
        self._weather_has_changed()
        self._version += 1
        if change.kind == "set clock":
            self.clock.await_looks()
        if change.kind == "refused":
            self._report()
        self._settle()
        self._look()

    def _set_clock(self, seconds: float) -> None:
        self.clock.now += seconds
        back = max(0.0, -seconds)
        self._held = {
            address: replace(held, surely_good_until=held.surely_good_until - back)
            for address, held in self._held.items()
        }

    def _weather_has_changed(self) -> None:
        good = not self.is_away and self.service.era >= self.announced
        self.good_since = self.clock.now if good else None

    def _announce(self, late: float) -> None:
        era = max(self.service.era, self.announced) + 1
        if late:
            self.reaches.append((self.true_time + late, era))
            self.reaches.sort()
        else:
            self.service.era = era
        self.announced = era
        self.keeper.notify_era_change(era)
        for address in self.keeper:
            try:
                token = self.keeper[address].get_token(timeout=0)
            except Exception:
                continue
            if era_of(token) < era:
                self._complain(f"a token of era {era_of(token)} after {era} was announced")

    def _report(self) -> None:
        address = self.chance.choice(list(self.keeper))
        held = self._good(address)
        if held is None:
            return
        changed = self.keeper[address].report_refused(held.token)
        self._keep_books()
        if changed != (self._held[address].token != held.token):
            self._complain(f"a report said {changed}, and the token has not gone with it")

    # Invariants

    def _keep_books(self) -> None:
        granted = self.service.granted
        while self._booked < len(granted):
            one = granted[self._booked]
            expiry = one.at + LIFETIME
            self._held[one.address] = Held(one.token, one.era or 0, expiry, expiry)
            self._booked += 1

    def _good(self, address: str) -> Held | None:
        """The token of the wallet, if it must be served now."""
        held = self._held[address]
        return held if self.clock.now < held.surely_good_until and held.era >= self.announced else None

    def _may_be_served(self, token: str, address: str) -> bool:
        held = self._held[address]
        return token == held.token and self.clock.now < held.expiry and held.era >= self.announced

    def _look(self) -> None:
        """If nothing is running, each wallet serves the last token that it got, while that is valid."""
        for address in self.keeper:
            good = self._good(address)
            served = self._ask(address)
            if good is not None and served != good.token:
                self._complain(f"{'another token' if served else 'none'} though one is good: {address}")
            if served is not None and not self._may_be_served(served, address):
                self._complain(f"a token that is not good: {address}")
        good_for = None if self.good_since is None else self.clock.now - self.good_since
        if good_for is not None and good_for > BACK_WITHIN:
            missing = [address for address in self.keeper if self._good(address) is None]
            if missing:
                self._complain(f"no token {good_for:.0f} s after the server was back: {missing}")

    def _ask(self, address: str) -> str | None:
        try:
            token = self.keeper[address].get_token(timeout=0)
        except Exception:
            self.counted["refused"] += 1
            return None
        self.counted["served"] += 1
        return str(token)

    def _ask_meanwhile(self, asked: Asked) -> None:
        """During a login, on its thread."""
        good = self._good(asked.address) if asked.address in self._held else None
        if good is not None and self._ask(asked.address) != good.token:
            self._complain(f"not the good token during a login: {asked.address}")

    def _ask_all_the_time(self) -> None:
        addresses = list(self.keeper)
        while not self._over.is_set():
            for address in addresses:
                version, good = self._version, self._good(address)
                served = self._ask(address)
                if version % 2 or version != self._version:
                    continue
                if good is not None and served is None:
                    self._complain(f"refused while a token was good: {address}")
                if served is not None and era_of(served) < self.announced:
                    self._complain(f"a token of an older era: {address}")
            time.sleep(0.001)

    def _complain(self, text: str) -> None:
        self.trouble.append(f"{text}, at {self.true_time:.3f}, clock {self.clock.now - START:.3f}")
