"""A setting that is stored, beside the file operations that this needs."""

from __future__ import annotations

from pathlib import Path

from .device import Device
from .measure import measure, ratio_of_medians
from .reads import row
from .report import Section


def stored_setting(build: Path, quick: bool) -> Section:
    """From the call to the settings daemon to its answer, after which the value is on the disk."""
    blocks = 4 if quick else 300
    with Device.booted(build, "Host") as device:
        device.change_setting("display", "brightness", "i", 41)  # so that there is a file, which the floor copies
        value, floor = measure(device.world, blocks, 1, "setting", "setting:file")
    return Section(
        "10. A setting that is stored",
        [row("a setting stored", ratio_of_medians(value, floor), 1.10)],
        [f"{blocks} writes of each; the floor writes, syncs, links and renames, and there is no bus in it"],
    )
