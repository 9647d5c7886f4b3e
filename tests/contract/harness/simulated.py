"""What the tests of the simulated device share: a small world, devices in it, and vantora-simctl."""

from __future__ import annotations

import json
import time
from collections.abc import Callable, Iterator
from contextlib import ExitStack
from pathlib import Path
from typing import Any

import pytest
from conftest import ROOT
from vantora_sim import CallRefused, plain
from vantora_sim.device import SimulatedDevice
from vantora_sim.neighbours import neighbours
from vantora_sim.plan import Network, Plan, Visitor
from vantora_sim.simctl import main as simctl_main

SIMULATOR = ROOT / "simulator"
PYTHON = "/usr/bin/python3"

KEY = "right and proper"
OTHER_ADDRESS = "02:00:00:00:50:02"


def small_plan(mode: str = "Host", **changes: Any) -> Plan:
    """One network of each kind that matters, and two stations that wait to be told."""
    networks = [
        Network(b"secured", "02:00:00:00:50:01", channel=1, signal=-50, passphrase=KEY, address="10.7.0.2/24"),
        Network(b"open", OTHER_ADDRESS, channel=11, signal=-55, security="open", address="10.8.0.2/24"),
        Network(b"no dhcp", "02:00:00:00:50:03", signal=-60, passphrase=KEY, address=None),
        Network(b"concealed", "02:00:00:00:50:04", signal=-45, passphrase=KEY, hidden=True),
        Network(b"fast", "02:00:00:00:50:05", band="5", channel=36, signal=-58, passphrase=KEY),
    ]
    visitors = [Visitor("phone", "02:00:00:00:60:01"), Visitor("tablet", "02:00:00:00:60:02")]
    plan = Plan("small", {}, networks, visitors, {"network": {"mode": mode}})
    for name, value in changes.items():
        setattr(plan, name, value)
    return plan


@pytest.fixture
def make_device(build_dir: Path, request: pytest.FixtureRequest) -> Iterator[Callable[..., SimulatedDevice]]:
    """Makes devices that are up: `make_device(small_plan("Client"))`. After the test each must end as it should."""
    devices: list[SimulatedDevice] = []
    request.node.worlds = []

    def make(plan: Plan | None = None, **arguments: Any) -> SimulatedDevice:
        device = SimulatedDevice(plan or small_plan(), build_dir, **arguments)
        request.node.worlds.append(device.world)
        devices.append(open_devices.enter_context(device))
        device.wait_up()
        return device

    with ExitStack() as open_devices:
        yield make
        for device in devices:
            assert device.shut_down() == 0
            assert device.world.sanitizer_reports() == ""


@pytest.fixture
def device(make_device: Callable[..., SimulatedDevice]) -> SimulatedDevice:
    """An access point in the small world."""
    return make_device()


@pytest.fixture
def client(make_device: Callable[..., SimulatedDevice]) -> SimulatedDevice:
    """A station in the small world, not connected, with wpa_supplicant there."""
    device = make_device(small_plan("Client"))
    device.world.journal.wait_until(lambda: device.world.wpa.present, "wpa_supplicant")
    return device


class SharedDevice:
    """One device for all tests of a module: bringing one up takes seconds. Each test says first how it wants to find it."""

    def __init__(self, device: SimulatedDevice) -> None:
        self.device = device
        self._known_up = device.world.daemon

    def be(self, mode: str) -> SimulatedDevice:
        """Bring it into a mode, whatever was done to it: everybody there and answering, radio on, nothing joined."""
        device, world = self.device, self.device.world
        device.restarts = True
        for name, neighbour in neighbours(device.parts).items():
            neighbour.release()
            if name in ("systemd", "vantora-settingsd") and not neighbour.running():
                neighbour.start()
        world.clear_faults()
        self.wait_daemon()
        world.loop.call(lambda: world.radio.block(soft=False, hard=False))
        world.set("WiFiState", 1)
        # While hostapd starts anew the interface is no access point, and a Mode "Client" would be taken for there already.
        wait_until(device, lambda: not device.coming_up, "whatever is on its way")
        if mode == "Client" and world.get("Mode") == mode and not world.wpa.present:
            world.set("Mode", "Host")  # a switch that failed half-way: nothing runs, and the interface is a station's
            wait_until(device, lambda: not device.coming_up, "the way out of a failed switch")
        world.set("Mode", mode)
        if mode == "Client":
            wait_until(device, lambda: bool(world.wpa.present), "wpa_supplicant")
            try:
                world.call("Disconnect")
            except CallRefused:
                pass  # there was nothing to leave
            wait_until(
                device, lambda: world.get("WiFiClientState") in ("", "inactive", "disconnected", "failed"), "a free station"
            )
        else:
            wait_until(device, lambda: not device.coming_up, "the access point to be on the air")
        return device

    def wait_daemon(self) -> None:
        """Wait until the daemon runs that the service manager has started in place of one that ended, and is up."""
        wait_until(self.device, lambda: self.device.world.daemon is not None and self.device.world.daemon.running, "the daemon")
        if self.device.world.daemon is not self._known_up:
            self.device.wait_up()
            self._known_up = self.device.world.daemon


@pytest.fixture(scope="module")
def module_device(build_dir: Path) -> Iterator[SharedDevice]:
    """The small world for a whole module; it must end as it should."""
    with SimulatedDevice(small_plan(), build_dir) as device:
        device.wait_up()
        shared_device = SharedDevice(device)
        yield shared_device
        shared_device.be("Host")  # the last test may have killed the daemon
        assert device.shut_down() == 0
        assert device.world.sanitizer_reports() == ""


@pytest.fixture
def shared(module_device: SharedDevice, request: pytest.FixtureRequest) -> SharedDevice:
    """The module's device, whose journal is shown when this test fails."""
    request.node.worlds = [module_device.device.world]
    return module_device


@pytest.fixture
def simctl(
    monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str], request: pytest.FixtureRequest
) -> Callable[..., tuple[int, str]]:
    """Runs vantora-simctl against the test's device: `simctl("join", "phone")` gives exit status and what was printed."""

    def run(*arguments: str) -> tuple[int, str]:
        world = request.node.worlds[0]
        monkeypatch.setenv("VANTORA_SIM_CONTROL", str(world.work / "control"))
        capsys.readouterr()
        status = simctl_main(list(arguments))
        printed = capsys.readouterr()
        return status, (printed.out + printed.err).strip()

    return run


def shown(simctl: Callable[..., tuple[int, str]]) -> Any:
    """What `vantora-simctl show --json` says."""
    status, text = simctl("show", "--json")
    assert status == 0, text
    return json.loads(text)


def state_words(device: SimulatedDevice, since: int = 0) -> list[str]:
    """The state words of wpa_supplicant in the order in which the daemon heard them."""
    begin = "[WPA Supplicant] State change: "
    return [text.split("'")[3] for _, text in device.world.journal.logs(since) if text.startswith(begin)]


def wait_for_state(device: SimulatedDevice, word: str, since: int = 0) -> None:
    """Wait until the daemon has heard this state word."""
    device.world.journal.wait_until(lambda: word in state_words(device, since), f"state {word}", since=since)


def kernel_addresses(device: SimulatedDevice, interface: str = "wlan0") -> list[str]:
    """IPv4 addresses of an interface in the kernel."""
    found = json.loads(device.world.sandbox.sh(f"/usr/sbin/ip -j -4 addr show dev {interface}").stdout or "[]")
    return [f"{address['local']}/{address['prefixlen']}" for link in found for address in link.get("addr_info", [])]


def connect(device: SimulatedDevice, ssid: str = "secured", key: str = KEY) -> None:
    """Join a network and wait until the association is complete and the address, if it gives one, is there."""
    mark = device.world.journal.mark()
    device.world.call("Connect", "ss", [ssid, key])
    wait_for_state(device, "completed", mark)
    if device.station.joined is not None and device.station.joined.address is not None:
        address = device.station.joined.address
        wait_until(device, lambda: kernel_addresses(device) == [address], f"the address {address}")


def wait_until(device: SimulatedDevice, condition: Callable[[], bool], what: str, timeout: float = 20) -> None:
    """Wait for what is in no journal."""
    deadline = time.monotonic() + timeout
    while not condition():
        assert time.monotonic() < deadline, f"waited in vain for {what}\n{device.world.journal.dump()}"
        time.sleep(0.02)


def names(value: Any) -> list[str]:
    """The names in a list of access points."""
    return [name for name, *_ in plain(value)]


__all__ = [
    "KEY",
    "OTHER_ADDRESS",
    "PYTHON",
    "SIMULATOR",
    "SharedDevice",
    "client",
    "connect",
    "device",
    "kernel_addresses",
    "make_device",
    "module_device",
    "names",
    "shared",
    "shown",
    "simctl",
    "small_plan",
    "state_words",
    "wait_for_state",
    "wait_until",
]
