"""The most memory that a program holds at once, by valgrind's dhat."""

from __future__ import annotations

import re
from pathlib import Path

from vantora_sim import World

from .counts import Counts
from .wrapper import script_for

_PEAK = re.compile(r"At t-gmax:\s+([\d,]+) bytes")


class Dhat:
    """Runs programs of one world under dhat."""

    def __init__(self, world: World) -> None:
        self._world = world

    def wrap(self, program: Path) -> Path:
        """A script, as seen in the sandbox, that is the program under dhat."""
        options = f"--tool=dhat --dhat-out-file=/dev/null --log-file=/tmp/{program.name}.heap"
        return script_for(self._world, "weighed", program, f"/usr/bin/valgrind {options}")

    def peak(self, program: Path) -> Counts:
        """What a program that has ended held at most, in bytes."""
        log = self._world.work / "tmp" / f"{program.name}.heap"
        match = _PEAK.search(log.read_text())
        if match is None:
            raise RuntimeError(f"dhat has not told of {program.name}: {log.read_text()}")
        log.unlink()
        return {"peak_bytes": int(match[1].replace(",", ""))}
