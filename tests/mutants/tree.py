"""One build for all mutants: a copy of the sources with every fault, each behind a condition."""

from __future__ import annotations

import subprocess
import sys
from pathlib import Path

from .listed import ROOT, Mutant, Place

BUILD = ROOT / "build" / "mutants"
PACKAGE = BUILD / "tree" / "package"
VARIABLE = "TESSALINE_MUTANT"

# Evaluated each time, since a child process of the tests may have another value.
QUESTION = f"""#include <cstdlib>
namespace mutants {{
inline bool is(unsigned long number) noexcept {{
  const char* const text = std::getenv("{VARIABLE}");
  return text != nullptr && std::strtoul(text, nullptr, 10) == number;
}}
}}  // namespace mutants
"""

type Planted = list[tuple[Mutant, Place]]


def woven(text: str, planted: Planted, begin: int, end: int) -> str:
    """That part of the text with each fault behind its condition; faults may be nested."""
    waiting = sorted(planted, key=lambda one: (one[1].begin, -one[1].end))
    result = ""
    while waiting:
        place = waiting[0][1]
        same = [mutant for mutant, where in waiting if where == place]
        inner = [one for one in waiting if one[1] != place and one[1].begin < place.end]
        if any(where.end > place.end for _, where in inner):
            raise SystemExit(f"its text overlaps with another's: {same[0]}")
        result += text[begin : place.begin]
        result += _choice(same, place, woven(text, inner, place.begin, place.end))
        begin = place.end
        waiting = waiting[len(same) + len(inner) :]
    return result + text[begin:end]


def _choice(mutants: list[Mutant], place: Place, old: str) -> str:
    for mutant in mutants:
        question = f"::mutants::is({mutant.number}UL)"
        if place.file.suffix == ".py":
            question = f'__import__("os").environ.get("{VARIABLE}") == "{mutant.number}"'
            old = f"({mutant.new} if {question} else {old})"
        elif "@" in mutant.new:
            old = mutant.new.replace("@", question)
        elif mutant.old.endswith((";", "}")):
            old = f"{{ if ({question}) {{ {mutant.new} }} else {{ {old} }} }}"
        else:
            old = f"({question} ? ({mutant.new}) : ({old}))"
    return old


def build(planted: Planted) -> None:
    sources = BUILD / "sources"
    wanted = {ROOT / "CMakeLists.txt", *(path for path in (ROOT / "src").rglob("*") if path.is_file())}
    for path in [path for path in sources.rglob("*") if path.is_file()]:
        if ROOT / path.relative_to(sources) not in wanted:
            path.unlink()
    for path in wanted:
        here = [one for one in planted if one[1].file == path]
        content = path.read_bytes()
        if here:
            text = content.decode()
            content = woven(text, here, 0, len(text)).encode()
        _write(sources / path.relative_to(ROOT), content)
    _write(BUILD / "question.hpp", QUESTION.encode())
    flags = f"-O1 -w -include {BUILD / 'question.hpp'}"
    options = [f"-DPython_EXECUTABLE={sys.executable}", f"-DCMAKE_CXX_FLAGS_RELEASE={flags}"]
    tree = str(BUILD / "tree")
    _run("cmake", "-G", "Ninja", "-S", str(sources), "-B", tree, "-DCMAKE_BUILD_TYPE=Release", *options)
    _run("cmake", "--build", tree, "--target", "auth", "native", "tessaline_http_library")


def _write(path: Path, content: bytes) -> None:
    """Leaves unchanged files alone, so that little is recompiled."""
    if not path.exists() or path.read_bytes() != content:
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)


def _run(*command: str) -> None:
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    if done.returncode != 0:
        raise SystemExit(f"{' '.join(command)}:\n{done.stdout}")
