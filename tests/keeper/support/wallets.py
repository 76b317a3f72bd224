"""Wallets with different keys, and their managers."""

from __future__ import annotations

import hashlib
from typing import Any

import canary
from tessaline import auth
from tests.contract.support.service import BASE

from .service import Service


def key(number: int) -> str:
    text = hashlib.sha256(f"wallet {number} of the keeper's tests".encode()).hexdigest()
    canary.plant("key", text)
    return text


def manager(service: Service, clock: Any, number: int = 0, **options: Any) -> Any:
    return canary.watch(auth.AuthManager(key(number), BASE, clock=clock, _transport=service, **options))


def fleet(service: Service, clock: Any, count: int) -> list[Any]:
    return [manager(service, clock, number) for number in range(count)]
