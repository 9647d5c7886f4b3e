"""`Scan` and `Disconnect`, and the SSID that the station reports."""

from __future__ import annotations

import pytest
from station import FAILED, FLUSH_FAILED_LOGS, FLUSH_LOGS, bring_up_station, network, radio_checks, refusal, station_call
from vantora_sim import Variant, World, call, changed, command

SCAN = station_call("Scan", {"Type": Variant("s", "active")})
SCAN_LOG = ("info", "[WPA] Scan APs")
SCAN_FAILED_LOG = ("err", "[WPA] wpa_supplicant_scan: Failed to call dbus method")
DISCONNECT_LOG = ("info", "[Main] Disconnect from AP called")
NO_ADDRESS_LOGS = [("info", "utils_get_ip_address: addr_found: 0"), ("warning", "[Main] Interface does not have IP address")]


def connect(world: World) -> None:
    """Have the fake station associated with a network."""
    world.call("Connect", "ss", ["cafe", "secret12"])
    world.wpa.state = "completed"


def test_scan_asks_for_an_active_scan_and_nothing_else(world: World) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    assert world.call("Scan") == []
    world.settle()
    assert world.journal.count(SCAN, mark) == 1
    assert world.journal.find(SCAN, mark)[0].signature == "a{sv}"
    assert world.journal.logs(mark) == [SCAN_LOG]
    assert world.journal.commands(mark) == [], "neither power nor mode is consulted"


def test_scan_refused_by_the_station_is_answered_with_success(world: World) -> None:
    bring_up_station(world)
    world.wpa.refuse("Scan", name="fi.w1.wpa_supplicant1.Interface.ScanError", text="Scan request rejected")
    mark = world.journal.mark()
    assert world.call("Scan") == []
    world.settle()
    assert world.journal.logs(mark) == [SCAN_LOG, SCAN_FAILED_LOG]


def test_scan_reaches_the_station_with_the_radio_off(world: World) -> None:
    bring_up_station(world)
    world.radio.soft_blocked = True
    mark = world.journal.mark()
    assert world.call("Scan") == []
    world.journal.wait_for(SCAN, mark)


def test_scan_of_an_access_point_is_the_stations_decision(world: World) -> None:
    world.up()
    mark = world.journal.mark()
    assert world.call("Scan") == []
    world.settle()
    assert world.journal.logs(mark) == [SCAN_LOG, SCAN_FAILED_LOG], "wpa_supplicant does not run"
    world.wpa.come_back()
    mark = world.journal.mark()
    assert world.call("Scan") == []
    world.settle()
    assert world.journal.logs(mark) == [SCAN_LOG]


def test_disconnect_flushes_and_announces_ssid_before_address(world: World) -> None:
    bring_up_station(world)
    connect(world)
    world.add_address("10.0.0.5/24")
    world.journal.wait_for(changed("IPAddress", "10.0.0.5"))
    world.tools.ip.output("", on="addr flush")  # the kernel's own news of the removal would announce the address, too
    mark = world.journal.mark()

    assert world.call("Disconnect") == []

    world.journal.expect_in_order(
        [
            *radio_checks(),
            call(
                "Disconnect",
                bus="system",
                destination="fi.epitest.hostap.WPASupplicant",
                path="/fi/w1/wpa_supplicant1/Interfaces/1",
                interface="fi.w1.wpa_supplicant1.Interface",
                signature="",
                args=[],
            ),
            command("ip addr flush dev wlan0"),
            changed("SSID", "", alone=True),
            changed("IPAddress", "10.0.0.5", alone=True),
        ],
        mark,
    )
    world.settle()
    assert world.journal.changes(mark) == [("SSID", ""), ("IPAddress", "10.0.0.5")]
    assert list(world.wpa.networks) == [network(0)], "the network stays configured"


def test_disconnect_writes_its_steps_into_the_log(world: World) -> None:
    bring_up_station(world)
    connect(world)
    mark = world.journal.mark()
    world.call("Disconnect")
    world.settle()
    assert world.journal.logs(mark) == [DISCONNECT_LOG, *FLUSH_LOGS, *NO_ADDRESS_LOGS]


def test_disconnect_succeeds_when_the_addresses_can_not_be_flushed(world: World) -> None:
    bring_up_station(world)
    connect(world)
    world.tools.ip.fail(status=1, on="addr flush")
    mark = world.journal.mark()
    assert world.call("Disconnect") == []
    world.settle()
    assert world.journal.logs(mark) == [DISCONNECT_LOG, *FLUSH_FAILED_LOGS, *NO_ADDRESS_LOGS]
    assert world.journal.changes(mark) == [("SSID", ""), ("IPAddress", "")]


def test_disconnect_refused_by_the_station_answers_with_the_words_of_connect(world: World) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    assert refusal(lambda: world.call("Disconnect")) == (FAILED, "Failed to connect to AP")
    world.settle()
    assert world.journal.logs(mark) == [
        DISCONNECT_LOG,
        ("err", "[WPA] wpa_supplicant_disconnect_network: Failed to call dbus method"),
        ("err", "[Main] disconnect_from_ap: Failed to connect to AP"),
    ]
    assert world.journal.changes(mark) == []
    assert world.journal.count(command("ip addr flush dev wlan0"), mark) == 0


@pytest.mark.parametrize("refused", [False, True])
def test_after_disconnect_the_next_connect_removes_nothing(world: World, refused: bool) -> None:
    bring_up_station(world)
    connect(world)
    if refused:
        world.wpa.refuse("Disconnect", times=1)
        refusal(lambda: world.call("Disconnect"))
    else:
        world.call("Disconnect")
    mark = world.journal.mark()
    world.call("Connect", "ss", ["cafe", "secret12"])
    assert world.journal.count(call("RemoveNetwork"), mark) == 0


def test_disconnect_is_refused_while_the_radio_is_off(world: World) -> None:
    bring_up_station(world)
    world.radio.hard_blocked = True
    mark = world.journal.mark()
    assert refusal(lambda: world.call("Disconnect")) == (FAILED, "Wifi is off")
    world.settle()
    assert world.journal.logs(mark) == [DISCONNECT_LOG, ("err", "[Main] disconnect_from_ap: Wifi is off")]


def test_disconnect_is_refused_in_an_unknown_mode(world: World) -> None:
    bring_up_station(world)
    world.tools.iw.fail(status=1)
    mark = world.journal.mark()
    assert refusal(lambda: world.call("Disconnect")) == (FAILED, "WiFi is in unknown mode")
    world.settle()
    assert world.journal.logs(mark) == [DISCONNECT_LOG, ("err", "[Main] disconnect_from_ap: Failed to read wifi mode")]


def test_disconnect_is_refused_by_an_access_point(world: World) -> None:
    world.up()
    mark = world.journal.mark()
    assert refusal(lambda: world.call("Disconnect")) == (FAILED, "WiFi is not in client mode")
    world.settle()
    assert world.journal.logs(mark) == [DISCONNECT_LOG, ("err", "[Main] disconnect_from_ap: Wifi must be in client mode")]


def test_switching_to_host_and_back_forgets_the_selected_network(world: World) -> None:
    bring_up_station(world)
    world.follow_units = False  # wpa_supplicant keeps running, so that a removal would be seen
    world.call("Connect", "ss", ["cafe", "secret12"])
    world.set("Mode", "Host")
    world.radio.interface_type = "AP"
    world.set("Mode", "Client")
    world.radio.interface_type = "managed"
    mark = world.journal.mark()
    world.call("Connect", "ss", ["cafe", "secret12"])
    assert world.journal.count(call("RemoveNetwork"), mark) == 0


def test_client_ssid_is_what_wpa_cli_says(world: World) -> None:
    bring_up_station(world)
    world.radio.station_ssid = b"cafe at the corner"
    mark = world.journal.mark()
    assert world.get("ClientSSID") == "cafe at the corner"
    assert world.journal.commands(mark) == ["rfkill list wlan", "iw dev wlan0 info", "wpa_cli status"]
    assert world.journal.logs(mark) == [("info", "Get 'WiFiClientSSID' property")]


def test_client_ssid_is_empty_without_an_association_or_a_station(world: World) -> None:
    bring_up_station(world)
    assert world.get("ClientSSID") == ""
    world.radio.station_running = False
    assert world.get("ClientSSID") == ""


def test_client_ssid_reads_at_most_256_bytes(world: World) -> None:
    bring_up_station(world)
    world.tools.wpa_cli.output("bssid=02:00:00:00:20:01\nssid=" + "n" * 300 + "\nid=0\n")
    assert world.get("ClientSSID") == "n" * 256
