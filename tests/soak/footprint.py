"""What a process costs: descriptors, threads and memory, as the kernel counts them."""

from __future__ import annotations

import time
from dataclasses import dataclass
from pathlib import Path

LOOKS = 10
PAUSE = 0.02
DEADLINE = 20.0


@dataclass(frozen=True)
class Footprint:
    """One look at a process. Memory is in KiB."""

    descriptors: int
    threads: int
    rss: int
    pss: int
    private_dirty: int


def count(pid: int, folder: str) -> int:
    """How many entries a folder of /proc/PID has."""
    return sum(1 for _ in Path(f"/proc/{pid}/{folder}").iterdir())


def runs_a_command(pid: int) -> bool:
    """Whether a process has children."""
    return any((thread / "children").read_text() for thread in Path(f"/proc/{pid}/task").iterdir())


def resting_counts(pid: int) -> tuple[int, int]:
    """Descriptors and threads of a process with nothing to do.

    What an event started may still be going on: a thread that ends, a connection about to be closed, a command. So the process is
    looked at until it has had the same counts and no children ten times in a row. What it has lost stays lost, and is counted.
    """
    seen: list[tuple[int, int]] = []
    deadline = time.monotonic() + DEADLINE
    while len(seen) < LOOKS:
        assert time.monotonic() < deadline, "the process does not come to rest"
        time.sleep(PAUSE)
        counts = (count(pid, "fd"), count(pid, "task"))
        try:
            busy = runs_a_command(pid)
        except FileNotFoundError:
            busy = True  # a thread has just ended
        if busy or (seen and counts != seen[-1]):
            seen.clear()
        if not busy:
            seen.append(counts)
    return seen[-1]


def look(pid: int) -> Footprint:
    """The footprint of a process that rests."""
    descriptors, threads = resting_counts(pid)
    memory: dict[str, int] = {}
    for line in Path(f"/proc/{pid}/smaps_rollup").read_text(encoding="utf-8").splitlines()[1:]:
        name, amount = line.split()[:2]
        memory[name] = int(amount)
    return Footprint(descriptors, threads, memory["Rss:"], memory["Pss:"], memory["Private_Dirty:"])
