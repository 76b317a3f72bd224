"""The example of an application's tests passes, in a separate run as a user would start it."""

from __future__ import annotations

from examples.test_application import __file__ as TESTS
from tests.examples.programs import ROOT, ended, program


def test_the_tests_of_the_example_pass() -> None:
    with program(
        "-m", "pytest", "-q", "-p", "no:cacheprovider", "--rootdir", str(ROOT), str(TESTS)
    ) as process:
        status, output, complaints = ended(process)
    assert (status, complaints) == (0, ""), output
    assert "9 passed" in output
