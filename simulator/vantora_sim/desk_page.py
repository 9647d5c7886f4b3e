"""Serves the page of the desk for the command `vantora-sim`; without its options nothing of the page is imported."""

from __future__ import annotations

import contextlib
import os
import shutil
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path
from typing import TYPE_CHECKING

from .device import SimulatedDevice
from .loop import LoopThread

if TYPE_CHECKING:
    from .desk import Server


class Unavailable(Exception):
    """There can be no page; the text says why."""


def serve(device: SimulatedDevice, port: int, page: contextlib.ExitStack) -> None:
    """Gather what happens to a device and serve it, until the stack is left. Raises Unavailable."""
    with _refusals():
        from .desk import Desk, Server

        desk = Desk(device.parts, device.run)
        desk.open()
        page.callback(desk.close)
        _open(Server(device.world.loop, desk, port), page)


def serve_saved(file: Path, port: int, page: contextlib.ExitStack) -> None:
    """Serve a saved run, until the stack is left. Raises Unavailable."""
    with _refusals():
        from .desk import Server, read_saved

        _open(Server(LoopThread.shared(), read_saved(file), port), page)


@contextlib.contextmanager
def _refusals() -> Iterator[None]:
    try:
        yield
    except ModuleNotFoundError as error:
        raise Unavailable(f"the page needs the packages python3-aiohttp and libjs-chart.js ({error})") from None
    except Exception as error:
        from .desk import DeskError, SavedRunError

        if isinstance(error, (DeskError, SavedRunError)):
            raise Unavailable(str(error)) from None
        raise


def _open(server: Server, page: contextlib.ExitStack) -> None:
    server.open()
    page.callback(server.close)
    server.on_visit.append(lambda: _say(f"To open the page once more: {server.new_link()}"))
    _say(f"See the device: {server.new_link()}")
    if ("DISPLAY" in os.environ or "WAYLAND_DISPLAY" in os.environ) and shutil.which("xdg-open"):
        subprocess.Popen(
            ["xdg-open", server.new_link()],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
            start_new_session=True,
        )


def _say(text: str) -> None:
    print(text, file=sys.stderr, flush=True)
