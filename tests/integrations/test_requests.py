"""What requests does itself between hook and response: ports, upgrades, passwords, connections."""

from __future__ import annotations

import io
from pathlib import Path
from typing import Any, cast

import pytest
import requests
from requests.adapters import BaseAdapter

from tessaline.integrations.requests import WalletAuth
from tests.integrations.sources import Source


class Endless(io.RawIOBase):
    """An endless body; reading all of it fails the test."""

    def __init__(self) -> None:
        super().__init__()
        self.pieces = 0

    def read(self, size: int = -1) -> bytes:
        self.pieces += 1
        if self.pieces > 100:
            raise EOFError("read on and on")
        return b"refused"


class Service(BaseAdapter):
    """Returns a scripted response for each URL. Records the URLs and the headers."""

    def __init__(self, answers: dict[str, tuple[int, dict[str, str]]]) -> None:
        super().__init__()
        self.answers = answers
        self.seen: list[tuple[str, Any]] = []
        self.bodies: list[io.RawIOBase | io.BytesIO] = []

    def send(self, request: requests.PreparedRequest, *_: Any, **__: Any) -> requests.Response:
        url = str(request.url)
        self.seen.append((url, request.headers.get("Authorization")))
        response = requests.Response()
        response.request, response.url = request, url
        response.status_code, fields = self.answers[url]
        response.headers.update(fields)
        self.bodies.append(io.BytesIO() if "Location" in fields else Endless())
        response.raw = self.bodies[-1]
        cast(Any, response).connection = self
        return response

    def close(self) -> None:
        pass


def asked(service: Service, source: Source, server_url: str, url: str) -> requests.Response:
    with requests.Session() as session:
        for scheme in ("http://", "https://"):
            session.mount(scheme, service)
        session.auth = WalletAuth(source, server_url)
        return session.get(url, stream=True)


@pytest.mark.parametrize(
    ("server_url", "url"),
    [
        ("https://service.example", "https://service.example:443/"),
        ("https://service.example:443", "https://service.example/"),
        ("http://localhost:80", "http://localhost/"),
    ],
)
def test_the_usual_port_need_not_be_written(server_url: str, url: str) -> None:
    service = Service({url: (200, {})})
    asked(service, Source("token"), server_url, url)
    assert service.seen == [(url, "Bearer token")]


@pytest.mark.parametrize("url", ["https://service.example:8443/", "http://service.example/"])
def test_another_port_or_scheme_is_another_service(url: str) -> None:
    service = Service({url: (200, {})})
    asked(service, Source("token"), "https://service.example", url)
    assert service.seen == [(url, None)]


def test_an_answer_after_an_upgrade_is_no_refusal() -> None:
    # requests keeps the header if the same host redirects from http to https.
    moved = {"http://localhost/": (307, {"Location": "https://localhost/"}), "https://localhost/": (401, {})}
    service, source = Service(moved), Source("first", "second")
    assert asked(service, source, "http://localhost", "http://localhost/").status_code == 401
    assert service.seen == [(url, "Bearer first") for url in moved]
    assert source.reported == []


def test_a_password_that_was_refused_is_not_told_to_the_source(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    passwords = tmp_path / "netrc"
    passwords.write_text("machine service.example login ada password lovelace\n")
    passwords.chmod(0o600)
    monkeypatch.setenv("NETRC", str(passwords))
    url = "https://service.example"
    service, source = (
        Service({f"{url}/": (307, {"Location": f"{url}/b"}), f"{url}/b": (401, {})}),
        Source("a", "b"),
    )
    assert asked(service, source, url, f"{url}/").status_code == 401
    (_, first), (_, second) = service.seen
    assert first == "Bearer a"
    assert second.startswith("Basic ")
    assert source.reported == []


def test_an_answer_is_closed_when_the_source_fails() -> None:
    class Broken(Source):
        def report_refused(self, token: str) -> bool:
            raise LookupError("a defect of the source")

    url = "https://service.example/"
    service = Service({url: (401, {})})
    with pytest.raises(LookupError):
        asked(service, Broken("token"), url, url)
    assert [body.closed for body in service.bodies] == [True]


@pytest.mark.parametrize("length", [None, "100000", "-1", "many"])
def test_a_refusal_without_end_is_not_read(length: str | None) -> None:
    url = "https://service.example/"
    service, source = (
        Service({url: (401, {} if length is None else {"Content-Length": length})}),
        Source("a", "b"),
    )
    answer = asked(service, source, url, url)
    assert [sent for _, sent in service.seen] == ["Bearer a", "Bearer b"]
    assert [body.closed for body in service.bodies] == [True, False]
    answer.close()
