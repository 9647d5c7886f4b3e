"""The client's `scan`: what it asks for, how long it waits, and how it shows what strangers call their networks."""

from __future__ import annotations

import re

from station import bring_up_station
from vantora_sim import World, call
from wifi_client import DAEMON_LEFT, DONE, REFUSED, TIMED_OUT, Way, ends_with_the_daemon, on_terminal, run

NETWORK_FIELDS = {"type", "ssid", "signal", "bars", "encrypted", "wpa_psk", "joinable", "joined"}


def announce_after_scan(world: World) -> None:
    """Let the station report its list of networks whenever it is asked to scan."""
    world.wpa.on_call.append(lambda member, args: world.wpa.report_bsss() if member == "Scan" else None)


def bring_up_street(world: World) -> None:
    """A station with some networks around that are found by a scan."""
    bring_up_station(world)
    world.wpa.add_bss("home", signal=-48)
    world.wpa.add_bss("Café Öl 喫茶店", signal=-64)
    world.wpa.add_bss("free", signal=-73, privacy=False, key_mgmt=())
    world.wpa.add_bss("office", signal=-84, key_mgmt=("wpa-eap",))
    world.wpa.add_bss("far away", signal=-92)
    announce_after_scan(world)


def test_scan_prints_an_aligned_table_with_bars(world: World) -> None:
    bring_up_street(world)
    shown = run(world, "scan")
    assert (shown.status, shown.stderr) == (DONE, "")
    assert shown.stdout.splitlines() == [
        "SIGNAL  DBM  SECURITY  NETWORK",
        "▂▄▆█    -48  WPA-PSK   home",
        "▂▄▆·    -64  WPA-PSK   Café Öl 喫茶店",
        "▂▄··    -73  open      free",
        "▂···    -84  other     office",
        "····    -92  WPA-PSK   far away",
    ]


def test_bars_are_ascii_where_the_locale_has_nothing_else(world: World) -> None:
    bring_up_street(world)
    lines = run(world, "scan", LC_ALL="C").stdout.splitlines()
    assert lines[1] == "####    -48  WPA-PSK   home"
    assert lines[2] == "###.    -64  WPA-PSK   Caf\\u{e9} \\u{d6}l \\u{55ab}\\u{8336}\\u{5e97}"


def test_scan_for_programs_is_one_object_a_network(world: World, way: Way) -> None:
    bring_up_street(world)
    shown = way.run(world, "scan", "--json")
    assert (shown.status, shown.stderr) == (DONE, "")
    assert all(set(network) == NETWORK_FIELDS for network in shown.objects)
    assert shown.objects[0] == {
        "type": "network",
        "ssid": "home",
        "signal": -48,
        "bars": 4,
        "encrypted": True,
        "wpa_psk": True,
        "joinable": True,
        "joined": False,
    }
    assert [
        (network["ssid"], network["bars"], network["encrypted"], network["wpa_psk"], network["joinable"])
        for network in shown.objects[1:]
    ] == [
        ("Café Öl 喫茶店", 3, True, True, True),
        ("free", 2, False, False, True),
        ("office", 1, True, False, False),
        ("far away", 0, True, True, True),
    ]


def test_hostile_names_cannot_play_with_the_terminal(world: World) -> None:
    bring_up_station(world)
    names = {
        b"\x1b[2J\x1b[1;1H": "\\x1b[2J\\x1b[1;1H",
        b"\x1b]0;title\x07": "\\x1b]0;title\\x07",
        b"two\nlines\r\t": "two\\nlines\\x0d\\t",
        "\u202ekcab\u202c".encode(): "\\u{202e}kcab\\u{202c}",
        "zero\u200bwidth\ufeff".encode(): "zero\\u{200b}width\\u{feff}",
        "\u009b31m".encode(): "\\u{9b}31m",
        b"back\\slash": "back\\\\slash",
        b"\xff\xfe": "\ufffd\ufffd",
        b"\x7f\x08\x08": "\\x7f\\x08\\x08",
        "\u0301accent".encode(): "\\u{301}accent",
    }
    for number, name in enumerate(names):
        world.wpa.add_bss(name, signal=-40 - number)
    announce_after_scan(world)
    shown = run(world, "scan").stdout
    assert [re.split(r" {2,}", line)[3] for line in shown.splitlines()[1:]] == list(names.values())
    with on_terminal(world, "scan", NO_COLOR="1") as client:
        assert client.end() == DONE
        assert not re.search("[\x00-\x09\x0b\x0c\x0e-\x1f\x7f-\x9f\u200b-\u200f\u202a-\u202e]", client.text)
        assert client.text.count("\n") == len(names) + 1
    programs = run(world, "scan", "--json").stdout
    assert programs.isascii() and not re.search("[\x00-\x09\x0b-\x1f\x7f]", programs)


def test_scan_asks_the_station_to_scan(world: World) -> None:
    bring_up_street(world)
    mark = world.journal.mark()
    run(world, "scan")
    world.journal.wait_for(call("Scan"), mark)


def test_a_scan_that_finds_nothing_new_shows_what_is_known(world: World) -> None:
    bring_up_station(world)
    world.wpa.add_bss("home", signal=-48)
    world.wpa.report_bsss()
    shown = run(world, "scan")
    assert (shown.status, shown.stderr) == (DONE, "")
    assert shown.stdout.splitlines()[1:] == ["▂▄▆█    -48  WPA-PSK   home"]


def test_a_scan_that_finds_nothing_new_in_time_ends_with_4(world: World, way: Way) -> None:
    bring_up_station(world)
    assert way.run(world, "scan", "--timeout", "7.5") == way.ended(
        TIMED_OUT, stderr="vantora-wifi: the scan found nothing new in time\n"
    )


def test_nothing_in_range_is_said_to_people_only(world: World) -> None:
    bring_up_station(world)
    announce_after_scan(world)
    assert run(world, "scan").stdout == "No networks in range.\n"
    assert run(world, "scan", "--json").stdout == ""


def test_two_hundred_networks_fit(world: World) -> None:
    bring_up_station(world)
    for number in range(200):
        world.wpa.add_bss(f"net {number}", signal=-40)
    announce_after_scan(world)
    assert len(run(world, "scan", "--json").objects) == 200


def test_an_access_point_does_not_scan(world: World, way: Way) -> None:
    world.up()
    mark = world.journal.mark()
    assert way.run(world, "scan") == way.ended(
        REFUSED,
        stderr="vantora-wifi: the device is an access point, which cannot look for networks; make it a station "
        "with 'vantora-wifi mode client'\n",
    )
    assert world.journal.count(call("Scan"), mark) == 0


def test_a_radio_that_is_off_does_not_scan(world: World, way: Way) -> None:
    world.settings.set("network", "enabled", False)
    world.up()
    assert way.run(world, "scan") == way.ended(
        REFUSED, stderr="vantora-wifi: the radio is off; switch it on with 'vantora-wifi on'\n"
    )


def test_a_scan_that_the_station_refuses_shows_what_is_known(world: World) -> None:
    bring_up_station(world)
    world.wpa.add_bss("home", signal=-48)
    world.wpa.report_bsss()
    world.wpa.refuse("Scan")
    shown = run(world, "scan")
    assert (shown.status, shown.stderr) == (DONE, ""), "the daemon takes the refusal for a success"
    assert "home" in shown.stdout


def test_a_station_that_was_still_starting_up_is_asked_again(world: World) -> None:
    bring_up_station(world)
    world.wpa.add_bss("home", signal=-48)
    announce_after_scan(world)
    world.wpa.refuse("Scan", times=1)
    mark = world.journal.mark()
    shown = run(world, "scan")
    assert "home" in shown.stdout
    assert world.journal.count(call("Scan"), mark) == 2


def test_the_daemon_dying_during_a_scan_ends_with_3(world: World, way: Way) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    with way.start(world, "scan") as client:
        world.journal.wait_for(call("Scan"), mark)
        assert ends_with_the_daemon(world, client) == DAEMON_LEFT
