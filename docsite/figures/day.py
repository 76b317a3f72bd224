"""The life of one token over the hours, for a page with little space."""

from .canvas import Canvas

_LEFT, _RIGHT = 8.0, 452.0
_HOURS = 30.0
_SIZE = 15.0


def _x(hour: float) -> float:
    return _LEFT + (_RIGHT - _LEFT) * hour / _HOURS


def token_life() -> Canvas:
    canvas = Canvas(
        "token-life",
        460,
        "A token's life",
        "A token is stored at hour 0 and served at once. Between 18 and 20 hours later, at 80 per "
        "cent of its lifetime with a jitter of 5, a background thread logs in again and the next token "
        "replaces it. Without a renewal the token would expire after 24 hours.",
        size=_SIZE,
    )
    begin, end = 18.24, 20.16
    renewal = (begin + end) / 2
    bar, high = 76.0, 36.0
    canvas.text(_x(0), 22, "authenticate()", anchor="start", kind="code")
    canvas.line([(_x(0) + 10, 30), (_x(0) + 10, bar - 3)], arrow=True)
    canvas.text(_x(renewal), 22, "renewed in the background")
    canvas.text(_x(renewal), 43, "after 18 to 20 h", kind="marked strong")
    canvas.line([(_x(renewal), 50), (_x(renewal), bar - 3)], arrow=True)

    canvas.box(_x(0), bar, _x(24) - _x(0), high)
    canvas.box(_x(0), bar, _x(begin) - _x(0), high, kind="now")
    canvas.text(_x(begin / 2), bar + 23, "get_token() returns at once", kind="code")
    canvas.text(_x((end + 24) / 2), bar + 23, "spare", kind="soft")
    canvas.line([(_x(24), bar - 8), (_x(24), bar + high + 6)], dashed=True)
    canvas.text(_x(24) + 6, bar + 14, ("expiry", "at 24 h"), anchor="start", kind="warned")

    second = bar + high + 14
    canvas.box(_x(begin), second, _RIGHT - _x(begin), high, kind="now")
    canvas.text((_x(begin) + _RIGHT) / 2, second + 23, "the next token →")
    canvas.text(_x(0), second + 14, ("An announced era", "invalidates a token."), anchor="start", kind="soft")
    canvas.height = second + high + 8
    return canvas


def outage() -> Canvas:
    canvas = Canvas(
        "outage",
        460,
        "A day with an outage",
        "A keeper serves a token for 24 hours. It renews it early, at hour 14. The server is down from hour "
        "13 to hour 21; attempts fail meanwhile, at most five minutes apart, and the token is served. The "
        "first attempt after the outage gets the next token.",
        size=_SIZE,
    )
    due, away, back = 14.4, 13.0, 21.0
    bar, high = 76.0, 36.0
    canvas.text(_x(0), 22, "start()", anchor="start", kind="code")
    canvas.line([(_x(0) + 10, 30), (_x(0) + 10, bar - 3)], arrow=True)
    canvas.text(_x((away + back) / 2), 22, "the server is down", kind="warned")
    canvas.text(_x((away + back) / 2), 43, "retries, at most 5 min apart", kind="soft")
    canvas.line([(_x(away), 52), (_x(back), 52)])
    for hour in range(int(due) + 1, int(back)):
        canvas.line([(_x(hour), 52), (_x(hour), bar - 3)], arrow=True)

    canvas.box(_x(0), bar, _x(24) - _x(0), high)
    canvas.box(_x(0), bar, _x(back) - _x(0), high, kind="now")
    canvas.text(_x(back / 2), bar + 23, "get_token() returns at once", kind="code")
    canvas.line([(_x(24), bar - 8), (_x(24), bar + high + 6)], dashed=True)
    canvas.text(_x(24) + 6, bar + 14, ("expiry", "at 24 h"), anchor="start", kind="warned")

    second = bar + high + 14
    canvas.box(_x(back), second, _RIGHT - _x(back), high, kind="now")
    canvas.text((_x(back) + _RIGHT) / 2, second + 23, "the next token →")
    canvas.text(
        _x(0), second + 14, ("Renewal is due at 60 %,", "after 14 hours."), anchor="start", kind="soft"
    )
    canvas.height = second + high + 8
    return canvas
