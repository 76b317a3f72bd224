"""Writes what was measured as a page with a table and charts."""

from __future__ import annotations

import datetime
import platform
import re
from collections.abc import Sequence
from pathlib import Path

import matplotlib

matplotlib.use("svg")

import matplotlib.pyplot as pyplot

from .ratios import Figure, Group

OURS = "#1f6f8b"
OTHERS = "#b8c4cc"

# Text stays text, and two runs on the same figures write the same file.
matplotlib.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "tessaline", "font.size": 13})


def readable(value: float, unit: str) -> str:
    if unit != "s":
        return f"{value:,.0f} {unit}"
    for name, size in (("s", 1.0), ("ms", 1e-3), ("µs", 1e-6)):
        if value >= size:
            return f"{value / size:.3g} {name}"
    return f"{value * 1e9:.3g} ns"


def machine() -> str:
    cpu = re.search(r"model name\s*: (.*)", Path("/proc/cpuinfo").read_text())
    cores = len(re.findall(r"^processor\s*:", Path("/proc/cpuinfo").read_text(), re.MULTILINE))
    return (
        f"{cores} cores of {cpu[1] if cpu else platform.machine()}, Linux {platform.release()}, "
        f"CPython {platform.python_version()}, shared with other tenants"
    )


def row(figure: Figure) -> str:
    bound = "" if figure.target is None else f"{'≤' if figure.at_most else '≥'} {figure.target:.3g}"
    spread = f"{figure.ratio.low:.3g} … {figure.ratio.high:.3g}"
    verdict = "" if figure.target is None else "yes" if figure.reached else "**no**"
    cells = (
        figure.subject,
        figure.unit,
        f"{figure.ratio.median:.3g}",
        spread,
        bound,
        verdict,
    )
    return f"| {' | '.join(cells)} |"


def chart(group: Group, path: Path) -> None:
    """One bar each, the component's own in colour; logarithmic, for they differ by orders of magnitude."""
    names = list(group.medians)[::-1]
    values = [group.medians[name] for name in names]
    figure, axes = pyplot.subplots(figsize=(6.4, 0.5 * len(names) + 0.9), layout="constrained")
    mixed = "tessaline" in names
    bars = axes.barh(
        names, values, color=[OURS if name == "tessaline" or not mixed else OTHERS for name in names]
    )
    axes.bar_label(bars, [readable(value, group.unit) for value in values], padding=4)
    if max(values) > 5 * min(values):
        axes.set_xscale("log")
    axes.margins(x=0.18)
    axes.xaxis.set_visible(False)
    axes.spines[["top", "right", "bottom"]].set_visible(False)
    axes.set_title(group.title, loc="left", fontsize=14)
    figure.savefig(path, metadata={"Date": None, "Creator": None})
    pyplot.close(figure)
    path.write_text("".join(f"{line.rstrip()}\n" for line in path.read_text().splitlines()))


def slug(title: str) -> str:
    return re.sub(r"[^a-z0-9]+", "-", title.lower()).strip("-")


def write_report(groups: Sequence[Group], folder: Path, rounds: int) -> None:
    folder.mkdir(parents=True, exist_ok=True)
    for old in folder.glob("*.svg"):
        old.unlink()
    today = datetime.date.today().isoformat()
    lines = [
        "# Benchmarks",
        "",
        f"Written by `make bench` on {today}: {machine()}.",
        "",
        "Every figure is a ratio of what was measured in turns in one run, or a bound in its own unit: the "
        f"median of {rounds} rounds, the quartiles beside it.",
        "",
        "| what | beside | median | quartiles | must be | reached |",
        "|---|---|---|---|---|---|",
    ]
    lines += [row(figure) for group in groups for figure in group.figures]
    notes = [
        f"- {figure.subject}: {figure.note}." for group in groups for figure in group.figures if figure.note
    ]
    lines += ["", *notes, ""] if notes else [""]
    explanation = folder / "explanation.md"
    if explanation.exists():
        lines += [explanation.read_text().rstrip(), ""]
    for group in groups:
        name = f"{slug(group.title)}.svg"
        chart(group, folder / name)
        lines += [f"![{group.title}]({name})", ""]
    (folder / "README.md").write_text("\n".join(lines).rstrip() + "\n")
