"""The exporters of the page, ten lines each, on a stepped clock."""

# What a `with` that may swallow errors leaves unset, and what a reader has before it has read.
# pyright: reportPossiblyUnboundVariable=false, reportOptionalMemberAccess=false

from __future__ import annotations

from collections.abc import Iterator
from typing import Any

import opentelemetry.metrics
import prometheus_client.core
import pytest
from opentelemetry.sdk.metrics import MeterProvider
from opentelemetry.sdk.metrics.export import InMemoryMetricReader
from prometheus_client import CollectorRegistry

from tessaline.testing import HOUR

from .operated import LIFETIME, Operated, block_with
from .pages import run

pytestmark = pytest.mark.process


@pytest.fixture
def registry(monkeypatch: pytest.MonkeyPatch) -> CollectorRegistry:
    registry = CollectorRegistry()
    monkeypatch.setattr(prometheus_client.core, "REGISTRY", registry)
    return registry


@pytest.fixture
def reader(monkeypatch: pytest.MonkeyPatch) -> Iterator[InMemoryMetricReader]:
    reader = InMemoryMetricReader()
    provider = MeterProvider([reader], shutdown_on_exit=False)
    monkeypatch.setattr(opentelemetry.metrics, "get_meter", provider.get_meter)
    yield reader
    provider.shutdown()


@pytest.mark.parametrize("text", ["KeeperCollector", "get_meter"])
def test_it_is_ten_lines(text: str) -> None:
    assert len([line for line in block_with(text).text.splitlines() if line]) <= 10


def test_prometheus_sees_every_wallet(registry: CollectorRegistry) -> None:
    with Operated(wallets=3) as operated:
        run(block_with("KeeperCollector"), {"keeper": operated.keeper})
        operated.keeper.start()
        operated.step(HOUR)
        for address in operated.keeper:
            left = registry.get_sample_value("tessaline_token_remaining_seconds", {"address": address})
            assert left == LIFETIME - HOUR
            labels = {"address": address, "state": "good"}
            assert registry.get_sample_value("tessaline_wallet_state", labels) == 1
        operated.keeper.close()
        assert registry.get_sample_value("tessaline_token_remaining_seconds", {"address": address}) == 0
        assert registry.get_sample_value("tessaline_wallet_state", labels) is None


def test_opentelemetry_sees_every_wallet(reader: InMemoryMetricReader) -> None:
    with Operated(wallets=3) as operated:
        run(block_with("get_meter"), {"keeper": operated.keeper})
        operated.keeper.start()
        operated.step(HOUR)
        (resource,) = reader.get_metrics_data().resource_metrics
        (scope,) = resource.scope_metrics
        seen: dict[str, Any] = {metric.name: metric for metric in scope.metrics}
        left, state = seen["tessaline.token.remaining"], seen["tessaline.wallet.state"]
        assert left.unit == "s"
        assert {point.attributes["address"]: point.value for point in left.data.data_points} == dict.fromkeys(
            operated.keeper, LIFETIME - HOUR
        )
        assert [point.attributes["state"] for point in state.data.data_points] == ["good"] * 3
