"""An era for many managers whose server speaks TLS."""

from __future__ import annotations

import statistics
import time
from concurrent.futures import ThreadPoolExecutor

import floors

from tessaline import auth

from .crowds import ERAS, WALLETS
from .logins import LOGIN_BODIES, login_urls
from .network_getters import BARE_SHARING, root_store
from .network_trust import trusted_beside_the_system, trusted_here
from .places import running_server
from .ratios import Figure, Group, Ratio, in_turns, medians_of

PATIENCE = 120.0


def era_of_a_fleet(rounds: int) -> Group:
    """An announcement to 1,000 managers of one process, compared with the same exchanges by bare libcurl."""
    with (
        trusted_beside_the_system() as trust,
        trusted_here(trust),
        running_server(delay_milliseconds=5, certificate=(trust.chain, trust.key)) as server,
    ):
        fleet = [auth.AuthManager(f"{number + 1:064x}", server.base) for number in range(WALLETS)]
        with ThreadPoolExecutor(8) as threads:
            for login in [threads.submit(manager.authenticate) for manager in fleet]:
                login.result(PATIENCE)
        urls = login_urls(server.base)
        roots = root_store()
        opened = []

        def told() -> float:
            era = next(ERAS)
            server.begin_era(era)
            before, _ = server.count()
            begin = time.perf_counter()
            for manager in fleet:
                manager.notify_era_change(era)
            for manager in fleet:
                event = manager._auth_event
                assert event is None or event.wait(max(0.0, begin + PATIENCE - time.perf_counter()))
            spent = time.perf_counter() - begin
            opened.append(server.count()[0] - before - 1)  # without that of this request
            for manager in fleet:
                manager.get_token()
            return spent

        samples = in_turns(
            {
                "tessaline": told,
                BARE_SHARING: lambda: floors.bare_crowd(WALLETS, urls, LOGIN_BODIES, roots),
            },
            rounds,
        )
        for manager in fleet:
            manager.close()
    figure = Figure(
        f"throughput of {WALLETS:,} managers at an era over TLS",
        BARE_SHARING,
        Ratio.of(samples[BARE_SHARING], samples["tessaline"]),
        0.5,
        at_most=False,
        note=f"{statistics.median(opened):,.0f} new connections; bare libcurl makes one for each login, on "
        "as many threads, without a signature or a token",
    )
    return Group("An era for a whole fleet over TLS", [figure], medians_of(samples))
