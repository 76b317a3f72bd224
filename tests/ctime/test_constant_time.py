"""No branch and no address depends on key bytes, according to valgrind; `make ctime` checks more."""

from __future__ import annotations

import pytest

from . import builds, public
from .memcheck import Outcome, Watched
from .verdict import faults

pytestmark = pytest.mark.skipif(not builds.RELEASE.exists(), reason="watches the release build")


@pytest.mark.parametrize("level", builds.LEVELS)
def test_the_wallet_room_keeps_time(level: str) -> None:
    watched = builds.watch_room(level)
    assert faults(watched, public.LINE_PLACES) == [], watched.log
    assert len(watched.of_kind("check")) == 12
    assert len(watched.of_kind("control")) == 6


def test_a_manager_in_the_interpreter_keeps_time() -> None:
    watched = builds.watch_manager()
    assert faults(watched, public.FUNCTION_PLACES) == [], watched.log
    assert len(watched.of_kind("check")) == 7
    assert len(watched.of_kind("control")) == 3


def test_what_is_watched_is_the_code_of_a_release() -> None:
    assert builds.differing_objects() == []
    assert builds.code_of(builds.objects("ctime_wallet_O2")["wallet_key.cpp.o"]) != builds.code_of(
        builds.objects("ctime_wallet_O3")["wallet_key.cpp.o"]
    )


def test_every_kind_of_fault_is_told() -> None:
    check, control = Outcome("check", "a", 64, 0), Outcome("control", "b", 64, 1)
    assert faults(Watched((check, control), {"prefix": 1}, ""), {"prefix"}) == []
    reported = Watched((Outcome("check", "a", 64, 2), Outcome("control", "b", 64, 0)), {}, "")
    assert faults(reported, {"prefix"}) == [
        "a: 2 reports",
        "control b: not seen",
        "public place prefix: never met, drop it",
    ]
    halved = Watched((check, control), {"prefix": 20, "hexadecimal": 15}, "")
    assert faults(halved, set()) == [
        "decided once for each text, but not equally often: {'prefix': 20, 'hexadecimal': 15}"
    ]
    assert faults(Watched((), {}, ""), set()) == ["nothing was watched"]


def test_an_excused_line_has_to_be_there_once() -> None:
    with pytest.raises(LookupError):
        public.Place("gone", "wallet_key.cpp", "if (digits[0] == '0') return;", "").number()
    with pytest.raises(LookupError):
        public.Place("twice", "wallet_key.cpp", "wipe_stack_below();", "").number()
