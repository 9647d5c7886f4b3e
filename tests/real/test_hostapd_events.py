"""What the real hostapd says about its stations, and what the daemon announces of it."""

from __future__ import annotations

from collections.abc import Callable

from programs import WIRED_ACCESS_POINT
from real_device import PEER_ADDRESS, RealDevice
from vantora_sim import Process, changed, log
from waiting import wait_until

PHONE = "02:00:00:00:60:01"
TABLET = "02:00:00:00:60:02"


def join(device: RealDevice, mac: str, expected: int) -> None:
    """Let a station join and wait until the daemon has announced the number of stations."""
    mark = device.world.journal.mark()
    device.hostapd.order("new_sta", mac)
    device.world.journal.expect_in_order(
        [log("info", f"ListenTask: Recv <3>AP-STA-CONNECTED {mac}"), changed("WiFiConnectedClients", expected)], mark
    )


def leave(device: RealDevice, mac: str, expected: int) -> None:
    """Throw a station out and wait until the daemon has announced the number of stations."""
    mark = device.world.journal.mark()
    device.hostapd.order("deauthenticate", mac)
    device.world.journal.expect_in_order(
        [log("info", f"ListenTask: Recv <3>AP-STA-DISCONNECTED {mac}"), changed("WiFiConnectedClients", expected)], mark
    )


def test_stations_that_join_are_counted_and_announced(access_point: RealDevice) -> None:
    assert access_point.world.get("WiFiConnectedClients") == 0
    join(access_point, PHONE, 1)
    join(access_point, TABLET, 2)
    assert access_point.hostapd.stations() == [TABLET, PHONE]  # the latest first
    assert access_point.world.get("WiFiConnectedClients") == 2


def test_station_that_left_is_not_counted_while_it_lingers_in_hostapds_list(access_point: RealDevice) -> None:
    join(access_point, PHONE, 1)
    join(access_point, TABLET, 2)
    access_point.hostapd.order("disassociate", PHONE)
    access_point.world.journal.wait_for(changed("WiFiConnectedClients", 1))
    assert PHONE in access_point.hostapd.stations()
    assert access_point.world.get("WiFiConnectedClients") == 1
    leave(access_point, TABLET, 0)
    assert access_point.hostapd.stations() == [TABLET, PHONE]
    assert access_point.world.get("WiFiConnectedClients") == 0


def test_station_that_comes_back_is_counted_again(access_point: RealDevice) -> None:
    join(access_point, PHONE, 1)
    leave(access_point, PHONE, 0)
    wait_until(lambda: access_point.hostapd.stations() == [], "the station to be forgotten")  # after five seconds
    join(access_point, PHONE, 1)


def test_access_point_that_goes_off_and_on_the_air_is_announced(access_point: RealDevice) -> None:
    journal = access_point.world.journal
    mark = journal.mark()
    access_point.hostapd.order("disable")
    journal.expect_in_order(
        [log("info", "ListenTask: Recv <3>AP-DISABLED "), changed("WiFiAccessPointInitialised", False)], mark
    )
    mark = journal.mark()
    access_point.hostapd.order("enable")
    journal.expect_in_order([log("info", "ListenTask: Recv <3>AP-ENABLED "), changed("WiFiAccessPointInitialised", True)], mark)
    assert access_point.world.get("WiFiAccessPointInitialised") is True


def test_event_that_follows_at_once_is_cut_to_the_length_of_the_one_before(access_point: RealDevice) -> None:
    """hostapd sends both in one go; whether the daemon gets them in one go is up to the scheduler."""
    join(access_point, PHONE, 1)
    mark = access_point.world.journal.mark()
    access_point.hostapd.order("disable")
    second = access_point.world.journal.expect_in_order(
        [
            log("info", "ListenTask: Recv <3>AP-DISABLED "),
            log("info", lambda text: text.startswith("ListenTask: Recv <3>AP-STA-DISC")),
        ],
        mark,
    )[1]
    assert second.text in ("ListenTask: Recv <3>AP-STA-DISCO", f"ListenTask: Recv <3>AP-STA-DISCONNECTED {PHONE}")
    assert access_point.world.get("WiFiConnectedClients") == 0  # either way


def start_phone(device: RealDevice) -> Process:
    """A machine on the other end of the cable that wants to be let in."""
    return device.start_peer("/usr/sbin/wpa_supplicant", "-Dwired", "-iair0", "-c/run/peer.conf")


def test_station_that_really_authenticates_is_counted(make_device: Callable[..., RealDevice]) -> None:
    device = make_device("Host", hostapd_template=WIRED_ACCESS_POINT)
    device.hostapd.wait_attached()
    phone = start_phone(device)
    journal = device.world.journal
    journal.expect_in_order(
        [log("info", f"ListenTask: Recv <3>AP-STA-CONNECTED {PEER_ADDRESS}"), changed("WiFiConnectedClients", 1)]
    )
    wait_until(lambda: "CTRL-EVENT-CONNECTED" in phone.stdout, lambda: f"the phone to be let in\n{phone.stdout}")
    assert device.hostapd.stations() == [PEER_ADDRESS]
    leave(device, PEER_ADDRESS, 0)
