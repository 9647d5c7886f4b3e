"""The real wpa_supplicant as Debian builds it, with its newer bus name only and `wlan0` as its interface number 0; the older
name is stood in for, and the daemon notices nothing."""

from __future__ import annotations

import os
import signal
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest
from dbus_next import Variant
from real_device import RealDevice
from supplicant import NETWORK, OLDER_NAME, ROOT_PATH, SERVICE
from vantora_sim import CallRefused, World, log, notify, units
from vantora_sim.dbus_fake import PROPERTIES
from vantora_sim.wpa_supplicant import INTERFACE, INTERFACE_PATH
from waiting import wait_until

pytestmark = pytest.mark.skipif(os.geteuid() != 0, reason="needs root: only root's calls are handed on")

PROGRAM = "vantora-supplicant-names"
STATION = f"{ROOT_PATH}/Interfaces/0"


@pytest.fixture
def station(make_world: Callable[..., World], build_dir: Path) -> Iterator[RealDevice]:
    """A station with a stock wpa_supplicant, once it can be called by its older name."""
    device = RealDevice(make_world(), build_dir, stock=True)
    process = device.world.sandbox.start([build_dir / PROGRAM], {"NOTIFY_SOCKET": "/run/sim/notify"})
    device.world.journal.wait_for(notify("READY=1"))
    device.up("Client")
    wait_until(lambda: device.supplicant.owner(OLDER_NAME), "the older name")
    assert device.supplicant.owner(OLDER_NAME) != device.supplicant.owner(SERVICE)
    yield device
    assert process.stop() == 0
    device.close()
    assert device.services.failures == []


def outcome(
    device: RealDevice, name: str, path: str, interface: str, member: str, signature: str = "", args: list[Any] | None = None
) -> Any:
    """What a call by one of the names comes to: values, or name and text of an error."""

    async def ask() -> Any:
        return await device.supplicant._client.call(name, path, interface, member, signature, args)

    try:
        return device.world.loop.run(ask())
    except CallRefused as refused:
        return refused.name, refused.text


@pytest.mark.parametrize(
    ("interface", "member", "signature", "args"),
    [
        (INTERFACE, "Scan", "a{sv}", [{}]),
        (INTERFACE, "Scan", "a{sv}", [{"Type": Variant("s", "sideways")}]),
        (INTERFACE, "AddNetwork", "a{sv}", [{"ssid": Variant("s", "net"), "psk": Variant("s", "short")}]),
        (INTERFACE, "AddNetwork", "a{sv}", [{"unknown": Variant("s", "net")}]),
        (INTERFACE, "AddNetwork", "s", ["net"]),
        (INTERFACE, "RemoveNetwork", "o", [f"{STATION}/Networks/99"]),
        (INTERFACE, "SelectNetwork", "o", ["/"]),
        (INTERFACE, "Disconnect", "", []),
        (INTERFACE, "NoSuchMethod", "", []),
        ("no.such.Interface", "Scan", "", []),
        (PROPERTIES, "Get", "ss", [INTERFACE, "BSSs"]),
        (PROPERTIES, "Get", "ss", [INTERFACE, "NoSuchProperty"]),
        (PROPERTIES, "Get", "ss", [INTERFACE, "Ifname"]),
        (PROPERTIES, "GetAll", "s", [INTERFACE]),
        ("org.freedesktop.DBus.Introspectable", "Introspect", "", []),
    ],
    ids=str,
)
def test_both_names_come_to_the_same(station: RealDevice, interface: str, member: str, signature: str, args: list[Any]) -> None:
    newer = outcome(station, SERVICE, STATION, interface, member, signature, args)
    older = outcome(station, OLDER_NAME, INTERFACE_PATH, interface, member, signature, args)
    assert older == newer


def test_the_daemon_adds_and_selects_a_network(station: RealDevice) -> None:
    station.world.call("Connect", "ss", ["some net", "secret12"])
    (path,) = station.supplicant.get("Networks", path=STATION)
    assert path.startswith(f"{STATION}/Networks/")
    settings = station.supplicant.network(path)
    assert (settings["ssid"], settings["key_mgmt"]) == ('"some net"', "WPA-PSK")
    assert station.supplicant.get("Enabled", path=path, interface=NETWORK) is True
    station.world.call("Connect", "ss", ["other net", "secret12"])
    (other,) = station.supplicant.get("Networks", path=STATION)
    assert station.supplicant.network(other)["ssid"] == '"other net"'


def test_wpa_supplicant_is_killed_and_started_anew(station: RealDevice) -> None:
    world = station.world
    for _ in range(3):
        mark = world.journal.mark()
        station.services.process(units.STATION).stop(signal.SIGKILL)
        world.journal.wait_for(log("info", "[Names] wpa_supplicant has gone"), mark)
        wait_until(lambda: station.supplicant.owner(OLDER_NAME) is None, "the older name to go")
        assert outcome(station, OLDER_NAME, INTERFACE_PATH, INTERFACE, "Disconnect") == (
            "org.freedesktop.DBus.Error.ServiceUnknown",
            f"The name {OLDER_NAME} was not provided by any .service files",
        )
        station.services.job("Start", units.STATION)
        wait_until(lambda: station.supplicant.owner(OLDER_NAME), "the older name")
        assert outcome(station, OLDER_NAME, INTERFACE_PATH, PROPERTIES, "Get", "ss", [INTERFACE, "Ifname"]) == [
            Variant("s", "wlan0")
        ]


def test_another_interface_that_is_number_1_is_not_taken_for_wlan0(station: RealDevice) -> None:
    made = station.supplicant.call(
        "CreateInterface",
        "a{sv}",
        [{"Ifname": Variant("s", "lo"), "Driver": Variant("s", "wired")}],
        path=ROOT_PATH,
        interface=SERVICE,
    )
    assert made == [INTERFACE_PATH]
    assert outcome(station, OLDER_NAME, INTERFACE_PATH, PROPERTIES, "Get", "ss", [INTERFACE, "Ifname"]) == [
        Variant("s", "wlan0")
    ]


def test_wlan0_is_found_again_under_another_number(station: RealDevice) -> None:
    station.supplicant.call("RemoveInterface", "o", [STATION], path=ROOT_PATH, interface=SERVICE)
    refused = outcome(station, OLDER_NAME, INTERFACE_PATH, INTERFACE, "Disconnect")
    assert refused == outcome(station, SERVICE, ROOT_PATH, SERVICE, "GetInterface", "s", ["wlan0"])
    for interface in ("lo", "wlan0"):
        made = station.supplicant.call(
            "CreateInterface",
            "a{sv}",
            [{"Ifname": Variant("s", interface), "Driver": Variant("s", "wired")}],
            path=ROOT_PATH,
            interface=SERVICE,
        )
    assert made == [f"{ROOT_PATH}/Interfaces/2"]
    assert outcome(station, OLDER_NAME, INTERFACE_PATH, PROPERTIES, "Get", "ss", [INTERFACE, "Ifname"]) == [
        Variant("s", "wlan0")
    ]
