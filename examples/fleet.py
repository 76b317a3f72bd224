"""Many wallets in one process: eight log in at a time, and all share renewals and eras.

    python fleet.py https://service.example --keys FOLDER    # a file for each private key

Each wallet gets its number as a name. A wallet with a permanent error is left out, and the keeper's
log names it; transient errors are retried without a limit.
"""

from __future__ import annotations

import argparse
import sys
from collections.abc import Iterable
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import requests

from tessaline.auth import AuthManager
from tessaline.errors import LOGIN_ERRORS
from tessaline.integrations.requests import WalletAuth
from tessaline.keeper import Keeper
from tessaline.keys import from_file


def run(keys: Iterable[str], url: str) -> int:
    """Log all in and name them; return how many are left out."""
    with Keeper([AuthManager(key, url) for key in keys], at_once=8) as keeper:
        try:
            keeper.start()
        except* LOGIN_ERRORS as refused:
            print(f"{len(refused.exceptions)} of {len(keeper)} wallets are left out", file=sys.stderr)
        wallets = keeper.status().wallets
        able = [address for address in keeper if wallets[address].state != "stopped"]

        def name(number: int, address: str) -> str:
            response = requests.post(
                f"{url}/api/profile/display_name",
                json={"display_name": f"Wallet {number}"},
                auth=WalletAuth(keeper[address], url),
                timeout=30,
            )
            return f"{address} {response.status_code}"

        with ThreadPoolExecutor(8) as pool:
            for line in pool.map(name, range(1, len(able) + 1), able):
                print(line)
        return len(keeper) - len(able)


if __name__ == "__main__":
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("server_url")
    parser.add_argument("--keys", type=Path, required=True, metavar="FOLDER")
    options = parser.parse_args()
    private_keys = [from_file(file) for file in sorted(options.keys.iterdir()) if file.is_file()]
    sys.exit(1 if run(private_keys, options.server_url) else 0)
