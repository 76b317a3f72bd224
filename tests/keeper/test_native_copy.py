"""The natively served copy, the board, and the clock that is read at the last tick."""

import ctypes
import gc
import time
import weakref
from collections.abc import Callable

import pytest

from tessaline._native import EraBoard, Serving, TokenCopy

HUGE = 2**70
METHOD = ctypes.PYFUNCTYPE(ctypes.py_object, ctypes.py_object, ctypes.c_void_p)


class Source(Serving):
    """Records the time-out of each wait."""

    def _wait_for_token(self, timeout: float | None) -> str:
        return f"waited {timeout}"


def source_with(copy: TokenCopy) -> Source:
    source = Source()
    source._copy = copy
    return source


@pytest.fixture
def board() -> EraBoard:
    return EraBoard()


@pytest.mark.parametrize("clock", [time.time, lambda: time.time()], ids=["native", "Python"])
def test_a_token_is_good_until_its_expiry(board: EraBoard, clock: Callable[[], float]) -> None:
    copy = TokenCopy(clock, board)
    source = source_with(copy)
    assert (copy.get(), copy.token) == (None, None)
    copy.put("token", time.time() + 100, 0)
    assert source.get_token() == source.get_token(5) == source.get_token(timeout=0) == "token"
    copy.put("token", time.time() - 0.001, 0)
    assert (copy.get(), copy.token) == (None, "token")
    assert source.get_token(timeout=None) == "waited None"


def test_a_token_that_expires_within_the_second_is_judged_exactly(board: EraBoard) -> None:
    copy = TokenCopy(time.time, board)
    copy.put("token", time.time() + 0.5, 0)
    assert copy.get() == "token"


def test_equality_with_the_expiry_counts_as_expired(board: EraBoard) -> None:
    copy = TokenCopy(lambda: 1000.0, board)
    copy.put("token", 1000.0, 0)
    assert copy.get() is None
    copy.put("token", 1000.0000001, 0)
    assert copy.get() == "token"


def test_a_clock_may_count_in_whole_numbers(board: EraBoard) -> None:
    copy = TokenCopy(lambda: 1000, board)
    copy.put("token", 1001, 0)
    assert copy.get() == "token"
    copy.shift(-1)
    assert (copy.get(), copy.expiry) == (None, 1000.0)


def test_an_older_era_is_not_served(board: EraBoard) -> None:
    copy = TokenCopy(time.time, board)
    copy.put("token", time.time() + 100, 4)
    board.announce(4)
    assert copy.get() == "token"
    board.announce(5)
    assert copy.get() is None
    board.announce(3)
    assert (copy.get(), board.era) == (None, 5)


def test_an_era_beyond_all_numbers_is_refused_on_the_board_and_met_by_a_token(board: EraBoard) -> None:
    with pytest.raises(ValueError, match=f"got {HUGE}"):
        board.announce(HUGE)
    board.announce(2**63 - 2)
    copy = TokenCopy(time.time, board)
    copy.put("token", time.time() + 100, HUGE)
    assert copy.get() == "token"
    with pytest.raises(ValueError, match=f"era_number must be > 0, got -{HUGE}"):
        board.announce(-HUGE)
    assert board.era == 2**63 - 2


def test_the_default_time_out_is_ten_seconds() -> None:
    source = Source()
    assert source.get_token() == "waited 10.0"
    with pytest.raises(TypeError, match="unexpected keyword argument 'patience'"):
        source.get_token(patience=1)  # type: ignore[call-arg]


def test_a_clock_that_raises_is_heard(board: EraBoard) -> None:
    def broken() -> float:
        raise RuntimeError("no time")

    copy = TokenCopy(broken, board)
    assert copy.get() is None
    copy.put("token", 1.0, 0)
    with pytest.raises(RuntimeError, match="no time"):
        source_with(copy).get_token()


def test_what_the_clock_does_meanwhile_is_seen(board: EraBoard) -> None:
    def dropping() -> float:
        copy.drop()
        return 0.0

    copy = TokenCopy(dropping, board)
    copy.put("token", 1.0, 0)
    assert copy.get() is None

    def announcing() -> float:
        board.announce(9)
        return 0.0

    other = TokenCopy(announcing, board)
    other.put("token", 1.0, 8)
    assert other.get() is None


def test_a_copy_can_be_given_once_and_only_a_copy(board: EraBoard) -> None:
    source = Source()
    with pytest.raises(TypeError):
        source._copy = object()  # type: ignore[assignment]
    source._copy = TokenCopy(time.time, board)
    with pytest.raises(AttributeError):
        source._copy = TokenCopy(time.time, board)
    with pytest.raises(TypeError):
        TokenCopy(time.time, object())  # type: ignore[arg-type]
    with pytest.raises(TypeError):
        TokenCopy(time.time, board).put(b"token", 1.0, 0)  # type: ignore[arg-type]


def test_cycles_are_collected(board: EraBoard) -> None:
    source = Source()
    source._copy = TokenCopy(source.get_token, board)  # type: ignore[arg-type]
    gone = weakref.ref(source)
    del source
    gc.collect()
    assert gone() is None


def test_another_function_behind_the_same_clock_is_seen(board: EraBoard) -> None:
    # As time-travel libraries do: `time.time` stays the same object.
    def tomorrow(_module: object, _nothing: object) -> float:
        return now + 86400.0

    now = time.time()
    copy = TokenCopy(time.time, board)
    copy.put("token", now + 3600, 0)
    definition = ctypes.c_void_p.from_address(id(time.time) + 2 * ctypes.sizeof(ctypes.c_void_p)).value
    assert definition is not None
    method = ctypes.c_void_p.from_address(definition + ctypes.sizeof(ctypes.c_void_p))
    kept, replacement = method.value, METHOD(tomorrow)
    assert copy.get() == "token"
    method.value = ctypes.cast(replacement, ctypes.c_void_p).value
    try:
        assert time.time() == now + 86400.0
        assert copy.get() is None
    finally:
        method.value = kept
    assert copy.get() == "token"
