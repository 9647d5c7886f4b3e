"""The control socket of a running simulated device: one request and one answer, each a line of JSON.

A request is an object with the name of a command and its arguments, an answer has "text" (what there is to say) or "error".
"""

from __future__ import annotations

import asyncio
import json
from collections.abc import Callable
from pathlib import Path
from typing import Any

from .commands import CommandError
from .loop import LoopThread

CONTROL_SOCKET = "control"
"""Name of the socket in the work folder of a device."""


class Control:
    """The server's side."""

    def __init__(self, loop: LoopThread, run: Callable[[str, dict[str, Any]], str]) -> None:
        """`run` does a command with its arguments and says what was done, or raises CommandError."""
        self._loop = loop
        self._run = run
        self._server: asyncio.AbstractServer | None = None

    def open(self, path: Path) -> None:
        """Begin to serve. The folder of the socket decides who may connect: nobody but its owner."""
        self._server = self._loop.run(asyncio.start_unix_server(self._serve, path))

    def close(self) -> None:
        """Serve no longer."""
        if self._server is not None:
            self._loop.call(self._server.close)
            self._server = None

    async def _serve(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        try:
            line = await reader.readline()
            if line:
                # Not on the loop: commands wait for the world, and the world lives on the loop.
                answer = await asyncio.to_thread(self._answer, line)
                writer.write(json.dumps(answer).encode() + b"\n")
                await writer.drain()
        except (ConnectionError, asyncio.CancelledError):
            pass  # nobody waits for the answer any more
        finally:
            writer.close()

    def _answer(self, line: bytes) -> dict[str, Any]:
        try:
            request = json.loads(line)
            command = request.pop("command")
        except (ValueError, TypeError, AttributeError, KeyError):
            return {"error": 'a request is an object with "command"'}
        try:
            return {"text": self._run(command, request)}
        except CommandError as error:
            return {"error": str(error)}
