"""Writes the drawings and charts of docs; with --check, lists those that are out of date."""

import argparse
import sys
from pathlib import Path

from . import bars, day, flows, states

FOLDER = Path(__file__).resolve().parents[2] / "docs/figures"
DRAWINGS = (states.states, flows.login, flows.renewal, flows.era_change, day.token_life, day.outage)


def drawn() -> dict[Path, str]:
    """Every drawing by its file."""
    by_folder = {FOLDER: [draw() for draw in DRAWINGS], bars.FOLDER: bars.charts()}
    return {
        folder / f"{canvas.name}.svg": canvas.svg()
        for folder, canvases in by_folder.items()
        for canvas in canvases
    }


def outdated() -> list[Path]:
    """Files that are missing, out of date, or not drawn by this program."""
    expected = drawn()
    strange = {*FOLDER.glob("*.svg"), *bars.FOLDER.glob("*.svg")} - expected.keys()
    changed = (path for path, text in expected.items() if not path.exists() or path.read_text() != text)
    return sorted({*strange, *changed})


def main() -> int:
    parser = argparse.ArgumentParser(prog="python -m docsite.figures", description=__doc__)
    parser.add_argument("--check", action="store_true", help="write nothing")
    if not parser.parse_args().check:
        for path, text in drawn().items():
            path.write_text(text)
    for path in (wrong := outdated()):
        print(f"{path.name} is not as drawn; run python -m docsite.figures", file=sys.stderr)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
