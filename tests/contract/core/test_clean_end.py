"""The daemon ends with status 0 in under a second, whatever it is in the middle of."""

from __future__ import annotations

import os
import select
import signal as signals
import time
from collections.abc import Callable

import pytest
from station import wait_first_state
from vantora_sim import DEADLINE, Process, Variant, World, call, command, hostapd_request, log, notify, unit_path

LIMIT = 1.0
NAP = 0.01


def seconds_to_end(daemon: Process, cause: Callable[[], None]) -> float:
    """Seconds from the cause to the end of the process, as the kernel tells it.

    Without those that a busy machine keeps its processes waiting: the daemon's last step is a timer, and what other timers
    are late by meanwhile is measured beside it.
    """
    descriptor = os.pidfd_open(daemon.pid)
    try:
        begin = time.monotonic()
        cause()
        late = 0.0
        while True:
            nap = time.monotonic()
            ended, _, _ = select.select([descriptor], [], [], NAP)
            if ended:
                return time.monotonic() - begin - late
            late += time.monotonic() - nap - NAP
            assert time.monotonic() - begin < DEADLINE, "the daemon does not end"
    finally:
        os.close(descriptor)


def assert_ends_in_time(world: World, cause: Callable[[], None] | None = None) -> None:
    """Status 0 in under a second after the cause, which is a SIGTERM if none is given."""
    daemon = world.daemon
    assert daemon is not None
    assert seconds_to_end(daemon, cause or (lambda: daemon.send_signal(signals.SIGTERM))) < LIMIT
    assert daemon.wait() == 0


@pytest.mark.parametrize("number", [signals.SIGTERM, signals.SIGINT])
@pytest.mark.parametrize("mode", ["Host", "Client"])
def test_an_idle_daemon_ends_in_the_middle_of_its_listeners_waits(world: World, mode: str, number: signals.Signals) -> None:
    world.settings.set("network", "mode", mode)
    daemon = world.up()
    if mode == "Host":
        world.hostapd.wait_attached()
        assert any(name.startswith("wpa_ctrl_") for name in os.listdir(world.sandbox.path("/tmp")))
    else:
        wait_first_state(world)
    mark = world.journal.mark()
    assert_ends_in_time(world, lambda: daemon.send_signal(number))
    assert not world.name_owned()
    assert world.journal.logs(mark) == []
    # Removed by the listener that was stopped in order, not by a process that was just given up.
    assert not any(name.startswith("wpa_ctrl_") for name in os.listdir(world.sandbox.path("/tmp")))


def test_a_second_signal_during_the_end_changes_nothing(world: World) -> None:
    daemon = world.up()

    def both() -> None:
        daemon.send_signal(signals.SIGTERM)
        daemon.send_signal(signals.SIGINT)

    assert_ends_in_time(world, both)


def test_a_signal_before_the_deferred_start_up_is_heeded(world: World) -> None:
    world.settings.hang("Get", on="development.killWifiOnBoot")
    world.start_daemon()
    world.journal.wait_for(call("Get"))
    assert_ends_in_time(world)
    assert world.journal.count(notify()) == 0


def test_a_signal_while_the_user_bus_does_not_answer_the_set_up_is_heeded(world: World) -> None:
    world.user_bus.freeze()
    try:
        world.start_daemon()
        world.journal.wait_for(log("info", "[Main] Starting Vantora Network service"))
        assert_ends_in_time(world)
        assert world.journal.count(notify()) == 0
    finally:
        world.user_bus.thaw()


def test_a_hanging_shell_command_is_not_waited_for(world: World) -> None:
    world.up()
    world.tools.iw.hang()
    mark = world.journal.mark()
    world.call_async("Get", "ss", ["com.vantora.Network1.WiFi", "Mode"], interface="org.freedesktop.DBus.Properties")
    world.journal.wait_for(command("iw dev wlan0 info"), mark)
    assert_ends_in_time(world)


def test_a_hanging_call_of_systemd_on_the_main_thread_is_not_waited_for(world: World) -> None:
    world.up()
    world.systemd.hang("LoadUnit")
    mark = world.journal.mark()
    world.call_async(
        "Set", "ssv", ["com.vantora.Network1.WiFi", "Mode", Variant("s", "Client")], interface="org.freedesktop.DBus.Properties"
    )
    world.journal.wait_for(call("LoadUnit"), mark)
    assert_ends_in_time(world)


def test_a_wait_for_the_hostapd_socket_is_not_waited_for(world: World) -> None:
    world.follow_units = False
    world.start_daemon()
    world.journal.wait_for(call("Start", path=unit_path("hostapd.service")))  # now it looks for the socket, for two seconds
    assert_ends_in_time(world)


def test_a_hostapd_that_does_not_answer_is_not_waited_for(world: World) -> None:
    world.up()
    world.hostapd.wait_attached()
    world.hostapd.hang("STA-FIRST")
    mark = world.journal.mark()
    world.call_async(
        "Get", "ss", ["com.vantora.Network1.WiFi", "WiFiConnectedClients"], interface="org.freedesktop.DBus.Properties"
    )
    world.journal.wait_for(hostapd_request("STA-FIRST"), mark)
    assert_ends_in_time(world)


def hang_in_the_wired_reaction(world: World) -> None:
    """Bring the thread of the address listener to a call of systemd that nobody answers."""
    world.systemd.hang("EnableUnitFiles")
    mark = world.journal.mark()
    world.add_address("10.0.0.5/24", "eth0")
    world.journal.wait_for(call("EnableUnitFiles"), mark)


def test_a_wired_reaction_that_hangs_on_its_thread_is_not_waited_for(world: World) -> None:
    world.up()
    hang_in_the_wired_reaction(world)
    world.settle()  # the main loop is not held up by it
    assert_ends_in_time(world)


# The user bus is lost


def test_without_its_user_bus_the_daemon_ends_with_status_0(world: World) -> None:
    world.up()
    assert_ends_in_time(world, world.user_bus.stop)


def test_without_its_user_bus_it_does_not_wait_for_a_hanging_reaction_either(world: World) -> None:
    world.up()
    hang_in_the_wired_reaction(world)
    assert_ends_in_time(world, world.user_bus.stop)


def test_a_restart_after_the_user_bus_has_come_back_brings_the_state_back(world: World) -> None:
    world.settings.set("network", "mode", "Client")
    world.up()
    assert_ends_in_time(world, world.user_bus.stop)
    world.user_bus.start()
    world.user_bus.wait_ready()
    world.settings.come_back()
    world.start_daemon()
    world.wait_ready()
    world.journal.wait_for(log("info", "[NETLINK] Starting kernel netlink task..."), world.journal.find(notify())[-1].index)
    name = "com.vantora.Network1"
    read = world.sandbox.sh(f"busctl --user get-property {name} /com/vantora/Network1 {name}.WiFi Mode WiFiState")
    assert read.stdout == 's "Client"\nu 1\n'
