"""Tokens for long-running processes: renewed early, retried after transient errors, valid through outages.

    from tessaline.auth import AuthManager
    from tessaline.keeper import Keeper

    manager = AuthManager(key, "https://service.example")
    with Keeper(manager) as keeper:
        keeper.start()
        headers = {"Authorization": f"Bearer {keeper.get_token()}"}

An `AuthManager` stops renewing if the server is down for a few seconds at the wrong moment. A `Keeper`
holds one manager or a thousand, serves its own copies of their tokens, and retries without a limit.
Importing it starts nothing.
"""

from tessaline._native import EraBoard as EraBoard

from .keeper import Keeper as Keeper
from .status import KeeperEvent as KeeperEvent
from .status import KeeperStatus as KeeperStatus
from .status import WalletState as WalletState
from .status import WalletStatus as WalletStatus
from .wallet import Wallet as Wallet

__all__ = ["EraBoard", "Keeper", "KeeperEvent", "KeeperStatus", "Wallet", "WalletState", "WalletStatus"]
