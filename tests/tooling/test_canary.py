"""The search for secrets: what it knows, and that it finds each kind of leak."""

from __future__ import annotations

import os
import re
import secrets
import subprocess
import sys
from pathlib import Path
from typing import Any

import jwt
import pytest
from eth_account import Account

import canary
from auth.helpers import managers as auth_managers
from auth.helpers.server import VERIFY, FakeServer
from canary import registry
from contract.support import managers as contract_managers
from contract.support.service import Service
from tessaline import auth

from .project import ROOT

# Each test of this run leaks a secret, whatever it does to hide it, except those called quiet.
LEAKS = """
import base64, contextlib, json, logging, subprocess, sys, threading, warnings
import canary, jwt, pytest

from tessaline import auth

KEY = bytes.fromhex(open(__file__ + ".key").read())
TOKEN = ".".join(base64.urlsafe_b64encode(part).decode().rstrip("=") for part in
                 (b'{"alg":"none","typ":"JWT"}', json.dumps({"sub": "0xabcdef", "jti": 7}).encode(), KEY))
SIGNATURE = "0x" + (KEY + KEY[::-1]).hex() + "1c"
canary.plant("key", KEY)
canary.plant("token", TOKEN)
canary.plant("signature", SIGNATURE)
HEX = KEY.hex()


def swallow(error, cause=None):
    with contextlib.suppress(type(error)):
        raise error from cause


FORMS = {
    "whole": HEX, "prefixed": "0x" + HEX, "upper": HEX.upper(), "begin": HEX[:16], "end": HEX[-16:],
    "middle": HEX[11:45], "bytes": repr(KEY), "list": str(list(KEY)),
    "base64": base64.b64encode(KEY).decode(), "number": str(int.from_bytes(KEY, "big")),
    "token": TOKEN, "signature": SIGNATURE,
    "header": TOKEN.split(".")[0], "claims": TOKEN.split(".")[1], "seal": TOKEN.split(".")[2],
    "unknown token": f"eyJ{HEX[::-1][:20]}.eyJ{HEX[::-1][20:40]}.{HEX[::-1]}",
    "unknown signature": "ab1f3" * 26,
}


@pytest.mark.parametrize("name", FORMS)
def test_form(name):
    swallow(OSError(f"before {FORMS[name]} after"))


def test_argument():
    swallow(OSError(5, {"body": [HEX.encode()]}))


def test_attribute():
    error = OSError("fine")
    error.doc = TOKEN
    swallow(error)


def test_note():
    error = OSError("fine")
    error.add_note(HEX)
    swallow(error)


def test_cause():
    swallow(OSError("fine"), ValueError(HEX))


def test_lookup_in_a_test():
    with contextlib.suppress(KeyError):
        {}[HEX]


def test_context_out_of_a_library():
    with contextlib.suppress(RuntimeError):
        try:
            json.loads('{"token": "' + HEX)
        except ValueError:
            raise RuntimeError("fine")


def test_what_could_not_be_read_comes_to_somebody():
    with pytest.raises(ValueError):
        json.loads('{"token": "' + HEX)


def test_an_error_out_of_native_code():
    with contextlib.suppress(ValueError):
        int(HEX, 5)


def test_trace():
    try:
        exec(compile("raise OSError('fine')", __file__ + ".key", "exec"))
    except OSError as error:
        caught = error
    with pytest.raises(OSError):
        raise caught


def test_log():
    logging.getLogger("any").warning("sent %s", TOKEN)


def test_log_extra():
    logging.getLogger("any").warning("sent", extra={"body": {"token": TOKEN}})


def test_warning():
    with pytest.warns(UserWarning):
        warnings.warn("about " + HEX)


def test_stdout():
    print(HEX)


def test_stderr_that_the_test_reads(capsys):
    print(HEX, file=sys.stderr)
    capsys.readouterr()


def test_output_of_a_program():
    program = "import sys; print(open(sys.argv[1]).read())"
    subprocess.run([sys.executable, "-c", program, __file__ + ".key"], check=True, capture_output=True)


def test_thread(monkeypatch):
    monkeypatch.setattr(threading, "excepthook", lambda told: None)
    thread = threading.Thread(target=swallow, args=(OSError(HEX), OSError))
    thread.start()
    thread.join()


def test_unraisable(monkeypatch):
    monkeypatch.setattr(sys, "unraisablehook", lambda told: None)
    class Left:
        def __del__(self):
            raise OSError(HEX)
    Left()


def test_field_of_a_manager():
    manager = canary.watch(auth.AuthManager("1".zfill(64), "http://localhost"))
    manager.remembered = HEX
    global kept
    kept = manager


def test_error_of_a_manager(kept_manager):
    kept_manager._auth_error = OSError(HEX)


@pytest.fixture
def kept_manager():
    return auth.AuthManager("1".zfill(64), "http://localhost")


def test_report():
    assert HEX == ""


def test_quiet_fields(kept_manager):
    kept_manager._token, kept_manager._private_key = TOKEN, HEX
    assert kept_manager._token == TOKEN and kept_manager._private_key == HEX


def test_quiet_inside_a_library():
    # It tries to parse the key as JSON, and continues when that fails.
    assert jwt.encode({}, HEX, algorithm="HS256")


def test_quiet_where_what_cannot_be_read_is_passed_over():
    with contextlib.suppress(ValueError):
        json.loads('{"token": "' + HEX)


def test_quiet_words():
    swallow(OSError(f"{HEX[:12]} is too little, and 0000000000000000 is nobody's"))


def test_quiet_when_meant():
    with canary.overheard() as found:
        swallow(OSError(HEX))
        assert found


def test_found_again():
    swallow(OSError(HEX))
"""


def run(folder: Path, program: str, *more: str) -> subprocess.CompletedProcess[str]:
    script = folder / "test_leaks.py"
    script.write_text(program)
    (folder / "test_leaks.py.key").write_text(secrets.token_hex(32))
    paths = [str(ROOT / "tests"), str(ROOT), *filter(None, [os.environ.get("PYTHONPATH")])]
    options = ["-p", "canary.plugin", "-p", "no:cacheprovider", "-c", os.devnull, "--rootdir", str(folder)]
    return subprocess.run(
        [sys.executable, "-m", "pytest", "-v", *options, *more, str(script)],
        cwd=folder,
        env=os.environ | {"PYTHONPATH": os.pathsep.join(paths)},
        capture_output=True,
        text=True,
        timeout=60,
        stdin=subprocess.DEVNULL,
    )


@pytest.mark.parametrize("workers", [0, 2])
def test_every_kind_of_leak_is_found_and_fails_the_run(tmp_path: Path, workers: int) -> None:
    with canary.overheard():
        ended = run(tmp_path, LEAKS, "-n", str(workers))
    assert ended.returncode == 1
    told = r"^(?:\[gw.*(?:PASSED|FAILED) )?(test_leaks\.py::\w+(?:\[.+?\])?)(?: PASSED.*| FAILED.*| *)$"
    ran = set(re.findall(told, ended.stdout, re.MULTILINE))
    assert len(ran) > 30
    found = set(re.findall(r"^(test_leaks\.py::.+?): a ", ended.stdout, re.MULTILINE))
    assert {name for name in ran if "quiet" not in name} == found
    assert re.search(
        r"^secrets: [1-9][0-9]* texts examined, [1-9][0-9]* with a secret$", ended.stdout, re.MULTILINE
    )


def test_a_leak_in_a_worker_fails_a_run_in_which_every_test_passes(tmp_path: Path) -> None:
    program = """if True:
        import canary, pytest
        KEY = open(__file__ + ".key").read()
        canary.plant("key", KEY)
        def test_it():
            pytest.raises(OSError, exec, f"raise OSError({KEY!r})")
    """
    with canary.overheard():
        ended = run(tmp_path, program, "-n", "1")
    assert (ended.returncode, "1 passed" in ended.stdout) == (1, True), ended.stdout


def test_a_worker_that_crashes_at_its_end_fails_the_run(tmp_path: Path) -> None:
    program = """if True:
        import os
        class Crash:
            def pytest_sessionfinish(self):
                os._exit(3)
        def test_it(request):
            request.config.pluginmanager.register(Crash())
    """
    ended = run(tmp_path, program, "-n", "1")
    assert (ended.returncode, "1 passed" in ended.stdout) == (1, True), ended.stdout


def test_a_run_without_a_leak_passes_and_says_how_much_was_examined(tmp_path: Path) -> None:
    ended = run(
        tmp_path,
        "def test_nothing():\n    try:\n        raise OSError('fine')\n    except OSError:\n        pass\n",
    )
    assert ended.returncode == 0, ended.stdout
    assert re.search(r"^secrets: [1-9][0-9]* texts examined, 0 with a secret$", ended.stdout, re.MULTILINE)


def all_of(manager: Any, server: Any) -> list[str]:
    manager.authenticate()
    try:
        held = manager._wallet_secret
        return [manager._private_key, manager.get_token(), held.hex(), repr(held)[2:-1].replace(" ", "")]
    finally:
        manager.close()


@pytest.fixture
def looking(request: pytest.FixtureRequest) -> None:
    if not request.config.pluginmanager.hasplugin("canary.plugin"):
        pytest.skip("this run does not look for secrets")


@pytest.mark.usefixtures("looking")
def test_what_the_suite_s_own_services_hand_out_is_known() -> None:
    server = FakeServer()
    service = Service()
    found = all_of(auth_managers.build(server), server) + all_of(contract_managers.build(service), service)
    found += [server.last(VERIFY).body["signature"], *service.signatures]
    assert len(found) == 10
    assert [text[:4] for text in found if not registry.known(text)] == []


@pytest.mark.usefixtures("looking")
def test_what_libraries_make_is_known() -> None:
    account = Account.create()
    token = jwt.encode(
        {"sub": account.address}, "nobody's secret, and long enough for HS256", algorithm="HS256"
    )
    for text in (bytes(account.key).hex(), token, token.split(".")[2], secrets.token_hex(32)):
        assert registry.known(text)
    assert not registry.known(auth.__doc__ or "0123456789abcdef")
