"""The DHCP client of `wlan0`: a unit that, once restarted, brings an address into the kernel."""

from __future__ import annotations

import asyncio

from .activity import Activity
from .station import StationSide
from .world import World

_LEASE = 0.5
"""Seconds from the start of the client to the lease."""


class DhcpClient:
    """udhcpc as a unit. All functions are for the loop's thread."""

    def __init__(self, world: World, station: StationSide) -> None:
        self._world = world
        self._station = station
        self._activity = Activity()
        self._address: str | None = None

    def job(self, verb: str) -> None:
        """systemd has a job for the unit."""
        if verb == "Start" and self._activity.busy:
            return
        self._activity.begin(self._run(lease=verb != "Stop"))

    def end(self) -> None:
        """The world ends."""
        self._activity.cancel()

    async def _run(self, lease: bool) -> None:
        """What it had is given up first, as the device's own script does; then it asks until it is answered."""
        old, self._address = self._address, None
        if old is not None:
            await asyncio.to_thread(self._world.try_ip, "addr", "del", old, "dev", "wlan0")
        if not lease:
            return
        await asyncio.sleep(_LEASE)
        while self._station.joined is None or self._station.joined.address is None:
            await asyncio.sleep(_LEASE)
        self._address = self._station.joined.address
        await asyncio.to_thread(self._world.try_ip, "addr", "replace", self._address, "dev", "wlan0")
