"""The package's one hook into the standard logging."""

from __future__ import annotations

import logging
import subprocess
import sys

import pytest

from tessaline.logging_style import log_library_surface_event


def test_an_event_is_a_record_with_structured_fields(caplog: pytest.LogCaptureFixture) -> None:
    with caplog.at_level(logging.DEBUG, logger="tessaline"):
        log_library_surface_event(
            "Authentication and HTTP transport",
            "error",
            sub_service="auth",
            component="retry",
            metadata={"reason": "invalid_retry_after", "scope": "request"},
            source_function="_request_with_retry",
            source_file="a/file",
            source_line=461,
        )
    (record,) = caplog.records
    assert (record.name, record.levelno) == ("tessaline", logging.ERROR)
    assert (
        record.getMessage() == "Authentication and HTTP transport: reason=invalid_retry_after scope=request"
    )
    fields = {name: value for name, value in vars(record).items() if name.startswith("tessaline_")}
    assert fields == {
        "tessaline_surface": "Authentication and HTTP transport",
        "tessaline_level": "error",
        "tessaline_sub_service": "auth",
        "tessaline_component": "retry",
        "tessaline_metadata": {"reason": "invalid_retry_after", "scope": "request"},
        "tessaline_source_function": "_request_with_retry",
        "tessaline_source_file": "a/file",
        "tessaline_source_line": 461,
    }


@pytest.mark.parametrize(
    ("level", "number"), [("debug", 10), ("INFO", 20), ("Warning", 30), ("critical", 50), ("unheard of", 40)]
)
def test_levels_go_by_their_standard_names(caplog: pytest.LogCaptureFixture, level: str, number: int) -> None:
    with caplog.at_level(logging.DEBUG, logger="tessaline"):
        log_library_surface_event("surface", level)
    assert [record.levelno for record in caplog.records] == [number]


def test_a_level_that_is_switched_off_makes_no_record(caplog: pytest.LogCaptureFixture) -> None:
    with caplog.at_level(logging.ERROR, logger="tessaline"):
        log_library_surface_event("surface", "warning")
    assert caplog.records == []


def test_a_host_without_logging_set_up_sees_nothing() -> None:
    program = "from tessaline.logging_style import log_library_surface_event as log; log('surface', 'error')"
    ended = subprocess.run([sys.executable, "-c", program], capture_output=True, text=True, timeout=30)
    assert (ended.returncode, ended.stdout, ended.stderr) == (0, "", "")
