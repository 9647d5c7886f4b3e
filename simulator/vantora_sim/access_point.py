"""The device's own access point: hostapd takes its time, stations come and go."""

from __future__ import annotations

import asyncio
from collections.abc import Callable

from .activity import Activity
from .hostapd_conf import read_hostapd_conf
from .plan import Visitor
from .units import HOSTAPD
from .world import World

_DRIVER = 0.1
"""Seconds until the interface is an access point, and again until the control socket is there."""
_SURVEY = 1.5
"""Seconds that hostapd looks for a free channel before the access point is on the air."""
_LONGEST_SURVEY = 6.0
"""It looks longer while nobody listens to it: a device in which the first report was lost would show nothing."""
_BETWEEN_STATIONS = 0.4
_COME_BACK = 1.5
"""Seconds after which stations that know the network are back."""
_LONGEST_SSID = 32


class AccessPoint:
    """hostapd as a unit, with the interface under it. All functions are for the loop's thread, but join and leave."""

    def __init__(self, world: World, visitors: list[Visitor]) -> None:
        self._world = world
        self.visitors = visitors
        self._start = Activity()
        self._traffic = Activity()
        self.hanging = False
        """Whether it was stopped in its tracks."""
        self._known: dict[str, bytes] = {}
        """Stations that want to be here: the name of the network that they joined."""
        self.on_air = False
        self.on_take_over: list[Callable[[], None]] = []
        """Called when hostapd makes the interface its own."""

    def job(self, verb: str) -> None:
        """systemd has a job for the unit."""
        if verb == "Stop":
            self.stop()
        elif verb == "Restart" or not (self._start.busy or self._world.hostapd.running):
            self._leave_air()
            self._world.hostapd.terminate()
            # hostapd that ends gives the interface back, and its successor takes its time to make it its own.
            self._world.radio.interface_type = "managed"
            self._start.begin(self._come_up())

    def stop(self) -> None:
        """hostapd ends as it should, and the interface is an ordinary one again."""
        self._start.cancel()
        self._leave_air()
        self._world.hostapd.terminate()
        self._world.radio.interface_type = "managed"
        self._world.systemd.states.pop(HOSTAPD, None)

    def kill(self) -> None:
        """hostapd is killed: no word to anybody, the interface stays as it was."""
        self._start.cancel()
        self._leave_air()
        self._world.hostapd.kill()
        self._fail()

    def start_again(self) -> None:
        """Somebody has the unit restarted."""
        self._world.systemd.active[HOSTAPD] = True
        self.job("Restart")

    def hang(self) -> None:
        """hostapd stops in its tracks: no answer, no event."""
        self.hanging = True
        self._traffic.cancel()
        self._world.hostapd.hang()

    def release(self) -> None:
        """It goes on."""
        self.hanging = False
        self._world.hostapd.clear()

    async def _come_up(self) -> None:
        world = self._world
        configuration = read_hostapd_conf(world.hostapd_conf)
        ssid = configuration.get(b"ssid", b"")
        world.systemd.states[HOSTAPD] = "activating"
        await asyncio.sleep(_DRIVER)
        if world.radio.blocked or not 0 < len(ssid) <= _LONGEST_SSID:
            world.radio.interface_type = "managed"
            self._fail()
            return
        for hook in self.on_take_over:
            hook()
        world.radio.interface_type = "AP"
        world.radio.ap_ssid = ssid
        world.radio.frequency = 5180 if configuration.get(b"hw_mode") == b"a" else 2437
        await asyncio.sleep(_DRIVER)
        world.hostapd.start()
        world.systemd.states.pop(HOSTAPD, None)
        await self._survey()
        self.on_air = True
        world.journal.poke()
        world.hostapd.enable()
        self._traffic.begin(self._arrivals(ssid))

    async def _survey(self) -> None:
        clock = asyncio.get_running_loop().time
        begun = clock()
        await asyncio.sleep(_SURVEY)
        while not self._world.hostapd.attached and clock() - begun < _LONGEST_SURVEY:
            await asyncio.sleep(_DRIVER)

    async def _arrivals(self, ssid: bytes) -> None:
        """Stations that know the network return, those that come by themselves come."""
        awaited = [(_COME_BACK, mac) for mac, known in self._known.items() if known == ssid]
        awaited += [
            (visitor.joins_after, visitor.mac)
            for visitor in self.visitors
            if visitor.joins_after is not None and visitor.mac not in self._known
        ]
        now = 0.0
        for when, mac in sorted(awaited):
            await asyncio.sleep(max(when - now, _BETWEEN_STATIONS))
            now = max(when, now + _BETWEEN_STATIONS)
            self._associate(mac)

    def _associate(self, mac: str) -> None:
        if mac not in self._world.hostapd.stations:
            self._known[mac] = self._world.radio.ap_ssid
            self._world.hostapd.join(mac)

    def _leave_air(self) -> None:
        """Whatever process there was ends, hanging or not."""
        self.release()
        self.on_air = False
        self._traffic.cancel()

    def _fail(self) -> None:
        self._world.systemd.active[HOSTAPD] = False
        self._world.systemd.states[HOSTAPD] = "failed"

    # Stations

    def join(self, mac: str) -> bool:
        """A station comes; false when there is no access point to join."""
        if not self.on_air or self.hanging or self._world.radio.blocked:
            return False
        self._associate(mac)
        return True

    def leave(self, mac: str) -> bool:
        """A station goes away and does not come back by itself; false when it is not here."""
        self._known.pop(mac, None)
        if mac not in self._world.hostapd.stations or self.hanging:
            return False
        self._world.hostapd.leave(mac, linger=False)
        return True

    # The radio

    def block(self) -> None:
        """The radio is switched off under it."""
        if self._world.hostapd.running and self.on_air:
            self.on_air = False
            self._traffic.begin(self._lose_everybody())

    async def _lose_everybody(self) -> None:
        for mac in list(self._world.hostapd.stations):
            self._world.hostapd.leave(mac, linger=False)
            await asyncio.sleep(_BETWEEN_STATIONS)
        self._world.hostapd.event("INTERFACE-DISABLED ")

    def unblock(self) -> None:
        """The radio is back."""
        if self._world.hostapd.running and not self.on_air:
            self._traffic.begin(self._return_to_air())

    async def _return_to_air(self) -> None:
        self._world.hostapd.event("INTERFACE-ENABLED ")
        self.on_air = True
        await self._arrivals(self._world.radio.ap_ssid)

    def end(self) -> None:
        """The world ends."""
        self._start.cancel()
        self._traffic.cancel()
