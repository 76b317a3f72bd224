"""requests, httpx and aiohttp with a manager: which servers get the token, the effect of a 401, and waits."""

from __future__ import annotations

import asyncio
import json
from collections.abc import Callable
from pathlib import Path
from typing import Any

import anyio
import pytest
import requests

from devserver.testing import DevServer
from tessaline.auth import AuthError, AuthManager
from tessaline.integrations.requests import WalletAuth
from tests.integrations.clients import ASYNC_CLIENTS, CLIENTS, SECONDS, Wanted, by_async_httpx
from tests.shared.threads import Worker

NAME = "/api/profile/display_name"

Client = Callable[[Wanted], tuple[int, bytes]]


@pytest.fixture(params=CLIENTS)
def client(request: pytest.FixtureRequest) -> Client:
    return CLIENTS[request.param]


def requests_at(server: DevServer, path: str) -> list[dict[str, Any]]:
    return [entry for entry in server.requests if entry["path"] == path]


def test_every_request_carries_the_managers_token(
    server: DevServer, manager: AuthManager, client: Client
) -> None:
    for _ in range(2):
        status, body = client(Wanted(manager, server.url, server.url + NAME))
        assert (status, json.loads(body)["display_name"]) == (200, "Ada")


def test_a_url_written_differently_is_the_same_service(
    server: DevServer, manager: AuthManager, client: Client
) -> None:
    spelt = server.url.upper().replace("HTTP", "http") + "/base/"
    assert client(Wanted(manager, spelt, server.url + NAME))[0] == 200


def test_another_origin_is_sent_no_token(server: DevServer, manager: AuthManager, client: Client) -> None:
    assert server.gate_url is not None
    status, _ = client(Wanted(manager, server.url, server.gate_url + NAME))
    assert status == 401
    (entry,) = requests_at(server, NAME)
    assert "authorization" not in entry["header_names"]


@pytest.mark.parametrize("elsewhere", [False, True], ids=["within the service", "to another origin"])
def test_a_redirect_takes_the_token_along_only_within_the_service(
    server: DevServer, manager: AuthManager, client: Client, elsewhere: bool
) -> None:
    target = server.gate_url if elsewhere else server.url
    assert target is not None
    server.faults("/moved", [{"kind": "redirect", "status": 307, "location": target + NAME}])
    status, _ = client(Wanted(manager, server.url, server.url + "/moved"))
    (first,), (second,) = requests_at(server, "/moved"), requests_at(server, NAME)
    assert "authorization" in first["header_names"]
    assert ("authorization" in second["header_names"], status) == ((False, 401) if elsewhere else (True, 200))


def refused_while_renewed(server: DevServer, manager: AuthManager, ask: Callable[[], Any]) -> Any:
    """The result of `ask` if its first request gets a 401 after the manager has got another token."""
    server.faults("display_name", [{"kind": "status", "status": 401, "hold": True}])
    asking = Worker(ask)
    server.wait_for("display_name", 1)
    manager.authenticate()
    server.release()
    return asking.result()


def test_a_refused_request_is_repeated_with_the_token_that_came_meanwhile(
    server: DevServer, manager: AuthManager, client: Client
) -> None:
    wanted = Wanted(manager, server.url, server.url + NAME)
    status, body = refused_while_renewed(server, manager, lambda: client(wanted))
    assert (status, json.loads(body)["display_name"]) == (200, "Ada")
    first, second = requests_at(server, NAME)
    assert (first["status"], second["status"]) == (401, 200)
    assert first["body_bytes"] == second["body_bytes"] == len(wanted.body)


def test_a_refusal_by_another_origin_is_not_answered_with_a_token(
    server: DevServer, manager: AuthManager, client: Client
) -> None:
    server.faults("/moved", [{"kind": "redirect", "status": 307, "location": f"{server.gate_url}{NAME}"}])
    wanted = Wanted(manager, server.url, server.url + "/moved")
    assert refused_while_renewed(server, manager, lambda: client(wanted))[0] == 401
    assert (len(requests_at(server, "/moved")), len(requests_at(server, NAME))) == (1, 1)


def test_nor_is_one_of_the_password_that_requests_took_from_a_file(
    server: DevServer, manager: AuthManager, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    passwords = tmp_path / "netrc"
    passwords.write_text("machine 127.0.0.1 login ada password lovelace\n")
    passwords.chmod(0o600)
    monkeypatch.setenv("NETRC", str(passwords))
    monkeypatch.setenv("no_proxy", "*")
    server.faults("/moved", [{"kind": "redirect", "status": 307, "location": f"{server.gate_url}{NAME}"}])
    answer = requests.post(
        server.url + "/moved", b"{}", auth=WalletAuth(manager, server.url), timeout=SECONDS
    )
    assert answer.status_code == 401
    assert str(answer.request.headers["Authorization"]).startswith("Basic ")
    (entry,) = requests_at(server, NAME)
    assert "authorization" in entry["header_names"]


def test_a_request_is_repeated_once(server: DevServer, manager: AuthManager, client: Client) -> None:
    server.faults("display_name", [{"kind": "status", "status": 401, "hold": True}] * 2)
    asking = Worker(client, Wanted(manager, server.url, server.url + NAME))
    for arrived in (1, 2):
        server.wait_for("display_name", arrived)
        manager.authenticate()
        server.release()
    assert asking.result()[0] == 401
    assert len(requests_at(server, NAME)) == 2


def test_a_request_is_not_repeated_with_the_token_that_was_refused(
    server: DevServer, manager: AuthManager, client: Client
) -> None:
    server.settings(era=2)
    status, body = client(Wanted(manager, server.url, server.url + NAME))
    assert (status, json.loads(body)["error"]) == (401, "era_over")
    assert len(requests_at(server, NAME)) == 1


def test_once_the_era_is_announced_requests_wait_for_its_token(
    server: DevServer, manager: AuthManager, client: Client
) -> None:
    server.settings(era=2)
    server.faults("challenge", [{"kind": "hold"}])
    manager.notify_era_change(2)
    server.wait_for("challenge", 2)
    asking = Worker(client, Wanted(manager, server.url, server.url + NAME))
    server.release()
    assert asking.result()[0] == 200
    assert len(requests_at(server, NAME)) == 1


def test_a_body_that_is_gone_is_not_sent_again(
    server: DevServer, manager: AuthManager, client: Client
) -> None:
    wanted = Wanted(manager, server.url, server.url + NAME, once=True)
    assert refused_while_renewed(server, manager, lambda: client(wanted))[0] == 401
    assert len(requests_at(server, NAME)) == 1


def test_without_a_token_nothing_is_sent(server: DevServer, manager: AuthManager, client: Client) -> None:
    manager.close()
    with pytest.raises(AuthError) as caught:
        client(Wanted(manager, server.url, server.url + NAME))
    assert caught.value.reason == "manager_closed"
    assert requests_at(server, NAME) == []


@pytest.mark.parametrize("name", ASYNC_CLIENTS)
def test_the_event_loop_goes_on_while_a_request_waits_for_its_token(
    server: DevServer, manager: AuthManager, name: str
) -> None:
    server.settings(era=2)
    server.faults("challenge", [{"kind": "hold"}])
    manager.notify_era_change(2)
    server.wait_for("challenge", 2)

    async def run() -> tuple[int, bytes]:
        wanted = Wanted(manager, server.url, server.url + NAME)
        asking = asyncio.create_task(ASYNC_CLIENTS[name](wanted))
        # A blocked loop would not get here.
        while not waiting(manager):
            await asyncio.sleep(0.001)
        assert not asking.done()
        server.release()
        return await asking

    assert asyncio.run(asyncio.wait_for(run(), SECONDS))[0] == 200


def waiting(manager: AuthManager) -> bool:
    """Whether a thread waits for the current login."""
    event = manager._auth_event
    return event is not None and bool(event._cond._waiters)  # type: ignore[attr-defined]


@pytest.mark.parametrize("name", ASYNC_CLIENTS)
def test_a_cancelled_request_stops_waiting_at_once(
    server: DevServer, manager: AuthManager, name: str
) -> None:
    server.settings(era=2)
    server.faults("challenge", [{"kind": "hold"}])
    manager.notify_era_change(2)
    server.wait_for("challenge", 2)

    async def run() -> None:
        asking = asyncio.create_task(ASYNC_CLIENTS[name](Wanted(manager, server.url, server.url + NAME)))
        while not waiting(manager):
            await asyncio.sleep(0.001)
        asking.cancel()
        with pytest.raises(asyncio.CancelledError):
            await asking
        assert waiting(manager)
        server.release()

    asyncio.run(asyncio.wait_for(run(), SECONDS))
    assert requests_at(server, NAME) == []


def test_so_does_one_whose_scope_is_cancelled(server: DevServer, manager: AuthManager) -> None:
    server.settings(era=2)
    server.faults("challenge", [{"kind": "hold"}])
    manager.notify_era_change(2)
    server.wait_for("challenge", 2)

    async def run() -> None:
        async with anyio.create_task_group() as group:
            group.start_soon(by_async_httpx, Wanted(manager, server.url, server.url + NAME))
            while not waiting(manager):
                await asyncio.sleep(0.001)
            group.cancel_scope.cancel()
        assert waiting(manager)
        server.release()

    asyncio.run(asyncio.wait_for(run(), SECONDS))
    assert requests_at(server, NAME) == []
