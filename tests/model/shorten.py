"""Makes a run shorter: leaves acts out for as long as what it shows is shown without them."""

from __future__ import annotations

import dataclasses
import math
import time
from collections.abc import Callable

from .acts import Run

LOOKS = 6
"""How often the whole run is done to see how often it shows something."""
MOST_TRIES = 10


def shorten(run: Run, shows: Callable[[Run], bool], seconds: float) -> Run:
    """The shortest run found within so many seconds. `shows` does a run once and tells whether it shows the same.

    What depends on time does not come each time, so a shorter run counts as one that shows nothing only after as many tries
    as make it likely.
    """
    until = time.monotonic() + seconds
    times = sum(shows(run) for _ in range(LOOKS))
    if not times:
        return run
    tries = min(math.ceil(3 * LOOKS / times) if times < LOOKS else 1, MOST_TRIES)
    size = max(len(run) // 2, 1)
    while size:
        start = 0
        while start < len(run):
            if time.monotonic() > until:
                return run
            shorter = dataclasses.replace(run, acts=run.acts[:start] + run.acts[start + size :])
            if any(shows(shorter) for _ in range(tries)):
                run = shorter
            else:
                start += size
        size //= 2
    return run
