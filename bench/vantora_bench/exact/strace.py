"""Runs programs under strace, and finds in what it writes the piece that a piece of work has caused."""

from __future__ import annotations

import re
import time
from collections.abc import Callable
from pathlib import Path

from vantora_sim import World

from .counts import Counts, difference
from .trace import OPTIONS, Trace
from .wrapper import script_for

_PATIENCE = 300
_READY = r"\x52\x45\x41\x44\x59\x3d\x31"
"""READY=1, as strace shows it."""


class Traced:
    """A program under strace, from its first call on."""

    def __init__(self, path: Path) -> None:
        self._path = path
        self._trace = Trace()
        self._read = 0
        self._rest = ""

    def costs(self, work: Callable[[int], None], times: int) -> Counts:
        """What each of so many requests takes. `work` makes them, and returns when the program has nothing left to do."""
        self._next()
        work(0)
        nothing = self._next()
        work(times)
        return difference(self._next(), nothing, times)

    def _next(self) -> Counts:
        """What has happened since, once the program's loop waits again: its last calls may come a little later than an answer."""
        found: list[str] = []
        deadline = time.monotonic() + _PATIENCE
        while True:
            with open(self._path, encoding="ascii", errors="replace") as file:
                file.seek(self._read)
                text = self._rest + file.read()
                self._read = file.tell()
            whole, _, self._rest = text.rpartition("\n")
            found += whole.splitlines()
            if _waits(found, self._rest):
                return self._trace.counts(self._trace.window(found))
            if time.monotonic() > deadline:
                raise RuntimeError(f"the program does not come to rest: {text[-1000:]}")
            time.sleep(0.005)


def _waits(lines: list[str], begun: str) -> bool:
    """Whether the loop's wait has begun and not ended, where `begun` is a line that is not complete yet."""
    if re.match(r"\d+\s+epoll_wait\(", begun):
        return True
    last = next((line for line in reversed(lines) if "epoll_wait" in line), "")
    main = last.split(maxsplit=1)[:1]
    after = next((line for line in reversed(lines) if line.split(maxsplit=1)[:1] == main), "")
    return bool(main) and "epoll_wait(" in after and after.endswith("<unfinished ...>") and not begun.startswith(main[0])


def up_to_ready(lines: list[str]) -> list[str]:
    """What comes before the program has said that it is ready, and that. Another thread's call may stand in its middle."""
    said = next(number for number, line in enumerate(lines) if _READY in line)
    if not lines[said].endswith("<unfinished ...>"):
        return lines[: said + 1]
    thread = lines[said].split(maxsplit=1)[0]
    returned = next(number for number, line in enumerate(lines) if number > said and line.split(maxsplit=1)[0] == thread)
    return [line for number, line in enumerate(lines[: returned + 1]) if number <= said or number == returned]


class Strace:
    """Runs programs of one world under strace."""

    def __init__(self, world: World) -> None:
        self._world = world

    def wrap(self, program: Path) -> Path:
        """A script, as seen in the sandbox, that is the program under strace: signals for the script reach the program."""
        return script_for(
            self._world, "traced", program, f"/usr/bin/strace -D {' '.join(OPTIONS)} -o /tmp/{program.name}.trace"
        )

    def traced(self, program: Path) -> Traced:
        """What is written of a program that is running."""
        return Traced(self._file(program))

    def whole(self, program: Path, *, until_ready: bool = False) -> Counts:
        """What a program has taken from its start to its end, or until it said that it is ready."""
        lines = self._file(program).read_text(errors="replace").splitlines()
        self._file(program).unlink()
        if until_ready:
            lines = up_to_ready(lines)
        trace = Trace()
        return trace.counts(trace.rest(trace.window(lines)))

    def _file(self, program: Path) -> Path:
        return self._world.work / "tmp" / f"{program.name}.trace"
