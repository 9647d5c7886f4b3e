"""The service manager's part in a test: a daemon that has ended is started again, as its unit's Restart=always does."""

from __future__ import annotations

import contextlib
import threading
from collections.abc import Iterator
from types import TracebackType

from vantora_sim import World, notify

PAUSE = 0.1
"""Seconds from an end to the next start; on a device it is RestartSec=, 2 s."""
_LOOK = 0.02


class Supervisor:
    """Starts the daemon of a world and, until it is left, starts it again each time it has ended, however it ended."""

    def __init__(self, world: World, environment: dict[str, str | None] | None = None) -> None:
        self._world = world
        self._environment = environment
        self._leaving = threading.Event()
        self._starting = threading.Lock()
        self._thread = threading.Thread(target=self._watch, name="supervisor", daemon=True)
        self.ends: list[int] = []
        """The status of each end so far; minus the number of a signal."""
        self.starts = 0

    def __enter__(self) -> "Supervisor":
        self._start()
        self._thread.start()
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None) -> None:
        self._leaving.set()
        self._thread.join()

    def wait_started_again(self, ends: int = 1) -> None:
        """Wait until the daemon has ended so many times in all, and has been started again since."""
        self._world.journal.wait_until(lambda: len(self.ends) >= ends and self.starts > ends, f"start number {ends + 1}")

    @contextlib.contextmanager
    def holding_back(self) -> Iterator[None]:
        """Start nothing meanwhile: so that all that the daemon wants is there when it is started."""
        with self._starting:
            yield

    def wait_up_again(self, since: int) -> None:
        """Wait until a daemon that was started after the mark is up."""
        self._world.journal.wait_for(notify("READY=1"), since)
        self._world.wait_up()

    def _start(self) -> None:
        with self._starting:
            self._start_now()

    def _start_now(self) -> None:
        self._world.start_daemon(environment=self._environment)
        self.starts += 1
        self._world.journal.poke()

    def _watch(self) -> None:
        while not self._leaving.wait(_LOOK):
            daemon = self._world.daemon
            assert daemon is not None
            if daemon.running:
                continue
            self.ends.append(daemon.wait())
            self._world.journal.poke()
            if self._leaving.wait(PAUSE):
                return
            self._start()
