"""An HTTP response as a value that can be changed before it is sent."""

import json
from collections.abc import Iterable
from dataclasses import dataclass, replace
from http import HTTPStatus
from typing import Any

Headers = tuple[tuple[str, str], ...]


@dataclass(frozen=True)
class Answer:
    """Status, headers without the ones that frame the body, and the body."""

    status: int = 200
    headers: Headers = ()
    body: bytes = b""

    def json_object(self) -> dict[str, Any] | None:
        """The body's JSON object, or None if the body is anything else."""
        try:
            value = json.loads(self.body)
        except (ValueError, RecursionError):
            return None
        return value if isinstance(value, dict) else None

    def with_json(self, value: Any) -> "Answer":
        """The same response with `value` as its JSON body."""
        return self.with_body(json.dumps(value).encode(), "application/json")

    def with_body(self, body: bytes, content_type: str) -> "Answer":
        """The same response with another body."""
        return replace(self.with_headers([("Content-Type", content_type)]), body=body)

    def with_headers(self, headers: Iterable[tuple[str, str]]) -> "Answer":
        """The same response with `headers`, which replace those of the same names."""
        added = tuple(headers)
        names = {name.lower() for name, _ in added}
        kept = tuple((name, value) for name, value in self.headers if name.lower() not in names)
        return replace(self, headers=kept + added)

    @property
    def has_body(self) -> bool:
        """Whether HTTP allows a body for this status."""
        return self.status not in (204, 304)

    def head(self, *framing: tuple[str, str]) -> bytes:
        """The status line and headers on the wire, with the `framing` headers last."""
        try:
            phrase = HTTPStatus(self.status).phrase
        except ValueError:
            phrase = "Scripted"
        lines = [f"HTTP/1.1 {self.status} {phrase}"]
        lines += [f"{name}: {value}" for name, value in self.headers + framing]
        return ("\r\n".join(lines) + "\r\n\r\n").encode("latin-1")
