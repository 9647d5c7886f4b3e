"""Many stations that leave at once, beside as many that leave one after the other."""

from __future__ import annotations

from pathlib import Path

from .device import Device
from .measure import Times, measure, ratio_of_medians
from .reads import row
from .report import Section

_STATIONS = 20


def stations_leave(build: Path, quick: bool) -> Section:
    """Each is announced with a count of its own; together they must not be dearer than alone."""
    rounds = 2 if quick else 20
    together, alone = [], []
    with Device.booted(build, "Host") as device:
        device.start_daemon()
        for _ in range(rounds):
            # Not in one run: each of the two would hear what is announced for the other.
            (leaving,) = measure(device.world, 1, 2, "stations-leave")
            together.append([time / _STATIONS for block in leaving.blocks for time in block])
            (single,) = measure(device.world, 1, 2 * _STATIONS, "event")
            alone += single.blocks
    return Section(
        "11. Twenty stations that leave at once",
        [row("for each of 20 stations", ratio_of_medians(Times(together), Times(alone)), 1.0)],
        [f"{2 * rounds} times {_STATIONS} stations together, and as many one by one"],
    )
