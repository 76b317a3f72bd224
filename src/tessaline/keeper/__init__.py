"""The token of a process that lives for months: kept good through anything that is transient.

    from tessaline.auth import AuthManager
    from tessaline.keeper import Keeper

    with Keeper(AuthManager(key, "https://service.example")) as keeper:
        keeper.start()
        headers = {"Authorization": f"Bearer {keeper.get_token()}"}

An `AuthManager` ends its renewal when the server is away for a few seconds at the wrong moment. A `Keeper`
holds one manager or a thousand, serves copies of their tokens of its own, and logs in again for as long as it
takes. Importing it starts nothing.
"""

from tessaline._native import EraBoard as EraBoard

from .keeper import Keeper as Keeper
from .status import KeeperEvent as KeeperEvent
from .status import KeeperStatus as KeeperStatus
from .status import WalletState as WalletState
from .status import WalletStatus as WalletStatus
from .wallet import Wallet as Wallet

__all__ = ["EraBoard", "Keeper", "KeeperEvent", "KeeperStatus", "Wallet", "WalletState", "WalletStatus"]
