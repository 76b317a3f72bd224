"""The properties hold for every input in the corpora. Those of the native targets are replayed by ctest."""

from __future__ import annotations

import importlib
import threading
from pathlib import Path

import pytest

from .run import NATIVE_TARGETS, PYTHON_TARGETS, TARGETS

CORPUS = Path(__file__).parent / "corpus"
LEAST = 10
LARGEST = 64 * 1024
LARGEST_IN_ALL = 1024 * 1024


def inputs(target: str) -> list[Path]:
    found = sorted((CORPUS / target).iterdir())
    assert len(found) >= LEAST
    return found


@pytest.mark.parametrize("target", sorted(PYTHON_TARGETS))
def test_every_input_holds(target: str) -> None:
    before = threading.enumerate()
    module = importlib.import_module(f"tests.fuzz.targets.{target}")
    try:
        for path in inputs(target):
            try:
                module.one_input(path.read_bytes())
            except BaseException as error:
                error.add_note(f"input: {path.name}")
                raise
    finally:
        # Other tests count the threads of the process.
        if hasattr(module, "server"):
            module.server.stop()
    assert threading.enumerate() == before


def test_every_corpus_belongs_to_a_target_and_is_small() -> None:
    assert {path.name for path in CORPUS.iterdir()} == set(TARGETS)
    assert len(NATIVE_TARGETS) >= 6 and len(PYTHON_TARGETS) >= 6
    sizes = [path.stat().st_size for target in TARGETS for path in inputs(target)]
    assert max(sizes) <= LARGEST
    assert sum(sizes) <= LARGEST_IN_ALL
