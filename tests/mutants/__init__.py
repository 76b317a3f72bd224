"""Faults planted into the sources one at a time, each of which the tests must find. See `make mutants`.

The lists (`*.toml`) say under a file or folder of `src`, and under the tests that are to fail, what becomes
of which text:

    ["src/tessaline/auth/manager/close.cpp"]
    "tests/auth/test_close.py" = [
      ["manager.wipe_key();", ""],
      ["void AuthManager::mark_closed()", "set(Field::kReauthMode, Ref::none());", ""],
    ]

It stands once in the file, or, where it has moved, in the file's folder. With a landmark in front of it,
which stands once, it is what comes first in that function. Line ends count as blanks. It is an expression, or
in C++ a statement, with its ";" or "}". Where the new text has "@", which asks whether the fault is planted,
the new text is all that is left, as it has to be for a declaration.
"""
