"""Something that goes on by itself on the loop: one thing at a time, and a new one ends the old one."""

from __future__ import annotations

import asyncio
import sys
import traceback
from collections.abc import Coroutine
from typing import Any


class Activity:
    """What one part of the simulated device is busy with. Use it on the loop only."""

    def __init__(self) -> None:
        self._task: asyncio.Task[None] | None = None

    @property
    def busy(self) -> bool:
        """Whether something is going on."""
        return self._task is not None and not self._task.done()

    def begin(self, coroutine: Coroutine[Any, Any, None]) -> None:
        """Begin this and give up what was going on. Not to be called by what is going on itself."""
        self.cancel()
        self._task = asyncio.get_running_loop().create_task(coroutine)
        self._task.add_done_callback(_complain)

    def cancel(self) -> None:
        """Give up what is going on."""
        if self._task is not None:
            self._task.cancel()
            self._task = None


def _complain(task: asyncio.Task[None]) -> None:
    if not task.cancelled() and task.exception() is not None:
        print("vantora-sim: a part of the simulated device has failed:", file=sys.stderr)
        traceback.print_exception(task.exception())
