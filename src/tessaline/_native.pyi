"""The native parts of the modules beside `tessaline.auth`; private to the package."""

import threading
from collections.abc import Callable, Mapping
from typing import Final, final

from typing_extensions import disjoint_base

bundled: Final[bool]
"""Whether libcurl, OpenSSL and libsecp256k1 are copies inside the package."""

def library_versions() -> tuple[str, str, str]:
    """The versions of libcurl and OpenSSL that are in use, and of libsecp256k1 as it was at the build.

    Raises:
        OSError: The library that makes requests cannot be loaded.
    """

def set_event(event: threading.Event, /) -> None:
    """Set a `threading.Event` in one step: a signal handler that touches it cannot run inside."""

@final
class EraBoard:
    """The highest era that was announced, in memory shared with the children of a fork.

    Create it before the fork and pass it to the keepers of all children: an era that is announced in one
    process reaches all. Any thread and process may use it; nothing waits.

    Raises:
        OSError: There is no memory to share.
    """

    def __new__(cls) -> EraBoard: ...
    @property
    def era(self) -> int:
        """The highest era that was announced; 0 for none."""
    def announce(self, era: int, /) -> None:
        """Raise the board to this era, for every process that shares it; a lower one changes nothing.

        Raises:
            ValueError: The number is not positive, or is too large.
        """

@final
class TokenCopy:
    """A token, and whether it may be served."""

    def __new__(cls, clock: Callable[[], float], board: EraBoard) -> TokenCopy: ...
    @property
    def token(self) -> str | None:
        """The token, good or not; None for none."""
    @property
    def expiry(self) -> float:
        """When it expires, in seconds on the clock."""
    @property
    def era(self) -> int:
        """The era of the token; 0 where it names none."""
    def put(self, token: str, expiry: float, era: int) -> None:
        """Replace token, expiry (seconds on the clock) and era (0: none)."""
    def drop(self) -> None:
        """Forget the token."""
    def shift(self, seconds: float, /) -> None:
        """Move the expiry with a clock that was set."""
    def get(self) -> str | None:
        """The token if it is good now, else None."""

def own_get_token[Subclass: type[Serving]](cls: Subclass, /) -> Subclass:
    """Class decorator: gives a subclass of `Serving` a `get_token` that is called at its cheapest."""

@disjoint_base
class Serving:
    """Serves a token: natively while it is valid, otherwise by `_wait_for_token(timeout)`."""

    _copy: TokenCopy | None
    def get_token(self, timeout: float | None = 10.0) -> str:
        """Return the wallet's token: the keeper's own copy, at once, while it is valid.

        A copy is valid until its expiry, unless a newer era was announced. Cheap: call it before every
        request instead of storing the token. May be called from any thread.

        Args:
            timeout: How long to wait without a valid copy, in seconds of real time; 0 does not wait, None
                waits without a limit.

        Returns:
            The token, a JWT as str.

        Raises:
            AuthError: "not_authenticated" before start(), "manager_closed" after close() or woken by it, or
                the error of the last attempt; "token_expired" or "era_change_pending" if there was none yet.
            NetworkError, RegistrationError, OSError and others: The error of the last login attempt.
        """

@final
class Transport:
    """A transport with settings of its own, which are taken as they are given.

    Args:
        timeout: Seconds that an exchange may take in all.
        ca_file: Path of the file of trusted certificates, or None for what the host trusts.
        proxy: URL of the proxy, "" for none, or None for those of the environment.
        user_agent: As which it presents itself; "" for the package and its version.
        shown: What the `repr` is.
        on_exchange: Called after each exchange with path, status or None, and seconds; or None.
        on_mistake: Called without arguments while an exception of `on_exchange` is being handled.
        amend: Called with an answer that has a `Retry-After`, and returns what takes its place; or None.
    """

    def __new__(
        cls,
        timeout: float,
        ca_file: bytes | None,
        proxy: str | None,
        user_agent: str,
        shown: str,
        on_exchange: Callable[[str, int | None, float], object] | None,
        on_mistake: Callable[[], object],
        amend: Callable[[tuple[int, dict[str, str], bytes]], tuple[int, dict[str, str], bytes]] | None,
    ) -> Transport: ...
    def __call__(
        self,
        method: str,
        url: str,
        headers: Mapping[str, str] | None = None,
        body: str | bytes | None = None,
    ) -> tuple[int, dict[str, str], bytes]: ...
