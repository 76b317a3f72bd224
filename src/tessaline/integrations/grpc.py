"""gRPC with the wallet's bearer token on every call.

    from tessaline.integrations.grpc import WalletCallCredentials, WalletInterceptor

    with Keeper(AuthManager(private_key, "https://service.example")) as keeper:
        keeper.start()
        with WalletCallCredentials(keeper) as wallet:
            credentials = wallet.composed_with(grpc.ssl_channel_credentials())
            with grpc.secure_channel("service.example:443", credentials) as channel:
                stub = OrdersStub(grpc.intercept_channel(channel, WalletInterceptor(wallet)))
                stub.List(request, timeout=30)

Every call gets the current token from the source, at almost no cost. gRPC sends it only to
the channel's server, and refuses to send it over an unencrypted channel
(`grpc.local_channel_credentials` counts as safe).

If the source has to wait, one separate thread waits for all calls, each no longer than its `timeout`; gRPC's
threads are not blocked. Without a token the call fails with a `grpc.RpcError` whose `details()` name the
reason, and nothing has been sent.

The status UNAUTHENTICATED means that the service refuses a token that seemed valid, most often because a new
era has begun and was not announced yet. Credentials do not see the status, but the two interceptors do. They
report it to the keeper, which logs in again if that may help, and repeat a unary call once if there is then a
new token. They do not repeat streams: start the call again.
"""

from __future__ import annotations

import os
from collections.abc import Awaitable, Callable
from types import TracebackType
from typing import TYPE_CHECKING, Self

import grpc
import grpc.aio

from tessaline._ready import glance_for, of_one_wallet
from tessaline.aio import AsyncTokens
from tessaline.integrations._asker import Asker, closed_error
from tessaline.integrations._tokens import TokenSource, bearer, other_token, other_token_of

if TYPE_CHECKING:
    from grpc import _CallFuture  # pyright: ignore[reportPrivateUsage]

type _Metadata = tuple[tuple[str, str], ...]


class WalletCallCredentials(grpc.AuthMetadataPlugin):
    """Call credentials for gRPC; a context manager. Close the channels before leaving it.

    Args:
        tokens: A `Keeper` of one wallet, a wallet of a fleet, an `AuthManager`, or any object with
            `get_token()`.

    Raises:
        ValueError: `tokens` is a keeper of several wallets.

    One serves any number of channels of `grpc` and `grpc.aio`. In a forked child it starts fresh.
    """

    def __init__(self, tokens: TokenSource) -> None:
        self._tokens = of_one_wallet(tokens)
        self._latest: str | None = None
        self._glance = glance_for(self._tokens)
        self._closed = False
        # One thread is enough: if the source blocks one caller, it blocks all.
        self._process, self._asker = os.getpid(), Asker(self._ask)

    @property
    def tokens(self) -> TokenSource:
        """Where the tokens come from."""
        return self._tokens

    @property
    def latest(self) -> str | None:
        """The token of the latest call; None before the first call."""
        return self._latest

    def composed_with(self, channel: grpc.ChannelCredentials) -> grpc.ChannelCredentials:
        """The channel's own credentials and the wallet's, for `secure_channel` of `grpc` and `grpc.aio`."""
        return grpc.composite_channel_credentials(channel, grpc.metadata_call_credentials(self))

    def __call__(self, context: grpc.AuthMetadataContext, callback: grpc.AuthMetadataPluginCallback) -> None:
        def reply(metadata: _Metadata | None, error: Exception | None) -> None:
            callback(metadata or (), error)

        if self._closed:
            reply(None, closed_error())
        elif (token := self._glance(self._tokens)) is None:
            self._asker_here().ask(reply)
        else:
            try:
                metadata = self._given(token)
            except ValueError as error:
                reply(None, error)
            else:
                reply(metadata, None)

    def _ask(self) -> _Metadata:
        return self._given(self._tokens.get_token())

    def _given(self, token: str) -> _Metadata:
        header = bearer(token)
        self._latest = token
        return (("authorization", header),)

    def _asker_here(self) -> Asker[_Metadata]:
        if self._process != os.getpid():
            # The thread and the waiting calls are the parent's, and the lock may stay locked for ever.
            self._asker, self._process = Asker(self._ask), os.getpid()
        return self._asker

    def close(self) -> None:
        """End the thread. Waiting calls get an error, except those whose token is being fetched.

        Waits for these a second at most. May be called again, and from any thread.
        """
        self._closed = True
        self._asker_here().close()

    def __enter__(self) -> Self:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self.close()


class WalletInterceptor(grpc.UnaryUnaryClientInterceptor):
    """Repeats a refused unary call once, for `grpc.intercept_channel`.

    Args:
        wallet: The credentials of the channel.

    The repeated call has the full `timeout` again. A call started with `.future()` is neither repeated nor
    reported to the source, unless it has already ended. Only gRPC knows which token a call carried, so the
    token of the latest call is reported.
    """

    def __init__(self, wallet: WalletCallCredentials) -> None:
        self._wallet = wallet

    def intercept_unary_unary[Asked, Answer](
        self,
        continuation: Callable[[grpc.ClientCallDetails, Asked], _CallFuture[Answer]],
        client_call_details: grpc.ClientCallDetails,
        request: Asked,
    ) -> _CallFuture[Answer]:
        call = continuation(client_call_details, request)
        sent = self._wallet.latest
        if not call.done() or call.code() is not grpc.StatusCode.UNAUTHENTICATED or sent is None:
            return call
        if other_token(self._wallet.tokens, sent) is None:
            return call
        return continuation(client_call_details, request)


class WalletAioInterceptor(grpc.aio.UnaryUnaryClientInterceptor):
    """The same for `grpc.aio`: `grpc.aio.secure_channel(..., interceptors=[WalletAioInterceptor(wallet)])`.

    Args:
        wallet: The credentials of the channel.

    The event loop keeps running while the source logs in again.
    """

    def __init__(self, wallet: WalletCallCredentials) -> None:
        self._wallet = wallet
        self._tokens = AsyncTokens(wallet.tokens)

    async def intercept_unary_unary[Asked, Answer](
        self,
        continuation: Callable[
            [grpc.aio.ClientCallDetails, Asked], Awaitable[grpc.aio.UnaryUnaryCall[Asked, Answer]]
        ],
        client_call_details: grpc.aio.ClientCallDetails,
        request: Asked,
    ) -> grpc.aio.UnaryUnaryCall[Asked, Answer]:
        call = await continuation(client_call_details, request)
        try:
            code = await call.code()
        except BaseException:
            # gRPC cancels a call only after it is returned.
            call.cancel()
            raise
        sent = self._wallet.latest
        if code is not grpc.StatusCode.UNAUTHENTICATED or sent is None:
            return call
        if await other_token_of(self._tokens, sent) is None:
            return call
        return await continuation(client_call_details, request)


__all__ = ["WalletAioInterceptor", "WalletCallCredentials", "WalletInterceptor"]
