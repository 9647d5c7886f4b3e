"""Memory after an hour of load."""

from __future__ import annotations

import re
import time
from dataclasses import dataclass
from pathlib import Path

from .device import BARE_SERVICE, DAEMON, Device
from .report import Row, Section

_MINUTE = 60
_PAUSE_MS = 200
_GOALS = {"proportional": 1024, "private dirty": 512}


@dataclass(frozen=True)
class Memory:
    """What a process takes, in KiB."""

    proportional: int
    private_dirty: int

    @classmethod
    def of(cls, pid: int) -> "Memory":
        """What it takes now."""
        text = Path(f"/proc/{pid}/smaps_rollup").read_text(encoding="utf-8")
        found = {key: int(value) for key, value in re.findall(r"^(\w+):\s+(\d+) kB$", text, re.MULTILINE)}
        return cls(found["Pss"], found["Private_Dirty"])


def memory_after_load(build: Path, load_seconds: int) -> Section:
    """The daemon beside a bare service, which both have answered the same number of requests."""
    # Reads of one and of all properties of both, and a station that comes or goes.
    property_name = "WiFiAccessPointInitialised"
    subjects = [
        f"get:{DAEMON}:{property_name}",
        f"get:{BARE_SERVICE}:{property_name}",
        f"getall:{DAEMON}",
        f"getall:{BARE_SERVICE}",
        "event",
    ]
    with Device.booted(build, "Host") as device:
        bare, daemon = device.start_bare_service(), device.start_daemon()
        before = Memory.of(daemon.pid)
        load = device.world.sandbox.start(
            [build / "vantora-bench-measure", "--load", str(load_seconds), str(_PAUSE_MS), *subjects]
        )
        changes = 0
        end = time.monotonic() + load_seconds
        while load.running and time.monotonic() + _MINUTE < end:
            time.sleep(_MINUTE)
            changes += 1
            device.world.set("SSID", f"Korrin {changes % 2}")
        if load.wait(load_seconds + _MINUTE) != 0:
            raise RuntimeError(f"the load ended early: {load.stderr.strip()}")
        after, floor = Memory.of(daemon.pid), Memory.of(bare.pid)
    pairs = {
        "proportional": (after.proportional, floor.proportional),
        "private dirty": (after.private_dirty, floor.private_dirty),
    }
    rows = [
        Row(
            f"memory, {name}",
            f"{value} KiB",
            f"{low} KiB",
            f"+ {value - low} KiB",
            f"+ {_GOALS[name]} KiB",
            value - low <= _GOALS[name],
        )
        for name, (value, low) in pairs.items()
    ]
    return Section(
        "6. Memory after load",
        rows,
        [
            f"after {load_seconds} s of load, {changes} changes of the access point's name among it",
            f"the daemon before the load: {before.proportional} KiB proportional, {before.private_dirty} KiB private dirty",
        ],
    )
