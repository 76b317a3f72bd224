"""Error reports with the variables of the frames show no secret of the keeper's."""

from __future__ import annotations

import traceback
from collections.abc import Callable, Iterator
from types import FrameType
from typing import Any

import pytest

import canary
from tests.contract.support.service import VERIFY
from tests.shared.clocks import HandClock
from tests.shared.threads import Worker

from .support.driving import has_failed, to_next_attempt
from .support.service import Asked, Service


def frames_of(error: BaseException) -> Iterator[FrameType]:
    seen: list[BaseException] = []
    left: list[BaseException | None] = [error]
    while left:
        one = left.pop()
        if one is None or any(one is other for other in seen):
            continue
        seen.append(one)
        left += [one.__cause__, one.__context__]
        for frame, _ in traceback.walk_tb(one.__traceback__):
            yield frame


def variables(error: BaseException) -> list[str]:
    """What a service for error reports would get of the package's own frames."""
    own = [one for one in frames_of(error) if str(one.f_globals["__name__"]).startswith("tessaline")]
    assert len(own) >= 2
    return [f"{name} = {value!r}" for frame in own for name, value in frame.f_locals.items()]


@pytest.mark.parametrize("announced", ["before the start", "later"])
def test_no_token_in_the_variables_of_the_frames(
    announced: str, make_keeper: Callable[..., Any], service: Service, clock: HandClock
) -> None:
    # The server keeps issuing tokens of the previous era.
    keeper = make_keeper()
    if announced == "later":
        keeper.start()
    keeper.notify_era_change(5)
    keeper.start(wait=False)
    for _ in range(3):
        has_failed(keeper)
        error = Worker(keeper.get_token, timeout=0).failure()
        assert str(error) == "era_mismatch"
        texts = variables(error)
        assert service.granted
        assert not any(granted.token in text for granted in service.granted for text in texts)
        to_next_attempt(keeper, clock)


def test_no_signature_in_the_variables_of_the_frames(
    make_keeper: Callable[..., Any], service: Service, monkeypatch: pytest.MonkeyPatch
) -> None:
    signatures: list[str] = []
    plant = canary.plant

    def listen(kind: str, value: Any) -> None:
        plant(kind, value)
        if kind == "signature":
            signatures.append(value)

    monkeypatch.setattr(canary, "plant", listen)

    def refuse_the_answer(asked: Asked) -> None:
        if asked.path == VERIFY:
            raise OSError("the proxy refuses")

    # All signatures are equal, because the challenge is constant.
    make_keeper().start()
    service.fault = refuse_the_answer
    keeper = make_keeper()
    keeper.start(wait=False)
    has_failed(keeper)
    error = Worker(keeper.get_token, timeout=0).failure()
    assert str(error) == "the proxy refuses"
    assert len(signatures) == 1
    assert not any(signatures[0] in text for text in variables(error))
