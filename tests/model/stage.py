"""The stage: a device on which everything can be done that the outside can do, and that can be made quiet and looked at.

    with Stage(build) as stage:
        stage.begin(mode="Host")
        stage.write("SSID", "somewhere else")
        stage.hostapd_restarts(0.3)
        stage.finish()
"""

from __future__ import annotations

import json
import time
from pathlib import Path

from soak.footprint import Footprint, look

from . import model
from .finding import Finding
from .follower import ANNOUNCED
from .neighbours import Neighbours

REST = 8.0
"""Seconds after which the device has come to rest, where nothing is known that takes longer."""
ADDRESS_EVENT = 1.2
MEMORY_BOUND = 512
"""KiB of private memory that a run may add."""


class Stage(Neighbours):
    """Everything that can be done, and the two acts that judge: `quiet` and `finish`."""

    def __init__(self, build: Path) -> None:
        super().__init__(build)
        self.judges_addresses = False
        self.rest = REST
        self._at_rest: Footprint | None = None

    def begin(self, *, mode: str = "Host", echo: bool = False, real_settings: bool = False) -> None:
        super().begin(mode=mode, echo=echo, real_settings=real_settings)
        if self._at_rest is None:
            self._bring_to_host()
            assert self.world.daemon is not None
            self._at_rest = look(self.world.daemon.pid)
            self._clean()
            self.begin(mode=mode, echo=echo, real_settings=real_settings)

    def quiet(self) -> None:
        """End all faults, wait until the device has come to rest, and compare it with the model."""
        self._calm()
        until = self.rest + self.history.patience
        if self.judges_addresses:
            until += 2.0 + ADDRESS_EVENT * self.history.address_events
        began = time.monotonic()
        pause = 0.02
        self.history.judged = self.world.journal.mark()
        while True:
            seen = self.read_all()
            self.settle()
            faults = model.wrong(self, seen)
            if not faults:
                break
            if time.monotonic() - began > until:
                rule, text = faults[0]
                raise Finding(rule, "; ".join(text for _, text in faults))
            time.sleep(pause)
            pause = min(2 * pause, 0.3)
        self.history.quiet(self.world.journal.mark(), {name: seen[name] for name in ANNOUNCED})

    def finish(self, *, addresses: bool = False) -> None:
        """The same for the last time: descriptors, threads and memory are looked at, too, and the daemon is ended.

        Announcements of addresses, which take seconds, are waited for when `addresses` is set.
        """
        self.judges_addresses = addresses
        try:
            self.quiet()
        finally:
            self.judges_addresses = False
        self._check_addresses()
        self._bring_to_host()
        self._check_flat()
        if self._real_settings:
            self.kill_and_compare_settings()
        self.end()

    # Making it quiet

    def _calm(self) -> None:
        self.check_alive()
        self.release_everything()
        self.stop_lag = self.start_lag = 0.0
        self.comes_up = True
        self._wait_orders_done()
        self.world.loop.call(self._drop_lingering)
        self.wait_events_read()
        self.settle()
        if self._real_settings:
            self.kill_and_compare_settings()
        if self.history.disturbed:
            self._check_in_disorder()
            self._remedy()

    def _check_in_disorder(self) -> None:
        """What the daemon has heard of hostapd it knows, in whatever state the device is."""
        heard = self.history.initialised
        if heard is None or self.history.disturbed & {"descriptors", "deaf"}:
            return
        deadline = time.monotonic() + self.rest + self.history.patience
        while (told := self.read("WiFiAccessPointInitialised")) != self.history.initialised:
            if time.monotonic() > deadline:
                raise Finding("access_point", f"the last word of hostapd is {heard}, WiFiAccessPointInitialised is {told}")
            time.sleep(0.05)

    def _drop_lingering(self) -> None:
        """hostapd forgets stations that have left a while ago."""
        hostapd = self.world.hostapd
        hostapd.stations[:] = hostapd._joined()
        hostapd._lingering.clear()

    def _remedy(self) -> None:
        """What the documentation says that somebody does who finds the device in disorder: another mode, and back."""
        history = self.history
        history.disturbed.clear()
        history.complaints.add("remedy")
        history.remedied = True
        history.gap = True
        history.stored.clear()
        self.write("WiFiState", 1)
        self.write("Mode", "Client")
        self.write("Mode", "Host")
        self.settle()
        deadline = time.monotonic() + self.rest + history.patience
        while not self.world.loop.call(self.live_listeners):
            if time.monotonic() > deadline:
                raise Finding("listener", "nobody is attached to hostapd although its mode was set anew")
            time.sleep(0.02)
        history.disturbed.clear()
        self.wait_events_read()
        self.access_point_says([True])
        self.settle()
        history.heard.clear()
        history.station = None
        history.known = {}
        history.since = self.world.journal.mark()

    def _bring_to_host(self) -> None:
        self.write("WiFiState", 1)
        self.write("Mode", "Host")
        self.settle()

    # Judging what is no property

    def follows_addresses(self) -> bool:
        """Whether somebody in the device follows the kernel's addresses."""
        sockets = Path(f"/proc/{self.world.sandbox.init}/net/netlink").read_text(encoding="utf-8")
        return any(line.split()[3] == "00000011" for line in sockets.splitlines()[1:])

    def _check_addresses(self) -> None:
        found = json.loads(self.world.sandbox.sh("/usr/sbin/ip -j -4 addr show dev wlan0").stdout or "[]")
        addresses = [address["local"] for link in found for address in link.get("addr_info", [])]
        told, true = self.read("IPAddress"), addresses[0] if addresses and not self.world.radio.blocked else ""
        if told != true:
            raise Finding("addresses", f"the address of wlan0 is {true!r}, IPAddress is {told!r}")

    def _check_flat(self) -> None:
        assert self.world.daemon is not None and self._at_rest is not None
        before = self._at_rest
        deadline = time.monotonic() + self.rest
        while True:
            now = look(self.world.daemon.pid)
            if (now.descriptors, now.threads) == (before.descriptors, before.threads):
                break
            if time.monotonic() > deadline:
                raise Finding(
                    "flat",
                    f"{before.descriptors} descriptors and {before.threads} threads at first, "
                    f"{now.descriptors} and {now.threads} in the end",
                )
        if not self.is_sanitized and now.private_dirty > before.private_dirty + MEMORY_BOUND:
            raise Finding("flat", f"{before.private_dirty} KiB of private memory at first, {now.private_dirty} in the end")
