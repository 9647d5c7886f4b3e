"""Looking units up and queueing jobs: the calls, their failures, and that callers go on after them."""

from __future__ import annotations

import re
from collections.abc import Callable
from functools import partial

import pytest
from vantora_sim import Variant, World, call, log

from unit_control import DHCP_CLIENT, DHCP_SERVER, associate, empty_path_log, job_call, job_failed_log, load_failed_log
from unit_control import loaded_log, manager_call, queued_log

ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied"
NO_SUCH_UNIT = "org.freedesktop.systemd1.NoSuchUnit"

REFUSALS: list[tuple[str, str | None, str]] = [
    (ACCESS_DENIED, "not yours", "not yours (r = -13)"),
    (ACCESS_DENIED, None, " (r = -13)"),
    (NO_SUCH_UNIT, "gone", "gone (r = -2)"),
    ("org.example.Error.Odd", "100 %s", "100 %s (r = -5)"),
]
"""Name and text of an error, and the end of the line that tells of it."""

UNREADABLE: list[tuple[str, list[object]]] = [("", []), ("s", ["/not/an/object/path"]), ("u", [1]), ("v", [Variant("o", "/a")])]
"""Signatures and bodies of replies that hold no object path."""

VANISHED = "Message recipient disconnected from message bus without replying (r = -110)"
ABSENT = "The name org.freedesktop.systemd1 was not provided by any .service files (r = -113)"


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
    world.journal.expect_logs_in_order(
        [("info", "Re-Starting UDHCP client service"), loaded_log(DHCP_CLIENT), queued_log("Restart", DHCP_CLIENT, 5)], mark
    )


def test_nothing_but_these_calls_is_made_of_systemd(station_world: World) -> None:
    mark = associate(station_world)
    assert [entry.member for entry in station_world.journal.find(call(bus="system"), mark)] == ["LoadUnit", "Restart"]
    assert station_world.journal.count(call("GetUnit")) == 0


def restarts_with(world: World, *lines: tuple[str, str]) -> int:
    """An association restarts the DHCP client, and these lines tell of it; returns the mark before it."""
    mark = associate(world)
    world.journal.expect_logs_in_order([("info", "Re-Starting UDHCP client service"), *lines], mark)
    return mark


def test_failed_look_up_is_logged_and_the_job_is_tried_with_an_empty_path(station_world: World) -> None:
    world = station_world
    for name, text, reason in REFUSALS:
        world.systemd.refuse("LoadUnit", name=name, text=text)
        mark = restarts_with(world, load_failed_log(DHCP_CLIENT, reason), empty_path_log("Restart"))
        assert world.journal.count(call("Restart"), mark) == 0
        assert world.journal.count(log(text=re.compile("Failed to restart UDHCPC")), mark) == 0
        world.systemd.clear()


def test_look_up_fails_when_systemd_vanishes_and_while_it_is_absent(station_world: World) -> None:
    world = station_world
    world.systemd.vanish("LoadUnit")
    for reason in (VANISHED, ABSENT):
        restarts_with(world, load_failed_log(DHCP_CLIENT, reason), empty_path_log("Restart"))


def test_unreadable_look_up_is_logged_and_the_job_is_tried_with_an_empty_path(station_world: World) -> None:
    world = station_world
    for signature, body in UNREADABLE:
        world.systemd.reply("LoadUnit", signature, body)
        restarts_with(world, ("err", "utils_load_service_unit: Failed to read response"), empty_path_log("Restart"))
        world.systemd.clear()


def test_refused_restart_is_logged_and_taken_for_success(station_world: World) -> None:
    world = station_world
    for name, text, reason in REFUSALS:
        world.systemd.refuse("Restart", name=name, text=text)
        mark = restarts_with(world, loaded_log(DHCP_CLIENT), job_failed_log("Restart", DHCP_CLIENT, reason))
        assert world.journal.count(log(text=re.compile("Failed to restart UDHCPC")), mark) == 0
        world.systemd.clear()


def test_restart_during_which_systemd_vanishes_is_logged(station_world: World) -> None:
    world = station_world
    world.systemd.vanish("Restart")
    mark = associate(world)
    world.journal.expect_logs_in_order([loaded_log(DHCP_CLIENT), job_failed_log("Restart", DHCP_CLIENT, VANISHED)], mark)


def test_unreadable_reply_to_a_restart_is_logged(station_world: World) -> None:
    world = station_world
    for signature, body in UNREADABLE:
        world.systemd.reply("Restart", signature, body)
        mark = associate(world)
        world.journal.expect_logs_in_order(
            [loaded_log(DHCP_CLIENT), ("err", "utils_restart_service: Failed to read response")], mark
        )
        world.systemd.clear()


def test_restart_of_an_unknown_unit_is_refused_after_a_look_up_that_succeeds(station_world: World) -> None:
    world = station_world
    del world.systemd.active[DHCP_CLIENT]
    mark = associate(world)
    world.journal.expect_logs_in_order(
        [loaded_log(DHCP_CLIENT), job_failed_log("Restart", DHCP_CLIENT, f"Unit {DHCP_CLIENT} not found. (r = -2)")], mark
    )


def misbehaviours(world: World, verb: str, function: str) -> list[tuple[Callable[[], None], tuple[str, str]]]:
    """Ways to fail a job of the DHCP server, and the line that tells of each."""
    refuse, reply = world.systemd.refuse, world.systemd.reply
    return [
        (partial(refuse, verb, on=DHCP_SERVER, name=name, text=text), job_failed_log(verb, DHCP_SERVER, reason))
        for name, text, reason in REFUSALS
    ] + [
        (partial(reply, verb, signature, body, on=DHCP_SERVER), ("err", f"{function}: Failed to read response"))
        for signature, body in UNREADABLE
    ]


@pytest.mark.parametrize(
    ("verb", "modes", "before", "after"),
    [
        ("Stop", ("Host", "Client"), "Stoping UDHCP daemon service", "Stopping Hostapd daemon service"),
        ("Start", ("Client", "Host"), "Starting UDHCP daemon service", "-" * 44),
    ],
)
def test_refused_and_unreadable_jobs_are_logged_and_the_mode_is_switched_all_the_same(
    world: World, verb: str, modes: tuple[str, str], before: str, after: str
) -> None:
    world.tools.ip.output("")  # no kernel address comes or goes, so nothing else is logged meanwhile
    world.settings.set("network", "mode", modes[0])
    world.up()
    for misbehave, line in misbehaviours(world, verb, f"utils_{verb.lower()}_service"):
        world.set("Mode", modes[0])
        mark = world.journal.mark()
        misbehave()
        world.set("Mode", modes[1])
        world.journal.expect_logs_in_order([("info", before), loaded_log(DHCP_SERVER), line, ("info", after)], mark)
        world.systemd.clear()
        assert world.get("Mode") == modes[1]


def test_look_up_and_job_wait_as_long_as_the_bus_library_does_by_default(world: World) -> None:
    world.up(environment={"SYSTEMD_BUS_TIMEOUT": "1"})  # the library's default, made shorter
    world.wpa.come_back()
    world.systemd.hang("LoadUnit", times=1)
    mark = associate(world)
    world.journal.expect_logs_in_order(
        [load_failed_log(DHCP_CLIENT, "Connection timed out (r = -110)"), empty_path_log("Restart")], mark
    )
    world.systemd.hang("Restart", times=1)
    mark = associate(world)
    world.journal.expect_logs_in_order(
        [loaded_log(DHCP_CLIENT), job_failed_log("Restart", DHCP_CLIENT, "Connection timed out (r = -110)")], mark
    )


def test_without_a_system_bus_look_ups_and_jobs_say_nothing_and_are_taken_for_success(world: World) -> None:
    world.tools.ip.output("")
    world.up()
    world.system_bus.stop()
    mark = world.journal.mark()
    world.set("Mode", "Client")
    world.journal.expect_logs_in_order(
        [("info", "Stoping UDHCP daemon service"), ("info", "Stopping Hostapd daemon service")], mark
    )
    assert world.journal.count(log(text=re.compile(r"Failed to (load|start|stop|re-start)|Failed to read response")), mark) == 0
