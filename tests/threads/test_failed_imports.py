"""A failed import leaves nothing behind: the next one, in any interpreter, starts fresh."""

from __future__ import annotations

import weakref
from typing import Any

import pytest

from tessaline import auth
from tests.process.test_interpreters import OTHER_INTERPRETER, OTHERS, run, told_in_another

# What the import of the component needs.
NEEDED = ["base64", "json", "random", "re", "threading", "time", "tessaline.logging_style"]

# Runs CODE with a module missing at the first import, and then, as an option, with all modules.
MISSING = """
def missing(name, again=False):
    lines = ["import sys", f"kept = sys.modules.get({name!r})", f"sys.modules[{name!r}] = None", "try:",
             "    import tessaline.auth", "except ImportError as error:", "    first = error.name",
             "sys.modules.pop('tessaline.auth', None)", f"del sys.modules[{name!r}]",
             f"if kept is not None: sys.modules[{name!r}] = kept"]
    wrote = "open(pipe, 'w', closefd=False).write(__import__('json').dumps([first]) + chr(10))"
    return "\\n".join(lines) + "\\n" + (CODE if again else wrote)
"""


@pytest.mark.process
@pytest.mark.parametrize(
    ("kind", "name"),
    [*(("legacy", name) for name in NEEDED), *((kind, NEEDED[-1]) for kind in OTHERS if kind != "legacy")],
)
def test_a_failure_elsewhere_does_not_lock_the_main_interpreter_out(kind: str, name: str) -> None:
    then = f"""
        told.append(told_by(missing({name!r})))
        import tessaline.auth
        told.append(tessaline.auth.AuthError(reason="r").reason)
        told.append(told_by(CODE))
    """
    first, second, other = told_in_another(kind, MISSING, then)
    assert first == [name]
    assert second == "r"
    assert other == ["ImportError", OTHER_INTERPRETER]


@pytest.mark.process
@pytest.mark.parametrize("kind", OTHERS)
def test_whoever_succeeds_first_has_the_module(kind: str) -> None:
    then = """
        told.append(told_by(missing("tessaline.logging_style", again=True)))
        try:
            import tessaline.auth
        except ImportError as error:
            told.append(str(error))
    """
    assert told_in_another(kind, MISSING, then) == [["imported", "r"], OTHER_INTERPRETER]


@pytest.mark.process
def test_a_failure_here_does_not_lock_another_interpreter_out() -> None:
    first = """
        import sys
        sys.modules["tessaline.logging_style"] = None
        try:
            import tessaline.auth
        except ImportError as error:
            told.append(error.name)
    """
    assert told_in_another("legacy", first) == ["tessaline.logging_style", ["imported", "r"]]


@pytest.mark.process
def test_a_module_that_lacks_a_name_is_an_import_error() -> None:
    told = run("""
        from tessaline import logging_style
        kept = logging_style.log_library_surface_event
        del logging_style.log_library_surface_event

        def refusal(statement):
            try:
                exec(statement)
            except BaseException as error:
                return [type(error).__name__, str(error), error.name, getattr(error, 'path', None)]

        told = [refusal("import tessaline.auth") for _ in range(2)]
        told.append(refusal("from tessaline.logging_style import log_library_surface_event"))
        logging_style.log_library_surface_event = kept
        import tessaline.auth
        told.append(tessaline.auth.AuthError(reason="r").reason)
        print(json.dumps(told))
    """)
    assert told[2][0] == "ImportError"
    assert told == [told[2]] * 3 + ["r"]


ERRORS: list[Any] = [
    lambda: auth.AuthError(reason="r"),
    lambda: auth.RegistrationError("r"),
    lambda: auth.ProfileError(reason="r"),
    lambda: auth.NetworkError("r"),
    lambda: auth.InvalidKeyError("r"),
]


@pytest.mark.parametrize("make", ERRORS, ids=lambda make: type(make()).__name__)
def test_errors_can_be_referred_to_weakly(make: Any) -> None:
    error = make()
    gone: list[object] = []
    reference = weakref.ref(error, gone.append)
    assert reference() is error
    del error
    assert gone == [reference]
