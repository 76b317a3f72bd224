"""gRPC with the wallet's bearer token on every call.

    manager = AuthManager(private_key, "https://service.example")
    manager.authenticate()
    with WalletCallCredentials(manager) as wallet:
        credentials = wallet.composed_with(grpc.ssl_channel_credentials())
        with grpc.secure_channel("service.example:443", credentials) as channel:
            stub = OrdersStub(channel)
            stub.List(request, timeout=30)

Every call asks the manager for its token, which costs next to nothing and always gives the right one. gRPC
sends it to the channel's server only, and refuses to send it over a channel without encryption
(`grpc.local_channel_credentials` counts as safe).

The manager is asked on a thread of its own: while it renews its token the calls wait, each no longer than
its `timeout`, but gRPC's threads do not. Where the manager has no token to give, the call fails with a
`grpc.RpcError` whose `details()` name the reason, and nothing has been sent.

A status of UNAUTHENTICATED means that the service refuses a token which the manager holds good, most often
because a new era has begun whose announcement is still on its way; announcing it with
`manager.notify_era_change()` is what makes the manager fetch another. Credentials cannot repeat a call:
that is the caller's, or an interceptor's.
"""

from __future__ import annotations

from concurrent.futures import ThreadPoolExecutor
from types import TracebackType
from typing import Self

import grpc

from tessaline.auth import AuthManager


class WalletCallCredentials(grpc.AuthMetadataPlugin):
    """What gRPC asks for credentials; a context manager, to be left after its channels."""

    def __init__(self, manager: AuthManager) -> None:
        self._manager = manager
        # One thread is enough: when the manager makes one caller wait, it makes all wait.
        self._asker = ThreadPoolExecutor(1, thread_name_prefix="wallet-token")

    def composed_with(self, channel: grpc.ChannelCredentials) -> grpc.ChannelCredentials:
        """The channel's own credentials and the wallet's, for `secure_channel` of `grpc` and `grpc.aio`."""
        return grpc.composite_channel_credentials(channel, grpc.metadata_call_credentials(self))

    def __call__(self, context: grpc.AuthMetadataContext, callback: grpc.AuthMetadataPluginCallback) -> None:
        self._asker.submit(self._answer, callback)

    def _answer(self, callback: grpc.AuthMetadataPluginCallback) -> None:
        try:
            token = self._manager.get_token()
        # Whatever it is, the call must end: without an answer it would wait for ever.
        except Exception as error:
            callback((), error)
        else:
            callback((("authorization", f"Bearer {token}"),), None)

    def close(self) -> None:
        """Let the thread go, once the calls that wait have a token or, from a closed manager, an error."""
        self._asker.shutdown()

    def __enter__(self) -> Self:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self.close()
