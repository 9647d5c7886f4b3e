"""The client's `connect`: progress as it comes, every outcome, and where the passphrase may come from."""

from __future__ import annotations

import os
import re
import signal
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest
from station import bring_up_station
from vantora_sim import Variant, World, call, changed
from wifi_client import (
    DAEMON_LEFT,
    DONE,
    REFUSED,
    TIMED_OUT,
    UNREACHABLE,
    USAGE,
    Running,
    Way,
    ends_with_the_daemon,
    environment,
    objects_in,
    on_terminal,
    program,
    run,
    start,
)

SECRET = "Tr0ub4dor-3 ö"
WAITING = "  waiting           the station does not take the network yet\n"
STATES = ["scanning", "authenticating", "associating", "associated", "4way_handshake", "group_handshake"]
SHOWN = {
    "disconnected": "not connected",
    "scanning": "looking for the network",
    "authenticating": "introducing itself to the access point",
    "associating": "asking the access point to be let in",
    "associated": "let in by the access point",
    "4way_handshake": "proving that it knows the passphrase",
    "group_handshake": "getting the network's keys",
    "completed": "connected",
    "failed": "the passphrase was refused",
}


def shown(state: str) -> str:
    """The line about a state."""
    return f"  {state:16}  {SHOWN[state]}\n"


def passphrase_file(tmp_path: Path, text: str = SECRET + "\n") -> str:
    """A file with a passphrase."""
    path = tmp_path / "passphrase"
    path.write_text(text)
    return str(path)


def end_of(state: str) -> str:
    """What ends an attempt that goes on when it has come this far."""
    if state == "completed":
        return "the device stays connected until 'vantora-wifi disconnect'"
    return "the device goes on trying until 'vantora-wifi off' or 'vantora-wifi mode host'"


def wait_selected(world: World, since: int = 0) -> None:
    """Wait until the station was told which network to join."""
    world.journal.wait_for(call("SelectNetwork"), since)


def walk(world: World, client: Running, states: list[str], pattern: str = r"(?m)^  {} ") -> None:
    """Let the station go through these states, each when the client has shown the one before."""
    for state in states:
        world.wpa.report_state(state)
        client.wait_for(pattern.format(state))


def complete(world: World, address: str = "10.0.0.7/24") -> None:
    """Let the association complete and the address come."""
    world.wpa.report_state("completed", world.wpa.add_bss("cafe"))
    world.add_address(address)


def test_progress_is_shown_state_by_state_up_to_the_address(world: World, tmp_path: Path, way: Way) -> None:
    bring_up_station(world)
    with way.start(world, "connect", "cafe", "--force", "--passphrase-file", passphrase_file(tmp_path)) as client:
        wait_selected(world)
        walk(world, client, STATES)
        complete(world)
        assert client.end() == DONE
        assert client.plain == (
            'Connecting to "cafe"\n'
            + "".join(shown(state) for state in [*STATES, "completed"])
            + 'Connected to "cafe", address 10.0.0.7\n'
        )


def test_progress_for_programs_is_one_object_a_state(world: World, tmp_path: Path) -> None:
    bring_up_station(world)
    with start(world, "--json", "connect", "cafe", "--force", "--passphrase-file", passphrase_file(tmp_path)) as client:
        wait_selected(world)
        walk(world, client, STATES, '"state":"{}"')
        complete(world)
        assert client.end() == DONE
        assert objects_in(client.text) == [
            {"type": "connecting", "ssid": "cafe"},
            *[{"type": "state", "state": state} for state in [*STATES, "completed"]],
            {"type": "connected", "ssid": "cafe", "address": "10.0.0.7"},
        ]


def test_a_wrong_passphrase_is_told(world: World, tmp_path: Path, way: Way) -> None:
    bring_up_station(world)
    with way.start(world, "connect", "cafe", "--force", "--passphrase-file", passphrase_file(tmp_path)) as client:
        wait_selected(world)
        walk(world, client, ["scanning", "4way_handshake"])
        world.wpa.report_state("disconnected")
        assert client.end() == REFUSED
        assert client.plain == (
            'Connecting to "cafe"\n'
            + shown("scanning")
            + shown("4way_handshake")
            + shown("failed")
            + 'vantora-wifi: "cafe" refused the passphrase\n'
        )


def test_a_wrong_passphrase_for_programs_is_an_error_object(world: World, tmp_path: Path, way: Way) -> None:
    bring_up_station(world)
    with way.start(world, "connect", "cafe", "--force", "--json", "--passphrase-file", passphrase_file(tmp_path)) as client:
        wait_selected(world)
        walk(world, client, ["4way_handshake"], '"state":"{}"')
        world.wpa.report_state("disconnected")
        assert client.end() == REFUSED
        assert objects_in(client.plain)[-2:] == [
            {"type": "state", "state": "failed"},
            {"type": "error", "status": 1, "text": '"cafe" refused the passphrase', "daemon_error": "", "daemon_text": ""},
        ]


def test_an_attempt_that_is_broken_off_in_between_goes_on(world: World, tmp_path: Path) -> None:
    bring_up_station(world)
    with start(world, "connect", "cafe", "--force", "--passphrase-file", passphrase_file(tmp_path)) as client:
        wait_selected(world)
        walk(world, client, ["associating", "disconnected", "scanning"])
        complete(world)
        assert client.end() == DONE


def test_the_state_of_an_earlier_network_is_not_taken_for_success(world: World, way: Way) -> None:
    bring_up_station(world)
    world.wpa.report_state("completed", world.wpa.add_bss("old"))
    world.add_address("10.0.0.5/24")
    world.journal.wait_for(changed("WiFiClientState", "completed"))
    with way.start(world, "connect", "cafe", "--force", "--open", "--timeout", "8") as client:
        assert client.end() == TIMED_OUT
        assert client.plain.startswith('Connecting to "cafe"\nvantora-wifi: no access point of "cafe"')


def test_a_failure_of_an_earlier_attempt_is_not_taken_for_this_one(world: World) -> None:
    bring_up_station(world)
    world.wpa.report_state("4way_handshake")
    world.wpa.report_state("disconnected")
    world.journal.wait_for(changed("WiFiClientState", "failed"))
    with start(world, "connect", "cafe", "--force", "--open") as client:
        wait_selected(world)
        walk(world, client, ["scanning"])
        complete(world)
        assert client.end() == DONE


def test_the_connection_lost_before_the_address_came_is_followed_on(world: World) -> None:
    bring_up_station(world)
    with start(world, "connect", "cafe", "--force", "--open") as client:
        wait_selected(world)
        walk(world, client, ["completed", "disconnected"])
        complete(world)
        assert client.end() == DONE
        assert client.text.count("  completed") == 2


@pytest.mark.parametrize(
    ("state", "reason"),
    [
        ("scanning", 'no access point of "cafe" that can be joined was found in time'),
        ("associating", 'an access point of "cafe" was found, but did not let the device in in time'),
        ("4way_handshake", 'the exchange of keys with "cafe" did not end in time'),
        ("completed", 'connected to "cafe", but the network gave no address in time'),
    ],
)
def test_a_timeout_ends_with_4_and_says_how_far_it_came(world: World, state: str, reason: str, way: Way) -> None:
    bring_up_station(world)
    with way.start(world, "connect", "cafe", "--force", "--open", "--timeout", "8") as client:
        wait_selected(world)
        walk(world, client, [state])
        assert client.end() == TIMED_OUT
        assert client.plain.endswith(f"\nvantora-wifi: {reason}; {end_of(state)}\n")


@contextmanager
def scanning(world: World, way: Way, *options: str) -> Iterator[Running]:
    """A client whose station is looking for the network that it shall join."""
    bring_up_station(world)
    with way.start(world, "connect", "cafe", "--force", "--open", *options) as client:
        wait_selected(world)
        walk(world, client, ["scanning"])
        yield client


def test_the_mode_switched_in_the_middle_is_a_failure(world: World, way: Way) -> None:
    with scanning(world, way) as client:
        world.set("Mode", "Host")
        assert client.end() == REFUSED
        assert client.plain.endswith(
            "vantora-wifi: the device stopped being a station in the middle of this: the radio or the mode was switched\n"
        )


def test_the_daemon_dying_in_the_middle_ends_with_3(world: World, way: Way) -> None:
    with scanning(world, way) as client:
        assert ends_with_the_daemon(world, client).endswith(DAEMON_LEFT)


def test_the_daemon_dying_during_the_call_ends_with_3(world: World, way: Way) -> None:
    bring_up_station(world)
    world.wpa.hang("AddNetwork")
    with way.start(world, "--json", "connect", "cafe", "--force", "--open") as client:
        world.journal.wait_for(call("AddNetwork"))
        assert objects_in(ends_with_the_daemon(world, client))[-1]["status"] == 3


def test_the_daemon_hanging_in_the_middle_ends_with_4(world: World, way: Way) -> None:
    with scanning(world, way, "--timeout", "8") as client:
        assert world.daemon
        world.daemon.send_signal(signal.SIGSTOP)
        try:
            assert client.end() == TIMED_OUT
        finally:
            world.daemon.send_signal(signal.SIGCONT)


def test_the_bus_going_away_in_the_middle_ends_with_3(world: World, way: Way) -> None:
    with scanning(world, way) as client:
        world.user_bus.stop()
        assert client.end() == UNREACHABLE
    assert world.daemon
    world.daemon.wait()


def test_an_access_point_does_not_join(world: World, way: Way) -> None:
    world.up()
    ended = way.run(world, "connect", "cafe", "--force", "--open")
    assert ended == way.ended(
        REFUSED,
        stderr="vantora-wifi: the device is an access point, which cannot join a network; make "
        "it a station with 'vantora-wifi mode client'\n",
    )


def test_a_radio_that_is_off_does_not_join(world: World, way: Way) -> None:
    world.settings.set("network", "enabled", False)
    world.up()
    ended = way.run(world, "connect", "cafe", "--force", "--open", "--json")
    assert ended.status == REFUSED
    assert ended.objects[-1] == {
        "type": "error",
        "status": 1,
        "text": "the radio is off; switch it on with 'vantora-wifi on'",
        "daemon_error": "",
        "daemon_text": "",
    }


def test_a_network_that_is_not_taken_is_told(world: World, way: Way) -> None:
    bring_up_station(world)
    world.wpa.refuse("AddNetwork")
    ended = way.run(world, "connect", "cafe", "--force", "--open")
    assert ended == way.ended(
        REFUSED,
        'Connecting to "cafe"\n' + WAITING,
        'vantora-wifi: wpa_supplicant did not take the network, or does not run (the daemon: "Failed to connect to AP")\n',
    )


# The passphrase


def given(world: World) -> dict[str, Variant]:
    """What the station was given as the network to join."""
    networks = list(world.wpa.networks.values())
    assert len(networks) == 1
    return networks[0]


@pytest.mark.parametrize("text", [SECRET, SECRET + "\n", SECRET + "\r\n", SECRET + "\nsecond line\n"], ids=repr)
def test_the_first_line_of_a_file_is_the_passphrase(world: World, tmp_path: Path, text: str) -> None:
    bring_up_station(world)
    with start(world, "connect", "cafe", "--force", "--passphrase-file", passphrase_file(tmp_path, text)):
        wait_selected(world)
    assert given(world) == {"ssid": Variant("s", "cafe"), "key_mgmt": Variant("s", "WPA-PSK"), "psk": Variant("s", SECRET)}


def test_standard_input_is_read_when_told_so(world: World) -> None:
    bring_up_station(world)
    ended = run(world, "connect", "cafe", "--force", "--passphrase-stdin", "--timeout", "3", stdin=SECRET + "\n")
    assert ended.status == TIMED_OUT
    assert given(world)["psk"] == Variant("s", SECRET)


def test_an_open_network_gets_no_passphrase(world: World) -> None:
    bring_up_station(world)
    with start(world, "connect", "free", "--force", "--open"):
        wait_selected(world)
    assert given(world) == {"ssid": Variant("s", "free"), "key_mgmt": Variant("s", "NONE")}


@pytest.mark.parametrize(
    ("text", "fault"),
    [
        ("", "the passphrase is empty; a network without one is joined with --open"),
        ("\n", "the passphrase is empty; a network without one is joined with --open"),
        ("short", "a passphrase has 8 to 63 characters, this one has 5"),
        ("x" * 64, "a passphrase has 8 to 63 characters, this one has 64"),
        ("with\0nul in it", "the passphrase is not text"),
        ("with \ufffe in it", "the passphrase is not text"),
    ],
    ids=repr,
)
def test_what_cannot_be_a_passphrase_is_wrong_usage(world: World, text: str, fault: str) -> None:
    bring_up_station(world)
    ended = run(world, "connect", "cafe", "--force", "--passphrase-stdin", stdin=text)
    assert (ended.status, ended.stdout, ended.stderr) == (USAGE, "", f"vantora-wifi: {fault}\n")
    assert world.wpa.networks == {}


def test_a_file_that_is_not_there_is_wrong_usage(world: World, tmp_path: Path) -> None:
    bring_up_station(world)
    path = str(tmp_path / "nothing")
    ended = run(world, "connect", "cafe", "--force", "--passphrase-file", path)
    assert (ended.status, ended.stderr) == (USAGE, f"vantora-wifi: {path}: No such file or directory\n")


def test_without_a_terminal_nobody_is_asked(world: World) -> None:
    bring_up_station(world)
    ended = run(world, "connect", "cafe", "--force", stdin=SECRET + "\n")
    assert ended.status == USAGE
    assert ended.stderr == (
        "vantora-wifi: there is no terminal to ask for the passphrase; use --passphrase-file, --passphrase-stdin or --open\n"
    )


def test_the_prompt_takes_the_passphrase_without_showing_it(world: World) -> None:
    bring_up_station(world)
    with on_terminal(world, "connect", "cafe", "--force") as client:
        client.wait_for('Passphrase for "cafe": $')
        assert not client.echoes()
        client.type(SECRET + "\n")
        wait_selected(world)
        assert client.echoes()
        walk(world, client, ["4way_handshake"])
        complete(world)
        assert client.end() == DONE
        assert SECRET not in client.text
        assert '\x1b[32mConnected to "cafe", address 10.0.0.7\x1b[0m' in client.text
    assert given(world)["psk"] == Variant("s", SECRET)


def test_the_prompt_shows_a_hostile_name_escaped(world: World) -> None:
    bring_up_station(world)
    with on_terminal(world, "connect", "\x1b[2J", "--force", NO_COLOR="1") as client:
        client.wait_for(r'Passphrase for "\\x1b\[2J": $')
        assert "\x1b" not in client.text
        client.type("\n")
        assert client.end() == USAGE


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP], ids=lambda number: number.name)
def test_a_signal_at_the_prompt_ends_it_with_the_echo_back(world: World, number: int) -> None:
    bring_up_station(world)
    with on_terminal(world, "connect", "cafe", "--force") as client:
        client.wait_for("Passphrase for")
        assert not client.echoes()
        client.send_signal(number)
        assert client.end() == -number
        assert client.echoes()
        assert client.plain == 'Passphrase for "cafe": \n'
    assert world.wpa.networks == {}


def test_control_c_at_the_prompt_ends_it_with_the_echo_back(world: World) -> None:
    bring_up_station(world)
    with on_terminal(world, "connect", "cafe", "--force") as client:
        client.wait_for("Passphrase for")
        client.type("half a pass\x03")
        assert client.end() == -signal.SIGINT
        assert client.echoes()
        assert "half" not in client.text


def test_control_z_at_the_prompt_gives_the_echo_back_for_a_while(world: World) -> None:
    bring_up_station(world)
    script = f'set -m; {program(world)} connect cafe --force; echo "STOPPED[$?]"; read -r line; fg; echo "ENDED[$?]"'
    with Running(["/bin/bash", "--norc", "-c", script], environment(world), terminal=True) as client:
        client.wait_for("Passphrase for")
        client.type("\x1a")
        client.wait_for(r"STOPPED\[148\]")
        assert client.echoes()
        client.type("\n")
        client.wait_for("Passphrase for", 2)
        assert not client.echoes()
        client.type("short\n")
        client.wait_for(r"ENDED\[2\]")
        assert "a passphrase has 8 to 63 characters, this one has 5" in client.text and client.echoes()


def test_what_is_ignored_as_under_nohup_stays_ignored_at_the_prompt(world: World) -> None:
    bring_up_station(world)
    script = f"trap '' HUP; exec {program(world)} connect cafe --force"
    with Running(["/bin/sh", "-c", script], environment(world), terminal=True) as client:
        client.wait_for("Passphrase for")
        client.send_signal(signal.SIGHUP)
        client.type("short\n")
        assert client.end() == USAGE


def test_no_daemon_no_prompt(world: World) -> None:
    with on_terminal(world, "connect", "cafe", "--force") as client:
        assert client.end() == UNREACHABLE
        assert "Passphrase" not in client.text


def test_the_passphrase_is_nowhere_in_the_process_table(world: World, tmp_path: Path) -> None:
    bring_up_station(world)
    with start(world, "connect", "cafe", "--force", "--passphrase-file", passphrase_file(tmp_path)) as client:
        wait_selected(world)
        folder = Path(f"/proc/{client.pid}")
        for name in ("cmdline", "environ"):
            assert SECRET.encode() not in (folder / name).read_bytes()
        assert not any(re.search("passphrase$", os.readlink(link)) for link in (folder / "fd").iterdir())
