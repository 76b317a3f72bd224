"""Tests with a planted leak, one of each kind, and some false positives. Run by test_leakhunt.py."""

from __future__ import annotations

import ctypes
import itertools
import os
import threading
from collections.abc import Iterator
from functools import lru_cache

import pytest

from tessaline import auth

KEY = "4c0883a69102937d6231471b5dbb6204fe5129617082792ae468d01a3f362318"

libc = ctypes.CDLL(None)
libc.malloc.restype = ctypes.c_void_p
libc.malloc.argtypes = (ctypes.c_size_t,)

kept: list[object] = []
passing: list[object] = []
numbers = itertools.count()
never = threading.Event()


def test_leaks_a_block() -> None:
    kept.append(object())


def test_leaks_a_cycle_that_nobody_can_collect() -> None:
    cycle: list[object] = []
    cycle.append(cycle)
    ctypes.pythonapi.Py_IncRef(ctypes.py_object(cycle))


def test_leaks_a_reference_to_a_type() -> None:
    ctypes.pythonapi.Py_IncRef(ctypes.py_object(auth.ProfileError))


def test_leaks_a_manager() -> None:
    kept.append(auth.AuthManager(KEY, "https://auth.example.test"))


def test_leaks_a_thread() -> None:
    threading.Thread(target=never.wait, daemon=True).start()


def test_leaks_a_descriptor() -> None:
    os.dup(0)


def test_leaks_native_bytes() -> None:
    libc.malloc(24)


def test_leaks_mapped_bytes() -> None:
    libc.malloc(1 << 22)


@pytest.fixture
def untidy() -> Iterator[None]:
    yield
    kept.append(object())


def test_leaks_in_the_end_of_a_fixture(untidy: None) -> None:
    pass


def test_leaks_and_comes_and_goes() -> None:
    passing[:] = [object() for _ in range(next(numbers) * 3 % 5)]
    ctypes.pythonapi.Py_IncRef(ctypes.py_object(object()))


@lru_cache(maxsize=8)
def remembered(number: int) -> object:
    return object()


def test_fills_a_cache_that_has_a_limit() -> None:
    remembered(next(numbers))


def test_comes_and_goes() -> None:
    passing[:] = [object() for _ in range(next(numbers) * 3 % 5)]


def test_puts_new_texts_into_the_environment(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("TESSALINE_PLANTED", f"number {next(numbers)}" + " and more" * 8)


def test_leaves_a_collectable_cycle() -> None:
    cycle: list[object] = []
    cycle.append(cycle)


def test_opens_and_closes_everything() -> None:
    thread = threading.Thread(target=lambda: None)
    thread.start()
    thread.join()
    os.close(os.dup(0))
    auth.AuthManager(KEY, "https://auth.example.test").close()


@pytest.fixture(scope="module")
def shared() -> object:
    return object()


@pytest.fixture
def above(shared: object) -> Iterator[object]:
    yield shared


def test_uses_a_shared_fixture(above: object) -> None:
    pass


def test_writes_and_warns(caplog: pytest.LogCaptureFixture, capsys: pytest.CaptureFixture[str]) -> None:
    print("said")
    assert capsys.readouterr().out == "said\n"
    print("said and left")


def test_fails_the_third_time() -> None:
    global times
    times += 1
    assert times < 3


times = 0
