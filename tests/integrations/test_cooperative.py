"""The transports for gevent and eventlet: other greenlets run during a request, whatever its result."""

from __future__ import annotations

import os
import signal
import time
import tomllib
from concurrent.futures import ThreadPoolExecutor, wait
from pathlib import Path

from devserver.testing import DevServer
from tests.integrations.hubs import LIBRARIES, each_library, each_patched, run
from tests.integrations.test_imports import ROOT, loaded_by
from tests.keeper.support import programs
from tests.sanitized import moves_stacks, patience

pytestmark = moves_stacks


@each_library
@each_patched
def test_the_others_go_on_during_a_login(server: DevServer, library: str, patched: bool) -> None:
    program = """
        ticks = Ticks()
        server.hold("challenge")
        with new_manager(transport()) as manager:
            login = spawn(manager.authenticate)
            until(lambda: server.count("challenge") == 1)
            ticks.go_on()
            assert not login.dead
            server.let_go("challenge")
            until(lambda: login.dead)
            assert manager.get_token()
    """
    run(server, library, program, patched=patched)


@each_library
def test_without_it_they_stand_still(server: DevServer, library: str) -> None:
    program = """
        ticks = Ticks()
        server.hold("challenge")
        native = http.transport(timeout=0.2)
        for one, goes_on in ((native, False), (transport(native), True)):
            before = ticks.count
            try:
                ask(one)
            except TimeoutError:
                assert (ticks.count > before) is goes_on
            else:
                raise AssertionError("it was answered")
    """
    run(server, library, program)


@each_library
def test_errors_come_out_as_they_are(server: DevServer, library: str) -> None:
    program = """
        noted = ConnectionResetError(104, "gone")
        noted.add_note("what to do")
        for error in (noted, ValueError(), SystemExit(3), KeyboardInterrupt(), GeneratorExit()):
            def broken(method, url, headers=None, body=None):
                raise error
            try:
                ask(transport(broken))
            except BaseException as caught:
                assert caught is error
                assert caught.__context__ is None
            else:
                raise AssertionError("it was answered")
        assert noted.__notes__ == ["what to do"]

        with socket.socket() as unused:
            unused.bind(("127.0.0.1", 0))
            nowhere = f"http://127.0.0.1:{unused.getsockname()[1]}"
            told = []
            for one in (http.transport(), transport()):
                try:
                    ask(one, nowhere, "secret" + "-text")
                except ConnectionRefusedError as caught:
                    told.append((caught.args, caught.__notes__))
                    shown = seen_in_frames(caught, "secret-text")
                    assert shown == ["ask"], shown
            assert len(told) == 2 and told[0] == told[1]
    """
    run(server, library, program)


@each_library
def test_nothing_is_kept_of_a_request(server: DevServer, library: str) -> None:
    program = """
        class Headers(dict):
            pass
        class Body(bytes):
            pass
        made = []
        one = transport(lambda method, url, headers=None, body=None: (200, headers, body))
        def call():
            headers, body = Headers(), Body(b"text")
            made.extend([weakref.ref(headers), id(body)])
            status, *rest = one("POST", server.url, headers, body)
            assert status == 200 and rest[0] is headers and rest[1] is body
        call()
        until(lambda: made[0]() is None)
        assert repr(transport()) .endswith("transport(tessaline.http.transport(timeout=30.0))")
        try:
            transport(3)
        except TypeError as error:
            assert str(error) == "inner must be callable or None, not int"
    """
    run(server, library, program)


@each_library
def test_who_is_killed_stops_waiting(server: DevServer, library: str) -> None:
    program = """
        server.hold("challenge")
        with new_manager(transport()) as manager:
            try:
                with Timeout(0.1):
                    manager.authenticate()
            except Timeout:
                seen = server.count("challenge")
                login = spawn(manager.authenticate)
            until(lambda: server.count("challenge") > seen)
            login.kill()
            until(lambda: login.dead)
            assert server.count("verify") == 0
            server.let_go("challenge")
            manager.authenticate()
            assert manager.get_token()
            assert server.count("verify") == 1
    """
    run(server, library, program)


@each_library
@each_patched
def test_ctrl_c_ends_the_wait_of_the_main_greenlet(
    server: DevServer, library: str, patched: bool, tmp_path: Path
) -> None:
    program = f"""
        # A shell makes background jobs ignore it.
        signal.signal(signal.SIGINT, signal.default_int_handler)
        with new_manager(transport()) as manager:
            with open({str(tmp_path / "pid")!r}, "w") as file:
                file.write(str(os.getpid()))
            try:
                manager.authenticate()
            except KeyboardInterrupt:
                signal.signal(signal.SIGINT, signal.SIG_IGN)
                open({str(tmp_path / "caught")!r}, "w").close()
                server.let_go("challenge")
            else:
                raise AssertionError("it went on")
            ticks = Ticks()
            before = ticks.count
            manager.authenticate()
            assert ticks.count > before
            assert server.count("verify") == 1
    """
    server.faults("challenge", [{"kind": "hold", "times": None}])
    with ThreadPoolExecutor(1) as pool:
        running = pool.submit(run, server, library, program, patched=patched)
        server.wait_for("challenge", 1, timeout=patience(15.0))
        # A hub that begins to wait just after the interpreter has checked for signals misses the first.
        until_caught = time.monotonic() + patience(15.0)
        while not running.done() and not (tmp_path / "caught").exists() and time.monotonic() < until_caught:
            os.kill(int((tmp_path / "pid").read_text()), signal.SIGINT)
            wait([running], timeout=1.0)
        running.result(timeout=programs.DEADLINE)


@each_library
def test_a_keeper_of_several(server: DevServer, library: str) -> None:
    program = """
        ticks = Ticks()
        shared = transport()
        server.hold("challenge")
        with Keeper([new_manager(shared) for _ in range(5)], at_once=2) as keeper:
            keeper.start(wait=False)
            until(lambda: server.count("challenge") == 2)
            ticks.go_on()
            assert server.count("challenge") == 2
            server.let_go("challenge")
            until(lambda: keeper.status().state == "good")
            assert all(keeper[one].get_token(timeout=0) for one in keeper)
    """
    run(server, library, program)


@each_library
@each_patched
def test_greenlets_that_share_a_manager(server: DevServer, library: str, patched: bool) -> None:
    program = f"""
        server.hold("challenge")
        with new_manager(transport()) as manager:
            login = spawn(manager.authenticate)
            until(lambda: server.count("challenge") == 1)
            came = []
            def ask_too(call):
                try:
                    came.append(call())
                except RuntimeError as error:
                    came.append("its own authentication" in str(error))
            for call in (manager.authenticate, manager.get_token):
                spawn(ask_too, call)
            Ticks().go_on()
            assert came == ([] if {patched} else [True, True])
            server.let_go("challenge")
            until(lambda: login.dead and len(came) == 2)
            assert {not patched} or set(came) == {{None, manager.get_token()}}
            assert server.count("verify") == 1
    """
    run(server, library, program, patched=patched)


@each_library
def test_a_keeper_holds_up_no_hub_where_nothing_is_patched(server: DevServer, library: str) -> None:
    program = """
        ticks = Ticks()
        server.hold("challenge")
        with Keeper(new_manager(None)) as keeper:
            keeper.start(wait=False)
            until(lambda: server.count("challenge") == 1)
            ticks.go_on()
            try:
                keeper.get_token(timeout=0)
            except AuthError:
                server.let_go("challenge")
            else:
                raise AssertionError("it had a token")
            until(lambda: keeper.status().state == "good")
            assert keeper.get_token(timeout=0)
    """
    run(server, library, program, patched=False)


@each_library
def test_its_module_loads_its_own_library_and_no_other(library: str) -> None:
    assert loaded_by(f"tessaline.integrations.{library}") & set(LIBRARIES) == {library}


def test_each_has_an_extra_that_brings_it() -> None:
    project = tomllib.loads((ROOT / "pyproject.toml").read_text())["project"]
    extras: dict[str, list[str]] = project["optional-dependencies"]
    for library in LIBRARIES:
        assert [wanted.partition(">")[0] for wanted in extras[library]] == [library]
