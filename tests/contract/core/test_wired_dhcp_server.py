"""The wired DHCP server follows the addresses of the machine, through systemd, without holding anything up."""

from __future__ import annotations

import re
import time

import pytest
from vantora_sim import World, call, log

from unit_control import WIRED_DHCP_SERVER, WIRED_DHCP_SERVER_FILE, empty_path_log, job_call, job_failed_log, load_failed_log
from unit_control import loaded_log, manager_call, queued_log

TRYING = ("info", f"[Utils] Trying to enable {WIRED_DHCP_SERVER_FILE}")
ENABLED = ("info", f"[Utils] {WIRED_DHCP_SERVER_FILE} should've been successfully enabled")
LOADED = loaded_log(WIRED_DHCP_SERVER)
DISABLED = ("info", f"[Utils] {WIRED_DHCP_SERVER} should've been successfully disabled")
STARTED = ("info", "Successfully enabled and started udhcpd_eth0.service")
STOPPED = ("info", "Successfully stopped and disabled udhcpd_eth0.service")
NOT_SENT = ("err", "[Utils] Failed to send bus enable call")
NOT_ENABLED = ("err", "Failed to enable udhcpd_eth0.service")
NOT_DISABLED = ("err", "Failed to disable udhcpd_eth0.service")

ENABLE_CALL = manager_call("EnableUnitFiles", "asbb", [WIRED_DHCP_SERVER_FILE], False, False)
DISABLE_CALL = manager_call("DisableUnitFiles", "asb", [WIRED_DHCP_SERVER], False)
LOAD_CALL = manager_call("LoadUnit", "s", WIRED_DHCP_SERVER)


def event(interface: str, address: str, status: str) -> tuple[str, str]:
    """The line of an address event, with which each reaction begins."""
    return "info", f"[NETLINK] IP Event: Iface: {interface} IP Address: {address} Status: {status}"


def enable_failed(result: int) -> list[tuple[str, str]]:
    """The lines of a failed enable call, to the end of the reaction."""
    summary = f"[Utils] utils_enable_service Error building/calling EnableUnitFiles: {result}"
    return [TRYING, NOT_SENT, ("err", summary), NOT_ENABLED]


def disable_failed(result: int) -> list[tuple[str, str]]:
    """The lines of a failed disable call, to the end of the reaction."""
    summary = f"[Utils] utils_disable_service Error building/calling DisableUnitFiles: {result}"
    return [NOT_SENT, ("err", summary), NOT_DISABLED]


@pytest.fixture
def still_world(world: World) -> World:
    """The daemon in a world in which it gives `wlan0` no address of its own: no job but four were asked of systemd."""
    world.tools.ip.output("")
    world.up()
    return world


def test_address_added_on_the_wire_enables_and_starts_the_server(still_world: World) -> None:
    world = still_world
    mark = world.journal.mark()
    world.add_address("10.0.0.1/24", "eth0")
    world.journal.expect_logs_in_order(
        [event("eth0", "10.0.0.1", "Added"), TRYING, ENABLED, LOADED, queued_log("Start", WIRED_DHCP_SERVER, 5), STARTED], mark
    )
    world.journal.expect_in_order([ENABLE_CALL, LOAD_CALL, job_call("Start", WIRED_DHCP_SERVER)], mark)
    assert world.journal.count(call(bus="system"), mark) == 3
    assert world.systemd.enabled == {WIRED_DHCP_SERVER}
    assert world.systemd.active[WIRED_DHCP_SERVER]


def test_address_removed_from_the_wire_stops_and_disables_the_server(still_world: World) -> None:
    world = still_world
    world.systemd.enabled.add(WIRED_DHCP_SERVER)
    world.systemd.active[WIRED_DHCP_SERVER] = True
    world.systemd.refuse("EnableUnitFiles", times=1)
    world.add_address("10.0.0.1/24", "eth0")
    world.journal.wait_for(log(*NOT_ENABLED))
    mark = world.journal.mark()
    world.remove_address("10.0.0.1/24", "eth0")
    expect_stopped_and_disabled(world, event("eth0", "10.0.0.1", "Removed"), mark)


def expect_stopped_and_disabled(world: World, first: tuple[str, str], mark: int) -> None:
    """The whole reaction to every event but an address added on the wire."""
    world.journal.expect_logs_in_order([first, LOADED, queued_log("Stop", WIRED_DHCP_SERVER, 5), DISABLED, STOPPED], mark)
    world.journal.expect_in_order([LOAD_CALL, job_call("Stop", WIRED_DHCP_SERVER), DISABLE_CALL], mark)
    assert world.journal.count(call(bus="system"), mark) == 3
    assert world.systemd.enabled == set()
    assert not world.systemd.active[WIRED_DHCP_SERVER]


def test_address_of_any_other_interface_stops_and_disables_the_server(still_world: World) -> None:
    world = still_world
    world.systemd.enabled.add(WIRED_DHCP_SERVER)
    world.systemd.active[WIRED_DHCP_SERVER] = True
    assert world.sandbox.run(["/usr/sbin/ip", "link", "add", "usb0", "type", "veth"]).status == 0
    mark = world.journal.mark()
    world.add_address("10.0.0.1/24", "usb0")
    expect_stopped_and_disabled(world, event("usb0", "10.0.0.1", "Added"), mark)


def test_address_of_wlan0_stops_the_server_until_the_next_address_on_the_wire(still_world: World) -> None:
    world = still_world
    for address, interface, last in (
        ("10.0.0.1/24", "eth0", STARTED),
        ("10.1.0.1/24", "wlan0", STOPPED),
        ("10.0.0.2/24", "eth0", STARTED),
    ):
        mark = world.journal.mark()
        world.add_address(address, interface)
        world.journal.wait_for(log(*last), mark)
        assert world.systemd.active[WIRED_DHCP_SERVER] == (interface == "eth0")


def add_on_the_wire(world: World) -> int:
    """Bring a still daemon up and give `eth0` an address; returns the mark before it."""
    world.tools.ip.output("")
    world.up()
    mark = world.journal.mark()
    world.add_address("10.0.0.1/24", "eth0")
    return mark


@pytest.mark.parametrize(
    "line",
    ["console=tty0 root=/dev/nfs rw\n", "root=/dev/nfs", "x" * 486 + "root=/dev/nfs", "noroot=/dev/nfsroot=1\nsecond line\n"],
    ids=["among others", "alone", "last of 499 characters", "within a word"],
)
def test_on_a_network_root_an_address_added_on_the_wire_stops_and_disables_the_server(world: World, line: str) -> None:
    world.set_kernel_command_line(line)
    mark = add_on_the_wire(world)
    expect_stopped_and_disabled(world, event("eth0", "10.0.0.1", "Added"), mark)
    assert world.journal.count(call("EnableUnitFiles")) == 0


@pytest.mark.parametrize(
    "line",
    ["", "\nroot=/dev/nfs\n", "x" * 487 + "root=/dev/nfs", "root=/dev/nf s", "ROOT=/dev/nfs\n"],
    ids=["empty", "in the second line", "beyond 499 characters", "with a blank", "in capitals"],
)
def test_on_any_other_root_an_address_added_on_the_wire_starts_the_server(world: World, line: str) -> None:
    world.set_kernel_command_line(line)
    mark = add_on_the_wire(world)
    world.journal.wait_for(log(*STARTED), mark)


def test_unreadable_kernel_command_line_is_logged_and_taken_for_no_network_root(world: World) -> None:
    world.hide_kernel_command_line()
    mark = add_on_the_wire(world)
    world.journal.expect_logs_in_order(
        [event("eth0", "10.0.0.1", "Added"), ("err", "Failed to open /proc/cmdline"), TRYING, ENABLED], mark
    )


def expect_reaction(world: World, number: int, added: bool, lines: list[tuple[str, str]]) -> None:
    """Add this address on the wire, or remove it, and expect exactly these lines about it."""
    mark = world.journal.mark()
    (world.add_address if added else world.remove_address)(f"10.0.{number}.1/24", "eth0")
    world.journal.expect_logs_in_order([event("eth0", f"10.0.{number}.1", "Added" if added else "Removed"), *lines], mark)


def test_server_that_can_not_be_enabled_is_neither_looked_up_nor_started(still_world: World) -> None:
    world = still_world
    mark = world.journal.mark()
    world.systemd.unit_files.remove(WIRED_DHCP_SERVER_FILE)
    expect_reaction(world, 1, True, enable_failed(-2))
    world.systemd.refuse("EnableUnitFiles", name="org.freedesktop.DBus.Error.AccessDenied", text=None)
    expect_reaction(world, 2, True, enable_failed(-13))
    world.systemd.clear()
    world.systemd.vanish("EnableUnitFiles")
    expect_reaction(world, 3, True, enable_failed(-110))
    expect_reaction(world, 4, True, enable_failed(-113))
    world.system_bus.stop()
    expect_reaction(world, 5, True, [TRYING, ("err", "[Utils] Failed to open system bus. ret -2"), NOT_ENABLED])
    assert world.journal.count(call("LoadUnit"), mark) == 0


def test_server_that_can_not_be_disabled_has_been_stopped(still_world: World) -> None:
    world = still_world
    for number in (1, 2, 3):
        world.add_address(f"10.0.{number}.1/24", "eth0")
    world.journal.wait_for(log(*event("eth0", "10.0.3.1", "Added")))
    world.journal.wait_for(log(*queued_log("Start", WIRED_DHCP_SERVER, 7)))
    world.systemd.refuse("DisableUnitFiles", name="org.freedesktop.DBus.Error.AccessDenied", text="no", times=1)
    expect_reaction(world, 1, False, [LOADED, queued_log("Stop", WIRED_DHCP_SERVER, 8), *disable_failed(-13)])
    assert not world.systemd.active[WIRED_DHCP_SERVER]
    world.systemd.vanish("DisableUnitFiles")
    expect_reaction(world, 2, False, [LOADED, queued_log("Stop", WIRED_DHCP_SERVER, 9), *disable_failed(-110)])
    world.system_bus.stop()
    expect_reaction(world, 3, False, [("err", "[Utils] Failed to open system bus. ret -2"), NOT_DISABLED])


def test_replies_to_enable_and_disable_are_not_read(still_world: World) -> None:
    world = still_world
    world.systemd.reply("EnableUnitFiles", "", [])
    world.systemd.reply("DisableUnitFiles", "s", ["odd"])
    expect_reaction(world, 1, True, [TRYING, ENABLED, LOADED])
    world.journal.wait_for(log(*STARTED))
    expect_reaction(world, 1, False, [LOADED, queued_log("Stop", WIRED_DHCP_SERVER, 6), DISABLED, STOPPED])


def test_refused_look_ups_and_jobs_are_taken_for_success(still_world: World) -> None:
    world = still_world
    world.systemd.refuse("LoadUnit", text="no", times=2)
    not_loaded = load_failed_log(WIRED_DHCP_SERVER, "no (r = -13)")
    expect_reaction(world, 1, True, [TRYING, ENABLED, not_loaded, empty_path_log("Start"), STARTED])
    expect_reaction(world, 1, False, [not_loaded, empty_path_log("Stop"), DISABLED, STOPPED])
    world.systemd.refuse("Start", text="no")
    world.systemd.refuse("Stop", text="no")
    expect_reaction(
        world, 2, True, [TRYING, ENABLED, LOADED, job_failed_log("Start", WIRED_DHCP_SERVER, "no (r = -13)"), STARTED]
    )
    expect_reaction(world, 2, False, [LOADED, job_failed_log("Stop", WIRED_DHCP_SERVER, "no (r = -13)"), DISABLED, STOPPED])


def test_enable_that_is_not_answered_ends_after_five_seconds_and_holds_up_nobody(still_world: World) -> None:
    world = still_world
    world.systemd.hang("EnableUnitFiles")
    mark = world.journal.mark()
    world.add_address("10.0.0.1/24", "eth0")
    world.journal.wait_for(log(*TRYING), mark)
    world.journal.wait_for(ENABLE_CALL, mark)
    began = time.monotonic()
    reads = 0
    while world.journal.count(log(*NOT_SENT), mark) == 0:
        assert world.get("WiFiState") == 1
        reads += 1
    assert 4.5 < time.monotonic() - began < 15
    assert reads >= 10
    world.journal.expect_logs_in_order([event("eth0", "10.0.0.1", "Added"), *enable_failed(-110)], mark)
    world.systemd.clear()
    expect_reaction(world, 1, True, [TRYING, ENABLED, LOADED, queued_log("Start", WIRED_DHCP_SERVER, 5), STARTED])


@pytest.mark.parametrize("member", ["EnableUnitFiles", "LoadUnit", "Start"])
def test_reaction_that_hangs_does_not_hold_up_the_end_of_the_process(still_world: World, member: str) -> None:
    world = still_world
    world.systemd.hang(member)
    mark = world.journal.mark()
    world.add_address("10.0.0.1/24", "eth0")
    world.journal.wait_for(call(member), mark)
    assert world.get("WiFiState") == 1
    assert world.daemon is not None
    asked = time.monotonic()
    assert world.daemon.stop() == 0
    assert time.monotonic() - asked < 4, "held up by the call to systemd"
    assert world.journal.count(log(text=re.compile("^Successfully|^Failed")), mark) == 0


def test_a_server_that_was_never_enabled_is_not_known_by_name_until_it_is(still_world: World) -> None:
    world = still_world
    world.systemd.forget_wired_dhcp_server()
    mark = world.journal.mark()
    world.add_address("10.0.9.1/24", "lo")
    world.journal.expect_logs_in_order(
        [
            event("lo", "10.0.9.1", "Added"),
            LOADED,
            job_failed_log("Stop", WIRED_DHCP_SERVER, "Unit udhcpd_eth0.service not loaded. (r = -2)"),
            *disable_failed(-2),
        ],
        mark,
    )
    mark = world.journal.mark()
    world.add_address("10.0.0.1/24", "eth0")
    world.journal.wait_for(log(*STARTED), mark)
    mark = world.journal.mark()
    world.remove_address("10.0.0.1/24", "eth0")
    world.journal.wait_for(log(*STOPPED), mark)
