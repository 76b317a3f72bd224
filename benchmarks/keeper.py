"""A keeper of many wallets, compared with as many managers without a keeper."""

from __future__ import annotations

import threading
import time
from collections.abc import Callable, Sequence

from tessaline import auth
from tessaline.keeper import Keeper

from .crowds import ERAS, WALLETS
from .places import running_server
from .ratios import Figure, Group, Ratio, in_turns, medians_of

PATIENCE = 120.0
SAMPLE = 0.002


def era_of_a_keeper(rounds: int) -> Group:
    """The first and the last of 1,000 wallets to have a token of a new era."""
    threads: dict[str, list[int]] = {"keeper": [], "managers": []}
    with running_server(delay_milliseconds=5) as server:
        fleet = [auth.AuthManager(f"{number + 1:064x}", server.base) for number in range(2 * WALLETS)]
        alone, kept = fleet[:WALLETS], fleet[WALLETS:]
        for manager in alone:
            manager.authenticate()
        with Keeper(kept) as keeper:
            keeper.start()
            wallets = [keeper[address] for address in keeper]

            def told(
                announce: Callable[[int], None], take: Sequence[Callable[[], object]], who: str
            ) -> list[float]:
                era = next(ERAS)
                server.begin_era(era)
                most, stop = [0], threading.Event()

                def count() -> None:
                    while not stop.wait(SAMPLE):
                        most[0] = max(most[0], threading.active_count())

                counter = threading.Thread(target=count)
                before = threading.active_count()
                counter.start()
                begin = time.perf_counter()
                announce(era)
                ended = []
                for one in take:
                    one()
                    ended.append(time.perf_counter() - begin)
                stop.set()
                counter.join()
                threads[who].append(most[0] - before)
                return [ended[0], ended[-1]]

            def announce_to_all(era: int) -> None:
                for manager in alone:
                    manager.notify_era_change(era)

            first: dict[str, list[float]] = {"keeper": [], "managers": []}

            def by_keeper() -> float:
                takers = [lambda wallet=wallet: wallet.get_token(PATIENCE) for wallet in wallets]
                times = told(keeper.notify_era_change, takers, "keeper")
                first["keeper"].append(times[0])
                return times[1]

            def by_managers() -> float:
                times = told(announce_to_all, [manager.get_token for manager in alone], "managers")
                first["managers"].append(times[0])
                return times[1]

            samples = in_turns({"tessaline": by_keeper, "managers": by_managers}, rounds)
        for manager in alone:
            manager.close()
    most = {who: max(counts) for who, counts in threads.items()}
    figures = [
        Figure(
            f"last of {WALLETS:,} wallets of a keeper at an era",
            "as many managers",
            Ratio.of(samples["tessaline"], samples["managers"]),
            None,
            note=f"{most['keeper']} threads more at most, where the managers take {most['managers']}",
        ),
        Figure(
            f"first of {WALLETS:,} wallets of a keeper at an era",
            "as many managers",
            Ratio.of(first["keeper"][1:], first["managers"][1:]),
            1.0,
        ),
    ]
    return Group("An era for a keeper", figures, medians_of(samples))
