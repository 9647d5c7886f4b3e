"""From an event on hostapd's control socket to its signal on the bus."""

from __future__ import annotations

from pathlib import Path

from .device import Device
from .measure import excess_of_medians, measure
from .report import Row, Section, seconds

_GETTER = "pmh"
_GOAL = 0.005


def station_event(build: Path, quick: bool) -> Section:
    """A station joins or leaves; the value that is announced needs commands and a question to hostapd."""
    blocks = 4 if quick else 300
    with Device.booted(build, "Host") as device:
        device.start_daemon()
        value, floor = measure(device.world, blocks, 1, "event", f"commands:{_GETTER}")
    excess = excess_of_medians(value, floor)
    return Section(
        "5. Station event to signal",
        [
            Row(
                "WiFiConnectedClients announced",
                seconds(excess.value),
                seconds(excess.floor),
                f"+ {seconds(excess.relation)} ({seconds(excess.low)} to {seconds(excess.high)})",
                f"+ {seconds(_GOAL)}",
                excess.relation <= _GOAL,
            )
        ],
        [f"{blocks} events"],
    )
