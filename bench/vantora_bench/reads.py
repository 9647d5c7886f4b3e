"""Reading one property, and reading what runs commands."""

from __future__ import annotations

from pathlib import Path

from .device import BARE_SERVICE, DAEMON, Device
from .measure import Comparison, measure, ratio_of_medians, ratio_of_p99
from .report import Row, Section, seconds


MODE = "pm"
GET_ALL = "".join(["p", "pm", "s", "pm", "pm", "pm", "p", "pm", "pm", "pm"])
"""The commands behind each property in turn, as vantora-bench-measure calls them."""


def row(name: str, comparison: Comparison, goal: float) -> Row:
    """A row whose relation is a ratio."""
    return Row(
        name,
        seconds(comparison.value),
        seconds(comparison.floor),
        f"{comparison.relation:.3f} × ({comparison.low:.3f} to {comparison.high:.3f})",
        f"{goal:.2f} ×",
        comparison.relation <= goal,
    )


def plain_read(build: Path, quick: bool) -> Section:
    """A property that needs no command, beside the same read of a service that has nothing else."""
    blocks, size, rounds = (4, 20, 2) if quick else (2000, 100, 20)
    with Device.booted(build, "Host") as device:
        device.start_bare_service()
        device.start_daemon()
        property_name = "WiFiAccessPointInitialised"
        value, floor = measure(
            device.world, blocks, size, f"get:{DAEMON}:{property_name}", f"get:{BARE_SERVICE}:{property_name}"
        )
    return Section(
        "1. A property read without a command",
        [
            row(f"{property_name}, median", ratio_of_medians(value, floor), 1.05),
            row(f"{property_name}, 99th percentile", ratio_of_p99(value, floor, rounds), 1.05),
        ],
        [f"{blocks * size:,} reads of each"],
    )


def reads_with_commands(build: Path, quick: bool) -> Section:
    """Properties behind commands, beside the same commands run bare."""
    blocks = 4 if quick else 60
    with Device.booted(build, "Host") as device:
        device.start_daemon()
        mode = measure(device.world, blocks, 2 if quick else 10, f"get:{DAEMON}:Mode", f"commands:{MODE}")
        everything = measure(device.world, blocks, 1 if quick else 2, f"getall:{DAEMON}", f"commands:{GET_ALL}")
    return Section(
        "2. Reads that run commands",
        [row("Mode", ratio_of_medians(*mode), 1.10), row("GetAll", ratio_of_medians(*everything), 1.10)],
        [f"Mode runs {len(MODE)} commands, GetAll {len(GET_ALL)}"],
    )
