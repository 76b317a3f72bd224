"""Notes of the errors: added once, separate from what an error carries, and never in place of an error."""

from __future__ import annotations

import copy
import gc
import pickle
import subprocess
import sys
import textwrap
import traceback
import weakref
from collections.abc import Callable
from typing import Any

import pytest

from tessaline import auth

from .helpers.server import VERIFY, Answer, FakeServer

NAMES = ["InvalidKeyError", "AuthError", "RegistrationError", "ProfileError", "NetworkError"]
COPIES: list[Any] = [
    copy.copy,
    copy.deepcopy,
    *(
        pytest.param(
            lambda error, version=version: pickle.loads(pickle.dumps(error, version)), id=f"pickle {version}"
        )
        for version in range(pickle.HIGHEST_PROTOCOL + 1)
    ),
]


@pytest.fixture
def refused(manager: Any) -> Any:
    """An error as the manager raises it."""
    with pytest.raises(auth.AuthError) as caught:
        manager.get_token()
    return caught.value


@pytest.mark.parametrize("name", NAMES)
def test_an_error_that_a_program_makes_has_no_note(name: str) -> None:
    error = getattr(auth, name)("not_authenticated")
    assert not hasattr(error, "__notes__")
    assert traceback.format_exception_only(error) == [f"tessaline.auth.{name}: not_authenticated\n"]


def test_an_error_of_a_programs_transport_passes_as_it_is(manager: Any, server: FakeServer) -> None:
    own = auth.AuthError("not_authenticated")
    server.always("/auth/register", own)
    with pytest.raises(auth.AuthError) as caught:
        manager.authenticate()
    assert caught.value is own
    assert not hasattr(own, "__notes__")


@pytest.mark.parametrize("name", NAMES)
def test_notes_work_as_with_every_exception(name: str) -> None:
    error: Any = getattr(auth, name)("text")
    plain: Any = Exception("text")
    for one in (error, plain):
        one.add_note("first")
        one.add_note("second")
        with pytest.raises(TypeError):
            one.add_note(5)
    assert error.__notes__ == plain.__notes__ == ["first", "second"]
    assert "__notes__" not in vars(error)
    error.__notes__ = plain.__notes__ = 7
    for one in (error, plain):
        with pytest.raises(TypeError, match="__notes__ is not a list"):
            one.add_note("third")
    for one in (error, plain):
        del one.__notes__
        assert not hasattr(one, "__notes__")
        with pytest.raises(AttributeError):
            del one.__notes__


def test_a_stored_error_gets_its_note_once(manager: Any, server: FakeServer) -> None:
    server.always(VERIFY, Answer(401))
    with pytest.raises(auth.AuthError) as first:
        manager.authenticate()
    manager._pending_era_number = 3
    manager._state = auth._AUTHENTICATED
    before = list(first.value.__notes__)
    assert len(before) == 1
    for _ in range(5):
        with pytest.raises(auth.AuthError) as again:
            manager.get_token()
        assert again.value is first.value
        assert again.value.__notes__ == before
    manager._state = auth._UNINITIALIZED


def test_an_exception_that_a_program_raises_again_gets_its_note_once(
    manager: Any, server: FakeServer
) -> None:
    error = TypeError("mine")

    class Result:
        def __iter__(self) -> Any:
            raise error

    server.always("/auth/register", lambda call: Result())
    for _ in range(3):
        with pytest.raises(TypeError) as caught:
            manager.authenticate()
        assert caught.value is error
    assert len(error.__notes__) == 1


@pytest.mark.parametrize("copied", COPIES)
def test_a_copy_has_the_notes(refused: Any, copied: Callable[[Any], Any]) -> None:
    again = copied(refused)
    assert type(again) is auth.AuthError
    assert (again.args, vars(again)) == (refused.args, vars(refused))
    assert again.__notes__ == refused.__notes__
    assert len(again.__notes__) == 1


@pytest.mark.parametrize("copied", COPIES)
@pytest.mark.parametrize("name", NAMES)
def test_a_copy_of_an_error_without_notes_has_none(name: str, copied: Callable[[Any], Any]) -> None:
    error = getattr(auth, name)("text")
    error.extra = 1
    again = copied(error)
    assert type(again) is type(error)
    assert (again.args, vars(again)) == (error.args, vars(error))
    assert not hasattr(again, "__notes__")


class Both(auth.AuthError, auth.NetworkError, OSError):
    """Every base class can be combined with every other."""


def test_a_class_over_several_of_them_copies_as_its_other_bases_do() -> None:
    error = Both("two words")
    error.add_note("a note")
    again = pickle.loads(pickle.dumps(error))
    assert type(again) is Both
    assert (again.args, again.reason, again.__notes__) == (("two words",), "two words", ["a note"])


def test_the_notes_of_a_class_of_its_own() -> None:
    class Special(auth.AuthError):
        def __init__(self, code: int) -> None:
            super().__init__("special")
            self.code = code

    error = Special(7)
    error.add_note("a note")
    assert (error.__notes__, vars(error)) == (["a note"], {"reason": "special", "code": 7})


def test_notes_are_let_go_with_their_error() -> None:
    class Note(str):
        __slots__ = ("__weakref__",)

    note = Note("a note")
    seen = weakref.ref(note)
    error: Any = auth.AuthError("x")
    error.add_note(note)
    error.__notes__.append(error)
    del note
    assert seen() is not None
    del error
    gc.collect()
    assert seen() is None


@pytest.mark.parametrize("failure", [RuntimeError("no"), MemoryError(), TypeError("no")])
def test_an_error_whose_note_cannot_be_added_is_raised_all_the_same(
    manager: Any, monkeypatch: pytest.MonkeyPatch, failure: Exception
) -> None:
    def add_note(self: Any, note: str) -> None:
        raise failure

    monkeypatch.setattr(auth.AuthError, "add_note", add_note, raising=False)
    with pytest.raises(auth.AuthError) as caught:
        manager.get_token()
    assert caught.value.args == ("not_authenticated",)
    assert caught.value.__context__ is None
    assert not hasattr(caught.value, "__notes__")


def test_an_error_class_without_notes_is_raised_all_the_same(
    manager: Any, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(auth.AuthError, "add_note", None, raising=False)
    with pytest.raises(auth.AuthError, match="not_authenticated"):
        manager.get_token()


def test_ctrl_c_in_a_programs_own_add_note_is_not_lost(manager: Any, monkeypatch: pytest.MonkeyPatch) -> None:
    def add_note(self: Any, note: str) -> None:
        raise KeyboardInterrupt

    monkeypatch.setattr(auth.AuthError, "add_note", add_note, raising=False)
    with pytest.raises(KeyboardInterrupt):
        manager.get_token()


@pytest.mark.parametrize(
    ("program", "shown"),
    [
        (
            """
            from tessaline.auth import AuthManager
            AuthManager("1" * 64, "https://service.example").get_token()
            """,
            "tessaline.auth.AuthError: not_authenticated\n"
            "call authenticate() first, and again after a login or a renewal that failed\n",
        ),
        (
            """
            import sys
            import tessaline.auth
            del sys.modules["tessaline.auth"]
            import tessaline.auth
            """,
            "RuntimeError: Module 'auth' has already been imported. Re-initialisation is not supported.\n"
            "keep the module in sys.modules instead of importing it anew\n",
        ),
    ],
)
def test_a_traceback_shows_the_note(program: str, shown: str) -> None:
    ended = subprocess.run(
        [sys.executable, "-c", textwrap.dedent(program)],
        capture_output=True,
        text=True,
        timeout=60,
        check=False,
    )
    assert ended.returncode == 1
    assert ended.stderr.endswith(shown)
