"""gRPC's call credentials, with a server on the loopback with TLS and with local credentials."""

from __future__ import annotations

import asyncio
import base64
import json
from collections.abc import Callable, Iterator
from concurrent.futures import ThreadPoolExecutor
from typing import Any

import grpc
import pytest
import trustme

from devserver.testing import DevServer
from tessaline.auth import AuthManager
from tessaline.integrations.grpc import WalletCallCredentials
from tests.sanitized import SANITIZER, patience
from tests.shared.threads import Worker, waiters

pytestmark = pytest.mark.skipif(SANITIZER is not None, reason="the core of gRPC is not instrumented")

SECONDS = patience(20.0)
METHOD = "/wallet.Registry/WhoAmI"


def who_am_i(_request: bytes, context: grpc.ServicerContext) -> bytes:
    """The wallet of the caller's token."""
    authorization = str(dict(context.invocation_metadata())["authorization"])
    payload = authorization.removeprefix("Bearer ").split(".")[1]
    claims = json.loads(base64.urlsafe_b64decode(payload + "=" * (-len(payload) % 4)))
    return str(claims["sub"]).lower().encode()


AUTHORITY = trustme.CA()
CERTIFICATE = AUTHORITY.issue_cert("localhost")
KINDS: dict[str, tuple[grpc.ServerCredentials, grpc.ChannelCredentials]] = {
    "tls": (
        grpc.ssl_server_credentials(
            [(CERTIFICATE.private_key_pem.bytes(), CERTIFICATE.cert_chain_pems[0].bytes())]
        ),
        grpc.ssl_channel_credentials(AUTHORITY.cert_pem.bytes()),
    ),
    "local": (grpc.local_server_credentials(), grpc.local_channel_credentials()),
}


@pytest.fixture(params=KINDS)
def registry(request: pytest.FixtureRequest) -> Iterator[tuple[str, grpc.ChannelCredentials]]:
    """A running gRPC server: its address, and the roots that a channel to it trusts."""
    server_credentials, channel_credentials = KINDS[request.param]
    with ThreadPoolExecutor(2) as pool:
        server = grpc.server(pool)
        handler: grpc.RpcMethodHandler[bytes, bytes] = grpc.unary_unary_rpc_method_handler(who_am_i)
        service = grpc.method_handlers_generic_handler("wallet.Registry", {"WhoAmI": handler})
        server.add_generic_rpc_handlers((service,))
        port = server.add_secure_port("localhost:0", server_credentials)
        server.start()
        yield f"localhost:{port}", channel_credentials
        assert server.stop(None).wait(SECONDS)


@pytest.fixture
def asking(registry: tuple[str, grpc.ChannelCredentials]) -> Iterator[Callable[..., str]]:
    """Asks for a manager's identity, over a separate channel that is kept."""
    address, trusted = registry
    kept: dict[AuthManager, tuple[WalletCallCredentials, grpc.Channel]] = {}

    def ask(manager: AuthManager, timeout: float = SECONDS) -> str:
        if manager not in kept:
            wallet = WalletCallCredentials(manager)
            kept[manager] = wallet, grpc.secure_channel(address, wallet.composed_with(trusted))
        call: Callable[..., bytes] = kept[manager][1].unary_unary(METHOD)
        return call(b"", timeout=timeout, wait_for_ready=True).decode()

    yield ask
    for wallet, channel in kept.values():
        channel.close()
        wallet.close()


def test_every_call_carries_the_managers_token(manager: AuthManager, asking: Callable[..., str]) -> None:
    assert [asking(manager) for _ in range(3)] == [manager.get_wallet_address()] * 3


def test_under_asyncio_too(manager: AuthManager, registry: tuple[str, grpc.ChannelCredentials]) -> None:
    address, trusted = registry

    async def ask(wallet: WalletCallCredentials) -> Any:
        async with grpc.aio.secure_channel(address, wallet.composed_with(trusted)) as channel:
            call: Any = channel.unary_unary(METHOD)
            return await call(b"", timeout=SECONDS)

    with WalletCallCredentials(manager) as wallet:
        assert asyncio.run(ask(wallet)).decode() == manager.get_wallet_address()


def test_calls_wait_for_a_renewal_and_hold_nobody_else_up(
    server: DevServer,
    manager: AuthManager,
    new_wallet: Callable[[], AuthManager],
    asking: Callable[..., str],
) -> None:
    other = new_wallet()
    other.authenticate()
    asking(manager)
    server.settings(era=2)
    server.faults("challenge", [{"kind": "hold"}])
    manager.notify_era_change(2)
    server.wait_for("challenge", 3)

    calls = [Worker(asking, manager) for _ in range(40)]
    assert asking(other) == other.get_wallet_address()
    with pytest.raises(grpc.RpcError) as caught:
        asking(manager, timeout=0.1)
    assert code_of(caught.value) == grpc.StatusCode.DEADLINE_EXCEEDED
    # On gRPC's threads, each call would block one of them.
    assert manager._auth_event is not None
    assert waiters(manager._auth_event) == 1
    server.release()
    assert [call.result() for call in calls] == [manager.get_wallet_address()] * 40


def test_without_a_token_the_call_fails_and_says_why(
    new_wallet: Callable[[], AuthManager], asking: Callable[..., str]
) -> None:
    with pytest.raises(grpc.RpcError) as caught:
        asking(new_wallet())
    assert code_of(caught.value) == grpc.StatusCode.UNAVAILABLE
    assert "not_authenticated" in str(caught.value)


def code_of(error: grpc.RpcError) -> grpc.StatusCode:
    # The exception of a call is both, which the types do not express.
    call: Any = error
    code: grpc.StatusCode = call.code()
    return code
