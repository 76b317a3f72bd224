"""One TLS connection at a time: the first of a process, a later one, one that resumes a session."""

from __future__ import annotations

import json
import statistics
from collections.abc import Callable, Mapping
from functools import partial

from .footprint import printed_by
from .network_getters import BARE, BARE_SHARING
from .network_server import running_nginx
from .network_trust import Trust, trusted_beside_the_system
from .network_worker import CONNECTIONS
from .ratios import Figure, Group, Ratio, in_turns, medians_of

Report = Mapping[str, float]


def reported_by(trust: Trust, *arguments: str) -> Report:
    """The worker's measurement in a separate process."""
    return json.loads(printed_by("network_worker", *arguments, **trust.environment)[0])


def in_processes(
    measures: Mapping[str, Callable[[], Report]], rounds: int
) -> dict[str, dict[str, list[float]]]:
    """As `in_turns`, for reports: by the name of what was measured, then by that of the measure."""
    reports: dict[str, list[Report]] = {name: [] for name in measures}

    def report(name: str) -> float:
        reports[name].append(measures[name]())
        return 0.0

    in_turns({name: partial(report, name) for name in measures}, rounds)
    quantities = next(iter(reports.values()))[0]
    return {
        quantity: {name: [one[quantity] for one in taken[1:]] for name, taken in reports.items()}
        for quantity in quantities
    }


def new_connections(rounds: int) -> Group:
    """Processor time of the second and later TLS connections of a process, each for one GET."""
    with (
        trusted_beside_the_system() as trust,
        running_nginx(trust, kept=False, tickets=False) as server,
    ):
        clients = ("tessaline", "http.client", "ssl", BARE, BARE_SHARING)
        samples = in_processes(
            {
                client: partial(reported_by, trust, "connections", client, server.origins[0])
                for client in clients
            },
            rounds,
        )["cpu"]
        requests = len(clients) * (rounds + 1) * (CONNECTIONS + 1)
        assert server.connections("/", requests) == (requests, 0)
    subject = "a new TLS connection, processor time"
    figures = [
        Figure(
            subject,
            "http.client",
            Ratio.of(samples["tessaline"], samples["http.client"]),
            1.2,
            note=f"{trust.note}; by Python's with one context for all",
        ),
        Figure(subject, "ssl and a socket", Ratio.of(samples["tessaline"], samples["ssl"]), None),
        Figure(f"{subject}, by {BARE}", "http.client", Ratio.of(samples[BARE], samples["http.client"]), None),
        Figure(
            f"{subject}, by {BARE_SHARING}",
            "http.client",
            Ratio.of(samples[BARE_SHARING], samples["http.client"]),
            None,
            note="a TLS context for each connection, as libcurl makes it",
        ),
    ]
    return Group("A new TLS connection", figures, medians_of(samples))


def first_connection(rounds: int) -> Group:
    """Processor time of the first request of a process, with its imports, without the interpreter's start."""
    with trusted_beside_the_system() as trust, running_nginx(trust, kept=False, tickets=False) as server:

        def measured(client: str) -> float:
            # Short, because other programs on the machine may disturb one.
            return statistics.median(
                reported_by(trust, "first", client, server.origins[0])["cpu"] for _ in range(3)
            )

        samples = in_turns(
            {client: partial(measured, client) for client in ("tessaline", "http.client", BARE)}, rounds
        )
    subject = "the first TLS connection of a process, processor time"
    figures = [
        Figure(
            subject,
            "http.client",
            Ratio.of(samples["tessaline"], samples["http.client"]),
            1.0,
            note=f"{trust.note}; with what it takes to import and load",
        ),
        Figure(f"{subject}, by {BARE}", "http.client", Ratio.of(samples[BARE], samples["http.client"]), None),
    ]
    return Group("The first TLS connection", figures, medians_of(samples))


def resumed_connection(rounds: int) -> Group:
    """Processor time of a connection to a server that resumes sessions, compared with a full handshake."""
    with (
        trusted_beside_the_system() as trust,
        running_nginx(trust, kept=False, tickets=False) as full,
        running_nginx(trust, kept=False) as resuming,
    ):
        measures = {}
        for client in ("tessaline", BARE_SHARING):
            for kind, server in (("full", full), ("resumed", resuming)):
                url = f"{server.origins[0]}/{client.split()[0]}"
                measures[f"{client}, {kind}"] = partial(reported_by, trust, "connections", client, url)
        samples = in_processes(measures, rounds)["cpu"]
        requests = (rounds + 1) * (CONNECTIONS + 1)
        resumed = {
            client: resuming.connections(f"/{client.split()[0]}", requests)[1] / (requests - rounds - 1)
            for client in ("tessaline", BARE_SHARING)
        }
    subject = "a resumed TLS connection, processor time"
    figures = [
        Figure(
            words,
            "a full handshake of its own",
            Ratio.of(samples[f"{client}, resumed"], samples[f"{client}, full"]),
            target,
            note=f"{resumed[client]:.0%} resumed, by the server's log",
        )
        for words, client, target in (
            (subject, "tessaline", 0.7),
            (f"{subject}, by {BARE_SHARING}", BARE_SHARING, None),
        )
    ]
    return Group("A resumed TLS connection", figures, medians_of(samples))
