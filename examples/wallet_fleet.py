"""Many wallets in one process: a bounded number of logins at once, one listener for eras, one close.

    with WalletFleet(AuthManager(key, "https://service.example") for key in keys) as fleet:
        for address, error in fleet.log_in().items():
            print(address, "could not log in:", error)
        on_era_message(fleet.notify_era_change)  # whatever tells your program of eras
        token = fleet[address].get_token()

Each wallet renews its own token in the background, at a moment of its own around four fifths of a day, so
the server does not see them all at once; an announced era makes all log in at once, each on a thread of
its own. `log_in()` may be called again, also while the program works: it tries only those wallets that
have no token yet.
"""

from __future__ import annotations

import contextlib
from collections.abc import Iterable, Iterator
from concurrent.futures import ThreadPoolExecutor
from types import TracebackType
from typing import Self

from tessaline.auth import AuthError, AuthManager


class WalletFleet:
    """Managers by wallet address; closed together, at the latest when the block is left.

    Args:
        managers: One per wallet, none of them logged in. When one cannot be made, those before it are closed.
        at_once: How many logins may run at the same time.

    All methods may be called from any thread.
    """

    def __init__(self, managers: Iterable[AuthManager], *, at_once: int = 8) -> None:
        self._at_once = at_once
        self._managers: dict[str, AuthManager] = {}
        try:
            for manager in managers:
                self._managers[manager.get_wallet_address()] = manager
        except BaseException:
            self.close()
            raise

    def __getitem__(self, address: str) -> AuthManager:
        return self._managers[address.lower()]

    def __iter__(self) -> Iterator[AuthManager]:
        return iter(self._managers.values())

    def __len__(self) -> int:
        return len(self._managers)

    def log_in(self) -> dict[str, Exception]:
        """Log in every wallet that has not logged in yet; the failures by wallet address.

        Blocks until each has either a token or a failure, or the fleet is closed.
        """
        waiting = [manager for manager in self if not _has_token(manager)]
        pool = ThreadPoolExecutor(self._at_once, "wallet-login")
        try:
            failures = list(pool.map(_login_failure, waiting))
        finally:
            # After Ctrl-C the logins that have not begun are not waited for.
            pool.shutdown(cancel_futures=True)
        addresses = (manager.get_wallet_address() for manager in waiting)
        return {
            address: failure
            for address, failure in zip(addresses, failures, strict=True)
            if failure is not None
        }

    def notify_era_change(self, new_era_number: int) -> None:
        """Tell every wallet of the era; returns at once, and from then on none serves an older token.

        Raises:
            ValueError: The number is not positive.
            ExceptionGroup: Some wallets could not start a thread; the others have been told.
        """
        failures: list[Exception] = []
        for manager in self:
            try:
                # Without a token there is nothing to replace: the login to come will be of the new era.
                with contextlib.suppress(AuthError):
                    manager.notify_era_change(new_era_number)
            except RuntimeError as error:
                failures.append(error)
        if failures:
            raise ExceptionGroup(f"era {new_era_number} did not reach {len(failures)} wallets", failures)

    def close(self) -> None:
        """Close every manager, which ends the logins and waits under way with "manager_closed"."""
        with ThreadPoolExecutor(self._at_once, "wallet-close") as pool:
            for closing in [pool.submit(manager.close) for manager in self]:
                closing.result()

    def __enter__(self) -> Self:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self.close()


def _has_token(manager: AuthManager) -> bool:
    try:
        manager.get_token_expiry()
    except AuthError:
        return False
    return True


def _login_failure(manager: AuthManager) -> Exception | None:
    try:
        manager.authenticate()
    except Exception as error:
        return error
    return None
