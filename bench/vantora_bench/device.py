"""A world to measure in: the real buses and the real settings daemon, and neighbours that answer at once.

The neighbours of the tests are scripts: they take longer to answer than the daemon to ask, and would hide its cost.
"""

from __future__ import annotations

import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path

from dbus_next.aio import MessageBus
from vantora_sim import DEADLINE, Process, Variant, World, settings
from vantora_sim.dbus_fake import PROPERTIES

BARE_SERVICE = "com.vantora.bench.BareService"
DAEMON = "com.vantora.Network1"

_RFKILL = "0: phy0: Wireless LAN\n\tSoft blocked: no\n\tHard blocked: no\n"
_IW = (
    "Interface wlan0\n\tifindex 3\n\twdev 0x1\n\taddr 02:00:00:00:10:01\n\tssid Korrin One-3456\n\ttype {kind}\n\twiphy 0\n"
    "\tchannel 6 (2437 MHz), width: 20 MHz (no HT), center1: 2437 MHz\n\ttxpower 20.00 dBm\n"
)
_IW_TYPES = {"Host": "AP", "Client": "managed"}


class Device:
    """A device in one mode ("Host" or "Client"), with no daemon started yet."""

    def __init__(self, world: World, mode: str, patience: float) -> None:
        self.world = world
        self.mode = mode
        self._patience = patience
        self._build = world.build

    @classmethod
    @contextmanager
    def booted(
        cls, build: Path, mode: str, settings: Callable[["Device"], Path] | None = None, patience: float = DEADLINE
    ) -> Iterator["Device"]:
        """A device with its neighbours; taken down at the end. `settings` names a program to start in the place of the
        settings daemon, `patience` how many seconds a program may take to come up."""
        with World(build, lasting=True) as world:
            device = cls(world, mode, patience)
            device._furnish(settings(device) if settings else build / "vantora-settingsd")
            yield device

    def _furnish(self, settings_daemon: Path) -> None:
        world = self.world
        world.follow_units = False
        tools = world.work / "run/sim/bin"
        for name, output in (("rfkill", _RFKILL), ("iw", _IW.format(kind=_IW_TYPES[self.mode]))):
            (tools / f"{name}.out").write_text(output)
            (tools / name).unlink()
            (tools / name).write_bytes((self._build / "vantora-bench-tool").read_bytes())
            (tools / name).chmod(0o755)
        self.start_stand_in("log", "/run/sim/log")
        if self.mode == "Host":
            self.start_stand_in("hostapd")
        world.settings.go()
        self.settings = world.sandbox.start([settings_daemon, "--state", "/run/sim/settings.json"])
        self._wait_for_name(settings.SERVICE)
        self.change_setting("network", "mode", "s", self.mode)

    def start_stand_in(self, name: str, *arguments: str) -> Process:
        """Start a neighbour and wait until it serves."""
        process = self.world.sandbox.start([self._build / f"vantora-bench-{name}", *arguments])
        deadline = time.monotonic() + self._patience
        while "ready" not in process.stdout:
            assert process.running and time.monotonic() < deadline, f"the stand-in for {name} does not come up"
            time.sleep(0.01)
        return process

    def start_daemon(self, program: Path | None = None) -> Process:
        """Start the daemon, or what is named in its place, and wait until its deferred start-up is over."""
        daemon = self.world.start_daemon(program)
        self.world.wait_ready(self._patience)
        self.world.wait_follows_addresses(self._patience)
        self.world.settle()
        assert self.world.get("Mode") == self.mode
        return daemon

    def start_bare_service(self, program: Path | None = None) -> Process:
        """Start the service that is the floor, or what is named in its place."""
        service = self.world.sandbox.start([program or self._build / "vantora-bench-service"])
        self._wait_for_name(BARE_SERVICE)
        return service

    def change_setting(self, section: str, key: str, signature: str, value: object) -> None:
        """Change a setting as another program of the device does."""
        self.world.call_service_async(
            settings.SERVICE,
            f"{settings.BASE_PATH}/{section}",
            PROPERTIES,
            "Set",
            "ssv",
            [settings.SERVICE, key, Variant(signature, value)],
        ).result(self._patience)

    def lengthen_bus_names(self) -> None:
        """From now on whoever comes to a bus is given a name of the same length, for a while: ":1." and three digits."""
        connections = 100

        async def come_and_go(address: str) -> None:
            for _ in range(connections):
                bus = await MessageBus(bus_address=address).connect()
                bus.disconnect()
                await bus.wait_for_disconnect()

        for bus in (self.world.user_bus, self.world.system_bus):
            self.world.loop.run(come_and_go(bus.address))

    def settle(self, service: str) -> None:
        """Return when a service on the user bus has nothing left to do of what had reached it."""
        for _ in range(2):
            self.world.call_service_async(service, "/", "org.freedesktop.DBus.Peer", "Ping").result(self._patience)

    def _wait_for_name(self, name: str) -> None:
        deadline = time.monotonic() + self._patience
        while not self.world.name_owned(name):
            assert time.monotonic() < deadline, f"{name} does not come up"
            time.sleep(0.01)
