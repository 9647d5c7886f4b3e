"""What the writable properties and the methods refuse, by error name and text, with what is logged about it."""

from __future__ import annotations

import pytest
from access_point import attached_up
from vantora_sim import CallRefused, World, call

FAILED = "org.freedesktop.DBus.Error.Failed"
DENIED = ("org.freedesktop.DBus.Error.AccessDenied", "Operation not permitted")

MODE_CALLED = ("info", "[Main] 'ChangeMode' d-bus method called")
FREQUENCY_CALLED = ("info", "[Main] Set WiFi frequency called")
SSID_CALLED = ("info", "Set 'SSID' property")


def refusal(world: World, member: str, *args: str) -> tuple[str, str]:
    """Name and text of the error with which a method is refused."""
    with pytest.raises(CallRefused) as refused:
        world.call(member, "s" * len(args), list(args))
    return refused.value.name, refused.value.text


@pytest.mark.parametrize(
    ("name", "value", "logs"),
    [
        ("WiFiState", 2, [("err", "[Main] set_wifi_state: Unsupported state: 2")]),
        ("WiFiState", 4294967295, [("err", "[Main] set_wifi_state: Unsupported state: 4294967295")]),
        ("Mode", "host", [MODE_CALLED, ("err", "[Main] set_wifi_mode: Unknown mode:host")]),
        ("Mode", "unknown", [MODE_CALLED, ("err", "[Main] set_wifi_mode: Unknown mode:unknown")]),
        ("Mode", "", [MODE_CALLED, ("err", "[Main] set_wifi_mode: Unknown mode:")]),
        ("WiFiFrequency", "6", [FREQUENCY_CALLED, ("err", "[Main] set_wifi_frequency: Invalid WiFi requency")]),
        ("WiFiFrequency", "", [FREQUENCY_CALLED, ("err", "[Main] set_wifi_frequency: Invalid WiFi requency")]),
        ("SSID", "x" * 33, [SSID_CALLED, ("err", "[Main] set_wifi_ssid: SSID is too long")]),
        ("SSID", "\u00e9" * 17, [SSID_CALLED, ("err", "[Main] set_wifi_ssid: SSID is too long")]),
    ],
)
def test_a_value_that_cannot_be_is_refused_and_changes_nothing(
    world: World, name: str, value: object, logs: list[tuple[str, str]]
) -> None:
    attached_up(world)
    mark = world.journal.mark()
    with pytest.raises(CallRefused) as refused:
        world.set(name, value)
    assert (refused.value.name, refused.value.text) == DENIED
    world.settle()
    assert world.journal.logs(mark) == logs
    assert [entry.kind for entry in world.journal.since(mark)] == ["log"] * len(logs)


@pytest.mark.parametrize(
    ("name", "value", "logs"),
    [
        ("WiFiState", 1, [("err", "[Main] set_wifi_state: already in wifi state 1")]),
        ("Mode", "Host", [MODE_CALLED, ("err", "[Main] set_wifi_mode: already in wifi mode Host")]),
        ("WiFiFrequency", "2.4", [FREQUENCY_CALLED, ("err", "[Main] set_wifi_frequency: already on wifi frequency 2.4")]),
        ("SSID", "Korrin One", [SSID_CALLED]),
    ],
)
def test_a_value_that_holds_already_is_accepted_and_changes_nothing(
    world: World, name: str, value: object, logs: list[tuple[str, str]]
) -> None:
    world.up()
    mark = world.journal.mark()
    world.set(name, value)
    world.settle()
    assert world.journal.logs(mark) == logs
    assert world.journal.changes(mark) == []
    assert world.journal.count(call(), mark) == 0


@pytest.mark.parametrize("name", ["Mode", "WiFiFrequency", "SSID"])
def test_each_write_is_logged_before_anything_is_done(world: World, name: str) -> None:
    attached_up(world)
    mark = world.journal.mark()
    world.set(name, {"Mode": "Client", "WiFiFrequency": "5", "SSID": "kitchen"}[name])
    first = {"Mode": MODE_CALLED, "WiFiFrequency": FREQUENCY_CALLED, "SSID": SSID_CALLED}[name]
    assert world.journal.logs(mark)[0] == first
    assert world.journal.since(mark)[0].kind == "log"


# Methods

CONNECT = ("Connect", "net", "secret12")
DISCONNECT = ("Disconnect",)


@pytest.mark.parametrize("method", [CONNECT, DISCONNECT], ids=["Connect", "Disconnect"])
def test_station_methods_want_a_radio_that_is_on_before_they_look_at_its_mode(world: World, method: tuple[str, ...]) -> None:
    world.up()
    world.radio.soft_blocked = True
    mark = world.journal.mark()
    assert refusal(world, *method) == (FAILED, "Wifi is off")
    assert world.journal.commands(mark) == ["rfkill list wlan"]
    assert world.journal.count(call(), mark) == 0


@pytest.mark.parametrize("method", [CONNECT, DISCONNECT], ids=["Connect", "Disconnect"])
@pytest.mark.parametrize(
    ("interface_type", "text"), [("monitor", "WiFi is in unknown mode"), ("AP", "WiFi is not in client mode")]
)
def test_station_methods_want_client_mode(world: World, method: tuple[str, ...], interface_type: str, text: str) -> None:
    world.up()
    world.radio.interface_type = interface_type
    mark = world.journal.mark()
    assert refusal(world, *method) == (FAILED, text)
    assert world.journal.commands(mark) == ["rfkill list wlan", "iw dev wlan0 info"]
    assert world.journal.count(call(), mark) == 0


def test_a_network_that_cannot_be_selected_and_one_that_cannot_be_left_are_refused_alike(world: World) -> None:
    world.settings.set("network", "mode", "Client")
    world.up()
    world.wpa.refuse("SelectNetwork")
    world.wpa.refuse("Disconnect")
    assert refusal(world, *CONNECT) == (FAILED, "Failed to connect to AP")
    assert refusal(world, *DISCONNECT) == (FAILED, "Failed to connect to AP")


@pytest.mark.parametrize("state", ["off", "Host", "unknown"])
def test_a_scan_asks_for_neither_radio_nor_mode(world: World, state: str) -> None:
    world.up()
    world.wpa.come_back()
    world.radio.soft_blocked = state == "off"
    world.radio.interface_type = "monitor" if state == "unknown" else "AP"
    mark = world.journal.mark()
    assert world.call("Scan") == []
    assert world.journal.commands(mark) == []
    assert [entry.member for entry in world.journal.find(call(), mark)] == ["Scan"]
