"""The limits of the cases of `micro_cases` relative to each other."""

from __future__ import annotations

from .micro_cases import GROUPS
from .micro_runs import group_samples
from .ratios import Figure, Group, Ratio, medians_of

# Of each group: what share of a peer's time the component's may be at most. "N times faster" is 1/N.
TARGETS: dict[str, dict[str, float]] = {
    "get_token": {
        "empty native method": 4.0,
        "plain Python": 1 / 10,
        "google-auth": 1 / 8,
        "botocore": 1 / 8,
    },
    "get_token of a keeper": {"its manager's": 2.0},
    "signature 32 B": {"bare libsecp256k1": 1.15, "eth-account": 1 / 20},
    "signature 16 KiB": {"bare libsecp256k1": 1.15, "eth-account": 1 / 20},
    "construction": {"bare key derivation": 2.0},
    "POST wall": {"urllib": 0.5, "bare libcurl": 1.3},
    "POST CPU": {"urllib": 0.25},
}


def micro_group(group: str, rounds: int, title: str = "") -> Group:
    samples = group_samples(group, list(GROUPS[group]), rounds)
    figures = [
        Figure(title or group, peer, Ratio.of(samples["tessaline"], samples[peer]), target)
        for peer, target in TARGETS[group].items()
    ]
    return Group(title or group, figures, medians_of(samples))
