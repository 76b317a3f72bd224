"""The manager as an ordinary class: subclasses, weak references, cycles, incomplete and damaged instances."""

from __future__ import annotations

import gc
import subprocess
import sys
import textwrap
import threading
import weakref
from collections.abc import Callable
from typing import Any

import pytest

from tessaline import auth
from tests.shared.threads import join, until

from .helpers.managers import ADDRESS, KEY, PLAIN_FIELDS, build
from .helpers.server import BASE, FakeServer

METHODS: dict[str, tuple[Any, ...]] = {
    "_get_time": (),
    "_wait_with_clock": (0,),
    "_http_request": ("POST", "/x"),
    "_request_with_retry": ("POST", "/x"),
    "_do_auth_flow": (),
    "_do_auth_flow_matching_pending_era": (),
    "_store_auth_result": ("t", b"s"),
    "_compute_refresh_at": (0.0,),
    "_raise_if_pending_era_locked": (),
    "_start_refresh": (),
    "_refresh_loop": (),
    "_do_refresh": (),
    "authenticate": (),
}


def test_class_docstring_and_module() -> None:
    first = auth.AuthManager.__doc__.splitlines()[0]
    assert first == "Client-side authentication manager with state machine and proactive refresh."
    assert auth.AuthManager.__module__ == "tessaline.auth"
    assert auth.AuthManager.__qualname__ == "AuthManager"


def test_a_subclass_with_further_constructor_arguments() -> None:
    class Named(auth.AuthManager):
        def __init__(self, name: str, *args: Any, colour: str = "red", **kwargs: Any) -> None:
            super().__init__(*args, **kwargs)
            self.name, self.colour = name, colour

    manager = Named("mine", KEY, BASE, colour="blue", invite_code=" X ", _transport=FakeServer())
    assert (manager.name, manager.colour) == ("mine", "blue")
    assert manager._wallet_address == ADDRESS
    assert manager._invite_code == "x"
    assert isinstance(manager, auth.AuthManager)


def test_a_subclass_may_set_fields_before_the_base_constructor() -> None:
    class Early(auth.AuthManager):
        def __init__(self, *args: Any) -> None:
            self._state = "EARLY"
            self.mine = 1
            super().__init__(*args)

    manager = Early(KEY, BASE)
    assert (manager._state, manager.mine) == ("UNINITIALIZED", 1)


def test_a_subclass_with_slots_and_another_base() -> None:
    class Mixin:
        def hello(self) -> str:
            return f"hello {self._wallet_address}"  # type: ignore[attr-defined]

    class Mixed(auth.AuthManager, Mixin):
        __slots__ = ("extra",)

    manager = Mixed(KEY, BASE)
    manager.extra = 5  # type: ignore[attr-defined]
    assert manager.hello() == f"hello {ADDRESS}"
    assert manager.extra == 5  # type: ignore[attr-defined]


def test_a_subclass_may_override_the_clock_reading(make_manager: Callable[..., Any]) -> None:
    class Fixed(auth.AuthManager):
        def _get_time(self) -> float:
            return 5_000_000.0

    manager = make_manager(cls=Fixed)
    manager.authenticate()
    assert manager._auth_time == 5_000_000.0
    assert manager._token_expiry == 5_086_400.0


def test_a_subclass_may_override_do_refresh(make_manager: Callable[..., Any], clock: Any) -> None:
    refreshed = threading.Event()

    class Own(auth.AuthManager):
        def _do_refresh(self) -> None:
            refreshed.set()

    manager = make_manager(cls=Own)
    manager.authenticate()
    thread = manager._refresh_thread
    clock.now = manager._refresh_at
    assert refreshed.wait(5.0)
    join(thread)


def test_a_subclass_may_override_compute_refresh_at(make_manager: Callable[..., Any]) -> None:
    class Own(auth.AuthManager):
        def _compute_refresh_at(self, auth_time: float) -> float:
            return auth_time + 1_000_000

    manager = make_manager(cls=Own)
    manager.authenticate()
    assert manager._refresh_at == 1_001_000.0


# References


def test_a_manager_without_cycles_goes_with_its_last_reference() -> None:
    manager = build()
    reference = weakref.ref(manager)
    gc.disable()
    try:
        del manager
        assert reference() is None
    finally:
        gc.enable()


@pytest.mark.parametrize(
    "name", ["_transport", "_clock", "_auth_error", "_token", "_refresh_thread", "_lock"]
)
def test_a_cycle_through_a_field_is_collected(name: str) -> None:
    manager = build()
    setattr(manager, name, [manager])
    reference = weakref.ref(manager)
    del manager
    gc.collect()
    assert reference() is None


def test_fields_are_visible_to_the_collector() -> None:
    manager = build()
    assert gc.is_tracked(manager)
    referents = gc.get_referents(manager)
    for name in ("_transport", "_clock", "_lock", "_refresh_stop", "_close_event"):
        assert any(referent is getattr(manager, name) for referent in referents), name
    manager.extra = object()
    assert any(
        referent is vars(manager) or referent is manager.extra for referent in gc.get_referents(manager)
    )


def test_an_instance_of_a_subclass_is_collected_with_its_finaliser_run_once() -> None:
    finalised: list[int] = []

    class Own(auth.AuthManager):
        def __del__(self) -> None:
            finalised.append(1)

    manager = build(cls=Own)
    manager.me = manager
    del manager
    gc.collect()
    assert finalised == [1]


def test_a_subclass_itself_is_collected() -> None:
    class Passing(auth.AuthManager):
        pass

    build(cls=Passing)
    reference = weakref.ref(Passing)
    del Passing
    gc.collect()
    assert reference() is None


def test_a_stopped_manager_is_collected_with_its_thread_gone(make_manager: Callable[..., Any]) -> None:
    manager = build()
    manager.authenticate()
    thread, reference = manager._refresh_thread, weakref.ref(manager)
    manager._refresh_stop.set()
    join(thread)
    del manager, thread
    until(lambda: gc.collect() is not None and reference() is None, what="the collection")


def test_a_finaliser_that_reads_the_field_being_replaced_sees_the_new_value() -> None:
    manager = build()
    seen: list[Any] = []

    class Old:
        def __del__(self) -> None:
            seen.append(manager._token)
            manager._token = "set by the finaliser"

    manager._token = Old()
    manager._token = "new"
    assert seen == ["new"]
    assert manager._token == "set by the finaliser"


def test_constructing_many_managers_leaves_no_object_behind() -> None:
    build()
    gc.collect()
    before = len(gc.get_objects())
    for _ in range(300):
        build()
    gc.collect()
    assert len(gc.get_objects()) - before < 100


# Incomplete and damaged instances


@pytest.mark.parametrize(
    "name", [*(name for name in METHODS if name != "_compute_refresh_at"), *PLAIN_FIELDS]
)
def test_new_without_init_gives_attribute_error(name: str) -> None:
    manager = auth.AuthManager.__new__(auth.AuthManager)
    with pytest.raises(AttributeError):
        value = getattr(manager, name)
        if name in METHODS:
            value(*METHODS[name])


def test_new_without_init_can_be_shown_and_collected() -> None:
    manager = auth.AuthManager.__new__(auth.AuthManager)
    assert "AuthManager" in repr(manager)
    reference = weakref.ref(manager)
    manager.me = manager  # type: ignore[attr-defined]
    del manager
    gc.collect()
    assert reference() is None


def test_new_without_init_then_init_is_a_manager() -> None:
    manager = auth.AuthManager.__new__(auth.AuthManager)
    manager.__init__(KEY, BASE)  # type: ignore[misc]
    assert manager._wallet_address == ADDRESS


@pytest.mark.parametrize("name", METHODS)
def test_methods_are_callable_through_the_class(name: str) -> None:
    method = getattr(auth.AuthManager, name)
    with pytest.raises(TypeError):
        method()
    with pytest.raises(TypeError):
        method(object(), *METHODS[name])


def run_python(program: str, timeout: float = 60.0) -> subprocess.CompletedProcess[str]:
    return subprocess.run(
        [sys.executable, "-X", "faulthandler", "-c", textwrap.dedent(program)],
        capture_output=True,
        text=True,
        timeout=timeout,
        check=False,
    )


@pytest.mark.parametrize("damage", ["deleted", "replaced"])
def test_no_damaged_field_crashes_a_method(damage: str) -> None:
    """Every method, with each field in turn deleted or of a wrong type: it may at worst raise."""
    result = run_python(f"""
        import json, threading, types
        import tessaline.auth as auth

        METHODS = {METHODS!r}
        FIELDS = {[name for name in PLAIN_FIELDS if name != "_private_key"]!r}
        auth._time = types.SimpleNamespace(time=lambda: 0.0, monotonic=lambda: 0.0, sleep=lambda s: None)
        threading.excepthook = lambda args: None

        def transport(method, url, headers=None, body=None):
            answer = {{"challenge_id": 1, "message": "m", "token": "t", "expires_at": 1, "wallet_secret": ""}}
            return 200, {{}}, json.dumps(answer).encode()

        count = 0
        for method, args in METHODS.items():
            for field in FIELDS:
                if method == "_refresh_loop" and field == "_refresh_stop":
                    continue
                manager = auth.AuthManager({KEY!r}, {BASE!r}, _transport=transport, clock=lambda: 0.0)
                if method == "_refresh_loop":
                    manager._refresh_stop.set()
                if {damage == "deleted"!r}:
                    delattr(manager, field)
                else:
                    setattr(manager, field, object())
                try:
                    getattr(manager, method)(*args)
                except Exception:
                    pass
                finally:
                    for name in ("_refresh_stop", "_close_event"):
                        event = getattr(manager, name, None)
                        if isinstance(event, threading.Event):
                            event.set()
                repr(manager)
                count += 1
        print(count)
    """)
    assert result.returncode == 0, result.stderr
    assert result.stdout.strip() == str(len(METHODS) * (len(PLAIN_FIELDS) - 1) - 1)


def test_replacing_the_class_of_an_instance_keeps_working() -> None:
    class Later(auth.AuthManager):
        def greeting(self) -> str:
            return self._state

    class Earlier(auth.AuthManager):
        pass

    manager = build(cls=Earlier)
    manager.__class__ = Later
    assert manager.greeting() == "UNINITIALIZED"


def test_fields_written_by_many_threads_at_once_do_not_crash() -> None:
    manager = build()

    def write(value: int) -> None:
        for number in range(2000):
            manager._token = [value, number]
            manager._auth_error = auth.AuthError(reason=str(number))
            assert manager._token[0] in range(8)

    manager._token = [0, 0]
    threads = [threading.Thread(target=write, args=(value,), daemon=True) for value in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        join(thread, 20.0)
    assert manager._token[1] == 1999


def test_the_manager_compares_and_hashes_by_identity() -> None:
    one, other = build(), build()
    assert one == one and one != other
    assert len({one, other}) == 2
