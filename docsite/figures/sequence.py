"""Sequence diagrams: messages between actors, from top to bottom."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass

from .canvas import Canvas

_TOP = 34.0
_STEP = 36.0
_LINE = 15.0


@dataclass(frozen=True)
class Message:
    """An arrow; a response is dashed. `note` is a second, lighter line below it."""

    sender: str
    receiver: str
    text: str
    note: str = ""
    answer: bool = False


@dataclass(frozen=True)
class Act:
    """An action of one of them."""

    actor: str
    lines: tuple[str, ...]
    wide: float = 126


type Event = Message | Act


def draw(canvas: Canvas, actors: dict[str, float], events: Sequence[Event]) -> None:
    """Draws `events` between `actors`, given by name and the position of their lifeline."""
    y = _TOP + 22
    heights = [_height(event) for event in events]
    bottom = y + sum(heights) + 4
    for name, x in actors.items():
        canvas.line([(x, _TOP), (x, bottom)], dashed=True)
        wide = len(name) * 7.4 + 16
        canvas.box(x - wide / 2, 8, wide, 26, kind="now")
        canvas.text(x, 25.5, name, kind="strong", size=12.5)
    for event, height in zip(events, heights, strict=True):
        if isinstance(event, Message):
            _message(canvas, actors, event, y)
        else:
            _act(canvas, actors[event.actor], event, y)
        y += height
    canvas.height = bottom + 6


def _height(event: Event) -> float:
    if isinstance(event, Message):
        return _STEP + (_LINE if event.note else 0)
    return 20 + _LINE * len(event.lines)


def _message(canvas: Canvas, actors: dict[str, float], message: Message, y: float) -> None:
    left, right = actors[message.sender], actors[message.receiver]
    inset = 2 if right > left else -2
    canvas.line([(left + inset, y + 6), (right - inset, y + 6)], arrow=True, dashed=message.answer)
    canvas.text((left + right) / 2, y, message.text, kind="" if message.answer else "code", size=11.5)
    if message.note:
        canvas.text((left + right) / 2, y + 20, message.note, kind="soft", size=11)


def _act(canvas: Canvas, x: float, act: Act, y: float) -> None:
    height = 8 + _LINE * len(act.lines)
    x = min(max(x, act.wide / 2 + 2), canvas.width - act.wide / 2 - 2)
    canvas.box(x - act.wide / 2, y - 10, act.wide, height)
    canvas.text(x, y + 4, act.lines, size=11.5)
