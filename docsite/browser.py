"""Headless Chromium, controlled over its DevTools protocol, as needed to check the documentation."""

from __future__ import annotations

import asyncio
import contextlib
import functools
import http.server
import itertools
import tempfile
import threading
from collections.abc import AsyncGenerator, Generator
from pathlib import Path
from typing import Any

import aiohttp

_PATIENCE = 60.0
_OPTIONS = (
    "--headless",
    "--no-sandbox",
    "--disable-gpu",
    "--disable-background-networking",
    "--disable-component-update",
    "--hide-scrollbars",
    "--no-first-run",
    "--proxy-server=direct://",
    "--remote-debugging-port=0",
)


class _Quiet(http.server.SimpleHTTPRequestHandler):
    def log_message(self, format: str, *args: Any) -> None:
        pass


@contextlib.contextmanager
def served(folder: Path) -> Generator[str]:
    """The folder over HTTP on this machine, as search requires."""
    handler = functools.partial(_Quiet, directory=str(folder))
    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler) as server:
        threading.Thread(target=server.serve_forever, daemon=True).start()
        try:
            yield f"http://127.0.0.1:{server.server_port}"
        finally:
            server.shutdown()


class Tab:
    """One page of the browser."""

    def __init__(self, socket: aiohttp.ClientWebSocketResponse) -> None:
        self._socket = socket
        self._numbers = itertools.count(1)

    async def call(self, method: str, **parameters: Any) -> dict[str, Any]:
        number = next(self._numbers)
        await self._socket.send_json({"id": number, "method": method, "params": parameters})
        async with asyncio.timeout(_PATIENCE):
            while True:
                answer: dict[str, Any] = await self._socket.receive_json()
                if answer.get("id") != number:
                    continue
                if "error" in answer:
                    raise RuntimeError(f"{method}: {answer['error']['message']}")
                result: dict[str, Any] = answer["result"]
                return result

    async def ask(self, script: str) -> Any:
        """The result of a script; a promise is awaited."""
        answer = await self.call("Runtime.evaluate", expression=script, awaitPromise=True, returnByValue=True)
        if "exceptionDetails" in answer:
            raise RuntimeError(answer["exceptionDetails"]["exception"]["description"])
        return answer["result"].get("value")

    async def be_wide(self, width: int) -> None:
        await self.call(
            "Emulation.setDeviceMetricsOverride", width=width, height=900, deviceScaleFactor=1, mobile=False
        )

    async def open(self, url: str) -> None:
        await self.call("Page.navigate", url="about:blank")
        await self.call("Page.navigate", url=url)
        await self.until(f"location.href.startsWith({url!r}) && document.readyState === 'complete'")

    async def until(self, condition: str) -> None:
        async with asyncio.timeout(_PATIENCE):
            while not await self.ask(condition):
                await asyncio.sleep(0.02)


@contextlib.asynccontextmanager
async def chromium(program: str) -> AsyncGenerator[Tab]:
    """A separate browser, without the user's data."""
    with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as folder:
        process = await asyncio.create_subprocess_exec(
            program,
            *_OPTIONS,
            f"--user-data-dir={folder}",
            stdin=asyncio.subprocess.DEVNULL,
            stdout=asyncio.subprocess.DEVNULL,
            stderr=asyncio.subprocess.DEVNULL,
        )
        try:
            port = Path(folder, "DevToolsActivePort")
            async with asyncio.timeout(_PATIENCE):
                while not port.exists() or "\n" not in port.read_text():
                    await asyncio.sleep(0.05)
            base = f"http://127.0.0.1:{port.read_text().split()[0]}"
            async with aiohttp.ClientSession() as session:
                async with session.put(f"{base}/json/new?about:blank") as answer:
                    address = (await answer.json())["webSocketDebuggerUrl"]
                async with session.ws_connect(address, max_msg_size=0) as socket:
                    tab = Tab(socket)
                    await tab.call("Page.enable")
                    yield tab
        finally:
            process.kill()
            await process.wait()
