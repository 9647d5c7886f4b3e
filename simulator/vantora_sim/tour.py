"""The tour: everything the device can do in under half a minute, shown as it happens and checked step by step."""

from __future__ import annotations

import dataclasses
import time
from collections.abc import Callable
from pathlib import Path
from typing import Any, TextIO

from .dbus_fake import CallRefused
from .device import SimulatedDevice
from .journal import DEADLINE, Entry, Pattern, changed, signal
from .plan import Network, Plan
from .view import LiveView, show

_WRONG_KEY = "not the right one"


class TourError(Exception):
    """A step did not do what it should; the text says what was missing."""


class Guide:
    """Says what is done, shows what the daemon says to it, and insists that it is what should be said."""

    def __init__(self, device: SimulatedDevice, out: TextIO, *, verbose: bool) -> None:
        self.device = device
        self.world = device.world
        self._out = out
        self._view = LiveView(device, out, verbose=verbose)
        self._seen: list[Entry] = []
        self._steps = 0

    def step(self, title: str) -> None:
        """Begin a step: what was announced before does not count for it, but for the first, which is about the start."""
        earlier = self._view.advance(0)
        self._seen = [] if self._steps > 0 else earlier
        self._steps += 1
        self._say(f"\n{self._steps}. {title}")

    def do(self, what: str) -> None:
        """Say what is done now."""
        self._say(f"      do     {what}")

    def expect(self, *patterns: Pattern) -> None:
        """Wait until these have been announced in this order, and show everything that is."""
        deadline = time.monotonic() + DEADLINE
        position = 0
        for pattern in patterns:
            while True:
                found = next((index for index in range(position, len(self._seen)) if pattern.matches(self._seen[index])), None)
                if found is not None:
                    position = found + 1
                    break
                if time.monotonic() > deadline:
                    raise TourError(f"waited {DEADLINE:g} s in vain for {pattern}")
                self._seen += self._view.advance(0.2)

    def check(self, name: str, expected: Any) -> Any:
        """Read a property; it must have this value, or satisfy this function."""
        value = self.world.get(name)
        if not (expected(value) if callable(expected) else value == expected):
            raise TourError(f"{name} is {show(value)}" + ("" if callable(expected) else f" instead of {show(expected)}"))
        self._seen += self._view.advance(0)
        self._say(f"      ok     {name} is {show(value)}")
        return value

    def until(self, what: str, condition: Callable[[], bool]) -> None:
        """Wait for something that is not announced."""
        deadline = time.monotonic() + DEADLINE
        while not condition():
            if time.monotonic() > deadline:
                raise TourError(f"waited {DEADLINE:g} s in vain for {what}")
            self._seen += self._view.advance(0.1)

    def _say(self, text: str) -> None:
        print(text, file=self._out, flush=True)


def _steps(guide: Guide, home: Network) -> None:
    world, device = guide.world, guide.device
    ssid = home.ssid.decode()

    guide.step("Boot: the stored settings say access point")
    guide.expect(changed("WiFiState", 1), changed("Mode", "Host"), changed("WiFiAccessPointInitialised", True))
    guide.check("IPAddress", "192.168.8.1")

    guide.step("Two stations join")
    for number, visitor in enumerate(device.plan.visitors[:2], start=1):
        guide.do(f"{visitor.name} joins")
        _insist(world.loop.call(device.access_point.join, visitor.mac), f"{visitor.name} cannot join")
        guide.expect(changed("WiFiConnectedClients", number))
    guide.check("WiFiConnectedClients", 2)

    if device.plan.hears_5_ghz:
        guide.step("Band: 5 GHz")
        guide.do("write WiFiFrequency 5")
        world.set("WiFiFrequency", "5")
        guide.expect(changed("WiFiFrequency", "5"), changed("WiFiAccessPointInitialised", True))
    else:
        guide.step("Band: 5 GHz, which this device has not")
        guide.do("write WiFiFrequency 5")
        _insist(_refused(lambda: world.set("WiFiFrequency", "5")), "the device takes a band that it has not")
        guide.check("WiFiFrequency", "2.4")

    guide.step("Another SSID, as another program of the device stores it")
    guide.do('store device.deviceName "Living Room"')
    device.settings_daemon.change("device", "deviceName", "Living Room")
    # Its value is announced while hostapd starts anew: there may be none just then.
    guide.expect(changed("SSID"), changed("WiFiAccessPointInitialised", True))
    guide.check("SSID", "Living Room")

    guide.step("Switch to station")
    guide.do("write Mode Client")
    world.set("Mode", "Client")
    guide.expect(changed("Mode", "Client"))
    guide.until("wpa_supplicant to come up", lambda: world.wpa.present)

    guide.step("Scan")
    guide.do("call Scan")
    world.call("Scan")
    guide.expect(signal("AccessPointsChanged"))
    guide.check("AccessPoints", lambda found: ssid in [name for name, *_ in found])

    guide.step(f'Connect to "{ssid}" with a wrong passphrase')
    guide.do(f'call Connect "{ssid}" "{_WRONG_KEY}"')
    world.call("Connect", "ss", [ssid, _WRONG_KEY])
    guide.expect(changed("WiFiClientState", "failed"))

    guide.step("Connect with the right one")
    guide.do(f'call Connect "{ssid}" "{home.passphrase}"')
    world.call("Connect", "ss", [ssid, home.passphrase])
    guide.expect(changed("WiFiClientState", "completed"))
    guide.expect(changed("IPAddress", (home.address or "").partition("/")[0]))
    guide.expect(changed("SSID"))
    guide.check("ClientSSID", ssid)

    guide.step("Disconnect")
    guide.do("call Disconnect")
    world.call("Disconnect")
    guide.expect(changed("WiFiClientState", "disconnected"))
    guide.check("ClientSSID", "")
    guide.check("IPAddress", "")

    guide.step("Radio off")
    guide.do("write WiFiState 0")
    world.set("WiFiState", 0)
    guide.expect(changed("WiFiState", 0))
    guide.check("Mode", "unknown")
    _insist(world.radio.soft_blocked, "the radio is not blocked")


def _refused(request: Callable[[], object]) -> bool:
    try:
        request()
    except CallRefused:
        return True
    return False


def _insist(condition: bool, complaint: str) -> None:
    if not condition:
        raise TourError(complaint)


def unsuited(plan: Plan) -> str:
    """Why the tour cannot be made in this world; empty when it can."""
    if plan.joinable is None:
        return "it needs a network with a passphrase and an address that the device hears"
    if len(plan.visitors) < 2:
        return "it needs two stations"
    return ""


def _for_the_tour(plan: Plan) -> Plan:
    """The world as the tour finds it: an access point in the 2.4 GHz band, and nobody who comes by himself."""
    stored = {**plan.settings.get("network", {}), "enabled": True, "mode": "Host", "frequency": "2.4"}
    return dataclasses.replace(
        plan,
        settings={**plan.settings, "network": stored},
        visitors=[dataclasses.replace(visitor, joins_after=None) for visitor in plan.visitors],
    )


def run(plan: Plan, build: Path, out: TextIO, *, verbose: bool = False) -> int:
    """The whole tour in this world, which must suit it; returns the exit status."""
    home = plan.joinable
    assert home is not None
    begun = time.monotonic()
    with SimulatedDevice(_for_the_tour(plan), build) as device:
        guide = Guide(device, out, verbose=verbose)
        try:
            _steps(guide, home)
        except (TourError, CallRefused) as failure:
            print(f"\nFAILED: {failure}\n\n{device.world.journal.dump()}", file=out, flush=True)
            return 1
    print(f"\nAll steps done and checked in {time.monotonic() - begun:.1f} s.", file=out, flush=True)
    return 0
