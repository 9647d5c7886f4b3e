"""Whatever bytes the outside world comes with, what leaves on D-Bus is a text that every client can read."""

from __future__ import annotations

from typing import Any

from vantora_sim import World, signal

from properties import read

LOST = "\ufffd"

NAMES: dict[bytes, str] = {
    b"caf\xc3\xa9": "caf\u00e9",
    b"\xff" * 32: LOST * 32,
    b"a\x00b": f"a{LOST}b",
    b"\x00": LOST,
    b"cut \xe2\x82": f"cut {LOST}{LOST}",
    b"\xc0\xaf": LOST * 2,
    b"\xed\xa0\x80": LOST * 3,
    b"\xef\xbf\xbe": LOST * 3,
    b"\xf4\x90\x80\x80": LOST * 4,
    b"\xf0\x9f\x93\xb6": "\U0001f4f6",
    b"line\nbreak \x1b[31m": "line\nbreak \x1b[31m",
}


NO_LOCALE: dict[str, str | None] = {"LANG": None}
"""As a service on a device: in a UTF-8 locale grep(1) itself already drops lines that are no text."""


def client_world(make_world: Any) -> World:
    world: World = make_world()
    world.settings.set("network", "mode", "Client")
    world.up(NO_LOCALE)
    return world


def test_names_of_any_bytes_leave_the_list_and_its_signal_readable(make_world: Any) -> None:
    world = client_world(make_world)
    for number, name in enumerate(NAMES):
        world.wpa.add_bss(name, signal=-30 - number)
    expected = [[text, 1, -30 - number, True] for number, text in enumerate(NAMES.values())]
    assert world.get("AccessPoints") == expected
    mark = world.journal.mark()
    world.wpa.report_bsss()
    assert world.journal.wait_for(signal("AccessPointsChanged"), mark).body == [expected]


def test_a_thousand_hostile_names_leave_the_list_and_its_signal_readable(make_world: Any) -> None:
    world = client_world(make_world)
    patterns = [b"\xff" * 32, b"a\x00b\x00", b"'\"$(reboot)\n", b"\xc3\x28\xed\xa0\x80"]
    names = [patterns[number % 4][:26] + b"\xfe%04d" % number for number in range(1000)]
    for number, name in enumerate(names):
        world.wpa.add_bss(name, signal=-20 - number % 70)
    found = world.get("AccessPoints")
    assert sorted(row[0][-5:] for row in found) == [f"{LOST}{number:04d}" for number in range(1000)]
    assert [row[2] for row in found] == sorted((row[2] for row in found), reverse=True)
    mark = world.journal.mark()
    world.wpa.report_bsss()
    assert len(world.journal.wait_for(signal("AccessPointsChanged"), mark).body[0]) == 1000


def test_names_that_are_published_alike_stay_different_networks(make_world: Any) -> None:
    world = client_world(make_world)
    world.wpa.add_bss(b"\xfe", signal=-30)
    world.wpa.add_bss(b"\xff", signal=-40)
    assert world.get("AccessPoints") == [[LOST, 1, -30, True], [LOST, 1, -40, True]]


def test_name_of_the_joined_network_is_a_text(make_world: Any) -> None:
    world = client_world(make_world)
    for printed, text in {
        b"ssid=\xff\xfenet\n": f"{LOST}{LOST}net",
        b"ssid=caf\xc3\xa9\n": "caf\u00e9",
        b"ssid=" + b"\xe2" * 300 + b"\n": LOST * 256,
    }.items():
        world.tools.wpa_cli.output(printed)
        assert read(world, "ClientSSID").value == text


def test_transmit_power_is_a_text(world: World) -> None:
    world.up(NO_LOCALE)
    for printed, text in {
        b"\ttxpower \xff\xfe dBm\n": f"txpower {LOST}{LOST} dB",
        b"\ttxpower 1\xc2\xb2 dBm\n": "txpower 1\u00b2 dB",
    }.items():
        world.tools.iw.output(printed, on="wlan0 info")
        assert read(world, "WiFiSignal").value == text


def test_default_name_of_a_device_with_an_odd_model_is_a_text(world: World) -> None:
    world.sandbox.path("/etc/korrin/device.conf").write_bytes(b"model=Korr\xedn\nserial=12-3456\nradio_type=1\n")
    world.settings.remove("device", "deviceName")
    world.up()
    assert b"\nssid=Korr\xedn-3456\n" in world.hostapd_conf.read_bytes()
    assert world.get("SSID") == f"Korr{LOST}n-3456"


def test_state_word_of_the_station_is_published_as_it_came(make_world: Any) -> None:
    world = client_world(make_world)
    mark = world.journal.mark()
    word = "z\u00fcrich \U0001f4f6"
    world.wpa.report_state(word)
    world.journal.wait_until(lambda: any("State change" in text for _, text in world.journal.logs(mark)), "the new state")
    assert read(world, "WiFiClientState").value == word
