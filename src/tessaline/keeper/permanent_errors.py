"""Which permanent errors stop the logins of a wallet for good."""

from __future__ import annotations

from tessaline.auth import AuthError, RegistrationError
from tessaline.errors import is_final


def stops_wallet(error: Exception, has_succeeded: bool) -> bool:
    """Whether no further attempt would help.

    After a successful login, an expired certificate or a maintenance page is a transient error: only what
    concerns the wallet itself stops it.
    """
    return is_final(error) and (isinstance(error, AuthError | RegistrationError) or not has_succeeded)
