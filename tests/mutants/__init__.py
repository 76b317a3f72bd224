"""Faults planted into the sources one at a time, each of which the tests must find. See `make mutants`.

The lists (`*.toml`) have for a file or folder of `src`, and for the tests that must fail, which text is
replaced by which:

    ["src/tessaline/auth/manager/close.cpp"]
    "tests/auth/test_close.py" = [
      ["manager.wipe_key();", ""],
      ["void AuthManager::mark_closed()", "set(Field::kReauthMode, Ref::none());", ""],
    ]

The text must be unique in the file or, if it has moved, in its folder. With a unique landmark in front,
it is the first occurrence in that function. Line ends count as spaces. It is an expression, or
in C++ a statement, with its ";" or "}". If the new text has "@", the condition whether the fault is planted,
the new text replaces the old one entirely, as a declaration requires.
"""
