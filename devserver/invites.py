"""Invite codes: known, redeemed, revoked."""

from collections.abc import Iterable

from .refusal import Refusal


def _canonical(code: str) -> str:
    return code.strip().lower()


class Invites:
    """Invite codes, ignoring case and surrounding spaces; each is for one wallet."""

    def __init__(self, codes: Iterable[str] = ()) -> None:
        self._redeemed_by: dict[str, str | None] = {}
        self._revoked: set[str] = set()
        self.add(codes)

    def add(self, codes: Iterable[str]) -> None:
        """Make `codes` valid for one redemption each, including revoked and redeemed ones."""
        for code in map(_canonical, codes):
            self._redeemed_by[code] = None
            self._revoked.discard(code)

    def revoke(self, codes: Iterable[str]) -> None:
        """Revoke `codes`."""
        for code in map(_canonical, codes):
            self._redeemed_by.setdefault(code, None)
            self._revoked.add(code)

    def redeem(self, code: str | None, address: str) -> None:
        """Redeem `code` for `address`; Refusal 403 has the reason if it is not valid."""
        code = _canonical(code or "")
        if not code:
            raise Refusal(403, "invite_required")
        if code not in self._redeemed_by:
            raise Refusal(403, "invite_invalid")
        if code in self._revoked:
            raise Refusal(403, "invite_revoked")
        if self._redeemed_by[code] is not None:
            raise Refusal(403, "invite_already_redeemed")
        self._redeemed_by[code] = address

    def as_json(self) -> dict[str, int]:
        """How many codes are known, redeemed and revoked; not the codes themselves."""
        redeemed = sum(address is not None for address in self._redeemed_by.values())
        return {"known": len(self._redeemed_by), "redeemed": redeemed, "revoked": len(self._revoked)}
