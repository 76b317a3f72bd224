"""One interpreter and one initialisation per process, and an import without side effects."""

from __future__ import annotations

import json
import subprocess
import sys
import textwrap
from typing import Any

import pytest

pytestmark = pytest.mark.process

DEADLINE = 60.0

OTHER_INTERPRETER = (
    "Interpreter change detected - this module can only be loaded into one interpreter per process."
)
SECOND_TIME = "Module 'auth' has already been imported. Re-initialisation is not supported."

IMPORT_AND_TELL = """
import json
try:
    import tessaline.auth
    told = ["imported", tessaline.auth.AuthError(reason="r").reason]
except BaseException as error:
    told = [type(error).__name__, str(error)]
with open(pipe, "w", closefd=False) as out:
    out.write(json.dumps(told) + "\\n")
"""

# How a program runs code in another interpreter of its process; `told_by` returns what the code wrote.
OF_ITS_OWN = """
    import os, _interpreters
    def told_by(code):
        other = _interpreters.create("{config}")
        reading, writing = os.pipe()
        failure = _interpreters.exec(other, f"pipe = {{writing}}\\n" + code)
        assert failure is None, failure
        os.close(writing)
        told = json.loads(os.fdopen(reading).read())
        _interpreters.destroy(other)
        return told
"""
OTHERS = {
    "legacy": OF_ITS_OWN.format(config="legacy"),
    "isolated": OF_ITS_OWN.format(config="isolated"),
    "embedded": """
        import os, _testcapi
        def told_by(code):
            reading, writing = os.pipe()
            assert _testcapi.run_in_subinterp(f"pipe = {writing}\\n" + code) == 0
            os.close(writing)
            return json.loads(os.fdopen(reading).read())
    """,
}


def run(*parts: str) -> Any:
    """Run the program and return its output as JSON."""
    program = "import json\n" + "\n".join(textwrap.dedent(part) for part in parts)
    done = subprocess.run(
        [sys.executable, "-P", "-X", "faulthandler", "-c", program],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        timeout=DEADLINE,
        text=True,
    )
    assert (done.returncode, done.stderr) == (0, "")
    return json.loads(done.stdout)


def told_in_another(kind: str, before: str = "", after: str = "told.append(told_by(CODE))") -> Any:
    if kind == "embedded":
        pytest.importorskip("_testcapi", reason="the interpreter was built without its test modules")
    setting = f"CODE = {IMPORT_AND_TELL!r}\ntold = []\n"
    return run(setting, OTHERS[kind], before, after, "print(json.dumps(told))")


@pytest.mark.parametrize("kind", OTHERS)
def test_a_second_interpreter_is_refused(kind: str) -> None:
    first = """
        from tessaline import auth
    """
    then = """
        told.append(told_by(CODE))
        told.append(auth.AuthManager("11" * 32, "http://127.0.0.1:1").get_wallet_address())
    """
    refused, address = told_in_another(kind, first, then)
    assert refused == ["ImportError", OTHER_INTERPRETER]
    assert address.startswith("0x")


@pytest.mark.parametrize("kind", OTHERS)
def test_every_further_interpreter_is_refused(kind: str) -> None:
    first = "import tessaline.auth"
    then = "told += [told_by(CODE) for _ in range(5)]"
    assert told_in_another(kind, first, then) == [["ImportError", OTHER_INTERPRETER]] * 5


@pytest.mark.parametrize("kind", OTHERS)
def test_the_main_interpreter_is_refused_after_another_one(kind: str) -> None:
    then = """
        told.append(told_by(CODE))
        try:
            import tessaline.auth
        except BaseException as error:
            told.append([type(error).__name__, str(error)])
    """
    first, refused = told_in_another(kind, after=then)
    assert first == ["imported", "r"]
    assert refused == ["ImportError", OTHER_INTERPRETER]


@pytest.mark.parametrize("kind", OTHERS)
def test_a_refused_interpreter_stays_refused(kind: str) -> None:
    first = "import tessaline.auth"
    again = """
        told.append(told_by('''
        import contextlib
        with contextlib.suppress(ImportError):
            import tessaline.auth
        '''.replace("\\n        ", "\\n") + CODE))
    """
    assert told_in_another(kind, first, again) == [["ImportError", OTHER_INTERPRETER]]


@pytest.mark.parametrize(
    "again",
    [
        """
        import sys
        sys.modules.pop("tessaline.auth", None)
        import tessaline.auth
        """,
        """
        import sys
        for name in [name for name in sys.modules if name.startswith("tessaline")]:
            del sys.modules[name]
        import tessaline.auth
        """,
        """
        import importlib.util
        found = importlib.util.find_spec("tessaline.auth")
        made = importlib.util.module_from_spec(found)
        found.loader.exec_module(made)
        """,
    ],
    ids=["forgotten_module", "forgotten_package", "loader"],
)
def test_a_second_initialisation_is_refused(again: str) -> None:
    attempt = f"""
AGAIN = {textwrap.dedent(again)!r}
from tessaline import auth
told = []
for _ in range(3):
    try:
        exec(AGAIN, {{}})
    except BaseException as error:
        told.append([type(error).__name__, str(error)])
told.append(auth.AuthManager("11" * 32, "http://127.0.0.1:1").get_wallet_address()[:2])
print(json.dumps(told))
"""
    assert run(attempt) == [["RuntimeError", SECOND_TIME]] * 3 + ["0x"]


def test_an_import_that_fails_can_be_made_good() -> None:
    told = run("""
        import sys
        sys.modules["tessaline.logging_style"] = None
        told = []
        try:
            import tessaline.auth
        except ImportError as error:
            told.append(error.name)
        told.append("tessaline.auth" in sys.modules)
        del sys.modules["tessaline.logging_style"]
        import tessaline.auth
        told.append(tessaline.auth.AuthError(reason="r").reason)
        print(json.dumps(told))
    """)
    assert told == ["tessaline.logging_style", False, "r"]


# What makes an import fail, early or late.
BREAKAGES = {
    "a module": "import sys; sys.modules['tessaline.logging_style'] = None",
    "the hook": "from tessaline import logging_style as style; del style.log_library_surface_event",
    "events": "import threading; del threading.Event",
    "patterns": "import re; del re.compile",
}
FAILURES = {
    "a module": "ModuleNotFoundError",
    "the hook": "ImportError",
    "events": "AttributeError",
    "patterns": "AttributeError",
}


@pytest.mark.parametrize("module", ["auth", "_native"])
@pytest.mark.parametrize("breakage", BREAKAGES)
@pytest.mark.parametrize("kind", OTHERS)
def test_an_import_that_fails_leaves_the_module_to_another_interpreter(
    kind: str, breakage: str, module: str
) -> None:
    then = f"""
        BROKEN = CODE.replace("try:", "try:\\n    " + {BREAKAGES[breakage]!r})
        BROKEN = BROKEN.replace("import tessaline.auth", "import tessaline.{module}")
        told += [told_by(BROKEN)[0], told_by(BROKEN)[0]]
        from tessaline import _native, auth
        try:
            auth._validate_private_key("")
        except auth.InvalidKeyError as error:
            told.append(str(error))
        told += [told_by(CODE), told_by(CODE.replace("tessaline.auth", "tessaline._native"))]
        manager = auth.AuthManager("11" * 32, "http://127.0.0.1:1")
        manager.close()
        told.append(manager._close_event.is_set())
    """
    refused = ["ImportError", OTHER_INTERPRETER]
    failure = FAILURES[breakage]
    rest = ["Private key must not be empty", refused, refused, True]
    assert told_in_another(kind, after=then) == [failure, failure, *rest]


def test_a_hook_that_is_missing_is_told_in_the_words_of_the_import_statement() -> None:
    ours, own = run("""
        from tessaline import logging_style
        del logging_style.log_library_surface_event
        def told_by(statement):
            try:
                exec(statement)
            except ImportError as error:
                return [str(error), error.name, error.path, error.name_from]
        print(json.dumps([
            told_by("import tessaline.auth"),
            told_by("from tessaline.logging_style import log_library_surface_event"),
        ]))
    """)
    assert ours == own
    words = "cannot import name 'log_library_surface_event' from 'tessaline.logging_style' ("
    assert ours[0].startswith(words)


def test_the_import_starts_no_thread_and_opens_nothing() -> None:
    before, after = run("""
        import base64, json, os, random, re, threading, time

        def seen():
            descriptors = []
            for number in sorted(os.listdir("/proc/self/fd"), key=int):
                try:
                    descriptors.append((int(number), os.readlink(f"/proc/self/fd/{number}")))
                except FileNotFoundError:  # the one that listed them
                    pass
            return {
                "threads": len(os.listdir("/proc/self/task")),
                "python threads": threading.active_count(),
                "descriptors": descriptors,
                "environment": dict(os.environ),
            }

        first = seen()
        import tessaline.auth
        print(json.dumps([first, seen()]))
    """)
    assert after == before
    assert before["python threads"] == 1


def test_the_import_loads_only_what_it_names() -> None:
    loaded = run("""
        import sys
        import base64, json, random, re, threading, time
        before = set(sys.modules)
        import tessaline.auth
        print(json.dumps(sorted(set(sys.modules) - before)))
    """)
    # The first is what the package's own Python modules begin with.
    assert set(loaded) - {"__future__"} == {"tessaline", "tessaline.auth", "tessaline.logging_style"}


def test_the_import_loads_no_library_for_the_network_or_the_wallet() -> None:
    unwanted = ["urllib", "ssl", "_ssl", "http", "socket", "_socket", "logging", "eth_account", "ipaddress"]
    loaded = run(f"""
        import sys
        before = set(sys.modules)
        import tessaline.auth
        print(json.dumps([name for name in {unwanted} if name in set(sys.modules) - before]))
    """)
    assert loaded == []
