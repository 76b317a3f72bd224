"""Registered wallets, their display names and their secrets."""

import base64
import hashlib
import hmac
import re
from typing import Any

from eth_utils.address import to_checksum_address

from .refusal import Refusal

DISPLAY_NAME_ERROR = "Display name must be 3-32 characters: letters, numbers, spaces, hyphens, underscores"

_ADDRESS = re.compile(r"0x[0-9a-fA-F]{40}")
_DISPLAY_NAME = re.compile(r"[a-zA-Z0-9_\- ]{3,32}")


def checksum_address(value: Any) -> str:
    """The checksum form of the address `value`; Refusal 400 for anything that is not an address."""
    if not isinstance(value, str) or not _ADDRESS.fullmatch(value):
        raise Refusal(400, "invalid_address")
    address = str(to_checksum_address(value))
    digits = value[2:]
    if digits not in (digits.lower(), digits.upper()) and value != address:
        raise Refusal(400, "invalid_address")
    return address


class Wallets:
    """The wallets that the service knows, by checksum address.

    secret: key from which every wallet's secret is derived, so that secrets survive a reset.
    """

    def __init__(self, secret: bytes) -> None:
        self._secret = secret
        self._display_names: dict[str, str | None] = {}

    def clear(self) -> None:
        """Forget every wallet."""
        self._display_names.clear()

    def __len__(self) -> int:
        return len(self._display_names)

    def __contains__(self, address: str) -> bool:
        return address in self._display_names

    def add(self, address: str) -> None:
        """Register `address`; has no effect if it is registered."""
        self._display_names.setdefault(address, None)

    def rename(self, address: str, display_name: Any) -> None:
        """Give `address` a display name, or none; Refusal 400 if the name is invalid."""
        if display_name is not None and not (
            isinstance(display_name, str) and _DISPLAY_NAME.fullmatch(display_name)
        ):
            raise Refusal(400, DISPLAY_NAME_ERROR)
        self._display_names[address] = display_name

    def secret_of(self, address: str) -> str:
        """The 32 secret bytes of `address` in standard base64, always the same."""
        digest = hmac.digest(self._secret, b"wallet secret of " + address.encode(), hashlib.sha256)
        return base64.b64encode(digest).decode()
