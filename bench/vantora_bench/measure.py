"""Runs vantora-bench-measure, in which a figure and its floor take turns, and compares the two."""

from __future__ import annotations

import statistics
from collections.abc import Sequence
from dataclasses import dataclass

from vantora_sim import World

_PATIENCE = 600


@dataclass(frozen=True)
class Times:
    """Seconds of one subject: a list for each block."""

    blocks: list[list[float]]

    @property
    def median(self) -> float:
        """The median of all runs."""
        return statistics.median(time for block in self.blocks for time in block)

    def p99(self, first: int, last: int) -> float:
        """What 99 of 100 runs of some blocks stay below."""
        times = sorted(time for block in self.blocks[first:last] for time in block)
        return times[(len(times) - 1) * 99 // 100]


@dataclass(frozen=True)
class Comparison:
    """A value, the value of its floor, and how they relate: the median over pairs that were measured side by side, and the
    quartiles of the same."""

    value: float
    floor: float
    relation: float
    low: float
    high: float


def measure(world: World, blocks: int, size: int, *subjects: str) -> list[Times]:
    """The times of some subjects, in blocks that take turns."""
    program = world.build / "vantora-bench-measure"
    completed = world.sandbox.run([program, str(blocks), str(size), *subjects], timeout=_PATIENCE)
    if completed.status != 0:
        raise RuntimeError(f"measuring {' '.join(subjects)} failed: {completed.stderr.strip()}")
    found: list[list[list[float]]] = [[] for _ in subjects]
    for line in completed.stdout.splitlines():
        number, *times = line.split()
        found[int(number)].append([int(time) / 1e9 for time in times])
    return [Times(blocks) for blocks in found]


def ratio_of_medians(value: Times, floor: Times) -> Comparison:
    """The median of a figure as a multiple of its floor's."""
    pairs = zip(value.blocks, floor.blocks, strict=True)
    return _summary(value.median, floor.median, [statistics.median(a) / statistics.median(b) for a, b in pairs])


def ratio_of_p99(value: Times, floor: Times, rounds: int) -> Comparison:
    """The 99th percentile of a figure as a multiple of its floor's; `rounds` parts of the run are compared one by one."""
    size = len(value.blocks) // rounds
    parts = [(value.p99(first, first + size), floor.p99(first, first + size)) for first in range(0, size * rounds, size)]
    return _summary(statistics.median(a for a, _ in parts), statistics.median(b for _, b in parts), [a / b for a, b in parts])


def excess_of_medians(value: Times, floor: Times) -> Comparison:
    """By how many seconds a figure exceeds its floor."""
    pairs = zip(value.blocks, floor.blocks, strict=True)
    return _summary(value.median, floor.median, [statistics.median(a) - statistics.median(b) for a, b in pairs])


def _summary(value: float, floor: float, relations: Sequence[float]) -> Comparison:
    quartiles = statistics.quantiles(relations, n=4, method="inclusive")
    return Comparison(value, floor, relation=quartiles[1], low=quartiles[0], high=quartiles[2])
