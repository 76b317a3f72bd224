"""What each search of the model covers. What is not listed is absent: no callers, no clock, no failures."""

from __future__ import annotations

from dataclasses import dataclass, field

ABSENT = {
    "GETTERS": 0,  # calls of get_token, each on a separate thread
    "LOGINS": 0,  # threads that call authenticate ...
    "LOGIN_CALLS": 1,  # ... this often
    "ERAS": 0,  # announcements by one thread of the program, each of a higher era
    "TICKS": 0,  # of the clock: a token is due after one and expired after two
    "NOW": 0,  # ticks that have passed at the beginning
    "CLOSES": 0,  # one call of close, at any time
    "LOGGED_IN": 1,  # starts with a token and a refresh thread
    "PATIENT": 0,  # the wait for a refresh does not time out, nor does the join of close
    "BACK_OFF": 0,  # flows may wait between two tries
    "PERMANENT_FAILURES": 0,  # besides transient ones
    "EARLY_WAKES": 0,  # wake-ups of each refresh thread when nothing has changed
    "START_FAILURES": 0,  # threads that cannot be started
}


@dataclass(frozen=True)
class Configuration:
    name: str
    sizes: dict[str, int]
    small: bool = True  # small enough to be searched for endless runs, and once for each mutant
    values: dict[str, int] = field(init=False)

    def __post_init__(self) -> None:
        object.__setattr__(self, "values", {**ABSENT, **self.sizes})

    def definitions(self) -> list[str]:
        return [f"-D{name}={value}" for name, value in self.values.items()]


CONFIGURATIONS = [
    Configuration("era", {"GETTERS": 1, "ERAS": 1, "PERMANENT_FAILURES": 1}),
    Configuration("close", {"GETTERS": 1, "TICKS": 1, "CLOSES": 1}),
    Configuration("era-close", {"ERAS": 1, "CLOSES": 1}),
    Configuration("refresh", {"GETTERS": 1, "TICKS": 2, "BACK_OFF": 1, "PERMANENT_FAILURES": 1}),
    Configuration("login-close", {"LOGINS": 1, "CLOSES": 1}),
    Configuration("first-login", {"GETTERS": 1, "LOGINS": 1, "LOGGED_IN": 0, "CLOSES": 1}),
    Configuration("failed-start", {"LOGINS": 1, "CLOSES": 1, "START_FAILURES": 1}),
    Configuration("failed-logins", {"LOGINS": 2, "LOGGED_IN": 0, "START_FAILURES": 1}),
    Configuration("due-close", {"GETTERS": 1, "CLOSES": 1, "NOW": 1, "TICKS": 1, "PATIENT": 1}),
    Configuration("two-logins", {"LOGINS": 2, "LOGGED_IN": 0}),
    Configuration("relogin", {"GETTERS": 1, "LOGINS": 1}),
    Configuration("due-login", {"LOGINS": 1, "NOW": 1, "TICKS": 1}),
    Configuration("due-era", {"ERAS": 1, "NOW": 1, "TICKS": 1}),
    Configuration("expired-close", {"GETTERS": 1, "CLOSES": 1, "NOW": 2, "TICKS": 2}),
    Configuration("two-waiters", {"GETTERS": 2, "TICKS": 1, "PATIENT": 1}),
    Configuration("relogin-refresh", {"LOGINS": 1, "TICKS": 1}, small=False),
    Configuration("renewal-and-era", {"ERAS": 1, "TICKS": 1}, small=False),
    Configuration("failed-starts", {"LOGINS": 1, "ERAS": 1, "START_FAILURES": 1}, small=False),
]

# Too large for a complete search: some mutants show only here, and soon.
SAMPLES = [
    Configuration("expired-era", {"GETTERS": 1, "ERAS": 1, "NOW": 2, "TICKS": 2}),
    Configuration("due-era-served", {"GETTERS": 1, "ERAS": 1, "NOW": 1, "TICKS": 1}),
    Configuration("two-eras", {"GETTERS": 1, "ERAS": 2}),
    Configuration("login-era", {"GETTERS": 1, "LOGINS": 1, "ERAS": 1, "PERMANENT_FAILURES": 1}),
]
