"""The simulated device behaves like one: units take time, scans and associations go their way, addresses are real."""

from __future__ import annotations

import time
from collections.abc import Callable

from simulated import KEY, connect, kernel_addresses, names, small_plan, state_words, wait_for_state, wait_until
from vantora_sim import Variant, call, changed, command, log, signal, unit_path
from vantora_sim.air import Air
from vantora_sim.device import SimulatedDevice
from vantora_sim.plan import Network, Visitor
from vantora_sim.units import DHCP_CLIENT, HOSTAPD, STATION

ASSOCIATION = ["scanning", "authenticating", "associating", "associated"]


def active_state(device: SimulatedDevice, unit: str) -> str:
    """What systemd says about a unit."""
    shown = device.world.sandbox.sh(
        f"busctl --system get-property org.freedesktop.systemd1 {unit_path(unit)} " "org.freedesktop.systemd1.Unit ActiveState"
    ).stdout
    return shown.split('"')[1]


# Access point


def test_hostapd_takes_the_interface_opens_its_socket_and_reports_after_a_moment(
    make_device: Callable[..., SimulatedDevice]
) -> None:
    device = make_device()
    journal = device.world.journal
    started = journal.wait_for(call("Start", path=unit_path(HOSTAPD))).index
    journal.expect_in_order([changed("Mode", "Host"), changed("WiFiAccessPointInitialised", True)], started)
    assert device.world.radio.interface_type == "AP"
    assert active_state(device, HOSTAPD) == "active"
    assert kernel_addresses(device) == ["192.168.8.1/24"]
    assert b"ssid Korrin One-3456" in device.world.sandbox.sh("iw dev wlan0 info").stdout.encode()


def test_stations_that_come_by_themselves_come_again_after_a_restart(make_device: Callable[..., SimulatedDevice]) -> None:
    visitors = [Visitor("phone", "02:00:00:00:60:01", joins_after=0.5), Visitor("tablet", "02:00:00:00:60:02")]
    device = make_device(small_plan(visitors=visitors))
    device.world.journal.wait_for(changed("WiFiConnectedClients", 1))
    mark = device.world.journal.mark()
    device.world.set("WiFiFrequency", "5")
    device.world.journal.expect_in_order(
        [changed("WiFiFrequency", "5"), changed("WiFiAccessPointInitialised", True), changed("WiFiConnectedClients", 1)], mark
    )
    assert "channel 36 (5180 MHz)" in device.world.sandbox.sh("iw dev wlan0 info").stdout


def test_stations_do_not_follow_to_another_name(device: SimulatedDevice) -> None:
    assert device.world.loop.call(device.access_point.join, "02:00:00:00:60:01")
    device.world.journal.wait_for(changed("WiFiConnectedClients", 1))
    device.world.set("SSID", "elsewhere")
    wait_until(
        device, lambda: device.access_point.on_air and device.world.radio.ap_ssid == b"elsewhere", "the new access point"
    )
    assert device.world.get("WiFiConnectedClients") == 0
    assert device.world.loop.call(device.access_point._traffic.busy.__bool__) is False


def test_hostapd_fails_while_the_radio_is_blocked(device: SimulatedDevice) -> None:
    device.world.sandbox.sh("rfkill block wlan")
    device.world.sandbox.sh(
        f"busctl --system call org.freedesktop.systemd1 {unit_path(HOSTAPD)} org.freedesktop.systemd1.Unit " "Restart s replace"
    )
    wait_until(device, lambda: active_state(device, HOSTAPD) == "failed", "hostapd to fail")
    assert not device.world.hostapd.running


# Station


def test_scan_takes_its_time_and_finds_what_can_be_heard(client: SimulatedDevice) -> None:
    begun = time.monotonic()
    assert client.world.get("AccessPoints") == []
    client.world.call("Scan")
    found = client.world.journal.wait_for(signal("AccessPointsChanged"))
    assert time.monotonic() - begun > 1.9
    assert sorted(names(found.body[0])) == ["fast", "no dhcp", "open", "secured"]


def test_single_band_radio_does_not_hear_the_other_band(make_device: Callable[..., SimulatedDevice]) -> None:
    device = make_device(small_plan("Client", device={"radio_type": "0"}))
    wait_until(device, lambda: device.world.wpa.present, "wpa_supplicant")
    device.world.call("Scan")
    found = device.world.journal.wait_for(signal("AccessPointsChanged"))
    assert "fast" not in names(found.body[0]) and "secured" in names(found.body[0])
    assert device.world.get("WiFiAvailableFrequencies") == ["2.4"]


def test_association_goes_through_every_state_word_to_a_kernel_address(client: SimulatedDevice) -> None:
    mark = client.world.journal.mark()
    connect(client)
    words = state_words(client, mark)
    assert words[words.index("scanning") :] == [*ASSOCIATION, "4way_handshake", "group_handshake", "completed"]
    client.world.journal.wait_for(changed("IPAddress", "10.7.0.2"), mark)
    assert (client.world.get("ClientSSID"), client.world.get("WiFiClientState")) == ("secured", "completed")
    status = client.world.sandbox.sh("wpa_cli status").stdout.splitlines()
    assert {"ssid=secured", "bssid=02:00:00:00:50:01", "freq=2412", "wpa_state=COMPLETED"} <= set(status)
    assert "channel 1 (2412 MHz)" in client.world.sandbox.sh("iw dev wlan0 info").stdout


def test_wrong_key_fails_at_the_handshake(client: SimulatedDevice) -> None:
    mark = client.world.journal.mark()
    client.world.call("Connect", "ss", ["secured", "wrong and improper"])
    client.world.journal.expect_in_order(
        [
            log("warning", "[WPE supplicant] PropertyChangedCallback: Failed to connect to the accesspoint"),
            log("err", "Failed to connect to AP"),
        ],
        mark,
    )
    client.world.journal.wait_for(changed("WiFiClientState", "failed"), mark)
    words = state_words(client, mark)
    begin = words.index("scanning")
    assert words[begin : begin + 6] == [*ASSOCIATION, "4way_handshake", "disconnected"]
    assert client.world.wpa.networks == {}
    assert kernel_addresses(client) == []


def test_open_network_needs_no_handshake(client: SimulatedDevice) -> None:
    mark = client.world.journal.mark()
    connect(client, "open", "")
    words = state_words(client, mark)
    assert words[words.index("scanning") :] == [*ASSOCIATION, "completed"]


def test_network_without_dhcp_gives_no_address(client: SimulatedDevice) -> None:
    mark = client.world.journal.mark()
    connect(client, "no dhcp")
    client.world.journal.wait_for(call("Restart", path=unit_path(DHCP_CLIENT)), mark)
    client.world.journal.expect_in_order(
        [changed("WiFiClientState", "completed"), changed("SSID")], mark
    )  # 2 s between the two
    assert client.world.get("IPAddress") == ""


def test_hidden_or_absent_network_is_searched_for_and_not_found(client: SimulatedDevice) -> None:
    for ssid in ("concealed", "absent"):
        mark = client.world.journal.mark()
        client.world.call("Connect", "ss", [ssid, KEY])
        wait_for_state(client, "scanning", mark)
        wait_for_state(client, "disconnected", mark)
        assert "associating" not in state_words(client, mark)


def test_second_network_replaces_the_first(client: SimulatedDevice) -> None:
    connect(client)
    connect(client, "open", "")
    assert client.world.get("ClientSSID") == "open"
    assert kernel_addresses(client) == ["10.8.0.2/24"]
    assert len(client.world.wpa.networks) == 1


def test_dhcp_client_that_is_stopped_takes_its_address_along(client: SimulatedDevice) -> None:
    connect(client)
    client.world.set("Mode", "Host")
    wait_until(client, lambda: kernel_addresses(client) == ["192.168.8.1/24"], "the access point's address alone")
    assert not client.world.wpa.present


def test_wpa_supplicant_of_a_stopped_unit_is_gone_and_comes_back_new(client: SimulatedDevice) -> None:
    connect(client)
    client.world.set("Mode", "Host")
    assert active_state(client, STATION) == "inactive"
    mark = client.world.journal.mark()
    client.world.set("Mode", "Client")
    wait_until(client, lambda: client.world.wpa.present, "wpa_supplicant")
    assert (client.world.wpa.networks, client.world.wpa.bss) == ({}, {})
    wait_for_state(client, "disconnected", mark)
    wait_for_state(client, "inactive", mark)
    assert state_words(client, mark) == ["disconnected", "inactive"]
    assert client.world.get("AccessPoints") == []


def test_radio_that_is_switched_off_ends_a_connection(client: SimulatedDevice) -> None:
    connect(client)
    client.world.set("WiFiState", Variant("u", 0))
    assert client.world.journal.count(command("rfkill block wlan")) == 1
    assert "Soft blocked: yes" in client.world.sandbox.sh("rfkill list wlan").stdout
    assert client.station.joined is None
    client.world.set("WiFiState", Variant("u", 1))
    wait_until(client, lambda: client.world.wpa.present, "wpa_supplicant")
    connect(client)


# Everything


def test_signals_drift_but_not_far() -> None:
    network = Network(b"a", "02:00:00:00:00:01", signal=-60)
    air = Air([network], ("2.4",))
    seen = set()
    for _ in range(500):
        air.drift()
        seen.add(air.signal(network))
    assert seen == set(range(-64, -55))


def test_daemon_that_dies_is_started_again_and_sets_the_device_up(device: SimulatedDevice) -> None:
    mark = device.world.journal.mark()
    first = device.world.daemon
    assert first is not None
    first.send_signal(9)
    device.world.journal.expect_in_order([changed("WiFiState", 1), changed("Mode", "Host")], mark)
    assert device.world.daemon is not first and device.world.get("SSID") == "Korrin One-3456"
