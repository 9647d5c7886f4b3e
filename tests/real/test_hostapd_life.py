"""The real hostapd ends, is killed and comes back, and the daemon's listener with it."""

from __future__ import annotations

import re
import signal

from real_device import RealDevice
from vantora_sim import changed, log, units
from waiting import wait_until

PHONE = "02:00:00:00:60:01"
TABLET = "02:00:00:00:60:02"

ATTACH_RECEIVED = "41 54 54 41 43 48 "
"""As hostapd shows the request in its output."""

FAREWELL = re.compile(r"^ListenTask: Recv <3>CTRL-EVENT-T(ERMINATING )?$")
"""Where it comes together with the event before it, it is cut to that one's length, and still understood."""


def announced(device: RealDevice, mac: str) -> None:
    """Let a station join; it must be announced, and once."""
    device.world.settle()
    mark = device.world.journal.mark()
    device.hostapd.order("new_sta", mac)
    device.world.journal.wait_for(changed("WiFiConnectedClients", 1), mark)
    device.world.settle()
    assert [value for name, value in device.world.journal.changes(mark) if name == "WiFiConnectedClients"] == [1]
    assert device.world.journal.count(log("info", f"ListenTask: Recv <3>AP-STA-CONNECTED {mac}"), mark) == 1


def test_events_of_the_start_are_sent_before_the_daemon_can_attach(access_point: RealDevice) -> None:
    assert access_point.hostapd.said("AP-ENABLED") == 1
    assert access_point.hostapd.cli("status").startswith("state=ENABLED")
    access_point.world.settle()
    assert access_point.world.journal.count(log("info", re.compile("Recv"))) == 0
    assert access_point.world.get("WiFiAccessPointInitialised") is False


def test_hostapd_that_is_restarted_says_farewell_and_is_attached_to_again(access_point: RealDevice) -> None:
    device, journal = access_point, access_point.world.journal
    mark = journal.mark()
    device.services.job("Restart", units.HOSTAPD)
    assert device.services.started(units.HOSTAPD) == 2
    journal.expect_in_order(
        [
            log("info", "ListenTask: Recv <3>AP-DISABLED "),
            log("info", FAREWELL),
            log("err", "wifi_host_terminated: hostapd terminated."),
            log("info", "restart_wifi_host_listener_callback: Restarting..."),
        ],
        mark,
    )
    device.hostapd.wait_attached()
    announced(device, PHONE)


def test_stations_of_a_hostapd_that_ends_are_said_to_leave_first(access_point: RealDevice) -> None:
    device, journal = access_point, access_point.world.journal
    announced(device, PHONE)
    mark = journal.mark()
    device.services.job("Stop", units.HOSTAPD)
    first = journal.wait_for(log("info", re.compile("^ListenTask: Recv ")), mark)
    assert first.text == f"ListenTask: Recv <3>AP-STA-DISCONNECTED {PHONE}"
    journal.expect_in_order([log("info", "ListenTask: Recv <3>AP-DISABLED "), log("info", FAREWELL)], mark)


def test_hostapd_that_ends_for_good_takes_its_folder_along(access_point: RealDevice) -> None:
    device, journal = access_point, access_point.world.journal
    mark = journal.mark()
    device.services.job("Stop", units.HOSTAPD)
    assert device.hostapd.process.status == 0
    assert not (device.world.work / "run/hostapd").exists()
    journal.wait_for(log("err", "ListenTask: Not connected to socket - cannot listen."), mark)
    assert device.world.get("WiFiConnectedClients") == 0


def test_killed_hostapd_leaves_its_socket_and_no_word(access_point: RealDevice) -> None:
    device, journal = access_point, access_point.world.journal
    announced(device, PHONE)
    device.world.settle()
    mark = journal.mark()
    device.hostapd.process.stop(signal.SIGKILL)
    assert (device.world.work / "run/hostapd/wlan0").is_socket()
    device.world.settle()
    assert journal.count(log("info", re.compile("Recv")), mark) == 0

    assert device.world.get("WiFiConnectedClients") == 0
    assert ("err", "hostapd_get_num_connected_clients: Could not connect to hostapd socket.") in journal.logs(mark)


def test_successor_of_a_killed_hostapd_is_asked_but_not_heard_until_the_mode_changes(access_point: RealDevice) -> None:
    device, journal = access_point, access_point.world.journal
    device.hostapd.process.stop(signal.SIGKILL)
    device.services.job("Start", units.HOSTAPD)
    device.hostapd.wait_serves()
    mark = journal.mark()
    device.hostapd.order("new_sta", PHONE)
    assert device.world.get("WiFiConnectedClients") == 1
    assert device.hostapd.said("CTRL_IFACE monitor attached") == 0
    assert journal.count(changed("WiFiConnectedClients"), mark) == 0

    device.world.set("Mode", "Client")
    device.world.set("Mode", "Host")
    device.wait_started(units.HOSTAPD, 3)
    device.hostapd.wait_attached()
    announced(device, TABLET)


def test_listener_that_is_started_twice_attaches_twice_and_hears_everything_once(access_point: RealDevice) -> None:
    """The second time is over the same connection, and hostapd keeps one entry for each."""
    device = access_point
    device.world.radio.interface_type = "monitor"  # so that writing the mode is not "already there"
    device.world.set("Mode", "Host")
    device.world.radio.interface_type = "AP"
    wait_until(lambda: device.hostapd.said(ATTACH_RECEIVED) == 2, lambda: f"a second attach\n{device.hostapd.process.stdout}")
    assert device.hostapd.said("CTRL_IFACE monitor attached") == 1
    assert device.services.started(units.HOSTAPD) == 1
    announced(device, PHONE)


def test_change_of_the_ssid_restarts_hostapd_and_the_daemon_follows(access_point: RealDevice) -> None:
    device = access_point
    device.world.set("SSID", "Another name")
    device.wait_started(units.HOSTAPD, 2)
    device.hostapd.wait_attached()
    assert "ssid[0]=Another name" in device.hostapd.cli("status").splitlines()
    announced(device, PHONE)


def test_every_change_of_the_band_restarts_hostapd_and_the_daemon_follows(access_point: RealDevice) -> None:
    """The job is answered before the old hostapd has ended: the daemon must not attach to that one again."""
    device = access_point
    for change, band in enumerate(["5", "2.4"] * 3, start=2):
        device.world.set("WiFiFrequency", band)
        device.wait_started(units.HOSTAPD, change)
        device.hostapd.wait_attached()
    announced(device, PHONE)


def test_mode_client_stops_hostapd_and_mode_host_brings_it_back(access_point: RealDevice) -> None:
    device = access_point
    device.world.set("Mode", "Client")
    device.supplicant.wait_present()
    assert not device.hostapd.process.running
    device.world.set("Mode", "Host")
    device.wait_started(units.HOSTAPD, 2)
    device.hostapd.wait_attached()
    announced(device, PHONE)
