"""What the client says is so: settings are read back, an empty list has its reason, and mistakes are told in words that help.

On a played daemon, which says what no real one can be brought to say.
"""

from __future__ import annotations

import itertools
import os
import signal
import socket
from collections.abc import Iterator

import pytest
from dbus_next import Variant
from played_daemon import ACCESS_POINT, OPEN, OTHER, SECURED, PlayedDaemon, played_daemon
from vantora_sim import World, call
from vantora_sim.client import INTERFACE
from vantora_sim.journal import Pattern
from wifi_client import DONE, REFUSED, TIMED_OUT, UNREACHABLE, USAGE, Running, Way, environment, objects_in, program, run, start

SILENT = 5


@pytest.fixture
def daemon(world: World) -> Iterator[PlayedDaemon]:
    """A station that is not connected."""
    with played_daemon(world) as daemon:
        yield daemon


def access_point(daemon: PlayedDaemon) -> None:
    """Make it an access point instead."""
    daemon.properties = dict(ACCESS_POINT)


# Settings


@pytest.mark.parametrize(
    ("arguments", "name", "value", "words"),
    [
        (
            ["on"],
            "WiFiState",
            Variant("u", 0),
            "the radio is still off: something else blocks it, such as a switch on the device, "
            "which no program can overrule ('rfkill list' tells)",
        ),
        (["off"], "WiFiState", Variant("u", 1), "the radio is still on, although the daemon has switched it off"),
        (
            ["mode", "client"],
            "Mode",
            Variant("s", "unknown"),
            "the mode is stored, but the device is neither access point nor station: "
            "its Wi-Fi interface (wlan0) may be missing, or its access point not start",
        ),
        (
            ["mode", "client"],
            "Mode",
            Variant("s", "Host"),
            "the mode is stored, but the device is still an access point; the daemon's log says why",
        ),
        (
            ["mode", "host"],
            "Mode",
            Variant("s", "Client"),
            "the mode is stored, but the device is still a station; the daemon's log says why",
        ),
        (["band", "5"], "WiFiFrequency", Variant("s", "2.4"), "the band is stored, but the access point does not have it yet"),
    ],
    ids=lambda value: str(value)[:30],
)
def test_a_setting_without_effect_is_not_called_done(
    world: World, daemon: PlayedDaemon, way: Way, arguments: list[str], name: str, value: Variant, words: str
) -> None:
    access_point(daemon)
    daemon.obeys = False
    daemon.properties[name] = value
    assert way.run(world, *arguments, "--timeout", "3") == way.ended(REFUSED, stderr=f"vantora-wifi: {words}\n")
    assert daemon.written[0][0] == name


def test_an_access_point_that_does_not_get_its_name_is_told(world: World, daemon: PlayedDaemon, way: Way) -> None:
    access_point(daemon)
    daemon.obeys = False
    ended = way.run(world, "ssid", "Kitchen", "--timeout", "3")
    assert ended == way.ended(
        REFUSED,
        stderr="vantora-wifi: the name is stored, but the access point does not have it yet; "
        "'vantora-wifi status' tells whether it is on the air\n",
    )


def test_a_slow_answer_near_the_end_is_waited_for(world: World, daemon: PlayedDaemon, way: Way) -> None:
    """A device that says no to the last look is not one that says nothing."""
    access_point(daemon)
    daemon.obeys = False
    daemon.slow("Get", 0.5, on="SSID")
    ended = way.run(world, "ssid", "Kitchen", "--timeout", "3")
    assert ended.status == REFUSED, ended


def test_a_value_that_takes_its_time_is_waited_for(world: World, daemon: PlayedDaemon, way: Way) -> None:
    access_point(daemon)
    daemon.obeys = False
    daemon.properties["Mode"] = Variant("s", "Client")
    with way.start(world, "mode", "host") as client:
        world.journal.wait_until(lambda: ("Mode", "Host") in daemon.written, "write")
        daemon.reply("Get", "v", [Variant("s", "Client")], on="Mode", times=2)
        daemon.properties["Mode"] = Variant("s", "Host")
        assert client.end() == DONE
        assert client.plain == "The device is an access point (Host).\n"


@pytest.mark.usefixtures("daemon")
def test_the_name_of_the_access_point_waits_for_one(world: World, way: Way) -> None:
    assert way.run(world, "ssid", "Kitchen") == way.ended(
        DONE, 'Stored: the access point\'s name will be "Kitchen" when the device is an access point.\n'
    )
    assert way.run(world, "ssid", "Kitchen", "--json").objects == [
        {"type": "done", "command": "ssid", "applied": False, "value": "Kitchen"}
    ]


@pytest.mark.parametrize(
    ("command", "shown", "field", "value"),
    [("mode", "host", "mode", "Host"), ("band", "5", "band", "5"), ("ssid", "Hallway", "ssid", "Hallway")],
)
def test_a_bare_setting_prints_the_present_value(
    world: World, daemon: PlayedDaemon, way: Way, command: str, shown: str, field: str, value: str
) -> None:
    access_point(daemon)
    assert way.run(world, command) == way.ended(DONE, f"{shown}\n")
    assert way.run(world, "--json", command).objects == [{"type": "value", "name": field, "value": value}]
    assert daemon.written == []


@pytest.mark.usefixtures("daemon")
def test_a_bare_setting_that_there_is_not_is_a_failure(world: World, way: Way) -> None:
    for command in ("band", "ssid"):
        assert way.run(world, command) == way.ended(
            REFUSED,
            stderr=f"vantora-wifi: there is no {command} at the moment: the device is no access point, or the radio is "
            "off\n",
        )
    assert way.run(world, "mode") == way.ended(DONE, "client\n")


def test_an_access_point_named_host_is_not_taken_for_a_mode(world: World, daemon: PlayedDaemon, way: Way) -> None:
    access_point(daemon)
    daemon.properties["SSID"] = Variant("s", "Host")
    assert way.run(world, "ssid") == way.ended(DONE, "Host\n")


def test_status_shows_how_the_access_point_does(world: World, daemon: PlayedDaemon, way: Way) -> None:
    access_point(daemon)
    shown = way.run(world, "status").stdout
    for row in ("On the air      yes\n", "Stations        2\n", "Address         192.168.8.1\n"):
        assert row in shown
    daemon.properties["WiFiAccessPointInitialised"] = Variant("b", False)
    assert "On the air      not heard of\n" in way.run(world, "status").stdout


def test_a_band_that_an_access_point_refuses_is_told(world: World, daemon: PlayedDaemon, way: Way) -> None:
    access_point(daemon)
    daemon.refuse("Set", text="no")
    told = way.ended(
        REFUSED,
        stderr="vantora-wifi: the access point could not be restarted with this band, which is stored all the same "
        '(the daemon: "no")\n',
    )
    assert way.run(world, "band", "5") == told
    daemon.refuse("Get", on="WiFiAvailableFrequencies")
    assert way.run(world, "band", "5") == told


# Scanning


@pytest.mark.usefixtures("daemon")
def test_nothing_in_range_is_told_from_a_station_that_is_not_heard(world: World, way: Way) -> None:
    assert way.run(world, "scan") == way.ended(
        SILENT,
        stderr="vantora-wifi: nothing was found, and nothing was heard from the station daemon (wpa_supplicant): it may "
        "not run\n",
    )
    assert run(world, "--json", "scan").objects[0]["status"] == SILENT


def test_an_empty_list_that_was_announced_is_nothing_in_range(world: World, daemon: PlayedDaemon, way: Way) -> None:
    with way.start(world, "scan") as client:
        world.journal.wait_until(lambda: ("Scan", []) in daemon.called, "scan")
        daemon.announce_networks()
        assert (client.end(), client.plain) == (DONE, "No networks in range.\n")


def test_a_station_that_says_how_it_does_is_there(world: World, daemon: PlayedDaemon, way: Way) -> None:
    with way.start(world, "scan") as client:
        world.journal.wait_until(lambda: ("Scan", []) in daemon.called, "scan")
        daemon.announce("WiFiClientState", Variant("s", "disconnected"))
        assert (client.end(), client.plain) == (DONE, "No networks in range.\n")


def test_a_daemon_that_goes_while_it_scans_is_told(world: World, daemon: PlayedDaemon, way: Way) -> None:
    with way.start(world, "scan") as client:
        world.journal.wait_until(lambda: ("Scan", []) in daemon.called, "scan")
        daemon.go()
        assert (client.end(), client.plain) == (
            UNREACHABLE,
            "vantora-wifi: the daemon has left the bus in the middle of this\n",
        )


def test_a_station_that_does_not_answer_is_told(world: World, daemon: PlayedDaemon, way: Way) -> None:
    daemon.slow("Scan", 20.5)
    assert way.run(world, "scan") == way.ended(
        SILENT, stderr="vantora-wifi: the station daemon (wpa_supplicant) does not answer\n"
    )


def test_the_network_joined_is_marked(world: World, daemon: PlayedDaemon, way: Way) -> None:
    daemon.properties["ClientSSID"] = Variant("s", "Caf\\xc3\\xa9")
    daemon.properties["AccessPoints"] = Variant("a(siib)", [["Café", 1, -48, True], SECURED])
    with way.start(world, "scan") as client:
        world.journal.wait_until(lambda: ("Scan", []) in daemon.called, "scan")
        daemon.announce_networks(["Café", 1, -48, True], SECURED)
        assert client.end() == DONE
        assert client.plain.splitlines()[1:] == ["▂▄▆█    -48  WPA-PSK   Café     (joined)", "▂▄▆█    -50  WPA-PSK   secured"]


def test_names_are_those_that_a_shell_can_be_offered(world: World, daemon: PlayedDaemon, way: Way) -> None:
    daemon.properties["AccessPoints"] = Variant(
        "a(siib)", [SECURED, ["evil\x1b[2J", 0, -40, False], ["two words", 0, -70, False]]
    )
    assert way.run(world, "scan", "--names") == way.ended(DONE, "secured\ntwo words\n")
    assert daemon.called == [], "nothing is looked for"


# What to join


def in_range(daemon: PlayedDaemon) -> None:
    """Have one network of each kind around."""
    daemon.properties["AccessPoints"] = Variant("a(siib)", [SECURED, OPEN, OTHER])


def joined(daemon: PlayedDaemon) -> list[list[str]]:
    """What the daemon was asked to join."""
    return [arguments for member, arguments in daemon.called if member == "Connect"]


def test_an_open_network_asks_for_no_passphrase(world: World, daemon: PlayedDaemon, way: Way) -> None:
    in_range(daemon)
    with way.start(world, "connect", "free") as client:
        world.journal.wait_until(lambda: joined(daemon) == [["free", ""]], "attempt")
        daemon.properties["IPAddress"] = Variant("s", "10.0.0.3")
        daemon.announce("WiFiClientState", Variant("s", "completed"))
        assert client.end() == DONE
        assert client.plain.endswith('Connected to "free", address 10.0.0.3\n') and "Passphrase" not in client.plain


@pytest.mark.parametrize(
    ("arguments", "words"),
    [
        (["office"], '"office" is encrypted in a way that this device cannot join'),
        (["secured", "--open"], '"secured" wants a passphrase; --force tries without one'),
        (
            ["free", "--passphrase-file", "/dev/null"],
            '"free" is open where the device is: it takes no passphrase, and may be another '
            "network than you think; --open joins it, --force tries with the passphrase",
        ),
    ],
    ids=lambda value: str(value)[:20],
)
def test_what_cannot_be_joined_is_refused_before_anything_is_asked_or_dropped(
    world: World, daemon: PlayedDaemon, way: Way, arguments: list[str], words: str
) -> None:
    in_range(daemon)
    assert way.run(world, "connect", *arguments) == way.ended(REFUSED, stderr=f"vantora-wifi: {words}\n")
    assert joined(daemon) == []


def test_a_network_out_of_range_is_looked_for_and_then_refused(world: World, daemon: PlayedDaemon, way: Way) -> None:
    in_range(daemon)
    with way.start(world, "connect", "nowhere") as client:
        world.journal.wait_until(lambda: ("Scan", []) in daemon.called, "scan")
        daemon.announce_networks(SECURED)
        assert client.end() == REFUSED
        assert client.plain == (
            'vantora-wifi: "nowhere" is not in range; with --hidden (it does not tell its name) or --force the '
            "device tries all the same\n"
        )
    assert joined(daemon) == []


def test_a_network_that_a_scan_finds_is_joined(world: World, daemon: PlayedDaemon, way: Way) -> None:
    with way.start(world, "connect", "free") as client:
        world.journal.wait_until(lambda: ("Scan", []) in daemon.called, "scan")
        daemon.announce_networks(OPEN)
        world.journal.wait_until(lambda: joined(daemon) == [["free", ""]], "attempt")
        assert client.running


@pytest.mark.parametrize("option", ["--force", "--hidden"])
def test_whoever_insists_goes_on(world: World, daemon: PlayedDaemon, way: Way, option: str) -> None:
    with way.start(world, "connect", "nowhere", "--open", option):
        world.journal.wait_until(lambda: joined(daemon) == [["nowhere", ""]], "attempt")
    assert ("Scan", []) not in daemon.called


@pytest.mark.parametrize("options", [[], ["--force"]], ids=str)
def test_an_access_point_joins_nothing(world: World, daemon: PlayedDaemon, way: Way, options: list[str]) -> None:
    access_point(daemon)
    assert way.run(world, "connect", "secured", *options) == way.ended(
        REFUSED,
        stderr="vantora-wifi: the device is an access point, which cannot join a network; make it a station with "
        "'vantora-wifi mode client'\n",
    )
    assert daemon.called == []


def test_a_station_that_is_just_starting_is_waited_for(world: World, daemon: PlayedDaemon, way: Way) -> None:
    in_range(daemon)
    daemon.refuse("Connect", text="Failed to connect to AP", times=2)
    with way.start(world, "connect", "free") as client:
        world.journal.wait_until(lambda: joined(daemon) == [["free", ""]], "attempt")
        client.wait_for("  waiting           the station does not take the network yet\r?\n")
        daemon.properties["IPAddress"] = Variant("s", "10.0.0.3")
        daemon.announce("WiFiClientState", Variant("s", "completed"))
        assert client.end() == DONE
        assert client.plain.count("  waiting") == 1


def test_it_is_waited_for_no_longer_than_the_time_out(world: World, daemon: PlayedDaemon, way: Way) -> None:
    in_range(daemon)
    daemon.refuse("Connect", text="Failed to connect to AP")
    ended = way.run(world, "connect", "free", "--timeout", "3")
    assert ended.status == REFUSED
    assert (ended.stdout + ended.stderr).endswith(
        'vantora-wifi: wpa_supplicant did not take the network, or does not run (the daemon: "Failed to connect to AP")\n'
    )


def test_control_c_says_that_the_device_goes_on(world: World, daemon: PlayedDaemon, way: Way) -> None:
    in_range(daemon)
    with way.start(world, "connect", "free") as client:
        world.journal.wait_until(lambda: joined(daemon) == [["free", ""]], "attempt")
        daemon.properties["WiFiClientState"] = Variant("s", "scanning")
        client.wait_for("  scanning ")
        if way.terminal:
            client.type("\x03")
        else:
            client.send_signal(signal.SIGINT)
        assert client.end() == -2
        assert client.plain.endswith(
            "vantora-wifi: the device goes on trying until 'vantora-wifi off' or 'vantora-wifi mode host'\n"
        )


def test_control_c_for_programs_is_a_warning_object(world: World, daemon: PlayedDaemon) -> None:
    in_range(daemon)
    with start(world, "--json", "connect", "free") as client:
        world.journal.wait_until(lambda: joined(daemon) == [["free", ""]], "attempt")
        daemon.properties["WiFiClientState"] = Variant("s", "scanning")
        client.wait_for('"state":"scanning"')
        client.send_signal(15)
        assert client.end() == -15
        assert objects_in(client.text)[-1] == {
            "type": "warning",
            "text": "the device goes on trying until 'vantora-wifi off' or 'vantora-wifi mode host'",
        }


def test_without_a_name_one_is_picked_on_a_terminal(world: World, daemon: PlayedDaemon) -> None:
    with Way(True).start(world, "connect", NO_COLOR="1") as client:
        world.journal.wait_until(lambda: ("Scan", []) in daemon.called, "scan")
        daemon.announce_networks(SECURED, OPEN, OTHER)
        client.wait_for(r"Network \(1 to 2\): $")
        assert "  1  ▂▄▆█    -50  WPA-PSK   secured\n" in client.plain and "office" not in client.plain
        client.type("3\n")
        client.wait_for(r"Network \(1 to 2\): ", 2)
        client.type("2\n")
        world.journal.wait_until(lambda: joined(daemon) == [["free", ""]], "attempt")
        assert "Passphrase" not in client.plain


def test_nobody_has_to_pick(world: World, daemon: PlayedDaemon) -> None:
    with Way(True).start(world, "connect", NO_COLOR="1") as client:
        world.journal.wait_until(lambda: ("Scan", []) in daemon.called, "scan")
        daemon.announce_networks(OPEN)
        client.wait_for(r"Network \(1 to 1\): $")
        client.type("\n")
        assert client.end() == USAGE
        assert client.plain.endswith("vantora-wifi: no network was chosen\n")
    assert run(world, "connect").status == USAGE
    assert joined(daemon) == []


# Watching


def test_status_is_watched_in_place_and_on_a_pipe_line_by_line(world: World, daemon: PlayedDaemon, way: Way) -> None:
    with way.start(world, "status", "--watch") as client:
        client.wait_for("Transmit power.*\n")
        daemon.announce("IPAddress", Variant("s", "10.0.0.4"))
        client.wait_for("Address.* 10.0.0.4\r?\n[^$]*Transmit power.*\r?\n")
        rows = 8
        assert client.text.count(f"\x1b[{rows}A\r\x1b[J") == (1 if way.terminal else 0)
        assert client.plain.count("\n\n") == (0 if way.terminal else 1)
        assert client.running
    assert daemon.called == [], "nothing is looked for"


def test_status_is_watched_by_programs(world: World, daemon: PlayedDaemon, way: Way) -> None:
    with way.start(world, "--json", "status", "--watch") as client:
        client.wait_for('"type":"status"')
        daemon.announce("IPAddress", Variant("s", "10.0.0.4"))
        client.wait_for('"type":"status"', 2)
        daemon.go()
        client.wait_for('"running":false')
        daemon.come_back()
        client.wait_for('"running":true')
        found = objects_in(client.plain)
        assert [entry.get("address") for entry in found[:2]] == ["", "10.0.0.4"]
        assert all(entry["type"] in ("status", "daemon") for entry in found)


def test_whoever_watches_sees_the_daemon_go_hang_and_come_back(world: World, daemon: PlayedDaemon, way: Way) -> None:
    with way.start(world, "status", "--watch") as client:
        client.wait_for("Transmit power.*\n")
        daemon.hang("Get")
        daemon.announce("Mode", Variant("s", "Client"))
        client.wait_for("The daemon does not answer; waiting for it.")
        daemon.clear()
        daemon.go()
        client.wait_for("The daemon has left the bus; waiting for it to come back.")
        daemon.properties["IPAddress"] = Variant("s", "10.0.0.5")
        daemon.come_back()
        client.wait_for("10.0.0.5")
        assert client.running


def test_networks_are_watched(world: World, daemon: PlayedDaemon, way: Way) -> None:
    with way.start(world, "scan", "--watch") as client:
        client.wait_for("No networks in range.")
        world.journal.wait_until(lambda: ("Scan", []) in daemon.called, "scan")
        daemon.announce_networks(SECURED)
        client.wait_for("WPA-PSK   secured")
        daemon.announce_networks(SECURED, OPEN)
        client.wait_for("open      free")
        if way.terminal:
            assert "\x1b[1A\r\x1b[J" in client.text and "\x1b[2A\r\x1b[J" in client.text
        assert client.running


def test_a_note_goes_when_its_reason_has_gone(world: World, daemon: PlayedDaemon, way: Way) -> None:
    note = "The device is not a station, and does not look for networks."
    with way.start(world, "scan", "--watch") as client:
        client.wait_for("No networks in range.")
        daemon.announce("Mode", Variant("s", "Host"))
        client.wait_for(note)
        daemon.announce("Mode", Variant("s", "Client"))
        client.wait_for("No networks in range.", 3)
        daemon.announce_networks(OPEN)
        client.wait_for("open      free")
        assert client.plain.count(note) == 1
        assert client.plain.count("No networks in range.") == 3


def test_watching_ends_as_the_command_does_where_there_is_nothing_to_watch(
    world: World, daemon: PlayedDaemon, way: Way
) -> None:
    daemon.hang("Get")
    assert way.run(world, "status", "--watch", "--timeout", "1") == way.ended(
        TIMED_OUT, stderr="vantora-wifi: the daemon did not answer in time\n"
    )
    daemon.clear()
    access_point(daemon)
    assert way.run(world, "scan", "--watch").status == REFUSED
    daemon.go()
    assert way.run(world, "status", "--watch") == way.ended(
        UNREACHABLE, stderr="vantora-wifi: the daemon is not running (nobody owns com.vantora.Network1)\n"
    )


def test_a_list_longer_than_the_window_is_cut(world: World, daemon: PlayedDaemon) -> None:
    daemon.properties["AccessPoints"] = Variant("a(siib)", [[f"net {number}", 1, -40, True] for number in range(60)])
    with Way(True).start(world, "scan", "--watch") as client:
        client.wait_for(r"\.\.\. and \d+ lines more\r\n")
        assert client.text.count("net ") == 21, "24 lines, of which one is the heading, one the remark, and one free"


# Mistakes


def test_mistyped_words_are_told_from_what_was_meant(world: World, way: Way) -> None:
    for arguments, words in (
        (["statsu"], 'there is no sub-command "statsu"; did you mean status?'),
        (["mode", "hosst"], 'mode: "hosst" is neither host nor client; did you mean host?'),
    ):
        ended = way.run(world, *arguments)
        assert ended == way.ended(USAGE, stderr=f"vantora-wifi: {words}\nTry 'vantora-wifi --help'.\n")


def test_help_shows_the_unit_and_the_default_of_the_time_out(world: World, way: Way) -> None:
    assert "  --timeout SECONDS (60)  " in way.run(world, "--help").stdout


def test_without_a_sub_command_a_pipe_gets_the_usage(world: World) -> None:
    ended = run(world)
    assert (ended.status, ended.stdout) == (USAGE, "")
    assert ended.stderr.startswith("vantora-wifi: a sub-command is required\n\n") and "Usage: vantora-wifi" in ended.stderr


def test_half_a_terminal_is_none(world: World) -> None:
    script = f"{program(world)} | cat; {program(world)} </dev/null"
    with Running(["/bin/sh", "-c", script], environment(world), terminal=True) as client:
        assert client.end() == USAGE
        assert client.plain.count("vantora-wifi: a sub-command is required\n") == 2


OTHERS_BUS = "/run/user/65534/bus"


def as_other(world: World, *arguments: str) -> list[str]:
    """The client's command line for an ordinary user."""
    return ["/usr/bin/setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups", program(world), *arguments]


@pytest.mark.skipif(os.geteuid() != 0, reason="needs root: an ordinary user has no second user id to try")
@pytest.mark.parametrize("arguments", [["status"], ["scan"], ["connect", "x"], ["monitor"], ["on"]], ids=str)
@pytest.mark.usefixtures("daemon")
def test_an_ordinary_user_of_a_device_is_told_of_roots_bus(world: World, arguments: list[str]) -> None:
    told = "vantora-wifi: the daemon's object is on root's bus, which only root reaches: use 'sudo vantora-wifi'\n"
    for address in (None, f"unix:path={OTHERS_BUS}"):
        ended = world.sandbox.run(as_other(world, *arguments), {"DBUS_SESSION_BUS_ADDRESS": address, "XDG_RUNTIME_DIR": None})
        assert (ended.status, ended.stderr) == (UNREACHABLE, told)
    elsewhere = world.sandbox.run(
        as_other(world, *arguments), {"DBUS_SESSION_BUS_ADDRESS": "unix:path=/nonexistent", "XDG_RUNTIME_DIR": None}
    )
    assert (elsewhere.status, elsewhere.stderr) == (
        UNREACHABLE,
        "vantora-wifi: the user bus cannot be reached: No such file or directory\n",
    )


@pytest.mark.skipif(os.geteuid() != 0, reason="needs root: an ordinary user has no second user id to try")
def test_only_an_ordinary_user_who_finds_no_daemon_is_told_of_roots_bus(world: World) -> None:
    world.user_bus.stop()
    ended = world.sandbox.run([program(world), "status"])
    assert (ended.status, ended.stderr) == (
        UNREACHABLE,
        "vantora-wifi: the user bus cannot be reached: No such file or directory\n",
    )
    with socket.socket(socket.AF_UNIX) as silent:
        path = world.sandbox.path(OTHERS_BUS)
        path.parent.mkdir()
        silent.bind(str(path))
        path.chmod(0o777)
        silent.listen()
        ended = world.sandbox.run(
            as_other(world, "status", "--timeout", "0.1"), {"DBUS_SESSION_BUS_ADDRESS": f"unix:path={OTHERS_BUS}"}
        )
        assert (ended.status, ended.stderr) == (TIMED_OUT, "vantora-wifi: the user bus did not answer in time\n")


# How often the daemon is asked: each question costs it a command or two


def pauses(world: World, asked: Pattern, since: int, count: int = 4) -> list[float]:
    """The seconds between so many questions of one kind that follow each other."""
    world.journal.wait_until(lambda: world.journal.count(asked, since) > count, str(asked))
    times = [entry.when for entry in world.journal.find(asked, since)]
    return [after - before for before, after in itertools.pairwise(times)]


def get(name: str) -> Pattern:
    return call("Get", INTERFACE, name)


@pytest.mark.parametrize(
    ("words", "state", "asked", "seconds"),
    [
        (["connect", "free"], "associating", get("WiFiClientState"), 0.3),
        (["connect", "free"], "completed", get("IPAddress"), 0.3),
        (["mode", "host"], None, get("Mode"), 0.2),
    ],
    ids=["state", "address", "mode"],
)
def test_what_is_not_announced_is_asked_for_now_and_then(
    world: World, daemon: PlayedDaemon, words: list[str], state: str | None, asked: Pattern, seconds: float
) -> None:
    in_range(daemon)
    daemon.obeys = False
    with start(world, *words):
        if state:
            world.journal.wait_until(lambda: joined(daemon), "attempt")
            daemon.announce("WiFiClientState", Variant("s", state))
        # A pause begins with the answer: a busy machine makes it longer, and never shorter.
        assert seconds * 0.9 < min(pauses(world, asked, world.journal.mark())) < seconds * 5


def test_a_station_that_does_not_take_a_network_is_asked_again_twice_a_second(world: World, daemon: PlayedDaemon) -> None:
    in_range(daemon)
    daemon.refuse("Connect", text="Failed to connect to AP")
    with start(world, "connect", "free"):
        assert 0.45 < min(pauses(world, call("Connect"), 0, 2)) < 2.5
