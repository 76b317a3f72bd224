"""What is wrong with the checked builds, and the figures."""

from __future__ import annotations

from . import public
from .memcheck import Watched


def faults(watched: Watched, places: set[str]) -> list[str]:
    """One line for each check that was reported, control that was not, and public place never met."""
    found = [
        f"{check.name}: {check.reports} reports"
        for check in watched.of_kind("check")
        if check.reports or not check.marked
    ]
    found += [
        f"control {control.name}: not seen" for control in watched.of_kind("control") if not control.reports
    ]
    found += [f"public place {name}: never met, drop it" for name in sorted(places - set(watched.met))]
    # Two on one text would be a branch on a part of it.
    once = {name: watched.met[name] for name in public.ONCE_PER_TEXT if name in watched.met}
    if len(set(once.values())) > 1:
        found.append(f"decided once for each text, but not equally often: {once}")
    if not watched.of_kind("check") or not watched.of_kind("control"):
        found.append("nothing was watched")
    return found


def figures(runs: list[Watched]) -> str:
    checks = [check for watched in runs for check in watched.of_kind("check")]
    controls = [control for watched in runs for control in watched.of_kind("control")]
    return (
        f"{len(checks)} checks, {sum(check.marked for check in checks)} bytes marked secret, "
        f"{sum(check.reports for check in checks)} reports; "
        f"controls: {sum(control.reports > 0 for control in controls)} of {len(controls)} seen, "
        f"{sum(control.reports for control in controls)} reports"
    )
