"""The rules that every file of the project keeps."""

import re
import subprocess
from collections.abc import Iterable
from pathlib import Path
from types import ModuleType

import pytest

import tessaline._native
import tessaline.auth

from .project import ROOT, own_files, own_sources

pytestmark = pytest.mark.process

AUTH = "tessaline/auth"
NATIVE = "tessaline/native"

# The folders of the component: each may use those further down, the last three none.
ROOMS = ["binding", "manager", "steps", "transport", "errors", "python", "http", "wallet"]
LOWEST = {"python", "http", "wallet"}
SHARED_BY_ROOMS = ["CMakeLists.txt", "constants.hpp", "exports.map", "names.hpp"]
# Files of folders that use the interpreter which do not.
PURE = ("steps/verdict", "transport/trust_places")
# What `native` may use of the component: the doors, and the common parts of all transports.
SHARED = rf"{AUTH}/(?:python/(?:python|ref)|transport/(?:default_trust|exchange|http_library|proxy_\w+))\.hpp"

# Letters in brackets keep this file from violating its own rules.
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
    r"\b(?:PyObject_(?:Call|Vectorcall|GetAttr|SetAttr|DelAttr|GetOptionalAttr|HasAttr|RichCompare)\w*"
    r"|PyObject_(?:IsTrue|Not|Str|Repr|ASCII|Bytes|Format|Dir|Hash|Size|Length|IsInstance|IsSubclass)"
    r"|PyObject_(?:GetItem|SetItem|DelItem|GetIter|SelfIter)|Py(?:Iter|Sequence|Number|Mapping)_(?!Check\b)\w+"
    r"|PyImport_\w+|PyRun_\w+|PyErr_(?:WarnEx|WarnFormat|Print\w*|Display\w*|WriteUnraisable|CheckSignals)"
    r"|Py_X?DECREF|Py_CLEAR|Py_X?SETREF|Py_DecRef|PyEval_\w+|PyGILState_\w+|PyThreadState_\w+"
    r"|Py_(?:BEGIN|END|UNBLOCK|BLOCK)_(?:ALLOW_)?THREADS)\b"
)
# A pointer to one that the interpreter made is not a definition.
METHODS = re.compile(r"\bPy(?:Method|GetSet|Member|Module)Def\b(?!\s*[*>])|\bPyType_(?:Slot|Spec)\b")
CATCH_ALL = re.compile(r"\bcatch\s*\(\s*\.\.\.\s*\)")
HOST_HANDLERS = re.compile(r"\bcatch\s*\(\s*(?:const\s+)?(?:python::)?Error\b")
TEXT_FORMS = re.compile(r"\bPy(?:Err_Format|Unicode_FromFormat)\([^;]*%[SRA]")
HOST_HEADERS = re.compile(r'#\s*include\s*[<"](?:Python\.h|structmember\.h|.*\bauth/python/.*)[>"]')

# Undocumented internals of Python: each is used in one place, which checks its assumptions.
INSIDES = {
    r"\btp_version_tag\b": "python/seen_type",
    r'"_(?:cond|flag|waiters)"': "python/event",
    r'"(?:_allocate_lock|_thread\.lock|locked)"': "python/plain_lock",
    r"\bm_ml\b": "python/wall_clock",
    r"\bPyThread_get_thread_ident\b": "python/line_of_execution",
    r"\bgetenv\(\"TESSALINE_UNTRIED_PYTHON\"\)": "python/interior",
    r'"_target"': "binding/unclosed",
}
# Never used: such names may disappear with any release of Python.
PRIVATE_TO_HOST = re.compile(r"\b(?:_Py[A-Z]\w*|PyUnstable_\w+|Py_BUILD_CORE)\b")

# Names that only one C library has.
OF_ONE_LIBC = re.compile(
    r"\bPTHREAD_\w+_NP\b|\b__GLIBC(?:_MINOR)?__\b|\bgnu_get_libc_\w+|<(?:execinfo|malloc|error|gnu/[\w-]+)\.h>"
    r"|\b__forced_unwind\b|\bpthread_(?!setname_np|getname_np|getattr_np)\w+_np\b|\bstrerror\w*_np\b"
    r"|\b(?:RTLD_DEEPBIND|dlmopen|dlvsym|mallinfo2?|mallopt)\b"
)
# The only place in which they differ and have nothing in common.
FACES_LIBC = f"src/{AUTH}/python/stack.cpp"

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


def exported(library: Path) -> list[str]:
    command = ["nm", "-D", "--defined-only", "--format=posix", str(library)]
    listed = subprocess.run(command, check=True, capture_output=True, timeout=60, text=True).stdout
    return [line.split()[0] for line in listed.splitlines()]


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


def test_methods_are_defined_only_where_the_host_is_faced() -> None:
    faces = (ROOT / "src" / AUTH / "binding", ROOT / "src" / NATIVE)
    files = own_sources(".cpp", ".hpp", under="src")
    outside = [path for path in files if not any(path.is_relative_to(face) for face in faces)]
    assert outside
    assert places(METHODS, outside, code_only=True) == []


@pytest.mark.parametrize("inside", INSIDES)
def test_the_interpreters_inside_is_looked_at_in_one_place(inside: str) -> None:
    sources = own_sources(".cpp", ".hpp", under="src")
    found = {place.split(":")[0] for place in places(re.compile(inside), sources)}
    where = {str(Path(name).with_suffix("")) for name in found}
    assert where == {f"src/{AUTH}/{INSIDES[inside]}"}


def test_nothing_of_the_interpreters_private_interface_is_used() -> None:
    assert places(PRIVATE_TO_HOST, own_sources(".cpp", ".hpp", under="src"), code_only=True) == []


def test_nothing_is_taken_that_only_one_c_library_has() -> None:
    sources = own_sources(".cpp", ".hpp", under="src")
    assert ROOT / FACES_LIBC in sources
    elsewhere = [path for path in sources if path != ROOT / FACES_LIBC]
    assert places(OF_ONE_LIBC, elsewhere, code_only=True) == []


def test_no_handler_catches_everything() -> None:
    # It would catch the unwinding by which the interpreter ends a thread at shutdown, and abort the process.
    assert places(CATCH_ALL, own_sources(".cpp", ".hpp"), code_only=True) == []


def test_host_exceptions_are_handled_outside_handlers() -> None:
    # A door inside a handler aborts the process when the interpreter ends the thread there.
    room = ROOT / "src/tessaline/auth/python"
    allowed = {room / "caught.hpp", room / "boundary.hpp"}
    files = [path for path in own_sources(".cpp", ".hpp", under="src") if path not in allowed]
    assert places(HOST_HANDLERS, files, code_only=True) == []


def test_text_forms_are_made_through_the_doors() -> None:
    # The interpreter's formatters would call `__str__` without the doors.
    assert places(TEXT_FORMS, own_sources(".cpp", ".hpp", under="src")) == []


def test_the_pure_rooms_do_not_know_the_interpreter() -> None:
    for room in ("wallet", "http"):
        files = own_sources(".cpp", ".hpp", under=f"src/tessaline/auth/{room}")
        assert files
        assert places(HOST_HEADERS, files) == []
    pure = [ROOT / "src" / AUTH / f"{name}.{kind}" for name in PURE for kind in ("cpp", "hpp")]
    assert places(HOST_HEADERS, pure) == []


def included_room(place: str) -> str:
    """The folder of the component whose header is included there."""
    return place.split(f'"{AUTH}/')[1].partition("/")[0]


@pytest.mark.parametrize("room", ROOMS)
def test_arrows_only_go_down(room: str) -> None:
    files = own_sources(".cpp", ".hpp", under=f"src/{AUTH}/{room}")
    assert files
    header = re.compile(rf'#\s*include\s*"{AUTH}/\w+/')
    lower = [] if room in LOWEST else ROOMS[ROOMS.index(room) + 1 :]
    assert [place for place in places(header, files) if included_room(place) not in (room, *lower)] == []


def test_every_folder_is_a_room_and_holds_its_own() -> None:
    folder = ROOT / "src" / AUTH
    assert sorted(path.name for path in folder.iterdir() if path.is_dir()) == sorted(ROOMS)
    assert sorted(path.name for path in own_files() if path.parent == folder) == SHARED_BY_ROOMS


def test_the_component_does_not_know_what_stands_beside_it() -> None:
    beside = re.compile(rf'#\s*include\s*"{NATIVE}/')
    inside = own_sources(".cpp", ".hpp", under=f"src/{NATIVE}")
    assert places(beside, inside)
    assert places(beside, own_sources(".cpp", ".hpp", under=f"src/{AUTH}")) == []
    assert places(re.compile(rf'#\s*include\s*"(?!{NATIVE}/|{SHARED}")[^"]*"'), inside) == []


@pytest.mark.parametrize(
    ("module", "entry"), [(tessaline.auth, "PyInit_auth"), (tessaline._native, "PyInit__native")]
)
def test_a_module_exports_its_entry_and_nothing_else(module: ModuleType, entry: str) -> None:
    assert exported(Path(str(module.__file__))) == [entry]


def test_what_a_library_exports_besides_is_seen(tmp_path: Path) -> None:
    source, library = tmp_path / "planted.cpp", tmp_path / "planted.so"
    source.write_text('extern "C" void PyInit_auth() {}\nextern "C" int planted = 1;\n')
    command = ["g++", "-shared", "-fPIC", "-o", str(library), str(source)]
    subprocess.run(command, check=True, capture_output=True, timeout=60)
    assert exported(library) == ["PyInit_auth", "planted"]


def test_the_rules_find_what_they_forbid() -> None:
    assert OTHER_DOCUMENTS.search("see " + "Part" + " 3.1")
    assert OTHER_DOCUMENTS.search("as the specificatio" + "n says")
    assert MACHINE_PATHS.search("cd /roo" + "t/x")
    assert not MACHINE_PATHS.search("http://localhost/wor" + "k/")
    assert LEFT_OPEN.search("// TOD" + "O: later")
    assert REGISTRIES.search("https://pyp" + "i.org/simple")
    assert HOST_CALLS.search("PyObject_CallNoArgs(f)")
    assert HOST_CALLS.search("PySequence_Tuple(f)")
    assert HOST_CALLS.search("Py_XSETREF(f, g)")
    assert not HOST_CALLS.search("PyObject_Type(f)")
    assert not HOST_CALLS.search("PyNumber_Check(f)")
    assert METHODS.search("PyMethodDef methods[] = {")
    assert METHODS.search("const PyType_Slot slots[] = {")
    assert not METHODS.search("const PyMethodDef* definition")
    assert PRIVATE_TO_HOST.search("_PyType_Lookup(type, name)")
    assert OF_ONE_LIBC.search("#ifdef __GLIBC__")
    assert OF_ONE_LIBC.search("PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP")
    assert not OF_ONE_LIBC.search("pthread_setname_np(thread, name)")
    assert CATCH_ALL.search("catch (...) {")
    assert HOST_HANDLERS.search("catch (python::Error& error) {")
    assert TEXT_FORMS.search('PyUnicode_FromFormat("%S", object)')
    assert HOST_HEADERS.search("#include <Python.h>")
    assert HOST_HEADERS.search('#include "tessaline/auth/python/ref.hpp"')
