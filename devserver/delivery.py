"""Faults in sending a response: which of its bytes reach the socket, when and how."""

from collections.abc import Awaitable, Callable

from starlette.types import Send

from .answer import Answer
from .faults import Fault
from .protocol import Connection
from .spoil import scripted_bytes

Pause = Callable[[float], Awaitable[bool]]

_GARBAGE = b"this is \x00 not HTTP \xff at all\r\n\r\n"
_BAD_CHUNK = b"\r\nno size\r\n"
_UNASKED = b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}"
_BREAKING = frozenset({"close", "reset", "garbage", "cut_body", "cut_chunked", "bad_chunk"})


def breaks_connection(fault: Fault) -> bool:
    """Whether the client gets no complete response."""
    return fault.kind in _BREAKING


async def send_answer(answer: Answer, send: Send) -> None:
    """Send the whole response."""
    body = answer.body if answer.has_body else b""
    await _send_head(answer, send, chunked=False)
    await send({"type": "http.response.body", "body": body, "more_body": False})


async def send_in_halves(
    answer: Answer, send: Send, *, chunked: bool = False, delay: float = 0.0, pause: Pause
) -> None:
    """Send the whole response, its body in two parts with `delay` seconds of `pause` between them."""
    if not answer.has_body:
        await send_answer(answer, send)
        return
    half = len(answer.body) // 2
    await _send_head(answer, send, chunked=chunked)
    await send({"type": "http.response.body", "body": answer.body[:half], "more_body": True})
    if delay and not await pause(delay):
        return
    await send({"type": "http.response.body", "body": answer.body[half:], "more_body": False})


async def _send_head(answer: Answer, send: Send, *, chunked: bool) -> None:
    headers = answer.headers
    # Without a length the HTTP layer uses the chunked coding.
    if answer.has_body and not chunked:
        headers += (("Content-Length", str(len(answer.body))),)
    raw = [(name.encode("latin-1"), value.encode("latin-1")) for name, value in headers]
    await send({"type": "http.response.start", "status": answer.status, "headers": raw})


def break_connection(fault: Fault, answer: Answer, connection: Connection) -> None:
    """Send the part of `answer` that the fault allows, then end the connection."""
    if fault.kind == "reset":
        connection.reset()
        return
    if fault.kind == "garbage":
        connection.write(scripted_bytes(fault.fields, _GARBAGE))
    elif fault.kind == "cut_body":
        connection.write(_cut_body(fault, answer))
    elif fault.kind == "cut_chunked":
        connection.write(_cut_chunked(fault, answer))
    elif fault.kind == "bad_chunk":
        connection.write(_chunked(answer, answer.body, len(answer.body)) + _BAD_CHUNK)
    if fault.fields.get("reset", False):
        connection.reset()
    else:
        connection.close(close_notify=fault.fields.get("close_notify", True))


def _cut_body(fault: Fault, answer: Answer) -> bytes:
    body = answer.body
    sent = body[: fault.fields.get("sent", len(body) // 2)]
    declared = fault.fields.get("declared", max(len(body), len(sent) + 1))
    return answer.head(("Content-Length", str(declared))) + sent


def _cut_chunked(fault: Fault, answer: Answer) -> bytes:
    sent = answer.body[: fault.fields.get("sent", len(answer.body) // 2)]
    # The chunk announces one byte more than is sent.
    return _chunked(answer, sent, len(sent) + 1)


def _chunked(answer: Answer, sent: bytes, announced: int) -> bytes:
    return answer.head(("Transfer-Encoding", "chunked")) + f"{announced:x}\r\n".encode() + sent


def send_with_more(fault: Fault, answer: Answer, connection: Connection) -> None:
    """Send the whole response together with unrequested bytes; the connection is unusable afterwards.

    Together, since a client could not distinguish later bytes from the response to its next request.
    """
    whole = answer.head(("Content-Length", str(len(answer.body)))) + answer.body
    connection.write(whole + scripted_bytes(fault.fields, _UNASKED))
