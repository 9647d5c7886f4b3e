"""The client's `on`, `off`, `mode`, `band`, `ssid` and `disconnect`: what they do, and how refusals are told.

Everything on pipes and on a terminal.
"""

from __future__ import annotations

from collections.abc import Callable

import pytest
from station import bring_up_station
from vantora_sim import World, call, changed, command, log
from wifi_client import DAEMON_LEFT, DONE, REFUSED, TIMED_OUT, Ended, Way, ends_with_the_daemon

Run = Callable[..., Ended]

DENIED = "org.freedesktop.DBus.Error.AccessDenied"
FAILED = "org.freedesktop.DBus.Error.Failed"


@pytest.fixture
def run(way: Way) -> Run:
    """Runs the client here as in `run(world, "off")`."""
    return way.run


def check_done(ended: Ended, text: str) -> None:
    """The command did what it was asked to and said so."""
    assert (ended.status, ended.stdout, ended.stderr) == (DONE, text + "\n", "")


def wait_state(world: World, state: str) -> None:
    """Wait until the daemon has heard this state word of the station."""
    world.journal.wait_for(log("info", f"[WPA Supplicant] State change: 'disconnected' -> '{state}'"))
    world.settle()


def check_refused(way: Way, ended: Ended, words: str, daemon_text: str) -> None:
    """The command was refused, with words for people and what the daemon said."""
    assert ended == way.ended(REFUSED, stderr=f'vantora-wifi: {words} (the daemon: "{daemon_text}")\n')


def test_off_and_on_switch_the_radio(world: World, run: Run) -> None:
    world.up()
    check_done(run(world, "off"), "The radio is off.")
    assert world.get("WiFiState") == 0
    check_done(run(world, "on"), "The radio is on.")
    assert world.get("WiFiState") == 1


def test_on_for_programs_is_one_object(world: World, run: Run) -> None:
    world.up()
    ended = run(world, "on", "--json")
    assert (ended.status, ended.stderr) == (DONE, "")
    assert ended.objects == [{"type": "done", "command": "on", "applied": True}]


def test_a_radio_that_cannot_be_switched_is_told(world: World, run: Run, way: Way) -> None:
    world.up()
    world.tools.rfkill.fail(on="block wlan")
    check_refused(
        way, run(world, "off"), "the radio could not be switched; the daemon's log says why", "Operation not permitted"
    )


def test_a_refusal_for_programs_carries_what_the_daemon_answered(world: World, run: Run) -> None:
    world.up()
    world.tools.rfkill.fail(on="block wlan")
    ended = run(world, "--json", "off")
    assert (ended.status, ended.stderr) == (REFUSED, "")
    assert ended.objects == [
        {
            "type": "error",
            "status": 1,
            "text": "the radio could not be switched; the daemon's log says why",
            "daemon_error": DENIED,
            "daemon_text": "Operation not permitted",
        }
    ]


@pytest.mark.parametrize("word", ["client", "Client", "CLIENT"])
def test_mode_client_makes_the_device_a_station(world: World, word: str, run: Run) -> None:
    world.up()
    check_done(run(world, "mode", word), "The device is a station (Client).")
    assert world.get("Mode") == "Client"


def test_mode_host_makes_the_device_an_access_point(world: World, run: Run) -> None:
    bring_up_station(world)
    ended = run(world, "mode", "host", "--json")
    assert ended.objects == [{"type": "done", "command": "mode", "applied": True, "value": "Host"}]
    assert world.get("Mode") == "Host"


NOT_YET = "Not yet: the radio is off. 'vantora-wifi on' switches it on, and 'vantora-wifi status' then tells whether"


def test_mode_with_the_radio_off_is_only_stored(world: World, run: Run) -> None:
    world.settings.set("network", "enabled", False)
    world.up()
    world.radio.interface_type = "AP"
    check_done(run(world, "mode", "client"), f"{NOT_YET} the device is a station (Client).")
    assert world.settings.get("network", "mode") == "Client"
    assert run(world, "mode", "client", "--json").objects[0]["applied"] is False


def test_a_mode_that_cannot_be_switched_to_is_told(world: World, run: Run, way: Way) -> None:
    bring_up_station(world)
    world.tools.ip.fail(on="addr add")
    check_refused(
        way,
        run(world, "mode", "host"),
        "the mode could not be changed; it is stored all the same, and tried again at the next start",
        "Operation not permitted",
    )


def test_band_changes_the_access_points_band(world: World, run: Run) -> None:
    world.up()
    check_done(run(world, "band", "5"), "The access point's band is 5 GHz.")
    assert world.get("WiFiFrequency") == "5"


def test_band_5_on_a_radio_without_it_is_told(make_world: Callable[..., World], run: Run, way: Way) -> None:
    world = make_world(device={"radio_type": "0"})
    world.up()
    check_refused(way, run(world, "band", "5"), "this device's radio has no 5 GHz band", "Operation not permitted")


def test_band_of_a_station_is_stored_and_that_is_told(world: World, run: Run, way: Way) -> None:
    bring_up_station(world)
    check_refused(
        way,
        run(world, "band", "5"),
        "the device is not an access point at the moment; the band is stored and used when it next is",
        "Operation not permitted",
    )
    assert world.settings.get("network", "frequency") == "5"


def test_band_with_the_radio_off_is_only_stored(world: World, run: Run) -> None:
    world.settings.set("network", "enabled", False)
    world.up()
    check_done(run(world, "band", "5"), f"{NOT_YET} the access point's band is 5 GHz.")


@pytest.mark.parametrize(
    "name", ["Kitchen", "Zwölf Boxkämpfer 👍", "-x --open", "status", '"quoted"', "[a,b]", "{}", "a\\b", " ", "x" * 32]
)
def test_ssid_takes_any_text_as_it_is(world: World, name: str, run: Run) -> None:
    world.up()
    ended = run(world, "--json", "ssid", "--", name)
    assert (ended.status, ended.stderr) == (DONE, "")
    assert ended.objects == [{"type": "done", "command": "ssid", "applied": True, "value": name}]
    assert world.get("SSID") == name


def test_ssid_may_be_the_name_of_another_command(world: World, run: Run) -> None:
    world.up()
    check_done(run(world, "ssid", "scan"), 'The access point\'s name is "scan".')
    assert world.get("SSID") == "scan"


def test_a_hostile_ssid_is_repeated_escaped(world: World, run: Run) -> None:
    world.up()
    check_done(run(world, "ssid", "\x1b]0;owned\x07"), 'The access point\'s name is "\\x1b]0;owned\\x07".')


def test_disconnect_leaves_the_network(world: World, run: Run) -> None:
    bring_up_station(world)
    world.wpa.report_state("completed")
    world.journal.wait_for(changed("WiFiClientState", "completed"))
    mark = world.journal.mark()
    check_done(run(world, "disconnect"), "Disconnected.")
    world.journal.wait_for(call("Disconnect"), mark)


def test_disconnect_without_a_connection_is_told(world: World, run: Run, way: Way) -> None:
    bring_up_station(world)
    check_refused(
        way,
        run(world, "disconnect"),
        "there is no network to leave: the device is not connected; if it is still "
        "trying to join one, 'vantora-wifi off' or 'vantora-wifi mode host' ends that",
        "Failed to connect to AP",
    )


def test_disconnect_of_an_idle_station_is_told(world: World, run: Run, way: Way) -> None:
    bring_up_station(world)
    world.wpa.report_state("inactive")
    wait_state(world, "inactive")
    check_refused(
        way, run(world, "disconnect"), "there is no network to leave: the device is not connected", "Failed to connect to AP"
    )


@pytest.mark.parametrize(
    "state", ["scanning", "authenticating", "associating", "associated", "4way_handshake", "group_handshake"]
)
def test_disconnect_during_an_attempt_says_what_ends_it(world: World, run: Run, way: Way, state: str) -> None:
    bring_up_station(world)
    world.wpa.report_state(state)
    wait_state(world, state)
    world.wpa.refuse("Disconnect", name="fi.w1.wpa_supplicant1.NotConnected", text="This interface is not connected")
    check_refused(
        way,
        run(world, "disconnect"),
        "the device is still trying to join a network, which cannot be left before "
        "that is done; 'vantora-wifi off' or 'vantora-wifi mode host' ends the attempt",
        "Failed to connect to AP",
    )


def test_disconnect_of_an_access_point_is_told(world: World, run: Run, way: Way) -> None:
    world.up()
    words = "the device is an access point; make it a station with 'vantora-wifi mode client'"
    check_refused(way, run(world, "disconnect"), words, "WiFi is not in client mode")
    assert run(world, "disconnect", "--json").objects == [
        {"type": "error", "status": 1, "text": words, "daemon_error": FAILED, "daemon_text": "WiFi is not in client mode"}
    ]


def test_disconnect_with_the_radio_off_is_told(world: World, run: Run, way: Way) -> None:
    world.settings.set("network", "enabled", False)
    world.up()
    check_refused(way, run(world, "disconnect"), "the radio is off; switch it on with 'vantora-wifi on'", "Wifi is off")


def test_disconnect_in_no_mode_at_all_is_told(world: World, run: Run, way: Way) -> None:
    world.up()
    world.radio.interface_type = "monitor"
    check_refused(
        way,
        run(world, "disconnect"),
        "the device is neither access point nor station at the moment; try again, or set the mode",
        "WiFi is in unknown mode",
    )


def test_a_switch_that_takes_too_long_ends_with_4(world: World, way: Way) -> None:
    world.up()
    world.systemd.hang("Start", on="wpa_supplicant-nl80211@wlan0.service")
    assert way.run(world, "mode", "client", "--timeout", "8") == way.ended(
        TIMED_OUT, stderr="vantora-wifi: the daemon did not answer in time\n"
    )


def test_the_daemon_dying_during_a_switch_ends_with_3(world: World, way: Way) -> None:
    world.up()
    world.tools.rfkill.hang()
    mark = world.journal.mark()
    with way.start(world, "off") as client:
        world.journal.wait_for(command("rfkill list wlan"), mark)
        assert ends_with_the_daemon(world, client) == DAEMON_LEFT
