"""Python's own warning about unclosed resources is issued for managers too, if it is enabled."""

from __future__ import annotations

import pytest

from . import programs

pytestmark = pytest.mark.process

SHOWN = ("-W", "default::ResourceWarning")
WARNING = r"(?!.*Traceback).*\bResourceWarning: .*close.*"

PRELUDE = """
import sys
from tessaline import auth
from tests.shared.good_service import GoodService
KEY = "8f2a55949038a9610f50fb23b5883af3b4ecb3c3bb792cbcefbd1542c692be63"
def manager(log_in=True):
    made = auth.AuthManager(KEY, "https://auth.example.test", _transport=GoodService())
    if log_in:
        made.authenticate()
    return made
"""

NEVER_CLOSED = {
    "kept to the end": "kept = manager()",
    "several": "kept = [manager() for _ in range(3)]",
    "dropped": "manager()",
    "one of two": "kept = [manager(), manager()]\nkept[0].close()",
    "at an exit": "kept = manager()\nsys.exit(0)",
}
CLOSED = {
    "closed": "manager().close()",
    "a block": "with manager() as one: one.get_token()",
    "closed at exit": "import atexit\natexit.register(manager().close)",
    "never logged in": "kept = manager(log_in=False)",
}


@pytest.mark.parametrize("case", NEVER_CLOSED)
def test_asked_for(case: str) -> None:
    programs.run(NEVER_CLOSED[case], prelude=PRELUDE, options=SHOWN, errors=WARNING)


def test_asked_for_by_the_environment() -> None:
    environment = {"PYTHONWARNINGS": "default::ResourceWarning"}
    programs.run(NEVER_CLOSED["dropped"], prelude=PRELUDE, environment=environment, errors=WARNING)


@pytest.mark.parametrize("case", CLOSED)
def test_nothing_to_warn_of(case: str) -> None:
    programs.run(CLOSED[case], prelude=PRELUDE, options=SHOWN)


@pytest.mark.parametrize("case", NEVER_CLOSED)
def test_not_asked_for(case: str) -> None:
    programs.run(NEVER_CLOSED[case], prelude=PRELUDE)
