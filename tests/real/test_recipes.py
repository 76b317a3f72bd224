"""The recipes for Flask and Django, with Flask and Django."""

from __future__ import annotations

import os
import secrets
import subprocess
import sys
from pathlib import Path

import pytest

from devserver.testing import DevServer
from tests.docs.test_recipes import recipe
from tests.sanitized import patience

FLASK = """
client = app.test_client()
assert client.post("/name/Ada").json == {"status": 200}
keeper.close()
"""
SETTINGS = """
ALLOWED_HOSTS = ["testserver"]
ROOT_URLCONF = "project.urls"
SECRET_KEY = "of a test"
"""
URLS = """
from django.urls import path
from django.views.decorators.csrf import csrf_exempt
from project.views import rename
urlpatterns = [path("name/<name>", csrf_exempt(rename))]
"""
DJANGO = """
import project.wsgi
from django.test import Client
from project.service import keeper
assert Client().post("/name/Ada").json() == {"status": 200}
keeper.close()
"""


def run(code: str, folder: Path, **variables: str) -> None:
    search = [str(folder), os.environ["TESSALINE_REAL_PACKAGES"], os.environ.get("PYTHONPATH", "")]
    done = subprocess.run(
        [sys.executable, "-c", code],
        env=os.environ | {"PYTHONPATH": os.pathsep.join(filter(None, search))} | variables,
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=patience(30.0),
    )
    assert (done.returncode, done.stderr) == (0, "")


@pytest.fixture
def own(tmp_path: Path) -> Path:
    (tmp_path / "project").mkdir()
    return tmp_path


def test_flask(own: Path) -> None:
    (block,) = recipe("Flask")
    with DevServer() as server:
        code = block.text.replace("https://service.example", server.url)
        run(code + FLASK, own, WALLET_KEY=secrets.token_hex(32))
        assert server.state()["counts"]["verify"] == 1


def test_django(own: Path) -> None:
    (own / "wallet.key").touch(0o600)
    (own / "wallet.key").write_text(secrets.token_hex(32))
    with DevServer() as server:
        named = f"WALLET_KEY_FILE = {str(own / 'wallet.key')!r}\nSERVICE_URL = {server.url!r}\n"
        files = {"project/settings.py": SETTINGS + named, "project/urls.py": URLS, "project/__init__.py": ""}
        files |= {block.info.split('"')[1]: block.text for block in recipe("Django")}
        for name, text in files.items():
            (own / name).write_text(text)
        run(DJANGO, own)
        assert server.state()["counts"]["verify"] == 1
