"""The DHCP server and client units: which unit, which job, and which line stands before."""

from __future__ import annotations

import re

from vantora_sim import World, log

from unit_control import (
    DHCP_CLIENT,
    DHCP_SERVER,
    associate,
    empty_path_log,
    job_call,
    load_failed_log,
    loaded_log,
    manager_call,
)
from unit_control import queued_log

SEPARATOR = ("info", "--------------------------------------------")


def test_dhcp_server_is_started_for_an_access_point(world: World) -> None:
    world.up()
    world.journal.expect_in_order([manager_call("LoadUnit", "s", DHCP_SERVER), job_call("Start", DHCP_SERVER)])
    world.journal.expect_logs_in_order(
        [("info", "Starting UDHCP daemon service"), loaded_log(DHCP_SERVER), queued_log("Start", DHCP_SERVER, 4)]
    )
    assert world.systemd.active[DHCP_SERVER]


def test_starting_a_dhcp_server_that_runs_already_succeeds(world: World) -> None:
    world.systemd.active[DHCP_SERVER] = True
    world.up()
    world.journal.expect_logs_in_order(
        [("info", "Starting UDHCP daemon service"), loaded_log(DHCP_SERVER), queued_log("Start", DHCP_SERVER, 4), SEPARATOR]
    )
    assert world.get("Mode") == "Host"


def expect_job(world: World, mark: int, line: str, verb: str, unit: str, number: int) -> None:
    """The unit is looked up, its job is queued, and both are told."""
    world.journal.expect_in_order([manager_call("LoadUnit", "s", unit), job_call(verb, unit)], mark)
    world.journal.expect_logs_in_order([("info", line), loaded_log(unit), queued_log(verb, unit, number)], mark)


def expect_stopped(world: World, mode: str, line: str, unit: str) -> None:
    """The unit goes with the mode that another one takes the place of."""
    mark = world.journal.mark()
    world.set("Mode", mode)
    expect_job(world, mark, line, "Stop", unit, 5)
    assert not world.systemd.active[unit]


def test_dhcp_server_is_stopped_when_the_access_point_ends(world: World) -> None:
    world.tools.ip.output("")
    world.up()
    expect_stopped(world, "Client", "Stoping UDHCP daemon service", DHCP_SERVER)


def test_dhcp_client_is_restarted_by_an_association_and_stopped_when_the_station_ends(world: World) -> None:
    world.tools.ip.output("")
    world.settings.set("network", "mode", "Client")
    world.up()
    mark = associate(world)
    expect_job(world, mark, "Re-Starting UDHCP client service", "Restart", DHCP_CLIENT, 4)
    assert world.systemd.active[DHCP_CLIENT]

    expect_stopped(world, "Host", "Stoping UDHCP client service", DHCP_CLIENT)


def test_refused_look_up_of_a_dhcp_unit_does_not_keep_the_mode_from_being_switched(world: World) -> None:
    world.tools.ip.output("")
    world.up()
    for unit in (DHCP_SERVER, DHCP_CLIENT):
        world.systemd.refuse("LoadUnit", on=unit, text="not now")
    mark = world.journal.mark()
    world.set("Mode", "Client")
    world.journal.expect_logs_in_order(
        [("info", "Stoping UDHCP daemon service"), load_failed_log(DHCP_SERVER, "not now (r = -13)"), empty_path_log("Stop")],
        mark,
    )
    assert world.get("Mode") == "Client"

    mark = world.journal.mark()
    world.set("Mode", "Host")
    for line, unit, verb in (
        ("Stoping UDHCP client service", DHCP_CLIENT, "Stop"),
        ("Starting UDHCP daemon service", DHCP_SERVER, "Start"),
    ):
        world.journal.expect_logs_in_order(
            [("info", line), load_failed_log(unit, "not now (r = -13)"), empty_path_log(verb)], mark
        )
    assert world.get("Mode") == "Host"


def test_without_a_system_bus_only_the_own_line_of_a_dhcp_unit_is_logged(world: World) -> None:
    world.tools.ip.output("")
    world.system_bus.stop()
    world.start_daemon()
    world.wait_up()
    world.journal.expect_logs_in_order(
        [("info", "Stoping UDHCP client service"), ("info", "Stoping WPA Supplicant daemon service")]
    )
    # The listener of hostapd, which could not be started either, writes between these on its own thread.
    world.journal.expect_in_order([log("info", "Starting UDHCP daemon service"), log(*SEPARATOR)])
    failures = re.compile(r"Failed to (load|start|stop|re-start) |Failed to read response|Unable to stop udhcpc")
    assert world.journal.find(log(text=failures)) == []
