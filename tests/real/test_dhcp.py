"""Addresses from the real DHCP server and client of the device."""

from __future__ import annotations

from collections.abc import Callable

from programs import ACCESS_POINT, DHCP_CLIENT, dhcp_server
from real_device import RealDevice
from vantora_sim import changed, units
from waiting import wait_until


def test_connected_station_gets_a_lease_and_announces_the_address(station: RealDevice) -> None:
    station.run_peer("/usr/sbin/ip", "addr", "add", "10.7.0.1/24", "dev", "air0")
    station.start_peer(*dhcp_server("air0"))
    station.world.call("Connect", "ss", ["open", ""])
    station.world.journal.wait_for(changed("WiFiClientState", "completed"))
    station.world.journal.wait_for(changed("IPAddress", "10.7.0.10"))
    assert station.addresses() == ["10.7.0.10/24"]
    assert station.world.get("IPAddress") == "10.7.0.10"

    mark = station.world.journal.mark()
    station.world.call("Disconnect")
    assert station.addresses() == []
    station.world.journal.wait_for(changed("IPAddress", ""), mark)


def test_second_connection_starts_the_client_anew(station: RealDevice) -> None:
    station.run_peer("/usr/sbin/ip", "addr", "add", "10.7.0.1/24", "dev", "air0")
    station.start_peer(*dhcp_server("air0"))
    for name in ("first", "second"):
        station.world.call("Connect", "ss", [name, ""])
        wait_until(lambda: station.addresses() == ["10.7.0.10/24"], lambda: f"an address, not {station.addresses()}")
    first = station.services.started(units.DHCP_CLIENT)
    assert first >= 2
    assert sum(process.running for process in station.services.processes(units.DHCP_CLIENT)) == 1


def test_access_point_gives_addresses(make_device: Callable[..., RealDevice]) -> None:
    device = make_device("Host", hostapd_template=ACCESS_POINT)
    assert device.addresses() == ["192.168.8.1/24"]
    device.start_peer("/usr/bin/busybox", "udhcpc", "-i", "air0", *DHCP_CLIENT)
    wait_until(
        lambda: "192.168.8.10/24" in device.run_peer("/usr/sbin/ip", "-o", "-4", "addr", "show", "dev", "air0"),
        "an address for the other machine",
    )
