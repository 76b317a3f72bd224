"""What pytest loads wherever tessaline is installed: an ini option that makes the fixtures known.

Without `tessaline_fixtures = true` it changes nothing, and imports nothing but this.
"""

from __future__ import annotations

from typing import TYPE_CHECKING

if TYPE_CHECKING:
    import pytest

OPTION = "tessaline_fixtures"


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addini(OPTION, "whether tests see the fixtures of tessaline.testing", type="bool", default=False)


def pytest_configure(config: pytest.Config) -> None:
    if config.getini(OPTION):
        config.pluginmanager.import_plugin("tessaline.testing.fixtures")
