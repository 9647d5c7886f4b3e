"""`Connect`: what is asked of the radio, of the interface and of wpa_supplicant, and in which order."""

from __future__ import annotations

import pytest
from station import (
    FAILED,
    FLUSH_FAILED_LOGS,
    FLUSH_LOGS,
    STATION,
    add_network_call,
    bring_up_station,
    network,
    radio_checks,
    refusal,
    station_call,
)
from vantora_sim import World, changed, command, log

OPENING = [("info", "[Main] Connect to the AP")]
FLUSHING = [("info", "[Main] Flush IP address"), *FLUSH_LOGS]


def adding(ssid: str, passphrase: str, path: str) -> list[tuple[str, str]]:
    return [
        ("info", "[Main] Add new network"),
        ("info", f"[WPA] Add network '{ssid}', passphrase '{passphrase}'"),
        ("info", f"[WPA] Network object added '{path}'"),
    ]


def selecting(path: str) -> list[tuple[str, str]]:
    return [("info", "[Main] Select just added network"), ("info", f"[WPA] Select network:{path}")]


def test_connect_flushes_adds_and_selects(world: World) -> None:
    bring_up_station(world)
    world.add_address("10.0.0.5/24")
    mark = world.journal.mark()

    assert world.call("Connect", "ss", ["cafe", "secret12"]) == []

    world.journal.expect_in_order(
        [
            log("info", "[Main] Connect to the AP"),
            *radio_checks(),
            command("ip addr flush dev wlan0"),
            add_network_call("cafe", "secret12"),
            station_call("SelectNetwork", network(0)),
        ],
        mark,
    )
    assert "10.0.0.5" not in world.sandbox.sh("ip -4 addr show dev wlan0").stdout


def test_connect_writes_its_steps_into_the_log(world: World) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    world.call("Connect", "ss", ["cafe", "secret12"])
    world.settle()
    assert world.journal.logs(mark) == [*OPENING, *FLUSHING, *adding("cafe", "secret12", network(0)), *selecting(network(0))]
    assert world.journal.changes(mark) == []


def test_connect_with_an_empty_passphrase_adds_an_open_network(world: World) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    world.call("Connect", "ss", ["Free Wi-Fi", ""])
    world.journal.expect_in_order([add_network_call("Free Wi-Fi", ""), station_call("SelectNetwork", network(0))], mark)
    assert ("info", "[WPA] Add network 'Free Wi-Fi', passphrase ''") in world.journal.logs(mark)


def test_connect_hands_odd_texts_on_as_they_are(world: World) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    world.call("Connect", "ss", ["caf\u00e9 \"'%s\\", "pass \"'%n$x\\"])
    world.journal.wait_for(add_network_call("caf\u00e9 \"'%s\\", "pass \"'%n$x\\"), mark)
    world.settle()
    written = "[WPA] Add network 'caf\u00e9 \"'%s\\', passphrase 'pass \"'%n$x\\'"
    assert ("info", written) in world.journal.logs(mark)


def test_a_second_connect_removes_the_first_network_between_flush_and_add(world: World) -> None:
    bring_up_station(world)
    world.call("Connect", "ss", ["first", "secret12"])
    mark = world.journal.mark()

    world.call("Connect", "ss", ["second", "secret34"])

    world.settle()
    assert world.journal.logs(mark) == [
        *OPENING,
        *FLUSHING,
        ("info", f"[WPA] Remove network: {network(0)}"),
        *adding("second", "secret34", network(0)),
        *selecting(network(0)),
    ]
    world.journal.expect_in_order(
        [
            command("ip addr flush dev wlan0"),
            station_call("RemoveNetwork", network(0)),
            add_network_call("second", "secret34"),
            station_call("SelectNetwork", network(0)),
        ],
        mark,
    )
    assert [entries["ssid"].value for entries in world.wpa.networks.values()] == ["second"]


def test_many_connects_leave_one_network_behind(world: World) -> None:
    bring_up_station(world)
    for number in range(10):
        world.call("Connect", "ss", [f"net {number}", "secret12"])
    assert [entries["ssid"].value for entries in world.wpa.networks.values()] == ["net 9"]


def test_connect_goes_on_when_the_earlier_network_can_not_be_removed(world: World) -> None:
    bring_up_station(world)
    world.call("Connect", "ss", ["first", "secret12"])
    world.wpa.refuse("RemoveNetwork", times=1)
    mark = world.journal.mark()

    world.call("Connect", "ss", ["second", "secret34"])

    world.settle()
    assert world.journal.logs(mark) == [
        *OPENING,
        *FLUSHING,
        ("info", f"[WPA] Remove network: {network(0)}"),
        ("err", "[WPA] wpa_supplicant_remove_network: Failed to call dbus method"),
        *adding("second", "secret34", network(1)),
        *selecting(network(1)),
    ]


def test_connect_goes_on_when_the_addresses_can_not_be_flushed(world: World) -> None:
    bring_up_station(world)
    world.tools.ip.fail(status=1, on="addr flush")
    mark = world.journal.mark()
    assert world.call("Connect", "ss", ["cafe", "secret12"]) == []
    world.settle()
    assert world.journal.logs(mark) == [
        *OPENING,
        ("info", "[Main] Flush IP address"),
        *FLUSH_FAILED_LOGS,
        *adding("cafe", "secret12", network(0)),
        *selecting(network(0)),
    ]
    assert world.journal.count(command("ip addr flush dev wlan0"), mark) == 3


def test_a_refused_select_removes_the_network_and_announces_the_state(world: World) -> None:
    bring_up_station(world)
    world.wpa.refuse("SelectNetwork")
    mark = world.journal.mark()

    assert refusal(lambda: world.call("Connect", "ss", ["cafe", "secret12"])) == (FAILED, "Failed to connect to AP")

    world.journal.expect_in_order(
        [
            add_network_call("cafe", "secret12"),
            station_call("SelectNetwork", network(0)),
            station_call("RemoveNetwork", network(0)),
            *radio_checks(),
            changed("WiFiClientState", "disconnected", alone=True),
        ],
        mark,
    )
    world.settle()
    assert world.journal.logs(mark) == [
        *OPENING,
        *FLUSHING,
        *adding("cafe", "secret12", network(0)),
        *selecting(network(0)),
        ("err", "[WPA] wpa_supplicant_select_network: Failed to call dbus method"),
        ("err", "[Main] connect_to_ap: Failed to connect to AP"),
        ("info", f"[WPA] Remove network: {network(0)}"),
        ("info", "Get 'WiFiClientState' property"),
    ]
    assert world.journal.changes(mark) == [("WiFiClientState", "disconnected")]
    assert world.wpa.networks == {}


def test_after_a_refused_select_there_is_no_earlier_network_to_remove(world: World) -> None:
    bring_up_station(world)
    world.wpa.refuse("SelectNetwork", times=1)
    refusal(lambda: world.call("Connect", "ss", ["cafe", "wrong123"]))
    mark = world.journal.mark()
    world.call("Connect", "ss", ["cafe", "secret12"])
    assert world.journal.count(station_call("RemoveNetwork", network(0)), mark) == 0
    assert [entries["psk"].value for entries in world.wpa.networks.values()] == ["secret12"]


@pytest.mark.parametrize(("ssid", "passphrase"), [("cafe", "short"), ("cafe", "x" * 64), ("n" * 33, "secret12")])
def test_a_refused_network_fails_at_its_empty_path(world: World, ssid: str, passphrase: str) -> None:
    bring_up_station(world)
    mark = world.journal.mark()

    assert refusal(lambda: world.call("Connect", "ss", [ssid, passphrase])) == (FAILED, "Failed to connect to AP")

    world.settle()
    assert world.journal.logs(mark) == [
        *OPENING,
        *FLUSHING,
        ("info", "[Main] Add new network"),
        ("info", f"[WPA] Add network '{ssid}', passphrase '{passphrase}'"),
        ("err", "[WPA] wpa_supplicant_add_network: Method call failed"),
        *selecting(""),
        ("err", "[WPA] wpa_supplicant_select_network: Failed to call dbus method"),
        ("err", "[Main] connect_to_ap: Failed to connect to AP"),
        ("info", "[WPA] Remove network: "),
        ("err", "[WPA] wpa_supplicant_remove_network: Failed to call dbus method"),
        ("info", "Get 'WiFiClientState' property"),
    ]
    assert world.journal.changes(mark) == [("WiFiClientState", "disconnected")]
    sent = [entry.member for entry in world.journal.since(mark) if entry.kind == "call"]
    assert sent == ["AddNetwork"], "an empty path is no object path and never reaches the bus"


@pytest.mark.parametrize(("signature", "body"), [("", []), ("s", [f"{STATION}/Networks/7"]), ("u", [7])])
def test_an_answer_without_a_path_fails_at_the_empty_path(world: World, signature: str, body: list[object]) -> None:
    bring_up_station(world)
    world.wpa.reply("AddNetwork", signature, body)
    mark = world.journal.mark()
    assert refusal(lambda: world.call("Connect", "ss", ["cafe", "secret12"])) == (FAILED, "Failed to connect to AP")
    world.journal.expect_logs_in_order(
        [
            ("info", "[WPA] Add network 'cafe', passphrase 'secret12'"),
            ("err", "[WPA] wpa_supplicant_add_network: Failed to read response"),
            *selecting(""),
        ],
        mark,
    )


def test_connect_is_refused_while_the_radio_is_off(world: World) -> None:
    bring_up_station(world)
    world.radio.soft_blocked = True
    mark = world.journal.mark()
    assert refusal(lambda: world.call("Connect", "ss", ["cafe", "secret12"])) == (FAILED, "Wifi is off")
    world.settle()
    assert world.journal.logs(mark) == [*OPENING, ("err", "[Main] connect_to_ap: Wifi is disabled")]
    assert world.journal.commands(mark) == ["rfkill list wlan"], "the mode is not consulted"


def test_connect_is_refused_in_an_unknown_mode(world: World) -> None:
    bring_up_station(world)
    world.radio.interface_type = "monitor"
    mark = world.journal.mark()
    assert refusal(lambda: world.call("Connect", "ss", ["cafe", "secret12"])) == (FAILED, "WiFi is in unknown mode")
    world.settle()
    assert world.journal.logs(mark) == [*OPENING, ("err", "[Main] connect_to_ap: Failed to read wifi mode")]


def test_connect_is_refused_by_an_access_point(world: World) -> None:
    world.up()
    mark = world.journal.mark()
    assert refusal(lambda: world.call("Connect", "ss", ["cafe", "secret12"])) == (FAILED, "WiFi is not in client mode")
    world.settle()
    assert world.journal.logs(mark) == [*OPENING, ("err", "[Main] connect_to_ap: Wifi must be in client mode")]
    assert world.journal.commands(mark) == ["rfkill list wlan", "iw dev wlan0 info"]
