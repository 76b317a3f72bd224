"""An era that is announced in one process reaches all that share the board."""

from __future__ import annotations

import contextlib
import mmap
from typing import Any

import pytest

from tessaline.keeper import EraBoard

from .support import programs

PROGRAMS = {
    "a child tells its parent and its siblings": """
        keeper = Keeper(fleet(service, clock, 1))
        keeper.start()
        service.era = 2        # at every process's own service
        told, telling = os.pipe()
        def sibling():
            assert os.read(told, 1) == b"!"
            # The copy is dropped at once, whether the process has polled or not.
            assert era_of(keeper.get_token()) == 2
            keeper.close()
        def teller():
            keeper.notify_era_change(2)
            os.write(telling, b"!!!")
            assert era_of(keeper.get_token()) == 2
            keeper.close()
        children = [begin_child(sibling) for _ in range(3)]
        token = keeper.get_token()
        children.append(begin_child(teller))
        for pid in children:
            end_child(pid)
        # No call here: the parent has logged in by itself, within two seconds.
        until(lambda: len(service.granted) == 2, timeout=2.5)
        assert era_of(keeper.get_token()) == 2
        keeper.close()
    """,
    "nobody gets an old token once it is announced elsewhere": """
        keeper = Keeper(fleet(service, clock, 1))
        keeper.start()
        service.hold()          # here the new era cannot be fetched
        for era in (2, 3, 4):
            in_child(lambda: keeper.notify_era_change(era))
            for _ in range(100):
                assert reason_of(lambda: keeper.get_token(timeout=0)) == "era_change_pending"
        service.era = 4
        service.let_go()
        assert era_of(keeper.get_token()) == 4
        keeper.close()
    """,
    "an idle child learns of it within two seconds": """
        board = EraBoard()
        keeper = Keeper(fleet(service, clock, 2), era_board=board)
        keeper.start()
        service.era = 7
        ready, telling = os.pipe()
        def idle():
            keeper.status()     # the first use in the child
            os.write(telling, b"!")
            until(lambda: len(service.granted) == 4)
            assert time.monotonic() - board_time() < 2.0 + 0.5
            keeper.close()
        def board_time():
            return told_at
        told_at = time.monotonic() + 0.3
        pid = begin_child(idle)
        assert os.read(ready, 1) == b"!"
        time.sleep(max(0.0, told_at - time.monotonic()))
        board.announce(7)
        end_child(pid)
        until(lambda: len(service.granted) == 4, timeout=2.5)
        keeper.close()
    """,
    "keepers with boards of their own know nothing of each other": """
        one = Keeper(manager(service, clock, 0))
        other = Keeper(manager(service, clock, 1))
        for keeper in (one, other):
            keeper.start()
        service.era = 2
        one.notify_era_change(2)
        assert era_of(one.get_token()) == 2
        assert era_of(other.get_token(timeout=0)) == 1
        one.close(); other.close()
    """,
    "keepers that are made after the fork share a board that was made before": """
        board = EraBoard()
        told, telling = os.pipe()
        def child():
            with Keeper(fleet(service, clock, 1), era_board=board) as keeper:
                keeper.start()
                service.era = 2
                os.write(telling, b"!")
                until(lambda: board.era == 2)
                assert era_of(keeper.get_token()) == 2
        children = [begin_child(child) for _ in range(2)]
        assert os.read(told, 1) + os.read(told, 1) == b"!!"
        with Keeper(fleet(service, clock, 1), era_board=board) as keeper:
            keeper.start()
            service.era = 2
            keeper.notify_era_change(2)
            assert era_of(keeper.get_token()) == 2
        for pid in children:
            end_child(pid)
    """,
    "who starts later knows what was announced before": """
        board = EraBoard()
        in_child(lambda: board.announce(3))
        assert board.era == 3
        with Keeper(fleet(service, clock, 1), era_board=board) as keeper:
            service.era = 3
            keeper.start()
            assert era_of(keeper.get_token(timeout=0)) == 3
        with Keeper(fleet(service, clock, 1), era_board=board) as keeper:
            service.era = 2
            keeper.start(wait=False)
            until(lambda: keeper.status().failures > 0)
            assert reason_of(lambda: keeper.get_token(timeout=0)) == "era_mismatch"
    """,
    "a child that is killed leaves the board usable": """
        keeper = Keeper(fleet(service, clock, 1))
        keeper.start()
        def announce_for_ever():
            era = 1
            while True:
                era = era % 1000 + 1
                keeper.notify_era_change(era)
        for _ in range(3):
            pid = begin_child(announce_for_ever)
            time.sleep(0.05)
            os.kill(pid, 9)
            os.waitpid(pid, 0)
        service.era = 5000
        keeper.notify_era_change(5000)
        assert era_of(keeper.get_token()) == 5000
        keeper.close()
    """,
}


@pytest.mark.process
@pytest.mark.parametrize("name", PROGRAMS)
def test_boards_of_several_processes(name: str) -> None:
    programs.run(PROGRAMS[name])


def test_it_holds_the_highest_number() -> None:
    board = EraBoard()
    assert board.era == 0
    for told, held in ((3, 3), (2, 3), (3, 3), (9, 9), (1, 9)):
        board.announce(told)
        assert board.era == held


@pytest.mark.parametrize("era", [0, -1])
def test_a_number_that_is_none_changes_nothing(era: int) -> None:
    board = EraBoard()
    with contextlib.suppress(ValueError):
        board.announce(era)
    assert board.era == 0


@pytest.mark.parametrize("era", ["1", None, 1.5])
def test_it_takes_numbers_alone(era: Any) -> None:
    with pytest.raises(TypeError):
        EraBoard().announce(era)


def test_two_are_two() -> None:
    one, other = EraBoard(), EraBoard()
    one.announce(4)
    assert other.era == 0


def test_one_that_is_dropped_gives_its_memory_back() -> None:
    def maps() -> int:
        with open("/proc/self/maps") as lines:
            return sum(1 for _ in lines)

    [EraBoard() for _ in range(10)]
    before = maps()
    for _ in range(20 * mmap.PAGESIZE // 64):
        EraBoard()
    assert maps() <= before + 20
