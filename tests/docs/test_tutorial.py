"""The tutorial works: its blocks run in order and print what it shows."""

from __future__ import annotations

import contextlib
from collections.abc import Iterator
from typing import Any

import pytest

from .pages import DOCS, Block, blocks, run

pytestmark = pytest.mark.process

TUTORIAL = DOCS / "tutorial.md"


@pytest.fixture
def session() -> Iterator[dict[str, Any]]:
    """The names of one Python session; what it leaves open when it fails is closed."""
    names: dict[str, Any] = {"__name__": "__main__"}
    yield names
    with contextlib.suppress(KeyError):
        names["manager"].close()
    with contextlib.suppress(KeyError):
        names["server"].stop()


def steps() -> list[tuple[Block, str]]:
    """Every block of code with its output according to the page."""
    found: list[tuple[Block, str]] = []
    for block in blocks(TUTORIAL):
        if block.language == "python":
            found.append((block, ""))
        else:
            assert (block.language, block.info) == ("text", 'title="prints"'), block.place
            code, nothing = found.pop()
            assert nothing == "", f"{block.place}: two outputs of one block"
            found.append((code, block.text))
    return found


def test_every_block_prints_what_is_shown_below_it(session: dict[str, Any]) -> None:
    assert len(steps()) > 10
    for block, shown in steps():
        assert run(block, session) == shown, block.place


def test_what_it_tells_is_not_left_out(session: dict[str, Any]) -> None:
    # The test must not pass if no blocks are found.
    code = "".join(block.text for block, _ in steps())
    for name in ("authenticate", "get_token", "notify_era_change", "set_display_name", "close"):
        assert f".{name}(" in code
