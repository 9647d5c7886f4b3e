"""What a process costs: descriptors, threads and memory, as the kernel counts them."""

from __future__ import annotations

import statistics
import time
from dataclasses import dataclass
from pathlib import Path

LOOKS = 10
PAUSE = 0.02


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


def resting_counts(pid: int) -> tuple[int, int]:
    """Descriptors and threads of a process with nothing to do.

    What an event started may still be going on (a thread that ends, a connection about to be closed), so the process is looked
    at ten times in a fifth of a second, and the counts seen most often are taken.
    """
    seen: list[tuple[int, int]] = []
    for _ in range(LOOKS):
        seen.append((count(pid, "fd"), count(pid, "task")))
        time.sleep(PAUSE)
    return statistics.mode(seen)


def look(pid: int) -> Footprint:
    """The footprint of a process that rests."""
    descriptors, threads = resting_counts(pid)
    memory: dict[str, int] = {}
    for line in Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines()[1:]:
        name, amount = line.split()[:2]
        memory[name] = int(amount)
    return Footprint(descriptors, threads, memory["Rss:"], memory["Pss:"], memory["Private_Dirty:"])
