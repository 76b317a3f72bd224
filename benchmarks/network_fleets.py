"""Many managers that log in over TLS: to as many servers, or all to one."""

from __future__ import annotations

import dataclasses
import json
import statistics
from collections.abc import Sequence
from functools import partial

from .logins import LOGIN_BODIES
from .network import Report, in_processes, reported_by
from .network_getters import BARE_SHARING
from .network_logins import IN_MEMORY, Errand
from .network_server import CHALLENGE_ANSWER, running_nginx, verified_answer
from .network_trust import trusted_beside_the_system
from .places import CHALLENGE, KEY, REGISTER, VERIFY
from .ratios import Figure, Group, Ratio

ORIGINS = 100
CROWD = 200
MIB = 1 << 20
PATHS = (REGISTER, CHALLENGE, VERIFY)

CLIENTS = ("tessaline", "urllib3", BARE_SHARING)

Samples = dict[str, dict[str, list[float]]]


def errand(bases: Sequence[str], warm_up: str) -> str:
    made = Errand(bases, warm_up, KEY, PATHS, LOGIN_BODIES, CHALLENGE_ANSWER, verified_answer())
    return json.dumps(dataclasses.asdict(made))


def compared(subject: str, samples: Samples, wall: float, cpu: float, note: str) -> list[Figure]:
    figures = []
    for quantity, words, target in (("wall", "wall", wall), ("cpu", "processor time", cpu)):
        ours, peer, floor = (samples[quantity][client] for client in CLIENTS)
        figures += [
            Figure(f"{subject}, {words}", "urllib3", Ratio.of(ours, peer), target, note=note),
            Figure(f"{subject}, {words}, by {BARE_SHARING}", "urllib3", Ratio.of(floor, peer), None),
        ]
        note = ""
    return figures


def medians_by_kind(samples: Samples) -> dict[str, float]:
    return {
        f"{client}, {words}": statistics.median(samples[quantity][client])
        for quantity, words in (("wall", "wall"), ("cpu", "processor"))
        for client in CLIENTS
    }


def logins_at_origins(case: str, rounds: int) -> tuple[Samples, str]:
    """The measurement, and a note."""
    with (
        trusted_beside_the_system() as trust,
        running_nginx(trust, ORIGINS) as servers,
        running_nginx(trust) as other,
    ):
        measures, opened = {}, {}
        for mark, client in enumerate(CLIENTS):
            bases = [f"{origin}/{mark}" for origin in servers.origins]
            measures[client] = partial(reported_by, trust, case, client, errand(bases, other.origins[0]))
        samples = in_processes(measures, rounds)
        for mark, client in enumerate(CLIENTS):
            connections, _ = servers.connections(f"/{mark}/", (rounds + 1) * ORIGINS * len(PATHS))
            opened[client] = connections / (rounds + 1)
    note = (
        f"by urllib3 with one pool for {ORIGINS} servers, three POSTs and no signature; "
        f"{opened['tessaline']:.0f} connections, those of urllib3 {opened['urllib3']:.0f}"
    )
    return samples, note


def origins_one_by_one(rounds: int) -> Group:
    """A manager for each of 100 servers; one logs in after the other."""
    samples, note = logins_at_origins("one-by-one", rounds)
    subject = f"{ORIGINS} logins at {ORIGINS} servers, one after the other"
    figures = compared(subject, samples, 1.0, 1.3, note)
    return Group(f"{ORIGINS} servers, one after the other", figures, medians_by_kind(samples))


def origins_at_once(rounds: int) -> Group:
    """A manager for each of 100 servers; they log in at the same time, each on its own thread."""
    samples, note = logins_at_origins("at-once", rounds)
    figures = compared(f"{ORIGINS} logins at {ORIGINS} servers at once", samples, 1.2, 1.5, note)
    return Group(f"{ORIGINS} servers at once", figures, medians_by_kind(samples))


def crowd_at_one_server(rounds: int) -> Group:
    """200 managers that log in to one server at the same time."""
    runs = 0
    with (
        trusted_beside_the_system() as trust,
        running_nginx(trust) as server,
        running_nginx(trust) as other,
    ):

        def measured(client: str) -> Report:
            nonlocal runs
            runs += 1
            bases = [f"{server.origins[0]}/{runs}"] * CROWD
            report = reported_by(trust, "at-once", client, errand(bases, other.origins[0]))
            opened, _ = server.connections(f"/{runs}/", CROWD * len(PATHS))
            return {**report, "connections": opened}

        samples = in_processes({client: partial(measured, client) for client in CLIENTS}, rounds)
    note = (
        f"by urllib3 with one pool that keeps up to {CROWD} connections (maxsize) and blocks nobody, "
        "three POSTs and no signature"
    )
    subject = f"{CROWD} logins at one server at once"
    opened = samples["connections"]
    counts = {client: statistics.median(opened[client]) for client in CLIENTS}
    figures = [
        *compared(subject, samples, 1.2, 1.5, note),
        Figure(
            f"{subject}, connections",
            "urllib3",
            Ratio.of(opened["tessaline"], opened["urllib3"]),
            1.0,
            note=f"{counts['tessaline']:.0f} and {counts['urllib3']:.0f}, by the server's log",
        ),
    ]
    return Group(f"{CROWD} logins at one server", figures, medians_by_kind(samples))


def crowd_memory(rounds: int) -> Group:
    """The growth of a process when 200 managers log in to one server at the same time."""
    clients = (*CLIENTS, IN_MEMORY)
    with trusted_beside_the_system() as trust, running_nginx(trust) as server:
        argument = errand([server.origins[0]] * CROWD, server.origins[0])
        samples = in_processes(
            {client: partial(reported_by, trust, "memory", client, argument) for client in clients}, rounds
        )

    def mebibytes(quantity: str, client: str) -> Ratio:
        return Ratio.around([value / MIB for value in samples[quantity][client]])

    subject = f"{CROWD} logins at once"
    figures = [
        Figure(
            f"memory of {subject}",
            "MiB",
            mebibytes("burst", "tessaline"),
            20.0,
            note="resident, beyond that of a process that has logged in once",
        ),
        Figure(
            f"memory of {subject}, over a transport in memory",
            "MiB",
            mebibytes("burst", IN_MEMORY),
            None,
        ),
    ]
    for quantity, words in (("grown", "memory of a first login and"), ("peak", "peak of memory in them")):
        ours, peer = samples[quantity]["tessaline"], samples[quantity]["urllib3"]
        named = f"{words} {subject}" if quantity == "grown" else words
        figures += [
            Figure(named, "urllib3", Ratio.of(ours, peer), 2.0),
            Figure(named, "MiB", mebibytes(quantity, "tessaline"), None),
        ]
    medians = {client: statistics.median(samples["peak"][client]) / MIB for client in clients}
    return Group(f"Memory of {CROWD} logins at once", figures, medians, unit="MiB")
