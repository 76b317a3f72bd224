"""Reads the native frames from the native half, and finds the names of their functions."""

from __future__ import annotations

import functools
import re
import subprocess

LINE = re.compile(r"^native: (\S+) (0x[0-9a-f]+) (\S+)$", re.MULTILINE)
OWN = ("/_torture.so", "__GI___sigaction", "__restore_rt")
LONGEST = 24


@functools.cache
def function_at(library: str, offset: int, symbol: str) -> str:
    """The function's name, even if no symbol table exports it."""
    # A return address is after the call.
    command = ["addr2line", "-f", "-s", "-e", library, hex(offset - 1)]
    try:
        told = subprocess.run(command, capture_output=True, text=True, timeout=60).stdout.splitlines()
    except FileNotFoundError:
        told = []
    return told[0] if told and told[0] != "??" else symbol


def chains(text: str) -> list[str]:
    """Every stack in the text, as "innermost < its caller < …", without the frames that wrote it."""
    stacks: list[list[str]] = []
    for library, offset, symbol in LINE.findall(text):
        if "write_frames" in symbol:
            stacks.append([])
        name = function_at(library, int(offset, 16), symbol)
        if stacks and len(stacks[-1]) < LONGEST and not any(own in name + library for own in OWN):
            stacks[-1].append(name)
    return [" < ".join(stack) for stack in stacks]


def without_frames(text: str) -> str:
    return LINE.sub("", text).strip()
