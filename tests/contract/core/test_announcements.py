"""What is announced with PropertiesChanged: each cause, one property to a signal, in order, with the value that a read yields."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest
from station import bring_up_scanning, bring_up_station, refusal
from vantora_sim import World, changed, log, signal

MAC = "02:00:00:00:30:01"

Change = tuple[str, Any]

OF_A_SWITCH = ("IPAddress", "WiFiAccessPointInitialised", "WiFiClientState")
"""What the neighbours report of a switch of modes, each on its own thread."""


def announced(world: World, act: Callable[[], Any], *expected: Change, apart_from: tuple[str, ...] = ()) -> None:
    """Act, and find exactly these announcements, each alone in its signal, and none in the settled world after them.

    `apart_from` names properties that the same act changes for another reason, on another thread.
    """
    mark = world.journal.mark()
    act()
    world.journal.expect_in_order(
        [changed(name, value, alone=True, interface="com.vantora.Network1.WiFi") for name, value in expected], mark
    )
    world.settle()
    assert [change for change in world.journal.changes(mark) if change[0] not in apart_from] == list(expected)


def bring_up_access_point(world: World) -> None:
    """The device as an access point, its listener attached."""
    world.up()
    world.hostapd.wait_attached()


def with_radio_off(world: World) -> None:
    """The device with a radio that is off, stored as an access point."""
    world.settings.set("network", "enabled", False)
    world.up()


def test_deferred_start_up(world: World) -> None:
    announced(world, world.up, ("WiFiState", 1), ("Mode", "Host"))


def test_deferred_start_up_as_a_station(world: World) -> None:
    announced(world, lambda: bring_up_station(world), ("WiFiState", 1), ("Mode", "Client"), apart_from=("WiFiClientState",))


def test_deferred_start_up_with_the_radio_off(world: World) -> None:
    announced(world, lambda: with_radio_off(world), ("WiFiState", 0))


def test_deferred_start_up_whose_power_step_fails(world: World) -> None:
    world.settings.set("network", "enabled", False)
    world.radio.soft_blocked = True
    world.tools.rfkill.fail(status=1, on="block wlan")
    announced(world, world.up, ("WiFiState", 0))


def test_radio_switched_on(world: World) -> None:
    with_radio_off(world)
    announced(world, lambda: world.set("WiFiState", 1), ("Mode", "Host"), ("WiFiState", 1), apart_from=("IPAddress",))


def test_radio_switched_on_without_its_mode(world: World) -> None:
    with_radio_off(world)
    world.tools.ip.fail(status=1, on="addr add")
    announced(world, lambda: world.set("WiFiState", 1), ("WiFiState", 1))


def test_radio_switched_off(world: World) -> None:
    bring_up_station(world)
    announced(world, lambda: world.set("WiFiState", 0), ("WiFiState", 0))


def test_radio_that_is_on_already_or_can_not_be_switched(world: World) -> None:
    bring_up_station(world)
    announced(world, lambda: world.set("WiFiState", 1))
    world.tools.rfkill.fail(status=1, on="block wlan")
    announced(world, lambda: refusal(lambda: world.set("WiFiState", 0)))


def test_mode_switched(world: World) -> None:
    bring_up_access_point(world)
    announced(world, lambda: world.set("Mode", "Client"), ("Mode", "Client"), apart_from=OF_A_SWITCH)


def test_mode_that_is_so_already_or_is_stored_only(world: World) -> None:
    bring_up_station(world)
    announced(world, lambda: world.set("Mode", "Client"))
    world.radio.soft_blocked = True
    announced(world, lambda: world.set("Mode", "Host"))


def test_frequency_applied(world: World) -> None:
    bring_up_access_point(world)
    announced(
        world, lambda: world.set("WiFiFrequency", "5"), ("WiFiFrequency", "5"), apart_from=("WiFiAccessPointInitialised",)
    )


def test_frequency_refused_or_the_same(world: World) -> None:
    bring_up_access_point(world)
    announced(world, lambda: world.set("WiFiFrequency", "2.4"))
    announced(world, lambda: refusal(lambda: world.set("WiFiFrequency", "6")))


def test_ssid_applied(world: World) -> None:
    bring_up_access_point(world)
    announced(world, lambda: world.set("SSID", "Attic"), ("SSID", "Attic"), apart_from=("WiFiAccessPointInitialised",))


def test_ssid_the_same_or_too_long(world: World) -> None:
    bring_up_access_point(world)
    announced(world, lambda: world.set("SSID", "Korrin One"))
    announced(world, lambda: refusal(lambda: world.set("SSID", "x" * 33)))


def test_connect_that_succeeds_announces_nothing_yet(world: World) -> None:
    bring_up_station(world)
    announced(world, lambda: world.call("Connect", "ss", ["cafe", "secret12"]))


def test_connect_that_fails_at_selecting(world: World) -> None:
    bring_up_scanning(world)
    world.wpa.refuse("SelectNetwork")
    announced(
        world, lambda: refusal(lambda: world.call("Connect", "ss", ["cafe", "secret12"])), ("WiFiClientState", "scanning")
    )


def test_connect_that_fails_before(world: World) -> None:
    bring_up_access_point(world)
    announced(world, lambda: refusal(lambda: world.call("Connect", "ss", ["cafe", "secret12"])))


def test_disconnect(world: World) -> None:
    bring_up_station(world)
    world.wpa.state = "completed"
    announced(world, lambda: world.call("Disconnect"), ("SSID", ""), ("IPAddress", ""))


def test_disconnect_that_fails(world: World) -> None:
    bring_up_station(world)
    announced(world, lambda: refusal(lambda: world.call("Disconnect")))


def test_scan(world: World) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    announced(world, lambda: world.call("Scan"))
    world.wpa.report_bsss()
    announced(world, lambda: world.journal.wait_for(signal("AccessPointsChanged"), mark))


@pytest.mark.parametrize("state", ["disconnected", "failed"])
def test_station_state(world: World, state: str) -> None:
    bring_up_scanning(world)
    announced(world, lambda: world.wpa.report_state(state), ("WiFiClientState", state))


def test_station_state_completed(world: World) -> None:
    bring_up_station(world)
    announced(world, lambda: world.wpa.report_state("completed"), ("WiFiClientState", "completed"), ("SSID", ""))


def test_access_point_ready_and_not_ready(world: World) -> None:
    bring_up_access_point(world)
    announced(world, world.hostapd.enable, ("WiFiAccessPointInitialised", True))
    announced(world, world.hostapd.disable, ("WiFiAccessPointInitialised", False))


def test_station_joined_and_left(world: World) -> None:
    bring_up_access_point(world)
    announced(world, lambda: world.hostapd.join(MAC), ("WiFiConnectedClients", 1))
    announced(world, lambda: world.hostapd.leave(MAC), ("WiFiConnectedClients", 0))


def test_address_of_wlan0(world: World) -> None:
    bring_up_station(world)
    announced(world, lambda: world.add_address("10.0.0.5/24"), ("IPAddress", "10.0.0.5"))
    announced(world, lambda: world.remove_address("10.0.0.5/24"), ("IPAddress", ""))


@pytest.mark.parametrize(
    ("section", "setting", "expected"),
    [
        ("network", {"enabled": False}, [("WiFiState", 0)]),
        ("network", {"mode": "Client"}, [("Mode", "Client")]),
        ("network", {"frequency": "5"}, [("WiFiFrequency", "5")]),
        ("device", {"deviceName": "Attic"}, [("SSID", "Attic")]),
    ],
)
def test_settings_changed_by_another_program(
    world: World, section: str, setting: dict[str, Any], expected: list[Change]
) -> None:
    bring_up_access_point(world)
    announced(world, lambda: world.settings.change(section, **setting), *expected, apart_from=OF_A_SWITCH)


def test_settings_changed_to_nothing_known(world: World) -> None:
    bring_up_access_point(world)
    mark = world.journal.mark()
    world.settings.change("network", mode="Sideways")
    announced(world, lambda: world.journal.wait_for(log("err", "[Main] set_wifi_mode: Unknown mode:Sideways"), mark))
