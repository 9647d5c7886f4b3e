"""The device as a station: wpa_supplicant scans, associates and loses networks like the real one, state word by state word."""

from __future__ import annotations

import asyncio
from typing import Any

from dbus_next import Variant

from .activity import Activity
from .air import Air, announced
from .plan import Network
from .units import STATION
from .world import World
from .wpa_supplicant import INTERFACE, INTERFACE_PATH, NO_BSS

_LAUNCH = 0.2
"""Seconds until wpa_supplicant is on the bus."""
_FULL_SCAN = 2.0
_SEARCH = 0.8
"""Seconds of the scan before an association."""
_STEP = 0.1
"""Seconds between two state words of an association."""
_HANDSHAKE = 0.3
_HANDSHAKE_GIVEN_UP = 1.5
"""Seconds until the access point, which hears nonsense, gives up the handshake."""
_BEFORE_NEXT_TRY = 5.0
_LAST_BEACON = 1.0
"""Seconds without a beacon after which a network counts as lost."""
_UNLINKED = ("disconnected", "inactive", "interface_disabled")
_IDLE = 0.5
"""Seconds until a station without any network to look for calls itself inactive."""


class StationSide:
    """wpa_supplicant as a unit. All functions are for the loop's thread."""

    def __init__(self, world: World, air: Air) -> None:
        self._world = world
        self._air = air
        self._launch = Activity()
        self._scan = Activity()
        self._link = Activity()
        self._paths: dict[str, str] = {}
        """Object path of each known BSS, by its address."""
        self.hanging = False
        """Whether it was stopped in its tracks."""
        self._selected = ""
        self.joined: Network | None = None
        """The network with which an association is complete."""
        world.wpa.on_call.append(self._called)
        air.on_change.append(self._look_at_link)

    # The unit

    async def job(self, verb: str) -> None:
        """systemd has a job for the unit."""
        if verb == "Start" and (self._launch.busy or self._world.wpa.present):
            return
        await self.stop()
        if verb != "Stop":
            self._world.systemd.states[STATION] = "activating"
            self._launch.begin(self._come_up())

    async def stop(self) -> None:
        """It ends as it should: a network that was joined is left first."""
        if self.joined is not None:
            self._lose()
        self._forget()
        self._world.systemd.states.pop(STATION, None)
        await self._world.wpa.close()

    async def kill(self) -> None:
        """It is killed: gone without a word."""
        self._forget()
        self._world.systemd.active[STATION] = False
        self._world.systemd.states[STATION] = "failed"
        await self._world.wpa.close()

    async def start_again(self) -> None:
        """Somebody has the unit restarted."""
        self._world.systemd.active[STATION] = True
        await self.job("Restart")

    def hang(self) -> None:
        """It stops in its tracks: no answer, no notification, whatever happens on the air."""
        self.hanging = True
        for activity in (self._launch, self._scan, self._link):
            activity.cancel()
        self._world.wpa.hang()

    def release(self) -> None:
        """It goes on, and notices what has happened meanwhile."""
        self.hanging = False
        self._world.wpa.clear()
        if not self._world.wpa.present:
            return
        if self._world.radio.blocked:
            self.block()
        elif self.joined is not None:
            self._look_at_link()
        elif self._selected:
            self._link.begin(self._connect())

    def _forget(self) -> None:
        self.hanging = False
        self._world.wpa.clear()
        for activity in (self._launch, self._scan, self._link):
            activity.cancel()
        self._leave()
        self._selected = ""
        self._paths.clear()
        self._world.radio.station_running = False

    async def _come_up(self) -> None:
        await asyncio.sleep(_LAUNCH)
        wpa = self._world.wpa
        wpa.bss.clear()
        self._world.radio.station_running = True
        if self._world.radio.interface_type != "AP":
            self._world.radio.interface_type = "managed"
        await wpa.start(self._world.system_bus.address)
        self._world.systemd.states.pop(STATION, None)
        self._link.begin(self._rest())

    def end(self) -> None:
        """The world ends."""
        for activity in (self._launch, self._scan, self._link):
            activity.cancel()

    # What it is asked

    def _called(self, member: str, args: list[Any]) -> None:
        match member:
            case "Scan":
                if not self._scan.busy:
                    self._scan.begin(self._scan_all())
            case "SelectNetwork":
                self._selected = args[0]
                if self._world.wpa.state not in (*_UNLINKED, "scanning"):
                    self._lose()
                if not self._world.radio.blocked:
                    self._link.begin(self._connect())
            case "RemoveNetwork" if args[0] == self._selected:
                self._give_up()
            case "Disconnect":
                self._give_up()

    def _give_up(self) -> None:
        self._selected = ""
        if self._world.wpa.state not in _UNLINKED:
            self._lose()
        self._link.begin(self._rest())

    async def _rest(self) -> None:
        await asyncio.sleep(_IDLE)
        if not self._world.wpa.networks:
            self._report("inactive")

    # Scanning

    async def _scan_all(self) -> None:
        wpa = self._world.wpa
        wpa.changed(Scanning=Variant("b", True))
        await asyncio.sleep(_FULL_SCAN)
        heard = not self._world.radio.blocked
        if heard:
            self._take_in()
        wpa.emit(INTERFACE_PATH, INTERFACE, "ScanDone", "b", [heard])
        wpa.changed(Scanning=Variant("b", False))
        if heard:
            wpa.report_bsss()

    def _take_in(self) -> None:
        """Bring the known BSSs into line with what is on the air; the one in use stays until it is lost."""
        wpa = self._world.wpa
        found = {network.bssid: network for network in self._air.receivable()}
        for bssid, path in list(self._paths.items()):
            if bssid not in found and path != wpa.current_bss:
                wpa.remove_bss(self._paths.pop(bssid))
        for bssid, network in found.items():
            values = {**announced(network), "signal": self._air.signal(network)}
            if bssid not in self._paths:
                self._paths[bssid] = wpa.add_bss(**values)
            else:
                bss = wpa.bss[self._paths[bssid]]
                for name, value in values.items():
                    setattr(bss, name, value)

    # Associating

    async def _connect(self) -> None:
        """Try until it works, it fails or somebody changes their mind."""
        while self._selected in self._world.wpa.networks:
            self._report("scanning")
            await asyncio.sleep(_SEARCH)
            if not self._world.radio.blocked:
                self._take_in()
                self._world.wpa.report_bsss()
                ssid, passphrase = self._wanted()
                network = self._air.best(ssid, passphrase is not None)
                if network is not None and await self._associate(network, passphrase):
                    return
            if self._world.wpa.state == "scanning":
                self._report("disconnected")
            await asyncio.sleep(_BEFORE_NEXT_TRY)

    def _wanted(self) -> tuple[bytes, str | None]:
        settings = self._world.wpa.networks[self._selected]
        psk = settings.get("psk")
        return settings["ssid"].value.encode(), psk.value if psk is not None else None

    async def _associate(self, network: Network, passphrase: str | None) -> bool:
        for state in ("authenticating", "associating", "associated"):
            self._report(state, bss=self._paths[network.bssid] if state == "associated" else None)
            await asyncio.sleep(_STEP)
            if not self._air.can_hold(network) or self._world.radio.blocked:
                self._lose()
                return False
        if passphrase is not None:
            self._report("4way_handshake")
            right = passphrase == network.passphrase
            await asyncio.sleep(_HANDSHAKE if right else _HANDSHAKE_GIVEN_UP)
            if not right or not self._air.can_hold(network) or self._world.radio.blocked:
                self._lose()
                return False
            self._report("group_handshake")
            await asyncio.sleep(_STEP)
        radio = self._world.radio
        radio.station_ssid, radio.station_bssid, radio.frequency = network.ssid, network.bssid, network.frequency
        self.joined = network
        self._key = network.passphrase
        self._report("completed")
        return True

    def _look_at_link(self) -> None:
        """Something has changed on the air: is the joined network still there, with the same key?"""
        if self.joined is None or self.hanging:
            return
        if not self._air.can_hold(self.joined):
            self._link.begin(self._break(_LAST_BEACON))
        elif self.joined.passphrase != self._key:
            self._link.begin(self._break(_STEP))

    async def _break(self, after: float) -> None:
        await asyncio.sleep(after)
        self._lose()
        await asyncio.sleep(_STEP)
        await self._connect()

    # States

    def _report(self, state: str, bss: str | None = None) -> None:
        self._world.radio.station_state = state.upper()
        self._world.wpa.report_state(state, bss)

    def _lose(self) -> None:
        """There is no link any more."""
        self._leave()
        self._report("disconnected", bss=NO_BSS)

    def _leave(self) -> None:
        self.joined = None
        radio = self._world.radio
        radio.station_ssid, radio.station_state = None, "DISCONNECTED"

    # The radio

    def block(self) -> None:
        """The radio is switched off under it."""
        if self._world.wpa.present and not self.hanging:
            self._leave()
            self._link.cancel()
            self._report("interface_disabled", bss=NO_BSS)

    def unblock(self) -> None:
        """The radio is back."""
        if self._world.wpa.present and not self.hanging:
            self._report("disconnected")
            self._link.begin(self._connect() if self._selected else self._rest())
