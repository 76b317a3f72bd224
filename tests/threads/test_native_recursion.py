"""Recursion without a Python frame in between ends in RecursionError, on any stack."""

from __future__ import annotations

import textwrap

import pytest

from . import programs

pytestmark = pytest.mark.process

MIB = 1 << 20
# The main thread's stack has 8 MiB: programs.py sets it.
STACKS = {"main": 0, "thread of 8 MiB": 8 * MIB, "thread of 512 KiB": MIB // 2}

# Threads started later, such as the manager's own, have such a stack as well.
PRELUDE = (
    programs.USUAL
    + """
def run(body, stack):
    if not stack:
        return body()
    threading.stack_size(stack)
    return Worker(body).result()

def too_deep(call, *arguments):
    'Twice, for what the first time may leave behind.'
    for _ in range(2):
        try:
            call(*arguments)
        except RecursionError:
            continue
        raise AssertionError("it came back")

clock = HandClock()
def logged_in():
    made = build(Service(era=1), clock)
    made.authenticate()
    return made

def works(manager):
    assert manager.get_token().count(".") == 2
    manager.authenticate()
    assert manager.get_token().count(".") == 2
    manager.close()
    assert outcome(manager.get_token) == "manager_closed"
"""
)

PROGRAMS = {
    "a clock that reads the time": """
        manager = build(Service(), clock)
        manager._clock = manager._get_time
        too_deep(manager._get_time)
        too_deep(manager._wait_with_clock, 5)
        manager._clock = clock
        manager.authenticate()
        works(manager)
    """,
    "a clock that asks for the token": """
        manager = logged_in()
        manager._clock = manager.get_token
        too_deep(manager.get_token)
        too_deep(manager._get_time)
        manager._clock = clock
        works(manager)
    """,
    "a request that is tried again by itself": """
        manager = logged_in()
        manager._http_request = manager._request_with_retry
        too_deep(manager._request_with_retry, "POST", "/auth/register", {})
        too_deep(manager.authenticate)
        del manager._http_request
        works(manager)
    """,
    "a module that is its own manager": """
        auth._set_active_auth_manager(auth)
        too_deep(auth.notify_era_change, 1)
        manager = logged_in()
        auth._set_active_auth_manager(manager)
        auth.notify_era_change(1)
        auth._set_active_auth_manager(None)
        works(manager)
    """,
    "a flow that is the one above it": """
        class Looping(auth.AuthManager):
            _do_auth_flow = auth.AuthManager._do_auth_flow_matching_pending_era
        manager = Looping(KEY, "https://auth.example.test", clock=clock, _transport=Service())
        too_deep(manager._do_auth_flow)
        too_deep(manager.authenticate)
        del Looping._do_auth_flow
        manager.authenticate()
        works(manager)
    """,
    "a renewal that begins itself": """
        manager = logged_in()
        manager._start_refresh = manager._do_refresh
        # The renewal stores its failure, because it has no caller.
        try:
            manager._do_refresh()
        except RecursionError:
            pass
        else:
            assert "recursion" in str(manager._auth_error)
        del manager._start_refresh
        manager.authenticate()
        works(manager)
    """,
}


@pytest.mark.parametrize("stack", STACKS)
@pytest.mark.parametrize("case", PROGRAMS)
def test_too_deep(case: str, stack: str) -> None:
    body = textwrap.indent(textwrap.dedent(PROGRAMS[case]), "    ")
    programs.run(f"def body():\n{body}\nrun(body, {STACKS[stack]})\n", prelude=PRELUDE)
