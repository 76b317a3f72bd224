"""The recipes run: with the real libraries if these are installed, otherwise with substitutes.

`make real` runs those of Flask and Django with Flask and Django.
"""

from __future__ import annotations

import asyncio
import os
import secrets
import subprocess
import sys
import urllib.request
from collections.abc import Iterator
from pathlib import Path
from types import ModuleType
from typing import Any

import httpx
import pytest
from celery.signals import worker_process_init, worker_process_shutdown

from devserver.testing import DevServer
from tessaline.auth import AuthError
from tests.examples.programs import SECONDS, program
from tests.sanitized import SANITIZER

from .pages import DOCS, Block, code_blocks, run, section

pytestmark = pytest.mark.process

PAGE = DOCS / "recipes.md"
SERVICE = "https://service.example"
RUN_BELOW = ["FastAPI", "Flask", "Django", "Celery", "gunicorn", "Jupyter", "asyncio", "Serverless functions"]


def recipe(heading: str) -> list[Block]:
    return [block for block in code_blocks(PAGE) if block.text in section(PAGE, heading)]


def text_of(block: Block, server: DevServer) -> str:
    return block.text.replace(SERVICE, server.url)


@pytest.fixture(scope="module")
def started() -> Iterator[DevServer]:
    with DevServer() as running:
        yield running


@pytest.fixture
def server(started: DevServer, monkeypatch: pytest.MonkeyPatch) -> DevServer:
    monkeypatch.setenv("WALLET_KEY", secrets.token_hex(32))
    started.reset()
    return started


def logins(server: DevServer) -> int:
    count: int = server.state()["counts"].get("verify", 0)
    return count


def renamed(server: DevServer) -> list[int]:
    return [one["status"] for one in server.requests if one["path"] == "/api/profile/display_name"]


def test_every_block_is_run_here() -> None:
    assert sorted(block.place for name in RUN_BELOW for block in recipe(name)) == sorted(
        block.place for block in code_blocks(PAGE)
    )


def test_fastapi(server: DevServer) -> None:
    (block,) = recipe("FastAPI")
    names: dict[str, Any] = {"__name__": "app"}
    run(block, names, text_of(block, server))
    app = names["app"]

    async def ask() -> object:
        transport = httpx.ASGITransport(app)
        async with (
            app.router.lifespan_context(app),
            httpx.AsyncClient(transport=transport, base_url="http://app") as client,
        ):
            return (await client.post("/name/Ada")).json()

    assert asyncio.run(ask()) == {"status": 200}
    assert (logins(server), renamed(server)) == (1, [200])


class Flask:
    """What the recipe uses of it."""

    def __init__(self, name: str) -> None:
        self.views: dict[str, Any] = {}

    def post(self, rule: str) -> Any:
        return lambda view: self.views.setdefault(rule, view)


def test_flask(server: DevServer, monkeypatch: pytest.MonkeyPatch) -> None:
    stand_in = ModuleType("flask")
    vars(stand_in)["Flask"] = Flask
    monkeypatch.setitem(sys.modules, "flask", stand_in)
    (block,) = recipe("Flask")
    names: dict[str, Any] = {"__name__": "app"}
    run(block, names, text_of(block, server))
    with names["keeper"]:
        assert names["app"].views["/name/<name>"]("Ada") == {"status": 200}
    assert (logins(server), renamed(server)) == (1, [200])


DJANGO = {
    "django/__init__.py": "",
    "django/conf.py": "from project import settings",
    "django/core/__init__.py": "",
    "django/core/wsgi.py": "def get_wsgi_application(): pass",
    "django/http.py": "class JsonResponse(dict): pass",
}


def test_django(server: DevServer, tmp_path: Path) -> None:
    settings = f"WALLET_KEY_FILE = {str(tmp_path / 'wallet.key')!r}\nSERVICE_URL = {server.url!r}\n"
    files = DJANGO | {"project/__init__.py": "", "project/settings.py": settings}
    files |= {block.info.split('"')[1]: block.text for block in recipe("Django")}
    for name, text in files.items():
        (tmp_path / name).parent.mkdir(parents=True, exist_ok=True)
        (tmp_path / name).write_text(text)
    (tmp_path / "wallet.key").touch(0o600)
    (tmp_path / "wallet.key").write_text(os.environ["WALLET_KEY"])
    code = (
        "import project.views, project.service\n"
        "assert project.service.keeper.status().state == 'not started'\n"
        "import project.wsgi\n"
        "print(project.views.rename(None, 'Ada'))\n"
        "project.service.keeper.close()\n"
    )
    path = os.pathsep.join([str(tmp_path), *filter(None, [os.environ.get("PYTHONPATH")])])
    done = subprocess.run(
        [sys.executable, "-c", code],
        env=os.environ | {"PYTHONPATH": path},
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=SECONDS,
    )
    assert (done.returncode, done.stdout, done.stderr) == (0, "{'status': 200}\n", "")
    assert (logins(server), renamed(server)) == (1, [200])


def test_celery(server: DevServer) -> None:
    (block,) = recipe("Celery")
    names: dict[str, Any] = {"__name__": "tasks"}
    run(block, names, text_of(block, server))
    worker_process_init.send(None)
    (keeper,) = names["keepers"]
    assert names["rename"]("Ada") == 200
    worker_process_shutdown.send(None)
    assert (keeper.status().state, names["keepers"]) == ("closed", [])
    assert (logins(server), renamed(server)) == (1, [200])


@pytest.mark.skipif(SANITIZER == "thread", reason="its runtime delivers no signal to the child of a fork")
@pytest.mark.parametrize(("kind", "option"), [(0, "--preload"), (1, "--worker-class=gevent")])
def test_gunicorn(server: DevServer, tmp_path: Path, kind: int, option: str) -> None:
    direct = urllib.request.build_opener(urllib.request.ProxyHandler({}))
    block = recipe("gunicorn")[kind]
    (tmp_path / "app.py").write_text(text_of(block, server))
    options = (option, "--workers=1", "--bind=127.0.0.1:0", f"--worker-tmp-dir={tmp_path}")
    command = ("-m", "gunicorn", "--no-control-socket", f"--chdir={tmp_path}", *options, "app:app")
    with program(*command) as process:
        assert process.stderr is not None
        while "Listening at: " not in (line := process.stderr.readline()):
            assert line, "it has ended"
        with direct.open(line.partition("Listening at: ")[2].split()[0], None, SECONDS) as answer:
            assert answer.read() == b"200"
        process.terminate()
        process.communicate(timeout=SECONDS)
    assert (logins(server), renamed(server)) == (1, [200])


def test_jupyter(server: DevServer, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.chdir(tmp_path)
    Path("wallet.key").touch(0o600)
    Path("wallet.key").write_text(os.environ["WALLET_KEY"])
    (block,) = recipe("Jupyter")
    names: dict[str, Any] = {}
    run(block, names, text_of(block, server))
    first = names["keeper"]
    run(block, names, text_of(block, server))
    assert first.status().state == "closed"
    with names["keeper"], names["session"] as session:
        session.post(f"{server.url}/api/profile/display_name", json={"display_name": "Ada"}, timeout=SECONDS)
    assert (logins(server), renamed(server)) == (2, [200])


def test_asyncio(server: DevServer) -> None:
    (block,) = recipe("asyncio")
    assert run(block, {"__name__": "program"}, text_of(block, server)) == "200\n"
    assert logins(server) == 1


def test_serverless_functions(server: DevServer) -> None:
    (block,) = recipe("Serverless functions")
    names: dict[str, Any] = {}
    run(block, names, text_of(block, server))
    with names["manager"]:
        first = names["handler"]({}, None)
        assert names["handler"]({}, None) == first
        assert logins(server) == 1
    with pytest.raises(AuthError, match="manager_closed"):
        names["handler"]({}, None)
    assert logins(server) == 1
