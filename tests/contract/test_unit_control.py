"""Looking units up and queueing jobs: the calls, their failures, and that callers go on after them."""

from __future__ import annotations

import re
from collections.abc import Callable

import pytest
from vantora_sim import Variant, World, call, log

from unit_control import DHCP_CLIENT, DHCP_SERVER, associate, empty_path_log, job_call, job_failed_log, load_failed_log
from unit_control import loaded_log, manager_call, queued_log

Fault = Callable[[World, str, str], None]

ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied"

REFUSALS: list[tuple[Fault, str]] = [
    (lambda world, member, unit: world.systemd.refuse(member, on=unit, name=ACCESS_DENIED, text="not yours"), "not yours (r = -13)"),
    (lambda world, member, unit: world.systemd.refuse(member, on=unit, name=ACCESS_DENIED, text=None), " (r = -13)"),
    (lambda world, member, unit: world.systemd.refuse(member, on=unit, name="org.example.Error.Odd", text="100 %s"), "100 %s (r = -5)"),
    (lambda world, member, unit: world.systemd.refuse(member, on=unit, name="org.freedesktop.systemd1.NoSuchUnit",
                                                        text="gone"), "gone (r = -2)"),
    (lambda world, member, unit: world.systemd.vanish(member, on=unit),
     "Message recipient disconnected from message bus without replying (r = -110)"),
]
"""Ways to fail a call, and the end of the line that tells of it."""

UNREADABLE: list[Fault] = [
    lambda world, member, unit: world.systemd.reply(member, on=unit, signature="", body=[]),
    lambda world, member, unit: world.systemd.reply(member, on=unit, signature="s", body=["/not/an/object/path"]),
    lambda world, member, unit: world.systemd.reply(member, on=unit, signature="u", body=[1]),
    lambda world, member, unit: world.systemd.reply(member, on=unit, signature="v", body=[Variant("o", "/a")]),
]
"""Replies that hold no object path."""


def mend(world: World) -> None:
    """Undo a fault."""
    world.systemd.clear()
    if not world.systemd.present:
        world.systemd.come_back()


@pytest.fixture
def station_world(world: World) -> World:
    """The daemon as an access point, with a wpa_supplicant whose reports restart the DHCP client."""
    world.up()
    world.wpa.come_back()
    return world


def test_unit_is_looked_up_by_name_and_the_job_replaces_others(station_world: World) -> None:
    world = station_world
    mark = associate(world)
    world.journal.expect_in_order([manager_call("LoadUnit", "s", DHCP_CLIENT), job_call("Restart", DHCP_CLIENT)], mark)
    world.journal.expect_logs_in_order([
        ("info", "Re-Starting UDHCP client service"),
        loaded_log(DHCP_CLIENT),
        queued_log("Restart", DHCP_CLIENT, 5),
    ], mark)


def test_nothing_but_these_calls_is_made_of_systemd(station_world: World) -> None:
    mark = associate(station_world)
    assert [entry.member for entry in station_world.journal.find(call(bus="system"), mark)] == ["LoadUnit", "Restart"]
    assert station_world.journal.count(call("GetUnit")) == 0


def test_failed_look_up_is_logged_and_the_job_is_tried_with_an_empty_path(station_world: World) -> None:
    world = station_world
    for fail, reason in REFUSALS:
        fail(world, "LoadUnit", DHCP_CLIENT)
        mark = associate(world)
        world.journal.expect_logs_in_order([
            ("info", "Re-Starting UDHCP client service"),
            load_failed_log(DHCP_CLIENT, reason),
            empty_path_log("Restart"),
        ], mark)
        assert world.journal.count(call("Restart"), mark) == 0
        assert world.journal.count(log(text=re.compile("Failed to restart UDHCPC")), mark) == 0
        mend(world)


def test_look_up_fails_while_systemd_is_absent(station_world: World) -> None:
    world = station_world
    world.systemd.go()
    mark = associate(world)
    world.journal.expect_logs_in_order([
        ("info", "Re-Starting UDHCP client service"),
        load_failed_log(DHCP_CLIENT, "The name org.freedesktop.systemd1 was not provided by any .service files (r = -113)"),
        empty_path_log("Restart"),
    ], mark)


def test_unreadable_look_up_is_logged_and_the_job_is_tried_with_an_empty_path(station_world: World) -> None:
    world = station_world
    for fail in UNREADABLE:
        fail(world, "LoadUnit", DHCP_CLIENT)
        mark = associate(world)
        world.journal.expect_logs_in_order([
            ("info", "Re-Starting UDHCP client service"),
            ("err", "utils_load_service_unit: Failed to read response"),
            empty_path_log("Restart"),
        ], mark)
        mend(world)


def test_refused_restart_is_logged_and_taken_for_success(station_world: World) -> None:
    world = station_world
    for fail, reason in REFUSALS:
        fail(world, "Restart", DHCP_CLIENT)
        mark = associate(world)
        world.journal.expect_logs_in_order([
            ("info", "Re-Starting UDHCP client service"),
            loaded_log(DHCP_CLIENT),
            job_failed_log("Restart", DHCP_CLIENT, reason),
        ], mark)
        assert world.journal.count(log(text=re.compile("Failed to restart UDHCPC")), mark) == 0
        mend(world)


def test_unreadable_reply_to_a_restart_is_logged(station_world: World) -> None:
    world = station_world
    for fail in UNREADABLE:
        fail(world, "Restart", DHCP_CLIENT)
        mark = associate(world)
        world.journal.expect_logs_in_order([
            loaded_log(DHCP_CLIENT),
            ("err", "utils_restart_service: Failed to read response"),
        ], mark)
        mend(world)


def test_restart_of_an_unknown_unit_is_refused_after_a_look_up_that_succeeds(station_world: World) -> None:
    world = station_world
    del world.systemd.active[DHCP_CLIENT]
    mark = associate(world)
    world.journal.expect_logs_in_order([
        loaded_log(DHCP_CLIENT),
        job_failed_log("Restart", DHCP_CLIENT, f"Unit {DHCP_CLIENT} not found. (r = -2)"),
    ], mark)


def test_refused_and_unreadable_stops_are_logged_and_the_mode_is_switched_all_the_same(world: World) -> None:
    world.tools.ip.output("")  # no kernel address comes or goes, so nothing else is logged meanwhile
    world.up()
    outcomes = [(fail, job_failed_log("Stop", DHCP_SERVER, reason)) for fail, reason in REFUSALS[:-1]]
    outcomes += [(fail, ("err", "utils_stop_service: Failed to read response")) for fail in UNREADABLE]
    for fail, line in outcomes:
        world.set("Mode", "Host")
        mark = world.journal.mark()
        fail(world, "Stop", DHCP_SERVER)
        world.set("Mode", "Client")
        world.journal.expect_logs_in_order([
            ("info", "Stoping UDHCP daemon service"),
            loaded_log(DHCP_SERVER),
            line,
            ("info", "Stopping Hostapd daemon service"),
        ], mark)
        mend(world)
        assert world.get("Mode") == "Client"


def test_refused_and_unreadable_starts_are_logged_and_the_mode_is_switched_all_the_same(world: World) -> None:
    world.tools.ip.output("")  # no kernel address comes or goes, so nothing else is logged meanwhile
    world.settings.set("network", "mode", "Client")
    world.up()
    outcomes = [(fail, job_failed_log("Start", DHCP_SERVER, reason)) for fail, reason in REFUSALS[:-1]]
    outcomes += [(fail, ("err", "utils_start_service: Failed to read response")) for fail in UNREADABLE]
    for fail, line in outcomes:
        world.set("Mode", "Client")
        mark = world.journal.mark()
        fail(world, "Start", DHCP_SERVER)
        world.set("Mode", "Host")
        world.journal.expect_logs_in_order([
            ("info", "Starting UDHCP daemon service"),
            loaded_log(DHCP_SERVER),
            line,
            ("info", "--------------------------------------------"),
        ], mark)
        mend(world)
        assert world.get("Mode") == "Host"


def test_look_up_and_job_wait_as_long_as_the_bus_library_does_by_default(world: World) -> None:
    world.up(environment={"SYSTEMD_BUS_TIMEOUT": "1"})  # the library's default, made shorter
    world.wpa.come_back()
    world.systemd.hang("LoadUnit", times=1)
    mark = associate(world)
    world.journal.expect_logs_in_order([
        load_failed_log(DHCP_CLIENT, "Connection timed out (r = -110)"),
        empty_path_log("Restart"),
    ], mark)
    world.systemd.hang("Restart", times=1)
    mark = associate(world)
    world.journal.expect_logs_in_order([
        loaded_log(DHCP_CLIENT),
        job_failed_log("Restart", DHCP_CLIENT, "Connection timed out (r = -110)"),
    ], mark)


def test_without_a_system_bus_look_ups_and_jobs_say_nothing_and_are_taken_for_success(world: World) -> None:
    world.tools.ip.output("")
    world.up()
    world.system_bus.stop()
    mark = world.journal.mark()
    world.set("Mode", "Client")
    world.journal.expect_logs_in_order([
        ("info", "Stoping UDHCP daemon service"),
        ("info", "Stopping Hostapd daemon service"),
    ], mark)
    assert world.journal.count(log(text=re.compile(r"Failed to (load|start|stop|re-start)|Failed to read response")), mark) == 0
