"""The scenarios. In each, failures are injected only during `act`."""

from __future__ import annotations

import abc
import contextlib
import os
import threading
from collections.abc import Callable
from typing import Any, ClassVar

import _torture

from tests.contract.support.service import CHALLENGE, DISPLAY_NAME, REGISTER, answer
from tests.shared.modules import StandIn

from .bench import Bench, Problems, Waiter, is_waited_for, until
from .kinds import Kind

ALLOCATIONS = frozenset({Kind.PYTHON, Kind.MODULE, Kind.THREAD})
MEMORY = frozenset({"MemoryError"})

# Other errors for lack of memory: of the interpreter, when it makes locks and threads, and of the component,
# for which a token that cannot be parsed is not the wallet's, whatever the cause.
SHORT_OF_MEMORY = frozenset(
    {
        ("RuntimeError", "can't allocate lock"),
        ("RuntimeError", "can't start new thread"),
        ("AuthError", "wallet_mismatch"),
    }
)

REVOKED = answer(403, {"error": "invite_revoked"})
UNREACHABLE = "NetworkError('Server unreachable after 1 attempts')"


class Scenario(abc.ABC):
    """One scenario. `allowed` are the errors, besides success, in which `act` may end."""

    kinds: frozenset[Kind] = ALLOCATIONS | {Kind.CALL}
    allowed: ClassVar[dict[Kind, frozenset[str]]] = {}
    repeats = True  # whether it can run several times in one process
    lets_go = True  # whether nothing refers to the manager afterwards

    def __init__(self, address: str) -> None:
        self.bench = self.make_bench(address)

    def make_bench(self, address: str) -> Bench:
        return Bench()

    def prepare(self) -> None:
        self.bench.construct()

    @abc.abstractmethod
    def act(self) -> None: ...

    def conclude(self) -> Problems:
        """Violated invariants after `act`, without failures."""
        return self.bench.problems() if self.bench.manager is not None else []

    def allows(self, kind: Kind, error: BaseException) -> bool:
        name = type(error).__name__
        if name in MEMORY | self.allowed.get(kind, frozenset()):
            return True
        return kind is Kind.PYTHON and (name, str(error)) in SHORT_OF_MEMORY


class Import(Scenario):
    """The module is imported; after a failure it can still be imported."""

    repeats = False

    def prepare(self) -> None:
        pass

    def act(self) -> None:
        __import__("tessaline.auth")

    def conclude(self) -> Problems:
        self.bench.construct()
        return self.bench.problems()


class Construct(Scenario):
    allowed: ClassVar = {Kind.CALL: frozenset({"RuntimeError", "InvalidKeyError"})}

    def prepare(self) -> None:
        pass

    def act(self) -> None:
        self.bench.construct()

    def conclude(self) -> Problems:
        if self.bench.manager is None:
            self.bench.construct()
        return self.bench.problems()


class Login(Scenario):
    """A first login, with another caller that waits for it."""

    allowed: ClassVar = {Kind.CALL: frozenset({"RuntimeError"}), Kind.THREAD: frozenset({"RuntimeError"})}

    def prepare(self) -> None:
        self.bench.construct()
        self.bench.waiter_at_first_request("authenticate")

    def act(self) -> None:
        self.bench.manager.authenticate()


class LoggedIn(Scenario):
    allowed: ClassVar = Login.allowed

    def prepare(self) -> None:
        self.bench.construct()
        self.bench.manager.authenticate()


class LoginAgain(LoggedIn):
    """A login during another one, with a caller of `get_token` that waits for it."""

    def prepare(self) -> None:
        super().prepare()
        self.bench.waiter_at_first_request("get_token")

    def act(self) -> None:
        self.bench.manager.authenticate()


class Token(LoggedIn):
    """The valid token by the fast path and by the full path, and everything else that only reads."""

    def make_bench(self, address: str) -> Bench:
        return Bench(default_clock=True)

    def act(self) -> None:
        manager = self.bench.manager
        manager.get_token()
        with manager._lock:
            pass
        manager._clock = _torture.host(manager._clock)
        manager.get_token()
        manager.get_wallet_secret()
        manager.get_token_expiry()
        manager.get_wallet_address()
        repr(manager)


class TokenDue(LoggedIn):
    """The token after its refresh point: the caller wakes the refresh thread and waits for it."""

    def act(self) -> None:
        self.bench.clock.now += 75_000
        self.bench.manager.get_token()


class TokenExpired(LoggedIn):
    """The token after its expiry: the caller polls for the refresh thread."""

    def act(self) -> None:
        self.bench.clock.now += 100_000
        self.bench.manager.get_token()


class Refresh(LoggedIn):
    """A refresh on the calling thread, with a caller of `get_token` that waits for it."""

    def prepare(self) -> None:
        super().prepare()
        self.bench.waiter_at_first_request("get_token")

    def act(self) -> None:
        self.bench.manager._do_refresh()


class InThread(LoggedIn):
    """What a background thread of the manager does."""

    method = ""

    def prepare(self) -> None:
        super().prepare()
        manager = self.bench.manager
        body = getattr(manager, self.method)
        setattr(manager, self.method, lambda: _torture.armed(body))

    def conclude(self) -> Problems:
        with contextlib.suppress(AttributeError):
            delattr(self.bench.manager, self.method)
        return super().conclude()


class RefreshThread(InThread):
    """The loop of a refresh thread and the refresh that it makes when it is due."""

    method = "_refresh_loop"

    def prepare(self) -> None:
        super().prepare()
        self.bench.manager._start_refresh()
        self.bench.clock.now += 75_000

    def act(self) -> None:
        pass

    def conclude(self) -> Problems:
        manager, service = self.bench.manager, self.bench.service
        ended = _torture.host(
            lambda: (
                len(service.tokens) > 1
                or manager._auth_error is not None
                or manager._state != "AUTHENTICATED"
            )
        )
        found = [] if until(ended) else ["the token is past its refresh point and nobody refreshes"]
        return found + super().conclude()


class Era(LoggedIn):
    """An era is announced; nothing fails in the thread that fetches it."""

    def act(self) -> None:
        self.bench.service.era = 7
        self.bench.manager.notify_era_change(7)


class EraThread(InThread):
    """The thread that fetches an announced era, with a caller of `get_token` that waits for it."""

    method = "_background_reauth"

    def prepare(self) -> None:
        super().prepare()
        self.bench.waiter_at_first_request("get_token")
        self.bench.service.era = 7

    def act(self) -> None:
        self.bench.manager.notify_era_change(7)

    def conclude(self) -> Problems:
        until(self.bench.settled)
        return super().conclude()


class _ArmingEvent(threading.Event):
    """From then on, failures are injected on the setter's thread."""

    def set(self) -> None:
        super().set()
        _torture.arm()


class _FrailThread(threading.Thread):
    """Fails between the time at which it counts as started and its body, and within."""

    def __init__(self, *args: Any, **options: Any) -> None:
        super().__init__(*args, **options)
        self._started = _ArmingEvent()


class ThreadBootstrap(LoggedIn):
    """A thread for an era that dies at any point after its start."""

    kinds = frozenset({Kind.PYTHON})

    def prepare(self) -> None:
        from tessaline import auth

        super().prepare()
        auth.threading = StandIn(threading, Thread=_FrailThread)  # type: ignore[assignment]
        self.bench.service.era = 7

    def act(self) -> None:
        _torture.host(self._announce)()

    def _announce(self) -> None:
        self.bench.manager.notify_era_change(7)
        self.bench.waiters.append(Waiter(self.bench.manager.get_token))

    def conclude(self) -> Problems:
        from tessaline import auth

        auth.threading = threading
        return super().conclude()


class Rename(LoggedIn):
    def act(self) -> None:
        self.bench.manager.set_display_name("Ada Lovelace")


class Notify(LoggedIn):
    """The module's own announcement, through the slot of the active manager."""

    def act(self) -> None:
        from tessaline import auth

        self.bench.service.era = 7
        auth._set_active_auth_manager(self.bench.manager)
        auth.notify_era_change(7)
        auth._set_active_auth_manager(None)

    def conclude(self) -> Problems:
        from tessaline import auth

        found = ["the slot's lock is held"] if auth._active_auth_manager_lock.locked() else []
        if not found:
            auth._set_active_auth_manager(None)
        return found + super().conclude()


class Close(LoggedIn):
    """A manager is closed during another thread's login."""

    def prepare(self) -> None:
        super().prepare()
        bench = self.bench
        gate = bench.service.hold(CHALLENGE)
        bench.waiters.append(Waiter(bench.manager.authenticate))
        gate.reached()
        event = bench.manager._auth_event
        bench.waiters.append(Waiter(bench.manager.get_token))
        until(lambda: is_waited_for(event))

    def act(self) -> None:
        self.bench.manager.close()

    def conclude(self) -> Problems:
        manager = self.bench.manager
        found: Problems = []
        if manager._state == "CLOSED":
            found += self.bench.waiters[1].problems(("AuthError",))
            if manager._private_key is not None or manager._token is not None:
                found.append("closed, it holds secrets still")
        self.bench.service.let_go()
        return found + super().conclude()


class Child(LoggedIn):
    """The first use of a manager in a forked child; the parent's threads and their data are missing."""

    repeats = False
    lets_go = False

    def prepare(self) -> None:
        super().prepare()
        child = os.fork()
        if child:
            os._exit(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) & 0x7F)

    def act(self) -> None:
        self.bench.manager.get_token()


class Refused(Scenario):
    """Calls that end in an error of the component's own: it is raised, with or without its note."""

    kinds = frozenset({Kind.PYTHON, Kind.MODULE})

    def prepare(self) -> None:
        super().prepare()
        self.met: list[tuple[str, str]] = []
        self.answer: Any = None
        self.bench.service.fault = self._fault

    def _fault(self, path: str) -> Any:
        if isinstance(self.answer, BaseException):
            raise self.answer
        return self.answer

    def act(self) -> None:
        manager = self.bench.manager
        self._expect("AuthError('not_authenticated')", manager.get_token)
        self._expect("InvalidKeyError('Private key is not a valid secp256k1 scalar')", self._zero_key)
        self._expect("AuthError('invalid_request')", self._ask, CHALLENGE, answer(400))
        self._expect("RegistrationError('invite_revoked')", self._ask, REGISTER, REVOKED)
        self._expect("ProfileError('rate_limited')", self._ask, DISPLAY_NAME, answer(429))
        self._expect(UNREACHABLE, self._ask, CHALLENGE, answer(503))
        self._expect(UNREACHABLE, self._ask, CHALLENGE, ConnectionResetError())
        self._expect("TypeError('cannot unpack non-iterable int object')", self._ask, CHALLENGE, 5)
        self.answer = REVOKED
        self._expect("RegistrationError('invite_revoked')", manager.authenticate)
        self._expect("AuthError('not_authenticated')", manager.get_token_expiry)

    def _zero_key(self) -> None:
        from tessaline import auth

        auth._validate_private_key("0" * 64)

    def _ask(self, path: str, given: Any) -> None:
        self.answer = given
        self.bench.manager._request_with_retry("POST", path, {}, max_attempts=1)

    def _expect(self, expected: str, call: Callable[..., Any], *arguments: Any) -> None:
        try:
            call(*arguments)
        except (MemoryError, RuntimeError):
            raise
        except Exception as error:
            self.met.append((expected, repr(error)))

    def conclude(self) -> Problems:
        self.answer = None  # an exception among them has a traceback, with the manager in its frames
        strange = [f"{met} instead of {expected}" for expected, met in self.met if met != expected]
        return strange + super().conclude()


class OverNetwork(Scenario):
    """A login, a renaming and a close over the default transport, from libcurl's first use on."""

    kinds = frozenset({Kind.MODULE, Kind.CURL, Kind.CALL, Kind.PYTHON})
    network = frozenset(
        {
            "RuntimeError",
            "NetworkError",
            "ValueError",
            "OSError",
            "ConnectionError",
            "SSLError",
            "SSLCertVerificationError",
            "BadStatusLine",
        }
    )
    allowed: ClassVar = {Kind.CALL: network, Kind.CURL: network, Kind.PYTHON: frozenset({"NetworkError"})}

    def make_bench(self, address: str) -> Bench:
        return Bench(address)

    def act(self) -> None:
        manager = self.bench.manager
        manager.authenticate()
        manager.set_display_name("Ada Lovelace")
        manager.close()


class Leaking(Scenario):
    """Keeps what it makes; for the test of the torture itself."""

    kept: ClassVar[list[Any]] = []

    def prepare(self) -> None:
        pass

    def act(self) -> None:
        self.kept.append([object() for _ in range(9)])
        raise MemoryError


class Crashing(Leaking):
    def act(self) -> None:
        os.abort()


# Not in the list of scenarios.
SPECIMENS: dict[str, type[Scenario]] = {"leaking": Leaking, "crashing": Crashing}

SCENARIOS: dict[str, type[Scenario]] = {
    "import": Import,
    "construct": Construct,
    "login": Login,
    "login-again": LoginAgain,
    "token": Token,
    "token-due": TokenDue,
    "token-expired": TokenExpired,
    "refresh": Refresh,
    "refresh-thread": RefreshThread,
    "era": Era,
    "era-thread": EraThread,
    "thread-bootstrap": ThreadBootstrap,
    "rename": Rename,
    "notify": Notify,
    "close": Close,
    "child": Child,
    "refused": Refused,
    "network": OverNetwork,
}
