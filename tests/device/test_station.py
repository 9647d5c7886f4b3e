"""The device as a station: scans, connections that work and that do not, and what announces them."""

from __future__ import annotations

import pytest

from bench import CommandFailed, Device, Mark, World, unit_log
from bench.stream import Event, plain

HARBOUR, HARBOUR_KEY = "Harbour", "harbour-passphrase"
ATTIC = "Attic"
CELLAR, CELLAR_KEY = "Cellar", "cellar-passphrase"
HARBOUR_ADDRESS = "192.168.20.1"
ATTIC_ADDRESS = "192.168.21.1"
STATION_UNIT = "wpa_supplicant-nl80211@wlan0.service"


@pytest.fixture
def harbour(device: Device, world: World) -> World:
    """A protected access point in reach of a device in Client mode."""
    world.access_point(HARBOUR, radio=1, passphrase=HARBOUR_KEY, address=HARBOUR_ADDRESS)
    device.to_client_mode()
    return world


def wait_until_connected(device: Device, ssid: str, network: str, since: Mark) -> None:
    """Waits for everything that a connection brings, on both sides."""
    device.wait_for_change("WiFiClientState", "completed", since=since)
    device.wait_for_log("[WPA Supplicant] Restarting udhcpc", since=since, priority="info")
    found = device.signals.wait_for(
        lambda event: announces_address(event, network), since=since.signals, what=f"an address of {network}"
    )
    device.evidence.add("bus", f"announced: {plain(found.fields['payload'])[1]}")
    assert device.get("IPAddress").startswith(network)
    assert device.get("ClientSSID") == ssid
    assert device.get("WiFiClientState") == "completed"
    status = device.see("wpa_cli -i wlan0 status")
    assert "wpa_state=COMPLETED" in status and f"\nssid={ssid}\n" in f"\n{status}\n"
    device.see(f"ping -c 1 -W 10 {network}1")


def announces_address(event: Event, network: str) -> bool:
    """Whether an address of a network is announced for the device."""
    payload = plain(event.fields.get("payload", {}))
    return (
        event.fields.get("member") == "PropertiesChanged"
        and isinstance(payload, list)
        and str(payload[1].get("IPAddress", "")).startswith(network)
    )


def test_client_mode_ends_the_access_point_and_lists_others_strongest_first_without_hidden_ones(
    device: Device, world: World
) -> None:
    """Nothing of the own access point is left on air; a scan lists the others by signal, and no hidden ones."""
    world.access_point(HARBOUR, radio=1, passphrase=HARBOUR_KEY, dbm=10, channel=1)
    world.access_point(ATTIC, radio=2, dbm=20, channel=6)
    world.access_point(CELLAR, radio=3, passphrase=CELLAR_KEY, dbm=20, channel=11, hidden=True)
    world.wait_on_air("Korrin One-3456")

    mark = device.mark()
    device.to_client_mode()
    device.wait_for_change("Mode", "Client", since=mark)
    assert device.setting("network", "mode") == "Client"
    device.wait_for_unit("hostapd.service", "inactive")
    assert device.unit_state("udhcpd.service") == "inactive"
    assert world.find_on_air("Korrin One-3456") is None

    mark = device.mark()
    device.call("Scan")
    device.wait_for_signal(
        "AccessPointsChanged",
        since=mark,
        match=lambda event: {ATTIC, HARBOUR} <= {entry[0] for entry in plain(event.fields["payload"])[0]},
    )
    results = device.see_once(f"wpa_cli -i wlan0 scan_results | grep -B9 {ATTIC}; wpa_cli -i wlan0 scan_results | grep -c :")
    found = [entry for entry in device.get("AccessPoints") if entry[0] in (HARBOUR, ATTIC, CELLAR, "")]
    assert [entry[0] for entry in found] == [ATTIC, HARBOUR], results
    assert found[0][2] > found[1][2], "strongest first"
    assert [entry[1:2] + entry[3:] for entry in found] == [[0, False], [1, True]], "privacy and pre-shared key"


def test_a_connection_with_the_right_key_is_announced_and_gets_an_address(device: Device, harbour: World) -> None:
    """Connect with the right key: states announced, lease, IPAddress, ClientSSID; the access point lists the device."""
    mark = device.mark()
    device.call("Connect", HARBOUR, HARBOUR_KEY)
    wait_until_connected(device, HARBOUR, "192.168.20.", mark)
    assert device.get("MacAddress") in harbour.access_point_command("all_sta", radio=1)
    device.wait_for_change("SSID", "", since=mark)


@pytest.mark.usefixtures("harbour")
def test_a_wrong_key_is_announced_and_a_following_right_one_works(device: Device) -> None:
    """A wrong key: failure announced, network removed from wpa_supplicant; then the right key connects."""
    mark = device.mark()
    device.call("Connect", HARBOUR, "not-the-passphrase")
    device.wait_for_change("WiFiClientState", "failed", since=mark)
    device.wait_for_log("Failed to connect to AP", since=mark, priority="err")
    assert device.wpa("Networks") == []
    assert device.get("ClientSSID") == ""

    mark = device.mark()
    device.call("Connect", HARBOUR, HARBOUR_KEY)
    wait_until_connected(device, HARBOUR, "192.168.20.", mark)


def test_an_open_network_needs_no_key(device: Device, world: World) -> None:
    """Connect with an empty passphrase joins an open network."""
    world.access_point(ATTIC, radio=2, channel=6, address=ATTIC_ADDRESS)
    device.to_client_mode()
    mark = device.mark()
    device.call("Connect", ATTIC, "")
    wait_until_connected(device, ATTIC, "192.168.21.", mark)
    assert "key_mgmt=NONE" in device.see("wpa_cli -i wlan0 status")


@pytest.mark.usefixtures("harbour")
def test_disconnect_leaves_the_network_and_gives_up_the_address(device: Device) -> None:
    """Disconnect: SSID and IPAddress announced, the address gone, and the access point rid of the device."""
    mark = device.mark()
    device.call("Connect", HARBOUR, HARBOUR_KEY)
    wait_until_connected(device, HARBOUR, "192.168.20.", mark)
    # A connection announces the SSID some time after it is there, which is not to pass for the end's announcement.
    device.wait_for_change("SSID", "", since=mark)

    mark = device.mark()
    device.call("Disconnect")
    device.wait_for_change("SSID", "", since=mark)
    device.wait_for_change("IPAddress", "", since=mark.anew())
    device.wait_for_change("WiFiClientState", "disconnected", since=mark.anew())
    assert device.changes("SSID", since=mark) == [""]
    assert device.get("IPAddress") == ""
    assert device.get("ClientSSID") == ""
    assert device.wpa("State") in ("disconnected", "inactive")
    device.see_once("! ip netns exec world hostapd_cli -p /run/ap1 -i wlan1 all_sta | grep -q AUTHORIZED")
    with pytest.raises(CommandFailed, match="Failed to connect to AP"):
        device.call("Disconnect")


def test_an_access_point_that_vanishes_and_returns_is_joined_again(device: Device, harbour: World) -> None:
    """The network's access point goes off air and comes back: both announced, and the address is there again."""
    mark = device.mark()
    device.call("Connect", HARBOUR, HARBOUR_KEY)
    wait_until_connected(device, HARBOUR, "192.168.20.", mark)

    mark = device.mark()
    harbour.access_point_command("disable", radio=1)
    device.wait_for_change("WiFiClientState", "disconnected", since=mark)
    assert device.get("ClientSSID") == ""

    mark = device.mark()
    harbour.access_point_command("enable", radio=1)
    device.wait_for_change("WiFiClientState", "completed", since=mark)
    device.wait_for_log("[WPA Supplicant] Restarting udhcpc", since=mark)
    device.wait_for_property("ClientSSID", HARBOUR)
    device.see_once("ip -4 -oneline address show dev wlan0 | grep 192.168.20.")
    device.see_once(f"ping -c 1 -W 2 {HARBOUR_ADDRESS}")


@pytest.mark.usefixtures("harbour")
def test_wpa_supplicant_that_starts_anew_is_followed(device: Device) -> None:
    """wpa_supplicant is killed while connected: systemd starts it again, its network is gone, Connect works again."""
    mark = device.mark()
    device.call("Connect", HARBOUR, HARBOUR_KEY)
    wait_until_connected(device, HARBOUR, "192.168.20.", mark)

    mark = device.mark()
    device.guest.run(f"systemctl kill --signal=KILL {STATION_UNIT}")
    device.wait_for_entry(unit_log(STATION_UNIT, "Scheduled restart job"), "systemd's new attempt", since=mark)
    device.wait_for_unit(STATION_UNIT, "active")
    assert device.get("ClientSSID") == ""
    assert device.wpa("Networks") == []

    mark = device.mark()
    device.call("Connect", HARBOUR, HARBOUR_KEY)
    device.wait_for_log("[WPA Supplicant] Restarting udhcpc", since=mark)
    device.wait_for_property("ClientSSID", HARBOUR)
    device.see_once("ip -4 -oneline address show dev wlan0 | grep 192.168.20.")
    assert device.get("WiFiClientState") == "completed"
