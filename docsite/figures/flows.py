"""Login, renewal and a change of era, message by message."""

from .canvas import Canvas
from .sequence import Act, Message, draw

_WIDTH = 360.0


def login() -> Canvas:
    canvas = Canvas(
        "login",
        _WIDTH,
        "Login",
        "The program calls authenticate. The manager posts to /auth/register, then to /auth/challenge, "
        "signs the received message as a personal message, and posts challenge id and signature "
        "to /auth/verify. The server answers with a token and the wallet secret. The manager checks "
        "and stores them, starts the renewal thread and returns to the program.",
    )
    actors = {"program": 40.0, "manager": 150.0, "server": 322.0}
    draw(
        canvas,
        actors,
        [
            Message("program", "manager", "authenticate()"),
            Message("manager", "server", "POST /auth/register", "address, invite code if any"),
            Message("server", "manager", "200", answer=True),
            Message("manager", "server", "POST /auth/challenge", "address"),
            Message("server", "manager", "challenge id, message", answer=True),
            Act("manager", ("signs the message", "(EIP-191)")),
            Message("manager", "server", "POST /auth/verify", "challenge id, signature"),
            Message("server", "manager", "token, wallet secret", answer=True),
            Act(
                "manager",
                ("checks the token's wallet", "and era, stores it,", "starts the renewal thread"),
                166,
            ),
            Message("manager", "program", "returns", answer=True),
        ],
    )
    return canvas


def renewal() -> Canvas:
    canvas = Canvas(
        "renewal",
        _WIDTH,
        "Renewal",
        "About 19 hours after the login the renewal thread wakes and sends the login's requests "
        "again. The server responds with 503, so the thread waits a second; a caller that asks for a "
        "token during that second gets the old one at once. The thread retries; a caller "
        "that asks now waits. The server responds, the new token is stored, a new renewal thread "
        "starts, and the waiting caller gets the new token.",
    )
    actors = {"program": 40.0, "renewal": 168.0, "server": 322.0}
    draw(
        canvas,
        actors,
        [
            Act("renewal", ("sleeps until 80 % of", "the lifetime, ± 5 %"), 150),
            Message("renewal", "server", "POST /auth/…", "register, challenge, verify"),
            Message("server", "renewal", "503, or no response", answer=True),
            Act("renewal", ("waits 1 s",)),
            Message("program", "renewal", "get_token()", "meanwhile"),
            Message("renewal", "program", "the old token", answer=True),
            Message("renewal", "server", "POST /auth/…", "retry"),
            Message("program", "renewal", "get_token()", "waits"),
            Message("server", "renewal", "token, wallet secret", answer=True),
            Act("renewal", ("stores the new token,", "starts its successor"), 150),
            Message("renewal", "program", "the new token", answer=True),
        ],
    )
    return canvas


def era_change() -> Canvas:
    canvas = Canvas(
        "era-change",
        _WIDTH,
        "Era change",
        "The program announces era 7 with notify_era_change, which returns at once. From then on the "
        "token of the older era is not served: get_token waits. A background thread logs in; if the "
        "token that it gets is of an older era it logs in once more. The token of era 7 is stored "
        "and the waiting caller gets it.",
    )
    actors = {"program": 36.0, "manager": 190.0, "server": 322.0}
    draw(
        canvas,
        actors,
        [
            Message("program", "manager", "notify_era_change(7)"),
            Message("manager", "program", "returns at once", answer=True),
            Act("manager", ("the old token is", "no longer served"), 140),
            Message("program", "manager", "get_token()", "waits"),
            Message("manager", "server", "POST /auth/…", "in the background"),
            Message("server", "manager", "token of era 6", answer=True),
            Act("manager", ("too old: retry",)),
            Message("manager", "server", "POST /auth/…"),
            Message("server", "manager", "token of era 7", answer=True),
            Act("manager", ("stores it,", "restarts the renewal"), 140),
            Message("manager", "program", "the token of era 7", answer=True),
        ],
    )
    return canvas
