"""The rules that every file of the project keeps."""

import re
import subprocess
from collections.abc import Iterable
from pathlib import Path

import pytest

import tessaline.auth

from .project import ROOT, own_files, own_sources

pytestmark = pytest.mark.process

# A letter in brackets here and there keeps this file from breaking the rules that it checks.
OTHER_DOCUMENTS = re.compile(
    r"\b[Ss]pecificatio[n]s?\b|\bspe[c]\.md\b|\b[Tt]he spe[c]\b|\bPar[t]s? [0-9]+\.[0-9]+\b|\bPart[s] [0-9]"
)
MACHINE_PATHS = re.compile(r"(?<![\w.$}])/(?:roo[t]|wor[k]|far[m]|hom[e])/|\.pyen[v]/versions/[0-9]")
LEFT_OPEN = re.compile(r"\b(?:TOD[O]|FIXM[E]|XX[X]|HAC[K])\b")
REGISTRIES = re.compile(
    r"\b(?:pyp[i]|files\.pythonhoste[d]|registr[y]|deb\.debia[n]|pro[x]y\.golang)(?:\.[\w-]+)*"
    r"\.(?:org|com|net|io|dev)\b"
)

HOST_CALLS = re.compile(
    r"\b(?:PyObject_(?:Call|Vectorcall|GetAttr|SetAttr|RichCompare)\w*|PyObject_(?:IsTrue|Str)"
    r"|Py_X?DECREF|Py_CLEAR|PyEval_\w+|PyGILState_\w+|Py_BEGIN_ALLOW_THREADS)\b"
)
CATCH_ALL = re.compile(r"\bcatch\s*\(\s*\.\.\.\s*\)")
HOST_HANDLERS = re.compile(r"\bcatch\s*\(\s*(?:const\s+)?(?:python::)?Error\b")
TEXT_FORMS = re.compile(r"\bPy(?:Err_Format|Unicode_FromFormat)\([^;]*%[SRA]")
HOST_HEADERS = re.compile(r'#\s*include\s*[<"](?:Python\.h|structmember\.h|.*\bauth/python/.*)[>"]')

COMMENTS_AND_TEXTS = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"', re.DOTALL)


def places(pattern: re.Pattern[str], files: Iterable[Path], *, code_only: bool = False) -> list[str]:
    """Every match as "file:line: match"."""
    found = []
    for path in files:
        text = path.read_bytes().decode(errors="replace")
        if code_only:
            text = COMMENTS_AND_TEXTS.sub(lambda match: "\n" * match[0].count("\n"), text)
        for match in pattern.finditer(text):
            line = text.count("\n", 0, match.start()) + 1
            found.append(f"{path.relative_to(ROOT)}:{line}: {match[0]}")
    return found


def test_files_speak_of_the_system_and_of_no_other_document() -> None:
    assert places(OTHER_DOCUMENTS, own_files()) == []
    names = "\n".join(str(path.relative_to(ROOT)) for path in own_files())
    assert OTHER_DOCUMENTS.findall(names) == []


def test_no_file_names_a_place_on_one_machine() -> None:
    assert places(MACHINE_PATHS, own_files()) == []


def test_no_file_names_a_package_registry() -> None:
    assert places(REGISTRIES, own_files()) == []


def test_nothing_is_left_open() -> None:
    assert places(LEFT_OPEN, own_files()) == []


def test_the_interpreter_is_called_only_through_the_doors() -> None:
    doors = ROOT / "src/tessaline/auth/python"
    outside = [path for path in own_sources(".cpp", ".hpp", under="src") if not path.is_relative_to(doors)]
    assert outside
    assert places(HOST_CALLS, outside, code_only=True) == []


def test_no_handler_catches_everything() -> None:
    # It would catch the unwinding by which an ending interpreter ends a thread, and abort the process.
    assert places(CATCH_ALL, own_sources(".cpp", ".hpp"), code_only=True) == []


def test_host_exceptions_are_handled_outside_handlers() -> None:
    # A door inside a handler aborts the process when the interpreter ends the thread in there.
    room = ROOT / "src/tessaline/auth/python"
    allowed = {room / "caught.hpp", room / "boundary.hpp"}
    files = [path for path in own_sources(".cpp", ".hpp", under="src") if path not in allowed]
    assert places(HOST_HANDLERS, files, code_only=True) == []


def test_text_forms_are_made_through_the_doors() -> None:
    # The host's formatters would call `__str__` past them.
    assert places(TEXT_FORMS, own_sources(".cpp", ".hpp", under="src")) == []


def test_the_pure_rooms_do_not_know_the_interpreter() -> None:
    for room in ("wallet", "http"):
        files = own_sources(".cpp", ".hpp", under=f"src/tessaline/auth/{room}")
        assert files
        assert places(HOST_HEADERS, files) == []


def test_the_module_exports_its_entry_and_nothing_else() -> None:
    command = ["nm", "-D", "--defined-only", "--format=posix", tessaline.auth.__file__]
    listed = subprocess.run(command, check=True, capture_output=True, timeout=60, text=True).stdout
    assert [line.split()[0] for line in listed.splitlines()] == ["PyInit_auth"]


def test_the_rules_find_what_they_forbid() -> None:
    assert OTHER_DOCUMENTS.search("see " + "Part" + " 3.1")
    assert OTHER_DOCUMENTS.search("as the specificatio" + "n says")
    assert MACHINE_PATHS.search("cd /roo" + "t/x")
    assert not MACHINE_PATHS.search("http://localhost/wor" + "k/")
    assert LEFT_OPEN.search("// TOD" + "O: later")
    assert REGISTRIES.search("https://pyp" + "i.org/simple")
    assert HOST_CALLS.search("PyObject_CallNoArgs(f)")
    assert not HOST_CALLS.search("PyObject_Type(f)")
    assert CATCH_ALL.search("catch (...) {")
    assert HOST_HANDLERS.search("catch (python::Error& error) {")
    assert TEXT_FORMS.search('PyUnicode_FromFormat("%S", object)')
    assert HOST_HEADERS.search("#include <Python.h>")
    assert HOST_HEADERS.search('#include "tessaline/auth/python/ref.hpp"')
