"""scripts/bench --exact: counts everything, and writes it down or compares it."""

from __future__ import annotations

import concurrent.futures
import multiprocessing
import os
import time
from pathlib import Path

from .baseline import ALLOWED, Baseline, Figures, made_with
from .figures import PARTS, merge

_COLUMNS = ("instructions", "allocations", "peak_bytes", "system calls", "waits", "processes")


def exact(build: Path, path: Path, *, check: bool) -> int:
    """Count; write the baseline, or with `check` compare with it: 0 when nothing is dearer, 1 otherwise."""
    begin = time.monotonic()
    found = Baseline(made_with(build), _count(build))
    _show(found.figures)
    print(f"\ncounted in {time.monotonic() - begin:.0f} s")
    if not check:
        found.save(path)
        print(f"written to {path}")
        return 0
    return report(Baseline.load(path), found, path)


def report(baseline: Baseline, found: Baseline, path: Path) -> int:
    """Print what a comparison has found; 0 when nothing is dearer or missing, 1 otherwise."""
    comparison = baseline.compare(found)
    for note in comparison.notes:
        print(f"note: {note}")
    for failure in comparison.failures:
        print(f"FAILED: {failure}")
    if comparison.failures:
        print(f"{len(comparison.failures)} beyond {path.name} by more than {ALLOWED:.0%}, or missing. Where that is meant,")
        print("./scripts/bench --exact writes the new numbers, which belong into the same commit.")
        return 1
    print(f"nothing is dearer than {path.name} says")
    return 0


def _count(build: Path) -> Figures:
    # Each part has a device, and processes of its own: they do not disturb each other's numbers.
    context = multiprocessing.get_context("spawn")
    with concurrent.futures.ProcessPoolExecutor(max_workers=os.cpu_count(), mp_context=context) as pool:
        return merge([part.result() for part in [pool.submit(count, build) for count in PARTS.values()]])


def _show(figures: Figures) -> None:
    print(f"{'':<28} {'':<16} " + " ".join(f"{column:>13}" for column in _COLUMNS))
    for figure, sides in figures.items():
        for side, counts in sides.items():
            calls = sum(value for name, value in counts.items() if name.startswith(("calls.", "child.")))
            row = {**counts, "system calls": round(calls, 2)}
            cells = (f"{row[column]:>13,}" if row.get(column) else f"{'':>13}" for column in _COLUMNS)
            print(f"{figure:<28} {side:<16} " + " ".join(cells))
