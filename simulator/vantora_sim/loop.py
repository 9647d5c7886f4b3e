"""One asyncio loop in a background thread, with a synchronous face.

Everything that plays the outside world lives on this loop; tests and command-line programs call it from their own thread.
One loop serves all worlds of a process: it costs nothing when idle and outlives them all.
"""

from __future__ import annotations

import asyncio
import threading
from collections.abc import Callable, Coroutine
from concurrent.futures import Future
from typing import Any, TypeVar

Result = TypeVar("Result")


class LoopThread:
    """An asyncio loop that runs in a daemon thread for the life of the process."""

    _shared: "LoopThread | None" = None
    _lock = threading.Lock()

    def __init__(self) -> None:
        self.asyncio = asyncio.new_event_loop()
        self._thread = threading.Thread(target=self.asyncio.run_forever, name="vantora-sim", daemon=True)
        self._thread.start()

    @classmethod
    def shared(cls) -> "LoopThread":
        """The loop of this process, started at the first use."""
        with cls._lock:
            if cls._shared is None:
                cls._shared = cls()
            return cls._shared

    def submit(self, coroutine: Coroutine[Any, Any, Result]) -> Future[Result]:
        """Start a coroutine on the loop; its result can be waited for from any other thread."""
        return asyncio.run_coroutine_threadsafe(coroutine, self.asyncio)

    def run(self, coroutine: Coroutine[Any, Any, Result], timeout: float = 60) -> Result:
        """Run a coroutine on the loop and wait for its result."""
        return self.submit(coroutine).result(timeout)

    def call(self, function: Callable[..., Result], *args: Any, timeout: float = 60) -> Result:
        """Call a plain function on the loop's thread and wait for its result; on that thread itself, call it at once."""
        if threading.current_thread() is self._thread:
            return function(*args)

        async def on_loop() -> Result:
            return function(*args)

        return self.run(on_loop(), timeout)
