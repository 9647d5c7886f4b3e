"""The desk: a page, served on 127.0.0.1, on which a person sees the simulated device and acts on it.

Only `vantora-sim --desk` and `--open` import this package; it needs python3-aiohttp and libjs-chart.js.
"""

from .desk import Desk
from .saved import SavedRun, SavedRunError, read_saved
from .server import DeskError, Server

__all__ = ["Desk", "DeskError", "SavedRun", "SavedRunError", "Server", "read_saved"]
