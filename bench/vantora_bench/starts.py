"""From the start of the process to READY=1."""

from __future__ import annotations

from pathlib import Path

from .device import Device
from .measure import measure, ratio_of_medians
from .reads import row
from .report import Section


def start_to_ready(build: Path, quick: bool) -> Section:
    """The daemon's start beside that of a program that makes the same calls."""
    blocks = 4 if quick else 100
    with Device.booted(build, "Host") as device:
        # What follows READY=1 is then over soon, and does not reach into the next start.
        device.change_setting("network", "enabled", "b", False)
        value, floor = measure(
            device.world, blocks, 1, "start:" + str(build / "vantora-network"), "start:" + str(build / "vantora-bench-start")
        )
    return Section(
        "3. Start to READY=1", [row("start to READY=1", ratio_of_medians(value, floor), 1.15)], [f"{blocks} starts of each"]
    )
