"""The client's status beside busctl, which reads the same properties."""

from __future__ import annotations

from pathlib import Path

from .device import Device
from .exact.figures import BUSCTL, BUSCTL_ARGUMENTS
from .measure import measure, ratio_of_medians
from .reads import row
from .report import Section


def status(build: Path, quick: bool) -> Section:
    """A whole run of each program, from its start to its end."""
    blocks = 4 if quick else 100
    with Device.booted(build, "Host") as device:
        device.start_daemon()
        client, busctl = f"run:{build / 'vantora-wifi'} status", f"run:{' '.join([str(BUSCTL), *BUSCTL_ARGUMENTS])}"
        value, floor = measure(device.world, blocks, 1, client, busctl)
    return Section(
        "12. vantora-wifi status",
        [row("vantora-wifi status, beside busctl", ratio_of_medians(value, floor), 1.0)],
        [f"{blocks} runs of each"],
    )
