"""Reactions to events: the delayed announcement of `SSID`, the end of hostapd, stations, addresses."""

from __future__ import annotations

import time

from station import bring_up_station
from vantora_sim import Entry, World, changed, hostapd_request, log

STATION = "02:00:00:00:30:01"
TERMINATED_LOG = ("err", "wifi_host_terminated: hostapd terminated.")
READ_LOG = ("info", "Read settings from Settings Daemon")
RESTART_LOG = ("err", "wifi_host_terminated: We are supposed to be in host mode. Restart hostapd listener")
RESTARTING_LOG = ("info", "restart_wifi_host_listener_callback: Restarting...")


def bring_up_access_point(world: World) -> None:
    """Start the daemon as an access point that it listens to."""
    world.up()
    world.hostapd.wait_attached()


def wait_ssid(world: World, mark: int) -> Entry:
    """Wait for the announcement of `SSID`."""
    return world.journal.wait_for(changed("SSID", "", alone=True), mark)


def test_completed_announces_the_ssid_two_seconds_later(world: World) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    begin = time.monotonic()
    world.wpa.report_state("completed")
    world.journal.wait_for(changed("WiFiClientState", "completed", alone=True), mark)
    wait_ssid(world, mark)
    assert time.monotonic() - begin >= 2
    assert world.journal.changes(mark) == [("WiFiClientState", "completed"), ("SSID", "")]


def test_a_newer_completed_takes_the_place_of_a_pending_announcement(world: World) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    world.wpa.report_state("completed")
    world.journal.wait_for(changed("WiFiClientState", "completed"), mark)
    begin = time.monotonic()
    world.wpa.report_state("disconnected")
    world.wpa.report_state("completed")
    entry = wait_ssid(world, mark)
    assert time.monotonic() - begin >= 2
    assert [value for name, value in world.journal.changes(mark) if name == "WiFiClientState"] == [
        "completed",
        "disconnected",
        "completed",
    ]
    world.wpa.report_state("scanning")
    world.wpa.report_state("completed")  # and the next one works as the first
    wait_ssid(world, entry.index + 1)
    assert world.journal.count(changed("SSID"), mark) == 2


def test_a_flood_of_states_is_announced_state_by_state_and_the_ssid_follows(world: World) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    for _ in range(25):
        world.wpa.report_state("completed")
        world.wpa.report_state("disconnected")
    wait_ssid(world, mark)
    world.settle()
    assert world.journal.count(changed("WiFiClientState", "completed"), mark) == 25
    assert world.journal.count(changed("WiFiClientState", "disconnected"), mark) == 25


def test_the_daemon_ends_cleanly_with_an_announcement_pending(world: World) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    world.wpa.report_state("completed")
    world.journal.wait_for(changed("WiFiClientState", "completed"), mark)
    assert world.stop_daemon() == 0
    assert world.journal.count(changed("SSID"), mark) == 0


def reaction_logs(world: World, since: int) -> list[tuple[str, str]]:
    """The lines that the end of hostapd causes in the reaction, up to the restart of its listener."""
    wanted = (
        TERMINATED_LOG,
        READ_LOG,
        RESTART_LOG,
        RESTARTING_LOG,
        ("err", "Failed to read initial wifi configuration, use safe config"),
    )
    return [line for line in world.journal.logs(since) if line in wanted]


def test_the_end_of_hostapd_restarts_the_listener_of_a_stored_access_point(world: World) -> None:
    bring_up_access_point(world)
    world.systemd.active["hostapd.service"] = False
    mark = world.journal.mark()
    world.hostapd.terminate()
    world.journal.wait_for(log(*RESTARTING_LOG), mark)
    assert reaction_logs(world, mark) == [TERMINATED_LOG, READ_LOG, RESTART_LOG, RESTARTING_LOG]
    assert world.journal.count(changed("WiFiAccessPointInitialised"), mark) <= 1
    assert [
        entry.member for entry in world.journal.since(mark) if entry.kind == "call" and entry.bus == "system"
    ] == [], "hostapd itself is systemd's business"


def test_the_restarted_listener_hears_a_restarted_hostapd(world: World) -> None:
    bring_up_access_point(world)
    for number in range(2):
        mark = world.journal.mark()
        world.hostapd.terminate()
        world.hostapd.start()
        world.journal.expect_in_order([log(*RESTARTING_LOG), hostapd_request("ATTACH")], mark)
        world.hostapd.wait_attached()
        mark = world.journal.mark()
        world.hostapd.join(f"02:00:00:00:30:{number:02x}")
        world.journal.wait_for(changed("WiFiConnectedClients", 1), mark)


def test_the_end_of_hostapd_while_a_station_is_stored_is_only_logged(world: World) -> None:
    bring_up_access_point(world)
    world.settings.set("network", "mode", "Client")
    mark = world.journal.mark()
    world.hostapd.event("CTRL-EVENT-TERMINATING ")
    world.hostapd.join(STATION)  # handled by the same thread, and announced by way of the same queue, after a restart would be
    world.journal.wait_for(changed("WiFiConnectedClients", 1), mark)
    assert reaction_logs(world, mark) == [TERMINATED_LOG, READ_LOG]


def test_the_end_of_hostapd_with_unreadable_settings_counts_as_a_stored_access_point(world: World) -> None:
    bring_up_access_point(world)
    world.settings.set("network", "mode", "Client")  # which can be read, and is not believed without the rest
    world.settings.remove("network", "frequency")
    mark = world.journal.mark()
    world.hostapd.terminate()
    world.journal.wait_for(log(*RESTARTING_LOG), mark)
    assert reaction_logs(world, mark) == [
        TERMINATED_LOG,
        READ_LOG,
        ("err", "Failed to read initial wifi configuration, use safe config"),
        RESTART_LOG,
        RESTARTING_LOG,
    ]


def test_a_ready_and_a_lost_access_point_are_announced(world: World) -> None:
    bring_up_access_point(world)
    mark = world.journal.mark()
    world.hostapd.enable()
    world.journal.wait_for(changed("WiFiAccessPointInitialised", True, alone=True), mark)
    world.hostapd.disable()
    world.journal.wait_for(changed("WiFiAccessPointInitialised", False, alone=True), mark)
    states = [line for line in world.journal.logs(mark) if line[1].startswith("wifi_host_ap_initialised")]
    assert states == [
        ("info", "wifi_host_ap_initialised: AP State: READY"),
        ("info", "wifi_host_ap_initialised: AP State: NOT READY"),
    ]
    assert [name for name, _ in world.journal.changes(mark)] == ["WiFiAccessPointInitialised"] * 2


def test_stations_that_come_and_go_are_announced(world: World) -> None:
    bring_up_access_point(world)
    mark = world.journal.mark()
    world.hostapd.join(STATION)
    world.journal.wait_for(changed("WiFiConnectedClients", 1, alone=True), mark)
    world.hostapd.leave(STATION)
    world.journal.wait_for(changed("WiFiConnectedClients", 0, alone=True), mark)
    reactions = [line for line in world.journal.logs(mark) if line[1].startswith("wifi_host_station")]
    assert [priority for priority, _ in reactions] == ["info", "info"]
    assert reactions[0][1].startswith("wifi_host_station_connected: ") and STATION in reactions[0][1]
    assert reactions[1][1].startswith("wifi_host_station_disconnected: ") and STATION in reactions[1][1]


def test_only_addresses_of_wlan0_are_announced(world: World) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    world.add_address("10.1.0.5/24", "eth0")
    world.journal.wait_for(log("info", "Successfully enabled and started udhcpd_eth0.service"), mark)
    world.add_address("10.0.0.5/24", "wlan0")
    world.journal.wait_for(changed("IPAddress", "10.0.0.5", alone=True), mark)
    world.remove_address("10.0.0.5/24", "wlan0")
    world.journal.wait_for(changed("IPAddress", "", alone=True), mark)
    assert world.journal.changes(mark) == [("IPAddress", "10.0.0.5"), ("IPAddress", "")]
