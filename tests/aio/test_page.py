"""The examples of the page on asyncio run."""

from __future__ import annotations

import ast
import asyncio
from typing import Any

from tessaline.auth import AuthManager
from tessaline.keeper import Keeper
from tessaline.testing import KEY, URL, FakeService
from tests.docs.pages import DOCS, Block, code_blocks


async def run_block(block: Block, names: dict[str, Any]) -> None:
    code = compile(block.text, block.place, "exec", flags=ast.PyCF_ALLOW_TOP_LEVEL_AWAIT)
    await eval(code, names)


def test_the_blocks_of_the_page(service: FakeService) -> None:
    serving, waiting, refused, starting = code_blocks(DOCS / "asyncio.md")

    async def main(keeper: Keeper) -> None:
        names: dict[str, Any] = {"keeper": keeper}
        await run_block(starting, names | {"asyncio": asyncio})
        await run_block(serving, names)
        assert names["token"] == keeper.get_token()
        names["tokens"] = names["AsyncTokens"](keeper)
        await run_block(waiting, names)
        await run_block(refused, names)
        assert names["token"] == keeper.get_token()

    with Keeper(AuthManager(KEY, URL, _transport=service)) as keeper:
        asyncio.run(main(keeper))
    assert service.logins == 2
