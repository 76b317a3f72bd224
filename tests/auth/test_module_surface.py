"""The module as the interpreter sees it: names, signatures, docstrings, imports, errors."""

from __future__ import annotations

import inspect
import pickle
import subprocess
import sys
import textwrap
from typing import Any

import pytest

from tessaline import auth

from .helpers.managers import ADDRESS, KEY, build
from .helpers.server import BASE

EMPTY = inspect.Parameter.empty
POSITIONAL = inspect.Parameter.POSITIONAL_OR_KEYWORD
KEYWORD = inspect.Parameter.KEYWORD_ONLY

FUNCTIONS: dict[str, tuple[list[tuple[str, Any]], str | None]] = {
    "notify_era_change": (
        [("new_era_number", EMPTY)],
        "Notify the active process auth manager that the server era advanced.",
    ),
    "_set_active_auth_manager": (
        [("manager", EMPTY)],
        "Set the process-wide AuthManager used by era-transition callbacks.",
    ),
    "_default_http_transport": (
        [("method", EMPTY), ("url", EMPTY), ("headers", None), ("body", None)],
        "Default HTTP transport using urllib. Returns (status, resp_headers, body_bytes).",
    ),
    "_auth_http_timeout_seconds": ([], None),
    "_decode_jwt_payload_unverified": (
        [("token", EMPTY)],
        "Decode JWT payload without signature verification.",
    ),
    "_assert_token_subject_matches_wallet": ([("token", EMPTY), ("wallet_address", EMPTY)], None),
    "_validate_private_key": (
        [("private_key", EMPTY)],
        "Validate private key format and value. Returns normalized hex without 0x prefix.",
    ),
    "_validate_server_url": (
        [("server_url", EMPTY)],
        "Validate server URL format. Returns the URL string.",
    ),
    "_normalize_invite_code": (
        [("invite_code", EMPTY)],
        "Return canonical invite code for transport, or None when absent.",
    ),
    "_jwt_era_number": (
        [("token", EMPTY)],
        "Return integer era_number from a JWT payload, or None if it is unavailable.",
    ),
}

METHODS: dict[str, tuple[list[tuple[str, Any]], str | None]] = {
    "authenticate": ([], "Full register -> challenge -> sign -> verify flow."),
    "get_token": ([], "Return current valid JWT token, blocking during refresh."),
    "get_wallet_secret": ([], "Return 32-byte wallet_secret (base64-decoded)."),
    "get_wallet_address": ([], "Return lowercase 0x-prefixed 42-char wallet address."),
    "get_token_expiry": ([], "Return token expiry as Unix timestamp."),
    "notify_era_change": (
        [("new_era_number", EMPTY)],
        "Trigger non-blocking background re-authentication for era transitions.",
    ),
    "set_display_name": ([("display_name", EMPTY)], "Set or reset display name via profile endpoint."),
    "close": ([], "Stop refresh, clear sensitive material, transition to CLOSED."),
}

PRIVATE_METHODS: dict[str, tuple[list[tuple[str, Any]], str]] = {
    "_http_request": (
        [("method", EMPTY), ("path", EMPTY), ("body_dict", None), ("headers", None)],
        "Make HTTP request to server. Returns (status, resp_headers, resp_body_dict).",
    ),
    "_request_with_retry": (
        [
            *[("method", EMPTY), ("path", EMPTY), ("body_dict", None), ("headers", None)],
            *[("max_attempts", None), ("is_verify", False)],
        ],
        "HTTP request with exponential backoff retry for temporary errors.",
    ),
    "_get_time": ([], "Get current time using injected clock."),
    "_wait_with_clock": (
        [("seconds", EMPTY)],
        "Wait using the injected clock. Returns early if close is signaled or clock is stuck.",
    ),
    "_do_auth_flow": ([], "Execute register -> challenge -> sign -> verify."),
    "_do_auth_flow_matching_pending_era": (
        [],
        "Run auth flow, retrying once if an in-flight era change needs a newer token.",
    ),
    "_store_auth_result": (
        [("token", EMPTY), ("wallet_secret_bytes", EMPTY)],
        "Store auth result and signal waiting threads. Must be called under self._lock.",
    ),
    "_compute_refresh_at": ([("auth_time", EMPTY)], "Return jittered proactive refresh timestamp."),
    "_raise_if_pending_era_locked": (
        [],
        "Raise instead of serving a token while an era-change target is unresolved.",
    ),
    "_poll_for_reauth": (
        [("fallback_to_current_token", EMPTY)],
        "Poll up to 3s for the refresh thread to enter RE_AUTHENTICATING, then wait.",
    ),
    "_start_refresh": ([], "Start the proactive refresh background thread."),
    "_refresh_loop": ([], "Background thread waiting for token refresh threshold."),
    "_do_refresh": ([], "Perform a proactive token refresh."),
    "_background_reauth": ([], "Background re-authentication thread (era-change triggered)."),
}

DEFINITION_ORDER = [
    "base64",
    "json",
    "random",
    "re",
    "threading",
    "_time",
    "log_library_surface_event",
    "_SECP256K1_ORDER",
    "_UNINITIALIZED",
    "_AUTHENTICATING",
    "_AUTHENTICATED",
    "_RE_AUTHENTICATING",
    "_CLOSED",
    "_BACKOFF_BASE",
    "_BACKOFF_CAP",
    "_AUTH_HTTP_TIMEOUT_DEFAULT",
    "_AUTH_FLOW_HTTP_MAX_ATTEMPTS",
    "_AUTH_FLOW_CHALLENGE_MAX_CYCLES",
    "_REFRESH_RATIO",
    "_TOKEN_LIFETIME",
    "_DISPLAY_NAME_RE",
    "_DISPLAY_NAME_ERR",
    "_INVITE_REGISTRATION_REASONS",
    "_PERMANENT_REASONS",
    "_REAUTH_MODE_PROACTIVE",
    "_REAUTH_MODE_ERA_CHANGE",
    "InvalidKeyError",
    "AuthError",
    "RegistrationError",
    "ProfileError",
    "NetworkError",
    "_default_http_transport",
    "_auth_http_timeout_seconds",
    "_decode_jwt_payload_unverified",
    "_assert_token_subject_matches_wallet",
    "_validate_private_key",
    "_validate_server_url",
    "_normalize_invite_code",
    "_jwt_era_number",
    "_active_auth_manager",
    "_active_auth_manager_lock",
    "_set_active_auth_manager",
    "notify_era_change",
    "AuthManager",
]


def run_python(program: str) -> str:
    """Run a program in a new interpreter: exit code 0, nothing on stderr; returns its output."""
    result = subprocess.run(
        [sys.executable, "-c", textwrap.dedent(program)],
        capture_output=True,
        text=True,
        timeout=60,
        check=False,
    )
    assert (result.returncode, result.stderr) == (0, ""), result
    return result.stdout


def parameters(call: Any) -> list[tuple[str, Any, Any]]:
    found = inspect.signature(call).parameters.values()
    return [(parameter.name, parameter.kind, parameter.default) for parameter in found]


def first_line(thing: Any) -> str | None:
    return thing.__doc__.splitlines()[0] if thing.__doc__ else None


# Names


def test_module_docstring() -> None:
    assert auth.__doc__ is not None
    assert auth.__doc__.splitlines()[0] == (
        "Auth subcomponent -- AuthManager with EIP-191 signing, JWT management, proactive refresh."
    )
    assert auth.__name__ == "tessaline.auth"


def test_names_stand_in_the_order_of_their_definition() -> None:
    listed = run_python("import tessaline.auth as auth; print(*vars(auth))").split()
    assert [name for name in listed if name in DEFINITION_ORDER] == DEFINITION_ORDER


def test_facilities_are_the_modules_of_the_host() -> None:
    import base64
    import json
    import random
    import re
    import threading
    import time

    from tessaline.logging_style import log_library_surface_event

    assert auth.base64 is base64
    assert auth.json is json
    assert auth.random is random
    assert auth.re is re
    assert auth.threading is threading
    assert auth._time is time
    assert auth.log_library_surface_event is log_library_surface_event


@pytest.mark.parametrize("name", FUNCTIONS)
def test_function_signature_and_docstring(name: str) -> None:
    function = getattr(auth, name)
    wanted, doc = FUNCTIONS[name]
    assert parameters(function) == [(argument, POSITIONAL, default) for argument, default in wanted]
    assert first_line(function) == doc
    assert function.__name__ == name
    assert function.__module__ == "tessaline.auth"


@pytest.mark.parametrize("name", METHODS)
def test_public_method_signature_and_docstring(name: str) -> None:
    wanted, doc = METHODS[name]
    method = getattr(auth.AuthManager, name)
    assert parameters(method) == [
        ("self", parameters(method)[0][1], EMPTY),
        *((argument, POSITIONAL, default) for argument, default in wanted),
    ]
    bound = getattr(build(), name)
    assert parameters(bound) == [(argument, POSITIONAL, default) for argument, default in wanted]
    assert first_line(method) == doc
    assert len(method.__doc__.splitlines()) > 1
    assert method.__name__ == name
    assert method.__qualname__ == f"AuthManager.{name}"


@pytest.mark.parametrize("name", PRIVATE_METHODS)
def test_private_method_is_reachable_with_its_signature_and_docstring(name: str) -> None:
    wanted, doc = PRIVATE_METHODS[name]
    bound = getattr(build(), name)
    assert parameters(bound) == [(argument, POSITIONAL, default) for argument, default in wanted]
    assert first_line(bound) == doc


def test_constructor_signature() -> None:
    assert parameters(auth.AuthManager) == [
        ("private_key", POSITIONAL, EMPTY),
        ("server_url", POSITIONAL, EMPTY),
        ("invite_code", KEYWORD, None),
        ("register_wallet", KEYWORD, True),
        ("clock", KEYWORD, None),
        ("_transport", KEYWORD, None),
    ]


def test_public_methods_are_those_of_the_table() -> None:
    public = {name for name in dir(auth.AuthManager) if not name.startswith("_")}
    assert public == set(METHODS)


# Argument errors

CALLS: list[tuple[str, tuple[Any, ...], dict[str, Any]]] = [
    ("_default_http_transport", (), {}),
    ("_default_http_transport", ("GET",), {}),
    ("_default_http_transport", ("GET", "u", None, None, KEY), {}),
    ("_default_http_transport", ("GET", "u"), {"timeout": KEY}),
    ("_auth_http_timeout_seconds", (KEY,), {}),
    ("_auth_http_timeout_seconds", (), {"seconds": KEY}),
    ("_decode_jwt_payload_unverified", (), {}),
    ("_decode_jwt_payload_unverified", (KEY, KEY), {}),
    ("_assert_token_subject_matches_wallet", (KEY,), {}),
    ("_assert_token_subject_matches_wallet", (KEY, KEY, KEY), {}),
    ("_assert_token_subject_matches_wallet", (KEY,), {"token": KEY}),
    ("_validate_private_key", (), {}),
    ("_validate_private_key", (KEY, KEY), {}),
    ("_validate_private_key", (), {"key": KEY}),
    ("_validate_server_url", (), {"url": KEY}),
    ("_normalize_invite_code", (), {}),
    ("_normalize_invite_code", (KEY, KEY), {}),
    ("_jwt_era_number", (KEY,), {"token": KEY}),
]


@pytest.mark.parametrize(("name", "args", "kwargs"), CALLS)
def test_a_wrong_call_names_the_function_and_shows_no_value(
    name: str, args: tuple[Any, ...], kwargs: dict[str, Any]
) -> None:
    with pytest.raises(TypeError) as caught:
        getattr(auth, name)(*args, **kwargs)
    assert name + "()" in str(caught.value)
    assert KEY not in str(caught.value)


@pytest.mark.parametrize(
    ("call", "text"),
    [
        (
            lambda: auth.AuthManager(),  # type: ignore[call-arg]
            "missing 2 required positional arguments: 'private_key' and 'server_url'",
        ),
        (lambda: auth.AuthManager(KEY), "missing 1 required positional argument: 'server_url'"),  # type: ignore[call-arg]
        (lambda: auth.AuthManager(KEY, BASE, KEY), "takes 3 positional arguments but 4 were given"),  # type: ignore[call-arg]
        (
            lambda: auth.AuthManager(KEY, BASE, KEY, invite_code=KEY),  # type: ignore[misc]
            "3 positional arguments but 4 positional arguments (and 1 keyword-only argument) were given",
        ),
        (
            lambda: auth.AuthManager(KEY, BASE, KEY, invite_code=KEY, clock=None),  # type: ignore[misc]
            "3 positional arguments but 4 positional arguments (and 2 keyword-only arguments) were given",
        ),
        (lambda: auth.AuthManager(KEY, BASE, **{1: KEY}), "keywords must be strings"),  # type: ignore[arg-type]
        (lambda: auth.AuthManager(KEY, BASE, code=KEY), "got an unexpected keyword argument 'code'"),  # type: ignore[call-arg]
        (
            lambda: auth.AuthManager(KEY, BASE, private_key=KEY),  # type: ignore[misc]
            "got multiple values for argument 'private_key'",
        ),
        (lambda: build()._wait_with_clock(KEY, 2), "takes 2 positional arguments but 3 were given"),
        (lambda: build()._http_request("GET"), "missing 1 required positional argument: 'path'"),
        (lambda: auth.notify_era_change(), "missing 1 required positional argument: 'new_era_number'"),  # type: ignore[call-arg]
        (lambda: auth._jwt_era_number(KEY, KEY), "takes 1 positional argument but 2 were given"),  # type: ignore[call-arg]
        (lambda: auth._jwt_era_number(jwt=KEY), "got an unexpected keyword argument 'jwt'"),  # type: ignore[call-arg]
    ],
)
def test_argument_errors_have_the_usual_wording(call: Any, text: str) -> None:
    with pytest.raises(TypeError) as caught:
        call()
    assert text in str(caught.value)
    assert KEY not in str(caught.value)


def test_arguments_that_are_no_identifiers_are_refused() -> None:
    with pytest.raises(TypeError):
        auth.AuthManager(KEY, BASE, **{"not an identifier": KEY})  # type: ignore[arg-type]
    with pytest.raises(TypeError):
        auth.AuthManager(KEY, BASE, **{"": KEY})  # type: ignore[arg-type]


# Import


def test_import_starts_no_thread_and_opens_no_descriptor() -> None:
    assert (
        run_python("""
            import base64, json, os, random, re, threading, time, logging
            import tessaline.logging_style
            before = sorted(os.listdir("/proc/self/fd"))
            import tessaline.auth
            print(threading.active_count(), sorted(os.listdir("/proc/self/fd")) == before)
            print(len(os.listdir("/proc/self/task")))
        """)
        == "1 True\n1\n"
    )


def test_import_brings_nothing_in_but_its_facilities_and_the_log() -> None:
    assert (
        run_python("""
            import sys
            import base64, json, random, re, threading, time
            import tessaline.logging_style
            before = set(sys.modules)
            import tessaline.auth
            print(sorted(set(sys.modules) - before))
        """)
        == "['tessaline.auth']\n"
    )


def test_what_is_needed_at_call_time_is_imported_then() -> None:
    assert (
        run_python("""
            import sys
            import tessaline.auth as auth
            late = ("tessaline._transport_security", "urllib.request", "eth_account", "eth_account.messages")
            print([name for name in late if name in sys.modules])
            auth._validate_server_url("https://auth.example.test")
            print([name for name in late if name in sys.modules][:1])
        """)
        == "[]\n['tessaline._transport_security']\n"
    )


def test_no_account_library_is_needed_to_log_in() -> None:
    assert run_python(f"""
        import sys
        sys.modules["eth_account"] = None
        import base64, json
        import tessaline.auth as auth

        def b64url(value):
            return base64.urlsafe_b64encode(json.dumps(value).encode()).rstrip(b"=").decode()

        def transport(method, url, headers=None, body=None):
            answer = {{"challenge_id": 1, "message": "m", "expires_at": 1, "wallet_secret": ""}}
            answer["token"] = ".".join([b64url({{}}), b64url({{"sub": {ADDRESS!r}}}), "s"])
            return 200, {{}}, json.dumps(answer).encode()

        with auth.AuthManager({KEY!r}, {BASE!r}, _transport=transport) as manager:
            manager.authenticate()
            print(manager.get_wallet_address())
    """) == (ADDRESS + "\n")


def test_without_the_log_module_the_import_fails() -> None:
    assert (
        run_python("""
            import sys
            sys.modules["tessaline.logging_style"] = None
            try:
                import tessaline.auth
            except ImportError as error:
                print("refused", "tessaline.auth" in sys.modules)
        """)
        == "refused False\n"
    )


@pytest.mark.parametrize("kind", ["isolated", "legacy"])
def test_a_second_interpreter_is_refused(kind: str) -> None:
    text = run_python(f"""
        import _interpreters
        import tessaline.auth

        other = _interpreters.create({kind!r})
        failure = _interpreters.exec(other, "import tessaline.auth")
        print(failure.type.__name__, "|", failure.msg)
        _interpreters.destroy(other)
    """)
    assert text == (
        "ImportError | Interpreter change detected - "
        "this module can only be loaded into one interpreter per process.\n"
    )


def test_a_second_initialisation_is_refused() -> None:
    text = run_python("""
        import importlib, sys
        import tessaline.auth as first

        for _ in range(2):
            del sys.modules["tessaline.auth"]
            try:
                importlib.import_module("tessaline.auth")
            except RuntimeError as error:
                print(type(error).__name__, "|", error)
            sys.modules["tessaline.auth"] = first
        print(first.AuthError(reason="still here"))
    """)
    refusal = "RuntimeError | Module 'auth' has already been imported. Re-initialisation is not supported.\n"
    assert text == refusal * 2 + "still here\n"


def test_reloading_is_refused_or_harmless() -> None:
    text = run_python("""
        import importlib
        import tessaline.auth as auth

        cls = auth.AuthManager
        try:
            importlib.reload(auth)
        except RuntimeError as error:
            print("already been imported" in str(error))
        else:
            print(auth.AuthManager is cls)
    """)
    assert text == "True\n"


# Copies


@pytest.mark.parametrize("protocol", range(pickle.HIGHEST_PROTOCOL + 1))
def test_no_protocol_pickles_a_manager_or_a_subclass(protocol: int) -> None:
    class Own(auth.AuthManager):
        pass

    for cls in (auth.AuthManager, Own):
        with pytest.raises(TypeError):
            pickle.dumps(build(cls=cls), protocol)


# Representation


@pytest.mark.parametrize("state", ["UNINITIALIZED", "AUTHENTICATED", "CLOSED"])
def test_repr_shows_class_address_server_and_state(state: str) -> None:
    class Named(auth.AuthManager):
        pass

    manager = build(cls=Named)
    manager._state = state
    text = repr(manager)
    for shown in ("Named", ADDRESS, BASE, state):
        assert shown in text
    assert KEY not in text
