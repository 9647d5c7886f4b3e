"""The device as a whole: one story for each of its abilities, from the neighbour that causes it to what a client sees."""

from __future__ import annotations

from station import bring_up_station, network
from vantora_sim import World, call, changed, command, hostapd_request, log, notify, signal, unit_path

MAC = "02:00:00:00:30:01"
HOSTAPD = unit_path("hostapd.service")
DHCP_SERVER = unit_path("udhcpd.service")
DHCP_CLIENT = unit_path("udhcpc@wlan0.service")
STATION = unit_path("wpa_supplicant-nl80211@wlan0.service")
WIRED_DHCP_SERVER = unit_path("udhcpd_eth0.service")

RUNTIME_CONFIGURATION = """\
acs_blacklist=52 56 60 64 100 104 108 112 116 120 124 128 132 136 140 144
channel=0
country_code=NL
ctrl_interface=/var/run/hostapd
driver=nl80211
hw_mode=g
interface=wlan0
rsn_pairwise=CCMP
ssid=Korrin One
wpa=2
wpa_key_mgmt=WPA-PSK
wpa_passphrase=korrin-secret
"""


def test_hostapds_control_socket_is_followed_and_asked(world: World) -> None:
    world.up()
    world.hostapd.wait_attached()
    mark = world.journal.mark()
    world.hostapd.enable()
    world.hostapd.join(MAC)
    world.journal.expect_in_order([changed("WiFiAccessPointInitialised", True), changed("WiFiConnectedClients", 1)], mark)
    world.journal.wait_for(hostapd_request("STA-FIRST"), mark)
    assert world.get("WiFiConnectedClients") == 1


def test_a_stored_access_point_runs_with_its_configuration(world: World) -> None:
    world.up()
    assert world.hostapd_conf.read_text() == RUNTIME_CONFIGURATION
    world.journal.expect_in_order(
        [
            notify("READY=1"),
            command("rfkill unblock wlan"),
            changed("WiFiState", 1),
            call("Stop", "replace", path=DHCP_CLIENT),
            call("Stop", "replace", path=STATION),
            command("ip addr flush dev wlan0"),
            command("ip addr add 192.168.8.1/24 dev wlan0"),
            call("Start", "replace", path=HOSTAPD),
            call("Start", "replace", path=DHCP_SERVER),
            changed("Mode", "Host"),
        ]
    )
    assert "192.168.8.1/24" in world.sandbox.sh("ip -4 addr show dev wlan0").stdout
    assert (world.get("Mode"), world.get("SSID"), world.get("WiFiFrequency")) == ("Host", "Korrin One", "2.4")


def test_the_access_point_is_restarted_and_stopped_with_its_listener(world: World) -> None:
    world.up()
    world.hostapd.wait_attached()
    mark = world.journal.mark()
    world.set("WiFiFrequency", "5")
    world.journal.wait_for(call(lambda verb: verb in ("Restart", "Start"), path=HOSTAPD), mark)
    assert world.get("WiFiFrequency") == "5"
    for _ in range(3):  # the farewell of the old hostapd, when it was heard, restarts the listener once more, two turns later
        world.settle()
    world.hostapd.wait_attached()
    world.hostapd.join(MAC)
    world.journal.wait_for(changed("WiFiConnectedClients", 1), mark)
    mark = world.journal.mark()
    world.set("Mode", "Client")
    world.journal.expect_in_order([call("Stop", path=DHCP_SERVER), call("Stop", path=HOSTAPD)], mark)
    assert world.hostapd.attached == 0


def test_the_stations_states_are_followed_and_completed_restarts_dhcp(world: World) -> None:
    bring_up_station(world)
    bss = world.wpa.add_bss("cafe")
    mark = world.journal.mark()
    for state in ("scanning", "associating", "associated", "4way_handshake"):
        world.wpa.report_state(state)
    world.wpa.report_state("completed", bss=bss)
    world.journal.expect_in_order([call("Restart", "replace", path=DHCP_CLIENT), changed("WiFiClientState", "completed")], mark)
    world.journal.wait_for(log("info", "StateChangeHandler: Emitting state change: state = completed ssid = cafe"), mark)
    world.wpa.report_state("4way_handshake")
    world.wpa.report_state("disconnected")
    world.journal.wait_for(changed("WiFiClientState", "failed"), mark)
    world.wpa.report_bsss()
    world.journal.wait_for(signal("AccessPointsChanged", [["cafe", 1, -50, True]]), mark)


def test_the_station_joins_open_and_protected_networks_and_leaves_them(world: World) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    world.call("Scan")
    world.call("Connect", "ss", ["cafe", "secret12"])
    world.call("Connect", "ss", ["Free Wi-Fi", ""])
    world.wpa.state = "completed"
    world.call("Disconnect")
    world.journal.expect_in_order(
        [
            call("Scan"),
            call("AddNetwork"),
            call("SelectNetwork", network(0)),
            call("RemoveNetwork", network(0)),
            call("AddNetwork"),
            call("SelectNetwork", network(0)),
            call("Disconnect"),
        ],
        mark,
    )
    assert [sorted(entries) for entries in world.wpa.networks.values()] == [["key_mgmt", "ssid"]]
    mark = world.journal.mark()
    world.set("Mode", "Host")
    world.set("Mode", "Client")
    world.journal.expect_in_order([call("Stop", "replace", path=STATION), call("Start", "replace", path=STATION)], mark)


def test_power_and_mode_are_read_live_and_switched(world: World) -> None:
    world.up()
    assert (world.get("WiFiState"), world.get("Mode")) == (1, "Host")
    mark = world.journal.mark()
    world.set("WiFiState", 0)
    world.journal.expect_in_order(
        [command("rfkill block wlan"), call("Stop", path=DHCP_SERVER), call("Stop", path=HOSTAPD)], mark
    )
    assert (world.get("WiFiState"), world.get("Mode")) == (0, "unknown")
    world.radio.soft_blocked = False  # another program's doing
    assert world.get("WiFiState") == 1
    world.radio.interface_type = "AP"
    assert world.get("Mode") == "Host"
    mark = world.journal.mark()
    world.set("Mode", "Client")
    world.journal.expect_in_order(
        [
            call("Stop", path=DHCP_SERVER),
            call("Stop", path=HOSTAPD),
            call("Start", path=STATION),
            command("ip addr flush dev wlan0"),
        ],
        mark,
    )
    assert world.get("Mode") == "Client"


def test_written_properties_change_the_device_and_are_stored(world: World) -> None:
    world.up()
    mark = world.journal.mark()
    world.set("SSID", "Attic")
    world.set("WiFiFrequency", "5")
    world.set("Mode", "Client")
    world.set("WiFiState", 0)
    changes = [change for change in world.journal.changes(mark) if change[0] in ("SSID", "WiFiFrequency", "Mode", "WiFiState")]
    assert changes == [("SSID", "Attic"), ("WiFiFrequency", "5"), ("Mode", "Client"), ("WiFiState", 0)]
    stored = (
        world.settings.get("device", "deviceName"),
        world.settings.get("network", "frequency"),
        world.settings.get("network", "mode"),
    )
    assert stored == ("Attic", "5", "Client")
    assert "ssid=Attic\n" in world.hostapd_conf.read_text()


def test_scan_results_are_sorted_without_repetition_and_signalled(world: World) -> None:
    bring_up_station(world)
    for name, level in (("cafe", -70), ("home", -50), ("cafe", -40), ("", -10)):
        world.wpa.add_bss(name, signal=level)
    expected = [["cafe", 1, -40, True], ["home", 1, -50, True]]
    assert world.get("AccessPoints") == expected
    mark = world.journal.mark()
    world.wpa.report_bsss()
    world.journal.wait_for(signal("AccessPointsChanged", expected), mark)


def test_a_user_scans_connects_and_disconnects(world: World) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    world.call("Scan")
    bss = world.wpa.add_bss("cafe", signal=-40)
    world.wpa.report_bsss()
    world.journal.wait_for(signal("AccessPointsChanged", [["cafe", 1, -40, True]]), mark)
    world.call("Connect", "ss", ["cafe", "secret12"])
    world.wpa.report_state("completed", bss=bss)
    world.radio.station_ssid = b"cafe"
    world.journal.wait_for(changed("WiFiClientState", "completed"), mark)
    world.add_address("10.0.0.5/24")
    world.journal.wait_for(changed("IPAddress", "10.0.0.5"), mark)
    assert (world.get("ClientSSID"), world.get("IPAddress")) == ("cafe", "10.0.0.5")
    world.call("Disconnect")
    assert world.get("IPAddress") == ""
    world.wpa.report_state("disconnected")
    world.journal.wait_for(changed("WiFiClientState", "disconnected"), mark)


def test_addresses_are_followed_on_both_interfaces(world: World) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    world.add_address("10.0.0.5/24", "wlan0")
    world.journal.wait_for(changed("IPAddress", "10.0.0.5"), mark)
    world.add_address("10.1.0.5/24", "eth0")
    world.journal.wait_for(log("info", "Successfully enabled and started udhcpd_eth0.service"), mark)
    world.remove_address("10.1.0.5/24", "eth0")
    world.journal.expect_in_order(
        [
            call("Start", "replace", path=WIRED_DHCP_SERVER),
            call("Stop", "replace", path=WIRED_DHCP_SERVER),
            log("info", "Successfully stopped and disabled udhcpd_eth0.service"),
        ],
        mark,
    )


def test_the_device_comes_up_as_stored_and_follows_every_neighbour(world: World) -> None:
    world.settings.set("development", "killWifiOnBoot", True)
    world.up()
    world.hostapd.wait_attached()
    assert (world.get("WiFiState"), world.get("Mode")) == (1, "Host")

    mark = world.journal.mark()
    world.hostapd.terminate()
    world.hostapd.start()
    world.journal.wait_for(log("info", "restart_wifi_host_listener_callback: Restarting..."), mark)
    world.hostapd.wait_attached()
    world.hostapd.join(MAC)
    world.journal.wait_for(changed("WiFiConnectedClients", 1), mark)

    mark = world.journal.mark()
    world.settings.change("network", mode="Client")
    world.journal.wait_for(changed("Mode", "Client"), mark)
    world.wpa.report_state("completed")
    world.journal.expect_in_order([changed("WiFiClientState", "completed"), changed("SSID", "")], mark)
    world.add_address("10.1.0.5/24", "eth0")
    world.journal.wait_for(log("info", "Successfully enabled and started udhcpd_eth0.service"), mark)
    assert "udhcpd_eth0.service" in world.systemd.enabled


def test_a_device_without_settings_is_an_access_point_with_its_own_name(world: World) -> None:
    world.settings.go()
    world.up()
    assert (world.get("WiFiState"), world.get("Mode"), world.get("SSID")) == (1, "Host", "Korrin One-3456")
    assert "ssid=Korrin One-3456\n" in world.hostapd_conf.read_text()
