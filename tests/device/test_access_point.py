"""The device as an access point: what it announces, what hostapd says, and what others hear on the air."""

from __future__ import annotations

from bench import Device, World

SSID = "Korrin One-3456"
OWN_ADDRESS = "192.168.8.1"
STATION = "02:00:00:00:01:00"


def test_a_station_that_joins_gets_an_address_and_is_counted_until_it_leaves(device: Device, world: World) -> None:
    """A station joins with WPA2, gets a lease and reaches the device; it is announced when it comes and when it goes."""
    assert device.get("WiFiConnectedClients") == 0
    mark = device.mark()
    world.join(SSID, world.device.passphrase())
    device.wait_for_log(f"wifi_host_station_connected: {STATION}", since=mark, priority="info")
    device.wait_for_change("WiFiConnectedClients", 1, since=mark)
    assert STATION in device.see("hostapd_cli -i wlan0 all_sta")
    assert device.get("WiFiSignal").startswith("txpower ")

    address = world.lease()
    assert address.startswith("192.168.8.")
    world.ping(OWN_ADDRESS)
    assert address in device.see("ip neighbour show dev wlan0")

    mark = device.mark()
    world.leave()
    device.wait_for_log(f"wifi_host_station_disconnected: {STATION}", since=mark, priority="info")
    device.wait_for_change("WiFiConnectedClients", 0, since=mark)
    assert device.get("WiFiConnectedClients") == 0


def test_a_new_ssid_is_seen_on_air_and_stored(device: Device, world: World) -> None:
    """A written SSID replaces the old one on the air, is stored, and stations that join it are counted."""
    assert world.wait_on_air(SSID).protected
    mark = device.mark()
    device.set("SSID", "s", "Boathouse 7")
    # hostapd is still on its way when the change is announced: the interface can be of another type just then, and the
    # announced value empty.
    assert device.wait_for_change("SSID", since=mark) in ("Boathouse 7", "")
    device.wait_for_access_point()
    device.wait_for_property("SSID", "Boathouse 7")
    assert "ssid[0]=Boathouse 7" in device.see("hostapd_cli -i wlan0 status")
    assert device.setting("device", "deviceName") == "Boathouse 7"
    world.wait_on_air("Boathouse 7")
    assert world.find_on_air(SSID) is None

    device.wait_for_log("restart_wifi_host_listener_callback: Restarting...", since=mark)
    world.join("Boathouse 7", world.device.passphrase())
    device.wait_for_property("WiFiConnectedClients", 1)


def test_a_new_band_is_heard_on_air_and_stored(device: Device, world: World) -> None:
    """The band 5 takes the access point to a channel there, without radar channels, and is stored."""
    assert world.wait_on_air(SSID).frequency < 3000
    mark = device.mark()
    device.set("WiFiFrequency", "s", "5")
    device.wait_for_change("WiFiFrequency", "5", since=mark)
    device.wait_for_access_point()
    assert "hw_mode=a" in device.see("cat /run/hostapd.conf")
    assert device.setting("network", "frequency") == "5"
    assert world.wait_on_air(SSID).channel in (36, 40, 44, 48)
    assert device.get("WiFiFrequency") == "5"
