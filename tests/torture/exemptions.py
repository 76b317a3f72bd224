"""Findings that are not the component's: each by name, with how to recognise it and why it is exempt.

All are of CPython 3.13.0. Each was derived from the native frames of the place where the allocation failed,
and of the crash if there is one; the same frames are matched here.
"""

from __future__ import annotations

import dataclasses
import re
from collections.abc import Iterable

from .kinds import Mode, Run


@dataclasses.dataclass(frozen=True)
class Exemption:
    name: str
    problem: str  # found in the text of the problem
    frames: str  # matched in the frames, "innermost < its caller < …", of a failure or the crash
    reason: str
    scenarios: tuple[str, ...] = ()  # empty: all
    modes: tuple[Mode, ...] = tuple(Mode)

    def covers(self, run: Run, problem: str, chains: Iterable[str]) -> bool:
        if run.mode not in self.modes or (self.scenarios and run.scenario not in self.scenarios):
            return False
        if re.search(self.problem, problem) is None:
            return False
        return not self.frames or any(re.search(self.frames, chain) for chain in chains)


CRASH = r"the process ended with -(11|6)"
AFTERMATH = (
    r"still referred to|is kept by the host|threads are left|slots are taken|unraisable|thread ended with"
)

# A thread that waits in its own start, and what it refers to.
STILLBORN = re.compile(r"threads are left: \['(?:(?!\brun\b)[^'])*_bootstrap_inner < _bootstrap'\]")
KEPT = re.compile(r"still referred to|is kept by the host")

EXEMPTIONS = (
    Exemption(
        "new function",
        CRASH + r"|the process ended with 1$",
        r"\bPyFunction_NewWithQualName\b",
        "a closure that finds no memory is written to, or its parts are given back once too often",
    ),
    Exemption(
        "frame of a callback",
        CRASH,
        r"\b(initialize_locals|_PyFrame_Initialize|_PyEvalFramePushAndInit)\b",
        "a call of a Python function that finds no memory for its frame reads what it has given back",
    ),
    Exemption(
        "growing dict",
        CRASH,
        r"\binsertion_resize\b",
        "an entry whose dict cannot grow is given back once too often; here, those of a type being made",
    ),
    Exemption(
        "frame of a traceback",
        r"SystemError\(.*(without setting an exception|error return without exception set)",
        r"\b_PyFrame_MakeAndSetFrameObject\b",
        "an exception is lost where its traceback's frame finds no memory",
    ),
    Exemption(
        "paths of the trust store",
        r"get_default_verify_paths> returned a result with an exception set",
        r"\b_ssl_get_default_verify_paths",
        "the ssl module overlooks that a text found no memory",
    ),
    Exemption(
        "iterator of a dict",
        CRASH,
        r"\bdictiter_new\b",
        "an iterator whose result tuple finds no memory is given back before it is whole",
    ),
    Exemption(
        "start that nobody finishes",
        STILLBORN.pattern,
        r"",
        "a start that finds no memory while it waits leaves the thread's first event locked, and with it the "
        "thread before its first line",
        modes=(Mode.ONWARD, Mode.PAIR),
    ),
    Exemption(
        "type without a name",
        r"SystemError.*(a call failed without raising|returned NULL without setting)",
        r"\b_?PyType_FromMetaclass\w*",
        "a type that finds no memory for its name or documentation is refused without an exception",
    ),
    Exemption(
        "slice of a pattern",
        r"SystemError\('.*SubPattern.*returned NULL without setting an exception'\)",
        r"\b(PySlice|_PyBuildSlice|PyList|list_|_PyEval)",
        "a slice that finds no memory raises nothing; the compiler of patterns makes some",
    ),
    Exemption(
        "encoder of JSON",
        r"SystemError\('<_json.Encoder object at .*> returned a result with an exception set'\)",
        r"\b(encoder_call|encoder_listencode|_PyUnicodeWriter|_PyAccu|PyTuple|tuple|PyObject|_PyObject)",
        "the encoder overlooks that its buffer or result found no memory",
    ),
    Exemption(
        "buffer of a bytearray",
        r"deallocated bytearray object has exported buffers",
        r"",
        "a bytearray whose view finds no memory is torn down with the view counted",
        ("import",),
    ),
    Exemption(
        "lock of an import",
        r"unraisable MemoryError\(\) in None|Exception ignored in",
        r"",
        "an import that finds no memory while it ends gives up its lock with a note to nobody",
        ("import",),
    ),
    Exemption(
        "start of a thread",
        r"Python blocks more",
        r"\b(do_start_joinable_thread|PyThread_start_joinable_thread|ThreadHandle_start)\b",
        "a thread that the system refuses leaves a block behind, with any body",
    ),
    Exemption(
        "limbo of a thread",
        r"a thread that did not start is kept by the host",
        r"",
        "a start that finds no memory to take the thread off its list again leaves it there",
    ),
    Exemption(
        "bootstrap of a thread",
        AFTERMATH + "|Python blocks more|Exception ignored in",
        r"",
        "a thread that finds no memory before or after its body ends half registered",
        ("thread-bootstrap",),
    ),
)


def exemptions_of(run: Run, problems: Iterable[str], chains: list[str]) -> list[Exemption] | None:
    """Those that cover the problems, or None if one is not covered."""
    found = []
    for problem in problems:
        covering = next((e for e in EXEMPTIONS if e.covers(run, problem, chains)), None)
        if covering is None:
            return None
        found.append(covering)
    return found
