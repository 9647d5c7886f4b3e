"""A world with real neighbours, and ways to look at the same thing from their side."""

from __future__ import annotations

from pathlib import Path

import programs
from services import Services
from supplicant import Supplicant
from vantora_sim import Process, World, units
from waiting import wait_until

_PEER = ["/usr/bin/nsenter", "--net=/run/netns/air"]
PEER_ADDRESS = "02:00:00:00:60:09"
"""Of the other machine on the air."""

_SEPARATE_AIR = (
    f"ip link set air0 address {PEER_ADDRESS} && ip netns add air && ip link set air0 netns air"
    " && ip -n air link set lo up && ip -n air link set air0 up"
)


class Hostapd:
    """The hostapd of the device, as itself and its own command-line program tell it."""

    def __init__(self, device: "RealDevice") -> None:
        self._device = device

    @property
    def process(self) -> Process:
        """The latest process."""
        return self._device.services.process(units.HOSTAPD)

    def cli(self, *words: str) -> str:
        """Ask hostapd something through hostapd_cli; the answer."""
        return self._device.world.sandbox.run(["/usr/sbin/hostapd_cli", "-i", "wlan0", *words]).stdout.strip()

    def order(self, *words: str) -> None:
        """Tell hostapd to do something; it must agree."""
        answer = self.cli(*words)
        assert answer == "OK", f"{words}: {answer}"

    def stations(self) -> list[str]:
        """The addresses in hostapd's list, those that linger included."""
        return [line for line in self.cli("all_sta").splitlines() if len(line) == 17 and line.count(":") == 5]

    def said(self, text: str) -> int:
        """How often the latest process has written this."""
        return self.process.stdout.count(text)

    def wait_attached(self, times: int = 1) -> None:
        """Wait until clients have attached so often to the latest process."""
        wait_until(
            lambda: self.said("CTRL_IFACE monitor attached") >= times,
            lambda: f"a client of hostapd, which says\n{self.process.stdout}",
        )

    def wait_serves(self) -> None:
        """Wait until the latest process answers."""
        wait_until(
            lambda: not self.process.running or self.cli("ping") == "PONG",
            lambda: f"hostapd, which says\n{self.process.stdout}",
        )


class RealDevice:
    """One device. The other end of its air, `air0`, is a network of its own: another machine."""

    def __init__(self, world: World, build: Path, stock: bool = False) -> None:
        self.world = world
        self.services = Services(world, programs.services(world, build / "tests/real/bus-names.so", stock))
        self.hostapd = Hostapd(self)
        self.supplicant = Supplicant(world)
        programs.furnish(world)
        world.tools.wpa_cli.real()
        world.tools.killall.real()
        moved = world.sandbox.sh(f"PATH=/usr/sbin:/usr/bin; {_SEPARATE_AIR}")
        assert moved.status == 0, moved.stderr

    def up(self, mode: str) -> None:
        """Start the daemon with this stored mode and wait until it is up."""
        self.world.settings.set("network", "mode", mode)
        self.world.up()

    def wait_started(self, unit: str, times: int) -> None:
        """Wait until the unit's program has been started so often in all, and fail where it is started more often."""
        wait_until(lambda: self.services.started(unit) >= times, f"{unit} to be started {times} times")
        assert self.services.started(unit) == times

    def close(self) -> None:
        """Let go of what is held outside of the world."""
        self.supplicant.close()

    def start_peer(self, *command: str) -> Process:
        """Start a program on the other machine."""
        return self.world.sandbox.start([*_PEER, *command])

    def run_peer(self, *command: str) -> str:
        """Run a program on the other machine; what it prints."""
        completed = self.world.sandbox.run([*_PEER, *command])
        assert completed.status == 0, completed.stderr
        return completed.stdout

    def addresses(self, interface: str = "wlan0") -> list[str]:
        """The kernel's IPv4 addresses of an interface."""
        words = self.world.sandbox.sh(f"/usr/sbin/ip -o -4 addr show dev {interface}").stdout.split()
        return [after for word, after in zip(words, words[1:]) if word == "inet"]
