"""Many concurrent callers and managers."""

from __future__ import annotations

import itertools
import threading
import time
from collections.abc import Callable
from typing import Any

import floors

from tessaline import auth

from .logins import LOGIN_BODIES, canned_answers, login_urls, new_manager, one_flow, swallowed
from .places import KEY, running_server
from .ratios import Figure, Group, Ratio, in_turns, medians_of

PEOPLE = 64
WALLETS = 1000
ERAS = itertools.count(2)


class Crowd:
    """Threads that do one thing at the same time; returns when each has ended."""

    def __init__(self, people: int, errand: Callable[[], Any]) -> None:
        self.ended: list[float] = []
        self._errand = errand
        self._barrier = threading.Barrier(people + 1)
        self._threads = [threading.Thread(target=self._go) for _ in range(people)]
        for thread in self._threads:
            thread.start()

    def _go(self) -> None:
        self._barrier.wait(30)
        swallowed(self._errand)
        self.ended.append(time.perf_counter())

    def released(self) -> float:
        """The seconds until the slowest has ended."""
        begin = time.perf_counter()
        self._barrier.wait(30)
        for thread in self._threads:
            thread.join(60)
        assert len(self.ended) == len(self._threads), "some failed, or still run"
        return max(self.ended) - begin


def crowd_at_cold_start(base: str) -> float:
    with new_manager(base) as manager:
        return Crowd(PEOPLE, manager.authenticate).released()


def crowd_at_expiry(base: str) -> float:
    now = [1000.0]
    with new_manager(base, clock=lambda: now[0]) as manager:
        manager.authenticate()
        crowd = Crowd(PEOPLE, manager.get_token)
        now[0] += 100_000
        return crowd.released()


def single_flights(rounds: int) -> Group:
    """64 callers that need one login: they all wait for one flow, not for each other."""
    figures: list[Figure] = []
    medians: dict[str, float] = {}
    with running_server(delay_milliseconds=200) as server:
        kinds: dict[str, tuple[Callable[[str], float], str, int]] = {
            "cold start": (crowd_at_cold_start, server.base, 3),
            "expiry": (crowd_at_expiry, server.base, 6),
            "failing source": (crowd_at_cold_start, server.base + "/refuse", 3),
        }
        for name, (crowd, base, exchanges) in kinds.items():
            before = server.count()[1]
            samples = in_turns(
                {
                    "one": lambda base=base: one_flow(base),  # type: ignore[misc]
                    "crowd": lambda crowd=crowd, base=base: crowd(base),  # type: ignore[misc]
                },
                rounds,
            )
            answered = server.count()[1] - before
            expected = (rounds + 1) * (3 + exchanges)
            assert answered == expected, f"{name}: {answered} exchanges instead of {expected}"
            ratio = Ratio.of(samples["crowd"], samples["one"])
            note = "one flow on the wire, by the server's count"
            figures.append(Figure(f"slowest of {PEOPLE} callers, {name}", "one flow", ratio, 1.25, note=note))
            medians |= {
                f"{PEOPLE} callers, {name}": medians_of(samples)["crowd"],
                f"one flow, {name}": medians_of(samples)["one"],
            }
    return Group("Callers that come together", figures, medians)


def woken_waiters(rounds: int) -> Group:
    """How long after a store the last of 64 waiters runs."""

    class Noting(auth.AuthManager):
        def _store_auth_result(self, *result: Any) -> None:
            self.stored_at = time.perf_counter()
            super()._store_auth_result(*result)

    delays = []
    with running_server(delay_milliseconds=20) as server:
        for _ in range(rounds + 1):
            with Noting(KEY, server.base) as manager:
                crowd = Crowd(PEOPLE, manager.authenticate)
                crowd.released()
                delays.append((max(crowd.ended) - manager.stored_at) * 1000)
    figure = Figure(f"{PEOPLE} waiters, the last one runs after", "ms", Ratio.around(delays[1:]), 5.0)
    return Group("Waking", [figure], {"last waiter": figure.ratio.median / 1000})


def threads_at_once(rounds: int) -> Group:
    """Concurrent get_token() from 8 threads, compared with the same number of calls from one."""
    calls = 400_000
    with new_manager("https://auth.example.test", _transport=canned_answers()) as manager:
        manager.authenticate()

        def serve(times: int) -> None:
            get_token = manager.get_token
            for _ in range(times):
                get_token()

        samples = in_turns(
            {
                "8 threads": lambda: Crowd(8, lambda: serve(calls // 8)).released(),
                "1 thread": lambda: Crowd(1, lambda: serve(calls)).released(),
            },
            rounds,
        )
    ratio = Ratio.of(samples["1 thread"], samples["8 threads"])
    figure = Figure("throughput of 8 threads", "one thread's", ratio, 0.9, at_most=False)
    per_call = {name: value / calls for name, value in medians_of(samples).items()}
    return Group("get_token() from several threads", [figure], per_call)


def era_of_a_fleet(rounds: int) -> Group:
    """An announcement to 1,000 managers of one process, compared with the same exchanges by bare libcurl."""

    with running_server(delay_milliseconds=5) as server:
        fleet = [auth.AuthManager(f"{number + 1:064x}", server.base) for number in range(WALLETS)]
        for manager in fleet:
            manager.authenticate()
        urls = login_urls(server.base)

        def told() -> float:
            era = next(ERAS)
            server.begin_era(era)
            begin = time.perf_counter()
            for manager in fleet:
                manager.notify_era_change(era)
            for manager in fleet:
                event = manager._auth_event
                assert event is None or event.wait(60)
            spent = time.perf_counter() - begin
            for manager in fleet:
                manager.get_token()
            return spent

        def one_wallet() -> None:
            floors.bare_login(urls, LOGIN_BODIES)
            threading.Thread(target=int).start()

        def host_threads() -> float:
            threads = [threading.Thread(target=one_wallet) for _ in range(WALLETS)]
            begin = time.perf_counter()
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join(60)
            return time.perf_counter() - begin

        bare, hosted = "bare libcurl", "bare libcurl on the host's threads"
        samples = in_turns(
            {
                "tessaline": told,
                bare: lambda: floors.bare_crowd(WALLETS, urls, LOGIN_BODIES),
                hosted: host_threads,
            },
            rounds,
        )
        for manager in fleet:
            manager.close()
    figures = [
        Figure(
            f"throughput of {WALLETS:,} managers at an era",
            "bare libcurl's",
            Ratio.of(samples[bare], samples["tessaline"]),
            0.7,
            at_most=False,
        ),
        Figure(
            f"throughput of {WALLETS:,} times two Python threads",
            "bare libcurl's",
            Ratio.of(samples[bare], samples[hosted]),
            None,
            note="the first makes the three requests in one piece without the GIL, the "
            "second ends at once; no signature, no token",
        ),
    ]
    return Group("An era for a whole fleet", figures, medians_of(samples))
