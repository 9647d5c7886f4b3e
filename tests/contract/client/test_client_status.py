"""The client's `status` and what surrounds every sub-command: exit statuses, usage, colours, the daemon that is not there."""

from __future__ import annotations

import re

import pytest
from station import bring_up_station
from vantora_sim import World, changed
from wifi_client import COMMANDS, DONE, REFUSED, TIMED_OUT, UNREACHABLE, USAGE, on_terminal, program, run

STATUS_FIELDS = {
    "type",
    "radio",
    "mode",
    "ssid",
    "band",
    "bands",
    "access_point_ready",
    "stations",
    "client_state",
    "client_ssid",
    "address",
    "mac_address",
    "transmit_power",
}


def rows(text: str) -> dict[str, str]:
    """Label and value of each row of the status table."""
    return dict(re.split(r" {2,}", line, maxsplit=1) for line in text.splitlines())


def test_status_of_an_access_point_shows_what_makes_sense_there(world: World) -> None:
    world.up()
    shown = run(world, "status")
    assert (shown.status, shown.stderr) == (DONE, "")
    assert rows(shown.stdout) == {
        "Radio": "on",
        "Mode": "Host (access point)",
        "SSID": "Korrin One",
        "Band": "2.4 GHz",
        "Bands": "5, 2.4",
        "On the air": rows(shown.stdout)["On the air"],
        "Stations": "0",
        "Address": "192.168.8.1",
        "MAC address": "02:00:00:00:10:01",
        "Transmit power": rows(shown.stdout)["Transmit power"],
    }
    assert rows(shown.stdout)["Transmit power"].startswith("20.00 dB")
    columns = {re.match(r"[A-Z].*? {2,}", line).end() for line in shown.stdout.splitlines()}  # type: ignore[union-attr]
    assert len(columns) == 1, "the values stand below each other"


def test_status_of_a_station_shows_its_network_and_state(world: World) -> None:
    bring_up_station(world)
    bss = world.wpa.add_bss("cafe")
    world.radio.station_ssid, world.radio.station_state = b"cafe", "COMPLETED"
    world.wpa.report_state("completed", bss)
    world.journal.wait_for(changed("WiFiClientState", "completed"))
    shown = rows(run(world, "status").stdout)
    assert shown["Mode"] == "Client (station)"
    assert shown["Network"] == "cafe"
    assert shown["State"] == "completed (connected)"
    assert "SSID" not in shown and "Band" not in shown


def test_status_for_programs_is_one_object_with_all_fields(world: World) -> None:
    world.up()
    shown = run(world, "--json", "status")
    assert (shown.status, shown.stderr, shown.stdout.count("\n")) == (DONE, "", 1)
    status = shown.objects[0]
    assert set(status) == STATUS_FIELDS
    assert {name: status[name] for name in STATUS_FIELDS - {"access_point_ready", "transmit_power"}} == {
        "type": "status",
        "radio": "on",
        "mode": "Host",
        "ssid": "Korrin One",
        "band": "2.4",
        "bands": ["5", "2.4"],
        "stations": 0,
        "client_state": "off",
        "client_ssid": "",
        "address": "192.168.8.1",
        "mac_address": "02:00:00:00:10:01",
    }
    assert isinstance(status["access_point_ready"], bool)


def test_status_with_the_radio_off_has_the_same_fields(world: World) -> None:
    world.settings.set("network", "enabled", False)
    world.up()
    status = run(world, "status", "--json").objects[0]
    assert set(status) == STATUS_FIELDS
    assert (status["radio"], status["mode"], status["ssid"]) == ("off", "unknown", "")


def test_status_leaves_out_what_the_daemon_does_not_know(make_world) -> None:
    world = make_world(device={"radio_type": "7"})
    world.up()
    shown = run(world, "status", "--json")
    assert shown.status == DONE
    assert shown.objects[0]["bands"] is None
    assert rows(run(world, "status").stdout)["Bands"] == "?"


def test_a_hostile_access_point_name_is_shown_escaped(world: World) -> None:
    world.settings.set("network", "enabled", True)
    world.settings.set("device", "deviceName", "\x1b[2Jx\u202ey\x07")
    world.up()
    shown = run(world, "status")
    assert rows(shown.stdout)["SSID"] == "\\x1b[2Jx\\u{202e}y\\x07"
    programs = run(world, "status", "--json")
    assert programs.stdout.isascii() and "\x1b" not in programs.stdout
    assert programs.objects[0]["ssid"] == "\x1b[2Jx\u202ey\x07"


@pytest.mark.parametrize("command", COMMANDS, ids=lambda command: command[0])
def test_without_a_daemon_every_command_ends_with_3(world: World, command: list[str]) -> None:
    ended = run(world, *command)
    assert (ended.status, ended.stdout) == (UNREACHABLE, "")
    assert ended.stderr == "vantora-wifi: the daemon is not running (nobody owns com.vantora.Network1)\n"


@pytest.mark.parametrize("command", COMMANDS, ids=lambda command: command[0])
def test_without_a_daemon_programs_get_an_error_object(world: World, command: list[str]) -> None:
    ended = run(world, "--json", *command)
    assert (ended.status, ended.stderr) == (UNREACHABLE, "")
    assert ended.objects == [
        {
            "type": "error",
            "status": 3,
            "text": "the daemon is not running (nobody owns com.vantora.Network1)",
            "daemon_error": ended.objects[0]["daemon_error"],
            "daemon_text": "",
        }
    ]


def test_without_a_bus_it_ends_with_3(world: World) -> None:
    ended = run(world, "status", DBUS_SESSION_BUS_ADDRESS="unix:path=/nonexistent/bus")
    assert (ended.status, ended.stdout) == (UNREACHABLE, "")
    assert ended.stderr == "vantora-wifi: the user bus cannot be reached: No such file or directory\n"


def test_without_any_word_of_the_bus_the_usual_place_is_tried(world: World) -> None:
    world.up()
    ended = world.sandbox.run([program(world), "status"], {"DBUS_SESSION_BUS_ADDRESS": None, "XDG_RUNTIME_DIR": None})
    assert (ended.status, ended.stderr) == (DONE, "")
    assert "Korrin One" in ended.stdout


def test_a_hanging_bus_ends_with_4(world: World) -> None:
    world.user_bus.freeze()
    try:
        ended = run(world, "status", "--timeout", "1")
    finally:
        world.user_bus.thaw()
    assert (ended.status, ended.stderr) == (TIMED_OUT, "vantora-wifi: the user bus did not answer in time\n")


@pytest.mark.parametrize(
    "arguments",
    [
        ["nonsense"],
        ["status", "more"],
        ["mode", "both"],
        ["band", "6"],
        ["ssid", ""],
        ["scan", "--names", "--watch"],
        ["ssid", "x" * 33],
        ["connect"],
        ["connect", "x" * 33, "--open"],
        ["connect", "a", "b"],
        ["--timeout", "0", "status"],
        ["--timeout", "soon", "status"],
        ["--timeout", "nan", "status"],
        ["--timeout", "5s", "status"],
        ["--colour", "status"],
        ["connect", "a", "--open", "--passphrase-stdin"],
        ["connect", "a", "--passphrase-file", "f", "--open"],
        ["status", "on"],
        [b"ssid", b"caf\xe9"],
        ["connect", "cafe\ufffe", "--open"],
    ],
    ids=repr,
)
def test_wrong_usage_ends_with_2_and_does_not_even_look_for_the_bus(world: World, arguments: list[str]) -> None:
    ended = run(world, *arguments, DBUS_SESSION_BUS_ADDRESS="unix:path=/nonexistent/bus")
    assert (ended.status, ended.stdout) == (USAGE, "")
    assert ended.stderr.startswith("vantora-wifi: ")
    assert ended.stderr.endswith("Try 'vantora-wifi --help'.\n")


def test_what_stands_where_a_passphrase_might_is_not_repeated(world: World) -> None:
    for arguments in (["connect", "cafe", "secret12"], ["connect", "cafe", "--passphrase", "secret12"]):
        ended = run(world, *arguments)
        assert ended.status == USAGE
        assert "secret12" not in ended.stderr
        assert "--passphrase-file" in ended.stderr


def test_help_and_version_end_with_0(world: World) -> None:
    shown = run(world, "--help")
    assert (shown.status, shown.stderr) == (DONE, "")
    for command in COMMANDS:
        assert re.search(rf"^  {command[0]} ", shown.stdout, re.MULTILINE), command[0]
    assert re.fullmatch(r"vantora-wifi \d+\.\d+\.\d+(\+\d+\.g[0-9a-f]{10})?\n", run(world, "--version").stdout)


def test_a_full_disk_behind_standard_output_is_a_failure(world: World) -> None:
    world.up()
    ended = world.sandbox.sh(f"{program(world)} status > /dev/full")
    assert ended.status == REFUSED
    assert ended.stderr == "vantora-wifi: standard output cannot be written\n"


def test_colours_are_for_terminals_only(world: World) -> None:
    world.up()
    assert "\x1b" not in run(world, "status").stdout
    with on_terminal(world, "status") as shown:
        assert shown.end() == DONE
        assert "\x1b[1mRadio\x1b[0m" in shown.text
        assert "\x1b[32mon\x1b[0m" in shown.text


@pytest.mark.parametrize("changes", [{"NO_COLOR": "1"}, {"TERM": "dumb"}, {"TERM": None}], ids=repr)
def test_no_colours_where_they_are_not_wanted(world: World, changes: dict[str, str | None]) -> None:
    world.up()
    with on_terminal(world, "status", **changes) as shown:
        assert shown.end() == DONE
        assert "Radio" in shown.text and "\x1b" not in shown.text


def test_an_empty_no_color_means_nothing(world: World) -> None:
    world.up()
    with on_terminal(world, "status", NO_COLOR="") as shown:
        assert shown.end() == DONE
        assert "\x1b[1m" in shown.text


def test_errors_on_a_terminal_are_red_unless_no_color(world: World) -> None:
    with on_terminal(world, "status") as shown:
        assert shown.end() == UNREACHABLE
        assert "\x1b[31mthe daemon is not running" in shown.text
    with on_terminal(world, "status", NO_COLOR="1") as shown:
        assert shown.end() == UNREACHABLE
        assert "\x1b" not in shown.text


def test_script_of_util_linux_counts_as_a_terminal(world: World) -> None:
    world.up()
    completed = world.sandbox.run(["/usr/bin/script", "-qec", f"{program(world)} status", "/tmp/recorded"], {"TERM": "xterm"})
    assert completed.status == DONE
    assert "\x1b[1mMode\x1b[0m" in world.sandbox.path("/tmp/recorded").read_text()
