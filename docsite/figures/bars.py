"""The bar charts of docs/benchmarks, from the measurements of `make bench`. Each compares one thing."""

import json
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from .canvas import Canvas

FOLDER = Path(__file__).resolve().parents[2] / "docs/benchmarks"
MEASURED = FOLDER / "measured.json"

_WIDTH, _SIZE, _LEFT = 460.0, 15.0, 4.0
_LONGEST, _HEIGHT, _STEP = 330.0, 14.0, 44.0


@dataclass(frozen=True)
class Chart:
    """A chart: its file, what its bars show, and for each bar a label, its group and its name there."""

    name: str
    title: str
    bars: tuple[tuple[str, str, str], ...]


CHARTS = (
    Chart(
        "a-token",
        "Time of one call that returns a token",
        (
            ("AuthManager.get_token()", "get_token", "tessaline"),
            ("Keeper.get_token()", "get_token of a keeper", "tessaline"),
            ("botocore", "get_token", "botocore"),
            ("google-auth", "get_token", "google-auth"),
        ),
    ),
    Chart(
        "a-login",
        "Time of one login over HTTPS",
        (("tessaline", "A login over HTTPS", "tessaline"), ("urllib", "A login over HTTPS", "urllib")),
    ),
    Chart(
        "a-request",
        "Time of one POST on a kept connection",
        tuple(
            (name, "POST wall", name) for name in ("tessaline", "http.client", "urllib", "httpx", "requests")
        ),
    ),
    Chart(
        "a-signature",
        "Time of one signature (EIP-191, 32 bytes)",
        tuple(
            (name, "signature 32 B", name)
            for name in ("tessaline", "eth-account with coincurve", "eth-account")
        ),
    ),
    Chart(
        "a-connection",
        "Processor time of a new TLS connection",
        (
            ("tessaline, resumed session", "A resumed TLS connection", "tessaline, resumed"),
            ("http.client", "A new TLS connection", "http.client"),
            ("tessaline", "A new TLS connection", "tessaline"),
            ("bare libcurl, which reads the roots each time", "A new TLS connection", "bare libcurl"),
        ),
    ),
    Chart(
        "one-server",
        "200 concurrent logins at one server, over TLS",
        (
            ("tessaline", "200 logins at one server", "tessaline, wall"),
            ("urllib3, requests only", "200 logins at one server", "urllib3, wall"),
        ),
    ),
    Chart(
        "many-servers",
        "100 concurrent logins at 100 servers, over TLS",
        (
            ("tessaline", "100 servers at once", "tessaline, wall"),
            ("urllib3, requests only", "100 servers at once", "urllib3, wall"),
        ),
    ),
    Chart(
        "an-event-loop",
        "Time of one request with httpx in an event loop",
        (
            ("constant header", "Requests of an event loop", "constant header"),
            ("token of AsyncTokens", "Requests of an event loop", "AsyncTokens of a keeper"),
            (
                "token from a thread of the loop's pool",
                "Requests of an event loop",
                "thread of the loop's pool",
            ),
        ),
    ),
)


def measured() -> dict[str, Any]:
    content: dict[str, Any] = json.loads(MEASURED.read_text())
    return content


def readable(value: float, unit: str) -> str:
    if unit != "s":
        return f"{value:,.0f} {unit}"
    for name, size in (("s", 1.0), ("ms", 1e-3), ("µs", 1e-6)):
        if value >= size:
            return f"{value / size:.3g} {name}"
    return f"{value * 1e9:.3g} ns"


def values(chart: Chart, content: dict[str, Any]) -> list[tuple[str, float, str]]:
    """The label, the value and its text for each bar."""
    found = []
    for label, title, name in chart.bars:
        group = content["groups"][title]
        value = group["medians"][name]
        found.append((label, value, readable(value, group["unit"])))
    return sorted(found, key=lambda bar: bar[1])


def drawn(chart: Chart, content: dict[str, Any]) -> Canvas:
    bars = values(chart, content)
    told = "; ".join(f"{label}: {text}" for label, _, text in bars)
    canvas = Canvas(
        chart.name,
        _WIDTH,
        chart.title,
        f"A bar chart, shorter is better, the medians of {content['rounds']} rounds in turns. {told}.",
        size=_SIZE,
    )
    canvas.text(_LEFT, 20, chart.title, anchor="start", kind="strong")
    y, longest = 50.0, max(value for _, value, _ in bars)
    for label, value, text in bars:
        ours = any(word in label for word in ("tessaline", "get_token", "AsyncTokens"))
        length = max(_LONGEST * value / longest, 2.0)
        canvas.text(_LEFT, y, label, anchor="start", kind="marked strong" if ours else "")
        canvas.box(_LEFT, y + 6, length, _HEIGHT, kind="ours" if ours else "other", round=2)
        canvas.text(_LEFT + length + 8, y + 18, text, anchor="start", kind="strong" if ours else "soft")
        y += _STEP
    canvas.height = y - _HEIGHT
    return canvas


def charts() -> list[Canvas]:
    """All of them; none without measurements."""
    if not MEASURED.exists():
        return []
    content = measured()
    return [drawn(chart, content) for chart in CHARTS]
