"""The client on the simulated device, where everything takes its time: every command and every exit status, on pipes and
on a terminal.

Where a command has no other way to end with status 1 (the daemon refuses no name that the client lets through), standard
output cannot be written; that is for pipes only. `monitor` never ends with 0: it is interrupted.
"""

from __future__ import annotations

import re
import signal
from collections.abc import Callable, Iterator
from contextlib import contextmanager

import pytest
from simulated import KEY, SharedDevice
from vantora_sim import World, changed
from wifi_client import COMMANDS, DONE, REFUSED, TIMED_OUT, UNREACHABLE, USAGE, Running, Way, objects_in, program

Simctl = Callable[..., tuple[int, str]]

WRONG = [
    ["status", "now"],
    ["on", "2"],
    ["off", "--open"],
    ["mode", "router"],
    ["band", "6"],
    ["ssid", ""],
    ["scan", "all"],
    ["connect", "secured", "right and proper"],
    ["disconnect", "open"],
    ["monitor", "--timeout", "0"],
]
NOT_RUNNING = "vantora-wifi: the daemon is not running (nobody owns com.vantora.Network1)\n"
GONE = "vantora-wifi: the daemon has left the bus in the middle of this\n"
NO_ANSWER = "vantora-wifi: the daemon did not answer in time\n"
ON_AND_ON = "; the device goes on trying until 'vantora-wifi off' or 'vantora-wifi mode host'\n"
STAYS = "; the device stays connected until 'vantora-wifi disconnect'\n"


@pytest.fixture
def access_point(shared: SharedDevice) -> SharedDevice:  # noqa: F811
    """The device as an access point on the air."""
    shared.be("Host")
    return shared


@pytest.fixture
def station(shared: SharedDevice) -> SharedDevice:  # noqa: F811
    """The device as a station that is not connected."""
    shared.be("Client")
    return shared


def told(words: str, daemon_text: str) -> str:
    """The line about a refusal."""
    return f'vantora-wifi: {words} (the daemon: "{daemon_text}")\n'


# An access point


def test_status_shows_what_is_so(access_point: SharedDevice, way: Way) -> None:
    world = access_point.device.world
    world.set("SSID", "Hallway")
    shown = way.run(world, "status")
    assert (shown.status, shown.stderr) == (DONE, "")
    rows = dict(re.split(r" {2,}", line, maxsplit=1) for line in shown.stdout.splitlines())
    assert (rows["Radio"], rows["Mode"], rows["SSID"], rows["Address"]) == (
        "on",
        "Host (access point)",
        "Hallway",
        "192.168.8.1",
    )
    shown = way.run(world, "status", "--json")
    assert shown.status == DONE and [shown.objects[0][name] for name in ("mode", "ssid", "address")] == [
        "Host",
        "Hallway",
        "192.168.8.1",
    ]


def test_off_and_on_switch_the_radio(access_point: SharedDevice, way: Way) -> None:
    world = access_point.device.world
    assert way.run(world, "off") == way.ended(DONE, "The radio is off.\n")
    assert world.radio.soft_blocked
    assert way.run(world, "disconnect") == way.ended(
        REFUSED, stderr=told("the radio is off; switch it on with 'vantora-wifi on'", "Wifi is off")
    )
    assert way.run(world, "on") == way.ended(DONE, "The radio is on.\n")
    assert not world.radio.blocked and world.get("Mode") == "Host"


def test_nothing_is_promised_for_the_time_when_the_radio_is_on(access_point: SharedDevice, way: Way) -> None:
    # An interface whose hostapd was stopped is that of a station, so the daemon takes the station for what there is already
    # and stores nothing: switched on again it is an access point as before.
    world = access_point.device.world
    assert way.run(world, "off") == way.ended(DONE, "The radio is off.\n")
    assert way.run(world, "mode", "client") == way.ended(
        DONE,
        "Not yet: the radio is off. 'vantora-wifi on' switches it on, and 'vantora-wifi status' then tells whether the "
        "device is a station (Client).\n",
    )
    assert way.run(world, "on") == way.ended(DONE, "The radio is on.\n")
    assert way.run(world, "mode") == way.ended(DONE, "host\n")


def test_off_is_refused_where_the_radio_does_not_obey(access_point: SharedDevice, way: Way) -> None:
    world = access_point.device.world
    world.tools.rfkill.fail(on="block wlan")
    words = "the radio could not be switched; the daemon's log says why"
    assert way.run(world, "off") == way.ended(REFUSED, stderr=told(words, "Operation not permitted"))
    world.clear_faults()
    world.set("WiFiState", 0)
    world.tools.rfkill.fail(on="unblock wlan")
    assert way.run(world, "on") == way.ended(REFUSED, stderr=told(words, "Operation not permitted"))


def test_band_and_ssid_change_the_access_point(access_point: SharedDevice, way: Way) -> None:
    world = access_point.device.world
    band, name = ("5", "Kitchen") if world.get("WiFiFrequency") == "2.4" else ("2.4", "Attic")
    assert way.run(world, "band", band) == way.ended(DONE, f"The access point's band is {band} GHz.\n")
    assert way.run(world, "ssid", name) == way.ended(DONE, f'The access point\'s name is "{name}".\n')
    assert (world.get("WiFiFrequency"), world.get("SSID"), world.radio.ap_ssid) == (band, name, name.encode())


def test_mode_makes_it_a_station_and_an_access_point_again(access_point: SharedDevice, way: Way) -> None:
    world = access_point.device.world
    assert way.run(world, "mode", "client") == way.ended(DONE, "The device is a station (Client).\n")
    assert world.get("Mode") == "Client"
    assert way.run(world, "mode", "host") == way.ended(DONE, "The device is an access point (Host).\n")
    assert world.get("Mode") == "Host"


def test_what_only_a_station_can_do_is_refused(access_point: SharedDevice, way: Way) -> None:
    world = access_point.device.world
    assert way.run(world, "disconnect") == way.ended(
        REFUSED,
        stderr=told(
            "the device is an access point; make it a station with 'vantora-wifi mode client'", "WiFi is not in client mode"
        ),
    )
    for arguments, what in (
        (["connect", "open"], "join a network"),
        (["connect", "x", "--force"], "join a network"),
        (["scan"], "look for networks"),
    ):
        assert way.run(world, *arguments) == way.ended(
            REFUSED,
            stderr=f"vantora-wifi: the device is an access point, which cannot {what}; make it a station with "
            "'vantora-wifi mode client'\n",
        ), arguments


def test_wrong_usage_of_any_command_ends_with_2_and_changes_nothing(access_point: SharedDevice, way: Way) -> None:
    world = access_point.device.world
    assert [arguments[0] for arguments in WRONG] == [arguments[0] for arguments in COMMANDS]
    mark = world.journal.mark()
    for arguments in WRONG:
        ended = way.run(world, *arguments)
        assert (ended.status, ended.stdout if not way.terminal else "") == (USAGE, ""), arguments
        said = ended.stdout + ended.stderr
        assert said.startswith("vantora-wifi: ") and said.endswith("Try 'vantora-wifi --help'.\n"), said
        assert KEY not in said
    # Addresses that the device was given on its way up are announced one a second.
    assert [change for change in world.journal.changes(mark) if change[0] != "IPAddress"] == []


@pytest.mark.parametrize("command", ["status", "ssid Full", "monitor"])
def test_output_that_nobody_can_take_is_a_failure(access_point: SharedDevice, command: str) -> None:
    ended = access_point.device.world.sandbox.sh(f"{program(access_point.device.world)} {command} >/dev/full")
    assert (ended.status, ended.stderr) == (REFUSED, "vantora-wifi: standard output cannot be written\n")


# A station


def test_scan_lists_what_is_around(station: SharedDevice, way: Way) -> None:
    world = station.device.world
    shown = way.run(world, "scan")
    assert (shown.status, shown.stderr) == (DONE, "")
    head, *lines = shown.stdout.splitlines()
    assert head == "SIGNAL  DBM  SECURITY  NETWORK"
    assert {re.split(r" {2,}", line)[3]: re.split(r" {2,}", line)[2] for line in lines} == {
        "secured": "WPA-PSK",
        "open": "open",
        "no dhcp": "WPA-PSK",
        "fast": "WPA-PSK",
    }
    shown = way.run(world, "scan", "--json")
    assert shown.status == DONE and {network["ssid"] for network in shown.objects} == {"secured", "open", "no dhcp", "fast"}


def test_scan_ends_with_4_when_the_station_hangs(station: SharedDevice, way: Way, simctl: Simctl) -> None:  # noqa: F811
    world = station.device.world
    assert simctl("hang", "wpa_supplicant")[0] == 0
    assert way.run(world, "scan", "--timeout", "8") == way.ended(TIMED_OUT, stderr=NO_ANSWER)


def test_connect_shows_the_way_to_the_address_and_disconnect_leaves(station: SharedDevice, way: Way) -> None:
    world = station.device.world
    with way.connect(world, "secured", KEY) as client:
        assert client.end() == DONE
        shown = client.plain
    assert shown.startswith(way.prompt("secured") + 'Connecting to "secured"\n')
    assert shown.endswith('  completed         connected\nConnected to "secured", address 10.7.0.2\n')
    assert KEY not in shown
    assert way.run(world, "status", "--json").objects[0]["client_ssid"] == "secured"
    assert way.run(world, "disconnect") == way.ended(DONE, "Disconnected.\n")
    ended = way.run(world, "disconnect")
    assert ended.status == REFUSED
    assert "there is no network to leave: the device is not connected" in ended.stdout + ended.stderr


def test_who_has_just_become_a_station_can_connect_at_once(access_point: SharedDevice, way: Way) -> None:
    world = access_point.device.world
    assert way.run(world, "mode", "client").status == DONE
    ended = way.run(world, "connect", "open", "--open")
    assert (ended.status, ended.stderr) == (DONE, "")
    assert ended.stdout.splitlines()[-1].startswith('Connected to "open", address ')


def test_connect_for_programs_moves_from_network_to_network(station: SharedDevice, way: Way) -> None:
    world = station.device.world
    for ssid, options, address in (("fast", [], "192.168.1.50"), ("open", ["--open"], "10.8.0.2")):
        with way.start(world, "--json", "connect", ssid, *options) if options else way.connect(
            world, ssid, KEY, "--json"
        ) as client:
            assert client.end() == DONE
            found = objects_in(client.plain.removeprefix(way.prompt(ssid)))
        assert (found[0], found[-1]) == (
            {"type": "connecting", "ssid": ssid},
            {"type": "connected", "ssid": ssid, "address": address},
        )
        assert {entry["type"] for entry in found[1:-1]} == {"state"} and found[-2]["state"] == "completed"


def test_connect_with_a_wrong_passphrase_ends_with_1(station: SharedDevice, way: Way) -> None:
    with way.connect(station.device.world, "secured", "not the right one") as client:
        assert client.end() == REFUSED
        assert client.plain.endswith(
            '  failed            the passphrase was refused\nvantora-wifi: "secured" refused the passphrase\n'
        )


def test_connect_to_a_network_that_gives_no_address_ends_with_4(station: SharedDevice, way: Way) -> None:
    with way.connect(station.device.world, "no dhcp", KEY, "--timeout", "12") as client:
        assert client.end() == TIMED_OUT
        assert client.plain.endswith(f'\nvantora-wifi: connected to "no dhcp", but the network gave no address in time{STAYS}')


def test_connect_with_something_that_is_no_passphrase_ends_with_2(station: SharedDevice, way: Way) -> None:
    with way.connect(station.device.world, "secured", "short") as client:
        assert client.end() == USAGE
        assert client.plain == way.prompt("secured") + "vantora-wifi: a passphrase has 8 to 63 characters, this one has 5\n"


def test_band_of_a_station_is_refused_and_stored(shared: SharedDevice, way: Way) -> None:  # noqa: F811
    # Another one than the access point had last: that one is taken without a word.
    band = "5" if shared.be("Host").world.get("WiFiFrequency") == "2.4" else "2.4"
    device = shared.be("Client")
    assert way.run(device.world, "band", band) == way.ended(
        REFUSED,
        stderr=told(
            "the device is not an access point at the moment; the band is stored and used when it next is",
            "Operation not permitted",
        ),
    )
    assert device.settings_daemon.read("network", "frequency") == band


def test_mode_is_refused_where_the_interface_does_not_obey(station: SharedDevice, way: Way) -> None:
    world = station.device.world
    world.tools.ip.fail(on="addr add")
    assert way.run(world, "mode", "host") == way.ended(
        REFUSED,
        stderr=told(
            "the mode could not be changed; it is stored all the same, and tried again at the next start",
            "Operation not permitted",
        ),
    )


# Monitor


@contextmanager
def monitoring(way: Way, world: World) -> Iterator[Running]:
    """A `monitor` that has shown the state, without colours."""
    with way.start(world, "monitor", NO_COLOR="1") as client:
        client.wait_for("Transmit power.*\r?\n")
        yield client


def test_monitor_follows_a_person_and_ends_at_an_interrupt(
    access_point: SharedDevice, way: Way, simctl: Simctl
) -> None:  # noqa: F811
    with monitoring(way, access_point.device.world) as client:
        assert simctl("join", "phone")[0] == 0
        client.wait_for(r"(?m)^\d\d:\d\d:\d\d  Stations        1\r?$")
        assert simctl("leave", "phone")[0] == 0
        client.wait_for(r"(?m)^\d\d:\d\d:\d\d  Stations        0\r?$")
        if way.terminal:
            client.type("\x03")
        else:
            client.send_signal(signal.SIGINT)
        assert client.end() == -signal.SIGINT


# A daemon that is not there, dies, or hangs


def test_without_the_daemon_every_command_ends_with_3(shared: SharedDevice, way: Way, simctl: Simctl) -> None:  # noqa: F811
    world = shared.be("Host").world
    shared.device.restarts = False
    assert simctl("kill", "vantora-network")[0] == 0
    for arguments in COMMANDS:
        assert way.run(world, *arguments) == way.ended(UNREACHABLE, stderr=NOT_RUNNING), arguments
        ended = way.run(world, "--json", *arguments)
        assert (ended.status, [entry["status"] for entry in ended.objects]) == (UNREACHABLE, [UNREACHABLE]), arguments


def test_a_hanging_daemon_ends_every_command_with_4(shared: SharedDevice, way: Way, simctl: Simctl) -> None:  # noqa: F811
    world = shared.be("Host").world
    assert simctl("hang", "vantora-network")[0] == 0
    clients = [(arguments, way.start(world, "--timeout", "8", *arguments)) for arguments in COMMANDS]
    try:
        for arguments, client in clients:
            assert (client.end(60), client.plain) == (TIMED_OUT, NO_ANSWER), arguments
    finally:
        for _, client in clients:
            client.close()
        # Not let go on: it would do everything that it was asked for.
        simctl("kill", "vantora-network")


def test_the_daemon_dying_while_connect_waits_for_the_network_ends_with_3(
    station: SharedDevice, way: Way, simctl: Simctl
) -> None:  # noqa: F811
    with way.connect(station.device.world, "nowhere to be found", KEY, "--force") as client:
        client.wait_for("  scanning ")
        assert simctl("kill", "vantora-network") == (0, "vantora-network is killed")
        assert client.end() == UNREACHABLE
        assert client.plain.endswith("\n" + GONE)


def test_the_daemon_dying_while_connect_waits_for_the_address_ends_with_3(
    station: SharedDevice, way: Way, simctl: Simctl
) -> None:  # noqa: F811
    with way.connect(station.device.world, "no dhcp", KEY, "--json") as client:
        client.wait_for('"state":"completed"')
        assert simctl("kill", "vantora-network")[0] == 0
        assert client.end() == UNREACHABLE
        last = objects_in(client.plain.removeprefix(way.prompt("no dhcp")))[-1]
        assert (last["type"], last["status"], last["text"]) == (
            "error",
            UNREACHABLE,
            "the daemon has left the bus in the middle of this",
        )


def test_the_daemon_dying_while_it_is_asked_to_connect_ends_with_3(
    station: SharedDevice, way: Way, simctl: Simctl
) -> None:  # noqa: F811
    world = station.device.world
    assert simctl("hang", "wpa_supplicant")[0] == 0
    mark = world.journal.mark()
    with way.connect(world, "secured", KEY, "--force") as client:
        world.journal.wait_until(lambda: any("AddNetwork" in str(entry) for entry in world.journal.since(mark)), "the attempt")
        assert simctl("kill", "vantora-network")[0] == 0
        assert client.end() == UNREACHABLE
        assert client.plain == way.prompt("secured") + 'Connecting to "secured"\n' + GONE


def test_the_daemon_hanging_in_the_middle_of_connect_ends_with_4(
    station: SharedDevice, way: Way, simctl: Simctl
) -> None:  # noqa: F811
    with way.connect(station.device.world, "nowhere to be found", KEY, "--force", "--timeout", "12") as client:
        client.wait_for("  scanning ")
        assert simctl("hang", "vantora-network")[0] == 0
        assert client.end() == TIMED_OUT
        assert client.plain.endswith(
            f'\nvantora-wifi: no access point of "nowhere to be found" that can be joined was found in time{ON_AND_ON}'
        )


def test_monitor_outlives_the_daemon_and_shows_the_state_of_the_next(
    access_point: SharedDevice, way: Way, simctl: Simctl
) -> None:  # noqa: F811
    world = access_point.device.world
    with monitoring(way, world) as client:
        assert simctl("kill", "vantora-network")[0] == 0
        client.wait_for("  Daemon          has left the bus; waiting for it to come back\r?\n")
        client.wait_for("  Daemon          is back\r?\n")
        client.wait_for("(?m)^Radio           on\r?$", 2)
        access_point.wait_daemon()
        world.set("SSID", f"After {way}")
        # Announced while hostapd starts anew: there may be none to be read just then.
        client.wait_for(rf"(?m)  SSID            (-|After {way})\r?$")
        assert client.running


def test_monitor_is_silent_while_the_daemon_hangs_and_goes_on_after(
    access_point: SharedDevice, way: Way, simctl: Simctl
) -> None:  # noqa: F811
    world = access_point.device.world
    with way.start(world, "monitor", "--json") as client:
        client.wait_for('"type":"status"')
        assert simctl("hang", "vantora-network")[0] == 0
        assert simctl("set", "network.enabled", "false")[0] == 0
        assert client.running and '"name":"radio"' not in client.text
        assert simctl("release", "vantora-network")[0] == 0
        client.wait_for('"name":"radio",.*"value":"off"')
        assert client.running
    mark = world.journal.mark()
    simctl("set", "network.enabled", "true")
    world.journal.wait_for(changed("WiFiState", 1), mark)
