"""Logs a wallet in against the development server, and prints what happens at each step.

Run it with `make demo`; `make demo ARGS=--help` shows the steps. It exits with status 1, and prints why, as
soon as a check fails. Keys and secrets are never shown, and only the beginning of a token.
"""

# It reads private fields, which an application should not.
# pyright: reportPrivateUsage=false

import argparse
import base64
import contextlib
import json
import logging
import os
import secrets
import sys
import threading
import time
from collections.abc import Callable, Generator
from pathlib import Path
from typing import Any
from urllib.parse import urlsplit

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))

from devserver.testing import DevServer, DevServerError
from tessaline import auth
from tessaline.keeper import Keeper

LOGIN_PATHS = ["/auth/register", "/auth/challenge", "/auth/verify"]
PATIENCE = 10.0
HOUR = 3600.0


class DemoFailure(Exception):
    """A check has failed."""


def expect(condition: object, failure: str) -> None:
    if not condition:
        raise DemoFailure(failure)


def held[T](value: T | None) -> T:
    """A field of a manager that has logged in."""
    if value is None:
        raise DemoFailure("a field of the manager is missing after the login")
    return value


class Page:
    """The output: coloured on a terminal, plain elsewhere."""

    def __init__(self) -> None:
        self._colour = (
            sys.stdout.isatty() and not os.environ.get("NO_COLOR") and os.environ.get("TERM") != "dumb"
        )

    def _paint(self, text: str, code: str) -> str:
        return f"\x1b[{code}m{text}\x1b[0m" if self._colour else text

    def heading(self, text: str) -> None:
        print(f"\n{self._paint(text, '1;36')}", flush=True)

    def line(self, label: str, text: str) -> None:
        print(f"  {self._paint(f'{label:<14}', '2')}{text}", flush=True)

    def good(self, text: str) -> None:
        print(f"  {self._paint(f'{"ok":<14}{text}', '32')}", flush=True)

    def failure(self, text: str) -> None:
        sys.stdout.flush()
        print(self._paint(f"FAILED: {text}", "31"), file=sys.stderr)


class TimedTransport:
    """A manager's own transport, with the duration of every exchange in the client."""

    def __init__(self, transport: Callable[..., Any]) -> None:
        self._transport = transport
        self.exchanges: list[tuple[str, float]] = []

    def __call__(self, method: str, url: str, *arguments: Any, **named: Any) -> Any:
        started = time.monotonic()
        try:
            return self._transport(method, url, *arguments, **named)
        finally:
            self.exchanges.append((urlsplit(url).path, time.monotonic() - started))


class FastClock:
    """A wall clock that is twenty times as fast, and can be set forward."""

    def __init__(self) -> None:
        self._start = time.time()
        self._started = time.monotonic()

    def __call__(self) -> float:
        return self._start + 20 * (time.monotonic() - self._started)

    def leap_to(self, instant: float) -> None:
        self._start += max(0.0, instant - self())


class Demo:
    """What the steps share."""

    def __init__(self, server: DevServer, page: Page) -> None:
        self.server = server
        self.page = page

    def new_manager(self, **arguments: Any) -> auth.AuthManager:
        """A manager of a new wallet."""
        return auth.AuthManager(secrets.token_hex(32), self.server.url, **arguments)

    @contextlib.contextmanager
    def logged_in(self, **arguments: Any) -> Generator[auth.AuthManager]:
        """The same, logged in, and closed at the end."""
        with contextlib.closing(self.new_manager(**arguments)) as manager:
            manager.authenticate()
            yield manager

    def next_era(self) -> int:
        """Starts the server's next era."""
        era: int = self.server.settings()["era"] + 1
        self.server.settings(era=era)
        return era

    def answered_requests(self) -> list[dict[str, Any]]:
        """The server's log, once every request in it is complete."""
        wait_until(
            lambda: all(entry["duration"] is not None for entry in self.server.requests),
            "the server did not complete its responses",
        )
        return self.server.requests

    def count(self, endpoint: str) -> int:
        """How many requests have arrived there."""
        count: int = self.server.state()["counts"].get(endpoint, 0)
        return count


def wait_until(condition: Callable[[], object], failure: str) -> None:
    deadline = time.monotonic() + PATIENCE
    while not condition():
        expect(time.monotonic() < deadline, failure)
        time.sleep(0.01)


def claims_of(token: str) -> dict[str, Any]:
    """The claims in a token's payload, unverified."""
    payload = token.split(".")[1]
    claims: dict[str, Any] = json.loads(base64.urlsafe_b64decode(payload + "=" * (-len(payload) % 4)))
    return claims


def shortened(text: str) -> str:
    return f"{text[:6]}… ({len(text)} characters)"


def milliseconds(seconds: float) -> str:
    return f"{seconds * 1000:.1f} ms"


def date(seconds: float) -> str:
    return time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(seconds))


def instant(seconds: float) -> str:
    """A future time, as a date and relative to now."""
    hours, minutes = divmod(round((seconds - time.time()) / 60), 60)
    return f"{date(seconds)} (in {hours} h {minutes:02} min)"


def log_in(demo: Demo) -> None:
    """a wallet logs in"""
    page = demo.page
    manager = demo.new_manager()
    address = manager._wallet_address
    # The default transport, with the duration of each exchange.
    manager._transport = transport = TimedTransport(manager._transport)
    page.line("server", f"{demo.server.url} (development server, process {demo.server.pid})")
    page.line("wallet", f"{address} (new, its key is random)")

    started = time.monotonic()
    manager.authenticate()
    page.line("authenticate", f"took {milliseconds(time.monotonic() - started)}")

    requests = demo.answered_requests()
    paths = [entry["path"] for entry in requests]
    expect(paths == LOGIN_PATHS, f"the server received other requests than those of a login: {paths}")
    expect([path for path, _ in transport.exchanges] == paths, "client and server disagree on the requests")
    for entry, (path, duration) in zip(requests, transport.exchanges, strict=True):
        arrival = time.strftime("%H:%M:%S", time.localtime(entry["time"]))
        times = f"client {milliseconds(duration)}, server {milliseconds(entry['duration'])}"
        page.line("request", f"{arrival}  {entry['method']} {path:<16} {entry['status']}  {times}")
        expect(entry["status"] == 200, f"the response to {path} had status {entry['status']}")

    expect(manager._state == "AUTHENTICATED", f"the manager's state is {manager._state}")
    token = held(manager._token)
    claims = claims_of(token)
    page.line("token", shortened(token))
    for name, value in claims.items():
        meaning = f" ({date(value)})" if name in ("iat", "exp") else ""
        page.line(f"  {name}", f"{value}{meaning}")
    expect(claims["sub"].lower() == address, "the token's subject is not the wallet")
    page.line("wallet secret", f"{len(held(manager._wallet_secret))} bytes")
    expect(len(held(manager._wallet_secret)) == 32, "the wallet secret should have 32 bytes")

    start, refresh, expiry = held(manager._auth_time), held(manager._refresh_at), held(manager._token_expiry)
    lifetime = expiry - start
    share = (refresh - start) / lifetime
    page.line("local expiry", instant(expiry))
    page.line("next renewal", f"{instant(refresh)}, after {share:.1%} of the lifetime")
    expect(lifetime == 86400, f"the token's local lifetime is {lifetime} s, not a day")
    expect(0.76 <= share <= 0.84, "the renewal should be due after 80 % of the lifetime, ± 4 %")

    page.line("threads", ", ".join(thread.name for thread in threading.enumerate()))
    expect(held(manager._refresh_thread).is_alive(), "no renewal thread is running")
    page.good("the wallet has a token, and a background thread will renew it")


class Taker(threading.Thread):
    """Calls `get_token`, as a program does before its requests, until it is stopped."""

    def __init__(self, manager: auth.AuthManager, stop: threading.Event) -> None:
        super().__init__(daemon=True)
        self._manager = manager
        self._stop_taking = stop
        self.taken = 0
        self.longest = 0.0
        self.last: str | None = None
        self.error: Exception | None = None

    def run(self) -> None:
        try:
            while not self._stop_taking.wait(0.001):
                started = time.monotonic()
                self.last = self._manager.get_token()
                self.longest = max(self.longest, time.monotonic() - started)
                self.taken += 1
        except Exception as error:
            self.error = error


def renew(demo: Demo) -> None:
    """eight threads get tokens while the token is renewed"""
    page = demo.page
    clock = FastClock()
    with demo.logged_in(clock=clock) as manager:
        old = manager.get_token()
        stop = threading.Event()
        takers = [Taker(manager, stop) for _ in range(8)]
        for taker in takers:
            taker.start()

        def all_have(good: Callable[[Taker], bool]) -> bool:
            return all(taker.error is not None or good(taker) for taker in takers)

        wait_until(lambda: all_have(lambda taker: taker.taken > 20), "the threads got no tokens")
        page.line("before", f"{sum(taker.taken for taker in takers)} calls, all returned {shortened(old)}")
        clock.leap_to(held(manager._refresh_at))
        page.line("clock", "set to the renewal point")
        wait_until(lambda: all_have(lambda taker: taker.last != old), "the threads got no new token")
        stop.set()
        for taker in takers:
            taker.join(PATIENCE)
            expect(taker.error is None, f"a thread got no token: {taker.error!r}")
        page.line("after", f"{sum(taker.taken for taker in takers)} calls, none failed")
        page.line("longest wait", milliseconds(max(taker.longest for taker in takers)))
        expect(
            demo.count("verify") == 2, f"{demo.count('verify')} logins instead of the first and one renewal"
        )
        page.good("one renewal, and every thread has the new token")


def change_era(demo: Demo) -> None:
    """an era is announced, and the next token is of that era"""
    page = demo.page
    with demo.logged_in(clock=FastClock()) as manager:
        page.line("before", f"token of era {claims_of(manager.get_token())['era_number']}")
        era = demo.next_era()
        manager.notify_era_change(era)
        page.line("announced", f"era {era}")
        started = time.monotonic()
        carried = claims_of(manager.get_token())["era_number"]
        page.line("after", f"token of era {carried}, {milliseconds(time.monotonic() - started)} later")
        expect(carried == era, f"the token is of era {carried}, not {era}")
        page.good("the token is of the new era")


def survive_outage(demo: Demo) -> None:
    """logins during and after an outage"""
    page = demo.page
    with demo.logged_in(clock=FastClock()) as manager:
        token = manager.get_token()
        demo.server.faults("*", [{"kind": "close", "times": None}])
        page.line("outage", "the server closes every connection")
        try:
            manager.authenticate()
        except auth.NetworkError as error:
            page.line("authenticate", f"NetworkError: {error}")
        else:
            raise DemoFailure("a login succeeded without a server")
        expect(manager.get_token() == token, "the current token is lost")
        page.line("token", "the current one is still served")

        demo.server.faults("*", [])
        demo.server.faults("challenge", [{"kind": "status", "status": 503, "times": 2}])
        page.line("outage ends", "after two responses with status 503")
        before = demo.count("challenge")
        manager.authenticate()
        attempts = demo.count("challenge") - before
        page.line("authenticate", f"succeeded at try {attempts}")
        expect(attempts == 3, f"{attempts} tries, not 3")
        expect(manager.get_token() != token, "the new login returned no new token")
        page.good("logged in again")


def name_wallet(demo: Demo) -> None:
    """a display name is set, and two are rejected"""
    page = demo.page
    with demo.logged_in() as manager:
        answer = manager.set_display_name("  Ada Lovelace ")
        page.line("set", f"{answer['display_name']!r}")
        expect(answer["display_name"] == "Ada Lovelace", f"the server has another name: {answer}")

        before = demo.count("display_name")
        try:
            manager.set_display_name("no!")
        except ValueError as error:
            page.line("not sent", f"{error}")
        else:
            raise DemoFailure("a name with a forbidden character was accepted")
        expect(demo.count("display_name") == before, "the bad name was sent to the server")

        demo.server.faults(
            "display_name", [{"kind": "status", "status": 429, "headers": {"Retry-After": "7"}}]
        )
        try:
            manager.set_display_name("Grace Hopper")
        except auth.ProfileError as error:
            page.line("rejected", f"{error.reason}, retry after {error.retry_after} s")
            expect(error.reason == "rate_limited" and error.retry_after == 7, f"another error: {error!r}")
        else:
            raise DemoFailure("the server's error was not raised")
        page.good("one name set, two rejected")


def close_under_waiter(demo: Demo) -> None:
    """a thread that waits for a token is woken by close()"""
    page = demo.page
    ended: list[tuple[float, object]] = []
    with demo.logged_in(clock=FastClock()) as manager:
        demo.server.faults("challenge", [{"kind": "hold"}])
        before = demo.count("challenge")
        manager.notify_era_change(demo.next_era())
        demo.server.wait_for("challenge", before + 1, PATIENCE)

        def take() -> None:
            try:
                outcome: object = manager.get_token()
            except auth.AuthError as error:
                outcome = error.reason
            ended.append((time.monotonic(), outcome))

        waiter = threading.Thread(target=take, daemon=True)
        waiter.start()
        waiter.join(0.2)
        expect(waiter.is_alive(), "the thread did not wait for the current login")
        page.line("waiting", "a thread waits for a token while the server delays the login")

        closed = time.monotonic()
        manager.close()
        waiter.join(PATIENCE)
        expect(not waiter.is_alive(), "close() left the thread waiting")
        woken, outcome = ended[0]
        expect(outcome == "manager_closed", "the thread did not get manager_closed")
        page.line("woken", f"{milliseconds(woken - closed)} after close(), with {outcome}")
        expect(manager._token is None and manager._private_key is None, "the closed manager kept a secret")
        demo.server.release()
        page.good("the thread has ended its wait, and key, token and secret are wiped")


def outlive_day(demo: Demo) -> None:
    """a keeper survives an outage of a day"""
    page = demo.page
    clock = FastClock()
    # Its warnings would appear between the lines.
    logging.getLogger("tessaline.keeper").addHandler(logging.NullHandler())
    with Keeper(demo.new_manager(clock=clock)) as keeper:
        keeper.start()
        began, token = clock(), keeper.get_token()
        demo.server.faults("*", [{"kind": "close", "times": None}])
        page.line("outage", "the server closes every connection from now on")

        def is_planned_ahead() -> bool:
            planned = keeper.status().next_attempt
            return planned is not None and planned > clock()

        for hour in range(1, 24):
            clock.leap_to(began + hour * HOUR)
            expect(keeper.get_token(timeout=0) == token, f"no token after {hour} hours")
            wait_until(is_planned_ahead, "the keeper has stopped trying")
        status = keeper.status()
        expect(status.state == "retrying", f"the keeper is {status.state}")
        page.line("after 23 h", f"every call returned the token; {status.failures} attempts have failed")
        clock.leap_to(began + 25 * HOUR)
        try:
            keeper.get_token(timeout=0)
        except auth.NetworkError as error:
            page.line("after 25 h", f"the token has expired, NetworkError: {error}")
        else:
            raise DemoFailure("an expired token was served")

        wait_until(is_planned_ahead, "the keeper has stopped trying")
        demo.server.faults("*", [])
        ahead = held(keeper.status().next_attempt) - clock()
        page.line("outage ends", f"the next attempt is in {ahead:.0f} s")
        expect(ahead <= 300, "the next attempt is in more than five minutes")
        clock.leap_to(clock() + ahead)
        expect(keeper.get_token() != token, "the old token was served")
        page.good("logged in again, without a restart")


Step = Callable[[Demo], None]

STEPS: dict[str, Step] = {
    "log-in": log_in,
    "renew": renew,
    "change-era": change_era,
    "survive-outage": survive_outage,
    "outlive-day": outlive_day,
    "name-wallet": name_wallet,
    "close": close_under_waiter,
}
# The steps that `make demo` runs.
ENABLED = list(STEPS)


def run(names: list[str], page: Page) -> int:
    title = "start"
    try:
        with DevServer() as server:
            demo = Demo(server, page)
            for number, name in enumerate(names, 1):
                title = (STEPS[name].__doc__ or name).strip()
                page.heading(f"{number}. {title[0].upper()}{title[1:]}")
                server.reset()
                STEPS[name](demo)
    except (DemoFailure, DevServerError) as error:
        page.failure(f"{title}: {error}")
        return 1
    except Exception as error:
        page.failure(f"{title}: {type(error).__name__}: {error}")
        return 1
    print(flush=True)
    return 0


def main() -> int:
    parser = argparse.ArgumentParser(description="Log a wallet in against the development server.")
    steps = "; ".join(f"{name}: {(step.__doc__ or '').strip()}" for name, step in STEPS.items())
    parser.add_argument("steps", nargs="*", default=ENABLED, metavar="STEP", help=steps)
    names = parser.parse_args().steps
    unknown = [name for name in names if name not in STEPS]
    if unknown:
        parser.error(f"no such step: {', '.join(unknown)}")
    try:
        return run(names, Page())
    except KeyboardInterrupt:
        return 130


if __name__ == "__main__":
    sys.exit(main())
