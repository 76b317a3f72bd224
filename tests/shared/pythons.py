"""Differences between the Pythons that the tests run on."""

from __future__ import annotations

import os
import sys

import pytest

NEWEST_TRIED = (3, 15)
SWITCH = "TESSALINE_UNTRIED_PYTHON"

looks_inside = pytest.mark.skipif(
    SWITCH in os.environ or sys.version_info[:2] > NEWEST_TRIED,
    reason="the component looks inside no Python on which it has not been tried",
)
