"""Settings, from the command line and changed at run time."""

import time
from collections.abc import Mapping
from dataclasses import dataclass, field, fields
from typing import Any

from .rules import FLAG, INTEGER_OR_NULL, LIFETIME, OBJECT, SECONDS, Rule

RULES: dict[str, Rule] = {
    "era": INTEGER_OR_NULL,
    "claims": OBJECT,
    "invite_only": FLAG,
    "allow_unregistered": FLAG,
    "clock_skew": SECONDS,
    "challenge_lifetime": SECONDS,
    "token_lifetime": LIFETIME,
}


@dataclass
class Settings:
    """The adjustable behaviour of the service.

    era: the era number in tokens, which they must have; None for tokens without one.
    claims: extra token claims; one with the name of a standard claim replaces it.
    invite_only: whether a new wallet needs an invite to register.
    allow_unregistered: whether an unregistered wallet gets challenges.
    clock_skew: seconds by which the service's clock is ahead of the machine's.
    challenge_lifetime: seconds until a challenge expires.
    token_lifetime: seconds until a token expires.
    """

    era: int | None = 1
    claims: dict[str, Any] = field(default_factory=dict)
    invite_only: bool = False
    allow_unregistered: bool = False
    clock_skew: float = 0.0
    challenge_lifetime: float = 300.0
    token_lifetime: float = 86400.0

    def now(self) -> float:
        """The service's time in Unix seconds."""
        return time.time() + self.clock_skew

    def update(self, changes: Mapping[str, Any]) -> None:
        """Apply `changes` by field name, all or none; ValueError names the first invalid one."""
        for name, value in changes.items():
            if name not in RULES:
                raise ValueError(f"unknown setting {name!r}")
            if not RULES[name].fits(value):
                raise ValueError(f"setting {name!r} must be {RULES[name].words}")
        for name, value in changes.items():
            setattr(self, name, RULES[name].take(value))

    def as_json(self) -> dict[str, Any]:
        """The settings by name, with the names of the extra claims in place of their values."""
        values = {item.name: getattr(self, item.name) for item in fields(self)}
        return values | {"claims": sorted(self.claims)}
