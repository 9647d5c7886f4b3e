"""What each property reads as in each state of the radio, what is logged on the way, and which commands are run for it."""

from __future__ import annotations

from typing import Any

import pytest
from vantora_sim import CallRefused, World, changed, log

from properties import Reading, read
from station import bring_up_station

RFKILL = "rfkill list wlan"
TYPE = "iw dev wlan0 info"
POWER = "iw wlan0 info"

UNREADABLE = ("err", "[Main] Failed to read wifi mode")
CLIENTS_READ = ("info", "Get 'WiFiConnectedClients' property")
STATE_READ = ("info", "Get 'WiFiClientState' property")
SSID_READ = ("info", "Get 'WiFiClientSSID' property")
ADDRESS_FOUND = ("info", "utils_get_ip_address: addr_found: 1")
NO_ADDRESS = ("info", "utils_get_ip_address: addr_found: 0")

ADDRESS = "192.168.8.1"
MAC = "02:00:00:00:10:01"

SAME_IN_ALL_STATES: dict[str, Reading] = {
    "MacAddress": Reading("s", MAC),
    "WiFiSignal": Reading("s", "txpower 20.00 dB", commands=[POWER]),
    "WiFiAvailableFrequencies": Reading("as", ["5", "2.4"]),
    "WiFiAccessPointInitialised": Reading("b", True),
}


def neutral(commands: list[str], *logs: tuple[str, str]) -> dict[str, Reading]:
    """What properties yield that do not apply; `logs` is added to what each logs by itself."""
    more = list(logs)
    return {
        "AccessPoints": Reading("a(siib)", [], more, commands),
        "WiFiConnectedClients": Reading("u", 0, [CLIENTS_READ, *more], commands),
        "WiFiClientState": Reading("s", "off", [STATE_READ, *more], commands),
        "ClientSSID": Reading("s", "", [SSID_READ, *more], commands),
        "WiFiFrequency": Reading("s", "", more, commands),
        "SSID": Reading("s", "", more, commands),
        "Mode": Reading("s", "unknown", more, commands),
    }


def assert_readings(world: World, expected: dict[str, Reading]) -> None:
    assert len(expected) == 13
    assert {name: read(world, name) for name in expected} == expected


def host_world(world: World) -> None:
    """An access point that is up, with one station; and a station side that would have something to tell, too."""
    world.up()
    world.hostapd.wait_attached()
    mark = world.journal.mark()
    world.hostapd.enable()
    world.hostapd.join("02:00:00:00:30:01")
    world.journal.wait_for(changed("WiFiConnectedClients", 1), mark)
    world.wpa.come_back()
    world.wpa.add_bss(b"net")
    world.wpa.report_state("scanning")
    world.journal.wait_for(log("info", "[WPA Supplicant] State change: '' -> 'scanning'"), mark)
    world.radio.station_running, world.radio.station_ssid = True, b"net"
    world.settle()


def test_values_while_the_radio_is_off(world: World) -> None:
    host_world(world)
    world.radio.soft_blocked = True
    expected = (
        neutral([RFKILL])
        | SAME_IN_ALL_STATES
        | {
            "AccessPoints": Reading("a(siib)", [], [("err", "[Main] get_wifi_access_points: Wifi is not enabled")], [RFKILL]),
            "IPAddress": Reading("s", "", commands=[RFKILL]),
            "WiFiState": Reading("u", 0, commands=[RFKILL]),
        }
    )
    assert_readings(world, expected)


def test_values_while_the_mode_cannot_be_read(world: World) -> None:
    host_world(world)
    world.radio.interface_type = "monitor"
    expected = (
        neutral([RFKILL, TYPE], UNREADABLE)
        | SAME_IN_ALL_STATES
        | {"IPAddress": Reading("s", ADDRESS, [ADDRESS_FOUND], [RFKILL]), "WiFiState": Reading("u", 1, commands=[RFKILL])}
    )
    assert_readings(world, expected)


def test_values_in_host_mode(world: World) -> None:
    host_world(world)
    expected = (
        neutral([RFKILL, TYPE])
        | SAME_IN_ALL_STATES
        | {
            "IPAddress": Reading("s", ADDRESS, [ADDRESS_FOUND], [RFKILL]),
            "WiFiState": Reading("u", 1, commands=[RFKILL]),
            "Mode": Reading("s", "Host", commands=[RFKILL, TYPE]),
            "WiFiFrequency": Reading("s", "2.4", commands=[RFKILL, TYPE]),
            "SSID": Reading("s", "Korrin One", commands=[RFKILL, TYPE]),
            "WiFiConnectedClients": Reading("u", 1, [CLIENTS_READ], [RFKILL, TYPE]),
        }
    )
    assert_readings(world, expected)


def test_values_in_client_mode(world: World) -> None:
    bring_up_station(world)
    world.wpa.add_bss(b"cafe", signal=-70, privacy=False, key_mgmt=())
    world.wpa.add_bss(b"net", signal=-40)
    mark = world.journal.mark()
    world.wpa.report_state("associating")
    world.journal.wait_for(log("info", "[WPA Supplicant] State change: 'disconnected' -> 'associating'"), mark)
    world.radio.station_ssid = b"net"
    world.settle()
    found = [["net", 1, -40, True], ["cafe", 0, -70, False]]
    expected = (
        neutral([RFKILL, TYPE])
        | SAME_IN_ALL_STATES
        | {
            "IPAddress": Reading("s", "", [NO_ADDRESS, ("warning", "[Main] Interface does not have IP address")], [RFKILL]),
            "AccessPoints": Reading("a(siib)", found, [("info", "[WPA] Get access points")], [RFKILL, TYPE]),
            "WiFiClientState": Reading("s", "associating", [STATE_READ], [RFKILL, TYPE]),
            "WiFiAccessPointInitialised": Reading("b", False),
            "ClientSSID": Reading("s", "net", [SSID_READ], [RFKILL, TYPE, "wpa_cli status"]),
            "WiFiState": Reading("u", 1, commands=[RFKILL]),
            "Mode": Reading("s", "Client", commands=[RFKILL, TYPE]),
        }
    )
    assert_readings(world, expected)


def test_address_in_client_mode(world: World) -> None:
    world.settings.set("network", "mode", "Client")
    world.up()
    world.add_address("10.1.2.3/24")
    world.journal.wait_for(changed("IPAddress", "10.1.2.3"))
    assert world.get("IPAddress") == "10.1.2.3"


def test_host_values_follow_what_was_last_applied(world: World) -> None:
    world.up()
    world.set("SSID", "kitchen")
    world.set("WiFiFrequency", "5")
    assert (world.get("SSID"), world.get("WiFiFrequency")) == ("kitchen", "5")
    world.radio.interface_type = "managed"
    assert (world.get("SSID"), world.get("WiFiFrequency")) == ("", "")


def test_access_point_flag_is_the_listeners_in_every_state(world: World) -> None:
    world.up()
    world.hostapd.wait_attached()
    for enabled in (True, False):
        mark = world.journal.mark()
        (world.hostapd.enable if enabled else world.hostapd.disable)()
        world.journal.wait_for(changed("WiFiAccessPointInitialised", enabled), mark)
        for blocked, interface_type in ((False, "AP"), (True, "AP"), (False, "managed"), (False, "monitor")):
            world.radio.soft_blocked, world.radio.interface_type = blocked, interface_type
            assert read(world, "WiFiAccessPointInitialised") == Reading("b", enabled)
        world.radio.soft_blocked, world.radio.interface_type = False, "AP"


def test_station_count_without_hostapd_is_0_and_the_message_names_another_property(world: World) -> None:
    world.up()
    world.hostapd.kill()  # its socket file stays, so nobody waits for it
    assert read(world, "WiFiConnectedClients") == Reading(
        "u",
        0,
        [
            CLIENTS_READ,
            ("err", "hostapd_get_num_connected_clients: Could not connect to hostapd socket."),
            ("err", "[Main] Reading 'WiFiFrequency' while not in Host mode"),
        ],
        [RFKILL, TYPE],
    )


def test_access_points_that_cannot_be_fetched_are_an_empty_list(world: World) -> None:
    world.settings.set("network", "mode", "Client")
    world.up()
    world.wpa.add_bss(b"net")
    mark = world.journal.mark()
    world.system_bus.stop()
    value = world.get_variant("AccessPoints")
    assert (value.signature, value.value) == ("a(siib)", [])
    world.journal.expect_in_order(
        [
            log("info", "[WPA] Get access points"),
            log("err", "wpa_supplicant_get_access_points: Failed to open system bus"),
            log("err", "[Main]  Something went wrong with getting APs"),
        ],
        mark,
    )


def test_an_interface_that_is_gone_reads_as_empty_texts(world: World) -> None:
    world.up()
    world.wait_follows_addresses()
    world.settle()  # each address event ends with the same line
    mark = world.journal.mark()
    assert world.sandbox.run(["/usr/sbin/ip", "link", "del", "wlan0"]).status == 0
    # In either order: the one comes of the main loop, the other of the listener.
    world.journal.wait_for(changed("IPAddress", ""), mark)
    world.journal.wait_for(log("info", "Successfully stopped and disabled udhcpd_eth0.service"), mark)
    assert read(world, "MacAddress") == Reading("s", "", [("warning", "[Main] Interface does not have MAC address")])


def test_a_power_that_cannot_be_read_is_an_empty_text_without_a_message_of_the_getter(world: World) -> None:
    world.up()
    world.radio.tx_power = None
    tried = "[Utils] utils_get_signal_strength: could not read AP Tx Power, "
    assert read(world, "WiFiSignal") == Reading(
        "s", "", [("err", tried + "retrying..."), ("err", tried + "timed out.")], [POWER]
    )


@pytest.mark.parametrize(("radio_type", "bands"), [("0", ["2.4"]), ("1", ["5", "2.4"])])
def test_bands_follow_the_type_of_the_radio(make_world: Any, radio_type: str, bands: list[str]) -> None:
    world = make_world(device={"radio_type": radio_type})
    world.up()
    assert read(world, "WiFiAvailableFrequencies") == Reading("as", bands)
    world.radio.soft_blocked = True
    assert read(world, "WiFiAvailableFrequencies") == Reading("as", bands)


def test_bands_of_an_unknown_radio_cannot_be_read_nor_all_properties_at_once(make_world: Any) -> None:
    world: World = make_world(device={"radio_type": "2"})
    world.up()
    with pytest.raises(CallRefused) as refused:
        world.get("WiFiAvailableFrequencies")
    denied = ("org.freedesktop.DBus.Error.AccessDenied", "Operation not permitted")
    assert (refused.value.name, refused.value.text) == denied
    with pytest.raises(CallRefused) as refused:
        world.call_async("GetAll", "s", ["com.vantora.Network1.WiFi"], interface="org.freedesktop.DBus.Properties").result(20)
    assert (refused.value.name, refused.value.text) == denied
    assert world.get("Mode") == "Host"
