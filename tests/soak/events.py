"""What happens around the daemon while it is asked: stations, wpa_supplicant, settings, addresses, and changes of mode."""

from __future__ import annotations

import random
import time
from collections import Counter

from vantora_sim import Variant, World, log

STATIONS = [f"02:00:00:00:50:{number:02x}" for number in range(8)]
NETWORKS = ["Casa Marisol", "Upstairs", "Attic", "printer-7F2A"]
STATES = ["scanning", "authenticating", "associating", "4way_handshake", "completed", "disconnected"]
NAMES = ["Korrin One", "Kitchen", "Caf\u00e9"]
ADDRESS_PAUSE = 1.0
"""Seconds between two changes of address: the daemon handles one a second, and the kernel drops what it cannot keep."""


_FAREWELL = log(text="wifi_host_terminated: We are supposed to be in host mode. Restart hostapd listener")
_RESTARTED = log(text="restart_wifi_host_listener_callback: Restarting...")
"""The listener is started anew a while after hostapd has said farewell; in between the two the daemon is not at rest."""


class Events:
    """Sends events one at a time, in turns of Host and Client mode that begin and end with Host.

    Each turn begins with a write to Mode, in the middle of everybody else's requests; the turn in the middle begins with the
    radio switched off and on.
    """

    def __init__(self, world: World, total: int, turns: int, seed: int = 1) -> None:
        assert turns % 2 == 1, "the last turn is Host mode, as the first"
        self.world = world
        self.sent: Counter[str] = Counter()
        self.mode = "Host"
        self._starts = {total * turn // turns: turn for turn in range(1, turns)}
        self._power_cycle = 2 * (turns // 4) or 2
        self._chance = random.Random(seed)
        self._last_address = 0.0
        self._addresses = 0
        self._bsss = [world.wpa.add_bss(name) for name in NETWORKS]
        self._number = 0

    def send_one(self) -> None:
        """Let the next thing happen."""
        turn = self._starts.get(self._number)
        if turn is not None:
            self._begin(turn)
        self._number += 1
        if time.monotonic() - self._last_address > ADDRESS_PAUSE:
            self._change_address()
        elif self.mode == "Host":
            self._act_as_access_point()
        else:
            self._act_as_station()

    def rest(self) -> None:
        """Wait until the daemon has handled everything it was told, and follows hostapd, if it is in Host mode."""
        self.world.settle()  # a change of settings may have hostapd started anew
        if self.mode == "Host":
            self.world.journal.wait_until(self._listener_restarted, "the listener to be started anew")
            self.world.hostapd.wait_attached()
            self.world.settle()

    def _listener_restarted(self) -> bool:
        """Whether the latest farewell of hostapd has had its consequence."""
        farewells, restarts = self.world.journal.find(_FAREWELL), self.world.journal.find(_RESTARTED)
        return not farewells or bool(restarts) and restarts[-1].index > farewells[-1].index

    def _begin(self, turn: int) -> None:
        self.mode = "Client" if turn % 2 else "Host"
        self.world.set("Mode", self.mode)
        self.sent["mode switch"] += 1
        if turn == self._power_cycle:
            self.world.set("WiFiState", 0)
            self.world.set("WiFiState", 1)
            self.sent["radio off and on"] += 1

    def _change_address(self) -> None:
        self._last_address = time.monotonic()
        self._addresses += 1
        verb = "add" if self._addresses % 2 else "del"
        # A change of mode may have flushed it meanwhile.
        self.world.try_ip("addr", verb, "10.7.0.5/24", "dev", "wlan0")
        self.sent["kernel address"] += 1

    def _act_as_access_point(self) -> None:
        hostapd = self.world.hostapd
        choice = self._chance.random()
        if choice < 0.02:
            self._change_setting()
            return
        hostapd.wait_attached()
        if choice < 0.08:
            (hostapd.enable if self._chance.random() < 0.5 else hostapd.disable)()
            self.sent["hostapd ready or not"] += 1
            return
        station = self._chance.choice(STATIONS)
        if station in hostapd.stations:
            hostapd.leave(station, linger=False)
        else:
            hostapd.join(station)
        self.sent["station"] += 1

    def _act_as_station(self) -> None:
        wpa = self.world.wpa
        choice = self._chance.random()
        if choice < 0.02:
            # The name is left alone: with a new one the access point is started, in Client mode as well.
            self.world.settings.change("network", frequency=self._chance.choice(["2.4", "5"]))
            self.sent["settings"] += 1
        elif choice < 0.2:
            wpa.bss[self._chance.choice(self._bsss)].signal = -self._chance.randrange(30, 90)
            wpa.report_bsss()
            self.sent["wpa_supplicant networks"] += 1
        else:
            state = self._chance.choice(STATES)
            wpa.report_state(state, self._bsss[0] if state == "completed" else "/")
            wpa.changed(Scanning=Variant("b", state == "scanning"))
            self.sent["wpa_supplicant state"] += 1

    def _change_setting(self) -> None:
        if self._chance.random() < 0.5:
            self.world.settings.change("device", deviceName=self._chance.choice(NAMES))
        else:
            self.world.settings.change("network", frequency=self._chance.choice(["2.4", "5"]))
        self.sent["settings"] += 1
