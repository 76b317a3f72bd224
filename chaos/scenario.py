"""The parameters of one flow, drawn from a seed: the same number always draws the same flow."""

from __future__ import annotations

import random
from collections.abc import Iterator
from dataclasses import dataclass, field
from functools import cache

from .catalogue import fitting
from .contract import GOOD, LOGIN, MOST_ATTEMPTS, REGISTER, RENAME, Fault, Plan

# Which faults can affect which flow: a login alone, one during which an era is announced, and so on.
FIRST_LOGIN, LOGIN_AGAIN, REFRESH, ERA, NAMING = (
    "first login",
    "login again",
    "refresh",
    "era change",
    "rename",
)
KINDS = (FIRST_LOGIN, LOGIN_AGAIN, REFRESH, ERA, NAMING)
SCHEMES = ("http", "https")

# Each stall takes real time.
_STALLING_SHARE = 0.1


@dataclass(frozen=True)
class Scenario:
    """One flow: what runs, the faults of its requests, and its waiters.

    overtaken: an era is announced during the first request. late: seconds by which a refresh is late.
    getters, logins, renamers: callers while it runs. early, expired: callers of `get_token` that
    precede a refresh and find the token due, or expired.
    """

    seed: str
    kind: str
    scheme: str
    plan: Plan
    overtaken: bool = False
    late: float = 0.0
    getters: int = 1
    logins: int = 1
    renamers: int = 0
    early: int = 0
    expired: int = 0
    jitter: float = field(default=0.0)

    def __str__(self) -> str:
        plan = "; ".join(
            f"{endpoint}: {', '.join(fault.name for fault in faults)}"
            for endpoint, faults in self.plan.items()
        )
        more = ", overtaken by an era" if self.overtaken else ""
        return f"{self.seed}: {self.kind} over {self.scheme}{more} [{plan}]"


def endpoints_of(kind: str) -> tuple[str, ...]:
    return (RENAME,) if kind == NAMING else LOGIN


@cache
def _products() -> tuple[tuple[str, str, str, Fault, int], ...]:
    """Every fault at every endpoint in every kind of flow: once, and until all tries have failed."""
    return tuple(_combinations())


def _combinations() -> Iterator[tuple[str, str, str, Fault, int]]:
    for kind in KINDS:
        for endpoint in endpoints_of(kind):
            for scheme in SCHEMES:
                for fault in fitting(endpoint, scheme):
                    if fault.resent:
                        # A connection is not certainly kept before the first request, nor after other faults.
                        if (kind, endpoint) != (FIRST_LOGIN, REGISTER):
                            yield kind, scheme, endpoint, fault, 1
                        continue
                    for times in (1, MOST_ATTEMPTS):
                        yield kind, scheme, endpoint, fault, times


def product_size() -> int:
    return len(_products())


def draw(seed: int, number: int) -> Scenario:
    """Flow `number` of `seed`: first the whole product in a random order, then random ones."""
    chance = random.Random(f"{seed}:{number}")
    if number < product_size():
        order = _order(seed)
        kind, scheme, endpoint, fault, times = _products()[order[number]]
        plan: Plan = {endpoint: (fault,) * times}
    else:
        kind, scheme = chance.choice(KINDS), chance.choice(SCHEMES)
        plan = {endpoint: _script(chance, endpoint, scheme) for endpoint in endpoints_of(kind)}
    overtakable = kind in (FIRST_LOGIN, LOGIN_AGAIN, REFRESH)
    refreshing = kind == REFRESH
    return Scenario(
        seed=f"{seed}:{number}",
        kind=kind,
        scheme=scheme,
        plan=plan,
        overtaken=overtakable and chance.random() < 0.15,
        late=chance.choice((0.0, 0.25, 600.0, 7200.0)) if refreshing else 0.0,
        getters=chance.randrange(3),
        logins=chance.randrange(3),
        renamers=int(kind != NAMING and chance.random() < 0.2),
        early=chance.randrange(3) if refreshing else 0,
        expired=int(refreshing and chance.random() < 0.2),
        jitter=chance.uniform(-0.05, 0.05),
    )


@cache
def _order(seed: int) -> tuple[int, ...]:
    order = list(range(product_size()))
    random.Random(seed).shuffle(order)
    return tuple(order)


def _script(chance: random.Random, endpoint: str, scheme: str) -> tuple[Fault, ...]:
    """Some faults and successful responses in a row: mostly transient ones, so the others are reached."""
    length = chance.choice((0, 0, 1, 1, 2, 2, 3, 4, 6))
    return tuple(_pick(chance, endpoint, scheme) for _ in range(length))


def _pick(chance: random.Random, endpoint: str, scheme: str) -> Fault:
    if chance.random() < 0.15:
        return GOOD
    while True:
        fault = chance.choice(fitting(endpoint, scheme))
        if not fault.resent and (not fault.stalls or chance.random() < _STALLING_SHARE):
            return fault
