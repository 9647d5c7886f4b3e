"""The real programs behind the units: systemd's manager stays the scripted one, but a job starts and stops processes.

As with the real one, a job is answered at once and carried out afterwards, one after the other for each unit.
"""

from __future__ import annotations

import asyncio
from collections.abc import Callable, Mapping, Sequence
from dataclasses import dataclass, field
from pathlib import Path

from vantora_sim import Process, World


def _nothing() -> None:
    pass


@dataclass(frozen=True)
class Service:
    """What a unit runs. The two functions are called on the world's loop."""

    command: Sequence[str | Path]
    environment: Mapping[str, str | None] = field(default_factory=dict)
    before_start: Callable[[], None] = _nothing
    after_stop: Callable[[], None] = _nothing


class Services:
    """The processes of a world's units."""

    def __init__(self, world: World, services: Mapping[str, Service]) -> None:
        self._world = world
        self._services = services
        self._turns: dict[str, asyncio.Lock] = {unit: asyncio.Lock() for unit in services}
        self._jobs: set[asyncio.Task[None]] = set()
        self._processes: dict[str, list[Process]] = {unit: [] for unit in services}
        self.failures: list[BaseException] = []
        """What went wrong while carrying out jobs; nothing, in a test that passes."""
        world.follow_units = False
        world.systemd.on_job.append(self._accept)

    def job(self, verb: str, unit: str) -> None:
        """A job by somebody else ("Start", "Restart", "Stop"); returns when it has been carried out."""
        self._world.systemd.active[unit] = verb != "Stop"
        self._world.loop.run(self._carry_out(verb, unit))

    def process(self, unit: str) -> Process:
        """The latest process of a unit that was started."""
        return self._world.journal.wait_until(lambda: self._processes[unit][-1:], f"{unit} to be started")[0]

    def processes(self, unit: str) -> list[Process]:
        """All processes of a unit that were started, whether they still run or not."""
        return list(self._processes[unit])

    def started(self, unit: str) -> int:
        """How often the unit's program was started."""
        return len(self._processes[unit])

    async def _accept(self, verb: str, unit: str) -> None:
        if unit in self._services:
            job = asyncio.create_task(self._carry_out(verb, unit))
            self._jobs.add(job)
            job.add_done_callback(self._done)

    def _done(self, job: "asyncio.Task[None]") -> None:
        self._jobs.discard(job)
        if not job.cancelled() and job.exception() is not None:
            self.failures.append(job.exception() or RuntimeError("no exception"))

    async def _carry_out(self, verb: str, unit: str) -> None:
        service = self._services[unit]
        async with self._turns[unit]:
            running = [process for process in self._processes[unit] if process.running]
            if verb != "Start":
                for process in running:
                    await asyncio.to_thread(process.stop)
                service.after_stop()
                running = []
            if verb != "Stop" and not running:
                service.before_start()
                self._processes[unit].append(self._world.sandbox.start(service.command, service.environment))
        self._world.journal.poke()
