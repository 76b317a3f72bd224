"""A response with status 401, for sources of tokens that have `report_refused()`."""

from __future__ import annotations

import asyncio
import json
from collections.abc import Callable
from typing import Any

import aiohttp
import httpx
import pytest

from devserver.testing import DevServer
from tessaline.aio import AsyncTokens
from tessaline.integrations.aiohttp import WalletMiddleware
from tessaline.integrations.httpx import WalletAuth
from tessaline.keeper import Keeper
from tests.integrations.clients import ASYNC_CLIENTS, CLIENTS, HEADERS, SECONDS, Wanted
from tests.integrations.sources import Moving, Source
from tests.shared.threads import Worker

NAME = "/api/profile/display_name"
URL = "https://service.example"

Client = Callable[[Wanted], tuple[int, bytes]]


@pytest.fixture(params=CLIENTS)
def client(request: pytest.FixtureRequest) -> Client:
    return CLIENTS[request.param]


def counts(server: DevServer) -> tuple[int, int]:
    """The number of requests with a token at the service, and of logins."""
    counted = server.state()["counts"]
    return counted.get("display_name", 0), counted["verify"]


def test_a_refused_token_is_replaced_and_the_request_repeated(
    server: DevServer, keeper: Keeper, client: Client
) -> None:
    server.settings(era=2)
    status, body = client(Wanted(keeper, server.url, server.url + NAME))
    assert (status, json.loads(body)["display_name"]) == (200, "Ada")
    assert counts(server) == (2, 2)


def test_requests_that_are_refused_together_cause_one_login(
    server: DevServer, keeper: Keeper, client: Client
) -> None:
    server.settings(era=2)
    asking = [Worker(client, Wanted(keeper, server.url, server.url + NAME)) for _ in range(10)]
    assert {one.result()[0] for one in asking} == {200}
    assert counts(server)[1] == 2


def test_a_service_that_refuses_everybody_gets_one_login_and_no_more(
    server: DevServer, keeper: Keeper, client: Client
) -> None:
    server.faults("display_name", [{"kind": "status", "status": 401, "times": None}])
    wanted = Wanted(keeper, server.url, server.url + NAME)
    assert [client(wanted)[0] for _ in range(3)] == [401] * 3
    # Only the first request was repeated: there was no other token for those after it.
    assert counts(server) == (4, 2)


def test_a_body_that_is_gone_is_not_sent_again_but_the_next_request_profits(
    server: DevServer, keeper: Keeper, client: Client
) -> None:
    server.settings(era=2)
    assert client(Wanted(keeper, server.url, server.url + NAME, once=True))[0] == 401
    assert counts(server) == (1, 2)
    assert client(Wanted(keeper, server.url, server.url + NAME))[0] == 200
    assert counts(server) == (2, 2)


def test_a_source_that_has_no_other_token_leaves_the_answer_as_it_is(
    server: DevServer, client: Client
) -> None:
    source = Source("unknown")
    assert client(Wanted(source, server.url, server.url + NAME))[0] == 401
    assert source.reported == ["unknown"]
    assert server.state()["counts"]["display_name"] == 1


def test_a_source_that_listens_to_nobody_is_asked_again(server: DevServer, client: Client) -> None:
    source = Moving()
    assert client(Wanted(source, server.url, server.url + NAME))[0] == 401
    assert source.given == 2
    assert server.state()["counts"]["display_name"] == 2


def test_what_the_source_raises_comes_out(server: DevServer, client: Client) -> None:
    class Broken(Source):
        def report_refused(self, token: str) -> bool:
            raise LookupError("a defect of the source")

    with pytest.raises(LookupError, match="a defect of the source"):
        client(Wanted(Broken("unknown"), server.url, server.url + NAME))


def test_an_answer_from_elsewhere_is_no_refusal(server: DevServer, client: Client) -> None:
    server.faults("/moved", [{"kind": "redirect", "status": 307, "location": f"{server.gate_url}{NAME}"}])
    source = Source("unknown", "other")
    assert client(Wanted(source, server.url, server.url + "/moved"))[0] == 401
    assert source.reported == []


def test_a_request_that_comes_back_without_the_token_is_none_either() -> None:
    there_and_back = {
        "https://service.example/": "https://other.example/",
        "https://other.example/": "https://service.example/private",
    }
    seen: list[str | None] = []

    def answer(request: httpx.Request) -> httpx.Response:
        seen.append(request.headers.get("Authorization"))
        target = there_and_back.get(str(request.url))
        return httpx.Response(302, headers={"Location": target}) if target else httpx.Response(401)

    source = Source("first", "second")
    transport = httpx.MockTransport(answer)
    with httpx.Client(transport=transport, auth=WalletAuth(source, URL), follow_redirects=True) as client:
        assert client.get(f"{URL}/").status_code == 401
    assert (seen, source.reported) == (["Bearer first", None, None], [])


def test_a_body_that_waits_to_be_asked_for_is_not_sent_again(server: DevServer) -> None:
    # An error before "100 Continue" leaves the body unread, and aiohttp does not report how much it has sent.
    source = Source("unknown", "other")

    async def run() -> int:
        middleware = WalletMiddleware(source, server.url)
        async with (
            aiohttp.ClientSession(middlewares=[middleware]) as session,
            session.post(server.url + NAME, data=b"{}", headers=HEADERS, expect100=True) as answer,
        ):
            return answer.status

    assert asyncio.run(asyncio.wait_for(run(), SECONDS)) == 401
    assert source.reported == ["unknown"]
    assert server.state()["counts"]["display_name"] == 1


@pytest.mark.parametrize("name", ASYNC_CLIENTS)
def test_the_event_loop_goes_on_while_another_token_is_fetched(
    server: DevServer, keeper: Keeper, name: str
) -> None:
    server.settings(era=2)
    server.faults("challenge", [{"kind": "hold"}])

    async def run() -> int:
        asking = asyncio.create_task(ASYNC_CLIENTS[name](Wanted(keeper, server.url, server.url + NAME)))
        await asyncio.to_thread(server.wait_for, "challenge", 2)
        # The old token is served until the new one arrives.
        assert keeper.get_token()
        assert not asking.done()
        server.release()
        return (await asking)[0]

    assert asyncio.run(run()) == 200


def served(refused: set[str], seen: list[str]) -> Callable[[httpx.Request], httpx.Response]:
    def answer(request: httpx.Request) -> httpx.Response:
        token = request.headers["Authorization"].removeprefix("Bearer ")
        seen.append(token)
        return httpx.Response(401 if token in refused else 200)

    return answer


def test_async_tokens_of_the_callers_own_will_do() -> None:
    source, seen = Source("first", "second"), list[str]()

    async def run() -> int:
        transport = httpx.MockTransport(served({"first"}, seen))
        async with (
            AsyncTokens(source) as tokens,
            httpx.AsyncClient(transport=transport, auth=WalletAuth(tokens, URL)) as client,
        ):
            return (await client.get(URL)).status_code

    assert asyncio.run(run()) == 200
    assert (seen, source.reported) == (["first", "second"], ["first"])


def test_a_sync_client_says_that_it_cannot_await_them() -> None:
    seen: list[Any] = []
    auth = WalletAuth(AsyncTokens(Source("first")), URL)
    transport = httpx.MockTransport(served(set(), seen))
    with (
        httpx.Client(transport=transport, auth=auth) as client,
        pytest.raises(TypeError, match=r"AsyncTokens serves httpx\.AsyncClient only"),
    ):
        client.get(URL)
    assert seen == []
