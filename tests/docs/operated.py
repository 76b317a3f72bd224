"""A keeper as on the page about operating it: a stepped clock, and a service with faults."""

from __future__ import annotations

import threading
from collections.abc import Mapping
from typing import Self

from tessaline import auth
from tessaline.auth import AuthManager
from tessaline.keeper import Keeper, KeeperEvent, WalletStatus
from tessaline.testing import URL, FakeClock, FakeService
from tests.keeper.support.looks import quick_looks
from tests.shared.threads import DEADLINE, until

from .pages import DOCS, Block, blocks

PAGE = DOCS / "operating.md"
LIFETIME = float(auth._TOKEN_LIFETIME)
ADDRESS = "0x7e5f4552091a69125d5dfcb7b8c2659029395bdf"
"""Of the first wallet, whose key is 1."""

_ENDED = ("not started", "stopped", "closed")


def block_with(text: str) -> Block:
    (found,) = [block for block in blocks(PAGE) if text in block.text]
    return found


class Service(FakeService):
    """`error` is raised by each request, `forged` signatures are rejected, and held requests wait."""

    def __init__(self) -> None:
        super().__init__()
        self.error: Exception | None = None
        self.forged = False
        self._open = threading.Event()
        self._open.set()

    def hold(self) -> None:
        self._open.clear()

    def let_go(self) -> None:
        self._open.set()

    def __call__(
        self, method: str, url: str, headers: Mapping[str, str] | None = None, body: str | bytes | None = None
    ) -> tuple[int, Mapping[str, str], bytes]:
        assert self._open.wait(DEADLINE)
        if self.error is not None:
            raise self.error
        if self.forged and url.endswith("/auth/verify"):
            return 401, {}, b"{}"
        return super().__call__(method, url, headers, body)


class Operated:
    """A keeper that is not started, with its events. Leaving it closes it."""

    def __init__(self, wallets: int = 1) -> None:
        self.clock, self.service = FakeClock(), Service()
        self.events: list[KeeperEvent] = []
        managers = [
            AuthManager(f"{number:064x}", URL, clock=self.clock, _transport=self.service)
            for number in range(1, wallets + 1)
        ]
        self.keeper = Keeper(managers, on_event=self.events.append)
        self._looks = quick_looks()

    def __enter__(self) -> Self:
        self._looks.__enter__()
        return self

    def __exit__(self, *error: object) -> None:
        self.service.let_go()
        self.keeper.close()
        self._looks.__exit__(None, None, None)

    def kinds(self) -> list[str]:
        return [event.kind for event in self.events]

    def step(self, seconds: float) -> None:
        """Advance the time, and wait until everything due has happened and been reported."""
        # A manager's back-off between two tries follows this clock too.
        self.clock.step = 1.0 if self.service.away else 0.0
        self.clock.advance(seconds)
        until(lambda: all(map(self._is_settled, self.keeper.status().wallets.values())), "an idle keeper")

    def to_next_attempt(self) -> None:
        due = self.keeper.status().next_attempt
        assert due is not None
        self.step(due - self.clock.now)

    def wait_for(self, state: str) -> None:
        until(lambda: self.keeper.status().state == state, f"state {state!r}")

    def _is_settled(self, wallet: WalletStatus) -> bool:
        if wallet.state in _ENDED:
            return True
        return wallet.next_attempt is not None and wallet.next_attempt > self.clock.now
