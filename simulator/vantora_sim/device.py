"""The simulated device: a world whose neighbours live, with the unmodified daemon and the real settings daemon in it.

    with SimulatedDevice(plan, build) as device:
        device.wait_up()
        device.world.set("Mode", "Client")
"""

from __future__ import annotations

import asyncio
import signal
import threading
import time
from collections.abc import Callable
from pathlib import Path
from typing import Any, Self

from . import commands, furniture, places, units
from .access_point import AccessPoint
from .activity import Activity
from .air import Air
from .control import CONTROL_SOCKET, Control
from .dhcp import DhcpClient
from .journal import DEADLINE, log
from .lasting import Lasting
from .parts import Parts
from .plan import BAND_OF_RADIO_TYPE, Plan
from .settings_daemon import SettingsDaemon
from .station import StationSide
from .words import CONTROL_VARIABLE
from .world import DEVICE, World

_DRIFT = 3.0
_BETWEEN_EVENTS = 0.3
_RESTART = 2.0
"""Seconds after which the service manager starts a daemon again that has ended."""


class SimulatedDevice(Lasting):
    """Everything around the daemon, and the daemon. Entering brings it up as far as the daemon's start."""

    def __init__(self, plan: Plan, build: Path, *, state: Path | None = None) -> None:
        """`state` is a folder in which the settings persist; without it every device is new."""
        self.plan = plan
        state = state.resolve() if state is not None else None
        self.world = World(
            build, device=plan.device, lasting=True, exposed=[*([state] if state else []), *places.hidden_programs(build)]
        )
        self.world.follow_units = False
        self.world.hostapd.before_event = None
        self.world.hostapd.spacing = _BETWEEN_EVENTS
        self.world.systemd.forget_wired_dhcp_server()
        radio_type = int({**DEVICE, **plan.device}["radio_type"])
        self.world.radio.bands = BAND_OF_RADIO_TYPE.get(radio_type, ("2.4",))
        self.air = Air(plan.networks, self.world.radio.bands)
        self.access_point = AccessPoint(self.world, plan.visitors)
        self.station = StationSide(self.world, self.air)
        self.dhcp = DhcpClient(self.world, self.station)
        self.settings_daemon = SettingsDaemon(self.world, state)
        self.parts = Parts(plan, self.world, self.air, self.access_point, self.station, self.settings_daemon)
        """What commands and the view of the state are about."""
        self.restarts = True
        """Whether the service manager starts a network daemon again that has ended."""
        self.before_start: list[Callable[[], None]] = []
        """Called when the world stands and nothing has been started in it yet."""
        self.control = Control(self.world.loop, self.run)
        self._weather = Activity()
        self._ending = threading.Event()
        self._supervisor = threading.Thread(target=self._supervise, name="service manager", daemon=True)
        self._player = threading.Thread(target=self._play, name="events of the world file", daemon=True)
        self.access_point.on_take_over.append(self.station.block)
        self.world.systemd.on_job.append(self._job)
        self.world.radio.on_block.append(self._radio_blocked)

    def __enter__(self) -> Self:
        self.world.__enter__()  # which ends itself where it cannot begin
        super().__enter__()
        return self

    def _begin(self) -> None:
        self.world.try_ip("link", "set", "cable0", "down")
        self.world.settings.go()
        furniture.furnish(self.world)
        for hook in self.before_start:
            hook()
        self.settings_daemon.start()
        self.settings_daemon.store_initial(self.plan.settings)
        self.world.loop.call(lambda: self._weather.begin(self._drift()))
        self.control.open(self.world.work / CONTROL_SOCKET)
        self.world.start_daemon()
        self._supervisor.start()
        self._player.start()

    def close(self) -> None:
        """End everything and leave nothing behind but the state folder."""
        try:
            self.shut_down(timeout=5)
        except AssertionError:
            pass  # what does not end by itself is ended with the sandbox in a moment
        self.world.loop.call(self._end)
        self.world.close()

    def shut_down(self, timeout: float = DEADLINE) -> int | None:
        """Ask both daemons to end; returns the exit status of the network daemon, None when it was never started."""
        self._ending.set()
        if self._supervisor.is_alive():
            self._supervisor.join()
        if self._player.is_alive():
            self._player.join()
        self.control.close()
        daemons = [process for process in (self.world.daemon, self.settings_daemon.process) if process is not None]
        for process in daemons:
            if process.running:
                # It may have been made to hang. Not the other way round: a leak check at the end stops and continues threads.
                process.send_signal(signal.SIGCONT)
                process.send_signal(signal.SIGTERM)
        for process in daemons:
            process.wait(timeout)
        return self.world.daemon.status if self.world.daemon is not None else None

    def _end(self) -> None:
        self._weather.cancel()
        for part in (self.access_point, self.station, self.dhcp):
            part.end()

    def run(self, command: str, arguments: dict[str, Any]) -> str:
        """Do a command of vantora-simctl; returns what there is to say. Not for the loop's thread. Raises CommandError."""
        return commands.run(self.parts, command, arguments)

    def _supervise(self) -> None:
        """The service manager's part: a daemon that has ended is started again."""
        while not self._ending.is_set():
            daemon = self.world.daemon
            if self.restarts and daemon is not None and not daemon.running and not self._ending.wait(_RESTART):
                self.world.start_daemon()
            self._ending.wait(0.1)

    def _play(self) -> None:
        """Do what the world file has happen, each thing at its time. What cannot be done is recorded, and the rest goes on."""
        begun = time.monotonic()
        for event in self.plan.events:
            if self._ending.wait(max(begun + event.at - time.monotonic(), 0)):
                return
            try:
                commands.run(self.parts, event.command, dict(event.arguments), by_plan=True)
            except commands.CommandError as error:
                self.world.journal.add(
                    "world",
                    command=event.command,
                    arguments=event.arguments,
                    text=f"failed: {error}",
                    by_plan=True,
                    failed=True,
                )

    def wait_up(self) -> None:
        """Wait until the daemon has brought the device up as its settings say; an access point is then on the air."""
        self.world.wait_up()
        self.world.journal.wait_until(lambda: not self.coming_up, "the access point to be on the air")
        self.world.settle()

    @property
    def is_up(self) -> bool:
        """The same as a question; a daemon that ends before raises RuntimeError."""
        daemon = self.world.daemon
        if daemon is not None and not daemon.running:
            raise RuntimeError(f"the daemon has ended with status {daemon.status}: {daemon.stderr.strip()}")
        return self.world.journal.count(log("info", "[NETLINK] Starting kernel netlink task...")) > 0 and not self.coming_up

    @property
    def environment(self) -> dict[str, str]:
        """What a program outside needs in its environment to reach the device."""
        return {
            "DBUS_SESSION_BUS_ADDRESS": self.world.user_bus.address,
            "DBUS_SYSTEM_BUS_ADDRESS": self.world.system_bus.address,
            CONTROL_VARIABLE: str(self.world.work / CONTROL_SOCKET),
        }

    @property
    def coming_up(self) -> bool:
        """Whether hostapd is on its way to the air."""
        return self.world.systemd.active[units.HOSTAPD] and not self.access_point.on_air

    # What happens by itself

    async def _drift(self) -> None:
        while True:
            await asyncio.sleep(_DRIFT)
            self.air.drift()

    async def _job(self, verb: str, unit: str) -> None:
        if unit == units.HOSTAPD:
            self.access_point.job(verb)
        elif unit == units.STATION:
            await self.station.job(verb)
        elif unit == units.DHCP_CLIENT:
            self.dhcp.job(verb)

    def _radio_blocked(self, blocked: bool) -> None:
        for side in (self.access_point, self.station):
            if blocked:
                side.block()
            else:
                side.unblock()
