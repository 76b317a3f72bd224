"""The examples of the other pages run too, against the development server if they name a service."""

from __future__ import annotations

import ast
import asyncio
import inspect
import secrets
import ssl
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest

from devserver.testing import DevServer
from tessaline import auth
from tessaline.keeper import EraBoard, Keeper

from .pages import DOCS, PAGES, Block, code_blocks, run

pytestmark = pytest.mark.process

ELSEWHERE = "https://service.example"
# Pages whose blocks need more than a manager have their own tests below.
PLAIN = ["reference.md", "security.md", "time.md", "token-life.md"]
OTHERS = [
    "asyncio.md",
    "errors.md",
    "index.md",
    "integrations.md",
    "keeper.md",
    "keys.md",
    "operating.md",
    "recipes.md",
    "testing.md",
    "threads.md",
    "tutorial.md",
]


@pytest.fixture(scope="module")
def server() -> Iterator[DevServer]:
    with DevServer() as started:
        yield started


@pytest.fixture
def manager(server: DevServer) -> Iterator[auth.AuthManager]:
    server.reset()
    with auth.AuthManager(secrets.token_hex(32), server.url) as logged_in:
        logged_in.authenticate()
        yield logged_in
    auth._set_active_auth_manager(None)


def here(block: Block, server: DevServer) -> str:
    return block.text.replace(ELSEWHERE, server.url)


def test_every_page_with_code_is_run() -> None:
    assert sorted(page.name for page in PAGES if code_blocks(page)) == sorted(PLAIN + OTHERS)


@pytest.mark.parametrize("name", PLAIN)
def test_blocks_run_in_order(
    name: str, server: DevServer, manager: auth.AuthManager, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setenv("WALLET_KEY", secrets.token_hex(32))
    server.settings(era=7)
    names: dict[str, Any] = {"manager": manager}
    for block in code_blocks(DOCS / name):
        run(block, names, here(block, server))
    made = names["manager"]
    if made is not manager:
        made.close()


@pytest.mark.parametrize("name", ["index.md", "keeper.md"])
def test_the_example_of_the_first_pages(
    name: str, server: DevServer, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setenv("WALLET_KEY", secrets.token_hex(32))
    work: list[str | None] = ["one", "two", None]
    sent: list[tuple[str, dict[str, str]]] = []
    names: dict[str, Any] = {
        "next_piece_of_work": lambda: work.pop(0),
        "send": lambda piece, headers: sent.append((piece, headers)),
    }
    block = code_blocks(DOCS / name)[0]
    run(block, names, here(block, server))
    assert [piece for piece, _ in sent] == ["one", "two"]
    assert all(headers["Authorization"].startswith("Bearer ey") for _, headers in sent)


def test_the_examples_of_a_keeper_in_many_processes_and_of_many_wallets(server: DevServer) -> None:
    keys = [secrets.token_hex(32) for _ in range(3)]
    names: dict[str, Any] = {"AuthManager": auth.AuthManager, "Keeper": Keeper, "EraBoard": EraBoard}
    names |= {
        "key": keys[0],
        "keys": keys,
        "address": auth.AuthManager(keys[2], server.url).get_wallet_address(),
    }
    _, prefork, fleet = code_blocks(DOCS / "keeper.md")
    run(prefork, names, here(prefork, server))
    with names["after_fork"]() as keeper:
        assert keeper.get_token().startswith("ey")
    run(fleet, names, here(fleet, server))
    assert names["keeper"].status().state == "closed"
    assert names["token"].startswith("ey")


def test_the_example_for_coroutines(manager: auth.AuthManager) -> None:
    block = code_blocks(DOCS / "threads.md")[0]
    code = compile(block.text, block.page.name, "exec", flags=ast.PyCF_ALLOW_TOP_LEVEL_AWAIT)
    assert code.co_flags & inspect.CO_COROUTINE
    names: dict[str, Any] = {"asyncio": asyncio, "manager": manager}
    asyncio.run(eval(code, names))
    assert names["token"] == manager.get_token()


class Played:
    """A manager whose calls end as scripted, one after the other."""

    def __init__(self, *endings: Any) -> None:
        self.endings = list(endings)
        self.calls: list[str] = []

    def _call(self, name: str) -> Any:
        self.calls.append(name)
        ending = self.endings.pop(0)
        if isinstance(ending, BaseException):
            raise ending
        return ending

    def get_token(self) -> str:
        return str(self._call("get_token"))

    def authenticate(self) -> None:
        self._call("authenticate")


@pytest.fixture
def token_or_login(monkeypatch: pytest.MonkeyPatch) -> Callable[..., str]:
    names: dict[str, Any] = {}
    (block,) = code_blocks(DOCS / "errors.md")
    run(block, names)
    now = [0.0]

    class Time:
        @staticmethod
        def monotonic() -> float:
            return now[0]

        @staticmethod
        def sleep(seconds: float) -> None:
            now[0] += seconds

    names["time"] = Time
    wrapper: Callable[..., str] = names["token_or_login"]
    return wrapper


def test_the_wrapper_logs_in_again_until_it_works(token_or_login: Callable[..., str]) -> None:
    refusal = auth.AuthError(reason="not_authenticated")
    away = auth.NetworkError("Server unreachable after 3 attempts")
    played = Played(refusal, away, refusal, away, refusal, None, "token")
    assert token_or_login(played) == "token"
    assert played.calls == ["get_token", "authenticate"] * 3 + ["get_token"]


@pytest.mark.parametrize(
    "passing",
    [OSError("proxy 127.0.0.1:3128 for service.example:443 answered 403"), OSError(24, "no descriptor")],
)
def test_the_wrapper_lives_through_a_proxy_and_a_full_table(
    token_or_login: Callable[..., str], passing: OSError
) -> None:
    played = Played(auth.AuthError(reason="not_authenticated"), passing, "token")
    assert token_or_login(played) == "token"


def test_the_wrapper_does_not_repeat_what_tls_refuses(token_or_login: Callable[..., str]) -> None:
    untrusted = ssl.SSLCertVerificationError(1, "certificate of service.example:443 is not acceptable")
    with pytest.raises(ssl.SSLCertVerificationError) as caught:
        token_or_login(Played(auth.AuthError(reason="not_authenticated"), untrusted))
    assert caught.value is untrusted


@pytest.mark.parametrize("reason", ["manager_closed", "signature_mismatch", "wallet_secret_changed"])
def test_the_wrapper_passes_on_what_is_final(token_or_login: Callable[..., str], reason: str) -> None:
    final = auth.AuthError(reason=reason)
    with pytest.raises(auth.AuthError) as caught:
        token_or_login(Played(final))
    assert caught.value is final
    with pytest.raises(auth.AuthError) as caught:
        token_or_login(Played(auth.AuthError(reason="not_authenticated"), final))
    assert caught.value is final


def test_the_wrapper_gives_up_when_its_patience_ends(token_or_login: Callable[..., str]) -> None:
    away = auth.NetworkError("Server unreachable after 3 attempts")
    refusal = auth.AuthError(reason="not_authenticated")
    played = Played(*[refusal, away] * 100)
    with pytest.raises(auth.NetworkError):
        token_or_login(played, patience=45.0)
    # Delays of 1, 2, 4, 8 and 16 seconds, with 20 % jitter, fit; one of 32 more does not.
    assert played.calls.count("authenticate") == 6


def test_pages_are_found() -> None:
    assert Path("tutorial.md") in [Path(page.name) for page in PAGES]
