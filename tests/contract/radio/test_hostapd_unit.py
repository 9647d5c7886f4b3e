"""hostapd's unit: its jobs, what is remembered of name and band after each outcome, and what the listener does then."""

from __future__ import annotations

import time

import pytest
from access_point import HOSTAPD, attached_up, override_logs
from unit_control import JOB_FAILED, empty_path_log, job_call, load_failed_log, loaded_log, manager_call, queued_log
from vantora_sim import CallRefused, World, changed, command, hostapd_request, log, unit_path

REFUSED = "refused (r = -13)"


def remembered(world: World) -> tuple[str, str]:
    """Name and band that the access point was last started or changed with, as clients see them."""
    return world.get("SSID"), world.get("WiFiFrequency")


def test_start_loads_and_starts_the_unit_and_then_attaches(world: World) -> None:
    world.settings.set("network", "frequency", "5")
    attached_up(world)
    world.journal.expect_in_order(
        [
            log("info", "Starting Hostapd daemon service"),
            manager_call("LoadUnit", "s", HOSTAPD),
            job_call("Start", HOSTAPD),
            hostapd_request("ATTACH"),
        ]
    )
    assert remembered(world) == ("Korrin One", "5")


def test_nothing_is_remembered_before_the_first_start(world: World) -> None:
    world.settings.set("network", "mode", "Client")
    world.up()
    world.radio.interface_type = "AP"
    assert remembered(world) == ("", "")


def test_stop_stops_the_listener_and_the_unit_and_pauses_half_a_second(world: World) -> None:
    attached_up(world)
    mark = world.journal.mark()
    before = time.monotonic()
    world.set("Mode", "Client")
    assert time.monotonic() - before >= 0.5
    world.journal.expect_in_order(
        [
            log("info", "Stopping Hostapd daemon service"),
            manager_call("LoadUnit", "s", HOSTAPD),
            job_call("Stop", HOSTAPD),
            log("info", "[WiFi] Start Client mode"),
        ],
        mark,
    )
    # The listener was gone before hostapd was: nobody has heard it say goodbye.
    assert world.journal.count(log(text=lambda text: text.startswith("ListenTask: ")), mark) == 0
    world.radio.interface_type = "AP"
    assert remembered(world) == ("Korrin One", "2.4")


@pytest.mark.parametrize("verb", ["LoadUnit", "Start"])
def test_refused_start_counts_as_one_and_name_and_band_are_remembered(world: World, verb: str) -> None:
    world.systemd.refuse(verb, on=HOSTAPD, name="org.freedesktop.DBus.Error.AccessDenied")
    world.follow_units = False
    world.radio.interface_type = "AP"
    world.hostapd.start()
    attached_up(world)  # a refused job is no reason not to listen
    if verb == "LoadUnit":
        world.journal.expect_logs_in_order([load_failed_log(HOSTAPD, REFUSED), empty_path_log("Start")])
    else:
        world.journal.expect_logs_in_order(
            [loaded_log(HOSTAPD), ("err", JOB_FAILED["Start"].format(unit_path(HOSTAPD), REFUSED))]
        )
    assert world.journal.count(log("warning", "[WiFi] Failed to start hostapd service")) == 0
    world.journal.wait_for(log("info", "Starting UDHCP daemon service"))
    assert remembered(world) == ("Korrin One", "2.4")


def test_refused_restart_counts_as_one_for_name_and_band(world: World) -> None:
    attached_up(world)
    world.systemd.refuse("Restart", on=HOSTAPD, name="org.freedesktop.DBus.Error.AccessDenied")
    mark = world.journal.mark()
    world.set("SSID", "Garden")
    world.journal.wait_for(changed("SSID", "Garden"), mark)
    assert remembered(world) == ("Garden", "2.4")
    assert world.journal.count(hostapd_request("ATTACH"), mark) == 0  # a new name leaves the listener alone

    world.set("WiFiFrequency", "5")
    world.journal.wait_for(changed("WiFiFrequency", "5"), mark)
    assert remembered(world) == ("Garden", "5")
    world.journal.wait_for(hostapd_request("ATTACH"), mark)  # a new band has it connect anew
    failed = ("err", JOB_FAILED["Restart"].format(unit_path(HOSTAPD), REFUSED))
    assert world.journal.logs(mark).count(failed) == 2


def test_refused_look_up_counts_as_success_and_the_job_on_no_unit_too(world: World) -> None:
    attached_up(world)
    world.systemd.refuse("LoadUnit", on=HOSTAPD, name="org.freedesktop.DBus.Error.AccessDenied")
    mark = world.journal.mark()
    world.set("SSID", "Garden")
    world.set("WiFiFrequency", "5")
    assert remembered(world) == ("Garden", "5")
    failures = [line for line in world.journal.logs(mark) if line[0] == "err"]
    assert failures == [load_failed_log(HOSTAPD, REFUSED), empty_path_log("Restart")] * 2
    assert world.journal.count(job_call("Restart", HOSTAPD), mark) == 0


def test_refused_stop_is_paused_after_like_one_that_was_done(world: World) -> None:
    attached_up(world)
    world.systemd.refuse("Stop", on=HOSTAPD, name="org.freedesktop.DBus.Error.AccessDenied")
    mark = world.journal.mark()
    before = time.monotonic()
    world.set("Mode", "Client")
    assert time.monotonic() - before >= 0.5
    world.journal.expect_logs_in_order(
        [
            ("info", "Stopping Hostapd daemon service"),
            loaded_log(HOSTAPD),
            ("err", JOB_FAILED["Stop"].format(unit_path(HOSTAPD), REFUSED)),
            ("info", "-" * 44),
        ],
        mark,
    )


def test_new_band_is_taken_whatever_the_settings_hold(world: World) -> None:
    attached_up(world)
    world.settings.refuse("Set")  # so that the stored band stays the old one
    mark = world.journal.mark()
    world.set("WiFiFrequency", "5")
    world.journal.expect_logs_in_order(override_logs(hw_mode="a"), mark)
    assert world.settings.get("network", "frequency") == "2.4"
    assert remembered(world) == ("Korrin One", "5")


def test_new_band_restarts_unit_and_listener_and_a_new_name_the_unit_only(world: World) -> None:
    attached_up(world)
    world.follow_units = False  # hostapd stays: no farewell that would restart the listener by another way
    mark = world.journal.mark()
    world.set("SSID", "Garden")
    world.journal.expect_in_order([manager_call("LoadUnit", "s", HOSTAPD), job_call("Restart", HOSTAPD)], mark)
    world.set("WiFiFrequency", "5")
    world.journal.expect_in_order([job_call("Restart", HOSTAPD), job_call("Restart", HOSTAPD), hostapd_request("ATTACH")], mark)
    assert world.journal.count(hostapd_request("ATTACH"), mark) == 1
    lines = world.journal.logs(mark)  # jobs 1 to 4 were those of the start-up
    assert queued_log("Restart", HOSTAPD, 5) in lines and queued_log("Restart", HOSTAPD, 6) in lines


def test_new_name_in_client_mode_restarts_the_unit_of_the_access_point(world: World) -> None:
    world.settings.set("network", "mode", "Client")
    world.up()
    world.follow_units = False
    mark = world.journal.mark()
    world.set("SSID", "Garden")
    world.journal.wait_for(job_call("Restart", HOSTAPD), mark)
    assert world.get("SSID") == ""
    world.radio.interface_type = "AP"
    assert world.get("SSID") == "Garden"


def test_refused_values_leave_the_access_point_alone(world: World) -> None:
    attached_up(world)
    mark = world.journal.mark()
    for name, value in (("WiFiFrequency", "2.40"), ("WiFiFrequency", ""), ("SSID", "s" * 33)):
        with pytest.raises(CallRefused):
            world.set(name, value)
    assert world.journal.count(manager_call("LoadUnit", "s", HOSTAPD), mark) == 0
    assert world.journal.count(command("rfkill unblock wlan"), mark) == 0
    assert remembered(world) == ("Korrin One", "2.4")
