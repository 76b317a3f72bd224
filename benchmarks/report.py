"""Writes the measurements, and the page and charts generated from them."""

from __future__ import annotations

import datetime
import json
import platform
import re
from collections.abc import Sequence
from pathlib import Path
from typing import Any

from docsite.figures import __main__ as figures
from docsite.figures import bars

from .page import write_page
from .ratios import Figure, Group


def machine() -> str:
    cpu = re.search(r"model name\s*: (.*)", Path("/proc/cpuinfo").read_text())
    cores = len(re.findall(r"^processor\s*:", Path("/proc/cpuinfo").read_text(), re.MULTILINE))
    return (
        f"{cores} cores of {cpu[1] if cpu else platform.machine()}, Linux {platform.release()}, "
        f"CPython {platform.python_version()}, shared with other tenants"
    )


def rounded(value: float) -> float:
    return float(f"{value:.3g}")


def told(figure: Figure) -> dict[str, Any]:
    ratio = figure.ratio
    return {
        "subject": figure.subject,
        "unit": figure.unit,
        "median": rounded(ratio.median),
        "low": rounded(ratio.low),
        "high": rounded(ratio.high),
        "target": figure.target,
        "at_most": figure.at_most,
        "note": figure.note,
    }


def content(groups: Sequence[Group], rounds: int) -> dict[str, Any]:
    return {
        "date": datetime.date.today().isoformat(),
        "machine": machine(),
        "rounds": rounds,
        "figures": [told(figure) for group in groups for figure in group.figures],
        "groups": {
            group.title: {
                "unit": group.unit,
                "medians": {name: rounded(value) for name, value in group.medians.items()},
            }
            for group in groups
        },
    }


def write_report(groups: Sequence[Group], rounds: int) -> None:
    bars.MEASURED.write_text(json.dumps(content(groups, rounds), indent=1, ensure_ascii=False) + "\n")
    for path, text in figures.drawn().items():
        path.write_text(text)
    write_page()
