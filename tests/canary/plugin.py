"""Fails the run in which a secret shows in an error, a log record, a warning, output, a `repr` or a report.

Errors are examined where they are raised, even if they are caught. Fields that hold secrets by design
(`_token`, `_private_key`, the result of `get_token`) are not examined.
"""

from __future__ import annotations

import itertools
import json
import logging
import subprocess
import sys
import sysconfig
import threading
import warnings
from collections.abc import Iterator
from typing import Any

import pytest

from devserver.testing import DevServer
from tessaline import auth

from . import registry, sources, telling

# The other tool IDs are used by debuggers, coverage, profilers and hypothesis.
MONITOR = 4

# A value that a generator returns, and errors for lack of memory or stack.
WITHOUT_MESSAGE = (StopIteration, StopAsyncIteration, MemoryError, RecursionError)
# These libraries raise errors internally to find out that something is missing or invalid; the errors contain
# what was looked up or parsed. They matter only if they leave the libraries, also as another error's context.
KEPT_IN_LIBRARIES = (KeyError, IndexError, AttributeError, UnicodeDecodeError)
LIBRARIES = (sysconfig.get_path("stdlib"), sysconfig.get_path("purelib"), "<frozen")

_examined = itertools.count()
_examined_by_workers = 0
_ended_workers: set[Any] = set()
_test = "outside any test"


def examine(where: str, text: str | bytes | None) -> None:
    if not text or registry.at_rest:
        return
    next(_examined)
    if isinstance(text, bytes):
        text = text.decode(errors="backslashreplace")
    kind = registry.found_in(text)
    if kind is not None:
        # Without the text, which would show it.
        registry.findings.append(f"{_test}: a {kind} in {where}")


def examine_error(where: str, error: BaseException | None) -> None:
    if error is not None:
        for link in telling.chain(error):
            examine(f"{where} {type(link).__name__}", telling.text_of(link))


def examine_rendered(where: str, error: BaseException | None) -> None:
    if error is not None:
        examine_error(where, error)
        examine(f"the trace of {where} {type(error).__name__}", telling.rendered(error))


def examine_manager(manager: auth.AuthManager) -> None:
    for text in (telling.shown(manager), telling.shown(vars(manager)), " ".join(object.__dir__(manager))):
        examine("what a manager shows", text)
    for name in ("_auth_error", "_permanent_refresh_error"):
        error = getattr(manager, name, None)
        if isinstance(error, BaseException):
            examine_rendered(f"the manager's {name}", error)


# Errors


def _raised(code: Any, offset: int, error: BaseException) -> None:
    kind = type(error)
    if kind in WITHOUT_MESSAGE:
        return
    if kind is json.JSONDecodeError:
        # Its attribute contains what could not be parsed, which matters once the error reaches a caller.
        examine("a raised JSONDecodeError", str(error))
        return
    if kind in KEPT_IN_LIBRARIES:
        if code.co_filename.startswith(LIBRARIES):
            return
    else:
        trace = error.__traceback__
        if trace is not None and trace.tb_next is not None:
            return  # passing through further frames, and examined in the first
    try:
        examine_error("a raised", error)
    except RecursionError:
        return


def _caught_by_pytest(result: Any, catcher: Any, kind: Any = None, error: Any = None, *_: Any) -> None:
    if isinstance(error, BaseException):
        examine_rendered("a caught", error)


def _written_off(result: Any, told: Any) -> None:
    examine("an unraisable error's message", getattr(told, "err_msg", None))
    examine("an unraisable error's object", telling.shown(getattr(told, "object", None)))
    examine_rendered("an error that nobody caught", told.exc_value)


# Logs, warnings, output


def _logged(result: Any, logger: logging.Logger, record: logging.LogRecord) -> None:
    examine("a log message", record.getMessage())
    examine("a log record", telling.shown(vars(record)))
    if record.exc_info:
        examine_rendered("a logged", record.exc_info[1])


def _warned(result: Any, message: warnings.WarningMessage) -> None:
    examine("a warning", str(message.message))


def _captured(result: Any, *_: Any) -> None:
    for text in result:
        examine("output", text)


def _server_stopped(result: Any, server: DevServer) -> None:
    examine("what the development server wrote", server.stderr)


# The run


def pytest_configure(config: pytest.Config) -> None:
    sources.plant_written_keys()
    sources.tap_makers()
    sources.tap(pytest.RaisesExc, "__exit__", _caught_by_pytest)
    sources.tap(pytest.CaptureFixture, "readouterr", _captured)
    sources.tap(subprocess.Popen, "communicate", _captured)
    sources.tap(logging.Logger, "handle", _logged)
    sources.tap(warnings, "_showwarnmsg", _warned)
    sources.tap(DevServer, "stop", _server_stopped)
    events = sys.monitoring
    events.use_tool_id(MONITOR, "secrets")
    events.register_callback(MONITOR, events.events.RAISE, _raised)
    events.set_events(MONITOR, events.events.RAISE)


def pytest_sessionstart(session: pytest.Session) -> None:
    # After pytest has set its own.
    sources.tap(sys, "unraisablehook", _written_off)
    sources.tap(threading, "excepthook", _written_off)
    sources.tap(sys, "excepthook", lambda result, kind, error, trace: examine_rendered("an unhandled", error))


@pytest.hookimpl(wrapper=True)
def pytest_runtest_protocol(item: pytest.Item) -> Iterator[None]:
    global _test
    _test = item.nodeid
    return (yield)


@pytest.hookimpl(wrapper=True)
def pytest_runtest_teardown(item: pytest.Item) -> Iterator[None]:
    values = getattr(item, "funcargs", {}).values()
    managers = {id(manager): manager for manager in registry.watched()}
    managers |= {id(value): value for value in values if isinstance(value, auth.AuthManager)}
    for manager in managers.values():
        examine_manager(manager)
    # A waiting frame here would keep them until the end of the test.
    del values, managers
    manager = None
    return (yield)


def pytest_runtest_logreport(report: pytest.TestReport) -> None:
    examine("a report", report.longreprtext)
    for title, text in report.sections:
        examine(title.lower(), text)


def pytest_sessionfinish(session: pytest.Session) -> None:
    told: dict[str, Any] | None = getattr(session.config, "workeroutput", None)
    if told is not None:
        told["secrets"] = next(_examined), registry.findings
    elif registry.findings:
        session.exitstatus = pytest.ExitCode.TESTS_FAILED


@pytest.hookimpl(optionalhook=True)
def pytest_testnodedown(node: Any) -> None:
    """Take in what one of pytest-xdist's workers has found. One that cannot report it fails the run."""
    global _examined_by_workers
    if node in _ended_workers:  # one that was interrupted comes twice
        return
    _ended_workers.add(node)
    lost = f"worker {node.gateway.id} ended without a report of what it has found"
    examined, findings = getattr(node, "workeroutput", {}).get("secrets", (0, [lost]))
    _examined_by_workers += examined
    registry.findings.extend(findings)


def pytest_terminal_summary(terminalreporter: pytest.TerminalReporter) -> None:
    examined = next(_examined) + _examined_by_workers
    for finding in dict.fromkeys(registry.findings):
        terminalreporter.write_line(finding, red=True)
    terminalreporter.write_line(
        f"secrets: {examined} texts examined, {len(registry.findings)} with a secret",
        red=bool(registry.findings),
    )
