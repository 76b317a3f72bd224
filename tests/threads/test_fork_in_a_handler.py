"""A signal handler forks while the main thread waits: in the child there is no thread to wait for."""

from __future__ import annotations

import pytest

from . import programs

pytestmark = pytest.mark.process

# The handler returns into the wait, in the parent and in the child; an alarm ends the child if it waits on.
PRELUDE = (
    programs.USUAL
    + """
warnings.simplefilter("ignore", DeprecationWarning)
CHILD_SECONDS = 5
parent, children = os.getpid(), []

def fork(*_):
    children.append(os.fork())
    if children[-1] == 0:
        service.let_go()
        signal.signal(signal.SIGALRM, signal.SIG_DFL)
        signal.alarm(CHILD_SECONDS)

def ended():
    'The status of the child in a list, once it has ended.'
    pid, status = os.waitpid(children[0], os.WNOHANG)
    return [status] if pid else []

def signalled_once(waits, number):
    def send():
        until(waits)
        os.kill(parent, number)
        until(lambda: children)
        status, = until(ended)
        service.let_go()
        return os.waitstatus_to_exitcode(status)
    return Worker(send)

def in_child():
    return os.getpid() != parent

def leave(good):
    # Skips everything that the parent's exit would do here.
    os._exit(0 if good else 1)

def waited_for(event):
    return lambda: event() is not None and waiters(event()) > 0

clock, service = HandClock(), Service(era=1)
manager = build(service, clock)
AUTH_ERRORS = {"manager_closed", "not_authenticated", "token_expired", "era_change_pending"}

def good_answer(answer):
    return answer in AUTH_ERRORS or answer.count(".") == 2
"""
)

LOGGED_IN = "manager.authenticate()\n"
HELD = "gate = service.hold(CHALLENGE)\n"
REACHED = "gate.reached()\nwaits = waited_for(lambda: manager._auth_event)\n"
LOGIN = HELD + "other = Worker(manager.authenticate)\n" + REACHED
WAITS = {
    "another thread's first login": LOGIN,
    "another thread's next login": LOGGED_IN + LOGIN,
    "an era": LOGGED_IN + HELD + "service.era = 2\nmanager.notify_era_change(2)\n" + REACHED,
    "a renewal": LOGGED_IN + HELD + "clock.now += 0.9 * LIFETIME\n" + REACHED,
    "a renewal past the expiry": LOGGED_IN + HELD + "clock.now += 2 * LIFETIME\n" + REACHED,
}

GET_TOKEN = """
answer = outcome(manager.get_token)
if in_child():
    leave(good_answer(answer) and outcome(manager.close) is None)
assert sender.result() == 0
assert answer == service.tokens[-1]
"""
# In the child the call logs in itself: no other thread does.
AUTHENTICATE = """
answer = outcome(manager.authenticate)
if in_child():
    token = outcome(manager.get_token)
    leave(answer is None and token == service.tokens[-1] and outcome(manager.close) is None)
assert sender.result() == 0
assert answer is None
assert manager.get_token() == service.tokens[-1]
"""
CALLS = {"get_token": ("SIGUSR1", GET_TOKEN), "authenticate": ("SIGALRM", AUTHENTICATE)}


@pytest.mark.parametrize("call", CALLS)
@pytest.mark.parametrize("wait", WAITS)
def test_the_child_does_not_wait_for_ever(wait: str, call: str) -> None:
    number, program = CALLS[call]
    send = f"signal.signal(signal.{number}, fork)\nsender = signalled_once(waits, signal.{number})\n"
    programs.run(WAITS[wait] + send + program, prelude=PRELUDE, ending="manager.close()\n")
