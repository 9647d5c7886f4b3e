"""The page's server: its files, one stream that carries what happens, and what the page asks for."""

from __future__ import annotations

import asyncio
import contextlib
import json
import secrets
import socket
from collections.abc import Callable
from pathlib import Path
from typing import Any

from aiohttp import WSMsgType, web

from ..loop import LoopThread
from .desk import Desk
from .guard import PROTOCOL, Guard, Keys
from .saved import FORMAT, SavedRun

STATIC = Path(__file__).resolve().parent / "static"
_LIBRARY = Path("/usr/share/javascript/chart.js")
_LIBRARY_FILES = ("chart.mjs", "chunks/helpers.segment.mjs")
_TYPES = {
    ".html": "text/html",
    ".css": "text/css",
    ".js": "text/javascript",
    ".mjs": "text/javascript",
    ".svg": "image/svg+xml",
}
_BATCH = 2000
"""Records in one message."""
_BETWEEN = 0.05
"""Seconds between two messages: what happens meanwhile goes together."""
_ALIVE = 10.0
"""Seconds without anything to say after which the other end is asked for a sign of life."""
_LARGEST_REQUEST = 64 << 10


class DeskError(Exception):
    """The page cannot be served; the text says why."""


class Server:
    """Serves one desk, or one saved run, on the loopback address."""

    def __init__(self, loop: LoopThread, shown: Desk | SavedRun, port: int = 0) -> None:
        """Port 0 lets the system choose one."""
        self._loop = loop
        self._desk = shown if isinstance(shown, Desk) else None
        self._saved = shown if isinstance(shown, SavedRun) else None
        self._run = secrets.token_hex(8)
        self._wanted = port
        self._port = 0
        self._keys = Keys()
        self._runner: web.AppRunner | None = None
        self.on_visit: list[Callable[[], None]] = []
        """Called on the loop after the key of a link has been used up."""
        self._streams: set[web.WebSocketResponse] = set()

    def open(self) -> None:
        """Begin to serve. Not for the loop's thread. Raises DeskError."""
        if not (_LIBRARY / _LIBRARY_FILES[0]).exists():
            raise DeskError("libjs-chart.js is not installed, which draws the curves")
        listener = socket.socket(socket.AF_INET)
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        try:
            listener.bind(("127.0.0.1", self._wanted))
        except OSError as error:
            listener.close()
            raise DeskError(f"port {self._wanted}: {error.strerror}") from None
        self._port = listener.getsockname()[1]
        self._loop.run(self._open(listener))

    async def _open(self, listener: socket.socket) -> None:
        guard = Guard(self._keys, self._port)
        app = web.Application(middlewares=[guard.middleware], client_max_size=_LARGEST_REQUEST)
        app.on_response_prepare.append(guard.add_headers)
        app.router.add_get("/", self._page)
        app.router.add_get("/static/{name}", self._static)
        app.router.add_get("/lib/{name:.+}", self._library)
        app.router.add_post("/api/enter", self._enter)
        app.router.add_post("/api/link", self._link)
        app.router.add_get("/api/stream", self._stream)
        if self._desk is not None:
            for name in ("command", "write", "call"):
                app.router.add_post(f"/api/{name}", self._act)
            app.router.add_post("/api/read", self._read)
            app.router.add_get("/api/settings", self._settings)
            app.router.add_get("/api/replay/{form:script|world}", self._replay)
        # Access is not logged: a terminal that shows a device has better things to show.
        self._runner = web.AppRunner(app, access_log=None, handle_signals=False)
        await self._runner.setup()
        await web.SockSite(self._runner, listener).start()

    def close(self) -> None:
        """Serve no longer; pages that are open learn it at once. Not for the loop's thread."""
        if self._runner is not None:
            self._loop.run(self._close(self._runner))
            self._runner = None

    async def _close(self, runner: web.AppRunner) -> None:
        for stream in list(self._streams):
            with contextlib.suppress(ConnectionError, asyncio.TimeoutError):
                await asyncio.wait_for(stream.close(code=1001, message=b"off"), 1)
        await asyncio.wait_for(runner.cleanup(), 10)

    def new_link(self) -> str:
        """The address of the page with a key that works once. Behind "#" it is sent to nobody and written to no log."""
        return f"http://127.0.0.1:{self._port}/#key={self._loop.call(self._keys.new_link)}"

    # Files

    async def _page(self, request: web.Request) -> web.Response:
        return _file(STATIC / "index.html")

    async def _static(self, request: web.Request) -> web.Response:
        name = request.match_info["name"]
        if name not in {path.name for path in STATIC.iterdir()}:
            raise web.HTTPNotFound
        return _file(STATIC / name)

    async def _library(self, request: web.Request) -> web.Response:
        name = request.match_info["name"]
        if name not in _LIBRARY_FILES:
            raise web.HTTPNotFound
        return _file(_LIBRARY / name)

    # The way in

    async def _enter(self, request: web.Request) -> web.Response:
        visit = self._keys.enter(_text(await _body(request), "key"))
        if visit is None:
            raise web.HTTPForbidden(text="the link was used already, or is of another run")
        for hook in self.on_visit:
            hook()
        return web.json_response({"visit": visit})

    async def _link(self, request: web.Request) -> web.Response:
        return web.json_response({"link": f"http://127.0.0.1:{self._port}/#key={self._keys.new_link()}"})

    # What the page asks for

    async def _act(self, request: web.Request) -> web.Response:
        assert self._desk
        body = await _body(request)
        match request.path:
            case "/api/command":
                arguments = body.get("arguments")
                if not isinstance(arguments, dict):
                    raise web.HTTPBadRequest(text="arguments are an object")
                answer = await self._desk.command(_text(body, "command"), arguments)
            case "/api/write":
                answer = await self._desk.write(_text(body, "name"), _text(body, "value"))
            case _:
                arguments = body.get("arguments")
                if not isinstance(arguments, list) or not all(isinstance(one, str) for one in arguments):
                    raise web.HTTPBadRequest(text="arguments are a list of texts")
                answer = await self._desk.call(_text(body, "member"), arguments)
        return web.json_response(answer)

    async def _read(self, request: web.Request) -> web.Response:
        assert self._desk
        self._desk.surface.refresh()
        return web.json_response({})

    async def _settings(self, request: web.Request) -> web.Response:
        assert self._desk
        return web.json_response(await self._desk.stored())

    async def _replay(self, request: web.Request) -> web.Response:
        assert self._desk
        deeds = self._desk.deeds
        text = deeds.script() if request.match_info["form"] == "script" else deeds.world_file()
        return web.json_response({"text": text})

    # The stream

    async def _stream(self, request: web.Request) -> web.WebSocketResponse:
        stream = web.WebSocketResponse(protocols=(PROTOCOL,), heartbeat=_ALIVE, max_msg_size=1024)
        await stream.prepare(request)
        self._streams.add(stream)
        sender = asyncio.create_task(self._send_saved(stream) if self._saved else self._send_live(stream))
        try:
            async for message in stream:
                if message.type is not WSMsgType.TEXT:
                    break
        finally:
            self._streams.discard(stream)
            sender.cancel()
            with contextlib.suppress(asyncio.CancelledError, ConnectionError):
                await sender
        return stream

    async def _send_live(self, stream: web.WebSocketResponse) -> None:
        assert self._desk
        desk, position, version = self._desk, 0, -1
        await _send(stream, {"type": "hello", "run": self._run, "live": True, "format": FORMAT, **desk.head})
        while not stream.closed:
            if version != desk.version:
                version = desk.version
                await _send(stream, {"type": "now", "state": desk.state, "device": desk.device()})
            records, position, lost = desk.recording.since(position, _BATCH)
            if records:
                await _send(stream, {"type": "records", "records": records, "lost": lost})
            if len(records) < _BATCH:
                if version == desk.version:
                    await desk.recording.wait(_ALIVE)
                await asyncio.sleep(_BETWEEN)

    async def _send_saved(self, stream: web.WebSocketResponse) -> None:
        assert self._saved
        await _send(stream, {**self._saved.head, "type": "hello", "run": self._run, "live": False})
        records = self._saved.records
        for start in range(0, len(records), _BATCH):
            await _send(stream, {"type": "records", "records": records[start : start + _BATCH], "lost": 0})
        await _send(stream, {"type": "end"})


async def _send(stream: web.WebSocketResponse, message: dict[str, Any]) -> None:
    # Escaped to ASCII: names from the air may hold what no UTF-8 can.
    await stream.send_str(json.dumps(message, separators=(",", ":")))


def _file(path: Path) -> web.Response:
    return web.Response(body=path.read_bytes(), content_type=_TYPES[path.suffix], charset="utf-8")


async def _body(request: web.Request) -> dict[str, Any]:
    try:
        body = json.loads(await request.text())
    except (ValueError, RecursionError):
        raise web.HTTPBadRequest(text="a request is JSON") from None
    if not isinstance(body, dict):
        raise web.HTTPBadRequest(text="a request is an object")
    return body


def _text(body: dict[str, Any], name: str) -> str:
    value = body.get(name)
    if not isinstance(value, str):
        raise web.HTTPBadRequest(text=f"{name} is a text")
    return value
