"""The parts that a simulated device is assembled from, for those who look at them or act on them.

None of them knows of the device: it is made of them, and hands them on.
"""

from __future__ import annotations

from dataclasses import dataclass

from .access_point import AccessPoint
from .air import Air
from .plan import Plan
from .settings_daemon import SettingsDaemon
from .station import StationSide
from .world import World


@dataclass(frozen=True)
class Parts:
    """All of them."""

    plan: Plan
    world: World
    air: Air
    access_point: AccessPoint
    station: StationSide
    settings_daemon: SettingsDaemon
