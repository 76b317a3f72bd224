"""Programs under gevent and eventlet: how they begin, and how they are run."""

from __future__ import annotations

import textwrap

import pytest

from devserver.testing import DevServer
from tests.keeper.support import programs

LIBRARIES = ["gevent", "eventlet"]
_PATCH = {
    "gevent": "from gevent import monkey; monkey.patch_all()\n",
    "eventlet": "import eventlet; eventlet.monkey_patch()\n",
}
_COMMON = """
import os, secrets, signal, socket, sys, threading, time, weakref
from tessaline import http
from tessaline.auth import AuthError, AuthManager
from tessaline.keeper import Keeper
from tests.integrations.in_hub import *

def new_manager(transport):
    return AuthManager(secrets.token_hex(32), server.url, _transport=transport)

def ask(transport, url=None, text="{}"):
    return transport("POST", (url or server.url) + "/auth/challenge", headers={"X-Text": text}, body=text)
"""

each_library = pytest.mark.parametrize("library", LIBRARIES)
each_patched = pytest.mark.parametrize("patched", [True, False], ids=["patched", "not patched"])


def run(server: DevServer, library: str, program: str, *, patched: bool = True) -> None:
    # eventlet warns about its own state, and about forks.
    prelude = f"import warnings; warnings.simplefilter('ignore')\nimport {library}\n"
    prelude += (_PATCH[library] if patched else "") + _COMMON + f"server = Server({server.url!r})\n"
    programs.run(textwrap.dedent(program), prelude=prelude)
