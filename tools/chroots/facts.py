"""facts.py NAME TESTS LOG STEP:OUTCOME:SECONDS...: the system and the outcomes of the steps, as JSON."""

import datetime
import json
import os
import platform
import re
import subprocess
import sys
from pathlib import Path
from typing import Any

COUNTS = re.compile(r"(\d+) (passed|failed|skipped|errors?)\b")


def said(*command: str) -> str:
    try:
        return subprocess.run(command, capture_output=True, text=True, timeout=60, check=True).stdout.strip()
    except (OSError, subprocess.SubprocessError):
        return ""


def counts(log: str) -> dict[str, int]:
    """The counts of ctest and pytest; nothing if they did not complete."""
    found: dict[str, int] = {}
    if native := re.search(r"\d+% tests passed, (\d+) tests failed out of (\d+)", log):
        found |= {"native": int(native[2]), "native failed": int(native[1])}
    summaries = re.findall(
        r"^=+ (.*\d (?:passed|failed|skipped|errors?)\b.*) in [\d.]+s.*=+$", log, re.MULTILINE
    )
    if summaries:
        found |= {
            kind.rstrip("s") if kind == "errors" else kind: int(n)
            for n, kind in COUNTS.findall(summaries[-1])
        }
    return found


def facts(log: Path, *steps: str) -> dict[str, Any]:
    outcomes = [step.split(":") for step in steps]
    compiler = said(os.environ.get("CXX", "g++"), "-dumpfullversion")
    return {
        "called": platform.freedesktop_os_release().get("PRETTY_NAME", platform.system()),
        "machine": os.uname().machine,
        "python": platform.python_version(),
        "libcurl": said("pkg-config", "--modversion", "libcurl"),
        "openssl": said("pkg-config", "--modversion", "openssl"),
        "compiler": f"g++ {compiler}" if compiler else "",
        "glibc": platform.libc_ver()[1],
        "steps": {name: {"outcome": outcome, "seconds": int(seconds)} for name, outcome, seconds in outcomes},
        "tests": counts(log.read_text(errors="replace")) if log.exists() else {},
    }


if __name__ == "__main__":
    name, sample, log, *steps = sys.argv[1:]
    found = {"system": name, "sample": sample.split(), "date": datetime.date.today().isoformat()}
    print(json.dumps(found | facts(Path(log), *steps)))
