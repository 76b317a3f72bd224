"""A script that does one thing within a time limit, such as a cron job.

    WALLET_KEY=... python one_job.py https://service.example --within 60

Exit status: 0 on success; 75 after a transient error, so that another run makes sense; 77 if
the service refuses the wallet or the request.
"""

from __future__ import annotations

import argparse
import sys
import time

import requests

from tessaline.auth import AuthManager
from tessaline.errors import LOGIN_ERRORS, is_final
from tessaline.integrations.requests import WalletAuth
from tessaline.keeper import Keeper
from tessaline.keys import from_environment

DONE, LATER, REFUSED = 0, 75, 77


def run(key: str, url: str, seconds: float) -> int:
    """Log in and name the wallet; return the exit status.

    It waits for the login for at most so many seconds. The request may take longer: its time-out limits each
    wait for the service, not their sum.
    """
    end = time.monotonic() + seconds
    with Keeper(AuthManager(key, url)) as keeper:
        keeper.start(wait=False)
        try:
            # Waits during an outage, and raises a permanent error at once.
            keeper.get_token(timeout=seconds)
            response = requests.post(
                f"{url}/api/profile/display_name",
                json={"display_name": "Ada"},
                auth=WalletAuth(keeper, url),
                timeout=max(end - time.monotonic(), 1.0),
            )
        except LOGIN_ERRORS as error:
            print(f"{url}: {error}", file=sys.stderr)
            return REFUSED if is_final(error) else LATER
    print(f"{url}: {response.status_code}")
    if response.ok:
        return DONE
    return LATER if response.status_code >= 500 else REFUSED


if __name__ == "__main__":
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("server_url")
    parser.add_argument("--within", type=float, default=60.0, metavar="SECONDS")
    options = parser.parse_args()
    sys.exit(run(from_environment("WALLET_KEY"), options.server_url, options.within))
