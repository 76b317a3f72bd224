"""The states of a manager."""

from .canvas import Canvas

_BOX = (95.0, 170.0, 34.0)  # x, width, height


def _state(canvas: Canvas, y: float, name: str, *, now: bool = False) -> None:
    x, width, height = _BOX
    canvas.box(x, y, width, height, kind="now" if now else "box")
    canvas.text(x + width / 2, y + 21.5, name, kind="code strong", size=12)


def states() -> Canvas:
    canvas = Canvas(
        "states",
        360,
        "The states of a manager",
        "A new manager is UNINITIALIZED. authenticate() leads to AUTHENTICATING. From there a stored "
        "token leads to AUTHENTICATED, and so does a failure while an older token is held; a failure "
        "without one leads back to UNINITIALIZED. AUTHENTICATED leads back to AUTHENTICATING by "
        "authenticate(), and to RE_AUTHENTICATING when a renewal is due or an era is announced. "
        "From RE_AUTHENTICATING a stored token leads to AUTHENTICATED, and so does a failure with an "
        "era pending; a failed renewal with no era pending leads to UNINITIALIZED. close() leads "
        "from every state to CLOSED, and nothing leads out of it.",
    )
    x, width, height = _BOX
    middle, right = x + width / 2, x + width
    uninitialised, authenticating, authenticated, again, closed = 40.0, 138.0, 236.0, 334.0, 432.0
    small = 11.0

    canvas.text(middle, 13, "AuthManager(key, url)", kind="code", size=small)
    canvas.line([(middle, 18), (middle, uninitialised - 2)], arrow=True)
    _state(canvas, uninitialised, "UNINITIALIZED")
    _state(canvas, authenticating, "AUTHENTICATING")
    _state(canvas, authenticated, "AUTHENTICATED", now=True)
    _state(canvas, again, "RE_AUTHENTICATING")
    _state(canvas, closed, "CLOSED")

    down, up = x + 58, right - 58

    def both(top: float, bottom: float) -> None:
        canvas.line([(down, top + height), (down, bottom - 2)], arrow=True)
        canvas.line([(up, bottom), (up, top + height + 2)], arrow=True)

    both(uninitialised, authenticating)
    canvas.text(down - 8, 110, "authenticate()", anchor="end", kind="code", size=small)
    canvas.text(up + 8, 103, ("failed,", "no token held"), anchor="start", size=small)

    both(authenticating, authenticated)
    canvas.text(down - 8, 194, ("stored; or failed,", "a token is held"), anchor="end", size=small)
    canvas.text(up + 8, 201, ("authenticate()", "again"), anchor="start", kind="code", size=small)

    both(authenticated, again)
    canvas.text(down - 8, 292, ("renewal due, or", "era announced"), anchor="end", size=small)
    canvas.text(up + 8, 292, ("stored; or failed,", "an era is pending"), anchor="start", size=small)

    side = 10.0
    canvas.line(
        [(x, again + 17), (side, again + 17), (side, uninitialised + 17), (x - 2, uninitialised + 17)],
        arrow=True,
    )
    canvas.text(side + 6, again + 31, ("renewal", "failed, no", "era pending"), anchor="start", size=small)

    edge = 350.0
    for top in (uninitialised, authenticating, authenticated, again):
        canvas.line([(right, top + 17), (edge, top + 17)], dashed=True)
    canvas.line(
        [(edge, uninitialised + 17), (edge, closed + 17), (right + 2, closed + 17)], arrow=True, dashed=True
    )
    canvas.text(edge - 8, closed + 6, "close()", anchor="end", kind="code", size=small)
    canvas.height = closed + height + 8
    return canvas
