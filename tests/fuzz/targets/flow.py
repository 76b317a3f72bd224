"""A hostile server and a restless program against a manager, on threads that take turns and a stepped clock.

The first line selects which thread continues if several can. Each further line is one action:

    login | token | fields | close | settle | name TEXT | era N | clock SECONDS    what the program does
    & ACT                                                                          the same on another thread
    d ACT                            the same within the next request, in whatever thread that runs
    r STATUS [Name=value]... | BODY  the response to the next request without one
    x EXCEPTION                      what the transport raises instead
    q N                              what the transport returns instead, of a shape that it should not
    c EXCEPTION | t                  what the next reading of the clock raises; the next thread cannot start
    server N | nosecret | othersecret  the era of the server's tokens (0: none), its secret
"""

from __future__ import annotations

import base64
import json
import types
from collections.abc import Callable
from typing import Any

from tessaline import auth

from ..hosted import KEY, text_of, words_of
from ..hostile import EXCEPTIONS, OTHER_SECRET, SECRET, Hostile
from ..scheduler import Hang, Turns

# Lines that a mutation may insert.
VOCABULARY = (
    *(
        "login",
        "token",
        "fields",
        "close",
        "settle",
        "name Ada",
        "name !",
        "name ",
        "nosecret",
        "othersecret",
    ),
    *("era 1", "era 2", "era 3", "server 0", "server 1", "server 2", "server 3", "clock 60", "clock 69121"),
    *(
        "clock 86400",
        "& login",
        "& token",
        "& close",
        "& name Ada",
        "& era 2",
        "d close",
        "d token",
        "d login",
    ),
    *("d & close", "d & token", "d & login", "d era 2", "d & era 3", "d clock 90000", "d & name Ada"),
    *(f"x {name}" for name in EXCEPTIONS),
    *("t", "c RuntimeError", "c KeyboardInterrupt", "c TypeError"),
    *(f"q {which}" for which in range(20)),
    *(f"r {status} |" for status in (200, 201, 204, 302, 400, 401, 403, 404, 409, 410, 429, 500, 503)),
    "r 429 Retry-After=7 | ",
    "r 429 Retry-After=x | ",
    'r 400 | {"error":"invite_required"}',
    'r 403 | {"error":"invite_revoked"}',
    'r 400 | {"error":5}',
    "r 200 | []",
    "r 200 | not json",
    "r 200 | {}",
    'r 200 | {"challenge_id":1,"message":"m"}',
    'r 200 | {"challenge_id":"c","message":"\\ud800"}',
    'r 200 | {"challenge_id":"c","message":7}',
    "r 200 | $GRANT",
    'r 200 | {"token":"$OLD","expires_at":0,"wallet_secret":"$SECRET"}',
    'r 200 | {"token":"$NEW","expires_at":0,"wallet_secret":"$SECRET"}',
    'r 200 | {"token":"$STRANGE","expires_at":0,"wallet_secret":"$SECRET"}',
    'r 200 | {"token":"$TOKEN","expires_at":0,"wallet_secret":"$OTHER"}',
    'r 200 | {"token":"$TOKEN","expires_at":0,"wallet_secret":"!"}',
    'r 200 | {"token":5,"expires_at":null,"wallet_secret":7}',
    'r 200 | {"token":"$TOKEN","wallet_secret":"$SECRET"}',
)
MOST_ACTS = 40
STATES = {"UNINITIALIZED", "AUTHENTICATING", "AUTHENTICATED", "RE_AUTHENTICATING", "CLOSED"}
IN_FLIGHT = {"AUTHENTICATING", "RE_AUTHENTICATING"}
DOCUMENTED = (auth.AuthError, auth.NetworkError, auth.RegistrationError, auth.ProfileError)
# For a response that lacks required fields, or cannot be parsed.
OF_ANSWERS = (KeyError, TypeError, ValueError, RecursionError)
OF_ODD_TRANSPORTS = (AttributeError, OverflowError, IndexError)
FROM_WITHIN = ("AuthManager was called by code that it runs", "AuthManager was asked to wait by code")
_PATCHED = auth.threading, auth._time, auth.random


def era_of(token: str) -> int:
    claims = token.split(".")[1]
    return int(json.loads(base64.urlsafe_b64decode(claims + "==")).get("era_number") or 0)


def subject_of(token: str) -> str:
    claims = token.split(".")[1]
    return str(json.loads(base64.urlsafe_b64decode(claims + "==")).get("sub")).lower()


class Watched(auth.AuthManager):
    """Records what it stores, and checks that no store satisfies an announcement that it does not meet."""

    def __init__(self, *args: Any, **kwargs: Any) -> None:
        super().__init__(*args, **kwargs)
        self.stored: list[str] = []
        self.owed = 0

    def _store_auth_result(self, token: Any, wallet_secret_bytes: Any) -> Any:
        super()._store_auth_result(token, wallet_secret_bytes)
        assert subject_of(token) == self.get_wallet_address(), "another wallet's token was stored"
        if self.owed:
            assert (auth._jwt_era_number(token) or 0) >= self.owed, "a token of an old era was stored"
        self.owed = 0
        self.stored.append(token)


class Play:
    def __init__(self, choices: bytes) -> None:
        self.turns = Turns(choices)
        self.now = 1_000_000.0
        self.callers = 0
        self.odd = False
        self.clock_faults: list[BaseException] = []
        self.raised: list[BaseException] = []
        self.problems: list[BaseException] = []
        auth.threading, auth._time = self.turns.threading(), self.turns.time()
        auth.random = types.SimpleNamespace(uniform=lambda low, high: 0.0)  # type: ignore[assignment]
        self.server = Hostile("")
        self.manager = Watched(
            KEY, "https://auth.example.test", _transport=self.serve, clock=lambda: self.now
        )
        self.server.address = self.manager.get_wallet_address()

    def serve(self, *args: Any, **kwargs: Any) -> Any:
        self.turns.pause()
        answer = self.server(*args, **kwargs)
        self.turns.pause()
        return answer

    def clock(self) -> float:
        if self.clock_faults:
            raise self.clock_faults.pop(0)
        return self.now

    # The actions

    def act(self, line: str) -> None:
        word, _, rest = line.partition(" ")
        if word == "&":
            self.callers += 1
            self.turns.run(lambda: self.as_caller(rest))
        elif word == "d":
            self.server.before.append(lambda: self.act(rest))
        elif word in ("r", "x", "q", "server", "nosecret", "othersecret"):
            self.prepare(word, rest)
        elif word in ("c", "t"):
            kind = EXCEPTIONS.get(rest, RuntimeError)
            self.raised.append(kind("of the host"))
            faults = self.clock_faults if word == "c" else self.turns.start_faults
            faults.append(self.raised[-1])
        elif word == "clock":
            self.now += min(float(number(rest)), 1e6)
        elif word == "settle" and self.turns.current is self.turns.main:
            self.turns.settle(self.quiet)
        else:
            self.call(word, rest)

    def prepare(self, word: str, rest: str) -> None:
        if word == "r":
            head, _, body = rest.partition(" | ")
            status, *fields = head.split(" ")
            headers = dict(field.split("=", 1) for field in fields if "=" in field)
            self.server.will_answer(number(status), headers, body)
        elif word == "x":
            self.server.will_raise(EXCEPTIONS.get(rest, ConnectionError))
        elif word == "q":
            self.odd = True
            self.server.will_be_odd(number(rest))
        elif word == "server":
            self.server.era = number(rest) or None
        else:
            self.server.secret = b"" if word == "nosecret" else OTHER_SECRET

    def as_caller(self, line: str) -> None:
        try:
            self.act(line)
        except BaseException as error:
            self.problems.append(error)
        finally:
            self.callers -= 1

    def call(self, word: str, rest: str) -> None:
        calls: dict[str, Callable[[], Any]] = {
            "login": self.manager.authenticate,
            "token": self.token,
            "era": lambda: self.announce(number(rest)),
            "name": lambda: self.manager.set_display_name(rest),
            "close": self.manager.close,
            "fields": self.fields,
        }
        call = calls.get(word)
        if call is None:
            return
        try:
            call()
        except (Hang, AssertionError):
            raise
        except BaseException as error:
            self.check_error(error)

    def token(self) -> None:
        token = self.manager.get_token()
        assert type(token) is str
        assert token in self.manager.stored, "a token was served that was never stored"
        assert era_of(token) >= self.manager.owed, "a token of an old era was served"

    def announce(self, era: int) -> None:
        self.manager.notify_era_change(era)
        self.manager.owed = max(self.manager.owed, era)

    def fields(self) -> None:
        assert self.manager.get_wallet_address().startswith("0x")
        for read in (self.manager.get_token_expiry, self.manager.get_wallet_secret):
            try:
                read()
            except auth.AuthError as error:
                assert error.reason in ("manager_closed", "not_authenticated")

    # The properties

    def check_error(self, error: BaseException) -> None:
        self.check_words(error)
        if isinstance(error, DOCUMENTED) or any(
            error is raised for raised in self.raised + self.server.raised
        ):
            return
        if type(error) is RuntimeError and str(error).startswith(FROM_WITHIN):
            return
        allowed = OF_ANSWERS + (OF_ODD_TRANSPORTS if self.odd else ())
        assert isinstance(error, allowed), f"undocumented: {error!r}"

    def check_words(self, error: BaseException) -> None:
        said = words_of(error)
        assert KEY not in said.lower()
        for secret in (SECRET, OTHER_SECRET):
            assert self.server.encoded(secret) not in said and repr(secret) not in said
        assert not any(token in said for token in self.server.granted), "an error repeats a token"

    def check_state(self) -> None:
        manager = self.manager
        state, token, secret = manager._state, manager._token, manager._wallet_secret
        assert state in STATES, state
        assert (token is None) == (secret is None) == (manager._token_expiry is None)
        if state == "CLOSED":
            assert token is None and manager._private_key is None and manager._pending_era_number is None
        else:
            assert manager._private_key == KEY
        if state == "AUTHENTICATED":
            assert token is not None and manager._refresh_at is not None
        if state == "UNINITIALIZED":
            assert manager._reauth_mode is None
        error = manager._auth_error
        assert error is None or type(error) is auth.AuthError
        if error is not None:
            self.check_words(error)
        assert KEY not in repr(manager)

    def quiet(self) -> bool:
        """No thread is about to do anything by itself."""
        loops = [task for task in self.turns.tasks if getattr(task.call, "__name__", "") == "_refresh_loop"]
        if self.callers or len(self.turns.tasks) != 1 + len(loops) or self.manager._state in IN_FLIGHT:
            return False
        due = self.manager._refresh_at is not None and self.now >= self.manager._refresh_at
        return not (loops and due and self.manager._state == "AUTHENTICATED")

    def end(self) -> None:
        """Whatever has happened, close ends everything and clears everything."""
        self.server.before.clear()
        self.clock_faults.clear()
        self.turns.start_faults.clear()
        self.call("close", "")
        assert self.manager._state == "CLOSED"
        self.check_state()
        self.turns.wait(lambda: len(self.turns.tasks) == 1, None)
        self.check_state()
        assert self.manager._refresh_thread is None
        for problem in self.problems:
            raise problem
        for escaped in self.turns.escaped:
            raise escaped


def number(text: str) -> int:
    digits = text.strip()[:7]
    return int(digits) if digits.isascii() and digits.isdigit() else 0


def one_input(data: bytes) -> None:
    first, *lines = text_of(data).split("\n")
    play = Play(first.encode("utf-8", "surrogateescape"))
    try:
        for line in lines[:MOST_ACTS]:
            play.act(line)
            play.check_state()
        play.end()
    finally:
        auth.threading, auth._time, auth.random = _PATCHED
