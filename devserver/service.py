"""The service's state."""

import secrets
from collections.abc import Iterable
from copy import deepcopy
from dataclasses import asdict

from .challenges import Challenges
from .invites import Invites
from .settings import Settings
from .tokens import Tokens
from .wallets import Wallets


class Service:
    """Wallets, invites, challenges and tokens under one set of settings.

    settings: the initial ones; a reset restores them.
    invites: codes that are valid at the start and after a reset.
    secret: signs tokens and derives wallet secrets; None for a random one.
    """

    def __init__(self, settings: Settings, invites: Iterable[str] = (), secret: bytes | None = None) -> None:
        secret = secret or secrets.token_bytes(32)
        self._initial = deepcopy(settings)
        self._initial_invites = tuple(invites)
        self.settings = settings
        self.invites = Invites(self._initial_invites)
        self.wallets = Wallets(secret)
        self.challenges = Challenges(settings)
        self.tokens = Tokens(secret, settings)

    def reset(self) -> None:
        """Restore the initial state; wallet secrets and the token key stay the same."""
        self.settings.update(asdict(self._initial))
        self.invites = Invites(self._initial_invites)
        self.wallets.clear()
        self.challenges.clear()

    def register(self, address: str, invite_code: str | None) -> None:
        """Register the checksum `address`; redeems the invite if a new wallet needs one."""
        if address in self.wallets:
            return
        if self.settings.invite_only:
            self.invites.redeem(invite_code, address)
        self.wallets.add(address)

    def may_log_in(self, address: str) -> bool:
        return self.settings.allow_unregistered or address in self.wallets
